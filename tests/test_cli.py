"""velmora-cli against simulated controllers: one row per command line.

Each row names what the user sees, starts the simulators it needs from a
scenario, runs the tool and checks its exit status, stdout and stderr.
"""
import os
import pty
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest

BINARY = os.environ.get("VELMORA_BINARY_DIR", os.path.join(os.path.dirname(__file__), "..", "build"))
CLI = os.path.join(BINARY, "tools", "velmora-cli")
SIM = os.path.join(BINARY, "sim", "velmora-sim")

A, B = "127.0.0.140", "127.0.0.141"   # simulators
REFUSED = "127.0.0.142"               # nothing listens
SILENT = "127.0.0.143"                # a full backlog: connection attempts go unanswered

BASE = "var 1000005=42\nvar 1040003=-7\nrunning 2=O77\nerror-file 0=E1 spindle\\nE2 door\nerror-file 2:history=H1\n"
PROGRAM = "O1\nG0 X1\nG1 Y2\nM30\n"
LONG_PROGRAM = "".join("N%04d G1 X%d\n" % (i, i) for i in range(80))   # 1000+ bytes: three pieces


def start_sim(address, scenario, tmp):
    path = os.path.join(tmp, address + ".scenario")
    with open(path, "w") as f:
        f.write(scenario)
    sim = subprocess.Popen([SIM, "--address", address, "--quiet", "--scenario", path],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    line = sim.stdout.readline()
    if "listening" not in line:
        raise RuntimeError("velmora-sim did not start on %s: %s%s" % (address, line, sim.stderr.read()))
    return sim


class SilentPort:
    """A listener whose backlog is full, so a new connection attempt gets no answer."""

    def __enter__(self):
        self.listener = socket.socket()
        self.listener.bind((SILENT, 60000))
        self.listener.listen(0)
        self.fill = []
        for _ in range(3):
            s = socket.socket()
            s.setblocking(False)
            try:
                s.connect((SILENT, 60000))
            except BlockingIOError:
                pass
            self.fill.append(s)
        time.sleep(0.1)
        return self

    def __exit__(self, *exc):
        for s in self.fill:
            s.close()
        self.listener.close()


# (what the user sees, scenario of A (None: no simulator), scenario of B,
#  arguments, exit status, stdout (regex, whole), stderr lines (regexes))
ROWS = [
    ("--help prints the usage and exits 0", None, None, ["--help"], 0, r"(?s)usage: velmora-cli .*", []),
    ("read by address text and number, two controllers in parallel, a row each", BASE, "var 1000005=5",
     ["--cnc", A + "," + B, "read", "usr5", "reg3", "1000006"], 0,
     "cnc\tusr5\treg3\t1000006\n%s\t42\t-7\t0\n%s\t5\t0\t0\n" % (A, B), []),
    ("address texts follow --channel", "var 2010004=9", None, ["--cnc", A, "--channel", "2", "read", "sys4"], 0,
     "cnc\tsys4\n%s\t9\n" % A, []),
    ("write takes a 32-bit pattern", BASE, None, ["--cnc", A, "write", "usr5=0xFFFFFFFF", "reg3=-1"], 0,
     "%s\tok\n" % A, []),
    ("write refused by the controller -> 3 in words", "fault D=error", None, ["--cnc", A, "write", "usr5=1"], 3, "",
     [r"velmora-cli: %s: writeVars: The controller answered with an error reply \(status 3\)" % A]),
    ("reset 0 -> the library's parameter error 1", BASE, None, ["--cnc", A, "reset", "0"], 1, "",
     [r"reset: Parameter error or unknown controller \(status 1\)"]),
    ("reset 99 -> 0 like any channel the library accepts", BASE, None, ["--cnc", A, "reset", "99"], 0, "%s\tok\n" % A, []),
    ("start while a program runs -> 3", BASE, None, ["--cnc", A, "start", "2", "O1"], 3, "",
     [r"cycStart: The controller answered with an error reply \(status 3\)"]),
    ("running program by name", BASE, None, ["--cnc", A, "running", "2"], 0, "%s\tO77\n" % A, []),
    ("silent running-program query -> 111", "fault g=silence", None, ["--cnc", A, "running", "2"], 111, "",
     [r"getRuningPrg: No reply within the reply time-out \(status 111\)"]),
    ("errors prints the current error file", BASE, None, ["--cnc", A, "errors"], 0, "E1 spindle\nE2 door\n", []),
    ("errors --history of channel index 2", BASE, None, ["--cnc", A, "errors", "2", "--history"], 0, "H1\n", []),
    ("errors of two controllers: lines carry their controller", BASE, BASE, ["--cnc", A + "," + B, "errors"], 0,
     "%s\tE1 spindle\n%s\tE2 door\n%s\tE1 spindle\n%s\tE2 door\n" % (A, A, B, B), []),
    ("error file never written -> 8 with the library's words", "error-file-stuck", None, ["--cnc", A, "errors"], 8, "",
     [r"getCncCurrentError: The controller did not write the error file in time, or did not answer while it was "
      r"read; the library says \"timeout get curErrorerror file\" \(status 8\)$"]),
    ("error file beyond 64 KiB -> its first 64 KiB, then 5", "error-file 0=" + "x" * 70000, None,
     ["--cnc", A, "errors"], 5, "x" * 65536 + "\n",
     [r"getCncCurrentError: The error file was cut at 64 KiB or after 10 s of reading \(status 5\)$"]),
    ("upload a program", BASE, None, ["--cnc", A, "upload", "1", "0", "O1", "@program"], 0,
     "%s\tok\t%d bytes\n" % (A, len(PROGRAM)), []),
    ("upload whose second piece the controller refuses -> 3", "fault d:2=error:0:1", None,
     ["--cnc", A, "upload", "1", "0", "O2", "@long"], 3, "",
     [r"append: The controller answered with an error reply \(status 3\)$"]),
    ("upload into full DNC memory -> 4, channel left locked is said", "fault d:3=state:3", None,
     ["--cnc", A, "upload", "1", "2", "O3", "@program"], 4, "",
     [r"overwrite: The command queue is full \(for overwrite: the DNC memory is full\) \(status 4\); "
      r"the library keeps channel 1 locked after overwrite returns 4, so the transfer is not ended"]),
    ("upload of a file with non-ASCII text is refused before sending", BASE, None,
     ["--cnc", A, "upload", "1", "0", "O4", "@utf8"], 2, "",
     [r"velmora-cli: .*utf8.nc: byte 0xC3 at offset 9: the controller takes 7-bit text only.*"]),
    ("stream a file through the remote buffer", BASE, None, ["--cnc", A, "stream", "@long"], 0,
     "%s\tok\t%d bytes\n" % (A, len(LONG_PROGRAM)), []),
    ("stream in MDI mode takes short programs only", BASE, None, ["--cnc", A, "--mode", "mdi", "stream", "@long"], 2, "",
     [r"an MDI program must be shorter than 480 bytes \(use --mode dnc\)"]),
    ("wdt", BASE, None, ["--cnc", A, "wdt"], 0, "%s\tok\n" % A, []),
    ("silent watchdog -> 111", "fault p=silence", None, ["--cnc", A, "wdt"], 111, "",
     [r"CheckTcpWdt: No reply within the reply time-out \(status 111\)"]),
    ("bits of channel 1, area 0", "var 1032048=0x2\nvar 1032049=0x2", None, ["--cnc", A, "bits", "1", "0", "0", "1", "33"],
     0, "cnc\t0\t1\t33\n%s\t0\t1\t1\n" % A, []),
    ("watch twice, not a terminal: a table per round", BASE, None,
     ["--cnc", A, "--period", "50", "--count", "2", "watch", "usr5"], 0, ("cnc\tusr5\n%s\t42\n" % A) * 2, []),
    ("unknown subcommand -> one line, 2", BASE, None, ["--cnc", A, "explode"], 2, "",
     [r"velmora-cli: unknown command \"explode\" \(see velmora-cli --help\)"]),
    ("bad address text named", BASE, None, ["--cnc", A, "read", "usx5"], 2, "",
     [r"velmora-cli: bad address \"usx5\" .*"]),
    ("unreadable file named", BASE, None, ["--cnc", A, "upload", "1", "0", "O1", "/nonexistent/part.nc"], 2, "",
     [r"velmora-cli: cannot read /nonexistent/part.nc: No such file or directory .*"]),
    ("malformed controller address", None, None, ["--cnc", "127.0.0.300", "wdt"], 2, "",
     [r"velmora-cli: bad controller address \"127.0.0.300\" .*"]),
    ("no controller given", None, None, ["wdt"], 2, "", [r"velmora-cli: no controller: give --cnc .*"]),
    ("refused controller -> 7, said so", None, None, ["--cnc", REFUSED, "wdt"], 7, "",
     [r"velmora-cli: %s: cannot connect: connection refused: nothing listens on port 60000 there \(status 7\)" % REFUSED]),
    ("unanswering controller -> 7, said so", None, None, ["--cnc", SILENT, "wdt"], 7, "",
     [r"velmora-cli: %s: cannot connect: no answer within 500 ms.*\(status 7\)" % SILENT]),
    ("one controller up, one refused: its row, then 7", BASE, None, ["--cnc", A + "," + REFUSED, "read", "usr5"], 7,
     "cnc\tusr5\n%s\t42\n" % A, [r".*%s: cannot connect: connection refused.*" % REFUSED]),
]


class CliTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp()
        cls.files = {"@program": PROGRAM.encode(), "@long": LONG_PROGRAM.encode(),
                     "@utf8": "O1\nG0 X1 \u00d8 end\n".encode()}
        for key, data in cls.files.items():
            with open(os.path.join(cls.tmp, key[1:] + ".nc"), "wb") as f:
                f.write(data)

    def run_row(self, scenario_a, scenario_b, args, terminal=False):
        sims = []
        try:
            for address, scenario in ((A, scenario_a), (B, scenario_b)):
                if scenario is not None:
                    sims.append(start_sim(address, scenario, self.tmp))
            args = [os.path.join(self.tmp, a[1:] + ".nc") if a in self.files else a for a in args]
            with SilentPort():
                if not terminal:
                    r = subprocess.run([CLI] + args, capture_output=True, text=True, timeout=60)
                    return r.returncode, r.stdout, r.stderr
                master, slave = pty.openpty()
                p = subprocess.Popen([CLI] + args, stdout=slave, stderr=subprocess.PIPE, text=True)
                os.close(slave)
                out = b""
                while True:
                    try:
                        chunk = os.read(master, 4096)
                    except OSError:
                        break
                    if not chunk:
                        break
                    out += chunk
                p.wait(60)
                os.close(master)
                return p.returncode, out.decode(), p.stderr.read()
        finally:
            for sim in sims:
                sim.send_signal(signal.SIGTERM)
                sim.communicate(timeout=5)

    def test_command_lines(self):
        for name, scenario_a, scenario_b, args, status, stdout, stderr in ROWS:
            with self.subTest(name):
                code, out, err = self.run_row(scenario_a, scenario_b, args)
                self.assertEqual(code, status, err)
                self.assertRegex(out, "(?s)^" + stdout[4:] + "$" if stdout.startswith("(?s)")
                                 else "^" + re.escape(stdout) + "$")
                lines = err.splitlines()
                self.assertEqual(len(lines), len(stderr), err)
                for line, pattern in zip(lines, stderr):
                    self.assertRegex(line, pattern)

    def test_progress_on_a_terminal(self):
        code, out, err = self.run_row(BASE, None, ["--cnc", A, "upload", "1", "0", "O5", "@long"], terminal=True)
        self.assertEqual(code, 0, err)
        self.assertRegex(out, r"%s +\[#+\] 100%% +[0-9.]+ kB/s" % re.escape(A))
        self.assertIn("%s\tok\t%d bytes" % (A, len(LONG_PROGRAM)), out)


if __name__ == "__main__":
    unittest.main()
