"""What the manual pages and the site share: the families of the library, who refers to whom, what has a page."""
import functools
import pathlib
import re

import headers

ROOT = pathlib.Path(__file__).resolve().parents[2]
HELPERS = {"api", "time64"}  # what the other headers need; no family

# The families by facility: the order of every index.
FACILITIES = {
    "Texts and values": ["vxstring", "strutil", "xprintf", "memstream", "list", "hashtable", "numconv", "digest"],
    "Configuration": ["configd", "configdaemonclient", "cfread", "configreader", "systeminfo"],
    "Files, programs and processes": ["file", "command", "process", "processcontrol", "timefmt", "dynamicmodule"],
    "Event loop, status and events": ["eventsource", "messagequeue", "statusinterface", "vxevent", "qxlog"],
    "Locks between processes": ["csemaphore", "sem", "lock"],
    "Network": ["address", "ipaddress", "ping", "pingclient", "route", "interface", "ipinterfacestatus"],
    "Board and modem": ["hardware", "dio", "dio_status", "adc", "storage", "wwanmd", "cellular", "simplesms"],
    "Version": ["version"],
}


class ModelError(Exception):
    pass


def version():
    text = (ROOT / "include/vxutils/version.h").read_text()
    return ".".join(re.search(rf"define VXUTILS_VERSION_{part} (\d+)", text).group(1) for part in ("MAJOR", "MINOR", "PATCH"))


def sentence_start(text):
    """A summary as it follows a dash: no capital at its begin unless it begins with a name."""
    first = text.split(" ", 1)[0].strip(",.:")
    return text[:1].lower() + text[1:] if re.fullmatch(r"[A-Z][a-z]*", first) and first not in ("Linux",) else text


def plain(text):
    import comments
    return "".join(words for _, words in comments.spans(text))


class Family:
    def __init__(self, header):
        self.name = header.family
        self.comment = header.comment
        self.items = header.items
        self.hidden = header.hidden
        self.everything = list(header.everything())
        self.includes = [i for i in header.includes if i not in HELPERS]
        self.summary = plain(header.comment.summary).rstrip(".")

    @property
    def short(self):
        """The summary for the line NAME of a manual page: one clause."""
        text = re.sub(r"^\w+: (?=\w)", "", self.summary)
        return sentence_start(re.split(r"; |: ", text)[0] if len(text) > 80 else text)

    @functools.cached_property
    def pages(self):
        """Every name that is looked up, the qualified ones of members included."""
        names = {}
        for item in self.everything:
            if item.kind == "field" or not re.fullmatch(r"[A-Za-z_]\w*", item.name):
                continue
            if item.scope and item.name == item.scope.rsplit("::", 1)[-1]:
                continue  # a constructor
            names.setdefault(item.qualified, item)
        return names

    @property
    def top_names(self):
        return [name for name, item in self.pages.items() if not item.scope]


def command_pages():
    """The manual pages of the programs: vx, vxgateway, gw."""
    return sorted([*(ROOT / "tools/man").glob("*.1"), *(ROOT / "gateway/man").glob("*.1")], key=lambda path: path.name)


class Library:
    def __init__(self):
        self.families = {h.family: Family(h) for h in headers.read_all(ROOT / "include/vxutils") if h.family not in HELPERS}
        listed = [name for names in FACILITIES.values() for name in names]
        if sorted(listed) != sorted(self.families):
            raise ModelError("FACILITIES in docs/generator/model.py and the headers differ: " + ", ".join(
                sorted(set(listed) ^ set(self.families))))
        self.owners = {}
        for family in self.families.values():
            for name in family.pages:
                other = self.owners.setdefault(name, family)
                if other is not family:
                    raise ModelError(f"{name} is declared in {other.name}.h and in {family.name}.h")

    def family_of(self, name, near=None):
        """Where a name that a comment mentions is documented: its qualified name and its family, or None."""
        name = name.removesuffix("()")
        candidates = [name]
        scope = near or ""
        while scope:
            candidates.insert(0, f"{scope}::{name}")
            scope = scope.rpartition("::")[0]
        for candidate in candidates:
            if candidate in self.owners:
                return candidate, self.owners[candidate]
        return None

    def related(self, family):
        """Families that this one's comments or declarations refer to, in the order of their names."""
        found = set(family.includes)
        text = family.comment.text + "\n".join(i.comment.text for i in family.everything if i.comment)
        found |= set(re.findall(r"\b(\w+)\.h\b", text))
        for call in re.findall(r"\b([A-Za-z_]\w*)\(\)", text):
            owner = self.owners.get(call)
            if owner:
                found.add(owner.name)
        return sorted(found & set(self.families) - {family.name})

    def commands(self, family):
        """The commands of vx that are made of this family."""
        found = []
        for source in sorted((ROOT / "tools/commands").glob("*.cpp")):
            page = ROOT / f"tools/man/vx-{source.stem}.1"
            if page.exists() and f"<vxutils/{family.name}.h>" in source.read_text():
                found.append(f"vx-{source.stem}")
        return found

    def examples(self, family):
        """The example programs that include this family's header."""
        return [path.name for path in sorted((ROOT / "examples").glob("*.c*"))
                if path.suffix in (".c", ".cpp") and path.stem.startswith(family.name)]


def wrapped_declaration(text, width, indent=""):
    """A declaration in lines of at most @width characters, its parameters below each other where they do not fit."""
    if len(indent + text) <= width or "(" not in text:
        return [indent + text]
    opening = text.index("(")
    if opening + len(indent) > width - 24:
        hanging = indent + "    "
    else:
        hanging = " " * (len(indent) + opening + 1)
    lines, line = [], indent + text[:opening + 1]
    for part in re.split(r"(?<=,) ", text[opening + 1:]):
        if line.strip() and not line.endswith("(") and len(line) + 1 + len(part) > width:
            lines.append(line)
            line = hanging + part
        else:
            line += ("" if line.endswith("(") or line == hanging else " ") + part
    return lines + [line]
