"""The manual pages of sections 3 and 7, in the macros of man(7).

One page per family, and for every name that a program can use a page that only names the family's page (.so). The files
are called NAME.3vx: man finds them in section 3, beside pages of the same name from other libraries."""
import datetime
import os
import re
import textwrap

import comments
import model
import pages7

SECTION = "3vx"


def date():
    """The day that pages bear: of the package's build, or of the last change of the package's changelog."""
    epoch = os.environ.get("SOURCE_DATE_EPOCH")
    if epoch:
        return datetime.datetime.fromtimestamp(int(epoch), datetime.timezone.utc).strftime("%Y-%m-%d")
    stamp = re.search(r"^ -- .*>  \w+, (\d+ \w+ \d+)", (model.ROOT / "debian/changelog").read_text(), re.M).group(1)
    return datetime.datetime.strptime(stamp, "%d %b %Y").strftime("%Y-%m-%d")


def escaped(text):
    return text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("^", "\\(ha").replace("~", "\\(ti").replace(
        "`", "\\(ga")


def prose(text):
    """As escaped(), but hyphens between letters and apostrophes in words stay what they are in print."""
    text = escaped(text)
    text = re.sub(r"(?<=[A-Za-z])\\-(?=[A-Za-z])", "-", text)
    return re.sub(r"(?<=[A-Za-z])\\\(aq(?=[a-z\s.,;:])", "'", text)


def inline(text):
    fonts = {"code": "B", "parameter": "I", "bold": "B", "call": "B"}
    out = ""
    for kind, words in comments.spans(text):
        if kind == "header":
            out += f"\\fI{escaped(words)}.h\\fR"
        elif kind == "call":
            out += f"\\fB{escaped(words.removesuffix('()'))}\\fR()"
        elif kind in fonts:
            out += f"\\f{fonts[kind]}{escaped(words)}\\fR"
        else:
            out += prose(words)
    return out


def filled(roff):
    """Text in lines of less than 80 characters, none of which begins with a control character."""
    roff = re.sub(r"[^\x00-\x7f]", lambda m: f"\\[u{ord(m.group()):04X}]", roff)  # mandoc counts them so
    lines = textwrap.wrap(roff, 78, break_long_words=False, break_on_hyphens=False)
    return ["\\&" + line if line[0] in ".'" else line for line in lines]


def paragraph(text):
    return filled(inline(text))


def literal(lines):
    return [("\\&" if line[:1] in (".", "'") else "") + escaped(line) for line in lines]


def block(item):
    if item.kind == "item":
        return [".IP \\(bu 2", *paragraph(item.text)]
    if item.kind == "code":
        return [".PP", ".RS 4", ".EX", *literal(item.text.split("\n")), ".EE", ".RE"]
    if item.kind == "table":
        lines = []
        for row in comments.table_rows(item.text)[1:]:
            lines += [".TP", *paragraph(row[0]), *paragraph("; ".join(cell for cell in row[1:] if cell))]
        return lines
    return [".PP", *paragraph(item.text)]


def blocks(items):
    return [line for item in items for line in block(item)]


def first_without_break(lines):
    return lines[1:] if lines[:1] == [".PP"] else lines


def bold(text):
    return [f"\\fB{escaped(line)}\\fR" for line in model.wrapped_declaration(text, 76)]


def members(item):
    """The lines of a record or class in the synopsis."""
    lines = [item.declaration + " {"]
    for member in item.members:
        if member.kind == "enumerator":
            lines.append(f"    {member.declaration},")
        elif member.members:
            lines += ["    " + line for line in members(member)]
        else:
            lines += model.wrapped_declaration(member.declaration + ";", 76, "    ")
    return lines + ["};"]


