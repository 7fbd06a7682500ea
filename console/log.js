// The Log view: the host's log records, live, from a minimum level, filtered by category.

import { $, el, clock } from "./dom.js";

const MAX_ROWS = 1000;

/** Whether a category matches a filter: a glob with * and ?, or else any part of the name. */
export function categoryMatches(category, filter) {
  const text = filter.trim();
  if (!text) return true;
  return text.split(",").map((f) => f.trim()).filter(Boolean).some((f) => {
    if (!/[*?]/.test(f)) return category.includes(f);
    const pattern = "^" + f.replace(/[.+^${}()|[\]\\]/g, "\\$&").replace(/\*/g, ".*").replace(/\?/g, ".") + "$";
    return new RegExp(pattern).test(category);
  });
}

export class LogView {
  constructor(client) {
    this.client = client;
    this.records = [];
    this.paused = false;
    client.addEventListener("log", (event) => this.add(event.detail));
    $("log-level").addEventListener("change", () => this.follow());
    $("log-category").addEventListener("input", () => this.render());
    $("log-pause").addEventListener("click", () => {
      this.paused = !this.paused;
      $("log-pause").setAttribute("aria-pressed", String(this.paused));
      $("log-pause").textContent = this.paused ? "Resume" : "Pause";
      if (!this.paused) this.render();
    });
    $("log-clear").addEventListener("click", () => {
      this.records = [];
      this.render();
    });
  }

  async connected(again) {
    if (!again) await this.follow();
  }

  async follow() {
    try {
      await this.client.followLog($("log-level").value);
    } catch (error) {
      console.warn("cannot follow the log", error);
    }
  }

  add(record) {
    this.records.push(record);
    if (this.records.length > MAX_ROWS) this.records.shift();
    if (this.paused) return;
    if (!categoryMatches(record.category, $("log-category").value)) return;
    const body = $("log-rows");
    body.prepend(this.row(record));
    while (body.rows.length > MAX_ROWS) body.deleteRow(body.rows.length - 1);
  }

  row(record) {
    return el("tr", { class: `level-${record.level}` },
      el("td", { class: "time", title: record.time }, clock(new Date(record.time))),
      el("td", {}, el("span", { class: `level level-${record.level}` }, record.level)),
      el("td", {}, el("code", {}, record.category)),
      el("td", { class: "message" }, record.function ? el("span", { class: "function" }, record.function + " ") : null, record.message));
  }

  render() {
    const filter = $("log-category").value;
    const rows = this.records.filter((r) => categoryMatches(r.category, filter)).reverse().map((r) => this.row(r));
    $("log-rows").replaceChildren(...rows);
  }
}
