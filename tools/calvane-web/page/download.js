// Fetches an export while telling how far it is, then gives it to the browser to save.
import { address, request, source } from "./api.js";

/** Above this the browser saves the file itself, since a page would have to hold it in memory. */
export const LARGEST_HERE = 400e6;

function save(href, name) {
  const link = document.createElement("a");
  link.href = href;
  link.download = name;
  document.body.append(link);
  link.click();
  link.remove();
}

function nameOf(response) {
  return /filename="?([^";]+)/.exec(response.headers.get("Content-Disposition") ?? "")?.[1] ?? "recording";
}

/** Leaves it to the browser, which shows its own progress. */
export function downloadByBrowser(parameters) {
  save(address(`${source.path}/export`, { ...source.parameters, ...parameters }), "");
}

/** Calls `onProgress(bytes)`. Throws ApiError for an answer that says why not, and AbortError by `signal`. */
export async function download(parameters, onProgress, signal) {
  const response = await request(`${source.path}/export`, { ...source.parameters, ...parameters }, { signal });
  const reader = response.body.getReader();
  const parts = [];
  let size = 0;
  try {
    for (let part = await reader.read(); !part.done; part = await reader.read()) {
      parts.push(part.value);
      size += part.value.length;
      onProgress(size);
    }
  } catch (error) {
    throw error.name === "AbortError" ? error : new Error(`The export was cut off after ${size} bytes`);
  }
  const href = URL.createObjectURL(new Blob(parts, { type: response.headers.get("Content-Type") ?? "" }));
  const name = nameOf(response);
  save(href, name);
  setTimeout(() => URL.revokeObjectURL(href), 60_000);
  return { name, size };
}
