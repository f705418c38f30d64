#!/usr/bin/python3
"""Compares what the public headers declare with what the library exports.

    exported_names.py INCLUDE_DIR LIBRARY NM [CLANG_ARGUMENT...]

Prints "missing NAME" for a declaration without exported definition, "extra NAME" for an exported name that no public
header declares; nothing when both agree. Exit status 1 when something was printed.
"""
import pathlib
import re
import subprocess
import sys

from clang.cindex import CursorKind, Index, TranslationUnit

FUNCTIONS = {CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR, CursorKind.DESTRUCTOR,
             CursorKind.CONVERSION_FUNCTION}
CLASSES = {CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL}


def normalized(name):
    """Constructors and destructors exist in several variants of one declaration."""
    return re.sub(r"([CD])[0-3](?=E)", r"\g<1>1", name)


def spelled(cursor, word):
    return any(token.spelling == word for token in cursor.get_tokens())


def has_body(cursor):
    definition = cursor.get_definition()
    return definition is not None or cursor.is_default_method()


def hidden(cursor):
    """A class that a header lays open for inline functions and keeps out of the exported set; "extra" if it is not."""
    return any(child.kind == CursorKind.VISIBILITY_ATTR and child.spelling == "hidden"
               for child in cursor.get_children())


class Declarations:
    def __init__(self, include_dir):
        self.include_dir = str(include_dir)
        self.required = set()   # must be exported
        self.allowed = set()    # may be: inline functions of exported classes
        self.classes = set()    # their tables and type information may be

    def visit(self, cursor):
        for child in cursor.get_children():
            file = child.location.file
            if file is None or not file.name.startswith(self.include_dir):
                if child.kind in (CursorKind.LINKAGE_SPEC, CursorKind.UNEXPOSED_DECL):
                    self.visit(child)
                continue
            self.add(child)

    def add(self, cursor):
        if cursor.kind in CLASSES and hidden(cursor):
            return
        if cursor.kind in CLASSES and cursor.is_definition():
            self.classes.add(f"{len(cursor.spelling)}{cursor.spelling}")
            self.visit(cursor)
        elif cursor.kind in FUNCTIONS:
            self.add_function(cursor)
        elif cursor.kind == CursorKind.VAR_DECL:
            constant = cursor.semantic_parent.kind in CLASSES and spelled(cursor, "=")
            (self.allowed if constant else self.required).add(cursor.mangled_name)
        elif cursor.kind in (CursorKind.LINKAGE_SPEC, CursorKind.UNEXPOSED_DECL, CursorKind.NAMESPACE):
            self.visit(cursor)

    def add_function(self, cursor):
        name = normalized(cursor.mangled_name)
        if has_body(cursor) or spelled(cursor, "delete") or cursor.is_pure_virtual_method():
            self.allowed.add(name)
        else:
            self.required.add(name)


def declarations(include_dir, arguments):
    headers = sorted((include_dir / "vxutils").glob("*.h"))
    text = "".join(f"#include <vxutils/{header.name}>\n" for header in headers)
    unit = Index.create().parse("all.cpp", ["-x", "c++", "-std=c++17", f"-I{include_dir}", *arguments],
                                unsaved_files=[("all.cpp", text)], options=TranslationUnit.PARSE_NONE)
    errors = [d for d in unit.diagnostics if d.severity >= 3]
    if errors:
        sys.exit("cannot read the headers: " + "; ".join(map(str, errors)))
    found = Declarations(include_dir)
    found.visit(unit.cursor)
    return found


def exported(library, nm):
    lines = subprocess.run([nm, "-D", "--defined-only", library], check=True, capture_output=True, text=True).stdout
    names = set()
    for line in lines.splitlines():
        kind, name = line.split()[-2:]
        if kind != "A" and not name.startswith("__odr_asan."):  # the sanitizer's own marks
            names.add(normalized(name.split("@")[0]))
    return names


def belongs_to_class(name, classes):
    match = re.fullmatch(r"_ZT[VIS](\d+\w+)", name)
    if match:
        return match.group(1) in classes
    return re.match(r"_ZTh?v?n?\d+_", name) is not None  # adjusting thunk of a declared function


def main():
    include_dir, library, nm, *arguments = sys.argv[1:]
    declared = declarations(pathlib.Path(include_dir), arguments)
    names = exported(library, nm)
    problems = [f"missing {name}" for name in sorted(declared.required - names)]
    problems += [f"extra {name}" for name in sorted(names - declared.required - declared.allowed)
                 if not belongs_to_class(name, declared.classes)]
    print("\n".join(problems), end="\n" if problems else "")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
