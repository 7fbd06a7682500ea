#!/usr/bin/python3
"""Does the host keep serving while one client floods it with calls that wait?

    BEXKO_BUILD_DIR=build /usr/bin/python3 bench/scenario_host_serving.py [waiting-says]

Starts the daemon of the build tree (fast engine, its own temporary HOME/XDG folders, loopback,
a free port), pauses the speech service, and has one client post WAITING says (default 1000)
over four connections (each connection takes at most 256 calls in progress). Every one of them
waits for the speech service's lock. A bystander client then calls getVolume, stopAll and
ZRMemory.getDataList 50 times each and the scenario prints how long each answer took (p50,
p99, max). Then the flooding client resumes the service, stops everything and disconnects,
and the scenario reports how long the daemon took to have no waiting say left, the order in
which the posted says started (adjacent inversions), and that the daemon exits with status 0.
Bounded: every wait has a time-out; nothing leaves the machine.
"""

import os
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "integration"))
import bexkodaemon  # noqa: E402


def percentiles(values):
    values = sorted(values)
    pick = lambda q: values[min(len(values) - 1, int(q * len(values)))]
    return "p50 %6.1f ms  p99 %6.1f ms  max %6.1f ms" % (pick(0.5), pick(0.99), values[-1])


def main():
    waiting = int(sys.argv[1]) if len(sys.argv) > 1 else 1000
    daemon = bexkodaemon.Daemon().start()
    try:
        from bexko import Client
        flooders = [Client(daemon.url) for _ in range(4)]
        bystander = Client(daemon.url)
        started = []
        lock = threading.Lock()

        def on_status(key, value):
            if value[1] == "started":
                with lock:
                    started.append(value[0])

        bystander.subscribe("ZRTextToSpeech/Status", on_status)
        bystander.call("ZRTextToSpeech", "say", "Warm up.")
        flooders[0].call("ZRTextToSpeech", "_pause")
        ids = []
        for i in range(waiting):
            client = flooders[i * len(flooders) // waiting]
            ids.append((client, client.post("ZRTextToSpeech", "say", "Waiting sentence %d." % i)))
        time.sleep(1.0)
        print("%d says waiting for the speech service, posted over %d connections"
              % (len(ids), len(flooders)))
        for name, call in (
                ("getVolume", lambda: bystander.call("ZRTextToSpeech", "getVolume", timeout=60)),
                ("stopAll", lambda: bystander.call("ZRTextToSpeech", "stopAll", timeout=60)),
                ("ZRMemory.getDataList",
                 lambda: bystander.call("ZRMemory", "getDataList", "ZRTextToSpeech", timeout=60))):
            times = []
            for _ in range(50):
                t0 = time.perf_counter()
                call()
                times.append((time.perf_counter() - t0) * 1000)
            print("bystander %-22s %s" % (name, percentiles(times)))

        # The stopAll calls above stopped the sentence that was being spoken; the rest wait for
        # the lock, then speak in the order they were posted once the service resumes.
        flooders[0].call("ZRTextToSpeech", "_resume")
        t0 = time.perf_counter()
        deadline = time.time() + 120
        for client, i in ids:
            client.wait(i, timeout=max(0.1, deadline - time.time()))
        print("all %d posted says ended %.1f s after the resume" % (len(ids), time.perf_counter() - t0))
        time.sleep(0.5)
        with lock:
            order = [s for s in started if s >= 1000000000]
        inversions = sum(1 for a, b in zip(order, order[1:]) if a > b)
        print("posted says started: %d, adjacent inversions of posting order: %d"
              % (len(order), inversions))
        if inversions and os.environ.get("SCENARIO_VERBOSE"):
            print([(a, b) for a, b in zip(order, order[1:]) if a > b])
        for client in flooders + [bystander]:
            client.close()
    finally:
        status = daemon.stop()
        print("daemon exit status %s" % status)
        if status != 0:
            print(daemon.log()[-3000:])
        daemon.cleanup()


if __name__ == "__main__":
    main()
