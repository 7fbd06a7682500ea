# What a careless or hostile client can do to the host, seen from outside: calls that must not
# reach other clients' work, inputs that must not damage the host's folders, loops that must not
# run away, and text that must not break the log.

import concurrent.futures
import unittest

from bexkodaemon import DaemonTestCase, Recorder

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


if __name__ == "__main__":
    unittest.main()
