"""A distribution on loopback for the tests, and managers of it that are always let go."""

import os
import sys
import urllib.request
from pathlib import Path

import pytest

import tidalcrest.sync as tc

ROOT = Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tests/support"))
from origin_server import OriginServer  # noqa: E402

ORIGIN = os.environ.get("TIDALCREST_ORIGIN") or str(ROOT / "build/release/tools/tidalcrest-origin")


class Origin(OriginServer):
    def __init__(self, directory, *recipe):
        super().__init__(ORIGIN, directory, *recipe)
        self.url = self.addresses["server_url"]
        self.token = Path(self.addresses["token_file"]).read_text().strip()
        self.secret = bytes.fromhex(Path(self.addresses["wallet_secret_file"]).read_text().strip())

    def fault(self, line):
        """One fault, in the language of the serve command."""
        request = urllib.request.Request(self.url + "/control/faults", data=line.encode(), method="POST",
                                         headers={"Authorization": "Bearer " + self.token})
        urllib.request.urlopen(request, timeout=10).close()

    def options(self, **changes):
        return {"server_url": self.url, "get_token": lambda: self.token,
                "get_wallet_secret": lambda: self.secret, **changes}


@pytest.fixture
def origin(tmp_path_factory):
    server = Origin(tmp_path_factory.mktemp("origin"), "--features", "20", "--found-signals", "3",
                    "--found-strategies", "2")
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
