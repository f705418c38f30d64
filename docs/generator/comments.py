"""The comments of the public headers as blocks: paragraphs, lists, tables, code, and the words on parameters and results.

A paragraph that begins with a label ("Blocking: ...", "**Threads.** ...") opens a section, which lasts until the next
label; the sections of LABELS have a place of their own in a page, those of other bold labels belong to the description."""
import dataclasses
import re

LABELS = {
    "purpose": "DESCRIPTION", "example": "EXAMPLES", "examples": "EXAMPLES", "ownership": "OWNERSHIP", "life": "OWNERSHIP",
    "memory": "OWNERSHIP", "threads": "NOTES", "threads, signals, fork": "NOTES", "signals": "NOTES", "fork()": "NOTES",
    "fork": "NOTES", "blocking": "NOTES", "errors": "ERRORS", "failures": "ERRORS", "limits": "LIMITS",
    "privileges": "PRIVILEGES", "compatibility": "COMPATIBILITY",
}
OTHER_LABEL = re.compile(r"\*\*[^*]+\.\*\*\s")
TAG = re.compile(r"@(param(?:\[\w+(?:,\w+)?\])?|returns?|retval|throws|copydoc)\s+")


@dataclasses.dataclass
class Block:
    kind: str  # paragraph, item (of a list), code, table
    text: str
    section: str = "DESCRIPTION"


def stripped(text):
    """The text of a comment without its frame."""
    text = re.sub(r"^/\*\*<?|\*/$", "", text)
    lines = [re.sub(r"^\s*\*(?: |$)", "", line) if n else line for n, line in enumerate(text.split("\n"))]
    return "\n".join(line.rstrip() for line in lines).strip("\n").lstrip(" ")


def unindented(lines):
    margin = min((len(line) - len(line.lstrip()) for line in lines if line.strip()), default=0)
    return "\n".join(line[margin:] for line in lines).strip("\n")


def joined(lines):
    return re.sub(r"\s+", " ", " ".join(lines)).strip()


def blocks_of(text):
    blocks, lines = [], []

    def flush():
        if not lines:
            return
        if all(line.lstrip().startswith("|") for line in lines):
            blocks.append(Block("table", "\n".join(line.strip() for line in lines)))
        else:
            for part in re.split(r"\n(?=\s*- )", "\n".join(lines)):
                kind = "item" if re.match(r"\s*- ", part) else "paragraph"
                blocks.append(Block(kind, joined([re.sub(r"^\s*- ", "", part)])))
        lines.clear()

    code = None
    for line in text.split("\n"):
        if line.strip().startswith("@code"):
            flush()
            code = []
        elif line.strip() == "@endcode":
            blocks.append(Block("code", unindented(code)))
            code = None
        elif code is not None:
            code.append(line)
        elif not line.strip():
            flush()
        elif line.lstrip().startswith("|") != bool(lines and lines[-1].lstrip().startswith("|")):
            flush()
            lines.append(line)
        else:
            lines.append(line)
    flush()
    return blocks


def label_of(block):
    """The label that a paragraph begins with, and the text after it."""
    match = re.match(r"(?:\*\*)?([A-Za-z(),][\w(), ]*?)[.:](?:\*\*)?(?:\s+|$)", block.text)
    if block.kind == "paragraph" and match and match.group(1).lower() in LABELS and (
            block.text.startswith("**") or block.text[match.end(1)] == ":"):
        return match.group(1), block.text[match.end():]
    return None, block.text


SPAN = re.compile(r"""
    `(?P<code>[^`]+)` | @c\s+(?P<c>\S+?)(?=[.,;:)]*(?:\s|$|/)) | @p\s+(?P<parameter>\w+) | \*\*(?P<bold>.+?)\*\*
  | @ref\s+(?P<ref>[\w:]+(?:\(\))?) | (?P<call>\b(?:[A-Za-z_]\w*::)*[A-Za-z_]\w*\(\)) | \b(?P<header>[a-z]\w*)\.h\b""", re.X)


def spans(text):
    """The text as pairs of kind (text, code, parameter, bold, call, header) and words."""
    at = 0
    for match in SPAN.finditer(text):
        if match.start() > at:
            yield "text", text[at:match.start()]
        kind = {"c": "code", "ref": "call"}.get(match.lastgroup, match.lastgroup)
        yield kind, match.group(match.lastgroup).replace("\\\\", "\\")
        at = match.end()
    if at < len(text):
        yield "text", text[at:]


def table_rows(text):
    """The cells of a table, its head first; the line between head and body is left out."""
    rows = [[cell.strip() for cell in re.split(r"(?<!\\)\|", line.strip().strip("|"))] for line in text.split("\n")]
    return [row for row in rows if not all(re.fullmatch(r":?-+:?", cell) for cell in row)]


class Comment:
    def __init__(self, text):
        self.text = text
        self.parameters = {}
        self.returns = ""
        self.retvals = []
        self.throws = []
        self.copied = ""
        code = {}

        def hide(match):
            code[f"\0{len(code)}\0"] = match.group()
            return list(code)[-1]

        hidden = re.sub(r"@code.*?@endcode", hide, text, flags=re.S)
        parts = TAG.split(hidden)
        body = parts[0]
        for tag, value in zip(parts[1::2], parts[2::2]):
            first, *rest = re.split(r"\n\s*\n", value, maxsplit=1)
            body += "\n\n" + rest[0] if rest else ""
            self.tagged(tag, joined(first.split("\n")))
        for key, value in code.items():
            body = body.replace(key, value)
        self.blocks = blocks_of(body)
        self.file_sections()

    def tagged(self, tag, value):
        word, _, rest = value.partition(" ")
        if tag.startswith("param"):
            names = re.match(r"(\w+(?:, \w+)*)\s+(.*)", value)
            for name in (names.group(1).split(", ") if names else [word]):
                self.parameters[name] = names.group(2) if names else ""
        elif tag.startswith("return"):
            self.returns = value
        elif tag == "retval":
            self.retvals.append((word, rest))
        elif tag == "throws":
            self.throws.append(value)
        else:
            self.copied = value.strip()

    def file_sections(self):
        section = "DESCRIPTION"
        for index, block in enumerate(self.blocks):
            label, text = label_of(block)
            if label:
                section = LABELS[label.lower()]
                shown = section not in ("DESCRIPTION", "EXAMPLES") and section.lower() != label.lower()
                block.text = f"**{label}.** {text}" if shown else text
            elif block.kind == "paragraph" and OTHER_LABEL.match(block.text):
                section = "DESCRIPTION"
            block.section = section
            if block.kind == "code":
                block.section = "EXAMPLES"
                before = self.blocks[index - 1] if index else None
                if before and before.kind == "paragraph" and before.text.endswith(":"):
                    before.section = "EXAMPLES"
        self.blocks = [b for b in self.blocks if b.text]

    def section(self, name):
        return [block for block in self.blocks if block.section == name]

    @property
    def summary(self):
        """The first sentence, on one line."""
        first = next((b.text for b in self.blocks if b.kind == "paragraph"), "")
        return re.split(r"(?<=[^.][.])\s", first, maxsplit=1)[0]
