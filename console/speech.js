// The Speech view: say, post and stop; language, voice and voice parameters; the sentence being
// spoken with its current word and bookmarks; the timeline of the speech tasks.

import { describeError } from "./rpc.js";
import { $, el, clock, duration, showError } from "./dom.js";

const TTS = "ZRTextToSpeech";
const KEY = {
  status: "ZRTextToSpeech/Status",
  sentence: "ZRTextToSpeech/CurrentSentence",
  word: "ZRTextToSpeech/CurrentWord",
  position: "ZRTextToSpeech/PositionOfCurrentWord",
  bookmark: "ZRTextToSpeech/CurrentBookMark",
  interrupted: "ZRTextToSpeech/TextInterrupted",
};
const TERMINAL = new Set(["done", "thrown", "stopped"]);
// The service splits a sentence into the words it announces on these characters.
const WORD_SEPARATORS = " .,;:!";
const MAX_TASKS = 60;

// The engine's own parameters, passed through by the service (their ranges are the engine's:
// values outside are brought to the nearest end). The service's own parameters and the volume
// take their ranges from the service's published documentation at run time.
const ENGINE_PARAMETERS = [
  { name: "speed", label: "Speed", min: 50, max: 400, step: 1, unit: "% of normal" },
  { name: "pitch", label: "Pitch", min: 0, max: 198, step: 1, unit: "% of normal" },
];
const SERVICE_PARAMETERS = [
  { name: "pitchShift", label: "Pitch shift", step: 0.05, fallback: [1, 4], off: true },
  { name: "doubleVoice", label: "Double voice", step: 0.05, fallback: [1, 4], off: true },
  { name: "doubleVoiceLevel", label: "Double voice level", step: 0.05, fallback: [0, 4] },
  { name: "doubleVoiceTimeShift", label: "Double voice time shift", step: 0.01, fallback: [0, 0.5] },
];

/** The ranges that the published description of setParameter gives ("pitchShift: ... Correct
 * range is (1.0 -- 4), or 0 to disable effect"), by parameter name. */
export function documentedRanges(description) {
  const ranges = {};
  const pattern = /(\w+):[^]*?[Cc]orrect range is \(([-\d.]+) -- ([-\d.]+)\)/g;
  for (const match of description.matchAll(pattern)) {
    ranges[match[1]] = [Number(match[2]), Number(match[3])];
  }
  return ranges;
}

/** Words and separators of a sentence, as the service splits it. */
export function tokenize(sentence) {
  const tokens = [];
  let current = "";
  for (const ch of sentence) {
    if (WORD_SEPARATORS.includes(ch)) {
      if (current) tokens.push({ word: current });
      current = "";
      tokens.push({ separator: ch });
    } else {
      current += ch;
    }
  }
  if (current) tokens.push({ word: current });
  return tokens;
}

export class SpeechView {
  constructor(client) {
    this.client = client;
    this.tasks = new Map();        // id -> task record
    this.postedTexts = new Map();  // posted call id -> text
    this.currentId = null;
    this.wordSpans = [];
    this.wordIndex = -1;
    this.ticker = null;

    $("speech-say").addEventListener("click", () => this.say());
    $("speech-post").addEventListener("click", () => this.post());
    $("speech-stop-all").addEventListener("click", () => this.stopAll());
    $("speech-text").addEventListener("keydown", (event) => {
      if (event.key === "Enter" && (event.ctrlKey || event.metaKey)) {
        event.preventDefault();
        this.say();
      }
    });
    $("speech-language").addEventListener("change", (e) => this.setLanguage(e.target.value));
    $("speech-voice").addEventListener("change", (e) => this.setVoice(e.target.value));
    $("speech-reset-speed").addEventListener("click", () => this.voiceCall("resetSpeed", []));
    $("speech-refresh").addEventListener("click", () => this.loadVoice());
    $("timeline-clear").addEventListener("click", () => {
      for (const [id, task] of this.tasks) if (TERMINAL.has(task.status)) this.tasks.delete(id);
      this.renderTimeline();
    });
  }

