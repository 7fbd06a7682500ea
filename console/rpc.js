// The console's connection to the host: JSON-RPC 2.0 over the gateway's WebSocket, the same
// protocol as every other client (calls, posted calls, memory keys, the log).

/** An error answered by the host; `module`, `method` and `description` say where a module
 * method's failure came from. */
export class RpcError extends Error {
  constructor(error) {
    super(error && error.message ? error.message : String(error));
    this.name = "RpcError";
    this.code = error && error.code;
    this.data = error && error.data;
  }
  get module() { return this.data && this.data.module; }
  get method() { return this.data && this.data.method; }
  get description() { return this.data && this.data.description; }
}

/** The connection could not be made or was lost. `refused` is true when it ended before it
 * opened: the host refused it (wrong or missing token, foreign page) or is not there. */
export class ConnectionError extends Error {
  constructor(message, refused) {
    super(message);
    this.name = "ConnectionError";
    this.refused = refused;
  }
}

/** The WebSocket address of the gateway that served this page. */
export function gatewayUrl(token) {
  const scheme = location.protocol === "https:" ? "wss:" : "ws:";
  const query = token ? "/?token=" + encodeURIComponent(token) : "/";
  return scheme + "//" + location.host + query;
}

/**
 * One connection. Events: "close" (detail: {reason}) when an open connection ends, "log"
 * (detail: a bexko.log record) and "signal".
 */
export class RpcClient extends EventTarget {
  constructor() {
    super();
    this.socket = null;
    this.nextId = 1;
    this.pending = new Map();      // request id -> {resolve, reject, onResult}
    this.posted = new Map();       // call id -> {resolve, reject} of a posted call's end
    this.earlyDone = new Map();    // call id -> bexko.done params that came before the id
    this.keys = new Map();         // memory key -> Set of callbacks
    this.logLevel = null;          // the level followed, null when not following the log
  }

  get isOpen() { return this.socket !== null && this.socket.readyState === WebSocket.OPEN; }

  /** Opens the connection with `token` (may be empty); resolves once open. */
  connect(token) {
    this.close();
    return new Promise((resolve, reject) => {
      let opened = false;
      const socket = new WebSocket(gatewayUrl(token));
      this.socket = socket;
      socket.addEventListener("open", () => {
        opened = true;
        resolve();
      });
      socket.addEventListener("message", (event) => this.receive(event.data));
      socket.addEventListener("close", (event) => {
        if (this.socket === socket) this.socket = null;
        const reason = event.reason || (opened ? "the connection ended" : "the host refused the connection");
        this.failAll(new ConnectionError(reason, !opened));
        if (opened) {
          this.dispatchEvent(new CustomEvent("close", { detail: { reason, code: event.code } }));
        } else {
          reject(new ConnectionError(reason, true));
        }
      });
    });
  }

  close() {
    if (this.socket) {
      const socket = this.socket;
      this.socket = null;
      socket.close(1000, "closed by the console");
    }
  }

  failAll(error) {
    for (const entry of this.pending.values()) entry.reject(error);
    this.pending.clear();
    for (const entry of this.posted.values()) entry.reject(error);
    this.posted.clear();
  }

  /** Sends one request; resolves with its result, rejects with an RpcError. */
  request(method, params, onResult) {
    if (!this.isOpen) return Promise.reject(new ConnectionError("not connected", false));
    const id = this.nextId++;
    const message = { jsonrpc: "2.0", id, method };
    if (params !== undefined) message.params = params;
    return new Promise((resolve, reject) => {
      this.pending.set(id, { resolve, reject, onResult });
      this.socket.send(JSON.stringify(message));
    });
  }

  /** Calls module.method(...args) and resolves with its return value. */
  call(module, method, args = []) {
    return this.request(module + "." + method, args);
  }

