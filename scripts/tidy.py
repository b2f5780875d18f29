#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs clang-tidy over every source file, or over what changed last: scripts/tidy.py all|changed

Reads the compile commands of the preset dev, which must be configured; nothing needs to be built.

"changed" makes do with whatever history a checkout has. Files that are not committed come first, then those of the commits
that the main branch lacks or, where HEAD is part of it or no such branch is known, of the last COMMITS; the latest first, and
at most FILES of them. A header counts as the source file of its name, or as the first one that includes it. A commit without
a parent (the very first, or the end of a shallow clone) changes everything and tells nothing: it does not count. When no
other is left, nothing is checked. Tests are spared the static analyzer then, which takes four fifths of the time over macros that
it has seen before; "all" spares nobody.
"""
import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys

COMMITS, FILES = 20, 40
BRANCHES = ("origin/HEAD", "origin/main", "main")
TREE = "build/dev"


def git(root, *arguments):
    """The lines that git prints; none when it fails."""
    result = subprocess.run(["git", "-C", str(root), *arguments], text=True, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL)
    return result.stdout.splitlines() if result.returncode == 0 else []


def changed_paths(root):
    """Paths that changed, the latest first, each once."""
    head = git(root, "rev-parse", "HEAD")
    main = next((branch for branch in BRANCHES if git(root, "rev-parse", "--verify", "--quiet", branch)), None)
    base = git(root, "merge-base", main, "HEAD") if main else []
    span = [f"{base[0]}..HEAD"] if base and base != head else [f"--max-count={COMMITS}", "HEAD"]
    paths = git(root, "diff", "--name-only", "HEAD") + git(root, "ls-files", "--others", "--exclude-standard")
    paths += git(root, "log", "--format=", "--name-only", "--no-renames", "--no-merges", "--min-parents=1", *span)
    return list(dict.fromkeys(path for path in paths if (root / path).is_file()))


def sources_of(root, paths, compiled):
    """The source files, of those compiled, by which the paths are checked; each once, in the order of the paths."""
    found = {}
    for path in paths:
        source = path
        if path.endswith(".h"):
            source = re.sub(r"\.h$", ".cpp", path)
            if source not in compiled:
                include = f'#include "{path.removeprefix("src/")}"'
                source = next((file for file in sorted(compiled) if include in (root / file).read_text()), None)
        if source in compiled:
            found[source] = True
    return list(found)


def compiled_files(root):
    commands = json.loads((root / TREE / "compile_commands.json").read_text())
    paths = (pathlib.Path(command["file"]) for command in commands)
    inside = {str(path.relative_to(root)) for path in paths if path.is_relative_to(root)}
    return {path for path in inside if not path.startswith("build/")}


def tidy(root, source, spared):
    checks = ["-checks=-clang-analyzer-*"] if spared and source.startswith("tests/") else []
    result = subprocess.run(["clang-tidy", "-quiet", *checks, "-p", TREE, source], cwd=root, text=True, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE)
    return result.returncode, result.stdout or result.stderr


def main():
    root = pathlib.Path(__file__).resolve().parents[1]
    if sys.argv[1:] not in (["all"], ["changed"]):
        sys.exit(__doc__)
    if not (root / TREE / "compile_commands.json").exists():
        sys.exit(f"{TREE} is not configured; run: cmake --preset dev")
    compiled = compiled_files(root)
    if sys.argv[1] == "all":
        chosen = sorted(compiled)
    else:
        changed = sources_of(root, changed_paths(root), compiled)
        chosen = changed[:FILES]
        if len(changed) > len(chosen):
            print(f"{len(changed) - len(chosen)} more changed files are left to make check")
    failed = []
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for source, (status, output) in zip(chosen, pool.map(lambda source: tidy(root, source, sys.argv[1] == "changed"), chosen)):
            if status != 0:
                failed.append(source)
                print(output, flush=True)
    print(f"clang-tidy: {len(chosen)} of {len(compiled)} files checked, {len(failed)} with faults")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
