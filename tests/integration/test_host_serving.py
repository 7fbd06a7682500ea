# The host keeps serving whatever one client does: calls that wait for the speech service hold
# back neither other clients' reads and stops nor the order in which sentences are spoken.

import json
import time

import websocket

from bexkodaemon import DaemonTestCase, Recorder

STATUS = "ZRTextToSpeech/Status"
FIRST_POSTED_ID = 1000000000


class ServingWhileSaysWait(DaemonTestCase):

    def started_order(self, events, ids):
        wanted = set(ids)
        return [value[0] for _, value in events.items if value[1] == "started" and value[0] in wanted]

    def test_posted_says_are_spoken_in_posting_order(self):
        client, events = self.client(), Recorder()
        client.subscribe(STATUS, events)
        client.call("ZRTextToSpeech", "say", "Ready.")
        # Paused, the first say holds the service while every later one waits for its turn.
        client.call("ZRTextToSpeech", "_pause")
        ids = [client.post("ZRTextToSpeech", "say", "Sentence number %d." % n) for n in range(200)]
        self.assertTrue(events.wait_for(lambda items: len(self.started_order(events, ids)) >= 1))
        client.call("ZRTextToSpeech", "_resume")
        for call_id in ids:
            self.assertTrue(client.wait(call_id, 60), call_id)
        self.assertTrue(events.wait_for(lambda items: len(self.started_order(events, ids)) == 200))
        self.assertEqual(self.started_order(events, ids), ids)

    def test_other_clients_are_served_while_hundreds_of_says_wait(self):
        flooders = [self.client() for _ in range(2)]
        bystander, events = self.client(), Recorder()
        bystander.subscribe(STATUS, events)
        flooders[0].call("ZRTextToSpeech", "_pause")
        # More waiting calls than the host has threads for calls that wait.
        ids = []
        for n in range(300):
            flooder = flooders[n % 2]
            ids.append((flooder, flooder.post("ZRTextToSpeech", "say", "Waiting %d." % n)))
        self.assertTrue(events.wait_for(lambda items: any(v[1] == "started" for _, v in items)))
        time.sleep(0.5)  # every posted say has reached the service and waits
        # Liveness, not speed: before, these waited for minutes behind the blocked says.
        self.assertGreaterEqual(bystander.call("ZRTextToSpeech", "getVolume", timeout=5), 0.0)
        self.assertIsInstance(bystander.call("ZRMemory", "getDataList", "ZRTextToSpeech",
                                             timeout=5), list)
        self.assertIsNone(bystander.call("ZRTextToSpeech", "stopAll", timeout=5))

        # The flooding clients leave; what they left waiting ends, and the host still speaks.
        for flooder in flooders:
            flooder.close()
        bystander.call("ZRTextToSpeech", "_resume", timeout=5)
        self.assertTrue(events.wait_for(
            lambda items: sum(1 for _, v in items if v[1] in ("done", "stopped")) >= 300, 60))
        self.assertIsNone(bystander.call("ZRTextToSpeech", "say", "Still serving.", timeout=30))

    def test_direct_says_of_a_client_that_leaves_are_dropped_unspoken(self):
        bystander, events = self.client(), Recorder()
        bystander.subscribe(STATUS, events)
        bystander.call("ZRTextToSpeech", "_pause")
        # A client sends direct says without waiting for their answers, then goes away: the
        # first holds the paused service, the others wait behind it or have not started.
        leaver = websocket.create_connection(self.daemon.url, timeout=5)
        for n in range(400):
            leaver.send(json.dumps({"jsonrpc": "2.0", "id": n, "method": "ZRTextToSpeech.say",
                                    "params": ["Abandoned %d." % n]}))
        self.assertTrue(events.wait_for(lambda items: any(v[1] == "started" for _, v in items)))
        time.sleep(0.5)
        leaver.close()
        time.sleep(0.5)
        bystander.call("ZRTextToSpeech", "_resume", timeout=5)
        self.assertIsNone(bystander.call("ZRTextToSpeech", "say", "Still serving.", timeout=30))
        # Only the say that had the service when its client left was spoken; the log says why
        # the rest were not.
        def started():
            return [v for _, v in events.items if v[1] == "started"]
        # Events arrive on their own path, possibly after the say's answer.
        self.assertTrue(events.wait_for(lambda items: len(started()) >= 2))
        time.sleep(0.3)
        self.assertEqual(len(started()), 2, started())
        self.assertIn("its direct calls that have not started are dropped", self.daemon.log())


if __name__ == "__main__":
    import unittest
    unittest.main()
