// The console's start: the access token, the connection (and its return after a loss), the
// views and the tabs between them.

import { RpcClient } from "./rpc.js";
import { $ } from "./dom.js";
import { SpeechView } from "./speech.js";
import { ModulesView, CallView } from "./modules.js";
import { EventsView } from "./events.js";
import { LogView } from "./log.js";

const TOKEN_KEY = "bexko.token";

// A token given in the address's fragment ("#token=...", as bexko logs it) is kept for this tab
// only and taken out of the address, so that it is neither bookmarked nor shown.
function takeTokenFromAddress() {
  const fragment = new URLSearchParams(location.hash.slice(1));
  const token = fragment.get("token");
  if (token) {
    sessionStorage.setItem(TOKEN_KEY, token);
    history.replaceState(null, "", location.pathname + location.search);
  }
}

const client = new RpcClient();
const views = [];

function setConnection(state, text) {
  const box = $("connection");
  box.dataset.state = state;
  $("connection-text").textContent = text;
}

function askForToken(reason) {
  return new Promise((resolve) => {
    const dialog = $("token-dialog");
    const input = $("token-input");
    $("token-reason").textContent = reason;
    input.value = "";
    const form = $("token-form");
    const submit = (event) => {
      event.preventDefault();
      const token = input.value.trim();
      if (!token) {
        input.focus();
        return;
      }
      form.removeEventListener("submit", submit);
      dialog.close();
      resolve(token);
    };
    form.addEventListener("submit", submit);
    if (!dialog.open) dialog.showModal();
    input.focus();
  });
}

let retryDelay = 500;

async function connect() {
  let refusedWhileUp = 0;
  for (;;) {
    const token = sessionStorage.getItem(TOKEN_KEY) || "";
    setConnection("connecting", "Connecting…");
    try {
      await client.connect(token);
      retryDelay = 500;
      setConnection("open", `Connected to ${location.host}`);
      return;
    } catch (error) {
      setConnection("closed", "Not connected");
      if (!(await hostAnswers())) {
        refusedWhileUp = 0;
        setConnection("closed", `The host does not answer; retrying in ${Math.round(retryDelay / 1000)} s`);
        await new Promise((r) => setTimeout(r, retryDelay));
        retryDelay = Math.min(retryDelay * 2, 10000);
        continue;
      }
      // The page's host answers. A host that was starting up may have come up between the
      // attempt and the look: it is tried once more before the console decides that it refused.
      if (++refusedWhileUp < 2) continue;
      refusedWhileUp = 0;
      // A browser does not say why an upgrade was refused: a token that does not open the door
      // is dropped and asked for again, and without one the console asks for it.
      if (token) sessionStorage.removeItem(TOKEN_KEY);
      const reason = token
        ? "The host refused this token. Enter the access token of this host."
        : "This host requires an access token.";
      const entered = await askForToken(reason);
      sessionStorage.setItem(TOKEN_KEY, entered);
    }
  }
}

// Whether the host still serves this page: tells a refused connection from a host that is gone.
async function hostAnswers() {
  try {
    const response = await fetch("favicon.svg", { method: "HEAD", cache: "no-store" });
    return response.ok;
  } catch {
    return false;
  }
}

async function start() {
  takeTokenFromAddress();
  setupTabs();
  views.push(new SpeechView(client), new ModulesView(client, openInCall), new CallView(client),
    new EventsView(client), new LogView(client));
  client.addEventListener("close", async () => {
    setConnection("closed", "Connection lost; reconnecting…");
    for (const view of views) view.disconnected && view.disconnected();
    await connect();
    try {
      await client.restore();
    } catch (error) {
      console.warn("cannot restore subscriptions", error);
    }
    for (const view of views) await view.connected(true);
  });
  await connect();
  for (const view of views) {
    try {
      await view.connected(false);
    } catch (error) {
      console.error(error);
    }
  }
  document.body.dataset.ready = "true";
}

// Tabs ---------------------------------------------------------------------------------------

const tabIds = ["speech", "modules", "call", "events", "log"];

function selectTab(name, focus) {
  for (const id of tabIds) {
    const tab = $("tab-" + id);
    const selected = id === name;
    tab.setAttribute("aria-selected", String(selected));
    tab.tabIndex = selected ? 0 : -1;
    $("view-" + id).hidden = !selected;
    if (selected && focus) tab.focus();
  }
  for (const view of views) if (view.shown) view.shown(name);
}

function setupTabs() {
  tabIds.forEach((id, index) => {
    const tab = $("tab-" + id);
    tab.addEventListener("click", () => selectTab(id, false));
    tab.addEventListener("keydown", (event) => {
      let next = null;
      if (event.key === "ArrowRight") next = (index + 1) % tabIds.length;
      else if (event.key === "ArrowLeft") next = (index + tabIds.length - 1) % tabIds.length;
      else if (event.key === "Home") next = 0;
      else if (event.key === "End") next = tabIds.length - 1;
      if (next !== null) {
        event.preventDefault();
        selectTab(tabIds[next], true);
      }
    });
  });
}

function openInCall(module, index) {
  selectTab("call", true);
  views.find((v) => v instanceof CallView).select(module, index);
}

start();
