#!/usr/bin/python3
"""Do the host's threads come back after a burst of posted calls?

    BEXKO_BUILD_DIR=build /usr/bin/python3 bench/scenario_thread_return.py [posted-calls]

Starts the daemon of the build tree (fast engine, temporary HOME/XDG folders, loopback), reads
its thread count when idle, pauses the speech service and posts POSTED-CALLS says (default 1000)
so that the host's pool grows to its cap, resumes, waits for every say to end, and then prints
the thread count every half second until it is back to the idle count (or 30 s have passed):
the seconds that took, and the peak.
"""

import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "integration"))
import bexkodaemon  # noqa: E402


def threads(pid):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith("Threads:"):
                return int(line.split()[1])
    return -1


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 1000
    daemon = bexkodaemon.Daemon().start()
    try:
        from bexko import Client
        # A connection has at most 256 calls in progress: the burst comes over several.
        posters = [Client(daemon.url) for _ in range(4)]
        with Client(daemon.url) as client:
            # A small burst first, so that the pool holds the threads it keeps when idle.
            client.call("ZRTextToSpeech", "_pause")
            warm = [client.post("ZRTextToSpeech", "say", "Warm up %d." % i) for i in range(16)]
            time.sleep(0.5)
            client.call("ZRTextToSpeech", "_resume")
            for call_id in warm:
                client.wait(call_id, timeout=60)
            time.sleep(4)
            idle = threads(daemon.process.pid)
            client.call("ZRTextToSpeech", "_pause")
            ids = []
            for i in range(count):
                poster = posters[i * len(posters) // count]
                ids.append((poster, poster.post("ZRTextToSpeech", "say", "Burst %d." % i)))
            time.sleep(1.0)
            peak = threads(daemon.process.pid)
            client.call("ZRTextToSpeech", "_resume")
            for poster, call_id in ids:
                poster.wait(call_id, timeout=120)
            t0 = time.perf_counter()
            print("idle %d threads; %d posted says: peak %d threads" % (idle, count, peak))
            while True:
                now = threads(daemon.process.pid)
                elapsed = time.perf_counter() - t0
                if now <= idle or elapsed > 30:
                    break
                time.sleep(0.5)
            print("back to %d threads %.1f s after the last say ended%s"
                  % (now, elapsed, "" if now <= idle else " (NOT back to the idle count)"))
        for poster in posters:
            poster.close()
    finally:
        print("daemon exit status %s" % daemon.stop())
        daemon.cleanup()


if __name__ == "__main__":
    main()
