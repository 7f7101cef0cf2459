// The page of the virtual camera. What it shows is what the server tells; a click is an order, and shows only what it
// led to. Whatever comes from outside is set as text, never as markup.
"use strict";

const tokenOf = (page) => page.querySelector('meta[name="halvek-token"]').content;
let token = tokenOf(document);
const mostRows = 200;
const boxSeconds = 5;
const retryMilliseconds = 1000;
const litMilliseconds = 4000;
const explainMilliseconds = 300;
const drawMilliseconds = 5000;
const svgNamespace = "http://www.w3.org/2000/svg";
// What the daemon asks before it decides what to do.
const questions = /\.(GetBankNames|IsRemote|IsAt|GetIdleState|GetSummary|GetConfiguration)$/;

const byId = (id) => document.getElementById(id);

/** A new element with a text. */
function element(name, text = "", className = "") {
  const made = document.createElement(name);
  made.textContent = text;
  if (className) {
    made.className = className;
  }
  return made;
}

/** Sets a text only where it is another one: a screen reader says what has changed. */
function setText(target, text) {
  if (target.textContent !== text) {
    target.textContent = text;
  }
}

// --- orders

async function order(path, body) {
  let text = "";
  try {
    const answer = await fetch(path, {
      method: "POST",
      headers: { "Content-Type": "application/json", "X-Halvek-Token": token },
      body: JSON.stringify(body),
    });
    text = answer.ok ? "" : await answer.text();
  } catch {
    text = "The page's server does not answer";
  }
  setText(byId("refusal"), text);
}

function button(label, onClick) {
  const made = element("button", label);
  made.type = "button";
  made.addEventListener("click", onClick);
  return made;
}

/** A switch that asks for the other state; it turns when the camera has done so. */
function makeSwitch(label, ask) {
  const made = button(label, () => ask(made.getAttribute("aria-checked") !== "true"));
  made.setAttribute("role", "switch");
  made.setAttribute("aria-checked", "false");
  return made;
}

function setSwitch(target, isOn) {
  target.setAttribute("aria-checked", String(isOn));
}

// --- alarm inputs

const alarms = new Map();

function groupOfBank(bank) {
  const group = element("div", "", "switches");
  group.setAttribute("role", "group");
  group.setAttribute("aria-label", `Alarm inputs of the bank ${bank}`);
  byId("alarms").append(element("h3", bank), group);
  return group;
}

function showAlarms(list) {
  const groups = new Map();
  for (const { bank, index, active } of list) {
    const key = `${bank} ${index}`;
    if (!alarms.has(key)) {
      if (!groups.has(bank)) {
        groups.set(bank, groupOfBank(bank));
      }
      const made = makeSwitch(`Alarm ${bank} ${index}`, (wanted) => order("/alarm", { bank, index, active: wanted }));
      alarms.set(key, made);
      groups.get(bank).append(made);
    }
    setSwitch(alarms.get(key), active);
  }
}

// --- relays

const relays = new Map();

function makeRelay(key) {
  const item = element("li");
  const lamp = element("span", "", "lamp");
  lamp.setAttribute("aria-hidden", "true");
  const [name, pulse, more] = ["name", "pulse", "more"].map((part) => element("span", "", part));
  const row = { item, name, pulse, more };
  item.append(lamp, name, " ", pulse, " ", more);
  byId("relays").append(item);
  relays.set(key, row);
  return row;
}

function showRelays(list) {
  const local = (relay) => (relay.bank === "Local" ? 0 : 1);
  for (const relay of [...list].sort((one, other) => local(one) - local(other))) {
    const key = `${relay.bank} ${relay.index}`;
    const row = relays.get(key) ?? makeRelay(key);
    row.item.classList.toggle("lit", relay.on);
    setText(row.name, `${key} ${relay.on ? "on" : "off"}`);
    setText(row.pulse, relay.pulse > 0 ? `pulse ${relay.pulse} of ${relay.pulses}` : "");
    const polarity = relay.polarity ? ", polarity reversed" : "";
    setText(row.more, `mode ${relay.mode}, ${relay.pulseCount} × ${relay.onMs}/${relay.offMs} ms${polarity}`);
  }
}

