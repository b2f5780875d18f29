#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Which files scripts/tidy.py takes for changed, with every kind of history: check_tidy_choice.py ROOT"""
import pathlib
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(sys.argv[1]) / "scripts"))
sys.dont_write_bytecode = True
import tidy  # noqa: E402


def git(root, *arguments):
    names = ["-c", "user.name=Test", "-c", "user.email=test@localhost", "-c", "init.defaultBranch=main"]
    subprocess.run(["git", "-C", str(root), *names, *arguments], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.PIPE)


def commit(root, *paths):
    for path in paths:
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        with open(root / path, "a") as file:
            file.write("// changed\n")
    git(root, "add", "-A")
    git(root, "commit", "-q", "-m", "change " + " ".join(paths))


def expect(what, found, wanted):
    if found != wanted:
        sys.exit(f"{what}: {found}, not {wanted}")


def main():
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder) / "project"
        root.mkdir()
        expect("no repository", tidy.changed_paths(root), [])
        git(root, "init", "-q")
        expect("no commit", tidy.changed_paths(root), [])
        commit(root, "src/a.cpp", "src/b.cpp")
        expect("the first commit", tidy.changed_paths(root), [])
        commit(root, "src/a.cpp")
        commit(root, "src/c.h")
        expect("on the main branch", tidy.changed_paths(root), ["src/c.h", "src/a.cpp"])
        git(root, "checkout", "-q", "-b", "topic")
        commit(root, "src/d.cpp")
        expect("on another branch", tidy.changed_paths(root), ["src/d.cpp"])
        (root / "src/b.cpp").write_text("// not committed\n")
        (root / "src/e.cpp").write_text("// not added\n")
        expect("beside it, not committed", tidy.changed_paths(root), ["src/b.cpp", "src/e.cpp", "src/d.cpp"])
        git(root, "checkout", "-q", "--detach", "HEAD~1", "--force")
        (root / "src/e.cpp").unlink()
        expect("a detached part of the main branch", tidy.changed_paths(root), ["src/c.h", "src/a.cpp"])
        git(root, "rm", "-q", "src/a.cpp")
        expect("a file that is gone", tidy.changed_paths(root), ["src/c.h"])
        shallow = pathlib.Path(folder) / "shallow"
        git(folder, "clone", "-q", "--depth", "1", root.as_uri(), str(shallow))
        expect("a shallow clone", tidy.changed_paths(shallow), [])

        compiled = {"src/a.cpp", "src/b.cpp", "src/user.cpp"}
        (root / "src/user.cpp").write_text('#include "c.h"\n')
        (root / "src/a.cpp").write_text("")
        expect("sources", tidy.sources_of(root, ["src/c.h", "src/b.h", "README.md", "src/b.cpp"], compiled),
               ["src/user.cpp", "src/b.cpp"])
    print("the changed files are chosen as they should be")


main()
