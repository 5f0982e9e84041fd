#!/usr/bin/env python3
"""Seeds fuzz/corpus/client_reply from the simulator's recorded replies.

velmora-sim records its traffic (--record) while velmora-cli runs the
operations; each reply of the recording becomes one input of
fuzz_client_reply: the operation, the mode and step byte, then the reply.
Run it in a network namespace of its own (/work/bin/isolated) from the
source tree, with a build in build/:  python3 fuzz/seed_client_reply.py
"""
import os
import struct
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.environ.get("VELMORA_BINARY_DIR", os.path.join(ROOT, "build"))
ADDRESS = "127.0.0.191"
OUT = os.path.join(ROOT, "fuzz", "corpus", "client_reply")

# (operation number of fuzz_client_reply, velmora-cli command); one
# connection with traffic each, in this order.
OPERATIONS = [
    (0, ["read", "1000005", "1000006", "1000007"]),
    (1, ["write", "1000005=-1", "1000006=7"]),
    (2, ["bits", "1", "0", "0", "31", "33"]),
    (3, ["wdt"]),
    (4, ["reset", "1"]),
    (9, ["upload", "1", "0", "O1", "@program"]),
    (5, ["start", "1", "O1"]),
    (6, ["running", "1"]),
    (10, ["errors", "0"]),
]


def replies(pcap):
    """Server-to-client payload per TCP connection, in order of opening."""
    with open(pcap, "rb") as f:
        data = f.read()
    streams, order = {}, []
    at = 24
    while at + 16 <= len(data):
        incl = struct.unpack_from("<I", data, at + 8)[0]
        packet = data[at + 16:at + 16 + incl]
        at += 16 + incl
        ip = packet[14:]
        ihl = (ip[0] & 15) * 4
        tcp = ip[ihl:]
        sport, dport = struct.unpack_from(">HH", tcp, 0)
        payload = tcp[(tcp[12] >> 4) * 4:]
        client = dport if sport == 60000 else sport
        if client not in streams:
            streams[client] = b""
            order.append(client)
        if sport == 60000:
            streams[client] += payload
    return [streams[c] for c in order if streams[c]]


def frames(stream):
    out = []
    while len(stream) >= 7:
        n = 6 + struct.unpack_from("<H", stream, 4)[0]
        out.append(stream[:n])
        stream = stream[n:]
    return out


def main():
    tmp = tempfile.mkdtemp()
    pcap = os.path.join(tmp, "seed.pcap")
    program = os.path.join(tmp, "part.nc")
    with open(program, "w") as f:
        f.write(("G1 X1 Y2\n" * 112)[:1000])
    sim = subprocess.Popen([os.path.join(BUILD, "sim", "velmora-sim"), "--address", ADDRESS, "--quiet",
                            "--record", pcap, "--var", "1000005=42", "--error-file", "0=E1 spindle"])
    time.sleep(0.5)
    try:
        for _, command in OPERATIONS:
            args = [program if a == "@program" else a for a in command]
            subprocess.run([os.path.join(BUILD, "tools", "velmora-cli"), "--cnc", ADDRESS] + args,
                           check=True, stdout=subprocess.DEVNULL)
    finally:
        sim.terminate()
        sim.wait()
    recorded = replies(pcap)
    if len(recorded) != len(OPERATIONS):
        sys.exit("expected %d connections with replies, found %d" % (len(OPERATIONS), len(recorded)))
    os.makedirs(OUT, exist_ok=True)
    written = 0
    for (op, command), stream in zip(OPERATIONS, recorded):
        for step, frame in enumerate(frames(stream)):
            for mode in (0, 1) if step == 0 else (0,):
                name = "%s_%s_step%d" % (command[0], "thread" if mode else "direct", step)
                with open(os.path.join(OUT, name), "wb") as f:
                    f.write(bytes([op, (step << 1) | mode]) + frame)
                written += 1
    print("%d inputs in %s" % (written, OUT))


if __name__ == "__main__":
    main()
