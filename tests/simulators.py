"""The tool tests' one fixture: velmora-sim processes started from scenario text, once per module or class."""
import os
import signal
import subprocess
import tempfile

SOURCE = os.environ.get("VELMORA_SOURCE_DIR", os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
BINARY = os.environ.get("VELMORA_BINARY_DIR", os.path.join(SOURCE, "build"))


class Simulator:
    """velmora-sim on `address` with a scenario and more options; up once it said it listens."""

    def __init__(self, address, scenario="", *options):
        fd, self.scenario = tempfile.mkstemp(suffix=".scenario")
        with os.fdopen(fd, "w") as f:
            f.write(scenario)
        self.proc = subprocess.Popen([os.path.join(BINARY, "sim", "velmora-sim"), "--address", address, "--quiet",
                                      "--scenario", self.scenario, *options], stdout=subprocess.PIPE, text=True)
        line = self.proc.stdout.readline()
        if "listening" not in line:
            self.stop()
            raise RuntimeError("velmora-sim did not start on %s: %r" % (address, line))

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        self.proc.communicate(timeout=5)
        os.unlink(self.scenario)


def start(scenarios, cleanup):
    """One simulator per address -> scenario, stopped by cleanup (unittest's addModuleCleanup, addClassCleanup)."""
    for address, scenario in scenarios.items():
        cleanup(Simulator(address, scenario).stop)
