"""The answers of calvane-web: facts as the command line has them, media as they were recorded, and errors."""
import contextlib
import json
import os
import re
import socket
import subprocess
import time
import unittest
from datetime import datetime, timedelta, timezone

from harness import SOURCE, Described, WebTest, wait_until

FORMAT = "%Y-%m-%dT%H:%M:%S.%fZ"


def parse(text):
    return datetime.strptime(text, FORMAT).replace(tzinfo=timezone.utc)


def text_of(time_of_day):
    return time_of_day.strftime(FORMAT)


class FactsTest(WebTest):
    def test_facts_are_those_of_the_command_line(self):
        video = self.device.ask_json("tracks")["video"]
        first, last = video["first"], video["last"]
        middle = text_of(parse(first) + timedelta(seconds=2))
        self.assertEqual(self.web.get("/api/state", at=middle).json(), self.device.ask_json("state", "--at", middle))
        self.assertEqual(self.web.get("/api/summary").json()["first"], self.device.ask_json("summary")["first"])
        attributes = self.web.get("/api/attributes", at=middle, track="video").json()
        self.assertEqual(attributes["video"]["width"], 320)
        self.assertEqual(list(attributes), ["video"])
        self.assertEqual(self.web.get("/api/tracks").json()["video"]["attributes"]["height"], 180)
        wait_until(lambda: self.web.get("/api/status").json()["state"] == "recording", "the state recording")
        spans = self.web.get("/api/coverage", **{"from": first, "to": last}).json()["tracks"]["video"]
        wanted = self.device.ask_json("coverage", "--from", first, "--to", last, "--track", "video")["video"]
        self.assertEqual([(each["from"], each["to"], each["text"]) for each in spans["spans"]],
                         [(each["first"], each["last"], each["reason"]) for each in wanted])

    def test_pages_of_the_history_make_up_the_whole(self):
        until = self.device.ask_json("summary")["last"]
        wanted = self.device.ask_json("history", "--to", until)["events"]
        self.assertGreaterEqual(len(wanted), 3)
        records, token = [], None
        while token is not None or not records:
            page = self.web.get("/api/history", limit=1, to=until, **({"after": token} if token else {})).json()
            self.assertLessEqual(len(page["records"]), 1)
            records += page["records"]
            token = page["next"]
        self.assertEqual(records, wanted)

    def test_bad_queries_are_named(self):
        for path, words in {
                "/api/state?at=yesteryear": ("at", "yesteryear"), "/api/state?at=now&at=now": ("at", "twice"),
                "/api/state?at": ("at", "value"), "/api/state?when=now": ("when",), "/api/state?at=%zz": ("%",),
                "/api/state?at=%00": ("control",), "/api/state?at=%c3%28": ("UTF-8",), "/api/summary?x=1": ("x",),
                "/api/coverage?buckets=0": ("buckets", "4000"), "/api/coverage?buckets=1e9": ("buckets",),
                "/api/coverage?tracks=video,smell": ("smell",), "/api/coverage?from=now&to=-1h": ("to",),
                "/api/history?after=1.x": ("after",), "/api/history?limit=-1": ("limit",),
                "/api/media?from=now&tracks=": ("tracks",), "/api/media?tracks=video,,audio": ("track",),
                "/api/thumbnail?width=9999999": ("width", "1920"), "/api/export?from=-1s&container=avi": ("avi",),
                "/api/export?from=-1s&gaps=maybe": ("gaps", "maybe"), "/api/export": ("from", "missing")}.items():
            with self.subTest(path):
                self.assert_error(self.web.get(path), 400, *words)

    def test_events_tell_what_is_new_and_when_the_recorder_is_away(self):
        connection = self.web.connect()
        connection.request("GET", "/api/events")
        response = connection.getresponse()
        self.assertEqual(response.headers["Content-Type"], "text/event-stream")

        def next_of(kind):
            event = None
            while True:
                line = response.readline().decode().rstrip("\n")
                if line.startswith("event: "):
                    event = line[7:]
                if line.startswith("data: ") and event == kind:
                    return line[6:]
        self.assertEqual(re.findall('"state":"([a-z]*)"', next_of("status")), ["recording"])
        one, other = next_of("recorded"), next_of("recorded")
        self.assertNotEqual(one, other)
        self.device.stop_recorder()
        self.assertIn("does not run", next_of("gone"))
        self.assert_error(self.web.get("/api/summary"), 503, "calvane-recorder")
        self.assertEqual(self.web.get("/healthz").status, 503)
        self.assertIn(b"calvane_recorder_up 0", self.web.get("/metrics").body)
        self.device.start_recorder()
        next_of("back")
        connection.close()
        self.assertEqual(self.web.get("/healthz").body, b"ok\n")

    def test_a_bus_that_comes_back_is_used(self):
        self.assertEqual(self.web.get("/healthz").status, 200)
        self.device.stop_bus()
        self.assert_error(self.web.get("/api/status"), 503)
        self.device.start_bus()
        wait_until(lambda: self.web.get("/healthz").status == 200, "an answer by the new bus")
        wait_until(lambda: self.web.get("/api/summary").status == 200, "an answer by the new bus")

    def test_metrics_are_what_the_status_says(self):
        metrics = self.web.get("/metrics").body.decode()
        for line in metrics.splitlines():
            self.assertRegex(line, r'^(# (HELP|TYPE) calvane_\w+ .+|calvane_\w+(\{\w+="[\w-]+"\})? [0-9.]+)$')
        self.assertIn(f'calvane_card_bytes {self.web.get("/api/status").json()["card"]["bytes"]}\n', metrics)


