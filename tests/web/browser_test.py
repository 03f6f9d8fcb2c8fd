#!/usr/bin/env python3
"""The page in a real browser, with the real recorder and a generated camera. Pictures of it are left in the folder that
CALVANE_WEB_SHOTS names."""
import glob
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from urllib.parse import parse_qs

try:
    from selenium import webdriver
    from selenium.common.exceptions import StaleElementReferenceException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
except ImportError:
    webdriver = None

CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
if not (webdriver and CHROMIUM and DRIVER):
    print("SKIPPED: there is no Chromium here, or no python3-selenium to drive it; ./dev setup installs them")
    sys.exit(77)

from burnt_in import read_picture, time_of  # noqa: E402
from harness import WebTest, wait_until  # noqa: E402

SHOTS = os.environ.get("CALVANE_WEB_SHOTS", "")
FRAME = 1 / 30


def open_browser(downloads):
    options = webdriver.ChromeOptions()
    for word in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--window-size=1360,1000"):
        options.add_argument(word)
    options.add_experimental_option("prefs", {"download.default_directory": downloads})
    options.accept_insecure_certs = True
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(options=options, service=Service(DRIVER))


def iso(moment):
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(moment)) + f".{int(moment * 1000) % 1000:03}Z"


class Browser:
    """A browser, for a test case that opens pages in it."""

    @classmethod
    def open_browser(cls):
        cls.downloads = tempfile.mkdtemp(prefix="calvane-downloads-")
        cls.addClassCleanup(shutil.rmtree, cls.downloads)
        cls.browser = open_browser(cls.downloads)
        cls.addClassCleanup(cls.browser.quit)

    def run(self, result=None):
        """What fails is tried once more, and says so: browser, recorder and camera share few processors with other tests."""
        first = unittest.TestResult()
        super().run(first)
        if first.wasSuccessful() and not first.skipped:
            result.startTest(self)
            result.addSuccess(self)
            result.stopTest(self)
            return
        for _test, text in first.failures + first.errors:
            print(f"{self.id()} is tried once more: {text}", file=sys.stderr)
        super().run(result)

    def tearDown(self):
        problems = [line["message"] for line in self.browser.get_log("browser")
                    if line["level"] == "SEVERE" and line["source"] != "network"]
        self.assertEqual(problems, [])

    def wait(self, condition, what, seconds=15):
        def holds():
            try:
                return condition()
            except StaleElementReferenceException:  # The page is being loaded again.
                return False

        wait_until(holds, what, seconds)

    def find(self, name):
        return self.browser.find_element(By.ID, name)

    def text(self, name):
        return self.find(name).text

    def keys(self, *keys):
        ActionChains(self.browser).send_keys(*keys).perform()

    def click_at(self, element, x):
        """So many pixels from the middle."""
        ActionChains(self.browser).move_to_element_with_offset(element, round(x), 0).click().perform()

    def shoot(self, name):
        if SHOTS:
            os.makedirs(SHOTS, exist_ok=True)
            self.browser.save_screenshot(os.path.join(SHOTS, name + ".png"))

    def current(self):
        return self.browser.execute_script("return document.querySelector('video').currentTime")

    def is_shown(self):
        return self.browser.execute_script("const v = document.querySelector('video'); return v.readyState >= 2 && !v.seeking")

    def packets(self, path):
        probe = subprocess.run(["ffprobe", "-v", "warning", "-show_entries", "packet=stream_index,size,flags,data_hash",
                                "-show_data_hash", "md5", "-of", "csv", path], capture_output=True, text=True, check=True)
        self.assertEqual(probe.stderr, "")
        packets = sorted(probe.stdout.split())
        self.assertGreater(len(packets), 60)
        return packets


