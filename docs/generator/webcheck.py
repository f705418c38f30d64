"""Checks of the site: links, resources, what screen readers need, contrast, and a search in a browser."""
import collections
import html.parser
import pathlib
import re
import subprocess
import tempfile
import urllib.parse

import messages
import model

# What a user would type, and the page that has to come first.
SEARCHES = {
    "configd_fetch": "configd.html#configd_fetch",
    "StatusInterface": "statusinterface.html#StatusInterface",
    "setStatus": "statusinterface.html#StatusInterface::setStatus",
    "write_file_atomic": "file.html#write_file_atomic",
    "rawping": "ping.html#rawping",
    "DIO_MISSING": "dio.html#DIO_MISSING",
    "CMessageQueue": "messagequeue.html#CMessageQueue",
    "trylock": "csemaphore.html#CRecursiveSemaphore::trylock",
    "event loop": "eventsource.html",
    "blocking calls": "guide-loops.html",
    "first daemon": "guide-first-daemon.html",
    "test without board": "guide-testing.html",
    "scripts with vx": "guide-scripts.html",
    "locks crash": "guide-locks.html",
    "status or event": "guide-reporting.html",
    "digital inputs": "dio.html",
    "configuration daemon": "configd.html",
    "device log": "qxlog.html",
    "route query": "route.html",
    "message digest": "digest.html",
    "troubleshooting": "troubleshooting.html",
    "security": "security.html",
    "report vulnerability": "reporting.html#reporting-a-vulnerability",
    "vx lock": "vx-lock.1.html",
    "changelog": "changelog.html",
    "debugging": "guide-debugging.html",
    "porting": "guide-porting.html",
    "upgrading": "guide-upgrading.html",
    "system calls": "guide-costs.html",
    "benchmarks": "benchmarks.html",
    "abi": "abi.html",
    "quirks": "compatibility.html",
    "log messages": "messages.html",
    "no response from configd": "messages.html#configd",
}


class Reader(html.parser.HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.ids, self.links, self.resources, self.tags = [], [], [], collections.Counter()
        self.levels = []
        self.language = None
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        self.tags[tag] += 1
        if "id" in attributes:
            self.ids.append(attributes["id"])
        if tag == "a" and "href" in attributes:
            self.links.append(attributes["href"])
        if tag == "html":
            self.language = attributes.get("lang")
        if re.fullmatch(r"h[1-6]", tag):
            self.levels.append(int(tag[1]))
        if tag == "img" and not attributes.get("alt"):
            self.resources.append("an image without alt")
        for name in ("src", "srcset", "data", "poster", "action") + (("href",) if tag == "link" else ()):
            if name in attributes:
                self.resources.append(attributes[name])


def links(directory):
    pages = {path.name: Reader(path.read_text()) for path in directory.glob("*.html")}
    files = {path.name for path in directory.iterdir()}
    findings = []
    for name, page in sorted(pages.items()):
        for link in page.links:
            path, _, anchor = link.partition("#")
            if re.match(r"https?:|mailto:", link):
                continue
            target = path or name
            if target not in files:
                findings.append(f"{name}: dead link to {link}")
            elif anchor and urllib.parse.unquote(anchor) not in pages[target].ids:
                findings.append(f"{name}: no such place: {link}")
        findings += [f"{name}: uses {resource}" for resource in page.resources if resource not in files]
        findings += [f"{name}: id used twice: {i}" for i, n in collections.Counter(page.ids).items() if n > 1]
        if page.tags["h1"] != 1:
            findings.append(f"{name}: {page.tags['h1']} main headings")
        if page.tags["title"] != 1 or page.language != "en" or page.tags["main"] != 1:
            findings.append(f"{name}: a title, a language and a main part are needed")
    for entry in re.findall(r'\["[^"]*(?:\\"[^"]*)*","\w+","([^"]+)"', (directory / "search-index.js").read_text()):
        path, _, anchor = entry.partition("#")
        if path not in pages or anchor and anchor not in pages[path].ids:
            findings.append(f"search-index.js: dead link to {entry}")
    style = (directory / "style.css").read_text()
    return findings + [f"style.css: uses {found}" for found in re.findall(r"url\([^)]*\)|@import.*", style)]


def luminance(colour):
    channels = [int(colour[i:i + 2], 16) / 255 for i in (1, 3, 5)]
    linear = [c / 12.92 if c <= 0.03928 else ((c + 0.055) / 1.055) ** 2.4 for c in channels]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


def contrast(directory):
    """Text needs a contrast of 4.5:1 on every ground that it can have (WCAG 2.1, level AA), light and dark."""
    findings = []
    schemes = re.findall(r"(?<!print {\n    ):root \{[^}]*--back[^}]*\}", (directory / "style.css").read_text())
    if len(schemes) != 2:
        findings.append(f"style.css: {len(schemes)} colour schemes instead of a light and a dark one")
    for scheme in schemes:
        colours = dict(re.findall(r"--(\w+): (#[0-9a-f]{6})", scheme))
        for text in ("text", "quiet", "link"):
            for ground in ("back", "shade", "mark"):
                light, dark = sorted((luminance(colours[text]), luminance(colours[ground])), reverse=True)
                ratio = (light + 0.05) / (dark + 0.05)
                if ratio < 4.5:
                    findings.append(f"style.css: {text} on {ground} has a contrast of {ratio:.1f}")
    return findings


def search(directory):
    """Types each term of SEARCHES into the search of a headless browser; prints where the right page came."""
    findings = []
    for term, expected in SEARCHES.items():
        address = (pathlib.Path(directory) / "search.html").resolve().as_uri() + "?" + urllib.parse.urlencode({"q": term})
        with tempfile.TemporaryDirectory() as profile:
            made = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--dump-dom", "--no-first-run",
                                   "--disable-background-networking", f"--user-data-dir={profile}", address],
                                  capture_output=True, text=True, check=False, timeout=120).stdout
        results = re.findall(r'<li><a href="([^"]+)">', made.partition('id="results"')[2])
        first = results[0] if results else ""
        if first != expected and first.partition("#")[0] != expected:
            findings.append(f"search for \"{term}\": {expected} is not first but {', '.join(results[:4]) or 'nothing is found'}")
    print(f"docs: {len(SEARCHES) - len(findings)} of {len(SEARCHES)} searches find the right page first")
    return findings


def readme(library):
    text = (model.ROOT / "README.md").read_text()
    return [f"README.md: {name}.h is missing in the index by facility" for name in library.families if f"`{name}.h`" not in text]


def pages(library, directory):
    return links(directory) + contrast(directory) + messages.check() + readme(library)
