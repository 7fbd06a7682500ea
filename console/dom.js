// Small helpers for building the console's elements without markup strings.

/** An element: el("li", {class: "x", "aria-label": "y"}, child, "text", ...). Attributes
 * whose value is false, null or undefined are left out. */
export function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes || {})) {
    if (value === false || value === null || value === undefined) continue;
    if (name === "class") node.className = value;
    else if (name === "text") node.textContent = value;
    else if (name.startsWith("on") && typeof value === "function") node.addEventListener(name.slice(2), value);
    else node.setAttribute(name, value === true ? "" : String(value));
  }
  for (const child of children.flat()) {
    if (child === null || child === undefined || child === false) continue;
    node.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return node;
}

export function $(id) {
  return document.getElementById(id);
}

/** "12:34:56.789" in local time. */
export function clock(date) {
  const d = date instanceof Date ? date : new Date(date);
  const pad = (n, w = 2) => String(n).padStart(w, "0");
  return `${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}.${pad(d.getMilliseconds(), 3)}`;
}

/** "1.25 s" or "340 ms". */
export function duration(ms) {
  if (ms === null || ms === undefined || Number.isNaN(ms)) return "–";
  return ms < 1000 ? `${Math.round(ms)} ms` : `${(ms / 1000).toFixed(2)} s`;
}

/** A value as compact JSON. */
export function json(value) {
  return value === undefined ? "" : JSON.stringify(value);
}

/** Shows an error (from rpc.describeError) in a box with role="alert"; null hides it. */
export function showError(box, info, context) {
  box.replaceChildren();
  if (!info) {
    box.hidden = true;
    return;
  }
  const where = [info.module, info.method].filter(Boolean).join(".");
  box.append(
    el("strong", {}, context || "Error"),
    el("span", { class: "error-description" }, info.description),
    el("span", { class: "error-meta" },
      where ? `${where} · ` : "", info.code !== "" && info.code !== undefined ? `code ${info.code}` : ""),
  );
  box.hidden = false;
}