// --- head

const furthest = 100; // degrees
const still = window.matchMedia("(prefers-reduced-motion: reduce)");

function showPlaces(presets, tours) {
  if (byId("presets").childElementCount > 0) {
    return;
  }
  for (const { id, position } of presets) {
    byId("presets").append(button(`Preset ${id}`, () => order("/head", { preset: id })));
    const place = element("span", id);
    place.style.left = `${(100 * position) / furthest}%`;
    byId("map").append(place);
  }
  for (const id of tours) {
    byId("tours").append(button(`Tour ${id}`, () => order("/head", { tour: id })));
  }
}

function showHead({ position, target, remainingMs, idle, route }) {
  const marker = byId("marker");
  marker.style.transition = "none";
  marker.style.left = `${(100 * position) / furthest}%`;
  if (remainingMs > 0 && !still.matches) {
    marker.getBoundingClientRect(); // so that the place before the move counts
    marker.style.transition = `left ${remainingMs}ms linear`;
    marker.style.left = `${(100 * target) / furthest}%`;
  }
  const where = route.length > 0 ? `On its way to preset ${route.join(", then ")}` : `At rest at ${position} degrees`;
  setText(byId("head-text"), `${where}; idle state ${idle}`);
}

// --- recording and faults

const recording = { a: false, b: false };
const recordingSwitches = {
  a: makeSwitch("Recording A", (wanted) => order("/recording", { ...recording, a: wanted })),
  b: makeSwitch("Recording B", (wanted) => order("/recording", { ...recording, b: wanted })),
};
byId("recording").append(recordingSwitches.a, recordingSwitches.b);

function showRecording(state) {
  Object.assign(recording, state);
  setSwitch(recordingSwitches.a, state.a);
  setSwitch(recordingSwitches.b, state.b);
}

const faults = new Map();

function makeFault(provider) {
  const label = element("label", provider);
  const select = element("select");
  for (const kind of ["none", "error", "slow", "hang"]) {
    select.append(element("option", kind));
  }
  select.addEventListener("change", () => order("/fault", { provider, kind: select.value }));
  label.append(select);
  byId("faults").append(label);
  faults.set(provider, select);
  return select;
}

function showFaults(state) {
  for (const [provider, kind] of Object.entries(state)) {
    const select = faults.get(provider) ?? makeFault(provider);
    if (select.value !== kind) {
      select.value = kind;
    }
  }
}

// --- picture

function showPicture(tag) {
  const picture = byId("picture");
  byId("picture-note").hidden = Boolean(tag);
  if (tag) {
    // The address changes with the picture, or the browser would show the one that it has.
    picture.src = `/picture?${encodeURIComponent(tag)}`;
  } else {
    picture.removeAttribute("src");
  }
}

/** Draws the box of an alert, "(0.1,0.2)|(0.3,0.2)|...", for some seconds. */
function drawBox(points) {
  const pairs = [...points.matchAll(/\(([-\d.e+]+),([-\d.e+]+)\)/g)].map((pair) => [Number(pair[1]), Number(pair[2])]);
  if (pairs.length < 2 || !pairs.flat().every(Number.isFinite)) {
    return;
  }
  const polygon = document.createElementNS(svgNamespace, "polygon");
  polygon.setAttribute("points", pairs.map((pair) => pair.join(",")).join(" "));
  byId("boxes").replaceChildren(polygon);
  setTimeout(() => polygon.remove(), boxSeconds * 1000);
}

// --- lists: rows wait for the next frame, and only the latest of them are made

class Log {
  constructor(name, makeRow) {
    this.list = byId(name);
    this.note = byId(`${name}-note`);
    this.makeRow = makeRow;
    this.waiting = [];
    this.leftOut = 0;
  }

  add(item, leftOut = 0) {
    this.leftOut += leftOut;
    this.waiting.push(item);
    if (this.waiting.length > mostRows) {
      this.waiting.shift();
      this.leftOut += 1;
    }
  }

