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
];
export const REASON_COUNT = REASONS.length;
export const RECORDED = 0;
/** Not of the services: nothing was recorded yet at this time. */
export const FUTURE = REASONS.length;

export function reasonName(reason) {
  return (REASONS[reason] ?? REASONS[6]).name;
}

export function reasonText(reason) {
  const { name, text } = REASONS[reason] ?? REASONS[6];
  return text ? `${name}: ${text}` : name;
}

export function reasonVariable(reason) {
  return `--reason-${reason in REASONS ? reason : 6}`;
}
