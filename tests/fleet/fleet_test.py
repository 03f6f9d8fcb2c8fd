"""The streams of devices against their cards, on real servers that are killed, stopped and filled meanwhile."""
import json
import os
import random
import signal
import subprocess
import time
import unittest

from fleet_device import FAKE_CLOCK, TRACKS, FleetDevice, compare, fields, harness, microseconds, read_track
from nats_cluster import SLOWNESS, Cluster, wait_until

EFFORT = float(os.environ.get("CALVANE_TEST_EFFORT", "1"))


class FleetTest(unittest.TestCase):
    SERVERS = 1

    def cluster(self, **options):
        cluster = Cluster(self.SERVERS, **options)
        self.addCleanup(cluster.close)
        return cluster

    def device(self, cluster, name="camera", **options):
        device = FleetDevice(cluster, name, **options)
        self.addCleanup(device.close)
        wait_until(lambda: device.seconds_recorded() > 1, "a recording")
        return device

    def differences(self, device, cards):
        messages = device.stream_messages()
        found = []
        for track in TRACKS:
            records, problems = read_track(messages, track)
            found += [f"{track}: {text}" for text in problems + compare(cards[track], records)]
        return found

    def assert_same(self, device, seconds=40):
        """The recorder has stopped; the stream becomes what its card is."""
        cards = {track: device.card_records(track) for track in TRACKS}
        self.assertGreater(len(cards["video"]), 50)
        last = []

        def is_same():
            try:
                last[:] = self.differences(device, cards)
            except (OSError, LookupError, ConnectionError) as problem:
                last[:] = [str(problem)]
            return not last
        try:
            wait_until(is_same, "the stream is like the card", seconds)
        except AssertionError as problem:
            raise AssertionError(f"{problem}: {last}\n{device.uplink_log()[-3000:]}") from problem


class ClusterTest(FleetTest):
    SERVERS = 3

    def test_servers_that_die_and_stall(self):
        cluster = self.cluster()
        device = self.device(cluster)
        device.start_uplink()
        wait_until(lambda: device.metrics().get("messages_total", 0) > 50, "messages")
        for _ in range(max(1, int(EFFORT))):
            for act in (self.kill_leader, self.stop_connected, self.kill_two, self.kill_follower_and_uplink):
                act(cluster, device)
                time.sleep(1)
        device.stop_producers()
        self.assert_same(device)
        self.assertGreater(device.uplink_log().count("Connected to"), 2)

    def leader(self, cluster, device):
        return wait_until(lambda: cluster.leader(device.stream), "a leader")

    def kill_leader(self, cluster, device):
        leader = self.leader(cluster, device)
        leader.kill()
        time.sleep(1)
        leader.start()

    def stop_connected(self, cluster, device):
        """What is on its way through this server arrives when the uplink has long gone on through another one."""
        url = device.uplink_log().rsplit("Connected to ", 1)[1].split(";")[0]
        server = next(server for server in cluster.servers if server.url == url)
        connections = device.uplink_log().count("Connected to")
        server.send(signal.SIGSTOP)
        try:
            wait_until(lambda: device.uplink_log().count("Connected to") > connections, "another connection", 40)
            time.sleep(1)
        finally:
            server.send(signal.SIGCONT)

    def kill_two(self, cluster, device):
        victims = random.sample(cluster.servers, 2)
        for server in victims:
            server.kill()
        time.sleep(1)
        for server in victims:
            server.start()

    def kill_follower_and_uplink(self, cluster, device):
        leader = self.leader(cluster, device)
        follower = next(server for server in cluster.servers if server is not leader)
        follower.kill()
        device.stop_uplink(signal.SIGKILL)
        device.start_uplink()
        follower.start()

    def test_an_uplink_that_is_killed_many_times(self):
        cluster = self.cluster()
        device = self.device(cluster)
        for _ in range(int(30 * EFFORT)):
            device.start_uplink()
            time.sleep(random.uniform(0.05, 0.4) * SLOWNESS)
            device.stop_uplink(signal.SIGKILL)
        device.start_uplink()
        device.stop_producers()
        self.assert_same(device)


