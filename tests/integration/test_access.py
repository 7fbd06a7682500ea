# Access by default: every connection presents a token that the daemon makes at start and
# leaves where the clients of its account find it, and only there.

import os
import stat
import subprocess
import sys
import unittest

import websocket

from bexkodaemon import BEXKO_CALL, Daemon, DaemonTestCase


class AccessByDefault(DaemonTestCase):
    AUTH = True

    def test_the_token_is_made_at_start_and_kept_for_this_account_only(self):
        path = self.daemon.token_file()
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        self.assertEqual(stat.S_IMODE(os.stat(os.path.dirname(path)).st_mode), 0o700)
        with open(path) as f:
            token = f.read().strip()
        self.assertRegex(token, r"^[0-9a-f]{64}$")
        # The log says where it is and gives a ready URL; the one line on stdout is unchanged.
        self.assertIn("%s/?token=%s" % (self.daemon.url, token), self.daemon.log())
        self.assertRegex(self.daemon.url, r"^ws://127\.0\.0\.1:[0-9]+$")

    def test_clients_of_this_account_find_the_token_and_others_are_refused(self):
        # bexko-call in the daemon's environment finds it without being told.
        found = self.daemon.call("call", "ZRTextToSpeech.getVolume")
        self.assertEqual(found.returncode, 0, found.stderr)
        # So does the Python client.
        from bexko import Client
        saved = os.environ.get("XDG_RUNTIME_DIR")
        os.environ["XDG_RUNTIME_DIR"] = self.daemon.env["XDG_RUNTIME_DIR"]
        try:
            client = Client(self.daemon.url)
            self.addCleanup(client.close)
            self.assertEqual(client.modules().count("ZRTextToSpeech"), 1)
        finally:
            if saved is None:
                os.environ.pop("XDG_RUNTIME_DIR")
            else:
                os.environ["XDG_RUNTIME_DIR"] = saved
        # A connection without it, or with another, is refused, loopback or not.
        for headers in ([], ["Authorization: Bearer " + "0" * 64]):
            with self.subTest(headers=headers):
                with self.assertRaises(websocket.WebSocketBadStatusException) as refused:
                    websocket.create_connection(self.daemon.url, header=headers, timeout=10)
                self.assertEqual(refused.exception.status_code, 401)
        env = dict(self.daemon.env, XDG_RUNTIME_DIR=os.path.join(self.daemon.root, "other"))
        other = subprocess.run([sys.executable, BEXKO_CALL, "--url", self.daemon.url, "modules"],
                               capture_output=True, text=True, env=env, timeout=60)
        self.assertEqual(other.returncode, 3, other.stderr)


class TokenLifeCycle(unittest.TestCase):

    def test_a_new_token_at_each_start_removed_at_stop_and_none_with_no_auth(self):
        tokens = []
        for _ in range(2):
            daemon = Daemon("--no-modules", auth=True).start()
            self.addCleanup(daemon.cleanup)
            with open(daemon.token_file()) as f:
                tokens.append(f.read().strip())
            self.assertEqual(daemon.stop(), 0)
            self.assertFalse(os.path.exists(daemon.token_file()))
        self.assertNotEqual(tokens[0], tokens[1])

        trusted = Daemon("--no-modules").start()  # --no-auth
        self.addCleanup(trusted.cleanup)
        self.assertFalse(os.path.exists(trusted.token_file()))
        websocket.create_connection(trusted.url, timeout=10).close()
        self.assertIn("--no-auth", trusted.log())


if __name__ == "__main__":
    unittest.main()
