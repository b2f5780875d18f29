#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the binary interface of the shared libraries to the dumps in the repository: check_abi.py ROOT BUILD [--update]

Symbols, and of the types that the installed headers declare sizes, members, virtual tables and enumerators: what programs
rely on that were linked with the library before. Types of the library's own sources and of other libraries stay out. A
dump is one of gcc's debug information on one architecture; elsewhere nothing is compared. --update writes them anew.
"""
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile

LIBRARIES = ("nimbrel2", "nimbrel2_simulation")

# Their insides change with the distribution.
OTHER_LIBRARIES = r"""[suppress_type]
  name_regexp = ^(std|boost|__gnu_cxx|__cxxabiv1)(::|$)
  drop = yes
"""


def dump(library, path, work):
    suppressions = work / "suppressions.ini"
    suppressions.write_text(OTHER_LIBRARIES)
    subprocess.run(["abidw", "--headers-dir", work / "include", "--drop-private-types", "--exported-interfaces-only",
                    "--suppressions", suppressions, "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs",
                    "--no-parameter-names", "--no-elf-needed", "--out-file", path, library], check=True)
    # Where the sources lay when they were compiled says nothing of them.
    path.write_text(re.sub(r"path='[^']*/(src/[^']*)'", r"path='\1'", path.read_text()))
    # Without debug information there would be symbols and no types, and little to compare.
    if "<class-decl" not in path.read_text():
        sys.exit(f"{library}: no types; was it built without debug information?")


def copy_installed_headers(root, folder):
    headers = re.search(r"set\(NIMBREL2_PUBLIC_HEADERS(.*?)\)", (root / "cmake/Install.cmake").read_text(), re.S)
    for header in headers.group(1).split():
        (folder / header).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(root / "src" / header, folder / header)


def main():
    root, build, update = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3:] == ["--update"]
    differ = False
    with tempfile.TemporaryDirectory() as folder:
        work = pathlib.Path(folder)
        copy_installed_headers(root, work / "include")
        for name in LIBRARIES:
            kept = root / "tests/project/abi" / f"{name}.{platform.machine()}.abi"
            if not update and not kept.exists():
                print(f"{name}: there is no dump for {platform.machine()}, so nothing is compared")
                continue
            now = work / kept.name
            dump(build / f"lib/lib{name}.so", now, work)
            if update:
                kept.parent.mkdir(exist_ok=True)
                shutil.copy(now, kept)
                continue
            same = subprocess.run(["abidiff", kept, now]).returncode == 0
            print(f"{name}: {'as dumped' if same else 'differs from ' + str(kept.relative_to(root))}")
            differ = differ or not same
    if differ:
        sys.exit("Programs that were linked with the library before may notice. If that is meant, `make abi` renews the dumps.")


main()