  async connected(again) {
    if (!again) {
      const subscriptions = [
        [KEY.status, (v) => this.onStatus(v)],
        [KEY.sentence, (v) => this.onSentence(v)],
        [KEY.word, (v) => this.onWord(v)],
        [KEY.position, (v) => this.onPosition(v)],
        [KEY.bookmark, (v) => this.onBookmark(v)],
        [KEY.interrupted, (v) => this.onInterrupted(v)],
      ];
      for (const [key, callback] of subscriptions) await this.client.subscribe(key, callback);
    }
    await this.buildParameters();
    await this.loadVoice();
  }

  // Speaking ---------------------------------------------------------------------------------

  text() {
    return $("speech-text").value;
  }

  async say() {
    showError($("speech-error"), null);
    const text = this.text();
    try {
      await this.client.call(TTS, "say", [text]);
    } catch (error) {
      showError($("speech-error"), describeError(error), "Say failed");
    }
  }

  async post() {
    showError($("speech-error"), null);
    const text = this.text();
    try {
      const { id, done } = await this.client.post(TTS, "say", [text]);
      this.postedTexts.set(id, text);
      // A posted say waits for the service before it is enqueued: it shows from now on.
      const known = this.tasks.has(id);
      const task = this.task(id);
      task.posted = true;
      task.text = task.text || text;
      if (!known) {
        task.status = "posted";
        task.postedAt = Date.now();
      }
      this.renderTimeline();
      this.tick();
      done.catch((error) => {
        const task = this.tasks.get(id);
        if (task) {
          task.error = describeError(error);
          this.renderTask(task);
        }
        showError($("speech-error"), describeError(error), `Posted say ${id} failed`);
      });
    } catch (error) {
      showError($("speech-error"), describeError(error), "Post failed");
    }
  }

  async stopAll() {
    try {
      await this.client.call(TTS, "stopAll");
    } catch (error) {
      showError($("speech-error"), describeError(error), "Stop all failed");
    }
  }

  async stopTask(id) {
    try {
      await this.client.stop(TTS, id);
    } catch (error) {
      showError($("speech-error"), describeError(error), `Stop of task ${id} failed`);
    }
  }

  // Language, voice, parameters ----------------------------------------------------------------

  async loadVoice() {
    showError($("voice-error"), null);
    const read = (method) => this.client.call(TTS, method).then((value) => ({ value }), (error) => ({ error }));
    const [languages, language, voices, voice] = await Promise.all(
      ["getAvailableLanguages", "getLanguage", "getAvailableVoices", "getVoice"].map(read));
    // A service that has no language yet says so ("Invalid default language"): the picker then
    // shows that none is chosen.
    fillSelect($("speech-language"), languages.value, language.value, "(none chosen)");
    fillSelect($("speech-voice"), voices.value, voice.value, "(none chosen)");
    const failed = [languages, voices, voice].find((r) => r.error);
    if (failed) showError($("voice-error"), describeError(failed.error), "Cannot read the voice");
    await this.readParameters();
  }

  async setLanguage(language) {
    await this.voiceCall("setLanguage", [language]);
  }

  async setVoice(voice) {
    await this.voiceCall("setVoice", [voice]);
  }

  async voiceCall(method, args) {
    showError($("voice-error"), null);
    try {
      await this.client.call(TTS, method, args);
    } catch (error) {
      showError($("voice-error"), describeError(error), `${method} failed`);
    }
    await this.loadVoiceQuietly();
  }

  async loadVoiceQuietly() {
    const box = $("voice-error");
    const shown = !box.hidden;
    const saved = shown ? [...box.childNodes] : null;
    await this.loadVoice();
    if (shown) {
      box.replaceChildren(...saved);
      box.hidden = false;
    }
  }

  async buildParameters() {
    let ranges = {};
    let volumeRange = [0, 1];
    try {
      const doc = await this.client.describe(TTS);
      const setParameter = doc.methods.find((m) => m.name === "setParameter");
      if (setParameter) ranges = documentedRanges(setParameter.description);
      const setVolume = doc.methods.find((m) => m.name === "setVolume");
      const volumeText = setVolume && setVolume.parameters[0] ? setVolume.parameters[0].description : "";
      const match = /between ([-\d.]+) and ([-\d.]+)/.exec(volumeText);
      if (match) volumeRange = [Number(match[1]), Number(match[2])];
    } catch (error) {
      console.warn("no documentation for the parameter ranges", error);
    }
    const rows = [];
    for (const p of ENGINE_PARAMETERS) rows.push({ ...p, kind: "parameter", note: `${p.min} – ${p.max}, ${p.unit}` });
    for (const p of SERVICE_PARAMETERS) {
      const [min, max] = ranges[p.name] || p.fallback;
      rows.push({ ...p, min, max, kind: "parameter", note: `${min} – ${max}${p.off ? ", or 0: off" : ""}` });
    }
    rows.push({ name: "volume", label: "Volume", min: volumeRange[0], max: volumeRange[1], step: 0.01, kind: "volume", note: `${volumeRange[0]} – ${volumeRange[1]}` });
    this.parameterRows = rows;
    const box = $("speech-parameters");
    box.replaceChildren(...rows.map((row) => this.parameterControl(row)));
  }

