#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when the README's program is not, to the letter, the example that is compiled, when a link in the documents
leads nowhere, or when a decision is missing from its index: check_docs.py ROOT"""
import difflib
import pathlib
import re
import sys

LINK = re.compile(r"\]\(([^)#:]+)(?:#[^)]*)?\)")


def check_program(root):
    example = (root / "examples/list_cameras.cpp").read_text()
    blocks = re.findall(r"^```cpp\n(.*?)^```$", (root / "README.md").read_text(), re.S | re.M)
    if len(blocks) != 1:
        return [f"README.md has {len(blocks)} blocks of C++, not one"]
    # The licence line and the two lines under it are for readers of the file.
    shown = "".join(line for line in example.splitlines(True) if not line.startswith("//")).lstrip("\n")
    return list(difflib.unified_diff(shown.splitlines(), blocks[0].splitlines(), "examples/list_cameras.cpp",
                                     "README.md", lineterm=""))


def check_links(documents):
    return [f"{document}: {link} does not exist" for document in documents
            for link in LINK.findall(document.read_text()) if not (document.parent / link).exists()]


def check_index(folder):
    index = (folder / "README.md").read_text()
    return [f"{page} is not in {folder.name}/README.md" for page in sorted(folder.glob("*.md"))
            if page.name != "README.md" and f"({page.name})" not in index]


def main():
    root = pathlib.Path(sys.argv[1])
    documents = [path for path in root.glob("*.md")] + [path for top in ("docs", "src", "tests", "tools", "examples")
                                                        for path in (root / top).rglob("*.md")]
    found = check_program(root) + check_links(documents) + check_index(root / "docs/decisions")
    if found:
        sys.exit("\n".join(found))
    print(f"{len(documents)} documents are in order")


main()
