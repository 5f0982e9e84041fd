"""tshark decodes, with tools/wireshark/velmora.lua, a recording the simulator makes here of a plain socket client's
requests, so every byte on the wire is known."""
import os
import shutil
import socket
import struct
import subprocess
import tempfile
import time
import unittest

import simulators

ADDRESS = "127.0.0.130"
SCENARIO = ("var 1000005=42\nvar 1000006=-3\nrunning 1=O1000\nfault f:3=error:0:1\nfault d:2=state:3:1\n"
            "fault B:1=split:30:1\nfault p=stale:0x44:1\n")

# What the client sends, in order; the simulator's replies follow from the scenario.
REQUESTS = [
    b"B\x02" + struct.pack("<2i", 1000005, 1000006),
    b"D\x01" + struct.pack("<2i", 1040007, 7),
    b"f\x03\x01\x00",                       # refused once: error reply
    b"d\x01\x01\x01O1234\x00",
    b"d\x03G0 X1\n\x00",
    b"d\x02G1 Y2\n\x00",                    # refused: memory full
    b"d\x04\x00",
    b"g\x051\x00",
    b"B\x01" + struct.pack("<i", 1000005),  # reply in two segments
    b"p",                                   # a stale D acknowledgement comes first
]

# (row name, command as decoded, nth such packet, field, expected text)
ROWS = [
    ("read request: both addresses", "Read variables request", 0, "velmora.address", "1000005|1000006"),
    ("read request: address texts", "Read variables request", 0, "velmora.area", "ch 1 usr5|ch 1 usr6"),
    ("read request: count", "Read variables request", 0, "velmora.count", "2"),
    ("read reply: signed values", "Read variables reply", 0, "velmora.value", "42|-3"),
    ("write request: address and value", "Write variables request", 0, "velmora.value", "7"),
    ("write request: reg area", "Write variables request", 0, "velmora.area", "ch 1 reg7"),
    ("reset refused: error reply", "Program control reset error reply", 0, "velmora.error", "1"),
    ("reset error reply letter keeps its top bit", "Program control reset error reply", 0, "velmora.letter", "0xe6"),
    ("set file: channel", "File transfer set file request", 0, "velmora.channel", "1"),
    ("set file: name", "File transfer set file request", 0, "velmora.filename", "O1234"),
    ("set file reply: state", "File transfer set file reply", 0, "velmora.state_text", "ok"),
    ("overwrite: text", "File transfer overwrite text request", 0, "velmora.text", "G0 X1\\n"),
    ("append refused: memory full", "File transfer append text reply", 0, "velmora.state_text", "DNC memory full, refused"),
    ("append refused: state 3", "File transfer append text reply", 0, "velmora.state", "3"),
    ("running program reply: name", "Query running program reply", 0, "velmora.text", "O1000"),
    ("split read reply reassembled", "Read variables reply", 1, "velmora.value", "42"),
    ("stale D ack: no matching request", "Write variables reply", 1, "velmora.unanswered", "1"),
    ("stale D ack and watchdog reply in one segment", "Watchdog reply", 0, "velmora.letter", "0x44|0x70"),
]
PAIRS = ["Read variables", "Write variables", "File transfer append text", "Watchdog", "Program control reset"]
FIELDS = ["frame.number", "velmora.command", "velmora.request_in", "velmora.response_in"] + sorted({r[3] for r in ROWS})


@unittest.skipIf(shutil.which("tshark") is None and os.environ.get("CI") != "true",
                 "tshark is not installed (apt-get install tshark): the dissector is not tested")
class DissectorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        pcap = os.path.join(cls.enterClassContext(tempfile.TemporaryDirectory()), "traffic.pcap")
        sim = simulators.Simulator(ADDRESS, SCENARIO, "--record", pcap)
        try:
            with socket.create_connection((ADDRESS, 60000), timeout=2) as s:
                for pdu in REQUESTS:
                    s.sendall(b"\0\0\0\0" + struct.pack("<H", len(pdu) + 1) + b"\0" + pdu)
                    s.recv(4096)      # the reply's first bytes, then time for the rest (a split reply's 30 ms)
                    time.sleep(0.1)
        finally:
            sim.stop()
        cmd = ["tshark", "-2", "-n", "-r", pcap, "-X", "lua_script:" + os.path.join(simulators.SOURCE, "tools",
               "wireshark", "velmora.lua"), "-Y", "velmora", "-T", "fields", "-E", "separator=\t", "-E", "occurrence=a",
               "-E", "aggregator=|"] + [a for f in FIELDS for a in ("-e", f)]
        out = subprocess.run(cmd, capture_output=True, text=True, timeout=120, check=True).stdout
        cls.packets = [dict(zip(FIELDS, line.split("\t"))) for line in out.splitlines() if line]

    def find(self, command, nth=0, reply=False):
        hits = [p for p in self.packets if any(c == command or reply and c.startswith(command) and "reply" in c
                                               for c in p["velmora.command"].split("|"))]
        self.assertGreater(len(hits), nth, "no packet decoded as %r in %s" % (command, self.packets))
        return hits[nth]

    def test_fields(self):
        for name, command, nth, field, expected in ROWS:
            with self.subTest(name):
                self.assertEqual(self.find(command, nth)[field], expected)

    def test_pairing(self):
        for command in PAIRS:
            with self.subTest(command):
                request, reply = self.find(command + " request"), self.find(command, reply=True)
                self.assertIn(request["frame.number"], reply["velmora.request_in"].split("|"))
                self.assertEqual(request["velmora.response_in"], reply["frame.number"])


if __name__ == "__main__":
    unittest.main()