  replace(items) {
    this.list.replaceChildren();
    this.waiting = [...items];
  }

  render() {
    if (this.waiting.length > 0) {
      const rows = this.waiting.map(this.makeRow).reverse();
      this.waiting = [];
      this.list.prepend(...rows);
      while (this.list.childElementCount > mostRows) {
        this.list.lastElementChild.remove();
      }
    }
    setText(this.note, this.leftOut > 0 ? `Too many came at a time: ${this.leftOut} were left out` : "");
  }
}

function rowOf(time) {
  const row = element("li");
  const shown = element("time", time.slice(11, 23));
  shown.dateTime = time;
  row.append(shown);
  return row;
}

const logs = {
  event: new Log("events", ({ time, type, props, stale }) => {
    const row = rowOf(time);
    const own = Object.entries(props).filter(([key]) => !["FormattedTime", "Timestamp", "eventType"].includes(key));
    const text = own.map(([key, value]) => `${key}=${value}`).join("  ");
    row.append(element("b", type), element("span", text + (stale ? "  (stale)" : ""), "props"));
    return row;
  }),
  action: new Log("actions", (action) => {
    const row = rowOf(action.time);
    row.classList.toggle("question", questions.test(action.method));
    row.append(element("b", action.method), element("span", action.arguments, "props"));
    return row;
  }),
  said: new Log("said", ({ time, text }) => {
    const row = rowOf(time);
    row.append(element("span", text));
    return row;
  }),
};

const actionList = byId("actions");
const showQuestions = () => actionList.classList.toggle("without-questions", !byId("queries").checked);
byId("queries").addEventListener("change", showQuestions);
showQuestions();

// --- what halvekctl says of the settings: their wiring, and who acts on the last event

const drawnElements = new Set(["svg", "title", "defs", "marker", "g", "rect", "path", "line", "text"]);
const drawnAttributes = new Set(
  (
    "role class id x y x1 y1 x2 y2 rx width height viewBox d data-group data-from data-to marker-end refX refY " +
    "markerUnits markerWidth markerHeight orient"
  ).split(" "),
);

/** A copy that holds shapes and texts, and nothing that acts or fetches. */
function copyOfDrawing(node) {
  const made = document.createElementNS(svgNamespace, node.localName);
  for (const { name, value } of node.attributes) {
    if (drawnAttributes.has(name)) {
      made.setAttribute(name, value);
    }
  }
  for (const child of node.childNodes) {
    if (child.nodeType === Node.TEXT_NODE) {
      made.append(child.data);
    } else if (drawnElements.has(child.localName)) {
      made.append(copyOfDrawing(child));
    }
  }
  return made;
}

/** What cannot be shown is said once, whatever the reason. */
function showProblem(note, problem) {
  const help = "halvekctl, of the package of that name, tells this, from settings that the page's server may read";
  setText(note, problem ? `Not shown: ${problem}. (${help}.)` : "");
}

let drawing = "";

function showWiring({ problem, drawing: drawn }) {
  showProblem(byId("wiring-note"), problem);
  if (drawn === drawing) {
    return;
  }
  drawing = drawn;
  // Of nothing a parser makes a document that complains, with a style that the policy forbids.
  const parsed = drawn && new DOMParser().parseFromString(drawn, "image/svg+xml").documentElement;
  byId("wiring").replaceChildren(...(parsed?.localName === "svg" ? [copyOfDrawing(parsed)] : []));
  lightWay();
}

let explained = { seq: 0, problem: "", rows: [], alwaysOn: [], rules: [] };
let isLit = false;
let litTimer = 0;

