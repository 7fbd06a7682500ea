"""A connection to a running bexko host: calls, posted calls, memory events and signals.

One background thread reads the WebSocket and wakes the callers waiting for answers; a second
one runs the callbacks of memory events and signals in arrival order, so that a callback may
itself call the host.
"""

import itertools
import json
import os
import queue
import threading

import websocket

DEFAULT_URL = "ws://127.0.0.1:9559"


class BexkoError(Exception):
    """An error answered by the host. For a failure of a module method, `module`, `method` and
    `description` say where it came from."""

    def __init__(self, code, message, data=None):
        super().__init__(message)
        self.code = code
        self.message = message
        self.data = data

    def _field(self, name):
        return self.data.get(name) if isinstance(self.data, dict) else None

    @property
    def module(self):
        return self._field("module")

    @property
    def method(self):
        return self._field("method")

    @property
    def description(self):
        return self._field("description")


class BexkoConnectionError(ConnectionError):
    """The host cannot be reached, or the connection ended."""


class _Pending:
    __slots__ = ("event", "result", "error")

    def __init__(self):
        self.event = threading.Event()
        self.result = None
        self.error = None


def default_url():
    """The host's address: $BEXKO_URL, else ws://127.0.0.1:9559."""
    return os.environ.get("BEXKO_URL") or DEFAULT_URL


def token_path():
    """Where a host started by this account leaves its access token:
    $XDG_RUNTIME_DIR/bexko/token, or /tmp/bexko-UID/token when that variable is unset."""
    runtime = os.environ.get("XDG_RUNTIME_DIR", "")
    folder = os.path.join(runtime, "bexko") if runtime.startswith("/") else \
        "/tmp/bexko-%d" % os.geteuid()
    return os.path.join(folder, "token")


def default_token():
    """$BEXKO_TOKEN, else the token that the host of this account left in token_path(), else
    None."""
    token = os.environ.get("BEXKO_TOKEN")
    if token:
        return token
    try:
        with open(token_path(), encoding="ascii") as f:
            return f.read().strip() or None
    except OSError:
        return None


