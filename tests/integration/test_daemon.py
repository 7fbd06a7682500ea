# The daemon itself (its signals, usage errors, files and log), bad input, which never takes it
# down, its access token, and bexko-call from the shell.

import concurrent.futures
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time
import unittest

import websocket

from bexkodaemon import BEXKO, BEXKO_CALL, Daemon, DaemonTestCase

TOKEN = "integration-s3cret"
OK, CALL_ERROR, USAGE, CONNECTION = 0, 1, 2, 3


class DaemonLifeCycle(unittest.TestCase):

    def test_each_signal_stops_it_cleanly_even_while_it_speaks(self):
        from bexko import BexkoConnectionError, Client
        for sig in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=sig.name):
                daemon = Daemon("--log-level", "*=warning,bexko.daemon=info", fast=False)
                self.addCleanup(daemon.cleanup)
                log_file = os.path.join(daemon.root, "records.log")
                daemon.args += ["--log-file", log_file]
                self.assertRegex(daemon.start().url, r"^ws://127\.0\.0\.1:[1-9][0-9]*$")
                client = Client(daemon.url)
                self.addCleanup(client.close)
                client.call("ZRPreferenceManager", "setValue", "com.example.test", "key", "value")
                client.post("ZRTextToSpeech", "say", "A sentence long enough to be cut short.")
                self.assertEqual(daemon.stop(sig), 0)
                self.assertRaises(BexkoConnectionError, client.modules)
                # Records go to stderr and to the log file, as the level rules admit them.
                stopping = "info bexko.daemon main: received %s, stopping" % sig.name
                for text in (daemon.log(), pathlib.Path(log_file).read_text()):
                    self.assertIn(stopping, text)
                    self.assertNotIn("bexko.gateway", text)
                # Its files are in the XDG folders, none in HOME.
                self.assertTrue(os.listdir(os.path.join(daemon.env["XDG_DATA_HOME"], "bexko")))
                self.assertEqual(os.listdir(daemon.env["HOME"]), [])

    def test_a_usage_error_ends_it_before_it_listens(self):
        busy = Daemon("--no-modules")
        self.addCleanup(busy.cleanup)
        cases = [
            (("--log-level", "*=loudest", "--listen", "127.0.0.1:0"), 2, "loudest"),
            (("--listen", "127.0.0.1:0", "/nonexistent/libnothing.so"), 1,
             "cannot load /nonexistent/libnothing.so"),
            (("--listen", "0.0.0.0:0", "--no-modules", "--no-auth"), 1, "needs an access token"),
            (("--listen", "127.0.0.1:0", "--no-auth", "--token", "x"), 2, "exclude each other"),
            (("--listen", busy.start().url[len("ws://"):], "--no-modules"), 1, "cannot listen"),
        ]
        for args, code, message in cases:
            with self.subTest(args=args):
                result = subprocess.run([BEXKO] + list(args), capture_output=True, text=True,
                                        env=busy.env, timeout=30)
                self.assertEqual((result.returncode, result.stdout), (code, ""), result.stderr)
                self.assertIn(message, result.stderr)


def rpc(request_id, method, params):
    return json.dumps({"jsonrpc": "2.0", "id": request_id, "method": method, "params": params})


