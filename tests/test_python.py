"""python/velmora.py against simulated controllers, one row per case."""
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SOURCE = os.environ.get("VELMORA_SOURCE_DIR", os.path.join(os.path.dirname(__file__), ".."))
BINARY = os.environ.get("VELMORA_BINARY_DIR", os.path.join(SOURCE, "build"))
sys.path.insert(0, os.path.join(SOURCE, "python"))
import velmora  # noqa: E402

A, B = "127.0.0.160", "127.0.0.161"
REFUSED = "127.0.0.162"
PROGRAM = "".join("N%04d G1 X%d\n" % (i, i) for i in range(80))   # three transfer pieces

BASE = "var 1000005=42\nvar 1040003=-7\nrunning 2=O77\nerror-file 0=E1 spindle\\nE2 door\nerror-file-stuck\n"


class Sim:
    def __init__(self, address, scenario):
        fd, self.path = tempfile.mkstemp(suffix=".scenario")
        with os.fdopen(fd, "w") as f:
            f.write(scenario)
        self.proc = subprocess.Popen([os.path.join(BINARY, "sim", "velmora-sim"), "--address", address, "--quiet",
                                      "--scenario", self.path], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     text=True)
        line = self.proc.stdout.readline()
        if "listening" not in line:
            raise RuntimeError("velmora-sim did not start: " + line + self.proc.stderr.read())

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        self.proc.communicate(timeout=5)
        os.unlink(self.path)


class PythonModuleTest(unittest.TestCase):
    def sim(self, scenario, address=A):
        s = Sim(address, scenario)
        self.addCleanup(s.stop)
        return s

    def test_calls(self):
        # (what the host sees, scenario, call on a connected Controller, expected result or exception status)
        rows = [
            ("read by address text and number", BASE, lambda c: c.read(["usr5", "reg3", 1000006]), [42, -7, 0]),
            ("address texts follow the channel", "var 2010004=9", lambda c: c.read(["sys4"], channel=2), [9]),
            ("write a 32-bit pattern, read it back signed", "",
             lambda c: (c.write({"usr5": 0xFFFFFFFF, 1000006: -2}), c.read(["usr5", 1000006]))[1], [-1, -2]),
            ("read bits", "var 1032049=0x2", lambda c: c.read_bits(1, 0, [0, 33]), [0, 1]),
            ("running program by name", BASE, lambda c: c.running_program(2), "O77"),
            ("silent read -> 111 with its words", "fault B=silence", lambda c: c.read(["usr5"]), 111),
            ("refused write -> 3", "fault D=error", lambda c: c.write({"usr5": 1}), 3),
            ("reset 0 -> the library's parameter error", "", lambda c: c.reset(0), 1),
            ("start while a program runs -> 3", BASE, lambda c: c.start(2, "O1"), 3),
            ("watchdog", "", lambda c: c.watchdog(), None),
            ("library version as text", "", lambda c: velmora.library_version().split(".")[:1], ["1"]),
            ("error file as status and text", BASE.replace("error-file-stuck\n", ""), lambda c: c.error_file(),
             velmora.ErrorFile(0, "E1 spindle\nE2 door")),
            ("error file never written -> status 8 and the library's words", BASE, lambda c: c.error_file(),
             velmora.ErrorFile(8, "timeout get curErrorerror file")),
            ("upload then start the program", "",
             lambda c: (c.upload(1, "O5", PROGRAM), c.start(1, "O5"), c.running_program(1))[2], "O5"),
            ("upload refused on a later piece -> 3, channel free", "fault d:2=error:0:1",
             lambda c: c.upload(1, "O6", PROGRAM), 3),
        ]
        for name, scenario, call, expected in rows:
            with self.subTest(name):
                sim = Sim(A, scenario)
                try:
                    with velmora.Controller(A) as c:
                        if isinstance(expected, int) and not isinstance(expected, bool):
                            with self.assertRaises(velmora.VelmoraError) as e:
                                call(c)
                            self.assertEqual(e.exception.status, expected)
                            self.assertEqual(e.exception.text, velmora.status_text(expected))
                            self.assertFalse(c.locked_channels)
                        else:
                            self.assertEqual(call(c), expected)
                finally:
                    sim.stop()

    def test_bad_input_raises_before_any_traffic(self):
        rows = [
            ("unknown address text", lambda c: c.read(["usx5"])),
            ("offset beyond the address range", lambda c: c.read(["usr170000"])),
            ("value beyond 32 bits", lambda c: c.write({"usr5": 1 << 32})),
            ("program text that the controller would cut at the \u00d8", lambda c: c.upload(1, "O1", "G0 \u00d8\n")),
            ("program name with a slash", lambda c: c.upload(1, "a/b", "G0\n")),
            ("channel beyond the registered ones", lambda c: c.upload(2, "O1", "G0\n")),
            ("error file of channel index 9", lambda c: c.error_file(9)),
        ]
        self.sim("")
        with velmora.Controller(A) as c:
            for name, call in rows:
                with self.subTest(name):
                    self.assertRaises(ValueError, call, c)

    def test_refused_connect(self):
        with self.assertRaises(velmora.VelmoraError) as e:
            with velmora.Controller(REFUSED):
                pass
        self.assertEqual(e.exception.status, 7)

    def test_locked_channel_is_said_and_recovered(self):
        # Full DNC memory once: the library keeps the channel locked after it.
        self.sim("fault d:3=state:3:1")
        with velmora.Controller(A) as c:
            with self.assertRaises(velmora.LockedChannelError) as e:
                c.upload(1, "O7", PROGRAM, file_type=2)
            self.assertEqual((e.exception.status, e.exception.channel), (4, 1))
            self.assertEqual(c.locked_channels, {1: 4})
            # A second call says so at once instead of blocking on the lock.
            started = time.monotonic()
            self.assertRaises(velmora.LockedChannelError, c.upload, 1, "O7", PROGRAM)
            self.assertLess(time.monotonic() - started, 1)
            self.assertEqual(c.read(["usr5"]), [0])   # other calls are not affected
            c.recover()
            self.assertEqual(c.locked_channels, {})
            progress = []
            c.upload(1, "O7", PROGRAM, progress=lambda sent, total: progress.append((sent, total)))
            self.assertEqual(progress, [(399, len(PROGRAM)), (798, len(PROGRAM)), (len(PROGRAM), len(PROGRAM))])

    def test_endless_append_ends_at_disconnect(self):
        # Memory full for ever: append resends its chunk without end, until
        # another thread disconnects the controller.
        self.sim("fault d:2=state:3")
        with velmora.Controller(A) as c:
            lib, result = c.lib, {}
            self.assertEqual(lib.setTransFileType(2, 1, b"O8", c._id), 0)
            t = threading.Thread(target=lambda: result.setdefault("append", lib.append(b"x" * 1000, 1, c._id)))
            t.start()
            time.sleep(0.5)
            self.assertTrue(t.is_alive())
            lib.disconnect(c._id)
            t.join(2.5)
            self.assertFalse(t.is_alive())
            self.assertEqual(result["append"], 111)

    def test_remote_buffer_writer(self):
        self.sim("")
        with velmora.Controller(A) as c:
            with c.buffer(channel=1) as buf:
                self.assertEqual(buf.write(PROGRAM), len(PROGRAM))
                buf.flush()
                self.assertEqual(buf.state, 5)
            with c.buffer(mode="mdi") as mdi:
                self.assertRaises(ValueError, mdi.write, PROGRAM)
                mdi.write("G0 X1\n")

    def test_error_callback_and_parallel_controllers(self):
        self.sim("fault f:3=state:2", A)
        self.sim("var 1000005=5", B)
        seen = []
        results = {}
        with velmora.Controller(A) as a, velmora.Controller(B) as b:
            a.on_error(lambda cmd, state, detail: seen.append((state, detail)))
            self.assertRaises(velmora.VelmoraError, a.reset, 1)
            threads = [threading.Thread(target=lambda c=c: results.__setitem__(c.address, c.read(["usr5"] * 100)))
                       for c in (a, b)]
            for t in threads:
                t.start()
            for t in threads:
                t.join()
        self.assertEqual(seen, [(2, "program is runing.")])
        self.assertEqual(results, {A: [0] * 100, B: [5] * 100})


