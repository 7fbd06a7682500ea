"""Signals of the speech service reach remote clients."""

import unittest

from bexkodaemon import DaemonTestCase, Recorder


class LanguageSignal(DaemonTestCase):

    def test_set_language_french_delivers_language_tts(self):
        # The signal carries the locale of the new language.
        client = self.client()
        received = Recorder()
        client.connect("ZRTextToSpeech", "languageTTS", received)
        client.call("ZRTextToSpeech", "setLanguage", "French")
        self.assertTrue(received.wait_for(lambda items: ("fr_FR",) in items), received.items)
        self.assertEqual(client.call("ZRTextToSpeech", "getLanguage"), "French")
        self.assertEqual(client.call("ZRTextToSpeech", "locale"), "fr_FR")
        client.call("ZRTextToSpeech", "setLanguage", "English")
        english = client.call("ZRTextToSpeech", "locale")
        self.assertTrue(received.wait_for(lambda items: items[-1:] == [(english,)]),
                        received.items)
        self.assertEqual(len(received.items), 2)

    def test_the_python_helpers_connect_too(self):
        import bexko
        from bexko import ZRProxy
        tts = ZRProxy("ZRTextToSpeech", self.daemon.url)
        received = Recorder()
        bexko.connect("ZRTextToSpeech", "languageTTS", received, url=self.daemon.url)
        tts.setLanguage("German")
        self.assertTrue(received.wait_for(lambda items: ("de_DE",) in items), received.items)
        tts.setLanguage("English")

    def test_an_unknown_signal_is_refused(self):
        from bexko import BexkoError
        client = self.client()
        with self.assertRaises(BexkoError) as caught:
            client.connect("ZRTextToSpeech", "noSuchSignal", lambda *a: None)
        self.assertEqual(caught.exception.code, -32602)


if __name__ == "__main__":
    unittest.main()
