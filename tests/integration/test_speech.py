# The speech service seen by remote clients: the events of a say, its signals, the published
# Python examples, and stopping a say from the same or another connection.

import concurrent.futures
import unittest

from bexkodaemon import DaemonTestCase, Recorder

STATUS = "ZRTextToSpeech/Status"
# Python examples of the published documentation that are not Python 3 (print statements,
# "//" comments).
NOT_PYTHON3 = {"getLanguage", "getParameter", "getAvailableVoices", "getVolume", "locale",
               "loadVoicePreference"}
# Python 3 examples that the host refuses: calls of methods the module does not publish, and
# voices this engine does not have.
NO_METHOD = 'Method not found: module "ZRTextToSpeech" has no method "%s"'
REFUSED = {"addToDictionary": (-32601, NO_METHOD % "AddToDictionary"),
           "_setDefaultVoice": (-32601, NO_METHOD % "setDefaultVoice"),
           "setVoice": (-32000, "Julie22Enhanced voice is not installed."),
           "setLanguageDefaultVoice": (-32000, "The voice Kenny22Enhanced is not installed")}


class SpeechService(DaemonTestCase):

    def test_a_say_raises_its_events_in_order(self):
        client, events = self.client(), Recorder()
        keys = ["TextDone", "TextStarted", "CurrentBookMark", "PositionOfCurrentWord",
                "CurrentWord", "CurrentSentence", "Status", "TextInterrupted"]
        for key in keys:
            client.subscribe("ZRTextToSpeech/" + key, events)
        call_id = client.post("ZRTextToSpeech", "say", "Hello big world")
        self.assertTrue(events.wait_for(lambda items: ("ZRTextToSpeech/CurrentSentence", "")
                                        in items))
        seen = [(k.split("/", 1)[1], v) for k, v in events.items]
        # Word events come between the start and the end of the sentence.
        self.assertEqual([(k, v) for k, v in seen if k not in ("PositionOfCurrentWord",
                                                               "CurrentBookMark")], [
            ("Status", [call_id, "enqueued"]), ("TextStarted", 1), ("TextDone", 0),
            ("Status", [call_id, "started"]), ("CurrentSentence", "Hello big world"),
            ("CurrentWord", "Hello"), ("CurrentWord", "big"), ("CurrentWord", "world"),
            ("Status", [call_id, "done"]), ("CurrentSentence", "")])
        positions = [v for k, v in seen if k == "PositionOfCurrentWord"]
        self.assertTrue(len(positions) == 3 and positions == sorted(set(positions)), positions)

        # Once unsubscribed, a key is no longer notified; the others still are.
        for key in keys[:-2]:
            client.unsubscribe("ZRTextToSpeech/" + key)
        events.items.clear()
        client.call("ZRTextToSpeech", "say", "One")
        self.assertTrue(events.wait_for(lambda items: any(v[1] == "done" for k, v in items
                                                          if k == STATUS)))
        self.assertEqual({k for k, _ in events.items}, {STATUS})

    def test_set_language_delivers_language_tts_with_the_locale(self):
        import bexko
        client, received, helper = self.client(), Recorder(), Recorder()
        client.connect("ZRTextToSpeech", "languageTTS", received)
        bexko.connect("ZRTextToSpeech", "languageTTS", helper, url=self.daemon.url)
        self.addCleanup(client.call, "ZRTextToSpeech", "setLanguage", "English")
        client.call("ZRTextToSpeech", "setLanguage", "French")
        for recorder in (received, helper):
            self.assertTrue(recorder.wait_for(lambda items: items == [("fr_FR",)]), recorder.items)

    def test_the_published_python3_examples_run_as_they_stand(self):
        import os
        os.environ["BEXKO_URL"] = self.daemon.url
        from bexko import BexkoError, ZRProxy, default_client
        docs = default_client().describe("ZRTextToSpeech")
        examples = [("module", e) for e in docs["examples"]] + [
            (m["name"], e) for m in docs["methods"] for e in m["examples"]]
        ran, not_python3, refused = set(), set(), set()
        for name, example in (x for x in examples if x[1]["language"] == "python"):
            try:
                code = compile(example["text"], "<example of %s>" % name, "exec")
            except SyntaxError:
                not_python3.add(name)
                continue
            with self.subTest(example=name):
                try:
                    exec(code, {"ZRProxy": ZRProxy})
                    ran.add(name)
                except BexkoError as e:
                    refused.add(name)
                    self.assertEqual((e.code, e.message), REFUSED.get(name))
        self.assertEqual(not_python3, NOT_PYTHON3)
        self.assertEqual(refused, set(REFUSED))
        self.assertLessEqual({"module", "say", "sayToFile", "setLanguage", "getVoice",
                              "getAvailableLanguages", "getSupportedLanguages", "setParameter",
                              "setVolume", "_setDefaultLanguage", "_loadDictionary"}, ran)


LONG_TEXT = ("This sentence is long on purpose, so that it is still being spoken when the test "
             "asks the host to stop it. It goes on and on about nothing in particular, the "
             "weather, the garden, the robot that reads it aloud, and the people who listen, "
             "for well over twenty seconds if nobody interrupts it.")


class StopSpeech(DaemonTestCase):
    # The engine runs at its real pace here, so that a long text really takes long.
    FAST = False

    def assert_stopped(self, events):
        self.assertTrue(events.wait_for(
            lambda items: [v[1] for _, v in items] == ["enqueued", "started", "stopped"]),
            events.items)

    # The long text lasts over twenty seconds: a say that ends within ten of the stop was cut.
    def test_a_posted_say_is_stopped_by_its_id_from_another_connection(self):
        speaker, stopper = self.client(), self.client()
        events, interrupted = Recorder(), Recorder()
        speaker.subscribe(STATUS, events)
        speaker.subscribe("ZRTextToSpeech/TextInterrupted", interrupted)
        call_id = speaker.post("ZRTextToSpeech", "say", LONG_TEXT)
        self.assertTrue(events.wait_for(
            lambda items: items[-1:] == [(STATUS, [call_id, "started"])]))
        self.assertTrue(speaker.is_running(call_id))
        stopper.stop("ZRTextToSpeech", call_id)
        self.assertTrue(speaker.wait(call_id, 10))
        self.assert_stopped(events)
        self.assertTrue(interrupted.wait_for(
            lambda items: ("ZRTextToSpeech/TextInterrupted", 1) in items))

    def test_stop_all_interrupts_an_earlier_say_of_the_same_connection(self):
        client, events = self.client(), Recorder()
        client.subscribe(STATUS, events)
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            saying = pool.submit(client.call, "ZRTextToSpeech", "say", LONG_TEXT)
            self.assertTrue(events.wait_for(lambda items: any(v[1] == "started" for _, v in items)))
            client.call("ZRTextToSpeech", "stopAll")
            self.assertIsNone(saying.result(10))
        self.assert_stopped(events)


if __name__ == "__main__":
    unittest.main()
