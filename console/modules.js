// The Modules view (every module's published documentation, searchable) and the Call view (a
// form built from a method's documentation: call it, post it, stop what was posted).

import { describeError } from "./rpc.js";
import { $, el, json, clock } from "./dom.js";

/** The documentation of every module, fetched once per connection and shared by both views. */
class Documentation {
  constructor(client) {
    this.client = client;
    this.loading = null;
  }

  reset() {
    this.loading = null;
  }

  all() {
    if (!this.loading) {
      this.loading = (async () => {
        const names = await this.client.modules();
        const docs = [];
        for (const name of names) {
          try {
            docs.push(await this.client.describe(name));
          } catch (error) {
            docs.push({ name, description: `(no documentation: ${error.message})`, examples: [], methods: [] });
          }
        }
        return docs;
      })();
      this.loading.catch(() => { this.loading = null; });
    }
    return this.loading;
  }
}

let shared = null;
function documentation(client) {
  if (!shared) shared = new Documentation(client);
  return shared;
}

/** "say(stringToSay) → void" */
export function signature(method) {
  const params = method.parameters.map((p) => p.name).join(", ");
  return `${method.name}(${params})${method.return ? " → " + method.return.name : ""}`;
}

function matches(text, query) {
  return text.toLowerCase().includes(query);
}

export class ModulesView {
  constructor(client, openInCall) {
    this.client = client;
    this.docs = documentation(client);
    this.openInCall = openInCall;
    this.selected = null;
    this.modules = [];
    $("modules-search").addEventListener("input", () => this.render());
  }

  async connected(again) {
    if (again) this.docs.reset();
    this.modules = await this.docs.all();
    if (!this.selected && this.modules.length) {
      this.selected = this.modules.find((m) => m.name === "ZRTextToSpeech") ? "ZRTextToSpeech" : this.modules[0].name;
    }
    this.render();
  }

  query() {
    return $("modules-search").value.trim().toLowerCase();
  }

  render() {
    const query = this.query();
    const list = $("module-list");
    const items = [];
    for (const module of this.modules) {
      const hits = query ? module.methods.filter((m) => matches(m.name + " " + m.description, query)) : [];
      const moduleHit = !query || matches(module.name + " " + module.description, query);
      if (!moduleHit && hits.length === 0) continue;
      const button = el("button", { type: "button", class: "module-button", "aria-current": module.name === this.selected ? "true" : false,
        onclick: () => { this.selected = module.name; this.render(); } },
      el("span", {}, module.name),
      el("span", { class: "count" }, query && hits.length ? `${hits.length} of ${module.methods.length}` : String(module.methods.length)));
      items.push(el("li", {}, button));
    }
    list.replaceChildren(...items);
    this.renderDoc(query);
  }

  renderDoc(query) {
    const box = $("module-doc");
    const module = this.modules.find((m) => m.name === this.selected);
    if (!module) {
      box.replaceChildren(el("p", { class: "placeholder" }, "Choose a module."));
      return;
    }
    const methods = module.methods
      .map((method, index) => ({ method, index }))
      .filter(({ method }) => !query || matches(method.name + " " + method.description, query) || matches(module.name, query));
    const nodes = [
      el("h2", {}, module.name),
      el("p", { class: "doc-text" }, module.description || "(no description)"),
      ...module.examples.map((ex) => el("pre", { class: "example", "data-language": ex.language }, ex.text)),
      el("h3", {}, query ? `Methods matching “${query}” (${methods.length})` : `Methods (${module.methods.length})`),
    ];
    for (const { method, index } of methods) {
      nodes.push(el("article", { class: "method" },
        el("div", { class: "method-head" },
          el("h4", {}, el("code", {}, signature(method))),
          el("button", { type: "button", class: "small", "aria-label": `Call ${module.name}.${method.name}`, onclick: () => this.openInCall(module.name, index) }, "Call…")),
        el("p", { class: "doc-text" }, method.description || "(no description)"),
        method.parameters.length ? el("dl", { class: "params" }, ...method.parameters.flatMap((p) => [el("dt", {}, el("code", {}, p.name)), el("dd", {}, p.description)])) : null,
        method.return ? el("p", { class: "returns" }, el("span", { class: "label" }, "Returns "), el("code", {}, method.return.name), " — ", method.return.description) : null,
        ...method.examples.map((ex) => el("pre", { class: "example", "data-language": ex.language }, ex.text))));
    }
    box.replaceChildren(...nodes);
  }
}

/** A form field's text as a call argument: JSON when it reads as JSON, else the text itself. */
export function argumentFrom(text, asText) {
  if (asText) return text;
  const trimmed = text.trim();
  if (trimmed === "") return text;
  try {
    return JSON.parse(trimmed);
  } catch {
    return text;
  }
}

export class CallView {
  constructor(client) {
    this.client = client;
    this.docs = documentation(client);
    this.modules = [];
    this.module = null;
    this.index = null;
    this.fields = [];
    $("call-module").addEventListener("change", (e) => { this.module = e.target.value; this.index = null; this.renderMethods(); this.renderForm(); });
    $("call-filter").addEventListener("input", () => this.renderMethods());
    $("call-form").addEventListener("submit", (e) => { e.preventDefault(); this.run(false); });
    $("call-post").addEventListener("click", () => this.run(true));
  }

  async connected(again) {
    this.modules = await this.docs.all();
    const select = $("call-module");
    select.replaceChildren(...this.modules.map((m) => el("option", { value: m.name }, m.name)));
    if (!this.module || !this.modules.some((m) => m.name === this.module)) {
      this.module = this.modules.some((m) => m.name === "ZRTextToSpeech") ? "ZRTextToSpeech" : (this.modules[0] || {}).name;
    }
    select.value = this.module || "";
    this.renderMethods();
    this.renderForm();
  }

