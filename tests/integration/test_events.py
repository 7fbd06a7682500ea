"""A memory subscription shows the full event sequence of a say."""

import unittest

from bexkodaemon import DaemonTestCase, Recorder

KEYS = ["ZRTextToSpeech/TextDone", "ZRTextToSpeech/TextStarted",
        "ZRTextToSpeech/CurrentBookMark", "ZRTextToSpeech/PositionOfCurrentWord",
        "ZRTextToSpeech/CurrentWord", "ZRTextToSpeech/CurrentSentence",
        "ZRTextToSpeech/Status", "ZRTextToSpeech/TextInterrupted"]


def short(key):
    return key.split("/", 1)[1]


class SayEventSequence(DaemonTestCase):

    def test_a_say_raises_its_events_in_order(self):
        client = self.client()
        events = Recorder()
        for key in KEYS:
            client.subscribe(key, events)
        call_id = client.post("ZRTextToSpeech", "say", "Hello big world")
        client.result(call_id, 30)
        self.assertTrue(events.wait_for(
            lambda items: (KEYS[5], "") in items and
            any(k == KEYS[6] and v[1] == "done" for k, v in items)))
        seen = [(short(k), v) for k, v in events.items]
        status = [v for k, v in seen if k == "Status"]
        self.assertEqual(status, [[call_id, "enqueued"], [call_id, "started"], [call_id, "done"]])
        # Everything but the word events, in the order the service raises them.
        outline = [(k, v) for k, v in seen
                   if k not in ("PositionOfCurrentWord", "CurrentWord", "CurrentBookMark")]
        self.assertEqual(outline, [
            ("Status", [call_id, "enqueued"]),
            ("TextStarted", 1),
            ("TextDone", 0),
            ("Status", [call_id, "started"]),
            ("CurrentSentence", "Hello big world"),
            ("Status", [call_id, "done"]),
            ("CurrentSentence", ""),
        ])
        words = [v for k, v in seen if k == "CurrentWord"]
        self.assertEqual(words, ["Hello", "big", "world"])
        positions = [v for k, v in seen if k == "PositionOfCurrentWord"]
        self.assertEqual(len(positions), 3)
        self.assertEqual(positions, sorted(positions))
        # Word events come between the start and the end of the sentence.
        started = seen.index(("Status", [call_id, "started"]))
        done = seen.index(("Status", [call_id, "done"]))
        for i, (k, _) in enumerate(seen):
            if k == "CurrentWord":
                self.assertTrue(started < i < done)

    def test_unsubscribing_stops_the_notifications(self):
        client = self.client()
        events = Recorder()
        client.subscribe("ZRTextToSpeech/Status", events)
        client.unsubscribe("ZRTextToSpeech/Status")
        marker = Recorder()
        client.subscribe("ZRTextToSpeech/CurrentSentence", marker)
        client.call("ZRTextToSpeech", "say", "One")
        self.assertTrue(marker.wait_for(lambda items: ("ZRTextToSpeech/CurrentSentence", "")
                                        in items))
        self.assertEqual(events.items, [])


if __name__ == "__main__":
    unittest.main()
