// Requests to the server that this page is from.
import { isoTime, parseTime } from "./time.js";

/** What the server or the connection to it refused, in words; `status` is 0 when there was no answer. */
export class ApiError extends Error {
  constructor(status, message, body = {}) {
    super(message);
    this.status = status;
    this.body = body;
  }
}

let askPassword = null;
let login = null;

/** `ask` is called when the server wants a password first; it resolves when it has one. */
export function onLoginNeeded(ask) {
  askPassword = ask;
}

/** The address of a request; times are given as numbers below "from", "to" and "at". */
export function address(path, parameters = {}) {
  const query = new URLSearchParams();
  for (const [key, value] of Object.entries(parameters)) {
    if (value !== undefined && value !== null) {
      query.set(key, ["from", "to", "at"].includes(key) && typeof value === "number" ? isoTime(value) : value);
    }
  }
  return query.size === 0 ? path : `${path}?${query}`;
}

async function errorOf(response) {
  const body = await response.json().catch(() => ({}));
  return new ApiError(response.status, body.error ?? `The server answered ${response.status}`, body);
}

/** The response; throws ApiError for any that is not of success. */
export async function request(path, parameters, { signal, ...options } = {}) {
  for (;;) {
    let response;
    try {
      response = await fetch(address(path, parameters), { signal, ...options });
    } catch (error) {
      if (error.name === "AbortError") {
        throw error;
      }
      throw new ApiError(0, "The device does not answer");
    }
    if (response.ok) {
      return response;
    }
    if (response.status !== 401 || !askPassword) {
      throw await errorOf(response);
    }
    login ??= askPassword().finally(() => (login = null));
    await login;
  }
}

export async function getJson(path, parameters, options) {
  return (await request(path, parameters, options)).json();
}

/** Throws ApiError when it is not the password. */
export async function logIn(password) {
  const response = await fetch("/api/login", {
    method: "POST", headers: { "Content-Type": "application/json" }, body: JSON.stringify({ password }),
  }).catch(() => {
    throw new ApiError(0, "The device does not answer");
  });
  if (!response.ok) {
    throw await errorOf(response);
  }
}

/**
 * Whose media is played, exported and pictured: the recorder's, or that of a device of a fleet. `coverage` are the path and the
 * parameters that ask where there is video, `spansOf` finds that in the answer.
 */
export const source = {
  path: "/api", parameters: {},
  coverage: ["/api/coverage", { tracks: "video" }], spansOf: (answer) => answer.tracks.video.spans,
};

/** Media from a time on: {mime, begin, body}. `mime` is null when the browser is not told what it is. */
export async function getMedia(from, to, options) {
  const response = await request(`${source.path}/media`, { ...source.parameters, from, to }, options);
  return {
    mime: response.headers.get("X-Calvane-Mime"),
    begin: parseTime(response.headers.get("X-Calvane-Begin")),
    body: response.body,
  };
}

/** When there is video at or after a time and before another one; NaN if there is none. */
export async function findVideo(from, to, options) {
  const [path, parameters] = source.coverage;
  const spans = source.spansOf(await getJson(path, { ...parameters, from, to, buckets: 2000 }, options));
  const span = spans.find((each) => each.present || each.share > 0);
  return span ? Math.max(from, parseTime(span.from)) : NaN;
}
