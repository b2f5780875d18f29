#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when the pictures in docs/pictures are not what scripts/pictures.sh draws: check_pictures.py ROOT NIMBREL.
Coordinates may differ by a point, for processors round differently."""
import pathlib
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as tree

NUMBER = re.compile(r"-?\d+(?:\.\d+)?")


def same(kept, drawn):
    kept, drawn = kept or "", drawn or ""
    if NUMBER.sub("#", kept) != NUMBER.sub("#", drawn):
        return False
    pairs = zip(NUMBER.findall(kept), NUMBER.findall(drawn))
    return all(abs(float(a) - float(b)) <= 1 for a, b in pairs)


def compare(kept, drawn):
    """Where they differ first, or nothing."""
    if kept.tag != drawn.tag or kept.attrib.keys() != drawn.attrib.keys() or len(kept) != len(drawn):
        return f"{tree.tostring(kept)} became {tree.tostring(drawn)}"
    for name, value in kept.attrib.items():
        if not same(value, drawn.attrib[name]):
            return f"{kept.tag} {name}: {value} became {drawn.attrib[name]}"
    if (kept.text or "").strip() != (drawn.text or "").strip():
        return f"{kept.tag}: {kept.text} became {drawn.text}"
    return next(filter(None, map(compare, kept, drawn)), None)


def main():
    root, nimbrel = pathlib.Path(sys.argv[1]), sys.argv[2]
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([root / "scripts/pictures.sh", nimbrel, folder], check=True)
        kept = sorted(path.name for path in (root / "docs/pictures").iterdir())
        drawn = sorted(path.name for path in pathlib.Path(folder).iterdir())
        if kept != drawn:
            sys.exit(f"docs/pictures has {kept}, and the script draws {drawn}")
        found = [f"{name}: {difference}; scripts/pictures.sh draws it anew" for name in kept
                 if (difference := compare(tree.parse(root / "docs/pictures" / name).getroot(),
                                           tree.parse(pathlib.Path(folder) / name).getroot()))]
    if found:
        sys.exit("\n".join(found))
    print(f"{len(kept)} pictures are up to date")


main()
