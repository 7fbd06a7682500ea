# Starts the bexko daemon of the build tree for a test, on a free loopback port, with its own
# temporary HOME, XDG and runtime folders, and stops it again; a sound server of its own for the
# tests that listen to what the daemon plays.

import array
import math
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

BUILD_DIR = os.environ.get("BEXKO_BUILD_DIR") or os.path.abspath(
    os.path.join(os.path.dirname(__file__), "..", "..", "build"))
BEXKO = os.path.join(BUILD_DIR, "bin", "bexko")
BEXKO_CALL = os.path.join(BUILD_DIR, "bin", "bexko-call")
sys.path.insert(0, os.path.join(BUILD_DIR, "python"))


def run_checked(command, **kwargs):
    # Runs a build or install step; fails the test with the step's output when it fails.
    result = subprocess.run(command, capture_output=True, text=True, timeout=600, **kwargs)
    if result.returncode != 0:
        raise AssertionError("%s exited with %d:\n%s\n%s" % (
            " ".join(command), result.returncode, result.stdout, result.stderr))
    return result


class Daemon:
    # The daemon under test; `fast` selects the engine's fast mode (no real-time pacing);
    # `program` is another bexko executable than the build tree's (an installed one).

    def __init__(self, *args, fast=True, auth=False, program=None):
        self.program = program or BEXKO
        self.root = tempfile.mkdtemp(prefix="bexko-it-")
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("BEXKO_")}
        for name, sub in (("HOME", "home"), ("XDG_CONFIG_HOME", "config"),
                          ("XDG_DATA_HOME", "data"), ("XDG_CACHE_HOME", "cache"),
                          ("XDG_CONFIG_DIRS", "config-system"), ("XDG_DATA_DIRS", "data-system"),
                          ("XDG_RUNTIME_DIR", "runtime")):
            self.env[name] = os.path.join(self.root, sub)
            os.makedirs(self.env[name], mode=0o700)
        # The sound server of the session is not the test's: a daemon plays only on the one
        # that a test names with PULSE_SERVER.
        self.env.pop("PULSE_SERVER", None)
        self.env.pop("PULSE_SINK", None)
        # The first run takes its language from the locale: the same one for every test.
        for name in ("LC_ALL", "LC_MESSAGES", "LANGUAGE"):
            self.env.pop(name, None)
        self.env["LANG"] = "C.UTF-8"
        if fast:
            self.env["BEXKO_ENGINE_FAST"] = "1"
        # Tests other than those of access run without a token, as on a trusted machine.
        self.args = ["--listen", "127.0.0.1:0"] + ([] if auth else ["--no-auth"]) + list(args)
        self.log_path = os.path.join(self.root, "bexko.log")
        self.process = self.url = None

    def start(self, timeout=20.0):
        self._log = open(self.log_path, "wb")
        self.process = subprocess.Popen([self.program] + self.args, stdout=subprocess.PIPE,
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

    def token_file(self):
        return os.path.join(self.env["XDG_RUNTIME_DIR"], "bexko", "token")

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
    AUTH = False

    @classmethod
    def setUpClass(cls):
        cls.daemon = Daemon(*cls.DAEMON_ARGS, fast=cls.FAST, auth=cls.AUTH).start()

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


class SoundServerUnavailable(Exception):
    pass


class SoundServer:
    # A sound server for one test alone: a null sink named SINK, whose monitor records what is
    # played, behind a socket in a temporary folder that is also its HOME and runtime folder, so
    # that it meets no session, no D-Bus and no user file. It runs as root too (it warns).
    # Should a test die without stopping it, it exits by itself once no client has been
    # connected for 20 s.

    SINK = "bexkotest"

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="bexko-sound-")
        self.socket = os.path.join(self.root, "native")
        self.address = "unix:" + self.socket
        self.env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "LANG": "C.UTF-8"}
        for name, sub in (("HOME", "home"), ("XDG_CONFIG_HOME", "config"),
                          ("XDG_RUNTIME_DIR", "runtime"), ("PULSE_RUNTIME_PATH", "runtime/pulse"),
                          ("PULSE_STATE_PATH", "state")):
            self.env[name] = os.path.join(self.root, sub)
            os.makedirs(self.env[name], mode=0o700)
        self.env["PULSE_SERVER"] = self.address
        self.log_path = os.path.join(self.root, "server.log")
        self.process = None

    def start(self, timeout=15.0):
        # Starts the server and waits until it answers; raises SoundServerUnavailable, with the
        # reason, when it cannot run here.
        if not shutil.which("pulseaudio") or not shutil.which("pactl"):
            raise SoundServerUnavailable("pulseaudio or pactl is not installed "
                                         "(scripts/install-deps.sh installs them)")
        self._log = open(self.log_path, "wb")
        self.process = subprocess.Popen(
            ["pulseaudio", "--daemonize=no", "--system=no", "--exit-idle-time=20", "-n",
             "--use-pid-file=no", "--log-target=stderr",
             "--load=module-null-sink sink_name=%s rate=22050" % self.SINK,
             "--load=module-native-protocol-unix auth-anonymous=1 socket=%s" % self.socket],
            stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log, env=self.env)
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                break
            if os.path.exists(self.socket) and subprocess.run(
                    ["pactl", "info"], env=self.env, capture_output=True, timeout=10).returncode == 0:
                return self
            time.sleep(0.1)
        reason = "exited with %s" % self.process.returncode if self.process.poll() is not None \
            else "did not answer within %g s" % timeout
        log = self.log()
        self.cleanup()
        raise SoundServerUnavailable("the sound server %s:\n%s" % (reason, log))

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as f:
            return f.read()

    def record(self, rate=22050):
        # Starts recording the sink's monitor, mono 16-bit at `rate`; returns a Recording.
        return Recording(self, rate)

    def cleanup(self):
        if self.process is not None and self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        if self.process is not None:
            self._log.close()
        shutil.rmtree(self.root, ignore_errors=True)


