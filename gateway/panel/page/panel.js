// SPDX-License-Identifier: MIT
// The front panel. Every control says an order of gw; what is shown comes from "gw show" and "gw watch". Texts of the
// gateway reach the page as textContent or as a control's value only.
"use strict";

const mostLines = 500;
const plottedSeconds = 60;
const byId = (id) => document.getElementById(id);

function make(tag, attributes = {}, ...content) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
    element.append(...content);
    return element;
}

// ---- orders

async function ask(words) {
    const response = await fetch("order", {method: "POST", headers: {"Content-Type": "application/octet-stream"},
                                           body: words.map((word) => word + "\0").join("")});
    if (!response.ok) throw new Error(await response.text());
    return response.json();
}

async function say(words) {
    const answer = await ask(words).catch((problem) => ({status: 1, output: "", error: String(problem.message)}));
    byId("answer").textContent = answer.status === 0 ? "" : `${words.join(" ")}: ${answer.error.trim()}`;
    return answer;
}

// ---- controls: data-value names what of the state they show, data-on, data-off, data-order and data-say what they say

const valueAt = (state, path) => path.split(".").reduce((value, name) => value?.[name], state);
const dragged = new Set();

document.addEventListener("click", (event) => {
    const button = event.target.closest("button[data-on], button[data-say]");
    if (!button) return;
    const on = button.getAttribute("aria-checked") === "true";
    say((button.dataset.say ?? (on ? button.dataset.off : button.dataset.on)).split(" "));
});
document.addEventListener("input", (event) => {
    if (event.target.type !== "range") return;
    dragged.add(event.target);
    event.target.parentElement.querySelector(".value").textContent = event.target.value;
});
document.addEventListener("change", async (event) => {
    const slider = event.target;
    if (slider.type !== "range") return;
    const answer = await say([...slider.dataset.order.split(" "), slider.value]);
    dragged.delete(slider);
    if (answer.status !== 0) showControl(slider, shown);
});

function showControl(control, state) {
    if (!state || dragged.has(control)) return;
    const value = valueAt(state, control.dataset.value);
    control.disabled = value === undefined;
    if (control.type !== "range") return control.setAttribute("aria-checked", String(value === true || value === 1));
    if (value === undefined || value === null) return;
    if (Number(control.max) < value) control.max = value;
    control.value = value;
    control.parentElement.querySelector(".value").textContent = value;
}

function onSubmit(id, words) {
    byId(id).addEventListener("submit", async (event) => {
        event.preventDefault();
        await say(words());
    });
}
onSubmit("new-value", () => ["config", "set", byId("new-key").value, byId("new-text").value].filter((word) => word !== ""));
onSubmit("receive", () => ["sms", "receive", byId("sms-number").value, byId("sms-text").value]);
onSubmit("signal", () => ["program", "signal", byId("signal-name").value]);
onSubmit("play", () => ["scenario", "play", byId("scenario-name").value]);
byId("order").addEventListener("submit", async (event) => {
    event.preventDefault();
    const answer = await say(byId("words").value.trim().split(/ +/));
    byId("output").textContent = answer.output + answer.error;
});

// ---- state

// Keeps one child of the container for each key, so that what has the focus keeps it.
function keep(container, entries, create, update) {
    const kept = new Map([...container.children].map((child) => [child.dataset.key, child]));
    for (const [key, value] of entries) {
        let child = kept.get(key);
        if (!child) {
            child = create(key, value);
            child.dataset.key = key;
        }
        kept.delete(key);
        if (!child.isConnected || container.lastElementChild !== child) {
            if (!child.isConnected) container.append(child);
        }
        update(child, value, key);
    }
    for (const child of kept.values()) child.remove();
}

function input(key) {
    const group = make("div", {class: "controls", role: "group", "aria-label": `Input ${key}`});
    group.append(make("button", {type: "button", role: "switch", "data-on": `input ${key} 1`, "data-off": `input ${key} 0`,
                                 "data-value": `inputs.${key - 1}`}, `Input ${key}`),
                 make("button", {type: "button", "data-say": `pulse ${key} 1`, "aria-label": `Pulse on input ${key}`}, "Pulse"));
    return group;
}