def synopsis(family):
    lines = [".nf", f"\\fB#include <vxutils/{escaped(family.name)}.h>\\fR"]
    gap, enumerators = True, [i for i in family.items if i.kind == "enumerator"]
    for item in family.items:
        if item.kind == "macro":
            shown = bold(item.declaration)
        elif item.kind in ("class", "struct", "union", "enum"):
            shown, gap = [f"\\fB{escaped(line)}\\fR" for line in members(item)], True
        elif item.kind == "enumerator":
            if item is not enumerators[0]:
                continue
            shown = [f"\\fB{escaped(line)}\\fR" for line in textwrap.wrap(
                f"enum {{ {', '.join(i.declaration for i in enumerators)} }};", 74, subsequent_indent="       ")]
        else:
            shown = bold(item.declaration + ";")
        if gap:
            lines.append(".PP")
        lines += shown
        gap = item.kind in ("class", "struct", "union", "enum")
    lines += [".fi", ".PP", "Link with \\fB\\-lvxutils\\fR:", ".PP", ".nf",
              "\\fBcc main.c $(pkg\\-config \\-\\-cflags \\-\\-libs vxutils)\\fR", ".fi"]
    return lines


def about(item, indented=True):
    """What the comment of one name says, without its results."""
    if item.comment is None:
        return []
    text = [b for b in item.comment.blocks if b.kind != "code"]
    lines = first_without_break(blocks(text[:1]))
    if text[1:]:
        lines += [".RS", *blocks(text[1:]), ".RE"] if indented else blocks(text[1:])
    if item.comment.copied:
        lines += paragraph(f"As {item.comment.copied}.")
    for name, text in item.comment.parameters.items():
        lines += [".RS", ".TP", f".I {name}", *(paragraph(text) or ["(no more to say)"]), ".RE"]
    return lines


def tagged(item, shown):
    text = about(item)
    if not text and item.comment and (item.comment.returns or item.comment.retvals):
        text = ["See", ".BR \"RETURN VALUE\" ."]
    if not text:
        text = ["As the function that it overrides."] if "override" in item.declaration else []
    if not text:
        return []
    tag = shown if isinstance(shown, list) else [shown]
    return [".TP", *[t for line in tag[:-1] for t in (line, ".TQ")], tag[-1], *text]


def description(family):
    lines = first_without_break(blocks(family.comment.section("DESCRIPTION")))
    group, kind = None, None
    for item in family.items:
        record = item.kind in ("class", "struct", "union", "enum")
        entry = []
        if record:
            entry = [f".SS {item.kind} {escaped(item.name)}", *about(item, indented=False)]
            for member in item.members:
                for inner in member.tree():
                    shown = inner.declaration.removeprefix("virtual ").removesuffix(" = 0")
                    entry += tagged(inner, bold(shown) if inner.kind != "enumerator" else [f"\\fB{escaped(inner.name)}\\fR"])
            group, kind = None, None
        elif item.comment:
            heading = item.group or {"macro": "Macros", "enumerator": "Constants", "function": "Functions",
                                     "typedef": "Types", "variable": "Variables"}[item.kind]
            if heading != kind:
                lines += [f".SS {prose(heading)}"]
                kind = heading
            entry = tagged(item, bold(item.declaration.removeprefix("#define ")))
        lines += entry
    return lines


def returns(family):
    lines = []
    for item in family.everything:
        if item.comment is None or not (item.comment.returns or item.comment.retvals):
            continue
        text = paragraph(item.comment.returns)
        values = []
        for value, meaning in item.comment.retvals:
            values += [".TP", f"\\fB{escaped(value)}\\fR", *paragraph(meaning)]
        if values:
            values = [".RS", *values, ".RE"]
        lines += [".TP", f"\\fB{escaped(item.qualified)}\\fR()" if item.kind != "macro" else f"\\fB{escaped(item.name)}\\fR",
                  *text, *values]
    return lines


def errors(family):
    lines = first_without_break(blocks(family.comment.section("ERRORS")))
    for item in family.everything:
        for text in item.comment.throws if item.comment else []:
            lines += [".TP", f"\\fB{escaped(item.qualified)}\\fR() throws", *paragraph(text)]
    return lines