  parameterControl(row) {
    const id = `param-${row.name}`;
    const number = el("input", { type: "number", id, step: row.step, inputmode: "decimal", "aria-describedby": `${id}-note` });
    const slider = el("input", { type: "range", min: row.min, max: row.max, step: row.step, "aria-label": `${row.label} slider`, tabindex: -1 });
    row.number = number;
    row.slider = slider;
    slider.addEventListener("input", () => { number.value = slider.value; });
    slider.addEventListener("change", () => this.applyParameter(row, Number(slider.value)));
    number.addEventListener("change", () => {
      if (number.value.trim() === "") return;
      // What is typed is sent as it is: a value outside the range gets the service's own error.
      this.applyParameter(row, Number(number.value));
    });
    return el("div", { class: "parameter" },
      el("label", { for: id }, row.label),
      slider,
      number,
      el("span", { class: "range-note", id: `${id}-note` }, row.note));
  }

  async applyParameter(row, value) {
    showError($("voice-error"), null);
    try {
      if (row.kind === "volume") await this.client.call(TTS, "setVolume", [value]);
      else await this.client.call(TTS, "setParameter", [row.name, value]);
    } catch (error) {
      showError($("voice-error"), describeError(error), `${row.label}: not set`);
    }
    await this.readParameter(row);
  }

  async readParameters() {
    if (!this.parameterRows) return;
    await Promise.all(this.parameterRows.map((row) => this.readParameter(row)));
  }

  async readParameter(row) {
    try {
      const value = row.kind === "volume"
        ? await this.client.call(TTS, "getVolume")
        : await this.client.call(TTS, "getParameter", [row.name]);
      row.number.value = String(value);
      row.slider.value = String(value);
    } catch {
      // A service parameter never set has no value yet.
      row.number.value = "";
    }
  }

  // Events -------------------------------------------------------------------------------------

  task(id) {
    let task = this.tasks.get(id);
    if (!task) {
      task = { id, text: this.postedTexts.get(id) || "", posted: this.postedTexts.has(id), status: "enqueued",
        postedAt: null, enqueuedAt: null, startedAt: null, endedAt: null, words: [], bookmarks: [], history: [], interrupted: false };
      this.tasks.set(id, task);
      while (this.tasks.size > MAX_TASKS) this.tasks.delete(this.tasks.keys().next().value);
    }
    return task;
  }

  onStatus(value) {
    if (!Array.isArray(value) || value.length < 2) return;
    const [id, word] = value;
    if (typeof id !== "number" || id < 0) return;
    const now = Date.now();
    const task = this.task(id);
    task.history.push({ word, at: now });
    if (word === "enqueued") {
      task.enqueuedAt = task.enqueuedAt || now;
      if (task.status === "posted") task.status = "enqueued";
    } else if (word === "started") {
      task.enqueuedAt = task.enqueuedAt || now;
      task.startedAt = now;
      if (!TERMINAL.has(task.status)) task.status = "started";
      this.currentId = id;
      $("now-task").textContent = `#${id}`;
      $("now-state").textContent = "speaking";
      $("now-state").dataset.state = "started";
    } else if (TERMINAL.has(word)) {
      task.enqueuedAt = task.enqueuedAt || now;
      if (!TERMINAL.has(task.status)) {
        task.status = word;
        task.endedAt = now;
      }
      if (this.currentId === id) {
        this.currentId = null;
        $("now-state").textContent = word;
        $("now-state").dataset.state = word;
        this.sentenceEl().classList.add("finished");
      }
    }
    this.renderTimeline();
    this.tick();
  }

