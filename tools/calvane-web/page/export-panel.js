// The selection as fields, and its export.
import { byId, show } from "./dom.js";
import { LARGEST_HERE, download, downloadByBrowser } from "./download.js";
import { bytesText, durationText, fieldText, parseField } from "./time.js";

export class ExportPanel {
  #scene;
  #navigator;
  #bytesPerHour = 0;
  #abort = null;

  constructor(scene, navigator) {
    this.#scene = scene;
    this.#navigator = navigator;
    for (const id of ["export-from", "export-to"]) {
      byId(id).addEventListener("change", () => this.#onField());
    }
    byId("select-begin").addEventListener("click", () => this.selectFrom(this.#scene.cursor));
    byId("select-end").addEventListener("click", () => this.selectTo(this.#scene.cursor));
    byId("select-clear").addEventListener("click", () => navigator.setSelection(NaN, NaN));
    byId("export-cancel").addEventListener("click", () => this.#abort?.abort());
    byId("export-form").addEventListener("submit", (event) => {
      event.preventDefault();
      this.start();
    });
    navigator.addEventListener("selection", () => this.#show());
    navigator.addEventListener("zone", () => this.#show());
  }

  /** As the recorder says it, for an estimate of the file's size. */
  set bytesPerHour(bytes) {
    this.#bytesPerHour = bytes;
    this.#showAbout();
  }

  selectFrom(time) {
    const { selection } = this.#scene;
    this.#navigator.setSelection(time, selection && selection.to > time ? selection.to : time + 10_000);
  }

  selectTo(time) {
    const { selection } = this.#scene;
    this.#navigator.setSelection(selection && selection.from < time ? selection.from : time - 10_000, time);
  }

  #onField() {
    const { zone } = this.#scene;
    const from = parseField(byId("export-from").value, zone);
    const to = parseField(byId("export-to").value, zone);
    if (from < to) {
      this.#navigator.setSelection(from, to);
    } else if (from >= to) {
      show(byId("export-result"), "The end is before the begin.");
    }
  }

  #show() {
    const { selection, zone } = this.#scene;
    byId("export-from").value = selection ? fieldText(selection.from, zone) : "";
    byId("export-to").value = selection ? fieldText(selection.to, zone) : "";
    byId("export-start").disabled = !selection || this.#abort !== null;
    byId("export-result").textContent = "";
    this.#showAbout();
  }

  #showAbout() {
    const { selection } = this.#scene;
    if (selection) {
      const bytes = this.#expected(selection);
      byId("export-about").textContent = durationText(selection.to - selection.from) +
        (bytes ? `, some ${bytesText(bytes)}; begins at the key frame before.` : "; begins at the key frame before.");
    } else {
      byId("export-about").textContent = "Select a time to export: drag with Shift, or with the button “Select”.";
    }
  }

  #expected({ from, to }) {
    return ((to - from) / 3600_000) * this.#bytesPerHour;
  }

  async start() {
    const { selection } = this.#scene;
    if (!selection || this.#abort) {
      return;
    }
    const parameters = { ...selection, container: byId("container").value, gaps: byId("gaps").value };
    const expected = this.#expected(selection);
    if (expected > LARGEST_HERE) {
      downloadByBrowser(parameters);
      show(byId("export-result"), "The browser saves it: see its list of downloads.");
      return;
    }
    this.#setBusy(new AbortController());
    try {
      const { name, size } = await download(parameters, (bytes) => this.#progress(bytes, expected), this.#abort.signal);
      show(byId("export-result"), `Saved ${name}, ${bytesText(size)}.`);
    } catch (error) {
      show(byId("export-result"), error.name === "AbortError" ? "Cancelled." : `${error.message}.`);
    } finally {
      this.#setBusy(null);
    }
  }

  #progress(bytes, expected) {
    const progress = byId("export-progress");
    if (expected) {
      progress.value = Math.min(bytes / expected, 0.99);
    } else {
      progress.removeAttribute("value"); // How much there will be is not known.
    }
    show(byId("export-result"), bytesText(bytes) + (expected ? ` of some ${bytesText(expected)}` : ""));
  }

  #setBusy(abort) {
    this.#abort = abort;
    byId("export-start").disabled = abort !== null || !this.#scene.selection;
    byId("export-cancel").hidden = abort === null;
    byId("export-progress").hidden = abort === null;
    byId("export-progress").value = 0;
  }
}
