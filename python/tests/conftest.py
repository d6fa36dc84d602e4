"""A distribution on loopback for the tests, and managers of it that are always let go."""

import json
import os
import subprocess
import time
import urllib.request
from pathlib import Path

import pytest

import tidalcrest.sync as tc

ROOT = Path(__file__).resolve().parents[2]
ORIGIN = os.environ.get("TIDALCREST_ORIGIN") or str(ROOT / "build/release/tools/tidalcrest-origin")


class Origin:
    """A built tree and the server on it."""

    def __init__(self, root, *recipe):
        self.tree = root / "origin"
        self._log = root / "origin.log"
        self._run("build", self.tree, *recipe)
        self._server = self._serve(root / "ready.json")

    def _run(self, command, *arguments):
        subprocess.run([ORIGIN, command, *map(str, arguments)], check=True, stdout=subprocess.DEVNULL, timeout=60)

    def _serve(self, ready_file):
        with self._log.open("w") as log:
            server = subprocess.Popen([ORIGIN, "serve", str(self.tree), "--api-port", "0", "--data-port", "0",
                                       "--ready-file", str(ready_file)], stdout=log, stderr=log)
        deadline = time.monotonic() + 20
        while not (ready_file.exists() and ready_file.read_text().strip()):
            if server.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("the origin did not come up: " + self._log.read_text())
            time.sleep(0.02)
        ready = json.loads(ready_file.read_text())
        self.url = ready["server_url"]
        self.token = Path(ready["token_file"]).read_text().strip()
        self.secret = bytes.fromhex(Path(ready["wallet_secret_file"]).read_text().strip())
        return server

    def evolve(self, *flags):
        self._run("evolve", self.tree, *flags)

    def fault(self, line):
        """One fault, in the language of the serve command."""
        request = urllib.request.Request(self.url + "/control/faults", data=line.encode(), method="POST",
                                         headers={"Authorization": "Bearer " + self.token})
        urllib.request.urlopen(request, timeout=10).close()

    def options(self, **changes):
        return {"server_url": self.url, "get_token": lambda: self.token,
                "get_wallet_secret": lambda: self.secret, **changes}

    def close(self):
        self._server.terminate()
        self._server.wait(timeout=20)


@pytest.fixture
def origin(tmp_path):
    server = Origin(tmp_path, "--features", "20", "--found-signals", "3", "--found-strategies", "2")
    yield server
    server.close()


@pytest.fixture
def data_dir(tmp_path):
    directory = tmp_path / "data"
    directory.mkdir()
    return directory


@pytest.fixture
def make_manager(origin, data_dir):
    managers = []

    def make(**changes):
        managers.append(tc.SyncManager(data_dir, **origin.options(**changes)))
        return managers[-1]

    yield make
    for manager in managers:
        manager.stop()


@pytest.fixture
def manager(make_manager):
    return make_manager()
