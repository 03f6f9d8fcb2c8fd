#!/usr/bin/env python3
"""Measures the page of calvane-web in headless Chromium: its size, the first timeline, the first picture after a click, and
the frames while a timeline of 100,000 stretches is dragged. Usage: web_page.py BIN_DIR (as ./dev build leaves it)"""
import os
import pathlib
import statistics
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
os.environ["CALVANE_BIN_DIR"] = str(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build/release/bin").resolve())
sys.path.insert(0, str(ROOT / "tests" / "web"))

import browser_test  # noqa: E402
from harness import Device, PAGE, wait_until  # noqa: E402

ROUNDS = 10
FIRST_TIMELINE = """
const done = arguments[arguments.length - 1];
const look = () => document.querySelectorAll("#gap-list li").length && document.querySelector("#timeline").width
  ? done(performance.now()) : requestAnimationFrame(look);
look();"""
# From the click to a frame of the time that was clicked.
FIRST_PICTURE = """
const [x, done] = arguments;
const video = document.querySelector("video"), canvas = document.querySelector("#timeline"), box = canvas.getBoundingClientRect();
const at = {clientX: box.left + x * box.width, clientY: box.top + 60, bubbles: true, pointerId: 1, button: 0};
canvas.setPointerCapture = () => {};
const begin = performance.now();
video.requestVideoFrameCallback((now) => done(now - begin));
canvas.dispatchEvent(new PointerEvent("pointerdown", at));
canvas.dispatchEvent(new PointerEvent("pointerup", at));"""
# Draws frames of a view that moves, over so many stretches that are not summarised.
DRAG = """
const done = arguments[arguments.length - 1];
Promise.all([import("./timeline.js"), import("./coverage.js")]).then(([{Timeline, emptyScene}, {spanAt}]) => {
  const count = 100000, flat = {count, from: new Float64Array(count), to: new Float64Array(count), reason: new Uint8Array(count), share: new Float32Array(count)};
  for (let i = 0; i < count; ++i) {
    flat.from[i] = i * 1000;
    flat.to[i] = i * 1000 + 1000;
    flat.reason[i] = i % 3 === 2 ? 4 : 0;
    flat.share[i] = i % 3 === 2 ? 0 : 1;
  }
  const coverage = Object.assign(new EventTarget(), {pieces: (_, view) => [{from: view.from, to: view.to, flat}]});
  const scene = Object.assign(emptyScene(), {view: {from: 0, to: 1e8}, now: 1e8});
  const canvas = document.createElement("canvas");
  document.querySelector("#timeline-frame").append(canvas);
  canvas.style.width = "100%";
  const tracks = ["video", "audio", "metadata"].map((name) => ({name, title: name}));
  const timeline = new Timeline(canvas, tracks, coverage, scene);
  const work = [], between = [];
  let last = 0;
  const step = (now) => {
    const begin = performance.now();
    scene.view = {from: scene.view.from + 3e4, to: scene.view.to + 3e4};
    timeline.drawNow();
    work.push(performance.now() - begin);
    if (last) between.push(now - last);
    last = now;
    work.length < 300 ? requestAnimationFrame(step) : done([work, between]);
  };
  requestAnimationFrame(step);
});"""


def describe(name, values):
    values = sorted(values)
    print(f"{name:34} median {statistics.median(values):7.1f} ms   95 % {values[int(len(values) * 0.95) - 1]:7.1f} ms")


def main():
    device = Device()
    browser = browser_test.open_browser(device.folder)
    try:
        wait_until(lambda: device.seconds_recorded() > 20, "a recording", 60)
        url = device.start_web().url
        print(f"{'page':34} {sum(path.stat().st_size for path in pathlib.Path(PAGE).iterdir()) / 1024:.1f} KiB")
        timelines = []
        for _ in range(ROUNDS):
            browser.get("about:blank")
            browser.get(url + f"#from={browser_test.iso(time.time() - 30)}&to={browser_test.iso(time.time())}&zone=utc")
            timelines.append(browser.execute_async_script(FIRST_TIMELINE))
        describe("first timeline", timelines)
        pictures = []
        for i in range(ROUNDS):
            browser.get("about:blank")
            now = time.time()
            browser.get(url + f"#from={browser_test.iso(now - 20)}&to={browser_test.iso(now)}&zone=utc")
            time.sleep(1)
            pictures.append(browser.execute_async_script(FIRST_PICTURE, 0.2 + 0.05 * i))
        describe("first picture after a click", pictures)
        work, between = browser.execute_async_script(DRAG)
        describe("drawing 3 x 100,000 stretches", work)
        describe("from frame to frame", between)
    finally:
        browser.quit()
        device.close()


if __name__ == "__main__":
    main()
