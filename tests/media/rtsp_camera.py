"""A camera that serves a file of H.264 and AAC over RTSP, in real time, to everyone who calls: rtsp_camera.py FILE PORT

PORT 0 takes a free one. Prints the address when it can be called, and goes on until it is killed."""

import pathlib
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # pylint: disable=wrong-import-position


def main():
    path, port = pathlib.Path(sys.argv[1]).resolve(strict=True), sys.argv[2]
    Gst.init(None)
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(f'( filesrc location="{path}" ! qtdemux name=file '
                       "file.video_0 ! queue ! rtph264pay name=pay0 pt=96 config-interval=-1 "
                       "file.audio_0 ! queue ! rtpmp4gpay name=pay1 pt=97 )")
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(port)
    server.get_mount_points().add_factory("/camera", factory)
    if server.attach(None) == 0:
        sys.exit(f"port {port} cannot be listened on")
    print(f"rtsp://127.0.0.1:{server.get_bound_port()}/camera", flush=True)
    GLib.MainLoop().run()


main()
