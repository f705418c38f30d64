"""Checks of the site in headless Chromium that need a rendered page: the rules of axe-core, whose script the caller names, and
on each page that nothing is wider than a phone and that every part can be reached by the keyboard."""
import base64
import json
import pathlib
import re
import shutil
import subprocess
import tempfile

# One page of each kind: they share their frame and their style.
PAGES = ("index.html", "search.html?q=lock", "configd.html", "statusinterface.html", "names.html", "commands.html", "vx-config.1.html",
         "guide-loops.html", "guide-costs.html", "messages.html", "compatibility.html", "benchmarks.html", "changelog.html")
SETTINGS = {"light": ["--window-size=1280,900", "--blink-settings=preferredColorScheme=1"],
            "dark": ["--window-size=1280,900", "--blink-settings=preferredColorScheme=0"],
            "phone": ["--window-size=500,900", "--blink-settings=preferredColorScheme=1"]}

OWN_RULES = """
const wide = [...document.querySelectorAll("main *")].filter((e) => !e.closest(".wide, pre")
    && e.getBoundingClientRect().right > document.documentElement.clientWidth + 1);
const unreachable = [...document.querySelectorAll(".wide, pre")].filter((e) => e.scrollWidth > e.clientWidth + 1 && e.tabIndex < 0);
const own = wide.map((e) => "wider than the page: " + e.outerHTML.slice(0, 100))
    .concat(unreachable.map((e) => "cannot be scrolled by the keyboard: " + e.outerHTML.slice(0, 100)));
const dark = matchMedia("(prefers-color-scheme: dark)").matches;
"""
REPORT = """
<script src="axe.js"></script>
<script>
addEventListener("load", async () => {
%s
    const found = window.axe ? (await axe.run(document, {runOnly: ["wcag2a", "wcag2aa", "wcag21a", "wcag21aa", "best-practice"]})).violations : [];
    const text = found.map((v) => v.id + ": " + v.help + ": " + v.nodes.slice(0, 2).map((n) => n.html.slice(0, 120)).join(" and "));
    const report = document.createElement("pre");
    report.id = "report";
    report.textContent = btoa(unescape(encodeURIComponent(JSON.stringify({dark, findings: own.concat(text)}))));
    document.body.append(report);
});
</script>
""" % OWN_RULES


def browsed(address, options):
    with tempfile.TemporaryDirectory() as profile:
        made = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--dump-dom", "--no-first-run",
                               "--disable-background-networking", "--virtual-time-budget=20000", f"--user-data-dir={profile}", *options,
                               address], capture_output=True, text=True, check=False, timeout=180).stdout
    report = re.search(r'<pre id="report">([^<]*)</pre>', made)
    return json.loads(base64.b64decode(report.group(1))) if report else {"dark": None, "findings": ["no report"]}


def check(directory, axe=None):
    findings = []
    with tempfile.TemporaryDirectory() as place:
        site = pathlib.Path(shutil.copytree(directory, pathlib.Path(place) / "site"))
        if axe:
            shutil.copyfile(axe, site / "axe.js")
        for name in {page.partition("?")[0] for page in PAGES}:
            page = site / name
            page.write_text(page.read_text().replace("</body>", REPORT + "</body>"))
        for setting, options in SETTINGS.items():
            for page in PAGES:
                name, _, query = page.partition("?")
                report = browsed((site / name).as_uri() + (f"?{query}" if query else ""), options)
                findings += [f"{page}, {setting}: {finding}" for finding in report["findings"]]
                if report["dark"] is not (setting == "dark"):
                    findings.append(f"{page}: the browser did not use the scheme for {setting}")
    print(f"docs: {len(PAGES)} pages looked at in {len(SETTINGS)} settings, "
          + ("with the rules of axe" if axe else "without the rules of axe: name its file axe.min.js to have them"))
    return findings
