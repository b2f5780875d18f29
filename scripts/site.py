#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes one HTML site of the documents, the installed headers and the schemas: scripts/site.py ROOT OUTPUT

The site is OUTPUT/html. Doxygen makes it; any warning of Doxygen, and any link or picture of the site that leads nowhere,
is a failure.
"""
import html.parser
import pathlib
import re
import shutil
import subprocess
import sys
import urllib.parse

# In the order of the menu.
DOCUMENTS = ["README.md", "docs/first-register.md", "docs/nimbrel.md", "docs/rigs.md", "docs/architecture.md",
             "docs/threads.md", "docs/performance.md", "docs/schema/README.md", "docs/decisions/README.md", "CHANGELOG.md",
             "CONTRIBUTING.md"]
LINK = re.compile(r"(!?)\[([^\]]*)\]\(([^)]+)\)")

DOXYFILE = """
PROJECT_NAME = Nimbrel2
PROJECT_NUMBER = {version}
PROJECT_BRIEF = "Finds and watches machine-vision cameras"
INPUT = {inputs}
STRIP_FROM_PATH = {strip}
STRIP_FROM_INC_PATH = {strip}
INCLUDE_PATH = {include}
FILE_PATTERNS = *.h *.md
IMAGE_PATH = {pictures}
HTML_EXTRA_FILES = {extra}
USE_MDFILE_AS_MAINPAGE = {main}
OUTPUT_DIRECTORY = {output}
GENERATE_LATEX = NO
GENERATE_TREEVIEW = YES
HAVE_DOT = NO
EXTRACT_ALL = YES
JAVADOC_AUTOBRIEF = YES
MARKDOWN_SUPPORT = YES
TOC_INCLUDE_HEADINGS = 2
ENABLE_PREPROCESSING = YES
MACRO_EXPANSION = YES
EXPAND_ONLY_PREDEF = YES
PREDEFINED = NIMBREL2_API= __cplusplus=201703L
HTML_TIMESTAMP = NO
QUIET = YES
WARN_IF_UNDOCUMENTED = NO
WARN_IF_INCOMPLETE_DOC = NO
WARN_AS_ERROR = FAIL_ON_WARNINGS
"""


def slug(title):
    """The anchor that links between the documents use."""
    return re.sub(r"[^\w -]", "", title.strip().lower()).replace(" ", "-")


def page_id(name):
    return "page_" + re.sub(r"\W", "_", name.removesuffix(".md"))


class Documents:
    """Copies of the documents in which Doxygen finds the pages, headers and files that their links name."""

    def __init__(self, root, folder):
        self.root, self.folder, self.extra = root, folder, {}
        decisions = sorted(str(path.relative_to(root)) for path in (root / "docs/decisions").glob("*.md"))
        self.names = DOCUMENTS + [name for name in decisions if name not in DOCUMENTS]
        headers = re.search(r"set\(NIMBREL2_PUBLIC_HEADERS(.*?)\)", (root / "cmake/Install.cmake").read_text(), re.S)
        self.headers = ["src/" + header for header in headers[1].split()]

    def target(self, name, link):
        """What a link of a document becomes."""
        if re.match(r"\w+:", link):
            return link
        path, _, anchor = link.partition("#")
        there = str((self.root / name).parent.joinpath(path).resolve().relative_to(self.root)) if path else name
        if there in self.names:
            page = "index.html" if there == self.names[0] else page_id(there) + ".html"
            return page + (f"#{page_id(there)}_{anchor}" if anchor else "")
        if there in self.headers:
            return f"@ref {pathlib.Path(there).name}"
        if (self.root / there).is_file():
            # Shown as it is, beside the pages.
            self.extra[pathlib.Path(there).name] = self.root / there
            return pathlib.Path(there).name
        sys.exit(f"{name}: {link} leads nowhere")

    def prepared(self, name):
        parts = re.split(r"(^```.*?^```$)", (self.root / name).read_text(), flags=re.S | re.M)
        return "".join(part if part.startswith("```") else self.prose(name, part) for part in parts)

    def prose(self, name, text):
        text = re.sub(r"<!--.*?-->\n?", "", text, flags=re.S)

        def heading(match):
            level, title = match.groups()
            # Doxygen takes code in titles literally.
            plain = title.replace("`", "")
            return f"{level} {plain} {{#{page_id(name)}{'' if level == '#' else '_' + slug(title)}}}"

        def link(match):
            picture, words, target = match.groups()
            if picture:
                return f"![{words}]({pathlib.Path(target).name})"
            there = self.target(name, target)
            # Doxygen names the pages of headers itself, and takes their titles literally.
            words = words.replace("`", "") if there.startswith("@ref") else words
            return f"[{' '.join(words.split())}]({there})"
        text = re.sub(r"^(#+) (.*)$", heading, text, flags=re.M)
        return LINK.sub(link, text)

    def write(self):
        files = []
        for name in self.names:
            text = self.prepared(name)
            if name == "docs/schema/README.md":
                for schema in sorted((self.root / "docs/schema").glob("*.json")):
                    text += f"\n## {schema.name} {{#{page_id(name)}_{slug(schema.name)}}}\n\n```json\n{schema.read_text()}```\n"
            path = self.folder / f"{page_id(name)}.md"
            path.write_text(text)
            files.append(path)
        return files


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.links, self.anchors = [], set()
        self.feed(path.read_text())

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name in ("href", "src", "data") and value:
                self.links.append(value)
            if name in ("id", "name") and value:
                self.anchors.add(value)


def dead_links(folder):
    pages = {path: Page(path) for path in folder.rglob("*.html")}
    for path, page in pages.items():
        for link in page.links:
            parts = urllib.parse.urlsplit(link)
            if parts.scheme or parts.netloc:
                continue
            there = path.parent / urllib.parse.unquote(parts.path) if parts.path else path
            if not there.exists():
                yield f"{path.name}: {link} does not exist"
            elif parts.fragment and there in pages and urllib.parse.unquote(parts.fragment) not in pages[there].anchors:
                yield f"{path.name}: {link} has no such place"


def main():
    root, output = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
    shutil.rmtree(output, ignore_errors=True)
    source = output / "source"
    source.mkdir(parents=True)
    documents = Documents(root, source)
    files = documents.write()
    header = (root / "src/common/Version.h").read_text()
    version = ".".join(re.search(rf"#define NIMBREL2_VERSION_{part} (\d+)", header)[1] for part in ("MAJOR", "MINOR", "PATCH"))
    inputs = [*files, *(root / name for name in documents.headers)]
    doxyfile = DOXYFILE.format(version=version, inputs=" ".join(f'"{path}"' for path in inputs), strip=f'"{root / "src"}"',
                               include=f'"{root / "src"}"', pictures=f'"{root / "docs/pictures"}"', output=f'"{output}"',
                               extra=" ".join(f'"{path}"' for path in documents.extra.values()), main=f'"{files[0]}"')
    made = subprocess.run(["doxygen", "-"], input=doxyfile, text=True, stderr=subprocess.PIPE)
    found = [line.replace(str(source), "docs") for line in made.stderr.splitlines()]
    if made.returncode != 0 and not found:
        found = ["doxygen failed"]
    found += dead_links(output / "html")
    if found:
        sys.exit("\n".join(found))
    shutil.rmtree(source)
    print(f"{output / 'html/index.html'}: {len(list((output / 'html').glob('*.html')))} pages")


if __name__ == "__main__":
    main()
