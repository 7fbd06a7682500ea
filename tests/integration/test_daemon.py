"""The daemon itself: its options, its ready line, its files and its clean stop."""

import os
import signal
import subprocess
import unittest

from bexkodaemon import BEXKO, Daemon


class DaemonLifeCycle(unittest.TestCase):

    def daemon(self, *args, **kwargs):
        daemon = Daemon(*args, **kwargs)
        self.addCleanup(daemon.cleanup)
        return daemon

    def test_help_explains_every_option(self):
        result = subprocess.run([BEXKO, "--help"], capture_output=True, text=True, timeout=30)
        self.assertEqual(result.returncode, 0)
        for option in ("--listen", "--token", "--log-level", "--log-file", "--no-modules",
                       "--max-message-bytes", "libraries", "BEXKO_TOKEN", "BEXKO_LOG_LEVEL",
                       "listening on ws://", "XDG_CONFIG_HOME", "XDG_DATA_HOME"):
            self.assertIn(option, result.stdout)

    def test_prints_one_ready_line_and_stops_cleanly_on_each_signal(self):
        for sig in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=sig):
                daemon = self.daemon().start()
                self.assertRegex(daemon.url, r"^ws://127\.0\.0\.1:[0-9]+$")
                self.assertNotEqual(daemon.url, "ws://127.0.0.1:0")
                from bexko import Client
                client = Client(daemon.url)
                self.assertIn("ZRTextToSpeech", client.modules())
                self.assertEqual(daemon.stop(sig), 0)
                self.assertTrue(client.closed or self._closes(client))
                self.assertEqual(daemon.process.stdout.closed, True)
                self.assertIn("stopping", daemon.log())

    def _closes(self, client):
        from bexko import BexkoConnectionError
        try:
            client.modules()
        except BexkoConnectionError:
            return True
        return False

    def test_stopping_while_a_say_is_running(self):
        daemon = self.daemon(fast=False).start()
        from bexko import Client
        client = Client(daemon.url)
        call_id = client.post("ZRTextToSpeech", "say",
                              "A sentence long enough to be cut short by the stop of the host.")
        self.assertIsInstance(call_id, int)
        self.assertEqual(daemon.stop(signal.SIGTERM), 0)

    def test_log_level_and_log_file(self):
        daemon = self.daemon("--log-level", "*=warning,bexko.gateway=info")
        log_file = os.path.join(daemon.root, "records.log")
        daemon.args += ["--log-file", log_file]
        daemon.start()
        self.assertEqual(daemon.stop(), 0)
        with open(log_file) as f:
            records = f.read()
        self.assertIn("bexko.gateway", records)
        self.assertNotIn("info bexko.daemon", records)

    def test_a_bad_log_level_is_a_usage_error(self):
        result = subprocess.run([BEXKO, "--log-level", "*=loudest", "--listen", "127.0.0.1:0"],
                                capture_output=True, text=True, timeout=30)
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stdout, "")

    def test_a_missing_module_library_is_an_error(self):
        daemon = self.daemon("/nonexistent/libnothing.so")
        result = subprocess.run([BEXKO, "--listen", "127.0.0.1:0"] + daemon.args,
                                capture_output=True, text=True, env=daemon.env, timeout=30)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout, "")
        self.assertIn("cannot load /nonexistent/libnothing.so", result.stderr)

    def test_files_go_to_the_xdg_folders(self):
        daemon = self.daemon().start()
        from bexko import Client
        client = Client(daemon.url)
        client.call("ZRPreferenceManager", "setValue", "com.example.test", "key", "value")
        client.close()
        self.assertEqual(daemon.stop(), 0)
        data = os.path.join(daemon.env["XDG_DATA_HOME"], "bexko")
        self.assertTrue(os.path.isdir(data), os.listdir(daemon.env["XDG_DATA_HOME"]))
        self.assertTrue(os.listdir(data))
        self.assertFalse(os.listdir(daemon.env["HOME"]))

    def test_the_port_is_reported_busy(self):
        first = self.daemon().start()
        port = first.url.rsplit(":", 1)[1]
        second = self.daemon()
        result = subprocess.run([BEXKO, "--listen", "127.0.0.1:" + port, "--no-modules"],
                                capture_output=True, text=True, env=second.env, timeout=30)
        self.assertEqual(result.returncode, 1)
        self.assertIn("cannot listen", result.stderr)


if __name__ == "__main__":
    unittest.main()
