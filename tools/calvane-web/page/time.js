// Times are milliseconds since 1970-01-01 UTC, with fractions. A zone is "local" (the browser's) or "utc".

export const SECOND = 1000;
export const MINUTE = 60 * SECOND;
export const HOUR = 60 * MINUTE;
export const DAY = 24 * HOUR;

/** Of an answer's "2026-07-28T09:00:00.123456Z"; NaN if it is none. */
export function parseTime(text) {
  const match = /^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)(\.\d+)?Z$/.exec(text ?? "");
  return match ? Date.parse(`${match[1]}Z`) + 1000 * Number(match[2] ?? 0) : NaN;
}

/** As the server takes it, to the microsecond. */
export function isoTime(time) {
  const micros = Math.round(time * 1000);
  const seconds = Math.floor(micros / 1e6);
  const fraction = String(micros - seconds * 1e6).padStart(6, "0");
  return `${new Date(seconds * 1000).toISOString().slice(0, 19)}.${fraction}Z`;
}

/** The parts of a time as they are read in a zone. */
export function partsOf(time, zone) {
  const date = new Date(time);
  return zone === "utc"
    ? { year: date.getUTCFullYear(), month: date.getUTCMonth(), day: date.getUTCDate(), weekday: date.getUTCDay(),
        hour: date.getUTCHours(), minute: date.getUTCMinutes(), second: date.getUTCSeconds() }
    : { year: date.getFullYear(), month: date.getMonth(), day: date.getDate(), weekday: date.getDay(),
        hour: date.getHours(), minute: date.getMinutes(), second: date.getSeconds() };
}

/** The time of a date and a time of day in a zone; months and days may be out of range, as for Date. */
export function timeOf(zone, year, month, day = 1, hour = 0, minute = 0, second = 0) {
  return zone === "utc"
    ? Date.UTC(year, month, day, hour, minute, second)
    : new Date(year, month, day, hour, minute, second).getTime();
}

/** How far the zone's clock is ahead of UTC at a time. */
export function offsetOf(time, zone) {
  return zone === "utc" ? 0 : -new Date(time).getTimezoneOffset() * MINUTE;
}

const MONTHS = ["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"];
const WEEKDAYS = ["Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"];
const two = (number) => String(number).padStart(2, "0");

export function monthText(time, zone) {
  return MONTHS[partsOf(time, zone).month];
}

export function dateText(time, zone) {
  const { year, month, day, weekday } = partsOf(time, zone);
  return `${WEEKDAYS[weekday]} ${day} ${MONTHS[month]} ${year}`;
}

/** "09:00:05", with `digits` digits of the second's fraction. */
export function clockText(time, zone, digits = 0) {
  // Seconds are cut, not rounded: 59.9996 s is not yet the next minute.
  const shown = Math.floor(time * 10 ** (digits - 3) + 1e-6) / 10 ** (digits - 3);
  const { hour, minute, second } = partsOf(shown, zone);
  const fraction = digits ? "." + String(Math.round((shown - Math.floor(shown / 1000) * 1000) * 10 ** (digits - 3))).padStart(digits, "0") : "";
  return `${two(hour)}:${two(minute)}:${two(second)}${fraction}`;
}

export function timeText(time, zone, digits = 0) {
  return `${dateText(time, zone)} ${clockText(time, zone, digits)}`;
}

/** "UTC", or the local zone's difference from it at that time: "UTC+02:00". */
export function zoneText(time, zone) {
  const minutes = offsetOf(time, zone) / MINUTE;
  const size = Math.abs(minutes);
  return minutes === 0 ? "UTC" : `UTC${minutes < 0 ? "−" : "+"}${two(Math.floor(size / 60))}:${two(size % 60)}`;
}

const UNITS = [["d", DAY], ["h", HOUR], ["min", MINUTE], ["s", SECOND]];

/** Two units at most: "2 h 5 min", "3.2 s", "40 ms". */
export function durationText(duration) {
  if (duration < SECOND) {
    return `${Math.round(duration)} ms`;
  }
  if (duration < MINUTE) {
    return `${Math.round(duration / 100) / 10} s`;
  }
  const first = UNITS.findIndex(([, length]) => duration >= length);
  const pair = UNITS.slice(first, first + 2);
  let left = Math.round(duration / pair.at(-1)[1]) * pair.at(-1)[1];
  return pair.map(([name, length]) => {
    const count = Math.floor(left / length);
    left -= count * length;
    return count ? `${count} ${name}` : "";
  }).filter(Boolean).join(" ");
}

/** For <input type="datetime-local">. */
export function fieldText(time, zone) {
  const { year, month, day } = partsOf(time, zone);
  return `${year}-${two(month + 1)}-${two(day)}T${clockText(time, zone, 3)}`;
}

/** The time in such a field; NaN if it is empty. */
export function parseField(text, zone) {
  const match = /^(\d+)-(\d\d)-(\d\d)T(\d\d):(\d\d)(?::(\d\d(?:\.\d+)?))?$/.exec(text);
  if (!match) {
    return NaN;
  }
  const [year, month, day, hour, minute] = match.slice(1, 6).map(Number);
  return timeOf(zone, year, month - 1, day, hour, minute) + Number(match[6] ?? 0) * SECOND;
}

export function bytesText(bytes) {
  const units = ["B", "kB", "MB", "GB", "TB"];
  let unit = 0;
  let number = bytes;
  for (; number >= 999.5 && unit + 1 < units.length; ++unit) {
    number /= 1000;
  }
  return `${unit && number < 99.95 ? number.toFixed(1) : Math.round(number)} ${units[unit]}`;
}