class Client:
    """A connection to the host at `url` (default: default_url()). `token` (default:
    default_token()) is presented when the host requires one."""

    def __init__(self, url=None, token=None, connect_timeout=5.0):
        self.url = url or default_url()
        token = token if token is not None else default_token()
        headers = ["Authorization: Bearer " + token] if token else []
        try:
            self._ws = websocket.create_connection(self.url, timeout=connect_timeout,
                                                   header=headers)
        except Exception as e:  # websocket, socket and handshake errors alike
            raise BexkoConnectionError("cannot connect to %s: %s" % (self.url, e)) from None
        self._ws.settimeout(None)
        self._send_lock = threading.Lock()
        self._lock = threading.Lock()
        self._ids = itertools.count(1)
        self._pending = {}
        self._posted = {}          # call id -> _Pending of a posted call
        self._subscriptions = {}   # key -> [callback]
        self._connections = {}     # (service, signal) -> [callback]
        self._closed = False
        self._close_reason = None
        self._callbacks = queue.Queue()
        self._reader = threading.Thread(target=self._read_loop, name="bexko-reader", daemon=True)
        self._dispatcher = threading.Thread(target=self._dispatch_loop, name="bexko-callbacks",
                                            daemon=True)
        self._reader.start()
        self._dispatcher.start()

    # Requests ---------------------------------------------------------------------------------

    def request(self, method, params=None, timeout=None):
        """Sends one JSON-RPC request and returns its result; raises BexkoError for an error
        answer, BexkoConnectionError when the connection is lost and TimeoutError after
        `timeout` seconds (None: wait as long as the call takes)."""
        pending = _Pending()
        with self._lock:
            if self._closed:
                raise BexkoConnectionError(self._close_reason or "the connection is closed")
            request_id = next(self._ids)
            self._pending[request_id] = pending
        message = {"jsonrpc": "2.0", "id": request_id, "method": method}
        if params is not None:
            message["params"] = params
        try:
            self._send(json.dumps(message))
            if not pending.event.wait(timeout):
                raise TimeoutError("no answer to %s within %s s" % (method, timeout))
        finally:
            with self._lock:
                self._pending.pop(request_id, None)
        if pending.error is not None:
            raise pending.error
        return pending.result

    def call(self, module, method, *args, timeout=None):
        """Calls `module.method(*args)` on the host and returns its result."""
        return self.request("%s.%s" % (module, method), list(args), timeout)

    def post(self, module, method, *args):
        """Starts `module.method(*args)` without waiting; returns its call id."""
        # The host answers the id before it reports the end of the call, and the reader
        # records that end under the same lock, so no completion is ever missed.
        answer = self.request("bexko.post", {"module": module, "method": method,
                                             "args": list(args)})
        call_id = answer["id"]
        with self._lock:
            self._posted.setdefault(call_id, _Pending())
        return call_id

    def wait(self, call_id, timeout=None):
        """Waits for a posted call; True when it has ended within `timeout` seconds."""
        with self._lock:
            pending = self._posted.setdefault(call_id, _Pending())
        return pending.event.wait(timeout)

    def result(self, call_id, timeout=None):
        """The result of a posted call, waiting for it; raises its error."""
        if not self.wait(call_id, timeout):
            raise TimeoutError("call %d still running after %s s" % (call_id, timeout))
        with self._lock:
            pending = self._posted.pop(call_id)
        if pending.error is not None:
            raise pending.error
        return pending.result

    def is_running(self, call_id):
        with self._lock:
            pending = self._posted.get(call_id)
        return pending is not None and not pending.event.is_set()

    def stop(self, module, call_id):
        """Stops a posted call of `module` (the host's stop by call id)."""
        return self.request("bexko.stop", {"module": module, "id": call_id})

    def modules(self):
        return self.request("bexko.modules")

    def describe(self, module):
        """The published documentation of `module`: its methods, signals and event keys."""
        return self.request("bexko.describe", {"module": module})

    def keys(self):
        """The keys of the host's event store, in name order, each as {"key", "module",
        "description"}: the module that documents it (None when none does) and what it says."""
        return self.request("bexko.keys")

    def version(self):
        """The version of the host."""
        return self.request("bexko.version")

    # Events and signals -------------------------------------------------------------------------

    def subscribe(self, key, callback):
        """Calls `callback(key, value)` for every raise of the memory key `key`."""
        with self._lock:
            callbacks = self._subscriptions.setdefault(key, [])
            first = not callbacks
            callbacks.append(callback)
        if first:
            try:
                self.request("bexko.subscribe", {"key": key})
            except Exception:
                with self._lock:
                    self._subscriptions.get(key, []).remove(callback)
                raise

    def unsubscribe(self, key, callback=None):
        """Removes `callback` (every callback when None) from `key`."""
        with self._lock:
            callbacks = self._subscriptions.get(key, [])
            if callback is None:
                callbacks.clear()
            elif callback in callbacks:
                callbacks.remove(callback)
            last = not callbacks
            if last:
                self._subscriptions.pop(key, None)
        if last:
            self.request("bexko.unsubscribe", {"key": key})

    def connect(self, service, signal, callback):
        """Calls `callback(*args)` for every emission of `signal` of the session service or
        module `service`."""
        with self._lock:
            callbacks = self._connections.setdefault((service, signal), [])
            first = not callbacks
            callbacks.append(callback)
        if first:
            try:
                self.request("bexko.connect", {"service": service, "signal": signal})
            except Exception:
                with self._lock:
                    self._connections.get((service, signal), []).remove(callback)
                raise

    def disconnect(self, service, signal):
        with self._lock:
            self._connections.pop((service, signal), None)
        self.request("bexko.disconnect", {"service": service, "signal": signal})

    # Life cycle -----------------------------------------------------------------------------------

    def close(self):
        """Closes the connection; waiting callers get BexkoConnectionError."""
        with self._lock:
            if self._closed:
                return
        try:
            with self._send_lock:
                self._ws.send_close()
        except Exception:
            pass
        self._reader.join(2.0)
        try:
            self._ws.shutdown()
        except Exception:
            pass
        self._fail_all("the connection is closed")
        self._reader.join(1.0)

    @property
    def closed(self):
        with self._lock:
            return self._closed

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # Inside ----------------------------------------------------------------------------------------

    def _send(self, text):
        try:
            with self._send_lock:
                self._ws.send(text)
        except Exception as e:
            self._fail_all("connection lost: %s" % e)
            raise BexkoConnectionError("connection lost: %s" % e) from None

    def _read_loop(self):
        reason = "the host closed the connection"
        try:
            while True:
                opcode, data = self._ws.recv_data(control_frame=False)
                if opcode == websocket.ABNF.OPCODE_CLOSE:
                    if len(data) >= 2:
                        code = int.from_bytes(data[:2], "big")
                        reason = "the host closed the connection (%d %s)" % (
                            code, data[2:].decode("utf-8", "replace"))
                    break
                if opcode != websocket.ABNF.OPCODE_TEXT:
                    continue
                message = json.loads(data.decode("utf-8"))
                # The answer to a batch is an array of answers.
                for one in message if isinstance(message, list) else [message]:
                    self._handle(one)
        except Exception as e:
            with self._lock:
                if not self._closed:
                    reason = "connection lost: %s" % e
        self._fail_all(reason)

    def _handle(self, message):
        if "method" in message and "id" not in message:
            self._notification(message["method"], message.get("params") or {})
            return
        with self._lock:
            pending = self._pending.get(message.get("id"))
        if pending is None:
            return
        if "error" in message:
            error = message["error"] or {}
            pending.error = BexkoError(error.get("code"), error.get("message", ""),
                                       error.get("data"))
        else:
            pending.result = message.get("result")
        pending.event.set()

    def _notification(self, method, params):
        if method == "bexko.done":
            with self._lock:
                pending = self._posted.setdefault(params.get("id"), _Pending())
            if "error" in params:
                error = params["error"] or {}
                pending.error = BexkoError(error.get("code"), error.get("message", ""),
                                           error.get("data"))
            else:
                pending.result = params.get("result")
            pending.event.set()
        elif method == "bexko.event":
            key = params.get("key")
            with self._lock:
                callbacks = list(self._subscriptions.get(key, []))
            for callback in callbacks:
                self._callbacks.put((callback, (key, params.get("value"))))
        elif method == "bexko.signal":
            with self._lock:
                callbacks = list(self._connections.get((params.get("service"),
                                                        params.get("signal")), []))
            for callback in callbacks:
                self._callbacks.put((callback, tuple(params.get("args") or [])))

    def _dispatch_loop(self):
        while True:
            item = self._callbacks.get()
            if item is None:
                return
            callback, args = item
            try:
                callback(*args)
            except Exception as e:  # a callback's failure must not stop the others
                import traceback
                traceback.print_exc()

    def _fail_all(self, reason):
        with self._lock:
            if self._closed:
                return
            self._closed = True
            self._close_reason = reason
            pending = list(self._pending.values())
            posted = [p for p in self._posted.values() if not p.event.is_set()]
        error = BexkoConnectionError(reason)
        for p in pending + posted:
            p.error = error
            p.event.set()
        self._callbacks.put(None)
