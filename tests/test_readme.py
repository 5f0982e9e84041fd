"""The README's five-minute quick start, run as written (on this test's own address)."""
import contextlib
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

import simulators

ADDRESS = "127.0.0.170"


class ReadmeTest(unittest.TestCase):
    def test_quick_start(self):
        with open(simulators.SOURCE + "/README.md", encoding="utf-8") as f:
            text = f.read()
        script = re.search(r"```sh\n(.*?)```", text[text.index("## Five minutes with a simulated controller"):], re.S)[1]
        tmp = self.enterContext(tempfile.TemporaryDirectory())
        script = (script.replace("127.0.0.2", ADDRESS).replace("/tmp/", tmp + "/")
                  .replace("build/", simulators.BINARY + "/"))
        tshark = shutil.which("tshark") or os.environ.get("CI") == "true"   # CI must have it
        script = script if tshark else script.replace("tshark ", ": ")      # without it the rest still runs
        # In a process group of its own, killed whatever happens, so a failed
        # or timed-out run leaves no simulator behind on the address.
        p = subprocess.Popen(["bash", "-e", "-c", script], cwd=simulators.SOURCE, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True, start_new_session=True)
        try:
            out, err = p.communicate(timeout=120)
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(p.pid, signal.SIGKILL)
            p.wait()
        self.assertEqual(p.returncode, 0, err)
        # What the README's comments promise, in order.
        expected = ["velmora-sim listening on %s:60000" % ADDRESS, "cnc\tusr5\tusr6", ADDRESS + "\t42\t0", ADDRESS + "\tok",
                    ADDRESS + "\tok\t14 bytes", ADDRESS + "\tok", ADDRESS + "\tO1", "[42, -7]", "O1", "velmora-sim stopped"]
        lines = out.splitlines()
        self.assertEqual(lines[:len(expected)], expected, out)
        if tshark:
            decoded = "\n".join(lines[len(expected):])
            self.assertIn("Read variables reply: 1000005=42 1000006=0", decoded)
            self.assertIn("Program control cycle start reply: state 0 (started)", decoded)


if __name__ == "__main__":
    unittest.main()
