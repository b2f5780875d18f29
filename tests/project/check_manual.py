#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Reads the manual pages as their users do: check_manual.py ROOT NIMBREL PAGES

Each page must be without warnings of man and have a line for apropos. The pages of the commands have every option and
argument that the program has, nimbrel-rig(5) every section of its document, nimbrel2(3) every operation of the bus master.
"""
import json
import os
import pathlib
import re
import subprocess
import sys

ROOT, NIMBREL, PAGES = pathlib.Path(sys.argv[1]), sys.argv[2], pathlib.Path(sys.argv[3])
ENVIRONMENT = {**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "80", "MANROFFOPT": "", "GROFF_NO_SGR": "1"}


def man(*arguments):
    return subprocess.run(["man", *arguments], env=ENVIRONMENT, capture_output=True, text=True)


def text_of(page):
    """As it is read, without overstriking."""
    return re.sub(r".\x08", "", man("-l", page).stdout)


def check_form(page):
    warnings = man("--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page).stderr
    found = [f"{page.name}: {line}" for line in warnings.splitlines()]
    name = subprocess.run(["lexgrog", page], capture_output=True, text=True)
    if name.returncode != 0 or f'"{page.stem} - ' not in name.stdout:
        found.append(f"{page.name}: apropos would not find it: {name.stdout}")
    return found


def check_command(words, command, text):
    found = []
    for option in command["options"]:
        for name in option["names"]:
            if not re.search(rf"^ +(?:-\w, )?{name}\b", text, re.M):
                found.append(f"{' '.join(words)}: {name} is not in the page")
    for argument in command["arguments"]:
        if not re.search(rf"^ +{argument['name']}\b", text, re.M):
            found.append(f"{' '.join(words)}: {argument['name']} is not in the page")
    for below in command["commands"]:
        found += check_command([*words, below["name"]], below, text)
    return found


def main():
    program = json.loads(subprocess.run([NIMBREL, "help", "--json"], check=True, stdout=subprocess.PIPE).stdout)
    pages = {page.name: page for page in PAGES.glob("man*/*")}
    expected = {"nimbrel.1", "nimbrel-rig.5", "nimbrel2.3"} | {f"nimbrel-{one['name']}.1" for one in program["commands"]}
    found = [f"{name} is missing, or nothing asks for it" for name in sorted(expected ^ set(pages))]
    for page in pages.values():
        found += check_form(page)
    overview = text_of(pages["nimbrel.1"])
    found += check_command(["nimbrel"], {**program, "commands": []}, overview)
    explained = dict(re.findall(r"^## (.*?)\n+([^\n|`<]*)", (ROOT / "docs/nimbrel.md").read_text(), re.M))
    for command in program["commands"]:
        text = text_of(pages[f"nimbrel-{command['name']}.1"])
        found += check_command(["nimbrel", command["name"]], command, text)
        if f"nimbrel-{command['name']}(1)" not in overview:
            found.append(f"nimbrel.1 does not name {command['name']}")
        first = " ".join(explained.get(command["name"], "").split())
        if first and first not in " ".join(text.split()).replace("‐ ", "").replace("’", "'"):
            found.append(f"nimbrel-{command['name']}.1 has not what docs/nimbrel.md says: {first}")
    rig = text_of(pages["nimbrel-rig.5"])
    rigs = re.sub(r"^```.*?^```$", "", (ROOT / "docs/rigs.md").read_text(), flags=re.S | re.M)
    for title in re.findall(r"^##+ (.*)$", rigs, re.M):
        plain = " ".join(title.replace("`", "").split())
        if plain.lower() not in " ".join(rig.lower().split()):
            found.append(f"nimbrel-rig.5 has no section {plain}")
    library = text_of(pages["nimbrel2.3"])
    header = (ROOT / "src/busmaster/BusMaster.h").read_text().split("class NIMBREL2_API BusMaster")[1].split("\nprivate:")[0]
    operations = set(re.findall(r"^    (?:Error|bool|unsigned int|void) (\w+)\(", header, re.M))
    if len(operations) < 20:
        found.append(f"the header has {len(operations)} operations; it is read in a wrong way")
    found += [f"nimbrel2.3 has no {name}" for name in sorted(operations) if f" {name}(" not in library]
    if found:
        sys.exit("\n".join(found))
    print(f"{len(pages)} pages are in order")


main()
