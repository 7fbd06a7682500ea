#!/usr/bin/python3
"""How soon does a say start, and how soon does a stop end it, as a client sees them?

    BEXKO_BUILD_DIR=build /usr/bin/python3 bench/scenario_say_latency.py [rounds]

Starts the daemon of the build tree (engine paced in real time, no audio output, temporary
HOME/XDG folders, loopback) and, ROUNDS times (default 50), posts a long say through the
gateway and measures, from the client's side:
- request -> "started": from sending the post to receiving its ZRTextToSpeech/Status "started";
- stop -> interrupted say: 200 ms later, from sending stopAll to receiving the "stopped" status
  of the say that was speaking.
Prints p50, p99 and max of each. Bounded: every wait has a time-out.
"""

import os
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "integration"))
import bexkodaemon  # noqa: E402

SENTENCE = " ".join(["This sentence goes on for a while so that there is time to stop it."] * 4)


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(p * (len(ordered) - 1) + 0.5))]


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 50
    daemon = bexkodaemon.Daemon(fast=False).start()
    try:
        from bexko import Client
        statuses = {}
        arrived = threading.Condition()

        def on_status(_key, value):
            with arrived:
                statuses.setdefault(value[0], {})[value[1]] = time.perf_counter()
                arrived.notify_all()

        def wait_for(task, status, timeout=10.0):
            deadline = time.perf_counter() + timeout
            with arrived:
                while status not in statuses.get(task, {}):
                    left = deadline - time.perf_counter()
                    if left <= 0:
                        raise RuntimeError("task %s: no %r within %.0f s" % (task, status, timeout))
                    arrived.wait(left)
                return statuses[task][status]

        with Client(daemon.url) as client:
            client.subscribe("ZRTextToSpeech/Status", on_status)
            client.call("ZRTextToSpeech", "say", "Warm up.")
            started, stopped = [], []
            for _ in range(rounds):
                sent = time.perf_counter()
                task = client.post("ZRTextToSpeech", "say", SENTENCE)
                started.append((wait_for(task, "started") - sent) * 1000)
                time.sleep(0.2)
                sent = time.perf_counter()
                client.call("ZRTextToSpeech", "stopAll")
                stopped.append((wait_for(task, "stopped") - sent) * 1000)
                client.wait(task, timeout=10)
            for name, values in (("request -> \"started\"", started),
                                 ("stopAll -> \"stopped\"", stopped)):
                print("%-22s n=%3d  p50 %6.2f ms  p99 %6.2f ms  max %6.2f ms"
                      % (name, len(values), percentile(values, 0.5), percentile(values, 0.99),
                         max(values)))
    finally:
        print("daemon exit status %s" % daemon.stop())
        daemon.cleanup()


if __name__ == "__main__":
    main()