class PageTest(Browser, WebTest):
    """A recording with a gap: the recorder was killed, and started again some seconds later."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.open_browser()
        cls.device.stop_recorder(signal.SIGKILL)
        time.sleep(3)
        cls.device.start_recorder()
        wait_until(lambda: len(cls.gaps()) >= 1 and cls.device.seconds_recorded() > 14, "a gap and data behind it", 40)
        cls.gap = cls.gaps()[0]

    @classmethod
    def gaps(cls):
        try:
            video = cls.device.ask_json("coverage", "--track", "video")["video"]
        except (subprocess.CalledProcessError, ValueError):
            return []
        return [(time_of(a["last"]), time_of(b["first"])) for a, gap, b in zip(video, video[1:], video[2:])
                if a["reason"] == b["reason"] == "data" and gap["reason"] == "interrupted"]

    def open(self, place=""):
        self.browser.get("about:blank")
        self.browser.get(self.web.url + place)
        self.wait(lambda: self.text("link") == "Recording", "the page to show the recorder")

    def close_other_pages(self):
        for page in self.browser.window_handles[1:]:
            self.browser.switch_to.window(page)
            self.browser.close()
        self.browser.switch_to.window(self.browser.window_handles[0])

    def open_at(self, moment, span=20):
        """Paused at a moment, with so many seconds in view."""
        self.open(f"#from={iso(moment - span / 2)}&to={iso(moment + span / 2)}&t={iso(moment)}&zone=utc")
        self.wait(self.is_shown, "the picture of a moment")

    def test_shows_the_picture_that_was_asked_for_and_plays(self):
        moment = self.gap[0] - 4
        self.open_at(moment)
        number, shown, said = read_picture(self.browser)
        self.assertAlmostEqual(said, moment, delta=0.002)
        self.assertTrue(moment - FRAME - 0.002 <= shown <= moment + 0.002, (shown, moment))
        self.find("next-frame").click()
        self.wait(lambda: self.is_shown() and read_picture(self.browser)[0] == number + 1, "the next frame")
        self.find("previous-frame").click()
        self.wait(lambda: self.is_shown() and read_picture(self.browser)[0] == number, "the same frame again")
        before = self.current()
        self.find("play").click()
        self.wait(lambda: self.current() > before + 1, "time to pass")
        self.find("play").click()
        self.wait(lambda: self.browser.execute_script("return document.querySelector('video').paused"), "a pause")
        time.sleep(0.3)
        _, shown, said = read_picture(self.browser)
        self.assertAlmostEqual(shown, said, delta=2 * FRAME)
        self.assertGreater(shown, moment + 0.9)
        self.keys(">", ">")
        self.assertEqual(self.browser.execute_script("return document.querySelector('video').playbackRate"), 4)

    def test_goes_across_a_gap_and_says_why(self):
        self.open_at(self.gap[0] - 1)
        self.assertIn("Interrupted", self.text("gap-list"))
        self.assertIn("the power failed", self.text("legend"))
        self.browser.execute_script("""
            document.querySelector("video").addEventListener("seeked", () =>
              (window.saidFirst = document.querySelector("#clock-time").dateTime), {once: true});""")
        self.keys(" ")
        self.wait(lambda: "Skipped" in self.text("toast"), "the gap to be passed")
        self.assertIn("Interrupted", self.text("toast"))
        self.wait(lambda: read_picture(self.browser)[1] > self.gap[1] - FRAME, "the picture behind the gap")
        _, shown, said = read_picture(self.browser)
        self.assertAlmostEqual(shown, said, delta=0.3)
        self.assertGreater(time_of(self.browser.execute_script("return window.saidFirst")), self.gap[1] - FRAME)
        self.shoot("gap")
        self.keys(" ")
        middle = sum(self.gap) / 2
        self.browser.execute_script(f"location.hash = '#t={iso(middle)}&zone=utc'")
        self.wait(lambda: "No video at" in self.text("message"), "words in place of a picture")
        self.assertIn("Interrupted", self.text("message"))
        self.find("message-next").click()
        self.wait(lambda: self.is_shown() and not self.text("message") and read_picture(self.browser)[1] >= self.gap[1] - FRAME,
                  "the next recording")

    def test_zooms_from_a_day_to_a_second_and_back_by_its_address(self):
        self.open_at(self.gap[0] - 4)
        self.browser.find_element(By.CSS_SELECTOR, "[data-span='86400000']").click()
        self.wait(lambda: "1 d in view" == self.text("view-text"), "a day")
        canvas = self.find("timeline")
        for _ in range(80):
            self.browser.execute_script("arguments[0].dispatchEvent(new WheelEvent('wheel', {deltaY: -100, bubbles: true, "
                                        "cancelable: true, clientX: 700}))", canvas)
        self.wait(lambda: self.text("view-text") == "200 ms in view", "the shortest view")
        self.browser.find_element(By.CSS_SELECTOR, "[data-span='1000']").click()
        self.wait(lambda: self.text("view-text") == "1 s in view" and "from=" in self.browser.current_url, "a second")
        address = self.browser.current_url
        time.sleep(0.5)
        self.browser.get("about:blank")
        self.browser.get(address)
        self.wait(lambda: self.text("view-text") == "1 s in view", "the same view again")
        time.sleep(0.5)
        self.assertEqual(self.browser.current_url, address)

    def touch(self, kind, *places):
        points = [{"x": x, "y": y, "id": number} for number, (x, y) in enumerate(places)]
        self.browser.execute_cdp_cmd("Input.dispatchTouchEvent", {"type": kind, "touchPoints": points})

    def view(self):
        return [time_of(parse_qs(self.browser.current_url.split("#")[1])[name][0]) for name in ("from", "to")]

    def test_two_fingers_zoom_and_what_is_below_them_stays_there(self):
        self.open_at(self.gap[0] - 4, 60)
        begin, end = self.view()
        box = self.find("timeline").rect
        at = lambda share: (box["x"] + share * box["width"], box["y"] + 60)
        self.touch("touchStart", at(0.4), at(0.6))
        for share in (0.35, 0.3, 0.2):
            self.touch("touchMove", at(share), at(1 - share))
        self.touch("touchEnd")
        self.wait(lambda: self.text("view-text") == "20 s in view", "a third of the view")
        self.wait(lambda: self.view()[0] > begin + 1, "the address of the view")
        self.assertAlmostEqual(self.view()[0], begin + 20, delta=0.5)
        self.assertAlmostEqual(self.view()[1], end - 20, delta=0.5)

    def hover(self, moment):
        begin, end = self.view()
        canvas = self.find("timeline")
        offset = ((moment - begin) / (end - begin) - 0.5) * canvas.rect["width"]
        ActionChains(self.browser).move_to_element_with_offset(canvas, round(offset), 55 - canvas.rect["height"] // 2).perform()

    def test_what_is_below_the_pointer_is_shown_or_why_there_is_nothing(self):
        self.open_at(self.gap[0] - 4)
        moment = self.gap[0] - 2
        self.hover(moment)
        picture = self.find("hover-picture")
        self.wait(lambda: picture.is_displayed() and picture.get_property("naturalWidth") == 240, "a picture of that time")
        asked = self.browser.execute_script(
            "return performance.getEntriesByType('resource').map((each) => each.name).filter((each) => each.includes('thumbnail')).at(-1)")
        self.assertAlmostEqual(time_of(parse_qs(asked.split("?")[1])["at"][0]), moment, delta=0.6)
        self.shoot("hover")
        self.hover(sum(self.gap) / 2)
        self.wait(lambda: "Interrupted" in self.text("hover-text") and not picture.is_displayed(), "the reason of the gap")

    def test_before_the_first_record_there_is_no_gap(self):
        first = time_of(self.device.ask_json("tracks")["video"]["first"])
        self.open(f"#from={iso(first - 30)}&to={iso(first + 4)}&zone=utc")
        self.wait(lambda: "34 s in view" == self.text("view-text") and self.text("gap-list"), "the lists")
        self.hover(first - 20)
        self.wait(lambda: "Nothing yet" in self.text("hover-text"), "words about the time before")
        for place in ("gap-list", "legend"):
            self.assertNotIn("Unknown", self.text(place))
            self.assertNotIn("Nothing yet", self.text(place))
        self.shoot("before")

    def test_the_live_edge_moves_however_many_pages_are_open(self):
        for _ in range(6):  # As many connections as a browser has to one server.
            self.open()
            self.browser.switch_to.new_window("tab")
        self.addCleanup(self.close_other_pages)
        self.open()
        self.wait(lambda: self.is_shown() and abs(time.time() - read_picture(self.browser)[1]) < 4, "what is recorded now")
        first = read_picture(self.browser)[1]
        self.wait(lambda: read_picture(self.browser)[1] > first + 5, "the edge to move on")
        self.assertLess(time.time() - read_picture(self.browser)[1], 5)
        self.assertEqual(self.find("live").get_attribute("aria-pressed"), "true")
        self.shoot("live")

    def test_exports_what_is_selected_bit_exactly(self):
        begin, end = self.gap[0] - 4, self.gap[0] - 2
        self.open_at(begin)
        self.keys("i")
        self.browser.execute_script(f"location.hash = '#t={iso(end)}&sel={iso(begin)}~{iso(end)}&zone=utc'")
        self.wait(lambda: self.find("export-to").get_attribute("value") != "", "the fields")
        for container in ("mp4", "mkv"):
            self.find("container").find_element(By.CSS_SELECTOR, f"[value={container}]").click()
            self.find("export-start").click()
            self.wait(lambda: glob.glob(f"{self.downloads}/*.{container}"), "the file")  # noqa: B023
            self.wait(lambda: self.text("export-result").startswith("Saved"), "the export's end")
            self.shoot("export")
            ours = self.device.path("ours." + container)
            self.device.ask("export", "--from", iso(begin), "--to", iso(end), ours)
            theirs, = glob.glob(f"{self.downloads}/*.{container}")
            self.assertEqual(self.packets(theirs), self.packets(ours))

    def test_works_by_keyboard_alone_and_names_its_controls(self):
        self.open_at(self.gap[0] - 3)
        for _ in range(60):
            self.keys(Keys.TAB)
            if self.browser.switch_to.active_element.get_attribute("id") == "timeline":
                break
        canvas = self.browser.switch_to.active_element
        self.assertEqual(canvas.get_attribute("id"), "timeline")
        before = time_of(self.find("clock-time").get_attribute("datetime"))
        self.keys(Keys.ARROW_RIGHT)
        self.wait(lambda: abs(time_of(self.find("clock-time").get_attribute("datetime")) - before - 0.4) < 0.01, "a step")
        self.keys("g")
        self.wait(lambda: "Interrupted" in self.text("toast"), "the gap")
        self.assertAlmostEqual(time_of(self.find("clock-time").get_attribute("datetime")), self.gap[0], delta=0.1)
        self.wait(lambda: "Video: interrupted" in canvas.get_attribute("aria-valuetext"), "the gap in words")
        self.keys("?")
        self.wait(lambda: "next frame" in self.text("help-dialog"), "the list of keys")
        self.shoot("keys")
        self.keys(Keys.ESCAPE)
        nameless = self.browser.execute_script("""
            return [...document.querySelectorAll("button, input, select, canvas, video")].filter((each) =>
              !(each.innerText || each.ariaLabel || each.closest("label") || each.hidden)).map((each) => each.id);""")
        self.assertEqual(nameless, [])

    def test_fits_a_phone(self):
        metrics = {"width": 360, "height": 740, "deviceScaleFactor": 2, "mobile": True}
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", metrics)
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                     {"features": [{"name": "prefers-color-scheme", "value": "dark"}]})
        try:
            self.open_at(self.gap[0] - 3)
            widest = self.browser.execute_script("return document.documentElement.scrollWidth")
            self.assertLessEqual(widest, 360)
            self.shoot("phone")
        finally:
            self.browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
            self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})

    def test_computes_times_scales_and_lanes(self):
        self.open()
        got = self.browser.execute_async_script("""
            const done = arguments[arguments.length - 1];
            Promise.all(["time", "scale", "lanes", "place"].map((each) => import(`./${each}.js`))).then(([time, scale, lanes, place]) => {
              const at = time.parseTime("2026-03-29T00:59:59.999999Z");
              const columns = new lanes.Columns();
              columns.reset(4);
              columns.add(0, 4, 0, 1);
              columns.add(1.5, 1.5, 4, 0);
              const runs = [];
              columns.runs((from, to, reason, share) => runs.push([from, to, reason, share < 1]));
              const pinched = scale.pinched([100000, 200000], [0.25, 0.75]);
              const view = {from: Date.UTC(2025, 0, 1), to: Date.UTC(2026, 0, 2)};
              done({
                iso: time.isoTime(at), clock: time.clockText(at, "utc", 3), field: time.parseField(time.fieldText(at, "local"), "local") - at,
                durations: [40, 59960, 7199999, 90061000].map(time.durationText),
                runs, pinched, months: scale.ticksOf(view, 20 * 86400e3, "utc").map((tick) => tick.text).join(" "),
                hours: scale.ticksOf({from: at, to: at + 3 * 3600e3}, 3600e3, "utc").map((tick) => tick.text),
                place: place.readPlace("#from=2026-01-01T00:00:00Z&to=2025-01-01T00:00:00Z&t=never"),
              });
            }).catch((error) => done(String(error)));""")
        self.assertEqual((got["iso"], got["clock"]), ("2026-03-29T00:59:59.999999Z", "00:59:59.999"))
        self.assertLess(abs(got["field"]), 1.01)
        self.assertEqual(got["durations"], ["40 ms", "60 s", "2 h", "1 d 1 h"])
        self.assertEqual(got["runs"], [[0, 1, 0, False], [1, 2, 4, True], [2, 4, 0, False]])
        self.assertEqual(got["pinched"], {"from": 50000, "to": 250000})
        self.assertEqual(got["months"], "2025 Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec 2026")
        self.assertEqual(got["hours"], ["01:00", "02:00", "03:00"])
        self.assertIsNone(got["place"]["view"])


class TroubleTest(PageTest):
    """What changes a recording, and so has one of its own."""

    def test_says_that_the_recorder_is_gone_and_that_data_was_erased(self):
        self.open_at(self.gap[0] - 3)
        self.device.stop_recorder()
        self.wait(lambda: "recorder" in self.text("banner") and self.text("link") == "Recorder gone", "the recorder to be missed")
        self.shoot("gone")
        self.device.start_recorder()
        self.wait(lambda: self.text("link") == "Recording" and not self.text("banner"), "the recorder to be back", 30)
        self.find("play").click()
        self.device.ask("retention", "set", "2s")
        self.wait(lambda: "all before" in self.text("erased-list"), "what was erased", 30)
        self.wait(lambda: "erased" in self.text("toast"), "a notice")
        self.shoot("erased")
        self.device.ask("retention", "set", "none")
        self.wait(lambda: read_picture(self.browser)[1] > self.gap[1], "playing to go on behind what was erased", 30)

    def test_says_that_the_browser_cannot_play_a_codec(self):
        script = self.browser.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument",
                                              {"source": "MediaSource.isTypeSupported = () => false"})
        self.addCleanup(self.browser.execute_cdp_cmd, "Page.removeScriptToEvaluateOnNewDocument", script)
        self.open()
        self.wait(lambda: "cannot play H.264 video with AAC sound" in self.text("message"), "words about the codec")
        self.wait(lambda: self.find("still").is_displayed(), "a still picture")
        self.shoot("codec")
        self.find("message-export").click()
        self.assertTrue(self.find("export-start").is_enabled())


class LoginTest(PageTest):
    """The page by TLS and with a password."""

    def log_in(self, password):
        self.wait(lambda: self.find("password").is_displayed(), "to be asked for the password")
        self.find("password").clear()
        self.find("password").send_keys(password, Keys.ENTER)

    def test_asks_for_the_password_and_again_when_the_session_has_ended(self):
        words = (*self.device.password_words("open sesame"), *self.device.tls_words())
        web = self.device.start_web(*words)
        self.assertTrue(web.url.startswith("https:"))
        self.browser.get(web.url)
        self.log_in("open barley")
        self.wait(lambda: "wrong" in self.text("login-problem"), "the password to be refused")
        self.shoot("login")
        self.log_in("open sesame")
        self.wait(lambda: self.text("link") == "Recording" and self.is_shown(), "the page")
        self.browser.refresh()
        self.wait(lambda: self.text("link") == "Recording" and self.is_shown(), "the page without another question")
        self.assertTrue(self.find("logout").is_displayed())
        web.stop()
        self.device.start_web(*words, listen=web.host)  # It knows nothing of the session.
        self.log_in("open sesame")
        self.wait(lambda: self.text("link") == "Recording" and not self.text("banner"), "the page again")
        self.find("logout").click()
        self.wait(lambda: self.find("password").is_displayed(), "the end of the session")


for name in [name for name in vars(PageTest) if name.startswith("test_")]:
    setattr(TroubleTest, name, None)  # Once is enough.
    setattr(LoginTest, name, None)


if __name__ == "__main__":
    unittest.main(verbosity=2)
