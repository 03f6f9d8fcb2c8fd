"""The answers of calvane-web --fleet: coverage and media as the cards have them, and errors."""
import signal
import socket
import unittest
from concurrent.futures import ThreadPoolExecutor

from fleet_harness import FleetWebTest, microseconds
from harness import Described, wait_until

SHORTEST_GAP = 2000000  # Microseconds; shorter ones are not told of.


def without_short_gaps(stretches):
    kept = []
    for each in stretches:
        if each["reason"] != "data" and microseconds(each["last"]) - microseconds(each["first"]) <= SHORTEST_GAP:
            continue
        if kept and kept[-1]["reason"] == each["reason"]:
            kept[-1] = {**kept[-1], "last": each["last"]}
        else:
            kept.append(each)
    return kept


class FleetApiTest(Described, FleetWebTest):
    def test_answers_are_as_described(self):
        for path, operation in self.described("fleet"):
            self.assert_as_described(self.web, path, operation)
        metrics = self.web.get("/metrics").body.decode()
        self.assertRegex(metrics, r"\ncalvane_fleet_cache_bytes [1-9]\d{2,}\n")

    def coverage(self, device, **parameters):
        return self.web.get("/api/fleet/coverage", devices=device, **parameters).json()["devices"][device]

    def test_coverage_history_and_exports_are_those_of_the_card(self):
        self.device.stop_producers()
        card = self.device.ask_json("tracks")["video"]
        wait_until(lambda: self.coverage("gate-1")["recorded"] == {key: card[key] for key in ("first", "last")},
                   "the whole recording in the stream")
        whole = {"from": card["first"], "to": card["last"]}
        wanted = self.device.ask_json("coverage", "--track", "video", "--from", card["first"], "--to", card["last"])["video"]
        wanted = without_short_gaps(wanted)
        gap = next(each for each in wanted if each["reason"] == "stopped")
        spans = self.coverage("gate-1", **whole)["spans"]
        self.assertEqual([(each["from"], each["to"], each["text"]) for each in spans],
                         [(each["first"], each["last"], each["reason"]) for each in wanted])
        history = self.device.ask_json("history")["events"]
        wait_until(lambda: self.web.get("/api/fleet/history", devices="gate-1").json()["devices"]["gate-1"]["events"] == history,
                   "the card's history")
        for begin in (card["first"], wanted[-1]["first"]):
            answer = self.web.get("/api/fleet/export", device="gate-1", **{"from": begin, "to": card["last"]})
            self.assertIn("gate-1_", answer.headers["Content-Disposition"])
            self.assertEqual(answer.body, self.device.ask("export", "--from", begin, "--to", card["last"], "--format", "mp4", "-"))
        part = self.coverage("gate-1", buckets=10, **{"from": gap["first"], "to": gap["last"]})["spans"]
        self.assertEqual({each["text"] for each in part}, {"stopped"})

    def test_devices_are_found_and_those_that_are_none_are_named(self):
        page = self.web.get("/api/fleet/devices", search="ATE-2", limit=1).json()
        self.assertEqual(page, {"devices": ["gate-2"], "total": 1})
        self.assertEqual(self.web.get("/api/fleet/devices", offset=1).json(), {"devices": ["gate-2"], "total": 2})
        both = self.web.get("/api/fleet/coverage", devices="gate-2,gate-3").json()["devices"]
        self.assertIn("spans", both["gate-2"])
        self.assertIn('"gate-3"', both["gate-3"]["error"])
        self.assert_error(self.web.get("/api/fleet/export", device="gate-3", **{"from": "-5s"}), 404, '"gate-3"', "did you mean")
        for path, word in {"coverage?devices=gate-1,*": "*", "coverage?devices=gate-1.video": "gate-1.video", "history?devices=a,": '""',
                           "coverage?devices=" + ",".join(["a"] * 51): "50", "export?device=%3E&from=-5s": ">",
                           "media?from=-5s": "device", "devices?limit=0": "limit"}.items():
            with self.subTest(path):
                self.assert_error(self.web.get("/api/fleet/" + path), 400, word)

    def test_nothing_without_the_password(self):
        web = self.device.start_web("--fleet", "--server", self.cluster.urls, *self.device.password_words("open sesame"))
        for path in ("devices", "coverage?devices=gate-1", "export?device=gate-1&from=-5s", "media?device=gate-1"):
            self.assert_error(web.get("/api/fleet/" + path), 401, "Log in")

    def test_clients_that_break_off_do_no_harm(self):
        """While a reader ends, the servers still send what it has asked for."""
        def break_off(number):
            for _ in range(60):
                with socket.create_connection(self.web.address, 30) as client:
                    client.sendall(f"GET /api/fleet/media?device=gate-{number % 2 + 1}&from=-8s HTTP/1.1\r\n"
                                   f"Host: {self.web.host}\r\n\r\n".encode())
                    self.assertIn(b" 200 ", client.recv(100))

        with ThreadPoolExecutor(6) as clients:
            list(clients.map(break_off, range(6)))
        self.assertEqual(self.web.get("/healthz").status, 200)

    def test_servers_that_stall_are_told_of(self):
        self.assertEqual(self.web.get("/api/fleet/thumbnail", device="gate-2").status, 200)
        self.cluster.servers[0].send(signal.SIGSTOP)
        try:
            self.assert_error(self.web.get("/api/fleet/export", device="gate-2", **{"from": "-5s"}), 503, "do not answer")
        finally:
            self.cluster.servers[0].send(signal.SIGCONT)
        wait_until(lambda: self.web.get("/api/fleet/thumbnail", device="gate-2").status == 200, "an answer again")

    def test_servers_that_go_are_missed_and_those_that_come_back_are_used(self):
        server = self.cluster.servers[0]
        self.assertEqual(self.web.get("/healthz").body, b"ok\n")
        server.kill()
        server.start()
        wait_until(self.cluster.is_ready, "the servers")
        self.assertEqual(self.web.get("/healthz").body, b"ok\n")  # Nobody sees that they were away meanwhile.
        server.kill()
        for path in ("coverage?devices=gate-2&track=audio", "export?device=gate-2&from=-5s"):
            self.assert_error(self.web.get("/api/fleet/" + path), 503, "servers do not answer")
        self.assertEqual(self.web.get("/healthz").status, 503)
        server.start()
        wait_until(lambda: self.web.get("/healthz").status == 200, "the servers to answer")
        wait_until(lambda: "spans" in self.coverage("gate-2", track="audio"), "coverage again")
        newest = self.coverage("gate-2")["recorded"]["last"]
        wait_until(lambda: self.coverage("gate-2")["recorded"]["last"] > newest, "what is recorded since")


if __name__ == "__main__":
    unittest.main(verbosity=2)