/** Marks what the last event has come by: as far as a handler, and on to what that acts on if it does. */
function lightWay() {
  const rows = isLit ? explained.rows.filter((row) => row.source !== null) : [];
  const acting = rows.filter((row) => row.acts);
  const groups = (found, key) => new Set(found.map((row) => row[key]));
  const reached = new Set([...groups(rows, "source"), ...groups(rows, "group")]);
  const acts = groups(acting, "group");
  if (isLit) {
    explained.alwaysOn.filter((one) => one.verdict === "acts").forEach((one) => acts.add(one.type));
    explained.rules.forEach((rule) => acts.add(`rule ${rule.name}`));
  }
  for (const part of byId("wiring").querySelectorAll("[data-group]")) {
    part.classList.toggle("reached", reached.has(part.dataset.group));
    part.classList.toggle("lit", acts.has(part.dataset.group));
  }
  for (const edge of byId("wiring").querySelectorAll("[data-from]")) {
    const isOfEdge = (row) => row.source === edge.dataset.from && row.group === edge.dataset.to;
    edge.classList.toggle("reached", rows.some(isOfEdge));
    edge.classList.toggle("lit", acting.some(isOfEdge));
  }
}

function light() {
  isLit = true;
  lightWay();
  clearTimeout(litTimer);
  litTimer = setTimeout(() => {
    isLit = false;
    lightWay();
  }, litMilliseconds);
}

