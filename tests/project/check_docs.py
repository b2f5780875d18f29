#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when the README's programs are not, to the letter, the examples that are compiled, when a link in the documents
leads nowhere, when a decision is missing from its index, or when docs/architecture.md leaves a room out or names what is not
there: check_docs.py ROOT"""
import difflib
import pathlib
import re
import sys

LINK = re.compile(r"\]\(([^)#:]+)(?:#[^)]*)?\)")


EXAMPLES = ["examples/list_cameras.cpp", "examples/read_register.cpp"]


def check_programs(root):
    blocks = re.findall(r"^```cpp\n(.*?)^```$", (root / "README.md").read_text(), re.S | re.M)
    if len(blocks) != len(EXAMPLES):
        return [f"README.md has {len(blocks)} blocks of C++, not {len(EXAMPLES)}"]
    found = []
    for name, block in zip(EXAMPLES, blocks):
        # The licence line and the lines under it are for readers of the file.
        shown = "".join(line for line in (root / name).read_text().splitlines(True) if not line.startswith("//"))
        found += difflib.unified_diff(shown.lstrip("\n").splitlines(), block.splitlines(), name, "README.md", lineterm="")
    return found


def check_links(documents):
    return [f"{document}: {link} does not exist" for document in documents
            for link in LINK.findall(document.read_text()) if not (document.parent / link).exists()]


def check_index(folder):
    index = (folder / "README.md").read_text()
    return [f"{page} is not in {folder.name}/README.md" for page in sorted(folder.glob("*.md"))
            if page.name != "README.md" and f"({page.name})" not in index]


def check_architecture(root):
    """Rooms that the page leaves out, and names in it that no source or build file has."""
    whole = (root / "docs/architecture.md").read_text()
    page = re.sub(r"^```.*?^```$", "", whole, flags=re.S | re.M)
    rooms = {str(readme.parent.relative_to(root)).removeprefix("src/") for readme in (root / "src").rglob("README.md")}
    found = [f"docs/architecture.md: no word of {room}" for room in sorted(rooms) if room not in whole]
    files = [path for top in ("src", "tools", "cmake") for path in (root / top).rglob("*") if path.is_file()]
    text = "".join(path.read_text() for path in files) + "".join(str(path) for path in files)
    for name in sorted(set(re.findall(r"`([^`]+)`", page))):
        words = [word for word in re.findall(r"\w+", name) if word != "NAME"]
        if not (root / name).exists() and not all(re.search(rf"\b{word}\b", text) for word in words):
            found.append(f"docs/architecture.md: `{name}` is nowhere else")
    return found


def main():
    root = pathlib.Path(sys.argv[1])
    documents = [path for path in root.glob("*.md")] + [path for top in ("docs", "src", "tests", "tools", "examples")
                                                        for path in (root / top).rglob("*.md")]
    found = check_programs(root) + check_links(documents) + check_index(root / "docs/decisions") + check_architecture(root)
    if found:
        sys.exit("\n".join(found))
    print(f"{len(documents)} documents are in order")


main()
