// SPDX-License-Identifier: MIT
// The search: every word that was typed has to be found; where it is found decides on the order.
"use strict";

// Words that mean the same to those who ask.
const SAME = {
    wait: ["block"], sleep: ["block"], mutex: ["lock"], semaphore: ["lock"], config: ["configuration"], gpio: ["digital", "dio"],
    sha: ["sha1"], thread: ["threads"], modem: ["wwanmd"], sms: ["short"], restart: ["reboot"], log: ["syslog"],
};

function wordsOf(text) {
    return text.replace(/([a-z0-9])([A-Z])/g, "$1 $2").toLowerCase().match(/[a-z0-9]+/g) || [];
}

function stem(word) {
    return word.length > 4 ? word.replace(/(ings?|ies|es|s|ed)$/, "") : word;
}

function weightOf(entry, word, alone) {
    const [title, kind, address, summary, text] = entry;
    const name = title.toLowerCase();
    if (name === word || name === word + "()") return alone ? 120 : 40;
    if (name.split("::").pop() === word) return alone ? 100 : 38;
    if (address === word + ".html") return alone ? 60 : 30;  // pages are known by their files' names, too
    const titleWords = wordsOf(title);
    if (titleWords.includes(word)) return 25;
    if (name.startsWith(word)) return 22;
    if (titleWords.some((w) => stem(w) === stem(word))) return 19;
    if (name.includes(word)) return 15;
    const summaryWords = wordsOf(summary);
    if (summaryWords.includes(word)) return 14;
    if (summaryWords.some((w) => stem(w) === stem(word))) return 11;
    if ((" " + text + " ").includes(" " + word + " ")) return 4;
    if (text.includes(" " + stem(word))) return 2;
    return 0;
}

const PREFERRED = {guide: 4, family: 18, class: 5, function: 3, document: 2};

function find(query) {
    const words = query.toLowerCase().replace(/\(\)/g, "").match(/[a-z0-9_:.]+/g) || [];
    if (words.length === 0) return [];
    const found = [], phrase = query.trim().toLowerCase();
    for (const entry of INDEX) {
        let sum = 0;
        for (const word of words) {
            let weight = weightOf(entry, word, words.length === 1);
            for (const other of SAME[word] || []) weight = Math.max(weight, 0.8 * weightOf(entry, other, false));
            if (weight === 0) { sum = 0; break; }
            sum += weight;
        }
        if (sum === 0) continue;
        const at = (entry[0] + " " + entry[3]).toLowerCase().indexOf(phrase);
        if (entry[0] === query.trim()) sum += 90;
        else if (entry[0].toLowerCase() === phrase) sum += 50;
        else if (words.length > 1 && at >= 0) sum += 40 - Math.min(20, at / 4);
        // Few other words in the title: the entry is about what was asked.
        sum += (PREFERRED[entry[1]] || 0) + 20 * words.length / (words.length + wordsOf(entry[0]).length);
        found.push([sum, entry]);
    }
    return found.sort((a, b) => b[0] - a[0]).slice(0, 30).map((pair) => pair[1]);
}

function show(query) {
    const list = document.getElementById("results");
    const found = find(query);
    document.getElementById("found").textContent = found.length ? found.length + " found for \"" + query + "\"" : "Nothing found for \"" + query + "\"";
    list.replaceChildren(...found.map(([title, kind, address, summary]) => {
        const item = document.createElement("li"), link = document.createElement("a"), text = document.createElement("p");
        const what = document.createElement("span");
        link.href = address;
        link.textContent = title;
        what.className = "kind";
        what.textContent = " " + kind;
        text.textContent = summary;
        item.append(link, what, text);
        return item;
    }));
}

document.addEventListener("DOMContentLoaded", () => {
    const pages = document.querySelector("nav details");
    if (window.matchMedia("(min-width: 50.01rem)").matches) pages.open = true;
    const input = document.getElementById("search");
    document.addEventListener("keydown", (event) => {
        if (event.key === "/" && document.activeElement !== input) {
            event.preventDefault();
            input.focus();
        }
    });
    if (!document.getElementById("results")) return;
    const query = new URLSearchParams(location.search).get("q") || "";
    input.value = query;
    show(query);
    input.addEventListener("input", () => show(input.value));
});
