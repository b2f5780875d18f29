#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when a file includes what its folder may not: check_includes.py ROOT

The linker would notice an upward call, but not an upward type. First the rules are tried on lines that break them.
"""
import pathlib
import re
import sys

# Folder of src/ -> the folders of src/ that it may include.
LAYERS = {
    "hal": set(),
    "common": {"common", "hal"},
    "topology": {"topology", "common", "hal"},
    "busmaster": {"busmaster", "topology", "common", "hal"},
    "platform": {"platform", "hal"},
}
PORTABLE = {"hal", "common", "topology", "busmaster"}
# What the portable folders take from elsewhere than C++ and Boost.
SYSTEM = {("hal/HAL.h", "stdint.h"), ("common/Posix.h", "signal.h"), ("common/Posix.cpp", "pthread.h")}
# How cameras and computers are simulated is known to the command line and no part of the library's interface.
SIMULATION = ("platform/simulated/", "platform/rig/")
SOURCES = {".h", ".c", ".cpp"}
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')


def public_headers(root):
    text = (root / "cmake/Install.cmake").read_text()
    return set(re.search(r"set\(NIMBREL2_PUBLIC_HEADERS(.*?)\)", text, re.S).group(1).split())


def violation(path, quote, name, public):
    """Why the file at path (relative to the root) may not include name; None when it may."""
    top = path.parts[0]
    layer = path.parts[1] if top == "src" else None
    if quote == "<":
        # A system header in the portable folders is the C++ library's (no suffix) or Boost's.
        file = "/".join(path.parts[1:])
        if layer in PORTABLE and "." in name and not name.startswith("boost/") and (file, name) not in SYSTEM:
            return "is no part of C++ or Boost; operating systems are known to src/platform alone"
        return None
    if "./" in name:
        return "is a path; includes are rooted at src/"
    folder = name.split("/")[0]
    if top == "src":
        if "/" not in name or folder not in LAYERS[layer]:
            return f"is not for src/{layer}, which may include {sorted(LAYERS[layer]) or 'nothing'}"
        relative = str(path.relative_to("src"))
        if relative in public and name not in public:
            return "is not installed, but the file that includes it is"
    elif folder in LAYERS and name not in public and not (top == "tools" and name.startswith(SIMULATION)):
        return f"is no public header, and {top}/ uses what every application can"
    return None


def check(root, files, public):
    """All violations in the files, one line each."""
    found = []
    for path in files:
        for number, line in enumerate((root / path).read_text().splitlines(), 1):
            match = INCLUDE.match(line)
            reason = match and violation(path, match.group(1), match.group(2), public)
            if reason:
                found.append(f'{path}:{number}: {match.group(2)} {reason}')
    return found


def try_the_rules():
    """The rules refuse each of the first lines and accept each of the others."""
    public = {"common/Error.h", "busmaster/BusMaster.h"}
    cases = [
        ("src/hal/HAL.h", '"', "common/Error.h", False),
        ("src/common/Error.cpp", '"', "busmaster/BusMaster.h", False),
        ("src/common/Error.cpp", '"', "Error.h", False),
        ("src/common/Error.cpp", '"', "../hal/HAL.h", False),
        ("src/topology/TopologyNode.h", '"', "platform/Platform.h", False),
        ("src/platform/Platform.cpp", '"', "common/Error.h", False),
        ("src/busmaster/worker.cpp", "<", "sys/socket.h", False),
        ("src/busmaster/worker.cpp", "<", "pthread.h", False),
        ("src/common/Posix.cpp", "<", "unistd.h", False),
        ("src/busmaster/BusMaster.h", '"', "busmaster/BusMasterMembers.h", False),
        ("tools/nimbrel/main.cpp", '"', "busmaster/BusMasterMembers.h", False),
        ("examples/list_cameras.cpp", '"', "platform/simulated/gige/SimulatedCamera.h", False),
        ("src/hal/HAL.h", "<", "stdint.h", True),
        ("src/common/Posix.cpp", "<", "pthread.h", True),
        ("src/busmaster/worker.cpp", '"', "busmaster/BusMasterMembers.h", True),
        ("src/busmaster/worker.cpp", "<", "boost/thread/thread.hpp", True),
        ("src/platform/linux/Udp.cpp", "<", "sys/socket.h", True),
        ("tools/nimbrel/main.cpp", '"', "busmaster/BusMaster.h", True),
        ("tools/nimbrel/main.cpp", '"', "platform/simulated/gige/SimulatedCamera.h", True),
    ]
    for path, quote, name, allowed in cases:
        reason = violation(pathlib.PurePath(path), quote, name, public)
        if (reason is None) != allowed:
            sys.exit(f"the rules are wrong about {name} in {path}: {reason}")


def main():
    root = pathlib.Path(sys.argv[1])
    try_the_rules()
    files = [path.relative_to(root) for top in ("src", "tools", "examples") for path in sorted((root / top).rglob("*"))
             if path.suffix in SOURCES]
    public = public_headers(root)
    found = check(root, files, public)
    found += [f"cmake/Install.cmake: src/{name} does not exist" for name in sorted(public)
              if not (root / "src" / name).is_file()]
    if found or len(files) < len(public):
        sys.exit("\n".join(found) or "too few files were found: is the root right?")
    print(f"{len(files)} files include what they may")


main()
