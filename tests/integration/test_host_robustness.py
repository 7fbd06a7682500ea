# What a careless or hostile client can do to the host, seen from outside: calls that must not
# reach other clients' work, inputs that must not damage the host's folders, loops that must not
# run away, and text that must not break the log.

import concurrent.futures
import os
import unittest

from bexkodaemon import Daemon, DaemonTestCase, Recorder

STATUS = "ZRTextToSpeech/Status"
FIRST_POSTED_ID = 1000000000
# Spoken at the real pace, this lasts a few seconds: long enough for other calls to come and go
# while it is heard.
SPOKEN_TEXT = ("This sentence takes a few seconds to say, long enough for the other calls to "
               "come and go while it is heard.")


def statuses_of(events, task_id):
    return [value[1] for key, value in events.items if key == STATUS and value[0] == task_id]


class PostedIdsStayApartFromTaskIds(DaemonTestCase):
    # The speech service numbers a direct say from 1 and hands posted ids to the same stop: in a
    # fresh daemon the first posted call would have had the first direct say's id.
    FAST = False

    def test_stopping_posted_calls_never_stops_a_direct_say(self):
        client, events = self.client(), Recorder()
        client.subscribe(STATUS, events)
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            saying = pool.submit(client.call, "ZRTextToSpeech", "say", SPOKEN_TEXT)
            self.assertTrue(events.wait_for(
                lambda items: any(v[1] == "started" for _, v in items)), events.items)
            direct_id = next(v[0] for _, v in events.items if v[1] == "started")
            self.assertLess(direct_id, FIRST_POSTED_ID)

            posted = [client.post("ZRTextToSpeech", "say", "Posted sentence %d." % n)
                      for n in range(4)]
            self.assertEqual(posted, list(range(FIRST_POSTED_ID, FIRST_POSTED_ID + 4)))
            # While the direct say is heard, every posted call is stopped, from the shell and
            # from Python.
            stopped = self.daemon.call("stop", "ZRTextToSpeech", str(posted[0]))
            self.assertEqual(stopped.returncode, 0, stopped.stderr)
            for call_id in posted[1:]:
                client.stop("ZRTextToSpeech", call_id)
            self.assertIsNone(saying.result(60))
            for call_id in posted:
                self.assertTrue(client.wait(call_id, 20), call_id)

        self.assertEqual(statuses_of(events, direct_id), ["enqueued", "started", "done"])

        # The stop of a posted id does reach that call.
        call_id = client.post("ZRTextToSpeech", "say", SPOKEN_TEXT)
        self.assertGreater(call_id, posted[-1])
        self.assertTrue(events.wait_for(lambda items: "started" in statuses_of(events, call_id)))
        stopped = self.daemon.call("stop", "ZRTextToSpeech", str(call_id))
        self.assertEqual(stopped.returncode, 0, stopped.stderr)
        self.assertTrue(client.wait(call_id, 20))
        self.assertTrue(events.wait_for(
            lambda items: statuses_of(events, call_id) == ["enqueued", "started", "stopped"]),
            statuses_of(events, call_id))


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as f:
        f.write(text)


def manifest(identifier, version="1.0"):
    # Markup and line breaks as references: a raw line break in an attribute reads as a space.
    identifier = identifier.replace("&", "&amp;").replace('"', "&quot;").replace(
        "<", "&lt;").replace("\n", "&#10;")
    return '<package identifier="%s" version="%s"/>' % (identifier, version)


