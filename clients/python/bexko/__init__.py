"""Python client of the bexko host.

    from bexko import ZRProxy
    tts = ZRProxy("ZRTextToSpeech")
    tts.say("Hello World!")

Attribute calls of a ZRProxy go to the module of that name on the host (default address
$BEXKO_URL, else ws://127.0.0.1:9559), so that the Python examples of each module's published
documentation run as they stand. `proxy.post.say(...)` starts a call without waiting and returns
its id; `proxy.stop(id)`, `proxy.wait(id, timeout_ms)` and `proxy.isRunning(id)` act on it.
`subscribe(key, callback)` follows a memory key, `connect(service, signal, callback)` a signal.
"""

import atexit
import inspect
import keyword
import threading

# The version of the bexko release this client belongs to (the daemon's `bexko --version`).
__version__ = "0.1.0"

from .client import (DEFAULT_URL, BexkoConnectionError, BexkoError, Client,  # noqa: F401
                     default_url)

__all__ = ["ZRProxy", "Client", "BexkoError", "BexkoConnectionError", "DEFAULT_URL",
           "default_url", "default_client", "subscribe", "unsubscribe", "connect"]

_default_lock = threading.Lock()
_default_clients = {}


def default_client(url=None):
    """The connection shared by every proxy of this process to `url` (default: default_url()),
    opened on first use and reopened if it was lost."""
    url = url or default_url()
    with _default_lock:
        client = _default_clients.get(url)
        if client is None or client.closed:
            client = Client(url)
            _default_clients[url] = client
        return client


@atexit.register
def _close_default_clients():
    with _default_lock:
        clients = list(_default_clients.values())
        _default_clients.clear()
    for client in clients:
        client.close()


class _Method:
    __slots__ = ("_proxy", "_name")

    def __init__(self, proxy, name):
        self._proxy = proxy
        self._name = name

    def __call__(self, *args):
        return self._proxy._client.call(self._proxy._module, self._name, *args)

    def __repr__(self):
        return "<method %s.%s of the bexko host>" % (self._proxy._module, self._name)


class _Poster:
    """`proxy.post.method(*args)` starts the call on the host and returns its id at once."""

    __slots__ = ("_proxy",)

    def __init__(self, proxy):
        self._proxy = proxy

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        proxy = self._proxy
        return lambda *args: proxy._client.post(proxy._module, name, *args)


def _method_doc(overloads):
    """The published documentation of one method name (each overload in turn) as a docstring."""
    parts = []
    for info in overloads:
        lines = ["%s(%s)" % (info["name"], ", ".join(p["name"] for p in info["parameters"]))]
        if info.get("description"):
            lines += ["", info["description"]]
        if info["parameters"]:
            lines.append("")
            lines += ["%s: %s" % (p["name"], p["description"]) for p in info["parameters"]]
        if info.get("return"):
            lines += ["", "Returns %s: %s" % (info["return"]["name"],
                                              info["return"]["description"])]
        for example in info.get("examples") or []:
            lines += ["", "Example (%s):" % example["language"]]
            lines += ["    " + line for line in example["text"].splitlines()]
        parts.append("\n".join(lines))
    return "\n\n".join(parts)


def _signature(overloads):
    """The signature of one method name: its documented parameters when it has one overload
    whose parameter names can be Python's, else (*args)."""
    Parameter = inspect.Parameter
    first = [Parameter("self", Parameter.POSITIONAL_OR_KEYWORD)]
    if len(overloads) == 1:
        names = [p["name"] for p in overloads[0]["parameters"]]
        if len(set(names)) == len(names) and "self" not in names and all(
                name.isidentifier() and not keyword.iskeyword(name) for name in names):
            return inspect.Signature(
                first + [Parameter(name, Parameter.POSITIONAL_OR_KEYWORD) for name in names])
    return inspect.Signature(first + [Parameter("args", Parameter.VAR_POSITIONAL)])


def _published_method(module, name, overloads):
    """A Python method that calls `module.name` on the host, documented as the host publishes
    it, so that help() and inspect show the published documentation."""
    signature = _signature(overloads)

    def method(self, *args, **kwargs):
        if kwargs:  # the host takes arguments by position: put named ones in their place
            try:
                args = signature.bind(self, *args, **kwargs).args[1:]
            except TypeError as e:
                raise TypeError("%s.%s: %s" % (module, name, e)) from None
        return self._client.call(self._module, name, *args)

    method.__name__ = name
    method.__qualname__ = "%s.%s" % (module, name)
    method.__module__ = __name__
    method.__doc__ = _method_doc(overloads)
    method.__signature__ = signature
    return method


