#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Compiles headers by themselves: check_headers.py ROOT C_COMPILER CXX_COMPILER

C++20 for all, C++17 for those that are installed, C11 as well for the HAL contract. A header
that is not installed and has a source file of its name is left to that file, which includes it first.
"""
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", "-fsyntax-only"]


def compile_alone(command, source, header):
    """What the compiler says about a file that holds nothing but this include, and includes it twice."""
    text = f'#include "{header}"\n' * 2
    result = subprocess.run([*command, *WARNINGS, f"-I{source}", "-"], input=text, text=True, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT)
    return result.stdout if result.returncode else ""


def main():
    root, c_compiler, cxx_compiler = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3]
    source = root / "src"
    cxx = [cxx_compiler, "-std=c++20", "-x", "c++"]
    installed = re.search(r"set\(NIMBREL2_PUBLIC_HEADERS(.*?)\)", (root / "cmake/Install.cmake").read_text(), re.S)
    headers = sorted(set(installed.group(1).split()) | {str(path.relative_to(source)) for path in source.rglob("*.h")
                                                        if not path.with_suffix(".cpp").exists()})
    public = [([cxx_compiler, "-std=c++17", "-x", "c++"], header) for header in sorted(installed.group(1).split())]
    jobs = [(cxx, header) for header in headers] + public + [([c_compiler, "-std=c11", "-x", "c"], "hal/HAL.h")]
    if "hal/HAL.h" not in headers or not compile_alone(cxx, source, "no/such/header.h"):
        sys.exit("this check sees nothing: is the folder right?")
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        output = "".join(pool.map(lambda job: compile_alone(job[0], source, job[1]), jobs))
    if output:
        sys.exit(output)
    print(f"{len(headers)} headers compile alone, {len(public)} of them as C++17 too")


main()
