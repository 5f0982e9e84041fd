"""The README's five-minute quick start, run as written (on this test's own address)."""
import os
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

SOURCE = os.environ.get("VELMORA_SOURCE_DIR", os.path.join(os.path.dirname(__file__), ".."))
BINARY = os.environ.get("VELMORA_BINARY_DIR", os.path.join(SOURCE, "build"))
ADDRESS = "127.0.0.170"


def quick_start():
    with open(os.path.join(SOURCE, "README.md"), encoding="utf-8") as f:
        text = f.read()
    section = text[text.index("## Five minutes with a simulated controller"):]
    return re.search(r"```sh\n(.*?)```", section, re.S).group(1)


class ReadmeTest(unittest.TestCase):
    def test_quick_start(self):
        tmp = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, tmp, True)
        script = (quick_start().replace("127.0.0.2", ADDRESS).replace("/tmp/", tmp + "/")
                  .replace("build/", BINARY + "/"))
        if shutil.which("tshark") is None and os.environ.get("CI") != "true":
            script = script.replace("tshark ", ": ")   # the rest still runs
        # In a process group of its own, killed whatever happens, so a failed
        # or timed-out run leaves no simulator behind on the address.
        p = subprocess.Popen(["bash", "-e", "-c", script], cwd=SOURCE, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True, start_new_session=True)
        try:
            out, err = p.communicate(timeout=120)
        finally:
            try:
                os.killpg(p.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            p.wait()
        self.assertEqual(p.returncode, 0, err)
        # What the README's comments promise, in order.
        expected = ["velmora-sim listening on %s:60000" % ADDRESS, "cnc\tusr5\tusr6", ADDRESS + "\t42\t0", ADDRESS + "\tok", ADDRESS + "\tok\t14 bytes",
                    ADDRESS + "\tok", ADDRESS + "\tO1", "[42, -7]", "O1",
                    "velmora-sim stopped"]
        lines = out.splitlines()
        self.assertEqual(lines[:len(expected)], expected, out)
        if shutil.which("tshark"):
            decoded = "\n".join(lines[len(expected):])
            self.assertIn("Read variables reply: 1000005=42 1000006=0", decoded)
            self.assertIn("Program control cycle start reply: state 0 (started)", decoded)


if __name__ == "__main__":
    unittest.main()
