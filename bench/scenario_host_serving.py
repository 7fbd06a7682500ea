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
which the posted says started (adjacent inversions). Then WAITING direct says are sent over four
connections that close while the says wait: the scenario reports how long after the resume a
bystander's say ends (the host drops the calls of a closed connection, so it is one sentence).

Then two resource bounds: 300 idle TCP connections are opened (the daemon admits 256 at most,
as the bystander's own count among them) and the scenario reports how many were closed at once
and how long the bystander's getVolume took meanwhile; and 8 clients subscribe to a key and
never read while a client raises 64 KiB values on it: the scenario reports the daemon's
resident memory before and after, and how many of the 8 it disconnected.
Bounded: every wait has a time-out; nothing leaves the machine.
"""

import json
import os
import socket
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


def rss_mb(pid):
    with open("/proc/%d/status" % pid) as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024.0
    return -1.0


def leaving_direct_callers(daemon, bystander, count):
    # Direct (not posted) says whose clients leave while they wait: the host drops them, so the
    # service is free again as soon as the sentence it was speaking ends.
    import websocket
    bystander.call("ZRTextToSpeech", "_pause")
    sockets = [websocket.create_connection(daemon.url, timeout=10) for _ in range(4)]
    for i in range(count):
        sockets[i * len(sockets) // count].send(json.dumps(
            {"jsonrpc": "2.0", "id": i, "method": "ZRTextToSpeech.say",
             "params": ["Abandoned sentence %d." % i]}))
    time.sleep(1.0)
    for ws in sockets:
        ws.close()
    time.sleep(0.5)
    t0 = time.perf_counter()
    bystander.call("ZRTextToSpeech", "_resume")
    bystander.call("ZRTextToSpeech", "say", "After the leavers.", timeout=120)
    print("%d direct says whose clients left: the bystander's say ended %.0f ms after the resume"
          % (count, (time.perf_counter() - t0) * 1000))


def idle_connections(daemon, bystander, count=300):
    host, port = daemon.url[len("ws://"):].rsplit(":", 1)
    sockets = []
    for _ in range(count):
        try:
            sockets.append(socket.create_connection((host, int(port)), timeout=5))
        except OSError:
            break
    time.sleep(0.5)
    closed = 0
    for sock in sockets:
        sock.settimeout(0.01)
        try:
            if sock.recv(1) == b"":
                closed += 1
        except socket.timeout:
            pass
        except OSError:
            closed += 1
    t0 = time.perf_counter()
    bystander.call("ZRTextToSpeech", "getVolume", timeout=10)
    served = (time.perf_counter() - t0) * 1000
    for sock in sockets:
        sock.close()
    print("%d idle connections opened: %d closed by the daemon at once; bystander getVolume "
          "meanwhile %.1f ms" % (len(sockets), closed, served))


def silent_readers(daemon, writer, count=8, seconds=10):
    import websocket
    readers = []
    for n in range(count):
        ws = websocket.create_connection(daemon.url, timeout=5)
        ws.send(json.dumps({"jsonrpc": "2.0", "id": 1, "method": "bexko.subscribe",
                            "params": {"key": "Scenario/Flood"}}))
        readers.append(ws)
    time.sleep(0.5)
    before = rss_mb(daemon.process.pid)
    value = "x" * 65536
    deadline = time.time() + seconds
    raised = 0
    while time.time() < deadline:
        writer.call("ZRMemory", "raiseEvent", "Scenario/Flood", value, timeout=10)
        raised += 1
    peak = rss_mb(daemon.process.pid)
    dropped = 0
    for ws in readers:
        # What the kernel still holds is read; then the daemon's close frame (or a reset) ends
        # the connection, unless the daemon kept it, in which case the read times out.
        try:
            ws.settimeout(2)
            while ws.recv():
                pass
            dropped += 1
        except websocket.WebSocketTimeoutException:
            pass
        except (websocket.WebSocketConnectionClosedException, OSError):
            dropped += 1
        ws.close()
    print("%d clients that never read, %d raises of 64 KiB (%.0f MiB per client): daemon RSS "
          "%.0f MB before, %.0f MB after; %d of them disconnected"
          % (count, raised, raised * 64 / 1024.0, before, peak, dropped))


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
        for client in flooders:
            client.close()
        leaving_direct_callers(daemon, bystander, waiting)
        idle_connections(daemon, bystander)
        silent_readers(daemon, bystander)
        bystander.close()
    finally:
        status = daemon.stop()
        print("daemon exit status %s" % status)
        if status != 0:
            print(daemon.log()[-3000:])
        daemon.cleanup()


if __name__ == "__main__":
    main()
