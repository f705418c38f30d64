"""Reads the public headers: every declaration with its comment.

The headers are formatted by clang-format and documented in one style, so a tokenizer and a reader of declarations are
enough. What the reader does not understand raises HeaderError; it never leaves a declaration out silently."""
import dataclasses
import pathlib
import re

import comments

TOKEN = re.compile(r"""
    (?P<doc>/\*\*(?!/).*?\*/) | (?P<comment>/\*.*?\*/|//[^\n]*) | (?P<directive>^[ \t]*\#(?:\\\n|/\*.*?\*/|[^\n/]|/(?!\*))*)
  | (?P<text>"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*') | (?P<word>[A-Za-z_]\w*) | (?P<number>\d[\w.]*)
  | (?P<space>\s+) | (?P<mark>::|->|\.\.\.|<<=?|&&|\|\||[-+*/%^&|=!<>]=|\+\+|--|.)""", re.X | re.S | re.M)
IGNORED_WORDS = {"VXUTILS_BEGIN_DECLS", "VXUTILS_END_DECLS"}


class HeaderError(Exception):
    pass


@dataclasses.dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclasses.dataclass
class Item:
    """One public name: function, class, struct, union, enum, macro, variable, typedef, field or enumerator."""
    kind: str
    name: str
    declaration: str
    comment: comments.Comment = None
    parameters: list = dataclasses.field(default_factory=list)
    members: list = dataclasses.field(default_factory=list)
    scope: str = ""
    group: str = ""

    @property
    def qualified(self):
        return f"{self.scope}::{self.name}" if self.scope else self.name

    def tree(self):
        yield self
        for member in self.members:
            yield from member.tree()


@dataclasses.dataclass
class Header:
    family: str
    comment: comments.Comment
    items: list
    includes: list
    hidden: set  # private members, which a program cannot use

    def everything(self):
        for item in self.items:
            yield from item.tree()


def tokens_of(text):
    return [Token(m.lastgroup, m.group(), m.start(), m.end()) for m in TOKEN.finditer(text)
            if m.lastgroup not in ("space", "comment")]


def closing(tokens, at):
    """Index of the bracket that closes the one at @at."""
    pairs = {"(": ")", "{": "}", "[": "]"}
    depth = 0
    for index in range(at, len(tokens)):
        depth += {tokens[at].text: 1, pairs[tokens[at].text]: -1}.get(tokens[index].text, 0)
        if depth == 0:
            return index
    raise HeaderError(f"bracket without end: {tokens[at].text}")


def without_attributes(tokens):
    """The tokens without what only the compiler needs: visibility, attributes, checked formats."""
    kept, index = [], 0
    while index < len(tokens):
        if tokens[index].text in ("__attribute__", "VXUTILS_PRINTF"):
            index = closing(tokens, index + 1) + 1
        elif tokens[index].text in ("VXUTILS_API", "VXUTILS_TIME64_API") or tokens[index].kind == "doc":
            index += 1
        else:
            kept.append(tokens[index])
            index += 1
    return kept


def words(source, tokens):
    """The source text of the tokens in one line."""
    text, end = "", None
    for token in tokens:
        if end is not None and token.start > end:
            text += " " if re.search(r"\s", source[end:token.start]) or not text.endswith(" ") else ""
        text += token.text
        end = token.end
    return re.sub(r"\s+", " ", text).strip()


def split_at_commas(tokens):
    parts, depth = [[]], 0
    for token in tokens:
        depth += {"(": 1, "[": 1, "{": 1, "<": 1, ")": -1, "]": -1, "}": -1, ">": -1}.get(token.text, 0)
        if token.text == "," and depth == 0:
            parts.append([])
        else:
            parts[-1].append(token)
    return [part for part in parts if part]


def declared_name(tokens):
    """The name that a parameter, field or typedef declares: in `(*name)(...)`, before `[`, or the last word."""
    texts = [t.text for t in tokens]
    for index in range(len(texts) - 2):
        if texts[index] == "(" and texts[index + 1] in ("*", "&") and tokens[index + 2].kind == "word":
            return texts[index + 2]
    for stop in ("=", "[", ":"):
        if stop in texts:
            tokens = tokens[:texts.index(stop)]
            texts = [t.text for t in tokens]
    if len(tokens) > 1 and tokens[-1].kind == "word" and tokens[-1].text not in ("const", "int", "char", "long"):
        return tokens[-1].text
    return ""


