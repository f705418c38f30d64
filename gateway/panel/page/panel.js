// SPDX-License-Identifier: MIT
"use strict";
async function order(...words) {
    const answer = await fetch("order", {method: "POST", headers: {"Content-Type": "application/octet-stream"},
                                         body: words.map((word) => word + "\0").join("")});
    return answer.json();
}
function show(state) {
    const inputs = document.getElementById("inputs");
    inputs.replaceChildren(...state.inputs.map((level, i) => {
        const button = document.createElement("button");
        button.setAttribute("role", "switch");
        button.setAttribute("aria-checked", String(level === 1));
        button.textContent = `Input ${i + 1}`;
        button.addEventListener("click", () => order("input", String(i + 1), level === 1 ? "0" : "1"));
        return button;
    }));
    document.getElementById("outputs").textContent = state.outputs.join(" ");
}
const events = new EventSource("events");
events.addEventListener("open", () => { document.getElementById("link").textContent = "Connected"; });
events.addEventListener("error", () => { document.getElementById("link").textContent = "Disconnected"; });
events.addEventListener("state", (event) => show(JSON.parse(event.data)));
events.addEventListener("record", (event) => {
    const item = document.createElement("li");
    item.textContent = event.data;
    document.getElementById("record").append(item);
});
