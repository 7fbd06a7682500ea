# Bad input never takes the daemon down: each bad frame gets a JSON-RPC error or a clean close,
# and the daemon goes on serving every other client.

import json
import socket
import unittest

import websocket

from bexkodaemon import DaemonTestCase


def rpc(request_id, method, params):
    return json.dumps({"jsonrpc": "2.0", "id": request_id, "method": method, "params": params})


class BadInput(DaemonTestCase):

    def raw(self):
        ws = websocket.create_connection(self.daemon.url, timeout=20)
        self.addCleanup(ws.close)
        return ws

    def assert_still_serving(self):
        self.assertIsNone(self.daemon.process.poll())
        ws = self.raw()
        ws.send(rpc("alive", "ZRTextToSpeech.getVolume", []))
        self.assertIsInstance(json.loads(ws.recv()).get("result"), float)

    def test_each_bad_request_gets_its_error(self):
        deep = "[" * 10000 + "]" * 10000
        tts = "ZRTextToSpeech."
        cases = [  # (name, frame: bytes go as a binary frame, answered id, error code)
            ("malformed json", '{"jsonrpc": "2.0", "id": 1, "method": ', None, -32700),
            ("not an object", "[1, 2, 3]", None, -32600),
            ("binary frame", b"\x00\x01\x02", None, -32600),
            ("deep nesting", deep, None, -32600),
            ("deep params", rpc(2, "x.y", 0)[:-2] + deep + "}", None, -32600),
            ("unknown module", rpc(3, "ZRNoSuchModule.say", []), 3, -32601),
            ("unknown method", rpc(4, tts + "shout", ["x"]), 4, -32601),
            ("wrong argument count", rpc(5, tts + "say", ["a", "b", "c"]), 5, -32000),
            ("wrong argument type", rpc(6, tts + "setVolume", ["loud"]), 6, -32000),
            ("service error", rpc(7, tts + "setLanguage", ["Klingon"]), 7, -32000),
            ("object argument", rpc(8, tts + "say", [{"text": "hi"}]), 8, -32602),
            ("huge integer", rpc(9, tts + "setVolume", [2 ** 40]), 9, -32602),
            ("params not array", rpc(10, tts + "say", "hi"), 10, -32602),
            ("bad post", rpc(11, "bexko.post", {"module": 1}), 11, -32602),
            ("bad stop", rpc(12, "bexko.stop", {"module": "ZRTextToSpeech", "id": "x"}), 12,
             -32602),
            ("unknown host operation", rpc(13, "bexko.reboot", {}), 13, -32601),
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


if __name__ == "__main__":
    unittest.main()
