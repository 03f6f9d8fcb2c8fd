"""The streams of devices against their cards, on real servers that are killed, stopped and filled meanwhile."""
import json
import os
import random
import re
import shutil
import signal
import ssl
import subprocess
import tempfile
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from fleet_device import RECORDS, TRACKS, FleetDevice, compare, fields, harness, microseconds, read_track, without_lost
from nats_cluster import SLOWNESS, Cluster, Proxy, wait_until
from nats_security import Authority, Operator, base64url

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

    def differences(self, device, cards, prepare=lambda card, stream: stream):
        messages = device.stream_messages()
        found = []
        for track in TRACKS:
            records, problems = read_track(messages, track)
            found += [f"{track}: {text}" for text in problems + compare(cards[track], prepare(cards[track], records))]
        return found

    def wait_with_log(self, device, condition, what):
        try:
            wait_until(condition, what)
        except AssertionError as problem:
            raise AssertionError(f"{problem}\n{device.uplink_log()[-3000:]}") from problem

    def assert_same(self, device, seconds=40, **options):
        """The recorder has stopped; the stream becomes what its card is."""
        cards = {track: device.card_records(track) for track in TRACKS}
        self.assertGreater(len(cards["video"]), 20)
        last = []

        def is_same():
            if not device.has_sent_all():  # Reading a stream takes a while.
                last[:] = ["it is behind"]
                return False
            try:
                last[:] = self.differences(device, cards, **options)
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


class KillTest(FleetTest):
    SERVERS = 3

    def test_an_uplink_that_is_killed_many_times(self):
        cluster = self.cluster()
        device = self.device(cluster)
        for _ in range(int((30 if SLOWNESS == 1 else 10) * EFFORT)):
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
        is_filling_in = lambda: device.metrics().get("backlog_seconds", 0) > 0 and device.metrics()["lag_seconds"] < 2
        wait_until(is_filling_in, "live data")
        device.stop_uplink(signal.SIGKILL)
        os.unlink(device.path("metrics"))
        device.start_uplink()
        wait_until(is_filling_in, "live data, and the older lanes that the stream tells of")
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

    def test_records_of_the_same_time(self):
        """None of them is left out or sent twice where a new lane begins with them."""
        cluster = self.cluster()
        device = self.device(cluster, description=RECORDS.replace("[audio.source]\n", "[audio.source]\nsame = 3\n"))
        device.start_uplink()
        for outages in range(4):
            wait_until(lambda: device.uplink_log().count("Connected to") > outages, "a connection")
            time.sleep(1)
            if outages < 3:
                cluster.servers[0].kill()
                time.sleep(2.5)
                cluster.servers[0].start()
        device.stop_producers()
        self.assert_same(device)
        self.assertNotIn("recorded anew", device.uplink_log())


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