# Each bad frame gets a JSON-RPC error or a clean close, and the daemon goes on serving every
# other client.
class BadInput(DaemonTestCase):

    def raw(self):
        ws = websocket.create_connection(self.daemon.url, timeout=20)
        self.addCleanup(ws.close)
        return ws

    def assert_still_serving(self):
        ws = self.raw()
        ws.send(rpc("alive", "ZRTextToSpeech.getVolume", []))
        self.assertIsInstance(json.loads(ws.recv()).get("result"), float)

    def test_each_bad_request_gets_its_error(self):
        # One frame per kind of answer; the session's unit tests hold the full table.
        cases = [  # (name, frame: bytes go as a binary frame, answered id, error code)
            ("malformed json", '{"jsonrpc": "2.0", "id": 1, "method": ', None, -32700),
            ("binary frame", b"\x00\x01\x02", None, -32600),
            ("deep nesting", "[" * 10000 + "]" * 10000, None, -32600),
            ("unknown method", rpc(4, "ZRTextToSpeech.shout", ["x"]), 4, -32601),
            ("wrong argument count", rpc(5, "ZRTextToSpeech.say", ["a", "b", "c"]), 5, -32602),
            ("service error", rpc(7, "ZRTextToSpeech.setLanguage", ["Klingon"]), 7, -32000),
            ("huge integer", rpc(9, "ZRTextToSpeech.setVolume", [2 ** 40]), 9, -32602),
        ]
        ws = self.raw()
        for name, frame, request_id, code in cases:
            with self.subTest(name):
                (ws.send_binary if isinstance(frame, bytes) else ws.send)(frame)
                message = json.loads(ws.recv())
                self.assertEqual((message.get("id"), message["error"]["code"]), (request_id, code))
                self.assertIsInstance(message["error"]["message"], str)
        self.assert_still_serving()

    def test_a_broken_connection_harms_no_other(self):
        # Only the start of a 2 MiB text frame is sent: the host must judge the frame by its
        # header, without waiting for (or buffering) its payload. Sending all of it would race
        # the host's close and could end in a reset that hides the close frame.
        ws = self.raw()
        size, mask = 2 * 1024 * 1024, b"\x01\x02\x03\x04"
        start = b'{"jsonrpc": "2.0", "id": 1, "method": "ZRTextToSpeech.say", "params": ["'
        header = bytes([0x81, 0x80 | 127]) + size.to_bytes(8, "big") + mask
        ws.sock.sendall(header + bytes(b ^ mask[i % 4] for i, b in enumerate(start)))
        # The host fails the connection with its close frame, read raw so that the client
        # library does not answer it.
        frame = ws.recv_frame()
        self.assertEqual((frame.opcode, int.from_bytes(frame.data[:2], "big")),
                         (websocket.ABNF.OPCODE_CLOSE, 1009))

        # Clients that vanish in the middle of a say.
        for _ in range(5):
            ws = websocket.create_connection(self.daemon.url, timeout=20)
            ws.send(rpc(1, "ZRTextToSpeech.say", ["Nobody will hear the end of this sentence."]))
            ws.sock.shutdown(socket.SHUT_RDWR)
            ws.sock.close()

        # Garbage instead of a WebSocket handshake.
        host, port = self.daemon.url[len("ws://"):].rsplit(":", 1)
        with socket.create_connection((host, int(port)), timeout=20) as raw:
            raw.sendall(b"\x16\x03\x01 this is not HTTP\r\n\r\n")
            reply = raw.recv(1024)
        self.assertTrue(reply == b"" or reply.startswith(b"HTTP/1.1 400"), reply)
        self.assert_still_serving()


class TokenProtected(DaemonTestCase):
    DAEMON_ARGS = ("--token", TOKEN)
    AUTH = True

    def test_a_connection_without_the_token_is_refused(self):
        # An account other than the daemon's has neither the token nor its file.
        env = dict(self.daemon.env, XDG_RUNTIME_DIR=os.path.join(self.daemon.root, "elsewhere"))
        refused = subprocess.run([sys.executable, BEXKO_CALL, "--url", self.daemon.url, "modules"],
                                 capture_output=True, text=True, env=env, timeout=60)
        self.assertEqual(refused.returncode, CONNECTION, refused.stderr)
        self.assertIn("401", refused.stderr)
        # The token given is the one left for this account's clients.
        with open(self.daemon.token_file()) as f:
            self.assertEqual(f.read().strip(), TOKEN)

    def test_bexko_call_prints_results_and_exits_with_a_code_scripts_can_use(self):
        cases = [  # stdout is matched when the call succeeds, stderr otherwise
            (("modules",), OK, r"\bZRTextToSpeech\b"),
            (("call", "ZRTextToSpeech.setVolume", "0.25"), OK, r"^null$"),
            (("post", "--wait", "ZRTextToSpeech.getVolume"), OK, r"^0\.25$"),
            (("post", "ZRTextToSpeech.say", "Posted"), OK, r"^[1-9][0-9]*$"),
            (("stop", "ZRTextToSpeech", "1"), OK, r"^$"),
            (("describe", "ZRTextToSpeech"), OK, r"sayToFile\(pStringToSay, pFileName\)"),
            (("call", "ZRTextToSpeech.setLanguage", "Klingon"), CALL_ERROR, "not"),
            (("call", "say"), USAGE, "MODULE.METHOD"),
            (("frobnicate",), USAGE, "invalid choice"),
        ]
        for args, code, output in cases:
            with self.subTest(args=args):
                result = self.daemon.call(*args, token=TOKEN)
                self.assertEqual(result.returncode, code, result.stderr)
                self.assertRegex(result.stdout.strip() if code == OK else result.stderr, output)

    def test_bexko_call_watch_prints_each_raise(self):
        client, value = self.client(token=TOKEN), 0
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            watching = pool.submit(self.daemon.call, "watch", "--count", "2", "Test/Watched",
                                   token=TOKEN)
            # Raised until the watcher has subscribed and seen two values (or its call timed out).
            while not watching.done():
                value += 1
                client.call("ZRMemory", "raiseEvent", "Test/Watched", value)
                time.sleep(0.1)
        result = watching.result()
        self.assertEqual(result.returncode, OK, result.stderr)
        (key, first), (_, second) = (line.split(" ", 1) for line in result.stdout.splitlines())
        self.assertEqual((key, int(second)), ("Test/Watched", int(first) + 1))


if __name__ == "__main__":
    unittest.main()