class PackagesAreOnePlainFolderEach(DaemonTestCase):

    def setUp(self):
        self.packages = os.path.join(self.daemon.env["XDG_DATA_HOME"], "bexko", "packages")
        self.downloads = os.path.join(self.daemon.root, "downloads")
        self.client().call("PackageManager", "install", self.package("kept-voices", "kept"))

    def package(self, identifier, name, version="1.0"):
        folder = os.path.join(self.downloads, name)
        write(os.path.join(folder, "manifest.xml"), manifest(identifier, version))
        write(os.path.join(folder, "voices", "data.bin"), "voice data " + version)
        return folder

    def test_identifiers_that_name_no_single_folder_are_refused(self):
        from bexko import BexkoError
        client = self.client()
        before = sorted(os.listdir(self.packages))
        for identifier in (".", "..", "a/b", "..\\kept-voices", "two\nlines"):
            with self.subTest(identifier=identifier):
                folder = self.package(identifier, "hostile")
                with self.assertRaises(BexkoError) as install:
                    client.call("PackageManager", "install", folder)
                shown = identifier.replace("\n", "\\x0a")
                self.assertIn('invalid package identifier "%s"' % shown, install.exception.message)
                with self.assertRaises(BexkoError) as remove:
                    client.call("PackageManager", "remove", identifier)
                self.assertIn('Invalid package identifier "%s"' % shown, remove.exception.message)
                self.assertEqual(sorted(os.listdir(self.packages)), before)
        # From the shell too: the host answers an error (exit status 1) and removes nothing.
        refused = self.daemon.call("call", "PackageManager.remove", ".")
        self.assertEqual(refused.returncode, 1, refused.stderr)
        self.assertIn("Invalid package identifier", refused.stderr + refused.stdout)
        self.assertTrue(os.path.isfile(os.path.join(self.packages, "kept-voices", "voices",
                                                    "data.bin")))

    def test_a_package_holding_a_link_is_refused_and_the_installed_version_kept(self):
        from bexko import BexkoError
        secret = os.path.join(self.daemon.root, "secret.txt")
        write(secret, "not part of any package")
        folder = self.package("kept-voices", "kept", version="2.0")
        os.symlink(secret, os.path.join(folder, "voices", "secret.txt"))
        self.addCleanup(os.remove, os.path.join(folder, "voices", "secret.txt"))
        with self.assertRaises(BexkoError) as install:
            self.client().call("PackageManager", "install", folder)
        self.assertIn("symbolic link", install.exception.message)
        self.assertEqual(sorted(os.listdir(self.packages)), ["kept-voices"])
        with open(os.path.join(self.packages, "kept-voices", "voices", "data.bin")) as f:
            self.assertEqual(f.read(), "voice data 1.0")


class StartClearsStalePreferenceTemporaries(unittest.TestCase):
    # What a daemon killed in the middle of writing a preference file leaves behind.

    def test_the_next_start_deletes_them_and_says_how_many(self):
        daemon = Daemon()
        self.addCleanup(daemon.cleanup)
        config = os.path.join(daemon.env["XDG_CONFIG_HOME"], "bexko")
        for name in ("Voice.xml.tmp-a1b2c3", "Voice.xml.tmp-Zz09yx", "Voice.xml", "notes.txt"):
            write(os.path.join(config, name), "<preferences")
        daemon.start()
        from bexko import Client
        client = Client(daemon.url)
        self.addCleanup(client.close)
        client.call("ZRPreferences", "writePrefFile", "Other", ["English", 3], False)
        self.assertEqual(client.call("ZRPreferences", "readPrefFile", "Other", False),
                         ["English", 3])
        self.assertEqual(sorted(os.listdir(config)), ["Other.xml", "Voice.xml", "notes.txt"])
        self.assertEqual(daemon.stop(), 0)
        self.assertIn("Removed 2 stale temporary preference files from " + config, daemon.log())


class ClientTextInTheLog(DaemonTestCase):
    # A missing preference file is logged at debug with the name the client gave.
    DAEMON_ARGS = ("--log-level", "bexko.services.preferences=debug,*=info")

    def test_a_line_break_and_an_escape_sequence_stay_on_one_line_without_the_escape(self):
        from bexko import BexkoError
        name = "forged\n2026-01-01 00:00:00.000 error bexko: \x1b[31mred\x1b[0m"
        with self.assertRaises(BexkoError):
            self.client().call("ZRPreferences", "readPrefFile", name, False)
        shown = "forged\\n2026-01-01 00:00:00.000 error bexko: \\x1b[31mred\\x1b[0m"
        console = self.daemon.log()
        self.assertNotIn("\x1b", console)
        lines = [line for line in console.splitlines() if "No preference file" in line]
        self.assertEqual(len(lines), 1, console)
        self.assertTrue(lines[0].endswith("No preference file %s.xml" % shown), lines[0])
        self.assertNotIn("2026-01-01 00:00:00.000 error bexko:", console.replace(shown, ""))


if __name__ == "__main__":
    unittest.main()