class ClockAndCardTest(FleetTest):
    def test_a_clock_that_is_set_back(self):
        cluster = self.cluster()
        device = self.device(cluster, own_clock=True)
        device.start_uplink()
        is_close = lambda: device.metrics().get("messages_total", 0) > 50 and device.metrics()["lag_seconds"] < 1
        anew = lambda: len(re.findall("of video .*was recorded anew", device.uplink_log()))
        wait_until(is_close, "live data")
        time.sleep(2)
        device.set_clock(-1)  # While it sends,
        time.sleep(1.5)
        wait_until(is_close, "live data of the new time")
        hours = "-".join(time.strftime("%H:%M", time.gmtime(time.time() + 3600 * hours)) for hours in (6, 7))
        device.set_policy(groups="".join(f"[{track}]\nhours = {hours}\n" for track in TRACKS))
        self.wait_with_log(device, lambda: "Took over" in device.uplink_log(), "the policy")
        told = anew()
        device.set_clock(-4)  # while there is nothing to send, by more than it may lag,
        self.wait_with_log(device, lambda: anew() > told, "another new lane")
        time.sleep(0.5 * SLOWNESS)
        device.stop_uplink(signal.SIGKILL)
        told = anew()
        device.set_clock(-6 - SLOWNESS)  # and while it does not run, by more than the pause.
        time.sleep(1)
        device.set_policy()
        device.start_uplink()
        self.wait_with_log(device, lambda: anew() > told, "a third one")
        device.stop_producers()
        self.assert_same(device, prepare=without_lost)

    def test_a_clock_that_is_set_back_many_times(self):
        """What the uplink has just found on the card is erased before it reads on there."""
        cluster = self.cluster()
        device = self.device(cluster, own_clock=True)
        device.start_uplink()
        wait_until(lambda: device.metrics().get("messages_total", 0) > 50, "messages")
        steps = 8
        for step in range(steps):
            device.set_clock(-step)
            time.sleep(random.uniform(0.2, 1))
        time.sleep(1)
        device.stop_producers()
        self.assert_same(device, prepare=lambda card, stream: without_lost(card, stream, steps))

    def test_a_clock_that_is_set_back_in_the_middle_of_what_is_read(self):
        """The recorder is past the place again before the uplink, which has sent some of what was erased, reads on."""
        cluster = self.cluster()
        device = self.device(cluster, own_clock=True, uplink="order = oldest\nrate.limit = 500k")
        time.sleep(4)
        device.start_uplink()
        wait_until(lambda: device.metrics().get("messages_total", 0) > 300, "messages")
        device.uplink.send_signal(signal.SIGSTOP)
        self.addCleanup(device.uplink.send_signal, signal.SIGCONT)
        sent = read_track(device.stream_messages(), "video")[0][-1][0] / 1000000
        device.set_clock(int(sent - time.time()) - 2)
        wait_until(lambda: microseconds(device.ask_json("tracks")["video"]["last"]) / 1000000 > sent + 3,
                   "new records behind what was sent")
        device.uplink.send_signal(signal.SIGCONT)
        wait_until(lambda: "What was recorded of video" in device.uplink_log(), "a new lane")
        device.set_policy()
        device.stop_producers()
        self.assert_same(device, prepare=without_lost)

    def test_a_clock_that_is_set_back_before_all(self):
        """The recorder erases everything, so that there is nothing that card and stream both have."""
        cluster = self.cluster()
        device = self.device(cluster, own_clock=True)
        device.start_uplink()
        counting = lambda: [time for time, _kind, _data in read_track(device.stream_messages(), "history")[0]]
        wait_until(lambda: device.metrics().get("messages_total", 0) > 50 and counting(), "records and events")
        device.stop_uplink()
        device.set_clock(-3600)
        time.sleep(2)
        device.start_uplink()
        wait_until(lambda: "All of video" in device.uplink_log(), "another lane")
        device.stop_producers()
        self.assert_same(device)
        recorded = [microseconds(event["time"]) for event in device.ask_json("history")["events"]]
        wait_until(lambda: counting() == recorded, "the history of the new time")

    def test_another_card(self):
        """What an older one has leaves the stream as it is, and what is recorded on it now follows; but what was dated by a clock
        that was ahead gives way."""
        cluster = self.cluster()
        device = self.device(cluster, own_clock=True)
        self.change_card(device, "older", -1000)
        self.change_card(device, "newer", 0)
        device.start_uplink()
        device.stop_producers()
        self.assert_same(device)
        device.stop_uplink()
        self.change_card(device, "newer", 0)  # There is more on it then that has not been sent.
        device.stop_recorder()
        for name in ("older", "newer"):
            sent = {track: read_track(device.stream_messages(), track)[0] for track in TRACKS}
            self.change_card(device, name, 0)
            if not device.uplink:
                device.start_uplink()
            device.stop_producers()
            self.assert_streams(device, lambda track, _stream: sent[track] + [record for record in device.card_records(track)
                                                                              if record[0] > sent[track][-1][0]])
        self.change_card(device, "third", -500)
        device.stop_producers()
        # Without what had been recorded before the uplink saw it.
        self.assert_streams(device, lambda track, stream: device.card_records(track)[-max(len(stream), 5):])

    def change_card(self, device, name, clock):
        device.stop_recorder()
        device.card = device.path(name)
        os.makedirs(device.card, exist_ok=True)
        device.set_clock(clock)
        device.start_recorder()
        time.sleep(3 * SLOWNESS)

    def assert_streams(self, device, expect):
        last = []

        def is_as_expected():
            messages = device.stream_messages()
            last[:] = []
            for track in TRACKS:
                stream, problems = read_track(messages, track)
                last.extend(f"{track}: {text}" for text in problems + compare(expect(track, stream), stream))
            return not last
        try:
            wait_until(is_as_expected, "the stream has what it should")
        except AssertionError as problem:
            raise AssertionError(f"{problem}: {last}\n{device.uplink_log()[-3000:]}") from problem


