#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when docs/nimbrel.md and the program differ on commands, options, columns, or the checks of doctor:
check_options.py NIMBREL ROOT"""
import pathlib
import re
import subprocess
import sys

NIMBREL, ROOT = sys.argv[1], pathlib.Path(sys.argv[2])
OPTION = re.compile(r"(?<![-\w])--[a-z][a-z-]*")


def help_of(*words):
    return subprocess.run([NIMBREL, "help", *words], check=True, capture_output=True, text=True).stdout


def listed(text, title):
    """The names in a section of a help text."""
    section = re.search(rf"^{title}:\n((?:  .*\n|\n)*)", text, re.M)
    return [line.split()[0] for line in section[1].splitlines() if re.match(r"  \w", line)] if section else []


def options_of(text):
    """Those that a help text explains, rather than those in its examples."""
    return {name for line in text.splitlines() if re.match(r"  +-", line) for name in OPTION.findall(line)}


def main():
    page = (ROOT / "docs/nimbrel.md").read_text()
    sections = {title: body for title, body in re.findall(r"^## (.*?)\n(.*?)(?=^## |\Z)", page, re.S | re.M)}
    common, faults, known = sections["For every command"], [], {"--help"}
    commands = listed(help_of(), "Subcommands")
    assert commands, "the help lists no command"
    table = re.findall(r"`nimbrel ([a-z-]+)`", page.split("## ")[0])
    if set(commands) != set(table):
        faults.append(f"the commands are {sorted(commands)}; the table has {sorted(table)}")
    for command in commands:
        text = help_of(command)
        below = listed(text, "Subcommands")
        for help_text in [text] + [help_of(command, word) for word in below]:
            known |= options_of(help_text)
            if command == "help":
                continue
            for name in sorted(options_of(help_text) - {"--help"}):
                if f"`{name}" not in sections[command] and f"`{name}" not in common:
                    faults.append(f"{command}: {name} is not in its section")
    known |= options_of(help_of())
    prose = re.sub(r"```.*?```", "", page, flags=re.S)
    for name in sorted(set(re.findall(r"`(--[a-z-]+)", prose)) - known):
        faults.append(f"{name} is no option of any command")
    columns = re.search(r"Print these columns: (.*?)\.", " ".join(help_of("list").split()))[1].split(", ")
    shown = re.findall(r"`(\w+)`", re.search(r"^\| `--columns.*$", page, re.M)[0].split("|", 2)[2])
    if columns != shown:
        faults.append(f"the columns of list are {columns}; its section has {shown}")
    sources = "".join(path.read_text() for path in (ROOT / "tools/nimbrel/doctor").glob("*.cpp"))
    checks = set(re.findall(r'"((?:gige|cameras|usb|1394)\.[a-z-]+)"', sources)) | {"1394.driver", "usb.driver"}
    shown = set(re.findall(r"`((?:gige|cameras|usb|1394)\.[a-z-]+)`", sections["doctor"]))
    if checks != shown:
        faults.append(f"doctor checks {sorted(checks - shown)} without telling, and tells of {sorted(shown - checks)}")
    if faults:
        sys.exit("\n".join(faults))
    print(f"{len(known)} options are in order")


main()