class OutageTest(FleetTest):
    def test_live_data_comes_first_and_what_was_erased_is_told(self):
        cluster = self.cluster()
        device = self.device(cluster, uplink="rate.limit = 1500k")
        device.start_uplink()
        wait_until(lambda: device.metrics().get("messages_total", 0) > 50, "messages")
        memory = self.memory(device)
        cluster.servers[0].kill()
        device.ask("retention", "set", "7s")
        time.sleep(11)
        self.assertLess(self.memory(device), memory + 8 * 1024 * 1024)
        cluster.servers[0].start()
        wait_until(lambda: device.metrics()["backlog_seconds"] > 0 and device.metrics()["lag_seconds"] < 2, "live data")
        lags = []

        def has_caught_up():
            metrics = device.metrics()
            lags.append(metrics["lag_seconds"])
            return metrics["backlog_seconds"] == 0
        wait_until(has_caught_up, "the backlog is sent")
        self.assertLess(max(lags), 2 * SLOWNESS)
        self.assert_holds_card(device)

    def assert_holds_card(self, device):
        """What the card still had is in the stream, and what it had erased before that was sent is a gap of its age. Without
        a limit the recorder shows again what it has only hidden."""
        device.ask("retention", "set", "0s")
        device.stop_producers()
        wait_until(lambda: not device.metrics()["backlog_seconds"] and not device.metrics()["lag_seconds"], "all is sent")
        time.sleep(1 * SLOWNESS)
        messages = device.stream_messages()
        for track in TRACKS:
            gaps = [fields(message)[1] for message in messages if message.subject == f"calvane.camera.{track}.gaps"]
            self.assertIn("3", [gap["reason"] for gap in gaps])
            erased = max(int(gap["last"]) for gap in gaps)
            stream, problems = read_track(messages, track)
            card, kept = ([each for each in records if each[0] >= erased] for records in (device.card_records(track), stream))
            self.assertGreater(len(card), 10)
            self.assertEqual(problems + compare(card, kept), [])
            for gap in gaps:
                inside = [each for each in stream if int(gap["time"]) < each[0] < int(gap["last"])]
                self.assertEqual(inside, [], f"{track} has records in {gap}")
            for before, behind in zip(stream, stream[1:]):
                if behind[0] - before[0] > 2500000:
                    self.assertTrue(any(int(gap["time"]) <= before[0] + 2000000 and int(gap["last"]) >= behind[0] - 2000000
                                        for gap in gaps), f"{track}: nothing is said of {before[0]} to {behind[0]}: {gaps}")

    def memory(self, device):
        with open(f"/proc/{device.uplink.pid}/status", encoding="ascii") as status:
            return 1024 * next(int(line.split()[1]) for line in status if line.startswith("RssAnon"))


