#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Shows that clang's thread-safety analysis sees our mutexes: check_thread_safety.py ROOT CLANGXX

The example in platform/base/Mutex.h compiles, and with one fault brought into it it does not."""
import pathlib
import re
import subprocess
import sys

COMMAND = ["-std=c++20", "-Wall", "-Wextra", "-Wthread-safety", "-Werror", "-fsyntax-only", "-x", "c++", "-"]
PROGRAM = """#include "platform/base/Mutex.h"
using namespace Nimbrel2::Platform;
using Clock = std::chrono::steady_clock;
{example}
int main() {{
    Counter counter;
    counter.Add();
    return counter.WaitFor(1, Clock::now()) ? 0 : 1;
}}
"""
# What is taken out of the example, what stands there instead, and the words of the refusal.
FAULTS = [
    ("const LockGuard lock(m_mutex);", "", "writing variable 'm_count' requires holding mutex 'm_mutex'"),
    ("const LockGuard lock(m_mutex);", "m_mutex.lock();", "mutex 'm_mutex' is still held at the end of function"),
    ("[&]() NIMBREL2_REQUIRES(m_mutex)", "[&]()", "reading variable 'm_count' requires holding mutex 'm_mutex'"),
    ("UniqueLock lock(m_mutex);", "UniqueLock lock(m_mutex); lock.unlock(); if (m_count == 0) return false; lock.lock();",
     "reading variable 'm_count' requires holding mutex 'm_mutex'"),
    ("const LockGuard lock(m_mutex);", "Changed(); const LockGuard lock(m_mutex);",
     "calling function 'Changed' requires holding mutex 'm_mutex'"),
    ("++m_count;", "Add();", "cannot call function 'Add' while mutex 'm_mutex' is held"),
    ("++m_count;", "{ const UnlockGuard unlock(m_mutex); ++m_count; }",
     "writing variable 'm_count' requires holding mutex 'm_mutex'"),
]


def compile_program(compiler, source, example):
    result = subprocess.run([compiler, f"-I{source}", *COMMAND], input=PROGRAM.format(example=example), text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return result.returncode, result.stdout


def main():
    source, compiler = pathlib.Path(sys.argv[1]) / "src", sys.argv[2]
    header = (source / "platform/base/Mutex.h").read_text()
    lines = re.search(r"^/// @code\n(.*?)^/// @endcode", header, re.S | re.M).group(1).splitlines()
    example = "\n".join(line.removeprefix("///") for line in lines)
    status, output = compile_program(compiler, source, example)
    if status != 0:
        sys.exit(f"the example in Mutex.h does not compile:\n{output}")
    for correct, fault, refusal in FAULTS:
        if correct not in example:
            sys.exit(f"the example in Mutex.h has no {correct}")
        status, output = compile_program(compiler, source, example.replace(correct, fault, 1))
        if status == 0 or refusal not in output or "-Wthread-safety" not in output:
            sys.exit(f"with {fault or 'nothing'} in the place of {correct}, not refused as it should be:\n{output}")
    print(f"the example compiles and {len(FAULTS)} faults are refused")


main()
