// Small steps with the document.

export function byId(id) {
  return document.getElementById(id);
}

/** An element with properties, data attributes (`data`) and children. */
export function make(name, { data = {}, ...properties } = {}, ...children) {
  const element = Object.assign(document.createElement(name), properties);
  Object.assign(element.dataset, data);
  element.append(...children);
  return element;
}

/** A small square in a colour of the style sheet. */
export function swatch(variable) {
  const element = make("span", { className: "swatch" });
  element.style.setProperty("--swatch", `var(${variable})`);
  return element;
}

/** Shows a text or, without one, hides the element. */
export function show(element, text) {
  element.hidden = !text;
  if (text && element.textContent !== text) {
    element.textContent = text;
  }
}
