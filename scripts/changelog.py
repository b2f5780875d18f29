#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""CHANGELOG.md for Debian and for releases: scripts/changelog.py ROOT debian|release-check

debian         prints debian/changelog. A version that is not released yet sorts before itself: 0.2.0~20261124.101500,
               by the time of the last commit, or of SOURCE_DATE_EPOCH.
release-check  says what is missing before the version can be tagged. Exit status 0: nothing.
"""
import datetime
import email.utils
import os
import pathlib
import re
import subprocess
import sys
import textwrap

PACKAGE, MAINTAINER = "nimbrel2", "Nimbrel2 maintainers <maintainers@nimbrel2.example>"
TITLE = re.compile(r"## (\d+\.\d+\.\d+), (not yet released|\d{4}-\d\d-\d\d)")


def git(root, *arguments):
    return subprocess.run(["git", "-C", root, *arguments], check=True, stdout=subprocess.PIPE, text=True).stdout.strip()


def read_version(root):
    """It stands in this header and nowhere else."""
    header = (root / "src/common/Version.h").read_text()
    return ".".join(re.search(rf"#define NIMBREL2_VERSION_{part} (\d+)", header)[1] for part in ("MAJOR", "MINOR", "PATCH"))


def read_entries(root):
    """(version, date or None, items), newest first."""
    entries = []
    for line in (root / "CHANGELOG.md").read_text().splitlines():
        if line.startswith("## "):
            title = TITLE.fullmatch(line)
            if not title:
                raise SystemExit(f'CHANGELOG.md: "{line}" is not "## VERSION, YYYY-MM-DD" or "## VERSION, not yet released"')
            date = None if title[2].startswith("not") else datetime.date.fromisoformat(title[2])
            entries.append((title[1], date, []))
        elif line.startswith("- ") and entries:
            entries[-1][2].append(line[2:])
        elif line.startswith("  ") and entries and entries[-1][2]:
            entries[-1][2][-1] += " " + line.strip()
    if not entries:
        raise SystemExit("CHANGELOG.md has no version")
    return entries


def time_of_source(root):
    seconds = os.environ.get("SOURCE_DATE_EPOCH") or git(root, "log", "-1", "--format=%ct")
    return datetime.datetime.fromtimestamp(int(seconds), datetime.timezone.utc)


def print_debian(root):
    for version, date, items in read_entries(root):
        time = (datetime.datetime.combine(date, datetime.time(12), datetime.timezone.utc) if date else time_of_source(root))
        full = version if date else f"{version}~{time:%Y%m%d.%H%M%S}"
        print(f"{PACKAGE} ({full}) {'unstable' if date else 'UNRELEASED'}; urgency=medium\n")
        for item in items:
            print(textwrap.fill(item.replace("`", ""), 78, initial_indent="  * ", subsequent_indent="    ",
                                break_long_words=False, break_on_hyphens=False))
        print(f"\n -- {MAINTAINER}  {email.utils.format_datetime(time)}\n")


def numbers(version):
    return tuple(int(part) for part in version.split("."))


def missing_for_release(root):
    version = read_version(root)
    soname = version.rsplit(".", 1)[0]
    entries = read_entries(root)
    newest, date, items = entries[0]
    if newest != version:
        yield f"CHANGELOG.md begins with {newest}; src/common/Version.h has {version}"
    elif date is None:
        yield f'CHANGELOG.md: {version} is "not yet released"; write the date'
    elif date > datetime.date.today():
        yield f"CHANGELOG.md: {date} is not yet"
    if not items:
        yield f"CHANGELOG.md says nothing of {newest}"
    if git(root, "status", "--porcelain"):
        yield "there are changes that are not committed"
    tags = [tag for tag in git(root, "tag", "--list", "v*").splitlines() if re.fullmatch(r"v\d+\.\d+\.\d+", tag)]
    if f"v{version}" in tags:
        yield f"v{version} is tagged already; raise the version in src/common/Version.h"
    elif tags and max(numbers(tag[1:]) for tag in tags) > numbers(version):
        yield f"{max(tags, key=lambda tag: numbers(tag[1:]))} is tagged, which is newer than {version}"
    for name in ("nimbrel2", "nimbrel2_simulation"):
        dumps = list((root / "tests/project/abi").glob(f"{name}.*.abi"))
        if not dumps:
            yield f"there is no dump of the binary interface of {name}; `make abi` writes it"
        for dump in dumps:
            if f"soname='lib{name}.so.{soname}'" not in dump.read_text():
                yield f"{dump.relative_to(root)} is of another version than {soname}; `make abi` renews it"


def check_release(root):
    missing = list(missing_for_release(root))
    version = read_version(root)
    if missing:
        sys.exit("\n".join([f"{version} cannot be released yet:", *(f"  {line}" for line in missing)]))
    print(f"{version} can be released once `make check` passes: git tag -a v{version} -m 'Nimbrel2 {version}'")


def main():
    commands = {"debian": print_debian, "release-check": check_release}
    if len(sys.argv) != 3 or sys.argv[2] not in commands:
        sys.exit(__doc__)
    commands[sys.argv[2]](pathlib.Path(sys.argv[1]))


main()
