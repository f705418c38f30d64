"""Checks of the manual pages, which the test suite runs."""
import re
import subprocess

import man
import model


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


def syntax(sources):
    """What mandoc finds in the pages; whether a page that they mention is installed on this machine is not asked."""
    result = run("mandoc", "-T", "lint", *[str(source) for source in sources])
    ignored = ("referenced manual not found", "outdated mandoc.db")
    return [line for line in result.stdout.splitlines() + result.stderr.splitlines()
            if line.strip() and not any(text in line for text in ignored)]


def index_lines(directory, pages):
    """Every page is indexed under its names by man's own parser."""
    findings = []
    result = run("lexgrog", *[str(page) for page in pages], cwd=directory)
    indexed = dict.fromkeys((str(page) for page in pages), "")
    for line in result.stdout.splitlines():
        path, _, rest = line.partition(": ")
        indexed[path] = indexed.get(path, "") + rest
    for page, text in indexed.items():
        if " - " not in text:
            findings.append(f"{page}: lexgrog finds no line NAME")
    return findings + [line for line in result.stderr.splitlines() if line]


def exported_names():
    """The names that the library exports, as a program writes them."""
    symbols = re.findall(r"^ (\S+)@VXUTILS_1 ", (model.ROOT / "debian/libvxutils1.symbols").read_text(), re.M)
    plain = run("c++filt", input="\n".join(s for s in symbols if s != "VXUTILS_1"))
    for name in plain.stdout.splitlines():
        name = re.sub(r"^(?:vtable|typeinfo name|typeinfo|VTT|guard variable|(?:non-)?virtual thunk) (?:for|to) ", "", name)
        name = re.sub(r"\[abi:\w+\]", "", name)
        name = re.split(r"(?<!operator)\(", name)[0]
        yield re.sub(r"(::)?(~\w+|operator.*)$", "", name)


def exports(library, names):
    findings = []
    names = names.union(*[family.hidden for family in library.families.values()])
    for name in sorted(set(exported_names()) - {""}):
        outer, _, last = name.rpartition("::")
        if name not in names and not (outer in names and last == outer.rpartition("::")[2]):
            findings.append(f"exported name without a manual page: {name}")
    return findings


def references(directory, pages):
    """References to pages of this library, of vx and of the programs that its pages name."""
    findings = []
    known = {"syslog(3)", "pkg-config(1)"}
    known |= {f"{p.name.removesuffix('.1')}(1)" for p in model.command_pages()}
    known |= {re.sub(r"\.(3vx|7)$", r"(\1)", p.name) for p in directory.glob("man?/*")}
    for page in pages:
        for name, section in re.findall(r"^\.BR (\S+) \(([1-8]\w*)\)", page.read_text(), re.M):
            reference = name.replace("\\-", "-") + f"({section})"
            if reference not in known:
                findings.append(f"{page.name}: reference to {reference}, which does not exist")
    return findings


def lookups(directory, names):
    """`man -w` finds each name in the pages as they will be installed."""
    result = run("man", "-M", str(directory), "-w", *sorted(names))
    missing = re.findall(r"No manual entry for (\S+)", result.stderr)
    return [f"man does not find {name}" for name in missing]


def pages(library, directory, names):
    sources = [p for p in sorted(directory.glob("man?/*")) if not p.read_text().startswith(".so ")]
    everything = [p.relative_to(directory) for p in sorted(directory.glob("man?/*"))]
    return (syntax(sources) + index_lines(directory, everything) + exports(library, names) + references(directory, sources)
            + lookups(directory, names))
