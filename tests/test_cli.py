"""velmora-cli against simulated controllers: one row per command line, with its exit status, stdout and stderr."""
import os
import re
import shlex
import socket
import subprocess
import tempfile
import unittest

import simulators

CLI = os.path.join(simulators.BINARY, "tools", "velmora-cli")
A, B = "127.0.0.140", "127.0.0.141"   # healthy controllers
F, G = "127.0.0.144", "127.0.0.145"   # controllers that fail in one way per command
REFUSED = "127.0.0.142"               # nothing listens
SILENT = "127.0.0.143"                # a full backlog: connection attempts go unanswered

ERRORS = "error-file 0=E1 spindle\\nE2 door\n"
SCENARIOS = {
    A: "var 1000005=42\nvar 1040003=-7\nvar 2010004=9\nvar 1032048=0x2\nvar 1032049=0x2\nrunning 2=O77\n" + ERRORS
       + "error-file 2:history=H1\nerror-file 1=" + "x" * 70000,
    B: "var 1000005=5\n" + ERRORS,
    F: "fault D=error\nfault g=silence\nfault p=silence\nfault d:3=state:3\n",
    G: "error-file-stuck\nfault d:2=error:0:1\n",
}
PROGRAM = "O1\nG0 X1\nG1 Y2\nM30\n"
LONG_PROGRAM = "".join("N%04d G1 X%d\n" % (i, i) for i in range(80))   # 1000+ bytes: three pieces
FILES = {"@program": PROGRAM, "@long": LONG_PROGRAM, "@utf8": "O1\nG0 X1 \u00d8 end\n"}

# (what the user sees, arguments, exit status, stdout (regex, whole), stderr lines (regexes))
ROWS = [
    ("--help prints the usage and exits 0", ["--help"], 0, r"(?s)usage: velmora-cli .*", []),
    ("read by address text and number, two controllers in parallel, a row each",
     ["--cnc", A + "," + B, "read", "usr5", "reg3", "1000006"], 0,
     "cnc\tusr5\treg3\t1000006\n%s\t42\t-7\t0\n%s\t5\t0\t0\n" % (A, B), []),
    ("address texts follow --channel", ["--cnc", A, "--channel", "2", "read", "sys4"], 0, "cnc\tsys4\n%s\t9\n" % A, []),
    ("write takes a 32-bit pattern", ["--cnc", A, "write", "usr7=0xFFFFFFFF", "reg4=-1"], 0, "%s\tok\n" % A, []),
    ("write refused by the controller -> 3 in words", ["--cnc", F, "write", "usr5=1"], 3, "",
     [r"velmora-cli: %s: writeVars: The controller answered with an error reply \(status 3\)" % F]),
    ("reset 0 -> the library's parameter error 1", ["--cnc", A, "reset", "0"], 1, "",
     [r"reset: Parameter error or unknown controller \(status 1\)"]),
    ("reset 99 -> 0 like any channel the library accepts", ["--cnc", A, "reset", "99"], 0, "%s\tok\n" % A, []),
    ("start while a program runs -> 3", ["--cnc", A, "start", "2", "O1"], 3, "",
     [r"cycStart: The controller answered with an error reply \(status 3\)"]),
    ("running program by name", ["--cnc", A, "running", "2"], 0, "%s\tO77\n" % A, []),
    ("silent running-program query -> 111", ["--cnc", F, "running", "2"], 111, "",
     [r"getRuningPrg: No reply within the reply time-out \(status 111\)"]),
    ("errors prints the current error file", ["--cnc", A, "errors"], 0, "E1 spindle\nE2 door\n", []),
    ("errors --history of channel index 2", ["--cnc", A, "errors", "2", "--history"], 0, "H1\n", []),
    ("errors of two controllers: lines carry their controller", ["--cnc", A + "," + B, "errors"], 0,
     "%s\tE1 spindle\n%s\tE2 door\n%s\tE1 spindle\n%s\tE2 door\n" % (A, A, B, B), []),
    ("error file never written -> 8 with the library's words", ["--cnc", G, "errors"], 8, "",
     [r"getCncCurrentError: The controller did not write the error file in time, or did not answer while it was "
      r"read; the library says \"timeout get curErrorerror file\" \(status 8\)$"]),
    ("error file beyond 64 KiB -> its first 64 KiB, then 5", ["--cnc", A, "errors", "1"], 5, "x" * 65536 + "\n",
     [r"getCncCurrentError: The error file was cut at 64 KiB or after 10 s of reading \(status 5\)$"]),
    ("upload a program", ["--cnc", A, "upload", "1", "0", "O1", "@program"], 0,
     "%s\tok\t%d bytes\n" % (A, len(PROGRAM)), []),
    ("upload whose second piece the controller refuses -> 3", ["--cnc", G, "upload", "1", "0", "O2", "@long"], 3, "",
     [r"append: The controller answered with an error reply \(status 3\)$"]),
    ("upload into full DNC memory -> 4, channel left locked is said", ["--cnc", F, "upload", "1", "2", "O3", "@program"], 4,
     "", [r"overwrite: The command queue is full \(for overwrite: the DNC memory is full\) \(status 4\); "
          r"the library keeps channel 1 locked after overwrite returns 4, so the transfer is not ended"]),
    ("upload of a file with non-ASCII text is refused before sending", ["--cnc", A, "upload", "1", "0", "O4", "@utf8"],
     2, "", [r"velmora-cli: .*utf8.nc: byte 0xC3 at offset 9: the controller takes 7-bit text only.*"]),
    ("stream a file through the remote buffer", ["--cnc", A, "stream", "@long"], 0,
     "%s\tok\t%d bytes\n" % (A, len(LONG_PROGRAM)), []),
    ("stream in MDI mode takes short programs only", ["--cnc", A, "--mode", "mdi", "stream", "@long"], 2, "",
     [r"an MDI program must be shorter than 480 bytes \(use --mode dnc\)"]),
    ("wdt", ["--cnc", A, "wdt"], 0, "%s\tok\n" % A, []),
    ("silent watchdog -> 111", ["--cnc", F, "wdt"], 111, "",
     [r"CheckTcpWdt: No reply within the reply time-out \(status 111\)"]),
    ("bits of channel 1, area 0", ["--cnc", A, "bits", "1", "0", "0", "1", "33"], 0, "cnc\t0\t1\t33\n%s\t0\t1\t1\n" % A, []),
    ("watch twice, not a terminal: a table per round", ["--cnc", A, "--period", "50", "--count", "2", "watch", "usr5"], 0,
     ("cnc\tusr5\n%s\t42\n" % A) * 2, []),
    ("unknown subcommand -> one line, 2", ["--cnc", A, "explode"], 2, "",
     [r"velmora-cli: unknown command \"explode\" \(see velmora-cli --help\)"]),
    ("bad address text named", ["--cnc", A, "read", "usx5"], 2, "", [r"velmora-cli: bad address \"usx5\" .*"]),
    ("unreadable file named", ["--cnc", A, "upload", "1", "0", "O1", "/nonexistent/part.nc"], 2, "",
     [r"velmora-cli: cannot read /nonexistent/part.nc: No such file or directory .*"]),
    ("malformed controller address", ["--cnc", "127.0.0.300", "wdt"], 2, "",
     [r"velmora-cli: bad controller address \"127.0.0.300\" .*"]),
    ("no controller given", ["wdt"], 2, "", [r"velmora-cli: no controller: give --cnc .*"]),
    ("refused controller -> 7, said so", ["--cnc", REFUSED, "wdt"], 7, "",
     [r"velmora-cli: %s: cannot connect: connection refused: nothing listens on port 60000 there \(status 7\)" % REFUSED]),
    ("unanswering controller -> 7, said so", ["--cnc", SILENT, "wdt"], 7, "",
     [r"velmora-cli: %s: cannot connect: no answer within 500 ms.*\(status 7\)" % SILENT]),
    ("one controller up, one refused: its row, then 7", ["--cnc", A + "," + REFUSED, "read", "usr5"], 7,
     "cnc\tusr5\n%s\t42\n" % A, [r".*%s: cannot connect: connection refused.*" % REFUSED]),
]


class CliTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        simulators.start(SCENARIOS, cls.addClassCleanup)
        cls.tmp = cls.enterClassContext(tempfile.TemporaryDirectory())
        for key, text in FILES.items():
            with open(os.path.join(cls.tmp, key[1:] + ".nc"), "wb") as f:
                f.write(text.encode())
        # A listener whose backlog is full, so a new connection attempt gets no answer.
        cls.silent = [socket.create_server((SILENT, 60000), backlog=0)] + [socket.socket() for _ in range(3)]
        for s in cls.silent[1:]:
            s.setblocking(False)
            s.connect_ex((SILENT, 60000))
        cls.addClassCleanup(lambda: [s.close() for s in cls.silent])

    def run_cli(self, args):
        args = [os.path.join(self.tmp, a[1:] + ".nc") if a in FILES else a for a in args]
        return subprocess.run([CLI] + args, capture_output=True, text=True, timeout=60)

    def test_command_lines(self):
        for name, args, status, stdout, stderr in ROWS:
            with self.subTest(name):
                r = self.run_cli(args)
                self.assertEqual(r.returncode, status, r.stderr)
                self.assertRegex(r.stdout, "(?s)^" + (stdout[4:] if stdout.startswith("(?s)") else re.escape(stdout)) + "$")
                lines = r.stderr.splitlines()
                self.assertEqual(len(lines), len(stderr), r.stderr)
                for line, pattern in zip(lines, stderr):
                    self.assertRegex(line, pattern)

    def test_progress_on_a_terminal(self):
        # script(1) runs the tool with a terminal as its stdout.
        cli = shlex.join([CLI, "--cnc", A, "upload", "1", "0", "O5", os.path.join(self.tmp, "long.nc")])
        r = subprocess.run(["script", "-qec", cli, "/dev/null"], capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stdout)
        self.assertRegex(r.stdout, r"%s +\[#+\] 100%% +[0-9.]+ kB/s" % re.escape(A))
        self.assertIn("%s\tok\t%d bytes" % (A, len(LONG_PROGRAM)), r.stdout)


if __name__ == "__main__":
    unittest.main()
