"""python/velmora.py against simulated controllers, one row per case."""
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

import simulators

sys.path.insert(0, os.path.join(simulators.SOURCE, "python"))
import velmora  # noqa: E402

A, B, REFUSED = "127.0.0.160", "127.0.0.161", "127.0.0.162"
FAULTY, LOCKING, FULL = "127.0.0.163", "127.0.0.164", "127.0.0.165"
SCENARIOS = {
    A: "var 1000005=42\nvar 1040003=-7\nvar 2010004=9\nvar 1032049=0x2\nrunning 2=O77\nerror-file 0=E1 spindle\\nE2 door\n",
    B: "var 1000005=5\n",
    FAULTY: "fault B:3=silence\nfault D:2=error\nerror-file-stuck\nfault f:3=state:2\nfault d:2=error:0:1\n",
    LOCKING: "fault d:3=state:3:1\n",   # full DNC memory once: the library keeps the channel locked after it
    FULL: "fault d:2=state:3\n",        # memory full for ever: append resends its piece without end
}
PROGRAM = "".join("N%04d G1 X%d\n" % (i, i) for i in range(80))   # three transfer pieces


def setUpModule():
    simulators.start(SCENARIOS, unittest.addModuleCleanup)


class PythonModuleTest(unittest.TestCase):
    def test_calls(self):
        # (what the host sees, controller, call on it connected, expected result or the status of the VelmoraError)
        rows = [
            ("read by address text and number", A, lambda c: c.read(["usr5", "reg3", 1000006]), [42, -7, 0]),
            ("address texts follow the channel", A, lambda c: c.read(["sys4"], channel=2), [9]),
            ("write a 32-bit pattern, read it back signed", A,
             lambda c: (c.write({"usr7": 0xFFFFFFFF, 1000008: -2}), c.read(["usr7", 1000008]))[1], [-1, -2]),
            ("read bits", A, lambda c: c.read_bits(1, 0, [0, 33]), [0, 1]),
            ("running program by name", A, lambda c: c.running_program(2), "O77"),
            ("watchdog", A, lambda c: c.watchdog(), None),
            ("library version as text", A, lambda c: velmora.library_version().split(".")[:1], ["1"]),
            ("error file as status and text", A, lambda c: c.error_file(), velmora.ErrorFile(0, "E1 spindle\nE2 door")),
            ("upload then start the program", A,
             lambda c: (c.upload(1, "O5", PROGRAM), c.start(1, "O5"), c.running_program(1))[2], "O5"),
            ("silent read -> 111 with its words", FAULTY, lambda c: c.read(["usr5", "usr6", "usr7"]), 111),
            ("refused write -> 3", FAULTY, lambda c: c.write({"usr5": 1, "usr6": 2}), 3),
            ("reset 0 -> the library's parameter error", A, lambda c: c.reset(0), 1),
            ("start while a program runs -> 3", A, lambda c: c.start(2, "O1"), 3),
            ("error file never written -> status 8 and the library's words", FAULTY, lambda c: c.error_file(),
             velmora.ErrorFile(8, "timeout get curErrorerror file")),
            ("upload refused on a later piece -> 3, channel free", FAULTY, lambda c: c.upload(1, "O6", PROGRAM), 3),
        ]
        for name, address, call, expected in rows:
            with self.subTest(name), velmora.Controller(address) as c:
                if isinstance(expected, int):
                    with self.assertRaises(velmora.VelmoraError) as e:
                        call(c)
                    self.assertEqual((e.exception.status, e.exception.text), (expected, velmora.status_text(expected)))
                    self.assertFalse(c.locked_channels)
                else:
                    self.assertEqual(call(c), expected)

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
        with velmora.Controller(A) as c:
            for name, call in rows:
                with self.subTest(name):
                    self.assertRaises(ValueError, call, c)

    def test_refused_connect(self):
        with self.assertRaises(velmora.VelmoraError) as e:
            velmora.Controller(REFUSED).connect()
        self.assertEqual(e.exception.status, 7)

    def test_locked_channel_is_said_and_recovered(self):
        with velmora.Controller(LOCKING) as c:
            with self.assertRaises(velmora.LockedChannelError) as e:
                c.upload(1, "O7", PROGRAM, file_type=2)
            self.assertEqual((e.exception.status, e.exception.channel, c.locked_channels), (4, 1, {1: 4}))
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
        with velmora.Controller(FULL) as c, ThreadPoolExecutor() as pool:
            self.assertEqual(c.lib.setTransFileType(2, 1, b"O8", c._id), 0)
            append = pool.submit(c.lib.append, b"x" * 1000, 1, c._id)
            time.sleep(0.5)
            self.assertFalse(append.done())
            c.lib.disconnect(c._id)   # from another thread: the append gives up
            self.assertEqual(append.result(timeout=2.5), 111)

    def test_remote_buffer_writer(self):
        with velmora.Controller(A) as c:
            with c.buffer(channel=1) as buf:
                self.assertEqual(buf.write(PROGRAM), len(PROGRAM))
                buf.flush()
                self.assertEqual(buf.state, 5)
            with c.buffer(mode="mdi") as mdi:
                self.assertRaises(ValueError, mdi.write, PROGRAM)
                mdi.write("G0 X1\n")

    def test_error_callback_and_parallel_controllers(self):
        seen = []
        with velmora.Controller(FAULTY) as a, velmora.Controller(B) as b, ThreadPoolExecutor() as pool:
            a.on_error(lambda cmd, state, detail: seen.append((state, detail)))
            self.assertRaises(velmora.VelmoraError, a.reset, 1)
            reads = list(pool.map(lambda c: c.read(["usr5"] * 100), (a, b)))
        self.assertEqual((seen, reads), ([(2, "program is runing.")], [[0] * 100, [5] * 100]))


