"""The Python examples published in the speech service's documentation run against the host as
they stand, after `from bexko import ZRProxy`."""

import os
import unittest

from bexkodaemon import DaemonTestCase

# Examples that are not Python 3: Python 2 print statements and "//" comments.
NOT_PYTHON3 = {"getLanguage", "getParameter", "getAvailableVoices", "getVolume", "locale",
               "loadVoicePreference"}
# Valid Python 3 that calls a method the module does not publish (slips of the examples): the
# host answers "Method not found".
CALLS_UNPUBLISHED = {"addToDictionary": "AddToDictionary", "_setDefaultVoice": "setDefaultVoice"}
# Valid Python 3 naming voices of the robot's engines, which eSpeak NG does not have: the
# service answers with its own error.
VOICE_NOT_INSTALLED = {"setVoice": "Julie22Enhanced voice is not installed.",
                       "setLanguageDefaultVoice": "The voice Kenny22Enhanced is not installed"}


class PublishedExamples(DaemonTestCase):

    def setUp(self):
        os.environ["BEXKO_URL"] = self.daemon.url
        from bexko import ZRProxy, default_client
        self.ZRProxy = ZRProxy
        self.docs = default_client().describe("ZRTextToSpeech")

    def examples(self):
        yield "module", self.docs["examples"]
        for method in self.docs["methods"]:
            yield method["name"], method["examples"]

    def test_every_python3_example_runs_as_it_stands(self):
        from bexko import BexkoError
        ran, not_python3, refused = set(), set(), set()
        for name, examples in self.examples():
            for example in examples:
                if example["language"] != "python":
                    continue
                try:
                    code = compile(example["text"], "<example of %s>" % name, "exec")
                except SyntaxError:
                    not_python3.add(name)
                    continue
                with self.subTest(example=name):
                    try:
                        exec(code, {"ZRProxy": self.ZRProxy})
                        ran.add(name)
                    except BexkoError as e:
                        refused.add(name)
                        if name in CALLS_UNPUBLISHED:
                            self.assertEqual(e.code, -32601)
                            self.assertIn('"%s"' % CALLS_UNPUBLISHED[name], e.message)
                        else:
                            self.assertIn(name, VOICE_NOT_INSTALLED, "%s: %s" % (name, e))
                            self.assertEqual(e.code, -32000)
                            self.assertEqual(e.message, VOICE_NOT_INSTALLED[name])
                            self.assertEqual(e.module, "ZRTextToSpeech")
        self.assertEqual(not_python3, NOT_PYTHON3)
        self.assertEqual(refused, set(CALLS_UNPUBLISHED) | set(VOICE_NOT_INSTALLED))
        for expected in ("module", "say", "sayToFile", "setLanguage", "getAvailableLanguages",
                         "getSupportedLanguages", "setParameter", "getVoice", "setVolume",
                         "_setDefaultLanguage", "_loadDictionary"):
            self.assertIn(expected, ran)

    def test_the_python2_examples_run_once_their_print_statements_are_called(self):
        # The same examples with the one Python 2 statement written as a call: what they
        # compute comes back from the host.
        import io
        import contextlib
        out = io.StringIO()
        for name in ("getParameter", "getAvailableVoices", "getVolume"):
            text = [m for m in self.docs["methods"] if m["name"] == name][0]["examples"][0]["text"]
            fixed = "\n".join("print(%s)" % line[6:] if line.startswith("print ") else line
                              for line in text.splitlines())
            with contextlib.redirect_stdout(out):
                exec(compile(fixed, name, "exec"), {"ZRProxy": self.ZRProxy})
        printed = out.getvalue().splitlines()
        self.assertEqual(len(printed), 3)
        float(printed[0])
        self.assertTrue(printed[1].startswith("["))
        float(printed[2])


if __name__ == "__main__":
    unittest.main()
