#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Releases a small tree of its own and looks what scripts/changelog.py says at each step: check_changelog.py ROOT"""
import os
import pathlib
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(sys.argv[1])
ENVIRONMENT = {**os.environ, "GIT_AUTHOR_NAME": "A", "GIT_AUTHOR_EMAIL": "a@b", "GIT_COMMITTER_NAME": "A",
               "GIT_COMMITTER_EMAIL": "a@b", "GIT_COMMITTER_DATE": "2026-01-02T03:04:05Z", "GIT_CONFIG_GLOBAL": "/dev/null"}
ENVIRONMENT.pop("SOURCE_DATE_EPOCH", None)
CHANGES = "# Changes\n\n## 0.2.0, {}\n\n- One thing of `list`\n  that goes on.\n\n## 0.1.0, 2026-01-01\n\n- First.\n"
FOUND = []


def expect(condition, what):
    if not condition:
        FOUND.append(what)


class Tree:
    def __init__(self, folder):
        self.folder = folder
        self.git("init", "-q")
        self.write("src/common/Version.h", (ROOT / "src/common/Version.h").read_text())
        self.set_version(0, 2, 0)
        for name in ("nimbrel2", "nimbrel2_simulation"):
            self.write(f"tests/project/abi/{name}.x86_64.abi", f"<abi-corpus soname='lib{name}.so.0.2'>\n")

    def git(self, *arguments):
        subprocess.run(["git", "-C", self.folder, *arguments], check=True, env=ENVIRONMENT, stdout=subprocess.DEVNULL)

    def write(self, name, text):
        path = self.folder / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def set_version(self, *parts):
        text = (self.folder / "src/common/Version.h").read_text().splitlines()
        for name, part in zip(("MAJOR", "MINOR", "PATCH"), parts):
            text = [f"#define NIMBREL2_VERSION_{name} {part}" if line.startswith(f"#define NIMBREL2_VERSION_{name} ") else line
                    for line in text]
        self.write("src/common/Version.h", "\n".join(text) + "\n")

    def commit(self):
        self.git("add", "-A")
        self.git("commit", "-q", "-m", "x")

    def run(self, command):
        return subprocess.run([ROOT / "scripts/changelog.py", self.folder, command], env=ENVIRONMENT, capture_output=True,
                              text=True)

    def refused(self, why):
        result = self.run("release-check")
        expect(result.returncode == 1 and why in result.stderr, f"not refused for {why!r}: {result.stdout}{result.stderr}")
        expect(len(result.stderr.splitlines()) == 2, f"more than {why!r}: {result.stderr}")


def main():
    with tempfile.TemporaryDirectory() as folder:
        tree = Tree(pathlib.Path(folder))
        tree.write("CHANGELOG.md", CHANGES.format("not yet released"))
        tree.commit()
        tree.refused('0.2.0 is "not yet released"; write the date')
        debian = tree.run("debian").stdout
        expect(debian.startswith("nimbrel2 (0.2.0~20260102.030405) UNRELEASED; urgency=medium\n\n"
                                 "  * One thing of list that goes on.\n\n -- "), debian)
        older = subprocess.run(["dpkg", "--compare-versions", "0.2.0~20260102.030405", "lt", "0.2.0"])
        expect(older.returncode == 0, "an unreleased version is not older than the release")
        expect("nimbrel2 (0.1.0) unstable; urgency=medium\n\n  * First.\n" in debian, debian)
        expect("Thu, 01 Jan 2026 12:00:00 +0000" in debian, debian)

        tree.write("CHANGELOG.md", CHANGES.format("2999-01-01"))
        tree.commit()
        tree.refused("2999-01-01 is not yet")
        tree.write("CHANGELOG.md", CHANGES.format("2026-01-02"))
        tree.refused("not committed")
        tree.commit()
        done = tree.run("release-check")
        expect(done.returncode == 0 and "git tag -a v0.2.0" in done.stdout, done.stdout + done.stderr)
        expect(tree.run("debian").stdout.startswith("nimbrel2 (0.2.0) unstable"), "a release is not marked as one")

        tree.write("CHANGELOG.md", CHANGES.format("2026-01-02").replace("- One thing of `list`\n  that goes on.\n", ""))
        tree.commit()
        tree.refused("says nothing of 0.2.0")
        tree.write("CHANGELOG.md", CHANGES.format("2026-01-02"))
        tree.commit()
        tree.git("tag", "v0.3.0")
        tree.refused("v0.3.0 is tagged, which is newer")
        tree.git("tag", "-d", "v0.3.0")
        tree.git("tag", "v0.2.0")
        tree.refused("v0.2.0 is tagged already")
        tree.git("tag", "-d", "v0.2.0")
        tree.write("tests/project/abi/nimbrel2.x86_64.abi", "<abi-corpus soname='libnimbrel2.so.0.1'>\n")
        tree.commit()
        tree.refused("is of another version than 0.2")
        (pathlib.Path(folder) / "tests/project/abi/nimbrel2.x86_64.abi").unlink()
        tree.commit()
        tree.refused("no dump of the binary interface of nimbrel2;")
        tree.write("tests/project/abi/nimbrel2.x86_64.abi", "<abi-corpus soname='libnimbrel2.so.0.2'>\n")
        tree.set_version(0, 2, 1)
        tree.commit()
        tree.refused("CHANGELOG.md begins with 0.2.0; src/common/Version.h has 0.2.1")
        tree.write("CHANGELOG.md", "## 0.2\n")
        expect("is not \"## VERSION, YYYY-MM-DD\"" in tree.run("debian").stderr, "a strange title passes")
    if FOUND:
        sys.exit("\n".join(FOUND))
    print("a release goes as it should")


main()
