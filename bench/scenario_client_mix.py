#!/usr/bin/python3
"""Sixteen WebSocket clients mixing every kind of call against one daemon.

    BEXKO_BUILD_DIR=build /usr/bin/python3 bench/scenario_client_mix.py [seconds] [clients]

Starts the daemon of the build tree (its own temporary HOME/XDG folders, loopback, a free port;
the engine paces speech in real time unless BEXKO_ENGINE_FAST=1 is set). Each of CLIENTS
(default 16) clients calls, at random for SECONDS (default 30): say, a posted say, the host's
stop of its own posted say, stopAll, setLanguage, getLanguage, setParameter and getParameter,
setVolume and getVolume, and _pause followed by _resume. A listener records every
"ZRTextToSpeech/Status" raise. Afterwards the scenario checks that every task that started ended
exactly once (done, stopped or thrown), that the service still speaks, and that the daemon
exits with status 0 and without a sanitizer report in its log; it prints the counts and exits
with status 1 when a check fails. Run it against a ThreadSanitizer or AddressSanitizer build
(BEXKO_BUILD_DIR=build-thread) to look for races in the daemon as clients would cause them.
"""

import collections
import os
import random
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "integration"))
import bexkodaemon  # noqa: E402

TERMINAL = ("done", "stopped", "thrown")


def client_loop(url, seed, until, counts, errors):
    from bexko import BexkoError, Client
    rng = random.Random(seed)
    with Client(url) as client:
        posted = []
        while time.time() < until:
            action = rng.choice(["say", "post", "stop", "stopAll", "language", "parameter",
                                 "volume", "pause"])
            try:
                if action == "say":
                    client.call("ZRTextToSpeech", "say", "Client %d says %d." % (seed, rng.randint(0, 99)),
                                timeout=60)
                elif action == "post":
                    posted.append(client.post("ZRTextToSpeech", "say", "Posted by %d." % seed))
                elif action == "stop" and posted:
                    client.stop("ZRTextToSpeech", posted.pop(rng.randrange(len(posted))))
                elif action == "stopAll":
                    client.call("ZRTextToSpeech", "stopAll", timeout=30)
                elif action == "language":
                    client.call("ZRTextToSpeech", "setLanguage", rng.choice(["English", "French"]),
                                timeout=60)
                    client.call("ZRTextToSpeech", "getLanguage", timeout=30)
                elif action == "parameter":
                    client.call("ZRTextToSpeech", "setParameter", "speed", rng.uniform(60, 300),
                                timeout=30)
                    client.call("ZRTextToSpeech", "getParameter", "speed", timeout=30)
                elif action == "volume":
                    client.call("ZRTextToSpeech", "setVolume", rng.uniform(0, 1), timeout=30)
                    client.call("ZRTextToSpeech", "getVolume", timeout=30)
                elif action == "pause":
                    client.call("ZRTextToSpeech", "_pause", timeout=30)
                    time.sleep(rng.uniform(0, 0.05))
                    client.call("ZRTextToSpeech", "_resume", timeout=30)
                counts[action] += 1
            except BexkoError as e:
                # A service error is an answer (a stopped say, a refused value): counted, not fatal.
                counts[action + " (error answer)"] += 1
            except Exception as e:  # noqa: BLE001 - a time-out or a lost connection is a failure
                errors.append("%s: %r" % (action, e))
                return
        for call_id in posted:
            client.wait(call_id, timeout=120)


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 30.0
    clients = int(sys.argv[2]) if len(sys.argv) > 2 else 16
    daemon = bexkodaemon.Daemon(fast=os.environ.get("BEXKO_ENGINE_FAST") == "1").start()
    failures = []
    try:
        from bexko import Client
        listener = Client(daemon.url)
        statuses = collections.defaultdict(list)
        lock = threading.Lock()

        def on_status(key, value):
            with lock:
                statuses[value[0]].append(value[1])

        listener.subscribe("ZRTextToSpeech/Status", on_status)
        counts = collections.Counter()
        errors = []
        until = time.time() + seconds
        threads = [threading.Thread(target=client_loop,
                                    args=(daemon.url, seed, until, counts, errors))
                   for seed in range(clients)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(timeout=seconds + 300)
        if any(thread.is_alive() for thread in threads):
            failures.append("a client did not finish")
        listener.call("ZRTextToSpeech", "_resume", timeout=30)
        listener.call("ZRTextToSpeech", "say", "Still speaking.", timeout=120)
        time.sleep(1.0)
        with lock:
            tasks = dict(statuses)
        started = [i for i, s in tasks.items() if "started" in s]
        unended = [i for i in started if not any(x in TERMINAL for x in tasks[i])]
        twice = [i for i, s in tasks.items() if sum(1 for x in s if x in TERMINAL) > 1]
        print("%d clients for %.0f s: %s" % (clients, seconds,
                                               ", ".join("%s %d" % kv for kv in sorted(counts.items()))))
        print("tasks started %d, ended %d, never ended %d, ended twice %d"
              % (len(started), len(started) - len(unended), len(unended), len(twice)))
        failures += ["client failure: " + e for e in errors]
        if unended:
            failures.append("tasks that never ended: %s" % unended[:10])
        if twice:
            failures.append("tasks that ended twice: %s" % twice[:10])
        listener.close()
    finally:
        status = daemon.stop(timeout=120)
        log = daemon.log()
        daemon.cleanup()
    reports = [line for line in log.splitlines()
               if "ThreadSanitizer" in line or "AddressSanitizer" in line
               or "LeakSanitizer" in line or "runtime error:" in line]
    print("daemon exit status %s, sanitizer reports %d" % (status, len(reports)))
    if status != 0:
        failures.append("daemon exit status %s" % status)
    if reports:
        failures.append("sanitizer reports:\n" + "\n".join(reports[:20]))
    for failure in failures:
        print("FAILED: " + failure)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