function peer(name) {
    const row = make("tr");
    const buttons = make("div", {class: "controls"});
    for (const word of ["start", "stop", "kill"])
        buttons.append(make("button", {type: "button", "data-say": `${word} ${name}`, "aria-label": `${word} ${name}`}, word));
    const form = make("form", {class: "controls"});
    const choice = make("select", {"aria-label": `Fault of ${name}`});
    const argument = make("input", {"aria-label": `Values for the fault of ${name}`});
    for (const [order, values, purpose] of faults.get(name) ?? [])
        choice.append(make("option", {value: order, "data-values": values, title: purpose}, order));
    const showValues = () => {
        const values = choice.selectedOptions[0]?.dataset.values ?? "";
        argument.placeholder = values;
        argument.hidden = values === "";
    };
    choice.addEventListener("change", showValues);
    showValues();
    form.append(choice, argument, make("button", {"aria-label": `Apply the fault of ${name}`}, "Apply"));
    form.addEventListener("submit", (event) => {
        event.preventDefault();
        const values = argument.hidden ? "" : argument.value.trim();
        say([...choice.value.split(" "), ...(values === "" ? [] : values.split(/ +/))]);
    });
    row.append(make("th", {scope: "row"}, name), make("td"), make("td", {}, buttons), make("td", {}, form));
    return row;
}

function pair(key) {
    return make("tr", {}, make("th", {scope: "row"}, key), make("td"));
}

function configValue(key) {
    const field = make("input", {"aria-label": `Value of ${key}`});
    field.addEventListener("change", () => say(["config", "set", key, ...(field.value === "" ? [] : [field.value])]));
    return make("tr", {}, make("th", {scope: "row"}, key), make("td", {}, field));
}

function showTimeline(timeline) {
    byId("question").textContent = timeline?.question ?? "";
    byId("played").textContent = timeline ? `${timeline.name}: ${timeline.state}${timeline.failure ? `: ${timeline.failure}` : ""}` : "";
    keep(byId("timeline"), (timeline?.steps ?? []).map((step) => [`${timeline.name}:${step.line}`, step]), () => make("li"),
         (item, step) => {
             const at = step.line === timeline.line;
             const state = at && timeline.state === "playing" ? "present" : at && timeline.failure ? "failed"
                           : step.done === step.times ? "done" : "pending";
             item.className = state;
             if (state === "present") item.setAttribute("aria-current", "step"); else item.removeAttribute("aria-current");
             item.textContent = `${{present: "\u25b6", failed: "\u2717", done: "\u2713", pending: "\u00b7"}[state]} ${step.text}`
                 + (step.times > 1 ? ` (${step.done} of ${step.times})` : "");
         });
}

let shown = null;

function show(state) {
    shown = {...state, storage: Object.fromEntries(state.storage.map((disk) => [disk.name, disk]))};
    if (!state.wan.present) shown.wan = {};
    clock = {gateway: state.time, page: performance.now()};
    byId("program").textContent = state.program === null ? "none" : `process ${state.program}`;
    keep(byId("inputs"), state.inputs.map((level, i) => [String(i + 1), level]), input, () => {});
    keep(byId("outputs"), state.outputs.map((level, i) => [String(i + 1), level]), () => make("li"), (lamp, level, key) => {
        lamp.className = level === 1 ? "on" : "";
        lamp.textContent = `Output ${key}: ${level === 1 ? "on" : level === 0 ? "off" : level}`;
    });
    for (const control of document.querySelectorAll("[data-value]")) showControl(control, shown);
    keep(byId("peers"), state.peers.map((one) => [one.name, one]), peer, (row, one) => {
        row.children[1].textContent = one.running ? `running, process ${one.pid}` : "ended";
    });
    keep(byId("status"), Object.entries(state.status), pair, (row, value) => { row.lastElementChild.textContent = value; });
    keep(byId("config"), Object.entries(state.config), configValue, (row, value) => {
        const field = row.querySelector("input");
        if (document.activeElement !== field) field.value = value;
    });
    if (byId("devlog").textContent !== state.devlog) byId("devlog").textContent = state.devlog;
    showTimeline(state.timeline);
    state.inputs.forEach((level, i) => edge(`in ${i + 1}`, level));
    state.outputs.forEach((level, i) => edge(`out ${i + 1}`, level));
}

