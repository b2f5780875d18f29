#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds what a shared library shows to the list in the repository: check_symbols.py NM LIST LIBRARY [--update]

The list has one line per symbol: how nm calls its kind, and its name as C++ writes it. A symbol too many is an interface
that nobody meant to promise; one too few breaks programs that use it. --update writes the list anew.
"""
import pathlib
import subprocess
import sys

# A function may be inlined away or not, a table be weak or not, as the compiler and the build type like it.
ALIKE = {"W": "T", "V": "D", "R": "D", "B": "D"}


def shown(nm, library):
    output = subprocess.run([nm, "-D", "-C", "--defined-only", library], check=True, stdout=subprocess.PIPE,
                            text=True).stdout
    symbols = set()
    for line in output.splitlines():
        _, kind, name = line.split(maxsplit=2)
        symbols.add(f"{ALIKE.get(kind, kind)} {name.replace('[abi:cxx11]', '')}")
    return symbols


def main():
    nm, path, library = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3]
    symbols = shown(nm, library)
    if sys.argv[4:] == ["--update"]:
        path.write_text("".join(f"{symbol}\n" for symbol in sorted(symbols)))
        return
    listed = set(path.read_text().splitlines())
    problems = [f"is shown and not in {path.name}: {symbol}" for symbol in sorted(symbols - listed)]
    problems += [f"is in {path.name} and not shown: {symbol}" for symbol in sorted(listed - symbols)]
    if problems or not symbols:
        sys.exit("\n".join(problems) or "the library shows nothing")
    print(f"{library}: {len(symbols)} symbols, as listed")


main()
