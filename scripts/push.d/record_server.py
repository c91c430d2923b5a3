#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""An RTSP server that takes one stream of H.264 and writes it to a file.

record_server.py PORT FILE

Serves rtsp://127.0.0.1:PORT/in in record mode until its client has left.
"""
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402  # the versions come first

Gst.init(None)
loop = GLib.MainLoop()
server = GstRtspServer.RTSPServer(address="127.0.0.1", service=sys.argv[1])
factory = GstRtspServer.RTSPMediaFactory()
factory.set_transport_mode(GstRtspServer.RTSPTransportMode.RECORD)
factory.set_launch("( rtph264depay name=depay0 ! h264parse ! "
                   "video/x-h264,stream-format=byte-stream,alignment=au ! "
                   f"filesink location={sys.argv[2]} async=false )")
server.get_mount_points().add_factory("/in", factory)
server.connect("client-connected",
               lambda _, client: client.connect("closed", lambda _: GLib.timeout_add(500, loop.quit)))
server.attach(None)
print("ready", flush=True)
loop.run()
