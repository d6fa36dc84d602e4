"""A distribution that is built, and served on loopback for as long as its object lives."""

import json
import subprocess
import time


class OriginServer:
    def __init__(self, program, directory, *recipe):
        self._program = program
        self.tree = directory / "tree"
        self._run("build", *recipe)
        ready, log = directory / "ready.json", directory / "log"
        with log.open("w") as output:
            self._process = subprocess.Popen([program, "serve", self.tree, "--api-port", "0", "--data-port", "0",
                                              "--ready-file", ready], stdout=output, stderr=output)
        deadline = time.monotonic() + 20
        while not (ready.exists() and ready.stat().st_size):
            if self._process.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("the origin did not come up: " + log.read_text())
            time.sleep(0.02)
        self.addresses = json.loads(ready.read_text())

    def evolve(self, *arguments):
        self._run("evolve", *arguments)
        time.sleep(0.05)  # the server looks at the tree again for each request; its state file is in place now

    def _run(self, command, *arguments):
        subprocess.run([self._program, command, self.tree, *arguments], check=True, timeout=60,
                       stdout=subprocess.DEVNULL)

    def close(self):
        self._process.terminate()
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
