"""Bad input never takes the daemon down: each bad frame gets a JSON-RPC error or a clean close,
and the daemon goes on serving every other client."""

import json
import socket
import unittest

import websocket

from bexkodaemon import DaemonTestCase


class BadInput(DaemonTestCase):

    def raw(self):
        ws = websocket.create_connection(self.daemon.url, timeout=20)
        self.addCleanup(ws.close)
        return ws

    def answer(self, ws, text):
        ws.send(text)
        while True:
            message = json.loads(ws.recv())
            if "id" in message:
                return message

    def assert_still_serving(self):
        self.assertTrue(self.daemon.alive())
        ws = self.raw()
        message = self.answer(ws, json.dumps({"jsonrpc": "2.0", "id": "alive",
                                              "method": "ZRTextToSpeech.getVolume"}))
        self.assertIsInstance(message.get("result"), float, message)

    def test_each_bad_request_gets_its_error(self):
        deep = "[" * 10000 + "]" * 10000
        cases = [
            ("malformed json", "{\"jsonrpc\": \"2.0\", \"id\": 1, \"method\": ", None, -32700),
            ("not an object", "[1, 2, 3]", None, -32600),
            ("deep nesting", deep, None, -32600),
            ("deep params", json.dumps({"jsonrpc": "2.0", "id": 2, "method": "x.y"})[:-1] +
             ", \"params\": " + deep + "}", None, -32600),
            ("unknown module", json.dumps({"jsonrpc": "2.0", "id": 3,
                                           "method": "ZRNoSuchModule.say", "params": []}),
             3, -32601),
            ("unknown method", json.dumps({"jsonrpc": "2.0", "id": 4,
                                           "method": "ZRTextToSpeech.shout", "params": ["x"]}),
             4, -32601),
            ("wrong argument count", json.dumps({"jsonrpc": "2.0", "id": 5,
                                                 "method": "ZRTextToSpeech.say",
                                                 "params": ["a", "b", "c"]}), 5, -32000),
            ("wrong argument type", json.dumps({"jsonrpc": "2.0", "id": 6,
                                                "method": "ZRTextToSpeech.setVolume",
                                                "params": ["loud"]}), 6, -32000),
            ("object argument", json.dumps({"jsonrpc": "2.0", "id": 7,
                                            "method": "ZRTextToSpeech.say",
                                            "params": [{"text": "hi"}]}), 7, -32602),
            ("huge integer", json.dumps({"jsonrpc": "2.0", "id": 8,
                                         "method": "ZRTextToSpeech.setVolume",
                                         "params": [2 ** 40]}), 8, -32602),
            ("params not array", json.dumps({"jsonrpc": "2.0", "id": 9,
                                             "method": "ZRTextToSpeech.say",
                                             "params": "hi"}), 9, -32602),
            ("bad post", json.dumps({"jsonrpc": "2.0", "id": 10, "method": "bexko.post",
                                     "params": {"module": 1}}), 10, -32602),
            ("bad stop", json.dumps({"jsonrpc": "2.0", "id": 11, "method": "bexko.stop",
                                     "params": {"module": "ZRTextToSpeech", "id": "x"}}),
             11, -32602),
            ("unknown host operation", json.dumps({"jsonrpc": "2.0", "id": 12,
                                                   "method": "bexko.reboot"}), 12, -32601),
        ]
        ws = self.raw()
        for name, text, request_id, code in cases:
            with self.subTest(name):
                ws.send(text)
                message = json.loads(ws.recv())
                self.assertEqual(message.get("id"), request_id, message)
                self.assertEqual(message["error"]["code"], code, message)
                self.assertIsInstance(message["error"]["message"], str)
        self.assert_still_serving()

    def test_a_zrerror_carries_module_method_and_description(self):
        ws = self.raw()
        message = self.answer(ws, json.dumps({"jsonrpc": "2.0", "id": 1,
                                              "method": "ZRTextToSpeech.setLanguage",
                                              "params": ["Klingon"]}))
        error = message["error"]
        self.assertEqual(error["code"], -32000)
        self.assertEqual(error["data"]["module"], "ZRTextToSpeech")
        self.assertEqual(error["data"]["method"], "setLanguage")
        self.assertEqual(error["message"], error["data"]["description"])

    def test_an_oversized_frame_closes_that_connection_cleanly(self):
        ws = self.raw()
        # Only the start of a 2 MiB text frame is sent: the host must judge the frame by its
        # header, without waiting for (or buffering) its payload. Sending all of it would race
        # the host's close and could end in a reset that hides the close frame.
        size = 2 * 1024 * 1024
        mask = b"\x01\x02\x03\x04"
        start = b'{"jsonrpc": "2.0", "id": 1, "method": "ZRTextToSpeech.say", "params": ["'
        header = bytes([0x81, 0x80 | 127]) + size.to_bytes(8, "big") + mask
        ws.sock.sendall(header + bytes(b ^ mask[i % 4] for i, b in enumerate(start)))
        # The host fails the connection: it sends its close frame and drops the socket, so the
        # frame is read raw, without the client library trying to answer it.
        frame = ws.recv_frame()
        self.assertEqual(frame.opcode, websocket.ABNF.OPCODE_CLOSE)
        self.assertEqual(int.from_bytes(frame.data[:2], "big"), 1009)
        self.assert_still_serving()

    def test_a_binary_frame_is_refused(self):
        ws = self.raw()
        ws.send_binary(b"\x00\x01\x02")
        message = json.loads(ws.recv())
        self.assertEqual(message["error"]["code"], -32600)
        self.assert_still_serving()

    def test_an_abrupt_disconnect_in_the_middle_of_a_call(self):
        for _ in range(5):
            ws = websocket.create_connection(self.daemon.url, timeout=20)
            ws.send(json.dumps({"jsonrpc": "2.0", "id": 1, "method": "ZRTextToSpeech.say",
                                "params": ["Nobody will hear the end of this sentence."]}))
            ws.sock.shutdown(socket.SHUT_RDWR)
            ws.sock.close()
        self.assert_still_serving()

    def test_garbage_instead_of_a_websocket_handshake(self):
        host, port = self.daemon.url[len("ws://"):].rsplit(":", 1)
        with socket.create_connection((host, int(port)), timeout=20) as raw:
            raw.sendall(b"\x16\x03\x01 this is not HTTP\r\n\r\n")
            reply = raw.recv(1024)
        self.assertTrue(reply == b"" or reply.startswith(b"HTTP/1.1 400"), reply)
        self.assert_still_serving()


if __name__ == "__main__":
    unittest.main()
