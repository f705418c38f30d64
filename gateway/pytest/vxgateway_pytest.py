# SPDX-License-Identifier: MIT
"""pytest plugin for tests of daemons in a virtual gateway: pytest -p vxgateway_pytest

Run pytest itself in the gateway:

    vxgateway run --show "$PWD" -- python3 -m pytest -p vxgateway_pytest

The fixture `gateway` moves the gateway and shows what programs did:

    def test_alarm(gateway):
        daemon = gateway.start("./alarmd")
        gateway("input", 1, 1)
        gateway.wait("output", 1, 1, timeout=5)
        assert gateway.query("outputs")["levels"][0] == 1
"""
import json
import subprocess

import pytest


class GatewayError(AssertionError):
    """An order was refused, or a condition did not hold in time. `status` is that of gw."""

    def __init__(self, words, result):
        super().__init__(f"{' '.join(words)}: {result.stderr.strip() or result.returncode}")
        self.status = result.returncode


class Gateway:
    def __init__(self):
        self._programs = []
        self.began = self("now").strip()

    def __call__(self, *words):
        """Says an order to the gateway; what it prints is the result. Bytes that are not UTF-8 are in it as os.fsdecode()
        gives them."""
        words = [str(word) for word in words]
        result = subprocess.run(["gw", *words], capture_output=True, encoding="utf-8", errors="surrogateescape",
                                check=False)
        if result.returncode != 0:
            raise GatewayError(words, result)
        return result.stdout

    def query(self, *words):
        """What `gw WORDS --json` shows, as Python values."""
        return json.loads(self(*words, "--json"))

    def wait(self, *condition, timeout=10, since=None):
        """Waits for a condition of `gw wait`; what happened since this test began counts, or since another time of `gw
        now`, of which 0 is the gateway's start."""
        self("wait", *condition, "--for", f"{float(timeout):.3f}", "--since", self.began if since is None else since)

    def start(self, *command):
        """Starts a program that is ended with the test."""
        program = subprocess.Popen([str(word) for word in command])
        self._programs.append(program)
        return program

    def end(self):
        """Ends the programs of start() with SIGTERM, after 5 seconds with SIGKILL."""
        for program in self._programs:
            program.terminate()
        for program in self._programs:
            try:
                program.wait(5)
            except subprocess.TimeoutExpired:
                program.kill()
                program.wait()


@pytest.fixture
def gateway():
    running = Gateway()
    yield running
    running.end()