function rowOfVerdict({ group, type, verdict, acts, text }) {
  const row = element("li", "", acts ? "acts" : "idle");
  const name = group.replace(/^Events\//, "");
  row.append(element("b", verdict, "verdict"), `${name} ${type}`, element("span", `: ${text}`, "props"));
  return row;
}

function showExplanation(answer) {
  if (answer.seq === 0 || (answer.seq === explained.seq && answer.problem === explained.problem)) {
    return;
  }
  explained = answer;
  if (answer.problem) {
    showProblem(byId("explain-note"), answer.problem);
    byId("explain").replaceChildren();
  } else {
    const rows = answer.rows.map(rowOfVerdict);
    const posts = answer.rules.map((rule) => element("li", `The rule ${rule.name} hears it, and posts ${rule.post}`));
    const none = answer.rows.length === 0 ? [element("li", "The settings have no handlers")] : [];
    byId("explain").replaceChildren(...rows, ...posts, ...none);
    setText(byId("explain-note"), `${answer.type} at ${answer.time.slice(11, 19)} UTC`);
    light();
  }
}

/** Asks the server for something, one at a time, and not more often than that. */
class Question {
  constructor(path, interval, show) {
    Object.assign(this, { path, interval, show, isUnderWay: false, isWanted: false });
  }

  async ask() {
    this.isWanted = true;
    if (this.isUnderWay || document.hidden || !isServerThere) {
      return;
    }
    this.isUnderWay = true;
    this.isWanted = false;
    try {
      const answer = await fetch(this.path);
      if (answer.ok) {
        this.show(await answer.json());
      }
    } catch {
      // The stream finds out, and everything is asked anew when the server is back.
    }
    setTimeout(() => {
      this.isUnderWay = false;
      if (this.isWanted) {
        this.ask();
      }
    }, this.interval);
  }
}

const explanation = new Question("/explain", explainMilliseconds, showExplanation);
const wiring = new Question("/wiring", explainMilliseconds, showWiring);
setInterval(() => wiring.ask(), drawMilliseconds);

function askAgain() {
  wiring.ask();
  explanation.ask();
}

// --- what the server tells

let latest = null; // the state that is to be shown next
let isFrameDue = false;
let isServerThere = false;

function showStatus(state) {
  const status = byId("status");
  let text = "The page's server is away";
  if (isServerThere) {
    text = state?.camera ? "The camera is there" : "The camera is away";
  }
  status.classList.toggle("away", !isServerThere || !state?.camera);
  setText(status, text);
}

let shown = null;

function render() {
  isFrameDue = false;
  if (latest !== null) {
    shown = latest;
    latest = null;
    showAlarms(shown.alarms);
    showRelays(shown.relays);
    showHead(shown.head);
    showRecording(shown.recording);
    showFaults(shown.faults);
  }
  showStatus(shown);
  Object.values(logs).forEach((log) => log.render());
}

function renderSoon() {
  if (!isFrameDue) {
    isFrameDue = true;
    requestAnimationFrame(render);
  }
}

let stream = null;
let lastId = 0; // of what is shown
let retry = 0;

const takers = {
  state(data) {
    latest = data;
  },
  picture(data) {
    showPicture(data);
  },
  said(data) {
    logs.said.add(data);
  },
  action(data) {
    logs.action.add(data, data.leftOut ?? 0);
  },
  event(data) {
    logs.event.add(data);
    explanation.ask();
    if (data.type === "AnalyticsAlert" && data.props.boxPoints) {
      drawBox(data.props.boxPoints);
    }
  },
};

let missed = 0;

/** What the server does not remember any more, or has not been able to tell us in time. */
function countMissed(count) {
  missed += count;
  setText(byId("missed"), missed > 0 ? `Too much came at a time: ${missed} messages were left out` : "");
}

function openStream() {
  stream = new EventSource(`/stream?after=${lastId}`);
  stream.addEventListener("open", () => {
    isServerThere = true;
    renderSoon();
  });
  stream.addEventListener("error", () => {
    isServerThere = false;
    renderSoon();
    if (stream?.readyState === EventSource.CLOSED) {
      startAgainLater();
    }
  });
  stream.addEventListener("reset", (message) => {
    countMissed(JSON.parse(message.data).missed);
    startAgain();
  });
  for (const [name, take] of Object.entries(takers)) {
    stream.addEventListener(name, (message) => {
      lastId = Number(message.lastEventId);
      take(JSON.parse(message.data));
      renderSoon();
    });
  }
}

function closeStream() {
  clearTimeout(retry);
  stream?.close();
  stream = null;
}

function startAgainLater() {
  closeStream();
  retry = setTimeout(startAgain, retryMilliseconds);
}

/** After a gap. The server may be another one, whose token is in its own page. */
async function startAgain() {
  closeStream();
  try {
    const page = await (await fetch("/")).text();
    token = tokenOf(new DOMParser().parseFromString(page, "text/html"));
  } catch {
    startAgainLater();
    return;
  }
  start();
}

/** Reads how things stand, and goes on from there. */
async function start() {
  try {
    const answer = await fetch("/state");
    const state = await answer.json();
    isServerThere = true;
    lastId = Number(state.id);
    showPlaces(state.presets, state.tours);
    showPicture(state.picture);
    logs.said.replace(state.said);
    logs.action.replace(state.actions);
    logs.event.replace(state.events);
    latest = state;
    renderSoon();
    // Another server counts its events anew.
    explained.seq = 0;
    askAgain();
  } catch {
    isServerThere = false;
    renderSoon();
    startAgainLater();
    return;
  }
  if (!document.hidden && stream === null) {
    openStream();
  }
}

// A browser has few connections to one server, for all of its tabs: a page that nobody sees holds none.
document.addEventListener("visibilitychange", () => {
  if (document.hidden) {
    closeStream();
  } else if (stream === null) {
    // What came meanwhile is still in the server's memory, or it says that it is not.
    openStream();
    askAgain();
  }
});

// --- forms

byId("alert").addEventListener("submit", (submitted) => {
  submitted.preventDefault();
  const fields = new FormData(submitted.target);
  const [left, top, right, bottom] = ["left", "top", "right", "bottom"].map((name) => Number(fields.get(name)));
  order("/alert", {
    source: fields.get("source"),
    class: fields.get("class"),
    ruleName: fields.get("ruleName"),
    boxPoints: [[left, top], [right, top], [right, bottom], [left, bottom]],
  });
});

byId("post").addEventListener("submit", (submitted) => {
  submitted.preventDefault();
  const fields = new FormData(submitted.target);
  const props = {};
  for (const line of fields.get("props").split(/\r?\n/).filter(Boolean)) {
    const equals = line.indexOf("=");
    props[equals < 0 ? line : line.slice(0, equals)] = equals < 0 ? "" : line.slice(equals + 1);
  }
  order("/post", { type: fields.get("type"), props });
});

start();