  sentenceEl() {
    return $("now-sentence");
  }

  onSentence(value) {
    if (typeof value !== "string" || value === "") return;  // "" ends a sentence: the last stays shown
    const box = this.sentenceEl();
    box.classList.remove("finished");
    this.wordSpans = [];
    this.wordIndex = -1;
    const nodes = [];
    for (const token of tokenize(value)) {
      if (token.word !== undefined) {
        const span = el("span", { class: "word" }, token.word);
        span.dataset.word = token.word;
        this.wordSpans.push(span);
        nodes.push(span);
      } else {
        nodes.push(document.createTextNode(token.separator));
      }
    }
    box.replaceChildren(...nodes);
    $("now-word").textContent = "–";
    $("now-position").textContent = "–";
    $("now-bookmark").textContent = "–";
    if (this.currentId !== null) {
      const task = this.task(this.currentId);
      if (!task.text) task.text = value;
      task.sentence = value;
      this.renderTask(task);
    }
  }

  onWord(value) {
    if (typeof value !== "string" || value === "") return;
    let index = this.wordSpans.findIndex((span, i) => i > this.wordIndex && span.dataset.word === value);
    if (index < 0) index = Math.min(this.wordIndex + 1, this.wordSpans.length - 1);
    if (index >= 0) {
      for (let i = 0; i < this.wordSpans.length; ++i) {
        const span = this.wordSpans[i];
        span.classList.toggle("spoken", i < index);
        span.classList.toggle("current", i === index);
        if (i === index) span.setAttribute("aria-current", "true");
        else span.removeAttribute("aria-current");
      }
      this.wordIndex = index;
    }
    $("now-word").textContent = value;
    if (this.currentId !== null) {
      const task = this.task(this.currentId);
      task.words.push({ word: value, at: Date.now() });
      this.renderTask(task);
    }
  }

  onPosition(value) {
    if (typeof value === "number" && value > 0) $("now-position").textContent = String(value);
  }

  onBookmark(value) {
    if (typeof value !== "number" || value === 0) return;
    $("now-bookmark").textContent = String(value);
    const flag = el("span", { class: "bookmark", title: `bookmark ${value}`, "aria-label": `bookmark ${value}` }, String(value));
    const anchor = this.wordSpans[this.wordIndex];
    if (anchor) anchor.after(flag);
    else this.sentenceEl().prepend(flag);
    if (this.currentId !== null) {
      const task = this.task(this.currentId);
      task.bookmarks.push({ mark: value, at: Date.now() });
      this.renderTask(task);
    }
  }

  onInterrupted(value) {
    if (value !== 1 || this.currentId === null) return;
    const task = this.task(this.currentId);
    task.interrupted = true;
    this.renderTask(task);
  }

  // Timeline -----------------------------------------------------------------------------------

  tick() {
    const running = [...this.tasks.values()].some((t) => !TERMINAL.has(t.status));
    if (running && !this.ticker) {
      this.ticker = setInterval(() => this.renderBars(), 200);
    } else if (!running && this.ticker) {
      clearInterval(this.ticker);
      this.ticker = null;
    }
  }

  renderTimeline() {
    const list = $("timeline");
    const since = (t) => t.postedAt || t.enqueuedAt || 0;
    const ordered = [...this.tasks.values()].sort((a, b) => since(b) - since(a) || b.id - a.id);
    list.replaceChildren(...ordered.map((task) => {
      task.element = this.taskElement(task);
      return task.element;
    }));
    $("timeline-empty").hidden = ordered.length > 0;
    this.renderBars();
  }

  renderTask(task) {
    if (!task.element || !task.element.isConnected) {
      this.renderTimeline();
      return;
    }
    const fresh = this.taskElement(task);
    task.element.replaceWith(fresh);
    task.element = fresh;
    this.renderBars();
  }

