"""bexko-call: round trips from the shell and exit codes that scripts can use."""

import json
import subprocess
import sys
import threading
import unittest

from bexkodaemon import BEXKO_CALL, DaemonTestCase

OK, CALL_ERROR, USAGE, CONNECTION = 0, 1, 2, 3


class BexkoCall(DaemonTestCase):

    def run_ok(self, *args):
        result = self.daemon.call(*args)
        self.assertEqual(result.returncode, OK, result.stderr)
        return result.stdout

    def test_modules_lists_the_host_and_the_speech_service(self):
        modules = self.run_ok("modules").split()
        for name in ("ZRMemory", "ZRPreferences", "ZRPreferenceManager", "PackageManager",
                     "ZRTextToSpeech"):
            self.assertIn(name, modules)

    def test_a_call_round_trip_prints_json(self):
        self.run_ok("call", "ZRTextToSpeech.setVolume", "0.25")
        self.assertEqual(json.loads(self.run_ok("call", "ZRTextToSpeech.getVolume")), 0.25)
        self.assertEqual(json.loads(self.run_ok("call", "ZRTextToSpeech.say", "Hello")), None)
        self.assertEqual(json.loads(self.run_ok("call", "ZRMemory.getData",
                                                "ZRTextToSpeech/CurrentSentence")), "")

    def test_post_prints_an_id_and_wait_prints_the_result(self):
        call_id = json.loads(self.run_ok("post", "ZRTextToSpeech.say", "Posted"))
        self.assertIsInstance(call_id, int)
        self.assertGreater(call_id, 0)
        self.assertEqual(json.loads(self.run_ok("post", "--wait", "ZRTextToSpeech.getVolume")),
                         json.loads(self.run_ok("call", "ZRTextToSpeech.getVolume")))
        self.run_ok("stop", "ZRTextToSpeech", str(call_id))

    def test_describe_shows_the_published_documentation(self):
        text = self.run_ok("describe", "ZRTextToSpeech")
        self.assertIn("say(stringToSay)", text)
        self.assertIn("sayToFile(pStringToSay, pFileName)", text)
        info = json.loads(self.run_ok("describe", "--json", "ZRTextToSpeech"))
        self.assertEqual(info["name"], "ZRTextToSpeech")
        self.assertEqual(len(info["methods"]), 38)

    def test_watch_prints_each_raise(self):
        watcher = subprocess.Popen(
            [sys.executable, BEXKO_CALL, "--url", self.daemon.url, "--timeout", "60", "watch",
             "--count", "2", "Test/Watched"], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, env=self.daemon.env)
        self.addCleanup(watcher.kill)
        # Raise until the watcher has subscribed and seen two values.
        stop = threading.Event()

        def raise_values():
            value = 0
            while not stop.is_set():
                value += 1
                self.daemon.call("call", "ZRMemory.raiseEvent", "Test/Watched", str(value))
                stop.wait(0.1)

        raiser = threading.Thread(target=raise_values)
        raiser.start()
        try:
            out, err = watcher.communicate(timeout=60)
        finally:
            stop.set()
            raiser.join()
        self.assertEqual(watcher.returncode, OK, err)
        lines = out.splitlines()
        self.assertEqual(len(lines), 2)
        first, second = (int(line.split(" ", 1)[1]) for line in lines)
        self.assertEqual(lines[0].split(" ", 1)[0], "Test/Watched")
        self.assertEqual(second, first + 1)

    def test_exit_codes(self):
        cases = [
            (("call", "ZRTextToSpeech.setLanguage", "Klingon"), CALL_ERROR, "not"),
            (("call", "ZRNoSuchModule.say", "x"), CALL_ERROR, "no module"),
            (("call", "ZRTextToSpeech.say", "a", "b", "c"), CALL_ERROR, ""),
            (("describe", "ZRNoSuchModule"), CALL_ERROR, "no module"),
            (("call", "say"), USAGE, "MODULE.METHOD"),
            ((), USAGE, "command"),
            (("frobnicate",), USAGE, "invalid choice"),
            (("stop", "ZRTextToSpeech", "not-a-number"), USAGE, "invalid int"),
        ]
        for args, code, text in cases:
            with self.subTest(args=args):
                result = self.daemon.call(*args)
                self.assertEqual(result.returncode, code, result.stderr)
                self.assertIn(text, result.stderr)

    def test_no_host_is_exit_code_3(self):
        result = subprocess.run([sys.executable, BEXKO_CALL, "--url", "ws://127.0.0.1:1",
                                 "modules"], capture_output=True, text=True, timeout=30)
        self.assertEqual(result.returncode, CONNECTION)
        self.assertIn("cannot connect", result.stderr)


if __name__ == "__main__":
    unittest.main()