class Reader:
    def __init__(self, source):
        self.source = source
        self.tokens = tokens_of(source)
        self.at = 0
        self.file_comment = None
        self.includes = []
        self.group = ""
        self.hidden = set()
        self.latest = None  # the item that a comment at the end of its line belongs to

    def fail(self, message):
        line = self.source.count("\n", 0, self.tokens[min(self.at, len(self.tokens) - 1)].start) + 1
        raise HeaderError(f"line {line}: {message}")

    def scope(self, end, name, public):
        """Everything up to @end; the items that a caller can use."""
        items, pending = [], None
        while self.at < end:
            token = self.tokens[self.at]
            if token.kind == "doc":
                pending = self.documentation(token, items, pending)
                self.at += 1
            elif token.kind == "directive":
                if self.directive(token, items, pending):
                    pending = None
                self.at += 1
            elif token.text in IGNORED_WORDS or token.text in (";", "}"):
                self.at += 1
            elif token.text == "extern" and self.tokens[self.at + 1].text == '"C"' and self.tokens[self.at + 2].text == "{":
                self.at += 3
            elif token.text in ("public", "private", "protected") and self.tokens[self.at + 1].text == ":":
                public = token.text == "public"
                self.at += 2
            else:
                found = self.declaration(end, name)
                self.latest = found[-1] if found else None
                if public:
                    for item in found:
                        item.comment, item.group = item.comment or pending, self.group
                        items.append(item)
                if not public:
                    self.hidden |= {item.qualified for item in found}
                pending = None
        return items

    def documentation(self, token, items, pending):
        text = comments.stripped(token.text)
        if re.search(r"^@file", text, re.M):
            self.file_comment = comments.Comment(re.sub(r"^@file.*\n?", "", text, flags=re.M))
            return None
        if token.text.startswith("/**<"):
            if items and items[-1] is self.latest:
                items[-1].comment = comments.Comment(text)
            return None
        opened = re.search(r"^@name\s+(.*)$", text, re.M)
        if opened or "@{" in text:
            self.group = opened.group(1).replace("@{", "").strip() if opened else ""
            return None
        if "@}" in text:
            self.group = ""
            return None
        return comments.Comment(text)

    def directive(self, token, items, pending):
        text = token.text.replace("\\\n", " ")
        include = re.match(r"\s*#\s*include\s*<vxutils/(\w+)\.h>", text)
        if include:
            self.includes.append(include.group(1))
        trailing = re.search(r"/\*\*<(.*?)\*/", text, re.S)
        define = re.match(r"\s*#\s*define\s+(\w+)(\([^)]*\))?", text)
        if not define or not (pending or trailing):
            return False
        comment = comments.Comment(comments.stripped(trailing.group())) if trailing else pending
        parameters = [p.strip() for p in (define.group(2) or "").strip("()").split(",") if p.strip()]
        value = re.sub(r"/\*.*?\*/", "", text[define.end():], flags=re.S).strip()
        shown = f"#define {define.group(1)}{define.group(2) or ''}"
        if re.fullmatch(r"[-\w\"./()]{1,40}", value) and not define.group(2):
            shown += " " + value
        items.append(Item("macro", define.group(1), shown, comment, parameters, group=self.group))
        return True

    def declaration(self, end, scope):
        start = self.at
        while self.at < end:
            text = self.tokens[self.at].text
            if text in "([":
                self.at = closing(self.tokens, self.at)
            elif text == "{" and self.tokens[self.at - 1].text != "=":
                return self.with_body(start, scope)
            elif text == "{":
                self.at = closing(self.tokens, self.at)
            elif text == ";":
                self.at += 1
                return self.simple(self.tokens[start:self.at - 1], scope)
            self.at += 1
        self.fail("a declaration without end")

    def with_body(self, start, scope):
        head = without_attributes(self.tokens[start:self.at])
        texts = [t.text for t in head]
        stop = closing(self.tokens, self.at)
        body = self.at + 1
        kinds = [t for t in texts if t in ("class", "struct", "union", "enum", "namespace")]
        if not kinds or "(" in texts:
            self.at = stop + 1
            return self.function(head, scope)
        kind = kinds[0]
        names = [t.text for t in head[texts.index(kind) + 1:] if t.kind == "word" and t.text != "final"]
        name = names[0] if names else ""
        inner = f"{scope}::{name}" if scope else name
        if kind == "enum":
            members = self.enumerators(body, stop, inner if "class" in kinds[1:] else scope)
        else:
            group, self.group, self.at = self.group, "", body
            members = self.scope(stop, inner, kind != "class")
            self.group = group
        self.at = stop + 1
        tail = []
        while self.tokens[self.at].text != ";":
            tail.append(self.tokens[self.at])
            self.at += 1
        self.at += 1
        aliases = [t.text for t in without_attributes(tail) if t.kind == "word"]
        if "typedef" in texts and aliases:
            name = name or aliases[0]
            head = [t for t in head if t.text != "typedef"]
        if any("::" in t for t in texts) and ":" not in texts:
            return []  # a definition outside of its class
        if not name:
            return members if kind == "enum" else []
        return [Item(kind, name, words(self.source, head) or f"{kind} {name}", None, [], members, scope)]

    def enumerators(self, at, stop, scope):
        items, pending = [], None
        while at < stop:
            token = self.tokens[at]
            if token.kind == "doc":
                comment = comments.Comment(comments.stripped(token.text))
                if token.text.startswith("/**<") and items:
                    items[-1].comment = comment
                else:
                    pending = comment
            elif token.kind == "word" and self.tokens[at - 1].text in ("{", ",") or (
                    token.kind == "word" and self.tokens[at - 1].kind == "doc"):
                value, follow = "", at + 1
                if self.tokens[follow].text == "=":
                    follow += 1
                    first = follow
                    while self.tokens[follow].text not in (",", "}") and self.tokens[follow].kind != "doc":
                        follow += 1
                    value = " = " + words(self.source, self.tokens[first:follow])
                items.append(Item("enumerator", token.text, token.text + value, pending, scope=scope))
                pending, at = None, follow - 1
            at += 1
        return items

    def simple(self, tokens, scope):
        tokens = without_attributes(tokens)
        texts = [t.text for t in tokens]
        if not texts or texts[0] in ("friend", "using") or (len(texts) == 2 and texts[0] in ("class", "struct", "enum")):
            return []
        if texts[0] == "typedef":
            name = declared_name(tokens)
            return [] if texts[1:2] == ["struct"] and texts[2:3] == [name] else [
                Item("typedef", name, words(self.source, tokens), scope=scope)]
        if "operator" in texts or "(" in texts and texts[texts.index("(") + 1] != "*":
            return self.function(tokens, scope)
        name = declared_name(tokens)
        if not name:
            self.fail(f"no name in: {words(self.source, tokens)}")
        return [Item("field" if scope and "static" not in texts else "variable", name, words(self.source, tokens), scope=scope)]

    def function(self, tokens, scope):
        texts = [t.text for t in tokens]
        if "delete" in texts:
            return []
        if "operator" in texts:
            at = texts.index("operator")
            opening = texts.index("(", at + (3 if texts[at + 1] == "(" else 1))
            name = "operator" + "".join(texts[at + 1:opening])
        else:
            opening = texts.index("(")
            name = texts[opening - 1]
            at = opening - 1
            if texts[at - 1] == "~":
                name, at = "~" + name, at - 1
        if at > 0 and texts[at - 1] == "::":
            return []  # a definition outside of its class
        end = closing(tokens, opening)
        parameters = [declared_name(part) for part in split_at_commas(tokens[opening + 1:end])
                      if [t.text for t in part] not in (["void"], ["..."])]
        tail = end + 1
        while tail < len(tokens) and texts[tail] != ":":
            tail += 1
        declaration = words(self.source, [t for t in tokens[:tail] if t.text not in ("inline", "extern")])
        return [Item("function", name, declaration, None, parameters, scope=scope)]


def read(path):
    reader = Reader(path.read_text())
    try:
        items = reader.scope(len(reader.tokens), "", True)
    except (HeaderError, ValueError, IndexError) as error:
        raise HeaderError(f"{path.name}: {error}") from error
    if reader.file_comment is None:
        raise HeaderError(f"{path.name}: no @file comment")
    return Header(path.stem, reader.file_comment, items, reader.includes, reader.hidden)


def read_all(directory):
    return [read(path) for path in sorted(pathlib.Path(directory).glob("*.h"))]