class TroubleTest(FleetTest):
    def test_refused_credentials_small_messages_and_a_deleted_stream(self):
        cluster = self.cluster(text="max_payload: 8192\nauthorization: {user: camera, password: right}")
        device = self.device(cluster, uplink="user.file = user")
        device.write("user", "camera:wrong\n")
        device.start_uplink()
        wait_until(lambda: "uthorization" in device.uplink_log(), "a refusal")
        device.write("user", "camera:right\n")
        wait_until(lambda: device.metrics().get("messages_total", 0) > 500, "messages in parts")
        with cluster.client() as client:
            client.api(f"STREAM.DELETE.{device.stream}")
        wait_until(lambda: device.uplink_log().count("Made the stream") == 2, "a new stream")
        wait_until(lambda: "Connected" in device.uplink_log().rsplit("Made the stream", 1)[1], "another connection")
        with cluster.client() as client:  # Of somebody else: what is on its way behind it must not be taken.
            client.publish_head("calvane.camera.video.gaps", "gap time=1 last=2 reason=1 lane=99")
        wait_until(lambda: "wrong last sequence" in device.uplink_log(), "a refusal of what does not follow")
        device.stop_uplink(signal.SIGKILL)
        device.start_uplink()
        device.stop_producers()
        self.assert_same(device)

    def test_a_server_whose_disk_is_full(self):
        cluster = self.cluster(store="max_file: 4MB,")
        device = self.device(cluster)
        device.start_uplink()
        wait_until(lambda: "refuses a message" in device.uplink_log(), "a full disk")
        server = cluster.servers[0]
        server.kill()
        with open(server.config, encoding="utf-8") as file:
            text = file.read()
        with open(server.config, "w", encoding="utf-8") as file:
            file.write(text.replace("max_file: 4MB", "max_file: 1GB"))
        server.start()
        device.stop_producers()
        self.assert_same(device)

    @unittest.skipUnless(FAKE_CLOCK, "libfaketime is not installed")
    @unittest.skipIf(os.environ.get("CALVANE_SANITIZE"), "a sanitizer's library wants to be loaded before libfaketime")
    def test_a_clock_that_is_set_back(self):
        cluster = self.cluster()
        device = self.device(cluster, fake_clock=True)
        device.start_uplink()
        device.set_clock(-1)  # While it sends,
        time.sleep(1.5)
        device.stop_uplink()
        device.set_clock(-2)  # and while it does not.
        time.sleep(2)
        device.start_uplink()
        wait_until(lambda: "set back" in device.uplink_log(), "a new lane")
        device.stop_producers()
        self.assert_same(device)


class ReaderTest(FleetTest):
    """What calvane-fleet says of a device with pictures, beside what calvane-recording says of its card."""

    def test_it_answers_as_the_card_does(self):
        cluster = self.cluster(domain="hub")
        device = self.device(cluster, name="gate-3", description=harness.CAMERA)
        device.start_uplink()
        time.sleep(3)
        cluster.servers[0].kill()  # So that there is more than one lane.
        time.sleep(4)
        cluster.servers[0].start()
        wait_until(lambda: "Connected" in device.uplink_log().split("lost")[-1], "another connection")
        device.stop_producers()
        wait_until(lambda: not device.metrics()["backlog_seconds"] and not device.metrics()["lag_seconds"], "the backlog")
        time.sleep(1)
        uplink = device.ask_json("status")["uplink"]
        self.assertEqual([uplink["state"], uplink["problem"], uplink["backlog"]], ["sending", "", 0])
        self.assertIn("Uplink     sending;", device.ask("status").decode())
        card, fleet = device.ask_json("tracks"), self.ask_json(device, "tracks")
        self.assertGreater(fleet["video"]["lanes"], 1)
        for track in ("video", "audio"):
            self.assertEqual([card[track][key] for key in ("first", "last")], [fleet[track][key] for key in ("first", "last")])
            self.assertEqual([each["reason"] for each in self.ask_json(device, "coverage")[track]], ["data"])
        self.assertEqual(device.ask_json("history")["events"], self.ask_json(device, "history"))
        self.assertEqual([each["device"] for each in json.loads(self.ask(device, "devices", "--json"))], ["gate-3"])
        middle = "@" + str((microseconds(card["video"]["first"]) + microseconds(card["video"]["last"])) / 2e6)
        for begin in ("@0", middle):
            device.ask("export", "--from", begin, "card.mp4", "--force")
            self.ask(device, "export", "--from", begin, "fleet.mp4", "--force", "--device", "gate-3")
            self.assertEqual(device.read("card.mp4"), device.read("fleet.mp4"))
        with self.assertRaises(subprocess.CalledProcessError) as problem:
            self.ask(device, "tracks", "--device", "gate-4")
        self.assertIn(b'"gate-3"', problem.exception.stderr)

    def ask(self, device, *words):
        return subprocess.run([os.path.join(harness.BINARIES, "calvane-fleet"), "--server", device.cluster.urls, "--domain", "hub",
                               *words], cwd=device.folder, check=True, capture_output=True).stdout

    def ask_json(self, device, command):
        return json.loads(self.ask(device, command, "--device", device.name, "--json"))


if __name__ == "__main__":
    unittest.main()