class DiagnosticsTest(unittest.TestCase):
    """Where the library's diagnostic lines go, in a fresh process each."""
    CHILD = ("import sys; sys.path.insert(0, sys.argv[1]); import velmora\n"
             "velmora.load_library(quiet=sys.argv[3] == 'quiet')\n"
             "with velmora.Controller(sys.argv[2]) as c:\n    c.debug(int(sys.argv[4])); c.watchdog(); c.debug(0)\n")

    def test_where_lines_go(self):
        # (what the host sees, QT_LOGGING_RULES, quiet, mask, the watchdog's line on stderr, in logs/)
        rows = [
            ("module default: silent everywhere", None, "quiet", 0, False, False),
            ("rules of the host win over the module's default", "default.debug=true", "quiet", 0, True, False),
            ("not quiet: the lines on stderr", None, "loud", 0, True, False),
            ("getErrorDeb(1): the lines in the hourly file, not on stderr", None, "loud", 1, False, True),
            ("QT_LOGGING_RULES off: no file either", "default.debug=false", "loud", 1, False, False),
        ]
        for name, rules, quiet, mask, on_stderr, in_file in rows:
            with self.subTest(name), tempfile.TemporaryDirectory() as home:
                env = {k: v for k, v in os.environ.items() if k != "QT_LOGGING_RULES"}
                env.update({"QT_LOGGING_RULES": rules} if rules else {})
                r = subprocess.run([sys.executable, "-c", self.CHILD, os.path.join(simulators.SOURCE, "python"),
                                    A, quiet, str(mask)], cwd=home, env=env, capture_output=True, text=True,
                                   timeout=30)
                self.assertEqual(r.returncode, 0, r.stderr)
                # Every client makes logs/ in the working directory.
                logged = "".join(f.read_text() for f in pathlib.Path(home, "logs").iterdir())
                self.assertEqual("CheckTcpWdt IN FUNCTION" in r.stderr, on_stderr, r.stderr)
                self.assertEqual("CheckTcpWdt IN FUNCTION" in logged, in_file, logged)


if __name__ == "__main__":
    unittest.main()
