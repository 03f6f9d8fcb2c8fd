// The keyboard: what each key does, and the list of them.
import { byId, make } from "./dom.js";

/** Calls the action of a key unless it is typed into a field or works a button. `actions`: [keys, text, action]. */
export function bindKeys(actions) {
  const table = new Map(actions.flatMap(([keys, , action]) => keys.map((key) => [key, action])));
  document.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey || document.querySelector("dialog[open]")) {
      return;
    }
    const target = event.target;
    const isField = target.matches("input, select, textarea");
    const isPressed = target.matches("button, a") && (event.key === " " || event.key === "Enter");
    const name = event.key.length === 1 ? event.key : (event.shiftKey ? "Shift+" : "") + event.key;
    const action = table.get(name);
    if (action && !isField && !isPressed) {
      event.preventDefault();
      action();
    }
  });
  byId("help-keys").replaceChildren(...actions.flatMap(([keys, text]) => [
    make("dt", {}, ...keys.flatMap((key, i) => [i ? " " : "", make("kbd", { textContent: labelOf(key) })])),
    make("dd", { textContent: text }),
  ]), make("dt", { textContent: "Wheel, pinch" }), make("dd", { textContent: "zoom" }),
  make("dt", { textContent: "Drag" }), make("dd", { textContent: "moves the time; with Shift it selects" }));
}

const LABELS = { " ": "Space", ArrowLeft: "←", ArrowRight: "→", ArrowUp: "↑", ArrowDown: "↓", "Shift+ArrowLeft": "Shift ←", "Shift+ArrowRight": "Shift →" };

function labelOf(key) {
  return LABELS[key] ?? key;
}