  /**
   * Posts module.method(...args): resolves at once with {id, done}, where `done` resolves with
   * the call's result or rejects with its error when it ends.
   */
  async post(module, method, args = []) {
    let done = null;
    const answer = await this.request("bexko.post", { module, method, args }, (result) => {
      // Registered before any later frame is read, so that the call's end is never missed.
      done = new Promise((resolve, reject) => {
        const early = this.earlyDone.get(result.id);
        if (early) {
          this.earlyDone.delete(result.id);
          settleDone(early, resolve, reject);
        } else {
          this.posted.set(result.id, { resolve, reject });
        }
      });
      done.catch(() => {});
    });
    return { id: answer.id, done };
  }

  /** Stops a posted call of `module`. */
  stop(module, id) {
    return this.request("bexko.stop", { module, id });
  }

  modules() { return this.request("bexko.modules"); }
  describe(module) { return this.request("bexko.describe", { module }); }

  /** Follows a memory key; `callback(value, key)` for each change. Returns a function that
   * stops following it. Several callbacks may follow one key over one subscription. */
  async subscribe(key, callback) {
    let callbacks = this.keys.get(key);
    const first = !callbacks;
    if (first) {
      callbacks = new Set();
      this.keys.set(key, callbacks);
    }
    callbacks.add(callback);
    if (first) {
      try {
        await this.request("bexko.subscribe", { key });
      } catch (error) {
        callbacks.delete(callback);
        if (callbacks.size === 0) this.keys.delete(key);
        throw error;
      }
    }
    return () => this.unsubscribe(key, callback);
  }

  async unsubscribe(key, callback) {
    const callbacks = this.keys.get(key);
    if (!callbacks || !callbacks.delete(callback) || callbacks.size > 0) return;
    this.keys.delete(key);
    if (this.isOpen) await this.request("bexko.unsubscribe", { key });
  }

  /** Follows the host's log from `level` (fatal, error, warning, info, verbose, debug). */
  async followLog(level) {
    await this.request("bexko.subscribeLog", { level });
    this.logLevel = level;
  }

  async unfollowLog() {
    this.logLevel = null;
    if (this.isOpen) await this.request("bexko.unsubscribeLog");
  }

  /** After a reconnection: the keys and the log followed before. */
  async restore() {
    for (const key of this.keys.keys()) await this.request("bexko.subscribe", { key });
    if (this.logLevel) await this.request("bexko.subscribeLog", { level: this.logLevel });
  }

  receive(text) {
    let message;
    try {
      message = JSON.parse(text);
    } catch {
      return;
    }
    if (message.method === undefined && message.id !== undefined && message.id !== null) {
      const entry = this.pending.get(message.id);
      if (!entry) return;
      this.pending.delete(message.id);
      if (message.error) {
        entry.reject(new RpcError(message.error));
      } else {
        if (entry.onResult) entry.onResult(message.result);
        entry.resolve(message.result);
      }
      return;
    }
    const params = message.params || {};
    switch (message.method) {
      case "bexko.event": {
        const callbacks = this.keys.get(params.key);
        if (callbacks) {
          for (const callback of [...callbacks]) {
            try {
              callback(params.value, params.key);
            } catch (error) {
              console.error(error);
            }
          }
        }
        break;
      }
      case "bexko.done": {
        const entry = this.posted.get(params.id);
        if (entry) {
          this.posted.delete(params.id);
          settleDone(params, entry.resolve, entry.reject);
        } else {
          this.earlyDone.set(params.id, params);
        }
        break;
      }
      case "bexko.log":
        this.dispatchEvent(new CustomEvent("log", { detail: params }));
        break;
      case "bexko.signal":
        this.dispatchEvent(new CustomEvent("signal", { detail: params }));
        break;
      default:
        if (message.error) console.warn("host error", message.error);
    }
  }
}

function settleDone(params, resolve, reject) {
  if (params.error) {
    reject(new RpcError(params.error));
  } else {
    resolve(params.result === undefined ? null : params.result);
  }
}

/** The words an error shows: the service's own description and where it came from. */
export function describeError(error) {
  if (error instanceof RpcError) {
    return {
      code: error.code,
      module: error.module || "",
      method: error.method || "",
      description: error.description || error.message,
      message: error.message,
    };
  }
  return { code: "", module: "", method: "", description: String(error.message || error), message: String(error) };
}
