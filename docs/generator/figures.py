"""Tables and plots of the site from recorded runs: docs/figures/NAME.json."""
import html
import json
import math
import re

import model

MARKER = re.compile(r"<!-- figures: (\w+) -->")
WIDTH, ROW, LABELS, MOST = 640, 22, 250, 16  # of a plot: pixels, and the largest ratio that it shows


def load(name):
    path = model.ROOT / f"docs/figures/{name}.json"
    return json.loads(path.read_text()) if path.exists() else None


def table(head, rows, caption):
    cells = ["".join(f"<th scope=col>{html.escape(cell)}</th>" for cell in head)]
    cells += ["<th scope=row>" + "</th>".join([html.escape(row[0]), "".join(f"<td>{html.escape(c)}</td>" for c in row[1:])])
              for row in rows]
    return (f"<div class=wide tabindex=0><table><caption>{html.escape(caption)}</caption>" + "".join(f"<tr>{row}</tr>" for row in cells)
            + "</table></div>")


def duration(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def plot(rows, title):
    """Bars of ratios on a logarithmic scale; left of the line of 1 the library is the faster one."""
    height = ROW * len(rows) + 30
    span = WIDTH - LABELS - 60
    middle = LABELS + span / 2

    def place(ratio):
        bounded = min(max(ratio, 1 / MOST), MOST)
        return middle + span / 2 * math.log(bounded) / math.log(MOST)

    parts = [f'<svg class=plot role=img aria-label="{html.escape(title)}: the table below has the numbers" '
             f'viewBox="0 0 {WIDTH} {height}" xmlns="http://www.w3.org/2000/svg">']
    for ratio in (1 / 4, 1, 4):
        x = place(ratio)
        parts.append(f'<line class=grid x1="{x:.1f}" x2="{x:.1f}" y1="18" y2="{height - 8}"/>'
                     f'<text class=scale x="{x:.1f}" y="12" text-anchor="middle">{ratio:g}</text>')
    for row, (label, ratio) in enumerate(rows):
        y = 22 + row * ROW
        left, right = sorted((middle, place(ratio)))
        parts.append(f'<text x="{LABELS - 8}" y="{y + 14}" text-anchor="end">{html.escape(label)}</text>'
                     f'<rect class={"better" if ratio <= 1 else "worse"} x="{left:.1f}" y="{y + 3}" '
                     f'width="{max(right - left, 1):.1f}" height="{ROW - 8}"/>'
                     f'<text x="{WIDTH - 4}" y="{y + 14}" text-anchor="end">{ratio:.2f}</text>')
    return "".join(parts) + "</svg>"


def measured(family, cases, cost, caption):
    """Plot and table of one run; cases has for each case the costs by implementation, which cost() writes out."""
    rows, bars = [], []
    for case, costs in cases.items():
        ours = costs["ours"]
        ratios = {name: first(ours) / first(other) for name, other in costs.items() if name != "ours"}
        rows.append((case, cost(ours), ", ".join(f"{name} {cost(costs[name])} ({ratio:.2f})" for name, ratio in ratios.items()) or "-"))
        bars += [(f"{case}, {name}", ratio) for name, ratio in ratios.items()]
    title = f"{family}: {caption}"
    return (plot(bars, f"{title} of the library divided by those of others") if bars else "") + table(
        ("case", "library", "others (ratio)"), rows, title)


def first(cost):
    return cost[0] if isinstance(cost, list) else cost


def counted(cost):
    instructions, calls = cost
    return f"{instructions:,.0f}" + (f" + {calls:,.3g} calls" if calls else "")


def benchmarks(recorded):
    parts = []
    for family, run in recorded.items():
        parts.append(f'<h3 id="benchmark-{family}">{family}</h3>')
        if "board" in run:
            board = run["board"]
            parts.append(f'<p>Counted on {board["date"]}: {html.escape(board["emulator"])}, {html.escape(board["compiler"])}.</p>'
                         + measured(family, board["cases"], counted, "instructions of the 32-bit Arm build"))
        if "cases" in run:
            machine = run["machine"]
            parts.append(f'<p>Measured on {run["date"]}: {html.escape(machine["processor"])}, {machine["processors"]} processors, '
                         f'Linux {html.escape(machine["kernel"])}, {html.escape(machine["compiler"])}; '
                         f'{machine["load"]:g} programs wanted to run.</p>'
                         + measured(family, run["cases"], duration, "times, medians of five runs"))
    return "\n".join(parts)


def tests(recorded):
    rows = [(name, str(passed), str(failed)) for name, (passed, failed) in recorded["families"].items()]
    return (f"<p>Recorded on {recorded['date']}: {recorded['passed']} cases passed, {recorded['failed']} failed.</p>"
            + table(("test program", "passed", "failed"), rows, "Test cases of the development build"))


def share(covered, total):
    return f"{100 * covered / total:.1f} % of {total}" if total else "-"


def coverage(recorded):
    machine, files = recorded["machine"], recorded["files"]
    columns = [sum(column) for column in zip(*files.values())]
    rows = [(name, share(*counts[:2]), share(*counts[2:])) for name, counts in files.items()]
    return (f"<p>Recorded on {recorded['date']}: {html.escape(machine['processor'])}, {machine['processors']} processors, "
            f"Linux {html.escape(machine['kernel'])}; {recorded['tests']} test programs, {recorded['failed']} failed. "
            f"{share(*columns[:2])} lines and {share(*columns[2:])} branches are run.</p>"
            + table(("source", "lines", "branches"), rows, "Lines and branches that the tests run"))


def totals(what, caption):
    """A table of rows that scripts/record has written, one for each run."""
    def made(recorded):
        columns = list(next(iter(recorded.values())))
        rows = [[name, *(f"{row[c]:,}" if isinstance(row[c], int) and c != "seed" else str(row[c]) for c in columns)]
                for name, row in recorded.items()]
        return table((what, *columns), rows, caption)

    return made


MADE_OF = {"benchmarks": benchmarks, "coverage": coverage, "tests": tests,
           "fuzz": totals("target", "Inputs made by the fuzzer, and seconds of processor time"),
           "models": totals("family", "Random operations beside a model"),
           "mutation": totals("source", "Changes of a source, and how many of them the tests noticed"),
           "storms": totals("storm", "Processes killed at random moments")}


def put_in(text):
    """Replaces each marker <!-- figures: NAME --> by the figures of that recorded run."""
    def made(match):
        recorded = load(match.group(1))
        return MADE_OF[match.group(1)](recorded) if recorded else "<p>Nothing is recorded.</p>"

    return MARKER.sub(made, text)
