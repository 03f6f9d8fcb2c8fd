#!/usr/bin/env python3
"""The page of calvane-web --fleet in a real browser."""
import glob
import os
import unittest

from browser_test import Browser, By, Keys, iso, time_of
from fleet_harness import FleetWebTest


class FleetPageTest(Browser, FleetWebTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.open_browser()

    def rows(self):
        return {row.find_element(By.TAG_NAME, "b").text: row for row in self.browser.find_elements(By.CLASS_NAME, "fleet-row")}

    def colours(self, name):
        """Of the middle of the bar of a row, by the reasons whose colours these are."""
        return set(self.browser.execute_script("""
            const canvas = document.querySelector(`#${arguments[0]} canvas`);
            const style = getComputedStyle(canvas), known = new Map();
            for (let reason = 0; reason < 13; ++reason) {
              known.set(style.getPropertyValue(`--reason-${reason}`).trim(), reason);
            }
            const {data} = canvas.getContext("2d").getImageData(0, 14 * devicePixelRatio, canvas.width, 1), seen = [];
            for (let i = 0; i < data.length; i += 4) {
              seen.push(known.get("#" + [0, 1, 2].map((part) => data[i + part].toString(16).padStart(2, "0")).join("")));
            }
            return seen.filter((reason) => reason !== undefined);""", self.rows()[name].get_attribute("id")))

    def test_shows_a_row_for_each_camera_and_exports_what_is_chosen(self):
        gap = max((each for each in self.device.ask_json("coverage", "--track", "video")["video"] if each["reason"] == "stopped"),
                  key=lambda each: time_of(each["last"]) - time_of(each["first"]))
        begin, end = time_of(gap["first"]) - 3.5, time_of(gap["last"]) + 2
        self.browser.get(f"{self.web.url}#from={iso(begin - 2)}&to={iso(end)}&zone=utc")
        self.browser.refresh()
        self.wait(lambda: self.text("row-count") == "2 cameras" and list(self.rows()) == ["gate-1", "gate-2"], "two rows")
        self.wait(lambda: {0, 1} <= self.colours("gate-1"), "data and a gap")
        self.wait(lambda: 0 in self.colours("gate-2"), "data of the other")
        self.assertIn("Stopped", self.text("legend"))
        self.assertRegex(self.rows()["gate-2"].text, r"\d\d:\d\d:\d\d, [\d.]+ m?s behind")
        self.shoot("fleet")

        self.find("search").send_keys("ATE-2")
        self.wait(lambda: list(self.rows()) == ["gate-2"] and self.text("row-count") == "1 camera found", "the row that was searched for")
        self.find("search").send_keys("x")
        self.wait(lambda: not self.rows() and "ATE-2x" in self.text("rows-none"), "no row")
        self.find("search").send_keys(Keys.BACKSPACE * 6 + Keys.ENTER)
        self.wait(lambda: len(self.rows()) == 2 and 0 in self.colours("gate-1"), "all rows again")
        self.assertEqual(self.browser.switch_to.active_element.get_attribute("id"), "rows")

        before = self.text("view-text")
        self.keys("+")
        self.wait(lambda: self.text("view-text") not in ("", before), "a shorter view")
        self.keys("-")
        self.wait(lambda: self.text("view-text") == before, "the same view again")

        at = begin + 1.5
        self.click("gate-1", (at - begin + 2) / (end - begin + 2))
        self.assertEqual(self.text("export-device"), "gate-1")
        self.wait(lambda: self.is_shown() and not self.text("message"), "the picture of that time")
        self.assertAlmostEqual(time_of(self.find("clock-time").get_attribute("datetime")), at, delta=0.1)
        self.keys(Keys.ARROW_DOWN)
        self.assertEqual((self.text("export-device"), self.rows()["gate-2"].get_attribute("aria-selected")), ("gate-2", "true"))
        self.keys(Keys.ARROW_UP)
        self.browser.execute_script(f"location.hash = '#sel={iso(begin + 1)}~{iso(begin + 3)}&zone=utc'")
        self.wait(lambda: "2 s" in self.text("export-about"), "the selection")
        for earlier in glob.glob(f"{self.downloads}/*"):  # Of a try before this one.
            os.remove(earlier)
        self.keys("e")
        self.wait(lambda: self.text("export-result").startswith("Saved gate-1_"), "the export's end")
        exported = f"{self.downloads}/gate-1_*.mp4"
        self.wait(lambda: glob.glob(exported), "the file, which the browser writes behind the page")
        theirs, = glob.glob(exported)
        ours = self.device.path("ours.mp4")
        self.device.ask("export", "--from", iso(begin + 1), "--to", iso(begin + 3), ours)
        self.assertEqual(self.packets(theirs), self.packets(ours))
        self.shoot("fleet-export")

    def click(self, name, share):
        canvas = self.rows()[name].find_element(By.TAG_NAME, "canvas")
        self.browser.execute_script("arguments[0].scrollIntoView({block: 'center'})", canvas)
        self.click_at(canvas, (share - 0.5) * canvas.rect["width"])

    def test_says_that_the_servers_are_away_and_goes_on_when_they_are_back(self):
        self.browser.get(self.web.url)
        self.wait(lambda: self.text("link") == "Connected" and len(self.rows()) == 2, "the rows")
        server = self.cluster.servers[0]
        server.kill()
        self.wait(lambda: "servers do not answer" in self.text("banner") and self.text("link") == "Fleet away", "the loss")
        self.assertEqual(len(self.rows()), 2)
        server.start()
        self.wait(lambda: self.text("link") == "Connected" and not self.text("banner"), "the servers again")
        newest = self.rows()["gate-2"].text
        self.wait(lambda: self.rows()["gate-2"].text != newest, "newer times")


if __name__ == "__main__":
    unittest.main(verbosity=2)