def _module_doc(info):
    lines = [info.get("description") or info["name"]]
    for example in info.get("examples") or []:
        lines += ["", "Example (%s):" % example["language"]]
        lines += ["    " + line for line in example["text"].splitlines()]
    if info.get("signals"):
        lines += ["", "Signals (bexko.connect): " + ", ".join(info["signals"])]
    if info.get("events"):
        lines += ["", "Memory keys (bexko.subscribe):"]
        lines += ["    %s: %s" % (e["key"], e["description"]) for e in info["events"]]
    lines += ["", "A proxy of the host module %s: its published methods below call the host; "
              "post.METHOD(...) starts one without waiting and returns its id, which stop(), "
              "wait(), isRunning() and result() take." % info["name"]]
    return "\n".join(lines)


class ZRProxy:
    """A handle on the host module `module`.

    ZRProxy("ZRTextToSpeech") uses the shared connection to $BEXKO_URL; ZRProxy(name, url)
    or ZRProxy(name, host, port) another host; ZRProxy(name, client=c) a given connection.
    Raises BexkoError when the host has no module of that name.

    The proxy is an instance of a class made for the module from its published documentation:
    its published methods are methods of that class, so that dir(proxy) lists them and
    help(proxy) and help(proxy.METHOD) show what the module publishes. A name the module does
    not publish is still sent to the host, which answers with its error.
    """

    def __new__(cls, module, url_or_host=None, port=None, client=None):
        if client is None:
            url = url_or_host
            if url_or_host is not None and port is not None:
                url = "ws://%s:%d" % (url_or_host, int(port))
            client = default_client(url)
        try:
            info = client.describe(module)
        except BexkoError as e:
            if e.code == -32602:  # the host has no module of that name
                raise BexkoError(-32601, "no module named \"%s\" on the host" % module) from None
            raise
        namespace = {"__doc__": _module_doc(info), "__module__": __name__}
        overloads = {}
        for method in info["methods"]:
            overloads.setdefault(method["name"], []).append(method)
        for name, methods in overloads.items():
            if not hasattr(ZRProxy, name):  # the proxy's own helpers keep their meaning
                namespace[name] = _published_method(module, name, methods)
        namespace["published"] = tuple(overloads)
        self = object.__new__(type(str(module), (cls,), namespace))
        object.__setattr__(self, "_client", client)
        object.__setattr__(self, "_module", module)
        object.__setattr__(self, "post", _Poster(self))
        return self

    def __init__(self, module, url_or_host=None, port=None, client=None):
        pass  # __new__ made the proxy

    #: The names of the module's published methods, in publication order.
    published = ()

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        return _Method(self, name)

    def call(self, method, *args):
        """Calls `method` by name (for methods named like the helpers below)."""
        return self._client.call(self._module, method, *args)

    def pCall(self, method, *args):
        """Posts `method` by name; returns the call id."""
        return self._client.post(self._module, method, *args)

    def stop(self, call_id):
        """Stops a posted call of this module."""
        self._client.stop(self._module, call_id)

    def wait(self, call_id, timeout_ms=0):
        """Waits for a posted call (forever when `timeout_ms` is 0); True when it has ended."""
        return self._client.wait(call_id, None if not timeout_ms else timeout_ms / 1000.0)

    def isRunning(self, call_id):
        """True while a posted call of this connection runs."""
        return self._client.is_running(call_id)

    def result(self, call_id, timeout=None):
        """The result of a posted call (raises its error)."""
        return self._client.result(call_id, timeout)

    def describe(self):
        """The module's published documentation, as the host gives it."""
        return self._client.describe(self._module)

    def __repr__(self):
        return "<ZRProxy %s at %s>" % (self._module, self._client.url)


def subscribe(key, callback, url=None):
    """Calls `callback(key, value)` on every raise of the memory key `key`."""
    default_client(url).subscribe(key, callback)


def unsubscribe(key, callback=None, url=None):
    default_client(url).unsubscribe(key, callback)


def connect(service, signal, callback, url=None):
    """Calls `callback(*args)` on every emission of `signal` of `service`."""
    default_client(url).connect(service, signal, callback)