// ---- record

const texts = {
    event: (entry) => `${entry.id} ${entry.param} ${entry.text}`,
    sms: (entry) => `${entry.to}: ${entry.text}`,
    log: (entry) => `${entry.priority} ${entry.identity}${entry.pid === null ? "" : `[${entry.pid}]`}: ${entry.text}`,
    order: (entry) => `${entry.words}${entry.obeyed ? "" : " (not obeyed)"}`,
    output: (entry) => `output ${entry.output} is ${entry.level}`,
    counting: (entry) => `input ${entry.input}: counting ${entry.state}`,
    peer: (entry) => `${entry.peer} ${entry.state}`,
    program: (entry) => entry.state,
    scenario: (entry) => entry.failure ?? entry.text ?? "",
};
const lists = {event: "events", sms: "sms", log: "log"};

function matchesFilter(item) {
    return item.textContent.includes(byId("filter").value);
}
byId("filter").addEventListener("input", () => {
    for (const item of byId("log").children) item.hidden = !matchesFilter(item);
});

// A list shows its end unless the reader has scrolled away from it. Once for all lines that came together, because asking
// for positions has the page laid out.
const grown = new Set();
const scrolledAway = new Set();
for (const id of ["events", "sms", "log", "record"]) {
    byId(id).addEventListener("scroll", ({target}) => {
        const away = target.scrollTop + target.clientHeight < target.scrollHeight - 8;
        if (away) scrolledAway.add(target); else scrolledAway.delete(target);
    });
}

function scrollGrown() {
    for (const list of grown) {
        if (!scrolledAway.has(list)) list.scrollTop = list.scrollHeight;
    }
    grown.clear();
}

function note(entry) {
    const list = byId(lists[entry.kind] ?? "record");
    const text = (texts[entry.kind] ?? ((other) => other.text ?? ""))(entry);
    const item = make("li", {}, make("time", {}, entry.time.toFixed(3)), ` ${list.id === "record" ? `${entry.kind}: ` : ""}${text}`);
    if (entry.kind === "log") {
        item.className = entry.priority;
        item.hidden = !matchesFilter(item);
    }
    list.append(item);
    if (list.children.length > mostLines) list.firstElementChild.remove();
    if (grown.size === 0) setTimeout(scrollGrown);
    grown.add(list);
    plotEntry(entry);
}

// ---- plots

let clock = {gateway: 0, page: performance.now()};
const now = () => clock.gateway + (performance.now() - clock.page) / 1000;
let trips = [];
const edges = new Map();

function edge(name, level, time = now()) {
    if (!edges.has(name)) edges.set(name, []);
    const steps = edges.get(name);
    if (steps.at(-1)?.level !== level) steps.push({time, level});
}

function plotEntry(entry) {
    if (entry.kind === "output") edge(`out ${entry.output}`, Number(entry.level), entry.time);
    const [, what, line, value] = entry.kind === "order" && entry.obeyed
        ? /^(?:board )?(in|input|pulse) (\d+) (\d+)$/.exec(entry.words) ?? [] : [];
    if (what === "pulse" && value !== "0") {
        const before = edges.get(`in ${line}`)?.at(-1)?.level ?? 0;
        edge(`in ${line}`, 1 - before, entry.time);
        edge(`in ${line}`, before, entry.time + 0.05);
    } else if (what) {
        edge(`in ${line}`, Number(value), entry.time);
    }
}

function svg(tag, attributes, text = "") {
    const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
    for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
    element.textContent = text;
    return element;
}
const left = 50;
const xOf = (time) => left + (600 - left) * (1 - (now() - time) / plottedSeconds);