class LinkTest(FleetTest):
    def test_a_link_that_stalls_loses_data_and_breaks(self):
        cluster = self.cluster(text="max_payload: 8192")  # So that most records have several messages.
        proxy = Proxy(cluster.servers[0].port)
        self.addCleanup(proxy.close)
        device = self.device(cluster)
        device.set_policy(servers=proxy.url)
        device.start_uplink()
        self.wait_for_link(device)
        for _ in range(int(5 * EFFORT)):
            breaks = proxy.breaks
            proxy.left = random.randrange(1, 100000)  # Nearly always in the middle of a record.
            wait_until(lambda: proxy.breaks > breaks, "the link breaks")
        for is_losing in (False, True):
            self.wait_for_link(device)
            proxy.is_losing = is_losing
            if not is_losing:
                proxy.flowing.clear()
            wait_until(lambda: not device.metrics()["connected"], "a link that does not answer")
            time.sleep(3 * EFFORT)
            proxy.is_losing = False
            proxy.flowing.set()  # Now arrives what lay in the link, while another connection goes on.
        device.stop_producers()
        self.assert_same(device)

    def wait_for_link(self, device):
        sent = device.metrics().get("messages_total", 0)
        wait_until(lambda: device.metrics().get("messages_total", 0) > sent + 50, "messages")


class ManyCamerasTest(FleetTest):
    def test_twenty_at_once(self):
        """Few and small records, since all of it runs on one machine."""
        cluster = self.cluster()
        description = RECORDS.replace("bytes.max = 40000", "bytes.max = 4000").replace("0000\n[", "000\n[")

        def start(number):
            device = FleetDevice(cluster, f"camera-{number}", description=description)
            self.addCleanup(device.close)
            device.start_uplink()
            return device

        with ThreadPoolExecutor(5) as pool:
            devices = list(pool.map(start, range(20)))
            wait_until(lambda: all(device.metrics().get("messages_total", 0) > 120 * EFFORT for device in devices), "messages",
                       60 * EFFORT)
            list(pool.map(FleetDevice.stop_producers, devices))
            list(pool.map(self.assert_same, devices))


class SecurityTest(FleetTest):
    def test_certificates_and_credentials(self):
        """Servers that want certificates of both sides and a signed token, and a user with the rights that the guide names."""
        folder = tempfile.mkdtemp(prefix="calvane-security-")
        self.addCleanup(shutil.rmtree, folder)
        authority, stranger = Authority(folder + "/ours"), Authority(folder + "/foreign")
        operator = Operator(folder + "/operator")
        certificate, key = authority.sign("server", "DNS:localhost")
        own = authority.sign("device", "DNS:device")
        context = ssl.create_default_context(cafile=authority.path("ca.pem"))
        context.load_cert_chain(*own)
        signer, token = operator.user("reader")
        cluster = self.cluster(
            text=f"{operator.config}\ntls: {{cert_file: \"{certificate}\", key_file: \"{key}\", "
                 f"ca_file: \"{authority.path('ca.pem')}\", verify: true}}",
            access=(context, lambda nonce: {"jwt": token, "sig": base64url(signer.sign(nonce.encode()))}))
        device = self.device(cluster)
        api = "$JS.API.STREAM"
        rights = {"pub": {"allow": ["calvane.camera.>", f"{api}.*.calvane_camera", f"{api}.MSG.GET.calvane_camera"]},
                  "sub": {"allow": ["_INBOX.>"]}}
        device.write("right.creds", Operator.credentials(*operator.user("device", **rights)))
        device.write("all.creds", Operator.credentials(signer, token))
        device.write("foreign.creds", Operator.credentials(*Operator(folder + "/other").user("device")))
        ours = "tls.ca.file = " + authority.path("ca.pem")
        certificates = f"tls.certificate.file = {own[0]}\ntls.key.file = {own[1]}"
        url = f"tls://localhost:{cluster.servers[0].port}"
        ours, theirs = (f"tls.ca.file = {each.path('ca.pem')}" for each in (authority, stranger))
        certificates = f"tls.certificate.file = {own[0]}\ntls.key.file = {own[1]}"
        right, foreign = ("credentials.file = " + name for name in ("right.creds", "foreign.creds"))
        device.set_policy(right, servers=url)
        device.start_uplink()
        wait_until(lambda: "local issuer certificate" in device.uplink_log(), "servers that are not trusted")
        for words, answer in (((theirs, certificates, right), "local issuer certificate"),
                              ((ours, right), "without a certificate of this device"),
                              ((ours, certificates), "Authorization Violation"),
                              ((ours, certificates, foreign), "Authorization Violation"),
                              ((ours, certificates, right), "IP address mismatch"),
                              ((ours, certificates, right), "Connected")):
            mark = len(device.uplink_log())
            device.set_policy("\n".join(words), servers=url.replace("localhost", "127.0.0.1") if "mismatch" in answer else url)
            try:
                wait_until(lambda: answer in device.uplink_log()[mark:], "an answer", 3)
            except AssertionError as problem:
                raise AssertionError(f"{problem}: no {answer} for {words} in\n{device.uplink_log()}") from problem
        device.stop_producers()
        self.assert_same(device)
        said = subprocess.run([os.path.join(harness.BINARIES, "calvane-fleet"), "--server", url, "--credentials", "all.creds", "--tls-ca",
                               authority.path("ca.pem"), "--tls-cert", own[0], "--tls-key", own[1], "devices"],
                              check=True, cwd=device.folder, capture_output=True, text=True).stdout
        self.assertTrue(said.startswith("camera "), said)