def examples(library, family):
    lines = blocks(family.comment.section("EXAMPLES"))
    for item in family.everything:
        code = [b for b in item.comment.blocks if b.kind == "code"] if item.comment else []
        if code:
            lines += [".PP", f"\\fB{escaped(item.qualified)}\\fR:", *blocks(code)]
    programs = library.examples(family)
    if programs:
        lines += [".PP", *filled("Complete programs in the source tree: " + ", ".join(
            f"\\fIexamples/{escaped(name)}\\fR" for name in programs) + ".")]
    return first_without_break(lines)


def references(pages):
    """Lines of SEE ALSO from pairs of name and section, in the order of sections and names."""
    ordered = sorted(set(pages), key=lambda page: (page[1], page[0]))
    return [f".BR {escaped(name)} ({section})" + ("," if n + 1 < len(ordered) else "")
            for n, (name, section) in enumerate(ordered)]


def family_page(library, family):
    names = [family.name] + [n for n in family.top_names if n != family.name]
    see = [(name, SECTION) for name in library.related(family)] + [(c, "1") for c in library.commands(family)]
    sections = [
        ("NAME", filled(", ".join(names) + " \\- " + prose(family.short))),
        ("SYNOPSIS", synopsis(family)),
        ("DESCRIPTION", description(family)),
        ("RETURN VALUE", returns(family)),
        ("ERRORS", errors(family)),
    ]
    for name in ("OWNERSHIP", "LIMITS", "PRIVILEGES", "NOTES", "COMPATIBILITY"):
        sections.append((name, first_without_break(blocks(family.comment.section(name)))))
    sections += [("EXAMPLES", examples(library, family)), ("SEE ALSO", references(see + [("vxutils", "7")]))]
    return page(family.name, SECTION, sections)


def page(name, section, sections):
    lines = [".\\\" Made by scripts/docs from the public headers.",
             f'.TH {name.upper()} {section} {date()} "vxutils {model.version()}" "vxutils manual"']
    for title, body in sections:
        if body:
            lines += [f'.SH {title}', *body]
    return "\n".join(lines) + "\n"


def overview(library, guide_names):
    """vxutils(7): the text of docs/generator/vxutils.7 with the index of families and their privileges put in."""
    index, privileges = [], []
    for facility, families in model.FACILITIES.items():
        index += [f".SS {facility}"]
        for name in families:
            family = library.families[name]
            index += [".TP", f".BR {escaped(name)} ({SECTION})", *filled(prose(family.short + "."))]
            needed = family.comment.section("PRIVILEGES")
            text = " ".join(b.text for b in needed if b.kind != "code")
            text = re.sub(r"^\*\*Privileges\.\*\*\s*", "", text)
            if text and not re.match(r"none\b", text, re.I):
                privileges += [".TP", f".BR {escaped(name)} ({SECTION})", *paragraph(text)]
    text = (model.ROOT / "docs/generator/vxutils.7").read_text()
    guides = ",\n".join(f".BR {escaped(name)} (7)" for name in guide_names)
    text = text.replace("@GUIDES@", guides).replace("@DATE@", date()).replace("@VERSION@", model.version())
    return text.replace("@FAMILIES@", "\n".join(index)).replace("@PRIVILEGES@", "\n".join(privileges))


def write(library, directory):
    """Writes man3/ and man7/ below @directory; returns the names that have a page."""
    man3, man7 = directory / "man3", directory / "man7"
    for place in (man3, man7):
        place.mkdir(parents=True, exist_ok=True)
    # Pages of families and guides that are gone now. Pages of others stay: the directory may be the user's own.
    for old in [*man3.glob(f"*.{SECTION}"), *man7.glob("vxutils*.7")]:
        old.unlink()
    names = set()
    for family in library.families.values():
        (man3 / f"{family.name}.{SECTION}").write_text(family_page(library, family))
        for name in family.pages:
            if name != family.name:
                (man3 / f"{name}.{SECTION}").write_text(f".so man3/{family.name}.{SECTION}\n")
        names |= {family.name, *family.pages}
    guides = pages7.sources()
    for name, source in guides.items():
        (man7 / f"{name}.7").write_text(pages7.page(name, source))
    (man7 / "vxutils.7").write_text(overview(library, guides))
    return names | {"vxutils", *guides}
