#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds the layout of what a shared library shows to the dump in the repository: check_abi.py ROOT DUMP LIBRARY [--update]

The list of symbols beside it says which names there are; abidw's dump says what programs are compiled against: sizes,
offsets, virtual tables, parameters. Only the types of installed headers are in it: others are the libraries' own.
A dump is good for one architecture. --update writes it anew. The library must have debug information.
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

# Types of other libraries change with their versions; the sizes and offsets around them tell of that.
SUPPRESSIONS = r"""
[suppress_type]
  name_regexp = ^(std::|__gnu_cxx::|boost::|__).*
  drop = true
[suppress_function]
  name_not_regexp = ^(Nimbrel2|HAL_)
  drop = true
"""
OPTIONS = ["--drop-private-types", "--exported-interfaces-only", "--no-architecture", "--no-comp-dir-path", "--no-corpus-path",
           "--no-elf-needed", "--no-parameter-names", "--no-show-locs", "--type-id-style", "hash"]


def dump(root, library, folder):
    """The dump of the library, as a file in the folder."""
    installed = re.search(r"set\(NIMBREL2_PUBLIC_HEADERS(.*?)\)", (root / "cmake/Install.cmake").read_text(), re.S)
    for header in installed.group(1).split():
        copy = folder / "headers" / header
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(root / "src" / header, copy)
    (folder / "suppressions").write_text(SUPPRESSIONS)
    path = folder / "dump.abi"
    subprocess.run(["abidw", *OPTIONS, "--suppressions", folder / "suppressions", "--headers-dir", folder / "headers",
                    "--out-file", path, library], check=True)
    return path


def main():
    root, expected, library = (pathlib.Path(argument) for argument in sys.argv[1:4])
    with tempfile.TemporaryDirectory() as folder:
        found = dump(root, library, pathlib.Path(folder))
        if "<class-decl" not in found.read_text():
            sys.exit(f"{library} tells nothing of its types: was it built with debug information?")
        if sys.argv[4:] == ["--update"]:
            shutil.copy(found, expected)
            return
        compared = subprocess.run(["abidiff", expected, found], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if compared.returncode:
            sys.exit(f"{library} is not as {expected.name} says:\n{compared.stdout}\n"
                     "If that is meant, `make symbols` writes the lists and dumps anew.")
    print(f"{library}: as in {expected.name}")


main()
