// The Events view: follow any memory key (the declared ones are offered), see its values live
// with their times, pause and clear.

import { describeError } from "./rpc.js";
import { $, el, clock, json, showError } from "./dom.js";

const MAX_ROWS = 500;

export class EventsView {
  constructor(client) {
    this.client = client;
    this.followed = new Map();  // key -> unsubscribe function
    this.paused = false;
    this.held = [];
    $("events-form").addEventListener("submit", (e) => {
      e.preventDefault();
      this.follow($("events-key").value.trim());
    });
    $("events-pause").addEventListener("click", () => this.setPaused(!this.paused));
    $("events-clear").addEventListener("click", () => {
      this.held = [];
      $("events-rows").replaceChildren();
    });
  }

  async connected() {
    await this.loadKeys();
  }

  shown(name) {
    if (name === "events") this.loadKeys();
  }

  async loadKeys() {
    try {
      const keys = await this.client.call("ZRMemory", "getDataList", [""]);
      $("events-keys").replaceChildren(...keys.map((key) => el("option", { value: key })));
    } catch (error) {
      console.warn("cannot list the memory keys", error);
    }
  }

  async follow(key) {
    showError($("events-error"), null);
    if (!key) {
      $("events-key").focus();
      return;
    }
    if (this.followed.has(key)) return;
    const callback = (value) => this.add(key, value);
    try {
      const unsubscribe = await this.client.subscribe(key, callback);
      this.followed.set(key, unsubscribe);
    } catch (error) {
      showError($("events-error"), describeError(error), `Cannot subscribe to ${key}`);
      return;
    }
    // The value the key holds now, when it holds one, starts the list.
    try {
      const value = await this.client.call("ZRMemory", "getData", [key]);
      this.add(key, value, true);
    } catch {
      // No value yet: the first change will show.
    }
    this.renderChips();
    $("events-key").value = "";
  }

  async unfollow(key) {
    const unsubscribe = this.followed.get(key);
    this.followed.delete(key);
    this.renderChips();
    if (unsubscribe) await unsubscribe();
  }

  renderChips() {
    $("events-subscribed").replaceChildren(...[...this.followed.keys()].map((key) =>
      el("li", { class: "chip" }, el("code", {}, key),
        el("button", { type: "button", class: "chip-remove", "aria-label": `Unsubscribe from ${key}`, onclick: () => this.unfollow(key) }, "×"))));
  }

  setPaused(paused) {
    this.paused = paused;
    $("events-pause").setAttribute("aria-pressed", String(paused));
    $("events-pause").textContent = paused ? "Resume" : "Pause";
    $("events-paused").hidden = !paused;
    if (!paused) {
      const held = this.held;
      this.held = [];
      for (const row of held) this.show(row);
    }
  }

  add(key, value, initial = false) {
    const row = { key, value, at: new Date(), initial };
    if (this.paused) {
      this.held.push(row);
      if (this.held.length > MAX_ROWS) this.held.shift();
      $("events-paused").textContent = `Paused: ${this.held.length} new value${this.held.length === 1 ? "" : "s"} kept, shown when you resume.`;
      return;
    }
    this.show(row);
  }

  show(row) {
    const body = $("events-rows");
    body.prepend(el("tr", { "data-key": row.key },
      el("td", { class: "time" }, clock(row.at)),
      el("td", {}, el("code", {}, row.key)),
      el("td", { class: "value" }, json(row.value), row.initial ? el("span", { class: "tag" }, "current") : null)));
    while (body.rows.length > MAX_ROWS) body.deleteRow(body.rows.length - 1);
  }
}
