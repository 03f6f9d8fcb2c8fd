"""Two devices of a fleet with generated pictures, the servers that keep their streams, and calvane-web --fleet."""
import os
import sys
import time

from harness import CAMERA, SOURCE, WebTest, wait_until

sys.path.insert(1, os.path.join(SOURCE, "tests", "fleet"))
from fleet_device import FleetDevice, microseconds  # noqa: E402,F401
from nats_cluster import Cluster  # noqa: E402


class FleetWebTest(WebTest):
    """gate-1 has a recording with a gap, since its recorder was stopped for a while; gate-2 goes on recording."""

    @classmethod
    def setUpClass(cls):
        cls.cluster = Cluster(1)
        cls.addClassCleanup(cls.cluster.close)
        cls.devices = [cls.add_device(name) for name in ("gate-1", "gate-2")]
        cls.device, _ = cls.devices
        for device in cls.devices:
            device.start_uplink()
        wait_until(lambda: cls.device.seconds_recorded() > 4, "a recording")
        cls.device.stop_recorder()
        time.sleep(3)
        cls.device.start_recorder()
        wait_until(lambda: cls.device.seconds_recorded() > 10, "a gap and what follows")
        cls.web = cls.device.start_web("--fleet", "--server", cls.cluster.urls)

    @classmethod
    def add_device(cls, name):
        device = FleetDevice(cls.cluster, name, description=CAMERA)
        cls.addClassCleanup(device.close)
        return device
