"""The Wireshark dissector decodes a recording that the simulator makes here.

The traffic comes from a plain socket client, so every byte on the wire is
known; tshark then decodes the simulator's pcap with tools/wireshark/velmora.lua.
"""
import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time
import unittest

SOURCE = os.environ.get("VELMORA_SOURCE_DIR", os.path.join(os.path.dirname(__file__), ".."))
BINARY = os.environ.get("VELMORA_BINARY_DIR", os.path.join(SOURCE, "build"))
ADDRESS = "127.0.0.130"

FIELDS = ["frame.number", "velmora.command", "velmora.letter", "velmora.sub", "velmora.count",
          "velmora.address", "velmora.area", "velmora.value", "velmora.channel", "velmora.filename",
          "velmora.text", "velmora.state", "velmora.state_text", "velmora.error", "velmora.request_in",
          "velmora.response_in", "velmora.unanswered", "velmora.filetype"]

SCENARIO = """
var 1000005=42
var 1000006=-3
running 1=O1000
fault f:3=error:0:1
fault d:2=state:3:1
fault B:1=split:30:1
fault p=stale:0x44:1
"""


def frame(pdu):
    return b"\0\0\0\0" + struct.pack("<H", len(pdu) + 1) + b"\0" + pdu


def le(*values):
    return b"".join(struct.pack("<i", v) for v in values)


# What the client sends, in order; the simulator's replies follow from the
# scenario above.
REQUESTS = [
    b"B\x02" + le(1000005, 1000006),
    b"D\x01" + le(1040007, 7),
    b"f\x03\x01\x00",                       # refused once: error reply
    b"d\x01\x01\x01O1234\x00",
    b"d\x03G0 X1\n\x00",
    b"d\x02G1 Y2\n\x00",                    # refused: memory full
    b"d\x04\x00",
    b"g\x051\x00",
    b"B\x01" + le(1000005),                 # reply in two segments
    b"p",                                   # a stale D acknowledgement comes first
]


def record(pcap):
    with tempfile.NamedTemporaryFile("w", suffix=".scenario", delete=False) as f:
        f.write(SCENARIO)
        scenario = f.name
    sim = subprocess.Popen([os.path.join(BINARY, "sim", "velmora-sim"), "--address", ADDRESS, "--quiet",
                            "--record", pcap, "--scenario", scenario],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        line = sim.stdout.readline()
        if "listening" not in line:
            raise RuntimeError("velmora-sim did not start: " + line + sim.stderr.read())
        with socket.create_connection((ADDRESS, 60000), timeout=2) as s:
            for pdu in REQUESTS:
                s.sendall(frame(pdu))
                got = b""
                # Each request gets one reply (the stale case two); collect
                # until the line is quiet.
                deadline = time.monotonic() + 2
                while time.monotonic() < deadline:
                    s.settimeout(0.15)
                    try:
                        chunk = s.recv(4096)
                    except socket.timeout:
                        if got:
                            break
                        continue
                    if not chunk:
                        break
                    got += chunk
    finally:
        sim.send_signal(signal.SIGTERM)
        sim.communicate(timeout=5)
        os.unlink(scenario)


def decode(pcap):
    cmd = ["tshark", "-2", "-n", "-r", pcap, "-X", "lua_script:" + os.path.join(SOURCE, "tools", "wireshark", "velmora.lua"),
           "-Y", "velmora", "-T", "fields", "-E", "separator=\t", "-E", "occurrence=a", "-E", "aggregator=|"]
    for f in FIELDS:
        cmd += ["-e", f]
    out = subprocess.run(cmd, capture_output=True, text=True, timeout=120)
    if out.returncode != 0:
        raise RuntimeError("tshark failed: " + out.stderr)
    return [dict(zip(FIELDS, line.split("\t"))) for line in out.stdout.splitlines() if line]


@unittest.skipIf(shutil.which("tshark") is None and os.environ.get("CI") != "true",
                 "tshark is not installed (apt-get install tshark): the dissector is not tested")
class DissectorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp()
        pcap = os.path.join(cls.tmp, "traffic.pcap")
        record(pcap)
        cls.packets = decode(pcap)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def find(self, command, nth=0):
        hits = [p for p in self.packets if command in p["velmora.command"].split("|")]
        self.assertGreater(len(hits), nth, "no packet decoded as %r in %s" % (command, self.packets))
        return hits[nth]

    # (row name, command as decoded, nth such packet, field, expected text)
    ROWS = [
        ("read request: both addresses", "Read variables request", 0, "velmora.address", "1000005|1000006"),
        ("read request: address texts", "Read variables request", 0, "velmora.area", "ch 1 usr5|ch 1 usr6"),
        ("read request: count", "Read variables request", 0, "velmora.count", "2"),
        ("read reply: signed values", "Read variables reply", 0, "velmora.value", "42|-3"),
        ("write request: address and value", "Write variables request", 0, "velmora.value", "7"),
        ("write request: reg area", "Write variables request", 0, "velmora.area", "ch 1 reg7"),
        ("reset refused: error reply", "Program control reset error reply", 0, "velmora.error", "1"),
        ("reset error reply letter keeps its top bit", "Program control reset error reply", 0,
         "velmora.letter", "0xe6"),
        ("set file: channel", "File transfer set file request", 0, "velmora.channel", "1"),
        ("set file: name", "File transfer set file request", 0, "velmora.filename", "O1234"),
        ("set file reply: state", "File transfer set file reply", 0, "velmora.state_text", "ok"),
        ("overwrite: text", "File transfer overwrite text request", 0, "velmora.text", "G0 X1\\n"),
        ("append refused: memory full", "File transfer append text reply", 0, "velmora.state_text",
         "DNC memory full, refused"),
        ("append refused: state 3", "File transfer append text reply", 0, "velmora.state", "3"),
        ("running program reply: name", "Query running program reply", 0, "velmora.text", "O1000"),
        ("split read reply reassembled", "Read variables reply", 1, "velmora.value", "42"),
        ("stale D ack: no matching request", "Write variables reply", 1, "velmora.unanswered", "1"),
        ("stale D ack and watchdog reply in one segment", "Watchdog reply", 0, "velmora.letter", "0x44|0x70"),
    ]

    def test_fields(self):
        for name, command, nth, field, expected in self.ROWS:
            with self.subTest(name):
                self.assertEqual(self.find(command, nth)[field], expected)

    def test_pairing(self):
        for command in ["Read variables", "Write variables", "File transfer append text", "Watchdog",
                        "Program control reset"]:
            with self.subTest(command):
                request = self.find(command + " request")
                reply = [p for p in self.packets
                         if any(c.startswith(command) and "reply" in c for c in p["velmora.command"].split("|"))][0]
                self.assertIn(request["frame.number"], reply["velmora.request_in"].split("|"))
                self.assertEqual(request["velmora.response_in"], reply["frame.number"])


if __name__ == "__main__":
    unittest.main()