class DescriptionTest(Described, WebTest):
    """The OpenAPI file says what the server does."""
    SECONDS = 12

    def test_it_has_what_the_server_has(self):
        served = set()
        for name in ("calvane-web/WebServer.cpp", "calvane-web/RecorderContent.cpp", "calvane-web-fleet/FleetContent.cpp"):
            with open(os.path.join(SOURCE, "tools", name), encoding="utf-8") as file:
                served |= set(re.findall(r'"(/(?:api/|metrics|healthz)[a-z/]*)"', file.read()))
        self.assertEqual(set(self.description["paths"]), served)

    def test_the_server_answers_so(self):
        for path, operations in self.described():
            if path != "/api/events":
                self.assert_as_described(self.web, path, operations)


class MediaTest(WebTest):
    """The recording has a gap."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.before = cls.device.ask_json("tracks")["video"]
        cls.device.stop_recorder()
        time.sleep(3)
        cls.device.start_recorder()
        wait_until(lambda: cls.device.seconds_recorded() >= 14, "the second part")
        stretches = cls.device.ask_json("coverage", "--track", "video", "--from", cls.before["first"])["video"]
        # In front of these there is sometimes one of some frames: the first stop is right behind the begin.
        cls.parts = [each for each in stretches if each["reason"] == "data"][-2:]

    def probe(self, content, *words):
        path = self.device.path("probed")
        with open(path, "wb") as file:
            file.write(content)
        done = subprocess.run(["ffprobe", "-v", "warning", "-of", "csv=p=0", *words, path], check=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="ascii")
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def media(self, begin, **parameters):
        answer = self.web.get("/api/media", **{"from": begin, **parameters})
        self.assertEqual(answer.status, 200, answer.body[:200])
        return answer

    def test_media_begins_with_the_key_frame_and_ends_at_the_gap(self):
        wanted = parse(self.parts[0]["first"]) + timedelta(seconds=2.5)
        answer = self.media(text_of(wanted))
        begin = parse(answer.headers["X-Calvane-Begin"])
        self.assertLessEqual(begin, wanted)
        self.assertRegex(answer.headers["X-Calvane-Mime"], r'^video/mp4; codecs="avc1\.[0-9a-f]{6}, mp4a\.40\.2"$')
        flags = self.probe(answer.body, "-select_streams", "v", "-show_entries", "packet=pts_time,flags")
        self.assertTrue(flags[0].split(",")[1].startswith("K"), flags[0])
        for stream in ("v", "a"):
            times = [float(line) for line in self.probe(answer.body, "-select_streams", stream,
                                                        "-show_entries", "packet=pts_time")]
            end = begin + timedelta(seconds=max(times))
            self.assertLess(abs(end - parse(self.parts[0]["last"])), timedelta(seconds=0.5), stream)

    def test_in_a_gap_the_next_data_is_named(self):
        for behind in (0.2, 2.2):
            begin = parse(self.parts[0]["last"]) + timedelta(seconds=behind)
            answer = self.web.get("/api/media", **{"from": text_of(begin), "to": text_of(begin + timedelta(seconds=0.2))})
            self.assert_error(answer, 404, "nothing")
            following = answer.json()["next"]
            self.assertLess(abs(parse(following) - parse(self.parts[1]["first"])), timedelta(seconds=1))
            begun = parse(self.media(text_of(begin)).headers["X-Calvane-Begin"])
            self.assertLess(abs(begun - parse(self.parts[1]["first"])), timedelta(seconds=0.1))
        self.assertGreater(len(self.media(following).body), 1000)
        self.assertIsNone(self.web.get("/api/media", **{"from": "2100-01-01"}).json()["next"])

    def test_an_export_is_that_of_the_command_line(self):
        span = {"from": self.parts[0]["first"], "to": self.parts[1]["first"]}
        for container in ("mp4", "mkv", "ts"):
            with self.subTest(container):
                answer = self.web.get("/api/export", container=container, gaps="skip", **span)
                self.assertRegex(answer.headers["Content-Disposition"],
                                 rf'^attachment; filename="[\w-]*_\d{{8}}T\d{{6}}Z\.{container}"$')
                wanted = self.device.ask("export", "--from", span["from"], "--to", span["to"], "--gaps", "skip",
                                         "--format", container, "-")
                # Matroska has random identifiers of its own.
                same = answer.body == wanted or container == "mkv" and len(answer.body) == len(wanted)
                self.assertTrue(same, f"{len(answer.body)} bytes instead of {len(wanted)}")

    def test_thumbnails(self):
        at = text_of(parse(self.parts[0]["first"]) + timedelta(seconds=3))
        answer = self.web.get("/api/thumbnail", at=at, width=200)
        self.assertEqual(self.probe(answer.body, "-show_entries", "stream=codec_name,width"), ["mjpeg,200"])
        self.assertLess(parse(at) - parse(answer.headers["X-Calvane-Time"]), timedelta(seconds=2.1))
        self.assertIn("immutable", answer.headers["Cache-Control"])
        self.assertEqual(self.web.get("/api/thumbnail", at="+20s").headers["Cache-Control"], "no-store")
        self.assert_error(self.web.get("/api/thumbnail", at="2001-01-01"), 404, "2001-01-01")
        self.assert_error(self.web.get("/api/thumbnail", at="+2min"), 404, "nor in the minute before")

    def test_slow_readers_are_sent_away_and_others_get_their_turn(self):
        slow = [socket.socket() for _ in range(5)]  # All that are served at once.
        for connection in slow:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            connection.connect(self.web.address)
            request = f"GET /api/export?from={self.before['first']} HTTP/1.1\r\nHost: {self.web.host}\r\n\r\n"
            connection.sendall(request.encode() * 20)  # More than the buffers on the way hold.
            self.addCleanup(connection.close)
        for connection in slow:
            self.assertEqual(connection.recv(15), b"HTTP/1.1 200 OK")
        time.sleep(1)
        self.media(self.parts[0]["first"])  # Its turn comes before it is told that the recorder is busy.
        wait_until(lambda: b"\ncalvane_web_connections 1\n" in self.web.get("/metrics").body, "the slow ones to be sent away")
        for connection in slow:
            rest = b""
            with contextlib.suppress(ConnectionError):
                while piece := connection.recv(65536):
                    rest = (rest + piece)[-5:]
            self.assertNotEqual(rest, b"0\r\n\r\n", "it was not cut off")

    def test_clients_that_leave_free_what_they_held(self):
        for _ in range(40):  # More than there are streams of records.
            connection = self.web.connect()
            connection.request("GET", f"/api/export?from={self.parts[0]['first']}")
            connection.getresponse().read(100)
            connection.sock.close()
            connection.close()
        self.assertGreater(len(self.media(self.parts[0]["first"]).body), 1000)


if __name__ == "__main__":
    unittest.main(verbosity=2)
