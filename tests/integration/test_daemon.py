# The daemon itself (its signals, usage errors, files and log), its access token, and bexko-call
# from the shell.

import os
import signal
import subprocess
import sys
import time
import unittest

import websocket

from bexkodaemon import BEXKO, BEXKO_CALL, Daemon, DaemonTestCase

TOKEN = "integration-s3cret"
OK, CALL_ERROR, USAGE, CONNECTION = 0, 1, 2, 3


class DaemonLifeCycle(unittest.TestCase):

    def daemon(self, *args, **kwargs):
        daemon = Daemon(*args, **kwargs)
        self.addCleanup(daemon.cleanup)
        return daemon

    def test_each_signal_stops_it_cleanly_even_while_it_speaks(self):
        from bexko import BexkoConnectionError, Client
        for sig in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=sig.name):
                daemon = self.daemon("--log-level", "*=warning,bexko.daemon=info", fast=False)
                log_file = os.path.join(daemon.root, "records.log")
                daemon.args += ["--log-file", log_file]
                self.assertRegex(daemon.start().url, r"^ws://127\.0\.0\.1:[1-9][0-9]*$")
                client = Client(daemon.url)
                self.addCleanup(client.close)
                client.call("ZRPreferenceManager", "setValue", "com.example.test", "key", "value")
                self.assertIsInstance(client.post("ZRTextToSpeech", "say", "A sentence long "
                                                  "enough to be cut short by the stop."), int)
                self.assertEqual(daemon.stop(sig), 0)
                with self.assertRaises(BexkoConnectionError):
                    client.modules()
                # Records go to stderr and to the log file, as the level rules admit them.
                stopping = "info bexko.daemon main: received %s, stopping" % sig.name
                with open(log_file) as f:
                    records = f.read()
                for text in (daemon.log(), records):
                    self.assertIn(stopping, text)
                    self.assertNotIn("bexko.gateway", text)
                # Its files are in the XDG folders, none in HOME.
                self.assertTrue(os.listdir(os.path.join(daemon.env["XDG_DATA_HOME"], "bexko")))
                self.assertEqual(os.listdir(daemon.env["HOME"]), [])

    def test_a_usage_error_ends_it_before_it_listens(self):
        busy = self.daemon("--no-modules").start()
        cases = [
            (("--log-level", "*=loudest", "--listen", "127.0.0.1:0"), 2, "loudest"),
            (("--listen", "127.0.0.1:0", "/nonexistent/libnothing.so"), 1,
             "cannot load /nonexistent/libnothing.so"),
            (("--listen", "0.0.0.0:0", "--no-modules"), 1, "needs an access token"),
            (("--listen", busy.url[len("ws://"):], "--no-modules"), 1, "cannot listen"),
        ]
        for args, code, message in cases:
            with self.subTest(args=args):
                result = subprocess.run([BEXKO] + list(args), capture_output=True, text=True,
                                        env=busy.env, timeout=30)
                self.assertEqual((result.returncode, result.stdout), (code, ""), result.stderr)
                self.assertIn(message, result.stderr)


class TokenProtected(DaemonTestCase):
    DAEMON_ARGS = ("--token", TOKEN)

    def test_a_connection_without_the_token_is_refused(self):
        for url in (self.daemon.url, self.daemon.url + "/?token=guess"):
            with self.assertRaises(websocket.WebSocketBadStatusException) as caught:
                websocket.create_connection(url, timeout=10)
            self.assertEqual(caught.exception.status_code, 401)
        refused = self.daemon.call("modules")
        self.assertEqual(refused.returncode, CONNECTION, refused.stderr)
        self.assertIn("ZRTextToSpeech", self.client(token=TOKEN).modules())

    def test_bexko_call_prints_results_and_exits_with_a_code_scripts_can_use(self):
        cases = [  # stdout is matched when the call succeeds, stderr otherwise
            (("modules",), OK, r"\bZRTextToSpeech\b"),
            (("call", "ZRTextToSpeech.setVolume", "0.25"), OK, r"^null$"),
            (("call", "ZRTextToSpeech.getVolume"), OK, r"^0\.25$"),
            (("post", "--wait", "ZRTextToSpeech.getVolume"), OK, r"^0\.25$"),
            (("post", "ZRTextToSpeech.say", "Posted"), OK, r"^[1-9][0-9]*$"),
            (("stop", "ZRTextToSpeech", "1"), OK, r"^$"),
            (("describe", "ZRTextToSpeech"), OK, r"sayToFile\(pStringToSay, pFileName\)"),
            (("call", "ZRTextToSpeech.setLanguage", "Klingon"), CALL_ERROR, "not"),
            (("call", "ZRNoSuchModule.say", "x"), CALL_ERROR, "no module"),
            (("describe", "ZRNoSuchModule"), CALL_ERROR, "no module"),
            (("call", "say"), USAGE, "MODULE.METHOD"),
            (("frobnicate",), USAGE, "invalid choice"),
            (("stop", "ZRTextToSpeech", "not-a-number"), USAGE, "invalid int"),
        ]
        for args, code, output in cases:
            with self.subTest(args=args):
                result = self.daemon.call(*args, token=TOKEN)
                self.assertEqual(result.returncode, code, result.stderr)
                self.assertRegex(result.stdout.strip() if code == OK else result.stderr, output)

    def test_bexko_call_watch_prints_each_raise(self):
        watcher = subprocess.Popen(
            [sys.executable, BEXKO_CALL, "--url", self.daemon.url, "--token", TOKEN, "watch",
             "--count", "2", "Test/Watched"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, env=self.daemon.env)
        self.addCleanup(watcher.kill)
        # Raised until the watcher has subscribed and seen two values.
        client = self.client(token=TOKEN)
        for value in range(1, 600):
            if watcher.poll() is not None:
                break
            client.call("ZRMemory", "raiseEvent", "Test/Watched", value)
            time.sleep(0.1)
        out, err = watcher.communicate(timeout=10)
        self.assertEqual(watcher.returncode, OK, err)
        (key, first), (_, second) = (line.split(" ", 1) for line in out.splitlines())
        self.assertEqual((key, int(second)), ("Test/Watched", int(first) + 1))


if __name__ == "__main__":
    unittest.main()
