"""Stopping speech: a posted say stopped by its id from a second connection, and a stopAll
interrupting a say sent earlier on the same connection. The engine runs at its real pace here,
so that a long text really takes long."""

import threading
import time
import unittest

from bexkodaemon import DaemonTestCase, Recorder

LONG_TEXT = ("This sentence is long on purpose, so that it is still being spoken when the test "
             "asks the host to stop it. It goes on and on about nothing in particular, the "
             "weather, the garden, the robot that reads it aloud, and the people who listen, "
             "for well over twenty seconds if nobody interrupts it.")


class StopSpeech(DaemonTestCase):
    FAST = False

    def started(self, events, call_id):
        return events.wait_for(lambda items: ("ZRTextToSpeech/Status", [call_id, "started"])
                               in items)

    def test_a_posted_say_is_stopped_by_its_id_from_another_connection(self):
        speaker, stopper = self.client(), self.client()
        events = Recorder()
        speaker.subscribe("ZRTextToSpeech/Status", events)
        interrupted = Recorder()
        speaker.subscribe("ZRTextToSpeech/TextInterrupted", interrupted)
        began = time.monotonic()
        call_id = speaker.post("ZRTextToSpeech", "say", LONG_TEXT)
        self.assertTrue(self.started(events, call_id))
        self.assertTrue(speaker.is_running(call_id))
        stopper.stop("ZRTextToSpeech", call_id)
        self.assertTrue(speaker.wait(call_id, 10))
        self.assertLess(time.monotonic() - began, 15)
        self.assertTrue(events.wait_for(
            lambda items: ("ZRTextToSpeech/Status", [call_id, "stopped"]) in items))
        self.assertTrue(interrupted.wait_for(
            lambda items: ("ZRTextToSpeech/TextInterrupted", 1) in items))
        self.assertNotIn(("ZRTextToSpeech/Status", [call_id, "done"]), events.items)

    def test_stop_all_interrupts_an_earlier_say_of_the_same_connection(self):
        client = self.client()
        events = Recorder()
        client.subscribe("ZRTextToSpeech/Status", events)
        outcome = {}

        def speak():
            began = time.monotonic()
            try:
                outcome["result"] = client.call("ZRTextToSpeech", "say", LONG_TEXT)
            except Exception as e:
                outcome["error"] = e
            outcome["seconds"] = time.monotonic() - began

        speaking = threading.Thread(target=speak)
        speaking.start()
        self.assertTrue(events.wait_for(
            lambda items: any(v[1] == "started" for _, v in items)))
        client.call("ZRTextToSpeech", "stopAll")
        speaking.join(10)
        self.assertFalse(speaking.is_alive(), "say still running after stopAll")
        self.assertNotIn("error", outcome)
        self.assertLess(outcome["seconds"], 15)
        self.assertTrue(events.wait_for(lambda items: any(v[1] == "stopped" for _, v in items)))
        self.assertFalse(any(v[1] == "done" for _, v in events.items))


if __name__ == "__main__":
    unittest.main()
