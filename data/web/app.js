// The messages page: lists the messages by mailbox and the call log from the
// JSON API, plays, marks, saves and deletes, uploads greetings, and listens
// for new messages as server-sent events. The token comes from the address
// kalctl web printed; requests that change something send it in a header.
"use strict";

const token = new URLSearchParams(location.search).get("token") || "";
const longest = 60000;  // a duration bar is full at one minute

function api(path, method) {
  const options = method ? { method, headers: { "X-Kal-Token": token } } : {};
  return fetch(path, options).then((r) => {
    if (!r.ok) throw new Error(method + " " + path + ": " + r.status);
    return r.status === 204 ? null : r.json();
  });
}

function el(tag, attrs, text) {
  const e = document.createElement(tag);
  Object.assign(e, attrs || {});
  if (text !== undefined) e.textContent = text;
  return e;
}

function caller(m) {
  const who = m.number || "withheld number";
  return m.name ? who + " (" + m.name + ")" : who;
}

function when(seconds) {
  return new Date(seconds * 1000).toLocaleString();
}

function seconds(ms) {
  return (ms / 1000).toFixed(1) + " s";
}

function messageCard(m) {
  const base = "api/mailboxes/" + m.mailbox + "/messages/" + m.id;
  const card = el("article", { className: "message" + (m.heard ? "" : " new"), id: "message-" + m.id });
  card.dataset.id = m.id;
  card.append(el("div", { className: "who" }, caller(m)),
              el("div", { className: "when" }, when(m.received) + " · " + seconds(m.durationMs) +
                 " · " + m.state));
  const bar = el("div", { className: "bar", title: seconds(m.durationMs) });
  const fill = el("div");
  fill.style.width = Math.max(2, Math.min(100, (100 * m.durationMs) / longest)) + "%";
  bar.append(fill);
  card.append(bar);
  const actions = el("div", { className: "actions" });
  const play = el("button", { className: "play" }, "Play");
  play.onclick = () => {
    const player = document.getElementById("player");
    player.src = base + "/audio";
    player.dataset.playing = m.id;
    player.onended = () => {
      fill.classList.add("played");
      document.body.dataset.ended = m.id;
    };
    player.play();
    if (!m.heard) api(base + "/heard", "POST").then(refresh);
  };
  const save = el("button", { className: "save" }, "Save");
  save.onclick = () => api(base + "/save", "POST").then(refresh);
  const del = el("button", { className: "delete" }, "Delete");
  del.onclick = () => api(base, "DELETE").then(refresh);
  actions.append(play, save, del);
  card.append(actions);
  return card;
}

function showMessages(messages) {
  const root = document.getElementById("mailboxes");
  root.replaceChildren();
  const boxes = new Map();
  for (const m of messages) {
    if (!boxes.has(m.mailbox)) boxes.set(m.mailbox, []);
    boxes.get(m.mailbox).push(m);
  }
  for (const [box, list] of [...boxes].sort((a, b) => a[0] - b[0])) {
    const waiting = list.filter((m) => !m.heard).length;
    const section = el("section", { className: "mailbox" });
    section.append(el("h2", {}, "Mailbox " + box + (waiting ? " · " + waiting + " new" : "")));
    for (const m of list.slice().reverse()) section.append(messageCard(m));
    root.append(section);
  }
  document.getElementById("empty").hidden = messages.length > 0;
}

function showCalls(calls) {
  const list = document.getElementById("calls");
  list.replaceChildren(...calls.map((c) =>
    el("li", {}, when(c.started) + " · " + (c.number || "withheld") + " · " + c.outcome)));
}

function refresh() {
  return Promise.all([api("api/messages").then(showMessages), api("api/calls").then(showCalls)])
    .then(() => { document.body.dataset.loaded = "yes"; })
    .catch((e) => { document.getElementById("status").textContent = e.message; });
}

document.getElementById("greeting").onsubmit = (event) => {
  event.preventDefault();
  const file = document.getElementById("greeting-file").files[0];
  const box = document.getElementById("greeting-mailbox").value;
  const result = document.getElementById("greeting-result");
  if (!file) { result.textContent = "choose a file first"; return; }
  fetch("api/mailboxes/" + box + "/greeting",
        { method: "POST", headers: { "X-Kal-Token": token }, body: file })
    .then((r) => r.json().then((j) => {
      result.textContent = r.ok ? "greeting of " + seconds(j.durationMs) + " kept" : j.error;
    }))
    .catch((e) => { result.textContent = e.message; });
};

const events = new EventSource("api/events");
events.onopen = () => { document.getElementById("status").textContent = "live"; };
events.onerror = () => { document.getElementById("status").textContent = "reconnecting…"; };
events.addEventListener("message", refresh);

refresh();