class DiagnosticsTest(unittest.TestCase):
    """Where the library's diagnostic lines go, in a fresh process each."""

    CHILD = """
import sys
sys.path.insert(0, sys.argv[1])
import velmora
velmora.load_library(quiet=sys.argv[3] == "quiet")
with velmora.Controller(sys.argv[2]) as c:
    c.debug(int(sys.argv[4]))
    c.watchdog()
    c.debug(0)
"""

    def test_where_lines_go(self):
        # (what the host sees, QT_LOGGING_RULES, quiet, mask, call line on stderr, call line in logs/)
        rows = [
            ("module default: silent everywhere", None, "quiet", 0, False, False),
            ("rules of the host win over the module's default", "default.debug=true", "quiet", 0, True, False),
            ("not quiet: the lines on stderr", None, "loud", 0, True, False),
            ("getErrorDeb(1): the lines in the hourly file, not on stderr", None, "loud", 1, False, True),
            ("QT_LOGGING_RULES off: no file either", "default.debug=false", "loud", 1, False, False),
        ]
        sim = Sim(A, "")
        self.addCleanup(sim.stop)
        for name, rules, quiet, mask, on_stderr, in_file in rows:
            with self.subTest(name):
                home = tempfile.mkdtemp()
                env = dict(os.environ)
                env.pop("QT_LOGGING_RULES", None)
                if rules:
                    env["QT_LOGGING_RULES"] = rules
                r = subprocess.run([sys.executable, "-c", self.CHILD, os.path.join(SOURCE, "python"), A, quiet,
                                    str(mask)], cwd=home, env=env, capture_output=True, text=True, timeout=30)
                self.assertEqual(r.returncode, 0, r.stderr)
                # Every client makes logs/ in the working directory.
                self.assertTrue(os.path.isdir(os.path.join(home, "logs")))
                logs = os.path.join(home, "logs")
                logged = ""
                for f in os.listdir(logs):
                    with open(os.path.join(logs, f)) as log:
                        logged += log.read()
                shutil.rmtree(home)
                self.assertEqual("CheckTcpWdt IN FUNCTION" in r.stderr, on_stderr, r.stderr)
                self.assertEqual("CheckTcpWdt IN FUNCTION" in logged, in_file, logged)


if __name__ == "__main__":
    unittest.main()
