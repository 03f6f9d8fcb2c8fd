// What of the time is in view, and the ticks of its ruler.
import { DAY, HOUR, MINUTE, SECOND, clockText, dateText, monthText, offsetOf, partsOf, timeOf } from "./time.js";

export const SHORTEST = 200; // Some frames of a camera.
export const LONGEST = 20 * 366 * DAY;

/** A view of `span` milliseconds or the nearest possible, with `time` at `share` (0 left, 1 right) of it. */
export function viewAround(time, span, share = 0.5) {
  const length = Math.min(Math.max(span, SHORTEST), LONGEST);
  const from = time - length * share;
  return { from, to: from + length };
}

/** The view with what is at `share` of it staying there, `factor` times as long. */
export function zoomed(view, factor, share = 0.5) {
  const span = view.to - view.from;
  return viewAround(view.from + span * share, span * factor, share);
}

export function moved(view, duration) {
  return { from: view.from + duration, to: view.to + duration };
}

/** The view that puts two times below two fingers: `times` to the shares `shares` of it. */
export function pinched(times, shares) {
  const between = shares[1] - shares[0];
  if (Math.abs(between) < 0.02) {
    return null;
  }
  const span = Math.abs((times[1] - times[0]) / between);
  return viewAround((times[0] + times[1]) / 2, span, (shares[0] + shares[1]) / 2);
}

const STEPS = [1, 2, 5, 10, 20, 50, 100, 200, 500, SECOND, 2 * SECOND, 5 * SECOND, 10 * SECOND, 15 * SECOND, 30 * SECOND,
  MINUTE, 2 * MINUTE, 5 * MINUTE, 10 * MINUTE, 15 * MINUTE, 30 * MINUTE, HOUR, 2 * HOUR, 3 * HOUR, 6 * HOUR, 12 * HOUR];
const DAYS = [1, 2, 7, 14];
const MONTHS = [1, 3, 6, 12, 24, 60];

function clockTicks(view, step, zone) {
  const digits = step >= SECOND ? 0 : step >= 100 ? 1 : step >= 10 ? 2 : 3;
  const ticks = [];
  for (let at = Math.floor(view.from / step) * step - HOUR * (step > HOUR); at <= view.to; ) {
    const local = at + offsetOf(at, zone);
    const aligned = Math.ceil(local / step) * step - offsetOf(at, zone);
    if (aligned >= view.from && aligned <= view.to) {
      const { hour, minute, second } = partsOf(aligned, zone);
      const isMidnight = step >= MINUTE && !hour && !minute && !second;
      const text = clockText(aligned, zone, digits);
      ticks.push({ time: aligned, isMajor: isMidnight,
        text: isMidnight ? dateText(aligned, zone).replace(/ \d+$/, "") : step >= MINUTE ? text.slice(0, 5) : text });
    }
    at = aligned + step;
  }
  return ticks;
}

function calendarTicks(view, days, months, zone) {
  const { year, month, day } = partsOf(view.from, zone);
  const ticks = [];
  for (let i = 0; ; ++i) {
    const time = months
      ? timeOf(zone, year, Math.floor(month / Math.min(months, 12)) * Math.min(months, 12) + i * months)
      : timeOf(zone, year, month, day + i);
    if (time > view.to) {
      return ticks;
    }
    const parts = partsOf(time, zone);
    // Every so many days of a month; the last of them gives way to the first of the next.
    const isWanted = months || ((parts.day - 1) % days === 0 && (days === 1 || parts.day < 30));
    if (time >= view.from && isWanted) {
      const isFirst = parts.day === 1;
      const isYear = isFirst && parts.month === 0;
      ticks.push({ time, isMajor: months ? isYear : isFirst,
        text: isYear ? String(parts.year) : isFirst ? monthText(time, zone) : `${parts.day} ${monthText(time, zone)}` });
    }
  }
}

/** {time, text, isMajor} of ticks that are at least `least` milliseconds apart. */
export function ticksOf(view, least, zone) {
  const step = STEPS.find((each) => each >= least);
  if (step) {
    return clockTicks(view, step, zone);
  }
  const days = DAYS.find((each) => each * DAY >= least);
  const months = MONTHS.find((each) => each * 30 * DAY >= least) ?? MONTHS.at(-1);
  return calendarTicks(view, days ?? 0, days ? 0 : months, zone);
}
