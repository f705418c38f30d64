"""The texts that the library writes to the system log and to standard output and error, as its sources have them, and
whether docs/messages.md has each of them: no more and no less."""
import re

import model

STRING = r'"(?:[^"\\]|\\.)*"'
LITERAL = re.compile(rf"(?:{STRING}|\s|PRI\w+)+")
CONSTANT = re.compile(rf"constexpr const char \*(\w+) =\s*((?:{STRING}\s*)+);")
LEVELS = {"DL_ERR": "err", "DL_ERROR": "err", "DL_INFO": "info"}
OF_OTHERS = {"copy": "file", "directory": "file", "late_library": "other libraries"}  # sources of messages under another heading
FRAME = {"log.h", "log.cpp", "prepared_log.h", "prepared_log.cpp", "assertion.h"}  # what the others log with

# Functions of one source that log the text that they are given: how the texts are found in it.
GIVEN = {"route.cpp": ("debug", r"\bfail\((\w+)\)"), "command.cpp": ("err", rf'PowerAction \w+\{{{STRING}, ({STRING})')}
# What is written elsewhere than to the system log.
OTHER_WAYS = {"configreader.cpp": ("stdout", r"std::printf\((\w+),"), "qxlog.cpp": ("stderr", rf"\bfailed\(({STRING})\)"),
              "dio.cpp": ("abort", rf"VX_ASSERT\(.*?, ({STRING}), source\)"),
              "dio_status.cpp": ("abort", rf"VX_ASSERT\(.*?, ({STRING}), source\)"),
              "memstream.cpp": ("abort", r"MEMSTREAM_ASSERT\(([^\n]*)\);")}
DIRECT = re.compile(r"\bsyslog\(|\bperror\(|\bstd::printf\(|\bstderr\b|\bstdout\b|\bstd::puts\(|_ASSERT\(")


def arguments(text, start):
    """The arguments of a call whose parenthesis ends before @start."""
    depth, parts = 1, [""]
    for match in re.compile(rf"{STRING}|[^\"]", re.S).finditer(text, start):
        token = match.group()
        depth += (token in "([{") - (token in ")]}")
        if depth == 0:
            break
        if token == "," and depth == 1:
            parts.append("")
        else:
            parts[-1] += token
    return [part.strip() for part in parts]


def literal(code):
    text = "".join(part[1:-1] for part in re.findall(STRING, code))
    return text.replace('\\"', '"').replace("\\n", "").strip()


def priority(code):
    return LEVELS.get(code) or code.removeprefix("LOG_").lower()


def of_source(path):
    """The messages of one source as (level, text), and what cannot be read."""
    code = re.sub(r"//[^\n]*", "", path.read_text())
    constants = {name: literal(text) for name, text in CONSTANT.findall(code)}
    found, findings = set(), []

    def resolve(expression):
        return literal(expression) if LITERAL.fullmatch(expression) else constants.get(expression)

    for call in re.finditer(r"\b(?:log|PreparedLog \w+)\(", code):
        level, *rest = arguments(code, call.end())
        text = resolve(rest[0]) if rest else None
        if text == "%s" and path.name in GIVEN:
            continue
        if text is None or text == "%s":
            findings.append(f"{path.name}: the text of log({level}, {rest[0] if rest else ''}) is not found; see messages.py")
        else:
            found.add((priority(level), text))
    for level, pattern in filter(None, (GIVEN.get(path.name), OTHER_WAYS.get(path.name))):
        for expression in re.findall(pattern, code):
            found.add((level, resolve(expression) or expression))
    if path.name not in OTHER_WAYS and DIRECT.search(code):
        findings.append(f"{path.name}: writes a message past vx::log(); see messages.py")
    return found, findings


def of_library():
    """The messages by the heading under which the page has them."""
    headings, findings = {}, []
    families = {path.stem for path in (model.ROOT / "include/vxutils").glob("*.h")}
    for path in sorted((model.ROOT / "vxutils").rglob("*.[ch]*")):
        if path.suffix in (".cpp", ".h") and path.name not in FRAME:
            found, wrong = of_source(path)
            findings += wrong
            if found:
                heading = OF_OTHERS.get(path.stem, path.stem)
                if heading not in families:  # helpers are called after the family that they belong to
                    heading = next((f for f in families if heading.startswith(f + "_")), heading)
                headings.setdefault(heading, set()).update(found)
    return headings, findings


def of_page():
    """The messages that the page has, by heading, and its incomplete rows."""
    page, findings = {}, []
    text = (model.ROOT / "docs/messages.md").read_text()
    for heading, part in re.findall(r"^## (.+?)\n(.*?)(?=^## |\Z)", text, re.M | re.S):
        for row in re.findall(r"^\| `.*$", part, re.M):
            cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", row)[1:-1]]
            message = cells[0].strip("`").replace("\\|", "|")
            if len(cells) != 4 or not all(cells):
                findings.append(f"messages.md: {heading}: \"{message}\" needs a level, a cause and a cure")
            elif (cells[1], message) in page.setdefault(heading, set()):
                findings.append(f"messages.md: {heading}: \"{message}\" is there twice")
            else:
                page[heading].add((cells[1], message))
    return page, findings


def check():
    (library, unread), (page, findings) = of_library(), of_page()
    for family in sorted(library.keys() | page.keys()):
        written, listed = library.get(family, set()), page.get(family, set())
        findings += [f"messages.md: {family}: the message \"{text}\" ({level}) is missing" for level, text in sorted(written - listed)]
        findings += [f"messages.md: {family}: the library does not write \"{text}\" ({level})" for level, text in
                     sorted(listed - written)]
    return unread + findings