  taskElement(task) {
    const ended = TERMINAL.has(task.status);
    const item = el("li", { class: `task status-${task.status}`, "data-task": task.id, "aria-label": `Task ${task.id}: ${task.status}` });
    item.dataset.status = task.status;
    const head = el("div", { class: "task-head" },
      el("span", { class: "task-id" }, `#${task.id}`),
      el("span", { class: `badge status-${task.status}`, "data-role": "status" }, task.status === "posted" ? "waiting" : task.status),
      task.posted ? el("span", { class: "tag" }, "posted") : null,
      task.interrupted ? el("span", { class: "tag warn" }, "interrupted") : null,
      el("span", { class: "task-text", title: task.text || "" }, task.sentence || task.text || "(sentence not yet known)"),
      ended ? null : el("button", { type: "button", class: "small danger", "aria-label": `Stop task ${task.id}`, onclick: () => this.stopTask(task.id) }, "Stop"));
    const bar = el("div", { class: "bar", "aria-hidden": "true" },
      el("span", { class: "bar-wait" }), el("span", { class: "bar-run" }));
    const facts = el("p", { class: "task-facts" }, factsText(task));
    const children = [head, bar, facts];
    if (task.words.length || task.bookmarks.length) {
      children.push(el("div", { class: "marks", "aria-label": `Words and bookmarks of task ${task.id}` }, ...this.mergedMarks(task)));
    }
    if (task.error) children.push(el("p", { class: "task-error" }, task.error.description));
    item.append(...children);
    item.taskBar = bar;
    item.taskFacts = facts;
    return item;
  }

  // Words and bookmarks of a task in the order they came.
  mergedMarks(task) {
    const all = [
      ...task.words.map((w) => ({ at: w.at, node: el("span", { class: "mark word-mark", title: `+${duration(w.at - task.startedAt)} after the start` }, w.word) })),
      ...task.bookmarks.map((b) => ({ at: b.at, node: el("span", { class: "mark bookmark-mark", title: `bookmark ${b.mark}, +${duration(b.at - task.startedAt)} after the start` }, `⚑ ${b.mark}`, el("small", {}, ` +${duration(b.at - task.startedAt)}`)) })),
    ];
    all.sort((a, b) => a.at - b.at);
    return all.slice(-120).map((m) => m.node);
  }

  renderBars() {
    const tasks = [...this.tasks.values()];
    const now = Date.now();
    const spans = tasks.map((t) => {
      const start = t.postedAt || t.enqueuedAt || now;
      const end = t.endedAt || now;
      return Math.max(1, end - start);
    });
    const longest = Math.max(1000, ...spans);
    for (const task of tasks) {
      const bar = task.element && task.element.taskBar;
      if (!bar) continue;
      const start = task.postedAt || task.enqueuedAt || now;
      const started = task.startedAt || (TERMINAL.has(task.status) ? task.endedAt : now);
      const end = task.endedAt || now;
      bar.children[0].style.width = `${(100 * Math.max(0, started - start)) / longest}%`;
      bar.children[1].style.width = task.startedAt ? `${(100 * Math.max(0, end - task.startedAt)) / longest}%` : "0%";
      // Only the text changes while a task runs: its buttons stay the same elements.
      if (!TERMINAL.has(task.status)) task.element.taskFacts.textContent = factsText(task);
    }
  }
}

/** "posted 12:00:01.000 · enqueued 12:00:01.002 · waited 2 ms · started ... · spoke 1.20 s · done ..." */
function factsText(task) {
  const ended = TERMINAL.has(task.status);
  const from = task.postedAt || task.enqueuedAt;
  const waited = task.startedAt ? task.startedAt - from : (ended || !from ? null : Date.now() - from);
  const spoken = task.startedAt ? (task.endedAt || Date.now()) - task.startedAt : null;
  return [
    task.postedAt ? `posted ${clock(task.postedAt)}` : null,
    `enqueued ${task.enqueuedAt ? clock(task.enqueuedAt) : "–"}`,
    `waited ${duration(waited)}`,
    task.startedAt ? `started ${clock(task.startedAt)}` : null,
    spoken !== null ? `${ended ? "spoke" : "speaking for"} ${duration(spoken)}` : null,
    ended ? `${task.status} ${clock(task.endedAt)}` : null,
  ].filter(Boolean).join(" · ");
}

function fillSelect(select, values, selected, none) {
  const list = Array.isArray(values) ? values.slice() : [];
  if (selected && !list.includes(selected)) list.unshift(selected);
  const options = list.map((value) => el("option", { value, selected: value === selected }, value));
  if (!selected) options.unshift(el("option", { value: "", selected: true, disabled: true }, none));
  select.replaceChildren(...options);
  select.value = selected || "";
}
