"""The guides as manual pages of section 7: their Markdown in the macros of man(7)."""
import html.parser

import markdown

import man
import model


class Roff(html.parser.HTMLParser):
    """Turns the HTML that python-markdown makes into lines of a manual page."""

    def __init__(self, text):
        super().__init__()
        self.lines, self.text, self.cells = [], "", []
        self.title, self.literal, self.columns = "", False, []
        self.feed(text)
        heading = [True] + [line.startswith((".SH", ".SS")) for line in self.lines]
        self.lines = [line for line, first in zip(self.lines, heading) if not (first and line == ".PP")]

    def flush(self, macro):
        text, self.text = " ".join(self.text.split()), ""
        if text:
            self.lines += [macro, *man.filled(text)]

    def handle_starttag(self, tag, attributes):
        if tag == "pre":
            self.literal = True
        elif tag in ("code", "strong") and not self.literal:
            self.text += "\\fB"
        elif tag == "em":
            self.text += "\\fI"
        elif tag == "tr":
            self.cells = []
        elif tag in ("p", "li", "td", "th", "h1", "h2", "h3"):
            self.flush(".PP")

    def handle_endtag(self, tag):
        if tag == "pre":
            self.literal = False
            code, self.text = self.text.strip("\n").split("\n"), ""
            self.lines += [".PP", ".RS 4", ".EX", *man.literal(code), ".EE", ".RE"]
        elif tag in ("code", "strong", "em") and not self.literal:
            self.text += "\\fR"
        elif tag == "h1":
            self.title, self.text = " ".join(self.text.split()), ""
        elif tag in ("h2", "h3"):
            text, self.text = " ".join(self.text.split()), ""
            self.lines += [f".SH {text.upper()}" if tag == "h2" else f".SS {text}"]
        elif tag in ("td", "th"):
            self.cells.append(" ".join(self.text.split()))
            self.text = ""
        elif tag == "thead":
            self.columns = self.cells
        elif tag == "tr" and self.columns is not self.cells and self.columns:
            self.row()
        elif tag == "table":
            self.columns = []
        elif tag in ("p", "li"):
            self.flush(".PP" if tag == "p" else ".IP \\(bu 2")

    def row(self):
        """One row of a table: its first cell as a tag, the others with the titles of their columns."""
        named = [f"{title}: {cell}" if title and len(self.columns) > 2 else cell
                 for title, cell in zip(self.columns[1:], self.cells[1:]) if cell]
        self.lines += [".TP", *man.filled(self.cells[0] or "\\&"), *man.filled("; ".join(named) or "\\&")]

    def handle_data(self, data):
        if self.literal:
            self.text += data
        else:
            self.text += man.prose(data)


def sources():
    """The Markdown files that become pages, by the names of these."""
    pages = {f"vxutils-{path.stem}": path for path in sorted((model.ROOT / "docs/guides").glob("*.md"))}
    for name, stem in (("troubleshooting", "troubleshooting"), ("security", "security"), ("quirks", "compatibility"),
                       ("messages", "messages")):
        path = model.ROOT / f"docs/{stem}.md"
        if path.exists():
            pages[f"vxutils-{name}"] = path
    return pages


def page(name, path):
    roff = Roff(markdown.markdown(path.read_text(), extensions=["tables", "fenced_code", "sane_lists"]))
    summary = model.sentence_start(roff.title)
    see = man.references([("vxutils", "7")] + [(other, "7") for other in sources() if other != name])
    return man.page(name, "7", [("NAME", man.filled(f"{man.escaped(name)} \\- {summary}")), ("DESCRIPTION", roff.lines),
                                ("SEE ALSO", see)])