  /** Shows the form of the index-th method of `module`. */
  select(module, index) {
    this.module = module;
    this.index = index;
    $("call-module").value = module;
    $("call-filter").value = "";
    this.renderMethods();
    this.renderForm();
    const first = this.fields[0];
    (first ? first.input : $("call-call")).focus();
  }

  current() {
    const module = this.modules.find((m) => m.name === this.module);
    return module && this.index !== null ? module.methods[this.index] : null;
  }

  renderMethods() {
    const module = this.modules.find((m) => m.name === this.module);
    const query = $("call-filter").value.trim().toLowerCase();
    const items = [];
    if (module) {
      module.methods.forEach((method, index) => {
        if (query && !matches(method.name, query)) return;
        const overloads = module.methods.filter((m) => m.name === method.name).length;
        const label = overloads > 1 ? `${method.name} (${method.parameters.length} argument${method.parameters.length === 1 ? "" : "s"})` : method.name;
        items.push(el("li", {}, el("button", { type: "button", class: "method-button", "aria-current": index === this.index ? "true" : false,
          onclick: () => this.select(this.module, index) }, label)));
      });
    }
    $("call-methods").replaceChildren(...items);
  }

  renderForm() {
    const method = this.current();
    const box = $("call-fields");
    this.fields = [];
    $("call-call").disabled = !method;
    $("call-post").disabled = !method;
    if (!method) {
      $("call-title").textContent = "Choose a method";
      $("call-description").textContent = "";
      box.replaceChildren();
      return;
    }
    $("call-title").textContent = `${this.module}.${method.name}`;
    $("call-description").textContent = method.description;
    const nodes = method.parameters.map((param, i) => {
      const id = `call-arg-${i}`;
      const input = el("textarea", { id, rows: 1, spellcheck: "false", "aria-describedby": `${id}-doc` });
      const asText = el("input", { type: "checkbox", id: `${id}-text` });
      input.addEventListener("keydown", (event) => {
        if (event.key === "Enter" && !event.shiftKey) {
          event.preventDefault();
          this.run(false);
        }
      });
      this.fields.push({ input, asText, param });
      return el("div", { class: "arg" },
        el("label", { for: id }, param.name),
        input,
        el("label", { class: "as-text", for: `${id}-text` }, asText, `${param.name} as text`),
        el("p", { class: "hint", id: `${id}-doc` }, param.description));
    });
    if (nodes.length === 0) nodes.push(el("p", { class: "hint" }, "This method takes no argument."));
    box.replaceChildren(...nodes);
  }

  async run(posted) {
    const method = this.current();
    if (!method) return;
    const args = this.fields.map((f) => argumentFrom(f.input.value, f.asText.checked));
    const name = `${this.module}.${method.name}`;
    const result = $("call-result");
    result.replaceChildren(el("span", { class: "placeholder" }, `${posted ? "Posting" : "Calling"} ${name}…`));
    const started = performance.now();
    try {
      if (posted) {
        const { id, done } = await this.client.post(this.module, method.name, args);
        result.replaceChildren(el("p", {}, `Posted ${name} as call `, el("code", {}, String(id)), "."));
        this.addPosted(this.module, name, id, args, done);
      } else {
        const value = await this.client.call(this.module, method.name, args);
        result.replaceChildren(resultNode(name, value, performance.now() - started));
      }
    } catch (error) {
      result.replaceChildren(errorNode(name, error));
    }
  }

  addPosted(module, name, id, args, done) {
    const state = el("span", { class: "badge status-started" }, "running");
    const stop = el("button", { type: "button", class: "small danger", "aria-label": `Stop call ${id}` }, "Stop");
    const outcome = el("div", { class: "posted-outcome" });
    const item = el("li", { "data-call": id },
      el("div", { class: "posted-head" }, el("code", {}, `${id}`), el("span", {}, `${name}(${args.map(json).join(", ")})`), state, stop),
      outcome);
    stop.addEventListener("click", async () => {
      try {
        await this.client.stop(module, id);
      } catch (error) {
        outcome.replaceChildren(errorNode(`stop of ${id}`, error));
      }
    });
    $("call-posted").prepend(item);
    done.then((value) => {
      state.textContent = "done";
      state.className = "badge status-done";
      outcome.replaceChildren(resultNode(name, value));
    }, (error) => {
      state.textContent = "failed";
      state.className = "badge status-thrown";
      outcome.replaceChildren(errorNode(name, error));
    }).finally(() => stop.remove());
  }
}

function resultNode(name, value, ms) {
  return el("div", { class: "result-ok" },
    el("p", { class: "result-head" }, el("span", { class: "badge status-done" }, "result"), ` ${name}`, ms !== undefined ? ` · ${Math.round(ms)} ms` : "", ` · ${clock(new Date())}`),
    el("pre", { class: "result-value", "aria-label": "Result value" }, JSON.stringify(value, null, 2)));
}

function errorNode(name, error) {
  const info = describeError(error);
  return el("div", { class: "result-error", role: "alert" },
    el("p", { class: "result-head" }, el("span", { class: "badge status-thrown" }, "error"), ` ${name} · ${clock(new Date())}`),
    el("dl", { class: "error-fields" },
      el("dt", {}, "code"), el("dd", {}, String(info.code ?? "")),
      el("dt", {}, "module"), el("dd", {}, info.module || "–"),
      el("dt", {}, "method"), el("dd", {}, info.method || "–"),
      el("dt", {}, "description"), el("dd", {}, info.description)));
}