class Recording:
    # parec on the sink's monitor, writing raw samples to a file until stop().

    def __init__(self, server, rate):
        self.rate = rate
        fd, self.path = tempfile.mkstemp(prefix="recording-", suffix=".raw", dir=server.root)
        self._file = os.fdopen(fd, "wb")
        # Small fragments, so that what was played is in the file when parec is stopped.
        self.process = subprocess.Popen(
            ["parec", "--device=%s.monitor" % server.SINK, "--rate=%d" % rate, "--channels=1",
             "--format=s16le", "--latency-msec=20"],
            stdout=self._file, stderr=subprocess.PIPE, env=server.env)
        # The monitor of a running null sink delivers silence at once: wait for the first of it.
        deadline = time.monotonic() + 10
        while os.path.getsize(self.path) == 0 and time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError("parec exited: %s" % self.process.stderr.read().decode())
            time.sleep(0.02)

    def stop(self):
        # Stops recording; returns the samples.
        self.process.terminate()
        self.process.wait(10)
        self.process.stderr.close()
        self._file.close()
        samples = array.array("h")
        with open(self.path, "rb") as f:
            data = f.read()
        samples.frombytes(data[:len(data) // 2 * 2])
        return samples


def loudness(samples, rate, window_ms=20):
    # RMS of each window of `window_ms` in `samples` (16-bit).
    size = max(1, rate * window_ms // 1000)
    return [math.sqrt(sum(x * x for x in samples[i:i + size]) / size)
            for i in range(0, len(samples) - size + 1, size)]


def audible_span(samples, rate, threshold=100.0, window_ms=20):
    # Seconds from the first to the end of the last window louder than `threshold`, and the
    # RMS over that span; (0, 0) when nothing is.
    levels = loudness(samples, rate, window_ms)
    loud = [i for i, level in enumerate(levels) if level > threshold]
    if not loud:
        return 0.0, 0.0
    first, last = loud[0], loud[-1] + 1
    size = max(1, rate * window_ms // 1000)
    span = samples[first * size:last * size]
    return (last - first) * window_ms / 1000.0, math.sqrt(sum(x * x for x in span) / len(span))