function drawTrips() {
    trips = trips.filter((trip) => trip.time > now() - plottedSeconds);
    const known = trips.filter((trip) => trip.ms !== null).map((trip) => trip.ms);
    const top = Math.max(10, ...known) * 1.1;
    const yOf = (ms) => 110 - 100 * ms / top;
    const parts = [svg("path", {class: "axis", d: `M${left} 10V110H600`}), svg("text", {x: 0, y: 20}, `${top.toFixed(0)} ms`),
                   svg("text", {x: 0, y: 110}, "0 ms")];
    let path = "";
    for (const trip of trips) {
        if (trip.ms === null) parts.push(svg("path", {class: "lost", d: `M${xOf(trip.time)} 104V110`}));
        else path += `${path === "" || trip.first ? "M" : "L"}${xOf(trip.time).toFixed(1)} ${yOf(trip.ms).toFixed(1)}`;
    }
    if (path !== "") parts.push(svg("path", {class: "curve", d: path}));
    byId("trips").replaceChildren(...parts);
    const lost = trips.length - known.length;
    byId("trips-text").textContent = trips.length === 0 ? "Round-trip time: not measured"
        : `Round-trip time: ${known.length ? `${known.at(-1).toFixed(1)} ms` : "none"}, ${lost} of ${trips.length} lost`;
}

function drawEdges() {
    const lines = [...edges].sort(([one], [other]) => (one < other ? -1 : 1));
    const room = 20;
    byId("edges").setAttribute("viewBox", `0 0 600 ${Math.max(1, lines.length) * room}`);
    byId("edges").replaceChildren(...lines.flatMap(([name, steps], row) => {
        while (steps.length > 1 && steps[1].time < now() - plottedSeconds) steps.shift();
        const yOf = (level) => row * room + (level === 1 ? 4 : 16);
        let path = "";
        for (const step of steps) {
            const x = Math.max(left, xOf(step.time)).toFixed(1);
            path += path === "" ? `M${x} ${yOf(step.level)}` : `H${x}V${yOf(step.level)}`;
        }
        return [svg("text", {x: 0, y: row * room + 15}, name), svg("path", {class: name.startsWith("out") ? "out" : "curve", d: `${path}H600`})];
    }));
}

setInterval(() => {
    byId("time").textContent = Math.floor(now());
    if (document.hidden) return;
    drawTrips();
    drawEdges();
}, 250);

// ---- start

// The faults of a peer: every form that begins with its name, each choice of words one line.
const faults = new Map();
const peerOf = {config: "config", modem: "modem", manager: "events", board: "board", wan: "wan"};

function takeForms(forms) {
    for (const {syntax, purpose} of forms) {
        byId("forms").append(make("option", {value: syntax}, purpose));
        const tokens = syntax.split(" ");
        const values = tokens.filter((token) => /^\[?[A-Z]/.test(token));
        const name = peerOf[tokens[0]];
        if (!name) continue;
        let orders = [""];
        for (const token of tokens.filter((one) => !values.includes(one)))
            orders = orders.flatMap((order) => token.split("|").map((word) => `${order} ${word}`.trim()));
        if (!faults.has(name)) faults.set(name, []);
        faults.get(name).push(...orders.map((order) => [order, values.join(" "), purpose]));
    }
}

let source = null;

function connect() {
    source?.close();
    source = new EventSource(byId("measure").checked ? "events?trips" : "events");
    const link = byId("link");
    const linked = (text, lost) => {
        link.textContent = text;
        link.classList.toggle("lost", lost);
    };
    source.addEventListener("open", () => {
        for (const id of ["events", "sms", "log", "record"]) byId(id).replaceChildren();
        linked("Connected", false);
    });
    source.addEventListener("error", () => linked("Not connected: the gateway has ended, or too many pages are open", true));
    source.addEventListener("state", (event) => show(JSON.parse(event.data)));
    source.addEventListener("record", (event) => note(JSON.parse(event.data)));
    source.addEventListener("trip", (event) => trips.push({time: now(), ms: JSON.parse(event.data).ms}));
}

async function start() {
    takeForms(await (await fetch("forms")).json());
    const catalogue = await ask(["scenario", "list", "--json"]);
    for (const one of catalogue.status === 0 ? JSON.parse(catalogue.output) : [])
        byId("scenario-name").append(make("option", {value: one.name, title: one.question}, one.name));
    connect();
}
byId("measure").addEventListener("change", connect);
start();
