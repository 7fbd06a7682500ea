# The protocol as clients meet it: batches and error codes on the wire, the host's version and
# memory keys, bexko-call's describe, keys, watch and --version, and the Python proxy's help().

import json
import pydoc
import re
import select
import socket
import subprocess
import sys
import time
import unittest

import websocket

from bexkodaemon import BEXKO_CALL, DaemonTestCase

OK, CALL_ERROR = 0, 1

SPEECH_KEYS = ["ZRTextToSpeech/" + name for name in (
    "TextDone", "TextStarted", "CurrentBookMark", "PositionOfCurrentWord", "CurrentWord",
    "CurrentSentence", "Status", "TextInterrupted")]


def request(request_id, method, params=None):
    message = {"jsonrpc": "2.0", "method": method}
    if request_id is not None:
        message["id"] = request_id
    if params is not None:
        message["params"] = params
    return message


class Protocol(DaemonTestCase):

    def raw(self):
        ws = websocket.create_connection(self.daemon.url, timeout=20)
        self.addCleanup(ws.close)
        return ws

    def host_version(self):
        return self.client().version()

    def test_a_batch_is_answered_member_by_member_in_one_frame(self):
        ws = self.raw()
        ws.send(json.dumps([
            request(1, "ZRTextToSpeech.setVolume", [0.5]),
            request(None, "ZRMemory.insertData", ["Test/Noted", 1]),  # a notification
            request(2, "ZRTextToSpeech.setVolume", ["loud"]),       # does not convert
            request(3, "ZRTextToSpeech.say", ["a", "b", "c"]),      # no such overload
            request(4, "ZRTextToSpeech.shout", ["x"]),
            request(5, "ZRTextToSpeech.setLanguage", ["Klingon"]),  # the service's own error
            42,
            request(6, "bexko.version"),
        ]))
        answer = json.loads(ws.recv())
        self.assertIsInstance(answer, list, answer)
        summary = [(a.get("id"), a["error"]["code"] if "error" in a else a["result"])
                   for a in answer]
        self.assertEqual(summary, [(1, None), (2, -32602), (3, -32602), (4, -32601),
                                   (5, -32000), (None, -32600), (6, self.host_version())])
        # The notification ran too (it may end after the batch's answer; the members of a batch
        # run in no set order, so it writes a key of its own).
        from bexko import BexkoError
        client, deadline = self.client(), time.monotonic() + 20

        def noted():
            try:
                return client.call("ZRMemory", "getData", "Test/Noted")
            except BexkoError:
                return None
        while noted() != 1:
            self.assertLess(time.monotonic(), deadline, "the notification was not served")
            time.sleep(0.05)

    def test_a_batch_of_notifications_and_an_empty_one(self):
        ws = self.raw()
        ws.send(json.dumps([request(None, "ZRMemory.raiseEvent", ["Test/BatchedA", 1]),
                            request(None, "ZRMemory.raiseEvent", ["Test/BatchedB", 2])]))
        ws.send("[]")
        # The empty batch's error is the first frame: the notifications were answered with
        # nothing at all.
        first = json.loads(ws.recv())
        self.assertEqual((first.get("id"), first["error"]["code"]), (None, -32600))
        # The members of a batch run on host threads in no set order, and may not have run
        # yet when first read: each writes its own key.
        from bexko import BexkoError
        client, deadline = self.client(), time.monotonic() + 20

        def batched(key):
            try:
                return client.call("ZRMemory", "getData", key)
            except BexkoError:
                return None
        while (batched("Test/BatchedA"), batched("Test/BatchedB")) != (1, 2):
            self.assertLess(time.monotonic(), deadline, "the notifications were not served")
            time.sleep(0.05)
        ws.send(json.dumps(request("probe", "bexko.modules")))
        self.assertEqual(json.loads(ws.recv())["id"], "probe")

    def test_the_python_client_reports_invalid_params(self):
        from bexko import BexkoError
        client = self.client()
        for args in ((), ("a", "b", "c")):
            with self.subTest(args=args):
                with self.assertRaises(BexkoError) as raised:
                    client.call("ZRTextToSpeech", "say", *args)
                self.assertEqual((raised.exception.code, raised.exception.module),
                                 (-32602, "ZRTextToSpeech"))
        call_id = client.post("ZRTextToSpeech", "setVolume", "loud")
        with self.assertRaises(BexkoError) as raised:
            client.result(call_id, 20)
        self.assertEqual(raised.exception.code, -32602)

    def test_bexko_call_tells_its_version_and_the_hosts(self):
        result = self.daemon.call("--version")
        self.assertEqual(result.returncode, OK, result.stderr)
        lines = result.stdout.splitlines()
        self.assertEqual(len(lines), 2, result.stdout)
        self.assertTrue(lines[0].startswith("bexko-call "), lines[0])
        self.assertEqual(lines[1], "bexko %s at %s" % (self.host_version(), self.daemon.url))
        self.assertRegex(self.host_version(), r"^\d+\.\d+\.\d+")

        # Without a host, the client's own version still.
        with socket.socket() as unused:
            unused.bind(("127.0.0.1", 0))
            port = unused.getsockname()[1]
        alone = subprocess.run(
            [sys.executable, BEXKO_CALL, "--url", "ws://127.0.0.1:%d" % port, "--version"],
            capture_output=True, text=True, env=self.daemon.env, timeout=60)
        self.assertEqual((alone.returncode, alone.stdout), (OK, lines[0] + "\n"))
        self.assertIn("no host", alone.stderr)

    def test_bexko_call_describes_one_method(self):
        result = self.daemon.call("describe", "ZRTextToSpeech.say")
        self.assertEqual(result.returncode, OK, result.stderr)
        # Both overloads, each with its parameters and example, and nothing of other methods.
        self.assertEqual(len(re.findall(r"^  say\(", result.stdout, re.M)), 2, result.stdout)
        self.assertIn("stringToSay: Text to say, encoded in UTF-8.", result.stdout)
        self.assertIn('tts.say("This is a sample text!")', result.stdout)
        self.assertNotIn("sayToFile", result.stdout)
        as_json = self.daemon.call("describe", "--json", "ZRTextToSpeech.getVolume")
        self.assertEqual([m["name"] for m in json.loads(as_json.stdout)], ["getVolume"])
        missing = self.daemon.call("describe", "ZRTextToSpeech.shout")
        self.assertEqual(missing.returncode, CALL_ERROR)
        self.assertIn('ZRTextToSpeech has no method "shout"', missing.stderr)

    def test_bexko_call_lists_the_declared_keys_with_their_descriptions(self):
        result = self.daemon.call("keys", "ZRTextToSpeech/")
        self.assertEqual(result.returncode, OK, result.stderr)
        listed = dict(line.split("  ", 1) for line in result.stdout.splitlines())
        self.assertEqual(sorted(listed), sorted(SPEECH_KEYS))
        self.assertIn('"enqueued"', listed["ZRTextToSpeech/Status"])
        self.assertTrue(all(text.strip() for text in listed.values()), listed)
        everything = json.loads(self.daemon.call("keys", "--json").stdout)
        status = [k for k in everything if k["key"] == "ZRTextToSpeech/Status"]
        self.assertEqual(status[0]["module"], "ZRTextToSpeech")

    def test_watching_an_undeclared_key_warns_and_still_watches(self):
        client = self.client()
        watching = subprocess.Popen(
            [sys.executable, BEXKO_CALL, "--url", self.daemon.url, "watch", "--count", "1",
             "ZRTextToSpeech/Staus"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=self.daemon.env)
        self.addCleanup(watching.kill)
        ready, _, _ = select.select([watching.stderr], [], [], 20)
        warning = watching.stderr.readline() if ready else ""
        self.assertIn('warning: the memory key "ZRTextToSpeech/Staus" is not declared', warning)
        # Raised until the watcher, subscribed just after its warning, has seen it.
        deadline = time.monotonic() + 20
        while watching.poll() is None and time.monotonic() < deadline:
            client.call("ZRMemory", "raiseEvent", "ZRTextToSpeech/Staus", 1)
            time.sleep(0.1)
        out, _ = watching.communicate(timeout=20)
        self.assertEqual((watching.returncode, out), (OK, "ZRTextToSpeech/Staus 1\n"))
        declared = self.daemon.call("--timeout", "0.5", "watch", "ZRTextToSpeech/Status")
        self.assertEqual((declared.returncode, declared.stderr), (OK, ""))

    def test_python_help_and_dir_show_what_the_module_publishes(self):
        from bexko import ZRProxy, BexkoError
        tts = ZRProxy("ZRTextToSpeech", client=self.client())
        published = [m["name"] for m in tts.describe()["methods"]]
        self.assertLessEqual(set(published), set(dir(tts)))
        self.assertEqual(list(tts.published), list(dict.fromkeys(published)))

        method_help = pydoc.render_doc(tts.getVolume, renderer=pydoc.plaintext)
        self.assertIn("getVolume()", method_help)
        self.assertIn("Fetches the current volume", method_help)
        say_help = pydoc.render_doc(tts.say, renderer=pydoc.plaintext)
        self.assertIn("Performs the text-to-speech operations in a specific language", say_help)
        module_help = pydoc.render_doc(tts, renderer=pydoc.plaintext)
        self.assertIn("This module embeds a speech synthetizer", module_help)
        self.assertIn("setParameter(self, pEffectName, pEffectValue)", module_help)
        self.assertIn("ZRTextToSpeech/Status: [int id, string status]", module_help)

        # Named arguments go in their place; a name the module does not publish still reaches
        # the host, which answers with its error.
        tts.setParameter(pEffectName="speed", pEffectValue=150)
        self.assertEqual(tts.getParameter("speed"), 150)
        tts.resetSpeed()
        with self.assertRaises(BexkoError) as raised:
            tts.AddToDictionary("x", "y")
        self.assertEqual(raised.exception.code, -32601)

    def test_speed_and_pitch_change_as_the_readme_shows(self):
        from bexko import ZRProxy
        tts = ZRProxy("ZRTextToSpeech", client=self.client())
        self.addCleanup(tts.setParameter, "pitch", 100)
        self.addCleanup(tts.resetSpeed)
        tts.setParameter("speed", 150)
        tts.setParameter("pitch", 120)
        self.assertEqual((tts.getParameter("speed"), tts.getParameter("pitch")), (150, 120))
        for name, value in (("speed", "80"), ("pitch", "60")):
            result = self.daemon.call("call", "ZRTextToSpeech.setParameter", name, value)
            self.assertEqual(result.returncode, OK, result.stderr)
            self.assertEqual(tts.getParameter(name), float(value))
        tts.say("Slower and lower")


if __name__ == "__main__":
    unittest.main()
