"""The site: HTML pages that need nothing but themselves and work from the file system.

The reference comes from the same reading of the headers as the manual pages; the other pages are the Markdown files of
docs/, the project's own pages, the pages of vx and the example programs. The search index is a script, because a page
that was opened from the file system cannot load data in another way."""
import html
import json
import re
import shutil
import subprocess

import markdown

import comments
import figures
import model

ASSETS = ("style.css", "search.js")
SEARCH_INDEX = "search-index.js"
PROJECT_PAGES = {"README.md": "readme.html", "CHANGELOG.md": "changelog.html", "CONTRIBUTING.md": "contributing.html",
                 "SECURITY.md": "reporting.html", "LICENSE": "licence.html", "packaging/README.md": "packaging.html"}


class Page:
    def __init__(self, file, title, body, kind, summary=""):
        self.file, self.title, self.body, self.kind, self.summary = file, title, body, kind, summary


class Site:
    def __init__(self, library):
        self.library = library
        self.pages = []
        self.entries = []  # of the search: title, kind, address, summary, further text

    # --- text -----------------------------------------------------------------------------------------------------------

    def link(self, name, near=None):
        found = self.library.family_of(name, near)
        return f"{found[1].name}.html#{found[0]}" if found else None

    def inline(self, text, near=None):
        out = ""
        for kind, words in comments.spans(text):
            shown = html.escape(words)
            target = None
            if kind in ("call", "code"):
                target = self.link(words, near)
            elif kind == "header":
                shown, target = f"{shown}.h", f"{words}.html" if words in self.library.families else None
            if kind == "bold":
                out += f"<strong>{shown}</strong>"
            elif kind == "parameter":
                out += f"<var>{shown}</var>"
            elif kind == "text":
                out += shown
            else:
                out += f'<a href="{target}"><code>{shown}</code></a>' if target else f"<code>{shown}</code>"
        return out

    def block(self, block, near):
        if block.kind == "code":
            return f'<pre tabindex="0"><code>{html.escape(block.text)}</code></pre>'
        if block.kind == "table":
            head, *body = comments.table_rows(block.text)
            rows = ["".join(f"<th scope=col>{self.inline(cell, near)}</th>" for cell in head)]
            rows += ["".join(f"<td>{self.inline(cell, near)}</td>" for cell in row) for row in body]
            return "<div class=wide tabindex=0><table>" + "".join(f"<tr>{row}</tr>" for row in rows) + "</table></div>"
        tag = "li" if block.kind == "item" else "p"
        return f"<{tag}>{self.inline(block.text, near)}</{tag}>"

    def blocks(self, blocks, near=None):
        text = "\n".join(self.block(block, near) for block in blocks)
        return re.sub(r"((?:<li>.*?</li>\n?)+)", r"<ul>\1</ul>", text, flags=re.S)

    # --- reference ------------------------------------------------------------------------------------------------------

    def declaration(self, item):
        lines = model.wrapped_declaration(item.declaration, 90)
        return f'<pre class=declaration tabindex="0"><code>{html.escape(chr(10).join(lines))}</code></pre>'

    def item(self, item, level, seen):
        name, near = item.qualified, item.qualified if item.members else item.scope
        anchor = "" if name in seen else f' id="{html.escape(name)}"'
        seen.add(name)
        shown = item.name if item.kind != "function" else f"{item.name}()"
        words = {"function": "", "enumerator": "constant"}.get(item.kind, item.kind)
        parts = [f"<h{level}{anchor}>{words} <code>{html.escape(shown)}</code></h{level}>"]
        if item.kind != "enumerator" or "=" in item.declaration:
            parts.append(self.declaration(item))
        comment = item.comment
        if comment:
            parts.append(self.blocks(comment.blocks, near))
            if comment.copied:
                parts.append(f"<p>As {self.inline(comment.copied, near)}.</p>")
            rows = [(f"<var>{p}</var>", text) for p, text in comment.parameters.items()]
            rows += [("Returns", comment.returns)] if comment.returns else []
            rows += [(f"Returns <code>{html.escape(v)}</code>", text) for v, text in comment.retvals]
            rows += [("Throws", text) for text in comment.throws]
            if rows:
                parts.append("<dl>" + "".join(f"<dt>{t}</dt><dd>{self.inline(text, near)}</dd>" for t, text in rows) + "</dl>")
        elif "override" in item.declaration:
            parts.append("<p>As the function that it overrides.</p>")
        constructor = item.scope.rsplit("::", 1)[-1] == item.name
        if anchor and not constructor and re.fullmatch(r"[A-Za-z_]\w*", item.name):
            summary = model.plain(comment.summary or comment.returns) if comment else ""
            self.entries.append([item.qualified, words or "function", f"{self.at}#{name}", summary,
                                 model.plain(comment.text) if comment else ""])
        for member in item.members:
            if member.kind == "enumerator":
                continue
            parts.append(self.item(member, min(level + 1, 5), seen))
        constants = [m for m in item.members if m.kind == "enumerator"]
        if constants:
            parts.append("<dl>" + "".join(
                f'<dt id="{m.qualified}"><code>{html.escape(m.declaration)}</code></dt><dd>'
                + (self.blocks(m.comment.blocks, near) if m.comment else "") + "</dd>" for m in constants) + "</dl>")
            self.entries += [[m.qualified, "constant", f"{self.at}#{m.qualified}",
                              model.plain(m.comment.summary) if m.comment else "", ""] for m in constants]
        return "\n".join(parts)

    def family(self, family):
        self.at = f"{family.name}.html"
        parts = [f"<h1>{family.name}</h1>",
                 f"<p class=include><code>#include &lt;vxutils/{family.name}.h&gt;</code></p>"]
        titles = {"DESCRIPTION": "", "EXAMPLES": "Example", "NOTES": "Threads and blocking"}
        for section in ("DESCRIPTION", "EXAMPLES", "OWNERSHIP", "NOTES", "ERRORS", "LIMITS", "PRIVILEGES", "COMPATIBILITY"):
            blocks = family.comment.section(section)
            if blocks:
                title = titles.get(section, section.capitalize())
                parts.append((f"<h2 id=\"{section.lower()}\">{title}</h2>" if title else "") + self.blocks(blocks))
        programs = self.library.examples(family)
        if programs:
            parts.append("<p>Complete programs: " + ", ".join(
                f'<a href="example-{name.replace(".", "-")}.html"><code>{name}</code></a>' for name in programs) + ".</p>")
        names = "".join(f'<li><a href="#{n}"><code>{n}</code></a></li>' for n in family.top_names)
        parts.append(f"<h2 id=names>Names</h2><ul class=columns>{names}</ul>")
        seen, group = set(), None
        for item in family.items:
            if item.group and item.group != group:
                parts.append(f"<h2>{html.escape(item.group)}</h2>")
            group = item.group
            parts.append(self.item(item, 3, seen))
        see = [f'<a href="{name}.html">{name}</a>' for name in self.library.related(family)]
        see += [f'<a href="{name}.1.html">{name}(1)</a>' for name in self.library.commands(family)]
        if see:
            parts.append("<h2>See also</h2><p>" + ", ".join(see) + "</p>")
        self.entries.append([family.name, "family", self.at, family.summary, model.plain(family.comment.text)])
        self.pages.append(Page(self.at, family.name, "\n".join(parts), "reference", family.summary))

    # --- other pages ----------------------------------------------------------------------------------------------------

    def markdown(self, source, file, kind):
        text = source.read_text()
        if source.suffix != ".md":
            text = "# Licence\n\n" + "".join(f"    {line}\n" for line in text.split("\n"))
        converter = markdown.Markdown(extensions=["tables", "fenced_code", "toc", "sane_lists"])
        body = figures.put_in(converter.convert(text))
        body = re.sub(r'href="([^"]+)"', lambda m: f'href="{self.address(source, m.group(1))}"', body)
        body = re.sub(r"(?<!\">)<code>([A-Za-z_][\w:]*(?:\(\))?)</code>", self.linked_code, body)
        body = body.replace("<table>", "<div class=wide tabindex=0><table>").replace("</table>", "</table></div>")
        body = body.replace("<pre>", '<pre tabindex="0">')
        title = html.unescape(re.sub(r"<[^>]+>", "", re.search(r"<h1[^>]*>(.*?)</h1>", body, re.S).group(1)))
        self.pages.append(Page(file, title, body, kind))
        for level, anchor, heading, content in re.findall(
                r'<h([123]) id="([^"]+)">(.*?)</h\1>(.*?)(?=<h[123] id|\Z)', body, re.S):
            heading, content = (html.unescape(re.sub(r"<[^>]+>", "", t)) for t in (heading, content))
            summary = re.split(r"(?<=[.:])\s", content.strip(), maxsplit=1)[0]
            shown = heading if level == "1" else f"{title}: {heading}"
            self.entries.append([shown, kind, file if level == "1" else f"{file}#{anchor}", summary[:200], content])

    def linked_code(self, match):
        target = self.link(match.group(1))
        return f'<a href="{target}">{match.group()}</a>' if target else match.group()

    def address(self, source, target):
        if re.match(r"[a-z]+:|#", target):
            return target
        path, _, anchor = target.partition("#")
        place = (source.parent / path).resolve().relative_to(model.ROOT)
        anchor = f"#{anchor}" if anchor else ""
        if str(place) in PROJECT_PAGES:
            return PROJECT_PAGES[str(place)] + anchor
        if place.parts[0] == "docs" and place.suffix == ".md":
            return self.document_file(place) + anchor
        if place.parts[0] == "examples" and place.suffix in (".c", ".cpp"):
            return f"example-{place.name.replace('.', '-')}.html"
        return target  # reported by the check of links

    @staticmethod
    def document_file(place):
        return ("guide-" if "guides" in place.parts else "") + place.stem + ".html"

    def examples(self):
        for path in sorted((model.ROOT / "examples").glob("*.c*")):
            if path.suffix not in (".c", ".cpp"):
                continue
            text = path.read_text()
            first = re.search(r"(?:/\*|//)\s*(?!SPDX)(.*?)(?:\*/|\n(?!//))", re.sub(r"/\*\s*SPDX.*?\*/|//\s*SPDX.*", "", text), re.S)
            summary = re.sub(r"\s*\n\s*(?:\*|//)\s*", " ", first.group(1)).strip() if first else ""
            file = f"example-{path.name.replace('.', '-')}.html"
            families = [f for f in re.findall(r"<vxutils/(\w+)\.h>", text) if f in self.library.families]
            body = (f"<h1>examples/{path.name}</h1><p>Uses " + ", ".join(f'<a href="{f}.html">{f}</a>' for f in families)
                    + f'.</p><pre tabindex="0"><code>{html.escape(text)}</code></pre>')
            self.pages.append(Page(file, path.name, body, "example", re.split(r"(?<=[.:])\s", summary)[0]))
            self.entries.append([path.name, "example", file, summary, text])

    def commands(self):
        names = {path.name for path in model.command_pages()}
        for path in model.command_pages():
            made = subprocess.run(["mandoc", "-T", "html", "-O", "fragment,man=%N.%S.html", str(path)], check=True,
                                  capture_output=True, text=True).stdout
            body = re.sub(r'<table class="(?:head|foot)">.*?</table>', "", made, flags=re.S)
            body = re.sub(r"(</?)h1\b", r"\1h2", body)  # the page's title is its main heading
            body = body.replace("<pre>", '<pre tabindex="0">')
            body = re.sub(r'<a class="permalink" href="#[^"]*">(.*?)</a>', r"\1", body, flags=re.S)
            body = re.sub(r'<a class="Xr" href="([^"]+)">(.*?)</a>',
                          lambda m: m.group() if m.group(1)[:-5] in names else m.group(2), body)
            summary = re.search(r"^\.Nd (.*)$", path.read_text(), re.M).group(1)
            title = path.stem.replace("vx-", "vx ")
            self.pages.append(Page(f"{path.name}.html", title, f"<h1>{title}</h1>" + body, "command", summary))
            self.entries.append([title, "command", f"{path.name}.html", summary,
                                 html.unescape(re.sub(r"<[^>]+>", " ", body))])

    # --- frame ----------------------------------------------------------------------------------------------------------

    def navigation(self, current):
        def links(pages):
            return "".join(f'<li><a href="{p.file}"{" aria-current=page" if p is current else ""}>{html.escape(p.title)}</a></li>'
                           for p in pages)

        kinds = {}
        for page in self.pages:
            kinds.setdefault(page.kind, []).append(page)
        by_file = {page.file: page for page in self.pages}
        parts = []
        for kind, title in (("guide", "Guides"), ("document", "About the library")):
            if kind in kinds:
                parts.append(f"<h2>{title}</h2><ul>{links(kinds[kind])}</ul>")
        for facility, names in model.FACILITIES.items():
            parts.append(f"<h2>{facility}</h2><ul>{links([by_file[f'{n}.html'] for n in names])}</ul>")
        parts.append('<h2>More</h2><ul><li><a href="commands.html">Commands of vx</a></li>'
                     '<li><a href="examples.html">Example programs</a></li><li><a href="names.html">All names</a></li></ul>')
        return "".join(parts)

    def framed(self, page):
        title = "libvxutils" if page.file == "index.html" else f"{html.escape(page.title)} - libvxutils"
        return f"""<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>{title}</title>
<link rel="stylesheet" href="style.css">
<script defer src="search-index.js"></script>
<script defer src="search.js"></script>
</head>
<body>
<a class="skip" href="#content">To the content</a>
<header>
<a class="home" href="index.html">libvxutils {model.version()}</a>
<form role="search" action="search.html">
<label for="search">Search</label>
<input id="search" name="q" type="search" autocomplete="off" placeholder="configd_fetch, event loop, ...">
</form>
</header>
<div class="columns-page">
<nav aria-label="Pages"><details><summary>Pages</summary>{self.navigation(page)}</details></nav>
<main id="content">
{page.body}
</main>
</div>
</body>
</html>
"""

    def lists(self):
        def listed(kind):
            return "<dl>" + "".join(f'<dt><a href="{p.file}">{html.escape(p.title)}</a></dt><dd>{html.escape(p.summary)}</dd>'
                                    for p in self.pages if p.kind == kind) + "</dl>"

        names = "".join(f'<li><a href="{family.name}.html#{name}"><code>{name}</code></a></li>'
                        for name, family in sorted(self.library.owners.items(), key=lambda pair: pair[0].lower()))
        facilities = ""
        for facility, families in model.FACILITIES.items():
            facilities += f"<h2>{facility}</h2><dl>" + "".join(
                f'<dt><a href="{f}.html">{f}</a></dt><dd>{html.escape(self.library.families[f].summary)}.</dd>'
                for f in families) + "</dl>"
        guides = f"<h2>Guides</h2>{listed('guide')}" if any(p.kind == "guide" for p in self.pages) else ""
        self.pages += [
            Page("commands.html", "Commands of vx", "<h1>Commands of vx</h1>" + listed("command"), "list"),
            Page("examples.html", "Example programs", "<h1>Example programs</h1>" + listed("example"), "list"),
            Page("names.html", "All names", f"<h1>All names</h1><ul class=columns>{names}</ul>", "list"),
            Page("search.html", "Search", "<h1>Search</h1><p id=found role=status>Needs JavaScript. "
                 '<a href="names.html">All names</a> is a list without it.</p><ol id=results></ol>', "list"),
            Page("index.html", "libvxutils", "<h1>libvxutils</h1><p>The shared utility library of the router firmware: one way "
                 "for every daemon and tool to do what all of them need. <a href=\"readme.html\">Building it, and a first "
                 f"program</a>.</p>{guides}{facilities}", "list")]

    def build(self):
        for name in [n for names in model.FACILITIES.values() for n in names]:
            self.family(self.library.families[name])
        for source in sorted((model.ROOT / "docs/guides").glob("*.md")):
            self.markdown(source, self.document_file(source.relative_to(model.ROOT)), "guide")
        for name, file in PROJECT_PAGES.items():
            if (model.ROOT / name).exists():
                self.markdown(model.ROOT / name, file, "document")
        for source in sorted((model.ROOT / "docs").glob("*.md")):
            self.markdown(source, self.document_file(source.relative_to(model.ROOT)), "document")
        self.commands()
        self.examples()
        self.lists()
        files = [page.file for page in self.pages]
        if len(set(files)) != len(files):
            raise model.ModelError("two pages of the site are called " + ", ".join({f for f in files if files.count(f) > 1}))


def search_text(text):
    """The words of a text, each once."""
    words = dict.fromkeys(re.findall(r"[a-z0-9_]{3,}", text.lower()))
    return " ".join(words)


def write(library, directory):
    """Writes the site into @directory; returns the number of its pages."""
    site = Site(library)
    site.build()
    if directory.exists():
        if any(directory.iterdir()) and not (directory / SEARCH_INDEX).exists():
            raise model.ModelError(f"{directory} has files that are not of a site made here: name an empty directory or a new one")
        shutil.rmtree(directory)
    directory.mkdir(parents=True)
    index = [[title, kind, address, summary, search_text(text)] for title, kind, address, summary, text in site.entries]
    # Before the pages: it tells that all of the directory is ours, also where making the pages is interrupted.
    (directory / SEARCH_INDEX).write_text("const INDEX = " + json.dumps(index, ensure_ascii=False, separators=(",", ":"))
                                               + ";\n")
    for page in site.pages:
        (directory / page.file).write_text(site.framed(page))
    for name in ASSETS:
        shutil.copyfile(model.ROOT / "docs/generator" / name, directory / name)
    for picture in (model.ROOT / "docs").glob("*.png"):
        shutil.copyfile(picture, directory / picture.name)
    return len(site.pages)
