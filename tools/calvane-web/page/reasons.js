// Why there is data or none, by the numbers of the services: in words, and the CSS variable with its colour.

const REASONS = [
  { name: "Recorded", text: "" },
  { name: "Stopped", text: "the camera or its source gave no data" },
  { name: "No card", text: "the card was not in the device" },
  { name: "Erased by age", text: "older than the device keeps recordings" },
  { name: "Dropped", text: "the card or the recorder could not keep up" },
  { name: "Clock set", text: "the device's clock jumped over this time" },
  { name: "Unknown", text: "the device does not know why" },
  { name: "Interrupted", text: "the recorder ended without notice, or the power failed" },
  { name: "Erased by space limit", text: "given up for newer data within the limit of space" },
  { name: "Erased, card full", text: "given up for newer data on the full card" },
  { name: "Nothing yet", text: "nothing had been recorded by then" },
  { name: "Not selected", text: "the device's policy does not copy this" },
  { name: "Not copied yet", text: "the device still has to copy this" },
];
export const REASON_COUNT = REASONS.length;
export const RECORDED = 0;
export const UNKNOWN = 6;
/** Not of the services: what they know nothing of since it is before the first record. It is no gap. */
export const NOT_BEGUN = 10;
/** Of what a device copies into a fleet's streams: these follow one another here and there. */
const NOT_SELECTED = 11;
const OF_THE_COPY = 100;

/** The reason that the services give, or that it is unknown here. */
export function reasonOf(number) {
  const ofTheCopy = number - OF_THE_COPY + NOT_SELECTED;
  return number < NOT_BEGUN ? number : ofTheCopy >= NOT_SELECTED && ofTheCopy < REASON_COUNT ? ofTheCopy : UNKNOWN;
}

export function reasonName(reason) {
  return REASONS[reason].name;
}

export function reasonText(reason) {
  const { name, text } = REASONS[reason];
  return text ? `${name}: ${text}` : name;
}

export function reasonVariable(reason) {
  return `--reason-${reason}`;
}
