"""A distribution built for a benchmark: data served by nginx, the API by the origin tool."""

import contextlib
import json
import shutil
import socket
import subprocess
import time
import urllib.request
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
ORIGIN = ROOT / "build/release/tools/tidalcrest-origin"
CLIENT = ROOT / "build/release/cli/tidalcrest-sync"

NGINX_CONFIG = """
daemon off; worker_processes 2; pid {prefix}/pid; error_log {prefix}/error.log; {user}
events {{ worker_connections 512; }}
http {{
  access_log off; sendfile on; tcp_nopush on; keepalive_requests 1000000;
  client_body_temp_path {prefix}/body; proxy_temp_path {prefix}/proxy; fastcgi_temp_path {prefix}/fastcgi;
  uwsgi_temp_path {prefix}/uwsgi; scgi_temp_path {prefix}/scgi;
  server {{ listen 127.0.0.1:{port}; root {tree}; }}
}}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(ready, what):
    for _ in range(400):
        if ready():
            return
        time.sleep(0.05)
    raise SystemExit(f"{what} did not start")


def accepts(port):
    with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 0.2):
        return True
    return False


class Distribution:
    def __init__(self, work, recipe):
        self.work = work
        self.tree = work / "distribution"
        self.port = free_port()
        self.data_url = f"http://127.0.0.1:{self.port}"
        flags = ["--found-signals", "2", "--found-strategies", "1", "--data-base-url", self.data_url]
        subprocess.run([ORIGIN, "build", self.tree, *flags, *recipe], check=True, stdout=subprocess.DEVNULL)
        self.stack = contextlib.ExitStack()

    def __enter__(self):
        with contextlib.ExitStack() as starting:
            self.stack = starting
            self._serve_data()
            self._serve_api()
            self.stack = starting.pop_all()
        return self

    def __exit__(self, *failure):
        self.stack.close()
        shutil.rmtree(self.tree, ignore_errors=True)

    def start(self, command):
        """Runs a server until the end of the benchmark."""
        server = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.stack.callback(lambda: (server.terminate(), server.wait()))

    def _serve_data(self):
        prefix = self.work / "nginx"
        prefix.mkdir()
        user = "user root;" if Path("/proc/self").owner() == "root" else ""
        config = prefix / "nginx.conf"
        config.write_text(NGINX_CONFIG.format(prefix=prefix, port=self.port, tree=self.tree, user=user))
        self.start(["nginx", "-p", prefix, "-c", config])
        wait_until(lambda: accepts(self.port), "nginx")

    def _serve_api(self):
        ready_file = self.work / "ready.json"
        self.start([ORIGIN, "serve", self.tree, "--api-port", "0", "--data-base-url", self.data_url, "--ready-file",
                    ready_file])
        wait_until(ready_file.exists, "the origin")
        self.ready = json.loads(ready_file.read_text())

    def evolve(self, *flags):
        subprocess.run([ORIGIN, "evolve", self.tree, *flags], check=True, stdout=subprocess.DEVNULL)

    def manifest(self):
        token = Path(self.ready["token_file"]).read_text().strip()
        request = urllib.request.Request(self.ready["server_url"] + "/data/manifest",
                                         headers={"Authorization": "Bearer " + token})
        with urllib.request.urlopen(request) as answer:
            return json.load(answer)

    def release(self, manifest):
        """The directory that a manifest's files lie in."""
        return self.tree / manifest["base_url"][len(self.data_url) + 1:]

    def sync(self, data):
        return [CLIENT, "sync", "--json", "--data-dir", data, "--server-url", self.ready["server_url"],
                "--token-file", self.ready["token_file"], "--wallet-secret-file", self.ready["wallet_secret_file"]]
