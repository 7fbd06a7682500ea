# Starts the bexko daemon of the build tree for a test, on a free loopback port, with its own
# temporary HOME and XDG folders, and stops it again.

import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import unittest

BUILD_DIR = os.environ.get("BEXKO_BUILD_DIR") or os.path.abspath(
    os.path.join(os.path.dirname(__file__), "..", "..", "build"))
BEXKO = os.path.join(BUILD_DIR, "bin", "bexko")
BEXKO_CALL = os.path.join(BUILD_DIR, "bin", "bexko-call")
sys.path.insert(0, os.path.join(BUILD_DIR, "python"))


class Daemon:
    # The daemon under test; `fast` selects the engine's fast mode (no real-time pacing).

    def __init__(self, *args, fast=True):
        self.root = tempfile.mkdtemp(prefix="bexko-it-")
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("BEXKO_")}
        for name, sub in (("HOME", "home"), ("XDG_CONFIG_HOME", "config"),
                          ("XDG_DATA_HOME", "data"), ("XDG_CACHE_HOME", "cache"),
                          ("XDG_CONFIG_DIRS", "config-system"), ("XDG_DATA_DIRS", "data-system")):
            self.env[name] = os.path.join(self.root, sub)
            os.makedirs(self.env[name])
        if fast:
            self.env["BEXKO_ENGINE_FAST"] = "1"
        self.args = ["--listen", "127.0.0.1:0"] + list(args)
        self.log_path = os.path.join(self.root, "bexko.log")
        self.process = self.url = None

    def start(self, timeout=20.0):
        self._log = open(self.log_path, "wb")
        self.process = subprocess.Popen([BEXKO] + self.args, stdout=subprocess.PIPE,
                                        stderr=self._log, env=self.env)
        ready, _, _ = select.select([self.process.stdout], [], [], timeout)
        line = self.process.stdout.readline().decode() if ready else ""
        if not line.startswith("listening on "):
            self.stop()
            raise RuntimeError("bexko did not start: %r\n%s" % (line, self.log()))
        self.url = line[len("listening on "):].strip()
        return self

    def stop(self, sig=signal.SIGTERM, timeout=20.0):
        # Stops the daemon with `sig`; returns its exit status.
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(sig)
            try:
                self.process.wait(timeout)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process.stdout.close()
        self._log.close()
        return self.process.returncode

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as f:
            return f.read()

    def cleanup(self):
        self.stop()
        shutil.rmtree(self.root, ignore_errors=True)

    def call(self, *args, token=None):
        # Runs bexko-call against this daemon; returns the completed process.
        command = [sys.executable, BEXKO_CALL, "--url", self.url]
        command += ["--token", token] if token else []
        return subprocess.run(command + list(args), capture_output=True, text=True,
                              env=self.env, timeout=60)


class DaemonTestCase(unittest.TestCase):
    # One daemon for the whole class, started with DAEMON_ARGS; it must exit 0 on SIGTERM.

    DAEMON_ARGS = ()
    FAST = True

    @classmethod
    def setUpClass(cls):
        cls.daemon = Daemon(*cls.DAEMON_ARGS, fast=cls.FAST).start()

    @classmethod
    def tearDownClass(cls):
        status, log = cls.daemon.stop(), cls.daemon.log()
        cls.daemon.cleanup()
        if status != 0:
            raise AssertionError("bexko exited with %s\n%s" % (status, log))

    def client(self, **kwargs):
        from bexko import Client
        client = Client(self.daemon.url, **kwargs)
        self.addCleanup(client.close)
        return client


class Recorder:
    # Collects callback arguments and waits for a condition on them.

    def __init__(self):
        self.items = []
        self._cond = threading.Condition()

    def __call__(self, *args):
        with self._cond:
            self.items.append(args)
            self._cond.notify_all()

    def wait_for(self, predicate, timeout=20.0):
        with self._cond:
            return self._cond.wait_for(lambda: predicate(self.items), timeout)