class PolicyTest(FleetTest):
    """What is in the stream is what the policy names of the card, and nothing else."""

    def assert_selected(self, device, wants):
        """`wants` tells for each track whether a record of a time, and whether it is a key frame, is to be in the stream; None where
        it may be."""
        cards = {track: device.card_records(track) for track in wants}
        last = []

        def is_selected():
            messages = device.stream_messages()
            last.clear()
            for track, is_wanted in wants.items():
                records, problems = read_track(messages, track)
                wanted = [record for record in cards[track] if is_wanted(record[0], record[1])]
                certain = [record for record in records if is_wanted(record[0], record[1]) is not None]
                last.extend(f"{track}: {text}" for text in problems + compare(wanted, certain))
                self.assertTrue(wanted and len(wanted) < len(cards[track]) or track == "metadata", track)
            return not last
        try:
            wait_until(is_selected, "the stream has what is wanted", 15)
        except AssertionError as problem:
            raise AssertionError(f"{problem}: {last}\n{device.uplink_log()[-2000:]}") from problem
        time.sleep(1)  # Nothing else comes.
        self.assertTrue(is_selected(), last)

    def test_a_policy_that_is_wrong_is_told_of_by_its_line(self):
        with tempfile.TemporaryDirectory() as folder:
            file = os.path.join(folder, "uplink.ini")

            def check(line):
                with open(file, "w", encoding="utf-8") as policy:
                    policy.write(f"[uplink]\ndevice = gate\n{line}\n")
                done = subprocess.run([os.path.join(harness.BINARIES, "calvane-uplink"), "--check", file], check=False,
                                      stderr=subprocess.PIPE, encoding="utf-8")
                return done.returncode, done.stderr
            self.assertEqual(check("servers = nats://hub:4222"), (0, ""))
            status, said = check("servres = nats://hub:4222")
            self.assertEqual(status, 2)
            self.assertIn(f'{file}:3: [uplink] unknown key servres (did you mean "servers"?)', said)

    def test_what_lies_around_events_and_messages(self):
        cluster = self.cluster()
        # Metadata ends after five seconds.
        device = self.device(cluster, description=RECORDS.replace("bytes.min = 12\n", "bytes.min = 12\ncount = 15\n"), groups="""
[video]
events = metadata
before = 1s
after = 2s
[audio]
topic = door
before = 1500ms
after = 1s""")
        device.start_uplink()
        wait_until(lambda: device.metrics().get("messages_total", 0) > 2, "a connection")
        knocks = [self.knock(device)]
        wait_until(lambda: any(not event["present"] for event in device.ask_json("history")["events"]), "the end of metadata")
        cluster.servers[0].kill()
        wait_until(lambda: not device.metrics()["connected"], "an outage")
        knocks.append(self.knock(device))
        cluster.servers[0].start()
        time.sleep(3 * SLOWNESS)
        device.stop_producers()
        events = [microseconds(event["time"]) for event in device.ask_json("history")["events"] if event.get("track") == "metadata"]
        self.assertGreater(len(events), 1)
        self.assert_selected(device, {
            "video": lambda at, _: any(event - 1000000 <= at <= event + 2000000 for event in events),
            "audio": lambda at, _: self.is_around(at, knocks),
            "metadata": lambda at, _: True})
        lanes = {message.subject for message in device.stream_messages() if fields(message)[0] == "begin"}
        self.assertLess(len(lanes), 10, lanes)

    def knock(self, device):
        """Publishes a message, and returns between which times it came."""
        begin = time.time()
        subprocess.run(["busctl", "--address", device.address, "emit", "/com/quarn/MsgBus", "com.quarn.MsgBus1", "Message", "sbay",
                        "door", "true", "1", "49"], check=True)
        return begin * 1000000, (time.time() + 0.1 * SLOWNESS) * 1000000

    def is_around(self, at, knocks):
        if any(end - 1500000 <= at <= begin + 1000000 for begin, end in knocks):
            return True
        return None if any(begin - 1500000 <= at <= end + 1000000 for begin, end in knocks) else False

    def test_a_policy_that_changes_while_it_runs(self):
        cluster = self.cluster()
        clock = lambda hours: time.strftime("%H:%M", time.gmtime(time.time() + 3600 * hours))
        later, much_later = clock(1), clock(2)
        device = self.device(cluster, groups=f"[video]\nframes = key\n[audio]\nhours = {later}-{much_later}\n[metadata]\nenabled = no")
        device.start_uplink()
        wait_until(lambda: device.metrics().get("messages_total", 0) > 5, "key frames")
        time.sleep(2.5)
        messages = device.stream_messages()
        self.assertEqual([read_track(messages, track)[0] for track in ("audio", "metadata")], [[], []])
        video, problems = read_track(messages, "video")
        self.assertEqual((problems, {record[1] for record in video}), ([], {True}))
        self.assertLess(device.metrics()["lag_seconds"], 1.5 * SLOWNESS, "what is not wanted is not late")
        written = os.stat(device.path("uplink.ini")).st_mtime_ns
        for groups, answer in ((f"[audio]\nhours = {later}\n", "left as it was"), (f"[audio]\nhours = {much_later}-{later}", "Took over")):
            device.set_policy(groups=groups)
            os.utime(device.path("uplink.ini"), ns=(written, written))  # Only the signal tells.
            device.uplink.send_signal(signal.SIGHUP)
            wait_until(lambda: answer in device.uplink_log(), answer, 3)
        changed = time.time() * 1000000
        time.sleep(2)
        device.stop_producers()
        first = min(record[0] for record in read_track(device.stream_messages(), "video")[0] if not record[1])
        self.assertTrue(changed - 2500000 * SLOWNESS < first < changed + 1000000 * SLOWNESS, (first, changed))
        self.assert_selected(device, {"video": lambda at, is_key: is_key or at >= first, "metadata": lambda at, _: True})
        self.assertEqual(compare(device.card_records("audio"), read_track(device.stream_messages(), "audio")[0]), [])


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
        self.add_what_does_not_count(device)
        middle = "@" + str((microseconds(card["video"]["first"]) + microseconds(card["video"]["last"])) / 2e6)
        for begin in ("@0", middle):
            device.ask("export", "--from", begin, "card.mp4", "--force")
            self.ask(device, "export", "--from", begin, "fleet.mp4", "--force", "--device", "gate-3")
            self.assertEqual(device.read("card.mp4"), device.read("fleet.mp4"))
        with self.assertRaises(subprocess.CalledProcessError) as problem:
            self.ask(device, "tracks", "--device", "gate-4")
        self.assertIn(b'"gate-3"', problem.exception.stderr)

    def add_what_does_not_count(self, device):
        """In an older lane from the begin of the next one on, as where the clock was set back."""
        device.stop_uplink()
        begins = [message for message in device.stream_messages() if ".video." in message.subject and fields(message)[0] == "begin"]
        with device.cluster.client() as client:
            client.publish_head(begins[0].subject, f"record time={int(fields(begins[1])[1]['time']) + 100000} number=100000 flags=1")

    def ask(self, device, *words):
        return subprocess.run([os.path.join(harness.BINARIES, "calvane-fleet"), "--server", device.cluster.urls, "--domain", "hub",
                               *words], cwd=device.folder, check=True, capture_output=True).stdout

    def ask_json(self, device, command):
        return json.loads(self.ask(device, command, "--device", device.name, "--json"))


if __name__ == "__main__":
    unittest.main()
