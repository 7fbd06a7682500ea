# A first run on a workstation where nobody has chosen a language: the daemon sets the preference
# "ChosenLanguage" from the desktop's locale before the speech service starts, so that the
# service starts in that language instead of in an error state.

import unittest

from bexkodaemon import Daemon

DOMAIN, KEY = "com.veltra.robotwebpage", "ChosenLanguage"


class FirstRunLanguage(unittest.TestCase):

    def start(self, *args, **env):
        daemon = Daemon(*args)
        daemon.env.update(env)
        self.addCleanup(daemon.cleanup)
        self.addCleanup(daemon.stop)
        return daemon.start()

    def language_at_start(self, *args, **env):
        from bexko import Client
        daemon = self.start(*args, **env)
        with Client(daemon.url) as client:
            language = client.call("ZRTextToSpeech", "getLanguage")
            chosen = client.call("ZRPreferenceManager", "getValue", DOMAIN, KEY)
        return language, chosen, daemon.log()

    def test_the_locale_gives_the_language_when_it_is_installed(self):
        cases = [
            ({"LANG": "fr_FR.UTF-8"}, "French"),
            ({"LANG": "pt_BR.UTF-8"}, "Brazilian"),
            ({"LANG": "pt_PT"}, "Portuguese"),
            ({"LANG": "de_AT.UTF-8@euro"}, "German"),  # same language, another country
            ({"LANG": "en_GB.UTF-8", "LC_MESSAGES": "ja_JP.UTF-8"}, "Japanese"),
            ({"LANG": "de_DE.UTF-8", "LC_MESSAGES": "ja_JP.UTF-8", "LC_ALL": "it_IT.UTF-8"},
             "Italian"),
            ({"LANG": "xh_ZA.UTF-8"}, "English"),  # no package provides it
            ({"LANG": "C.UTF-8"}, "English"),
            ({"LANG": ""}, "English"),
        ]
        for env, expected in cases:
            with self.subTest(env=env):
                language, chosen, log = self.language_at_start(**env)
                self.assertEqual((language, chosen), (expected, expected))
                self.assertIn('first run: the preference "ChosenLanguage"', log)
                self.assertNotIn("Invalid default language", log)

    def test_a_chosen_language_is_kept(self):
        from bexko import Client
        daemon = self.start(LANG="fr_FR.UTF-8")
        with Client(daemon.url) as client:
            client.call("ZRPreferenceManager", "setValue", DOMAIN, KEY, "German")
        daemon.stop()
        daemon.start()
        with Client(daemon.url) as client:
            self.assertEqual(client.call("ZRTextToSpeech", "getLanguage"), "German")
        self.assertNotIn("first run:", daemon.log())  # the log of the second start

    def test_the_option_leaves_the_preference_unset(self):
        from bexko import BexkoError, Client
        daemon = self.start("--no-default-language", LANG="fr_FR.UTF-8")
        with Client(daemon.url) as client:
            with self.assertRaises(BexkoError):
                client.call("ZRPreferenceManager", "getValue", DOMAIN, KEY)
        self.assertNotIn("first run:", daemon.log())


if __name__ == "__main__":
    unittest.main()
