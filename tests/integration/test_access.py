"""Access control: a token-protected daemon refuses connections without the token, an address
beyond loopback is refused without a token, and browsers of other sites are kept out."""

import subprocess
import unittest

import websocket

from bexkodaemon import BEXKO, Daemon, DaemonTestCase

TOKEN = "integration-s3cret"


class TokenProtected(DaemonTestCase):
    DAEMON_ARGS = ("--token", TOKEN)

    def test_a_connection_without_the_token_is_refused(self):
        with self.assertRaises(websocket.WebSocketBadStatusException) as caught:
            websocket.create_connection(self.daemon.url, timeout=10)
        self.assertEqual(caught.exception.status_code, 401)
        with self.assertRaises(websocket.WebSocketBadStatusException):
            websocket.create_connection(self.daemon.url + "/?token=guess", timeout=10)

    def test_the_token_in_the_url_or_a_bearer_header_is_accepted(self):
        ws = websocket.create_connection(self.daemon.url + "/?token=" + TOKEN, timeout=10)
        ws.close()
        from bexko import Client
        client = Client(self.daemon.url, token=TOKEN)
        self.assertIn("ZRTextToSpeech", client.modules())
        client.close()

    def test_bexko_call_presents_the_token(self):
        refused = self.daemon.call("modules")
        self.assertEqual(refused.returncode, 3, refused.stderr)
        accepted = self.daemon.call("modules", token=TOKEN)
        self.assertEqual(accepted.returncode, 0, accepted.stderr)
        self.assertIn("ZRTextToSpeech", accepted.stdout.split())


class Origins(DaemonTestCase):

    def test_a_foreign_browser_origin_is_refused(self):
        with self.assertRaises(websocket.WebSocketBadStatusException) as caught:
            websocket.create_connection(self.daemon.url, timeout=10,
                                        origin="https://attacker.example")
        self.assertEqual(caught.exception.status_code, 403)
        ws = websocket.create_connection(self.daemon.url, timeout=10,
                                         origin="http://localhost:8000")
        ws.close()


class NonLoopback(unittest.TestCase):

    def test_listening_beyond_loopback_without_a_token_is_refused(self):
        daemon = Daemon("--listen", "0.0.0.0:0", "--no-modules")
        try:
            result = subprocess.run([BEXKO, "--listen", "0.0.0.0:0", "--no-modules"],
                                    capture_output=True, text=True, env=daemon.env, timeout=30)
        finally:
            daemon.cleanup()
        self.assertNotEqual(result.returncode, 0)
        self.assertEqual(result.stdout, "")
        self.assertIn("needs an access token", result.stderr)


if __name__ == "__main__":
    unittest.main()
