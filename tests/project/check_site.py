#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes the HTML site and looks for what must be in it; then damages it, which must be noticed: check_site.py ROOT"""
import importlib.util
import pathlib
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(sys.argv[1]).resolve()


def load():
    spec = importlib.util.spec_from_file_location("site_maker", ROOT / "scripts/site.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def main():
    found = []
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        made = subprocess.run([ROOT / "scripts/site.py", ROOT, folder], capture_output=True, text=True)
        if made.returncode != 0:
            sys.exit(made.stdout + made.stderr)
        html = folder / "html"
        index = (html / "index.html").read_text()
        for picture in ("demo.svg", "production-line.svg"):
            if f'"{picture}"' not in index or not (html / picture).exists():
                found.append(f"the first page has no {picture}")
        pages = {page.name: page.read_text() for page in html.glob("*.html")}
        site = load()
        for document in site.DOCUMENTS[1:]:
            if f"{site.page_id(document)}.html" not in pages:
                found.append(f"{document} is not in the site")
        if not any("BusMaster::FireBusReset" in text for text in pages.values()):
            found.append("the operations of the bus master are not in the site")
        schemas = pages.get("page_docs_schema_README.html", "")
        found += [f"{schema.name} is not in the site" for schema in (ROOT / "docs/schema").glob("*.json")
                  if schema.name not in schemas]
        if list(site.dead_links(html)):
            found.append("a good site has dead links")
        (html / "index.html").write_text(index + '<a href="nowhere.html">x</a><a href="index.html#nowhere">y</a>')
        if len(list(site.dead_links(html))) != 2:
            found.append("dead links are not noticed")

        # A copy of the documents with a fault in each way.
        for file, fault in (("docs/rigs.md", "\n[x](nowhere.md)\n"), ("docs/rigs.md", "\n[x](threads.md#nowhere)\n")):
            copy = folder / "copy"
            subprocess.run(["rm", "-rf", copy], check=True)
            copy.mkdir()
            for part in ("README.md", "CHANGELOG.md", "CONTRIBUTING.md", "LICENSE", "docs", "src", "cmake", "examples"):
                (copy / part).symlink_to(ROOT / part)
            (copy / "docs").unlink()
            subprocess.run(["cp", "-r", ROOT / "docs", copy / "docs"], check=True)
            with open(copy / file, "a") as document:
                document.write(fault)
            if subprocess.run([ROOT / "scripts/site.py", copy, folder / "faulty"], capture_output=True).returncode == 0:
                found.append(f"{fault.strip()} in {file} is not noticed")
    if found:
        sys.exit("\n".join(found))
    print(f"{len(pages)} pages are in order")


main()
