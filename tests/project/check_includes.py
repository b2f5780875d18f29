#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when a file includes, or a CMake target links, what its room may not: check_includes.py ROOT

A room is a folder of src/ or tools/ with a README.md; a folder without one belongs to the room above it. The rules are
read from there, and stand nowhere else: the sentence "May include: ..." names rooms, single headers, libraries and, as
"installed headers", what an application gets; "`FILE` alone may include: ..." adds something for one file. examples/ has
no README: it uses installed headers, as every application does.

The linker notices an upward call, if the target links no more than the room may use, but not an upward type. First the
rules are tried: each room refuses an include of a room above it and of one beside it.
"""
import pathlib
import re
import sys

SOURCES = {".h", ".c", ".cpp", ".in"}
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')
# What a README calls a library, and the folder that its headers lie in.
LIBRARIES = {"Boost": "boost/", "JSON": "nlohmann/", "CLI11": "CLI/", "Cairo": "cairo"}
SENTENCE = re.compile(r"^(?:`(?P<file>[\w.]+)` alone may|May) include: (?P<rule>.*?)\.(?:\s|$)", re.S | re.M)
TARGET = re.compile(r"^(?:nimbrel2_room|nimbrel2_object_library|add_library)\((?P<name>\w+)(?P<rest>[^)]*)\)", re.M)


class Rule:
    """What may be included: rooms and headers of our own, libraries, the operating system."""

    def __init__(self, text):
        self.own = set(re.findall(r"`([^`]+)`", text))
        self.words = {word.strip() for word in re.sub(r"`[^`]+`", "", text).replace("\n", " ").split(",")} - {""}
        known = set(LIBRARIES) | {"installed headers", "the C++ library", "the operating system", "nothing"}
        if self.words - known:
            raise ValueError(f"what is meant by {sorted(self.words - known)}?")


class House:
    def __init__(self, root):
        self.root = root
        text = (root / "cmake/Install.cmake").read_text()
        self.public = set(re.search(r"set\(NIMBREL2_PUBLIC_HEADERS(.*?)\)", text, re.S).group(1).split())
        # By folder, relative to the root: what all its files may include, and what one of them may besides.
        self.rooms = {}
        for readme in sorted([*(root / "src").rglob("README.md"), *(root / "tools").rglob("README.md")]):
            folder = str(readme.parent.relative_to(root))
            rules = {match["file"]: Rule(match["rule"]) for match in SENTENCE.finditer(readme.read_text())}
            if None not in rules:
                sys.exit(f"{folder}/README.md: no sentence says what may be included here")
            self.rooms[folder] = rules
        # The folder of each target that is a room, and what it links.
        self.targets = {}
        for folder in self.rooms:
            cmake = root / folder / "CMakeLists.txt"
            for match in TARGET.finditer(cmake.read_text() if cmake.is_file() else ""):
                links = match["rest"].partition("LINKS")[2].split()
                self.targets[match["name"]] = (folder, links)
        self.rooms["examples"] = {None: Rule("installed headers, the C++ library, the operating system, Boost")}

    def room_of(self, path):
        """The innermost room that the file at path (relative to the root) lies in; None for none."""
        for parent in pathlib.PurePath(path).parents:
            if str(parent) in self.rooms:
                return str(parent)
        return None

    def violation(self, path, quote, name):
        """Why the file at path (relative to the root) may not include name; None when it may."""
        path = pathlib.PurePath(path)
        room = self.room_of(path)
        if room is None:
            return "is included by a file in no room"
        rules = [rule for file, rule in self.rooms[room].items() if file in (None, path.name)]
        words = set().union(*(rule.words for rule in rules))
        if quote == "<":
            if (self.root / "src" / name.split("/")[0]).is_dir() or name.startswith("tools/"):
                return "is ours; it stands in quotes, where this check knows it"
            library = next((word for word, folder in LIBRARIES.items() if name.startswith(folder)), None)
            if library is not None:
                return None if library in words else f"is {library}, which is not for {room}"
            # A header of the C++ library has no suffix; the contract has one of C's.
            if "." not in name or (room == "src/hal" and name == "stdint.h") or "the operating system" in words:
                return None
            return f"is no part of the C++ library, and operating systems are not for {room}"
        if "./" in name or "/" not in name:
            return "is a path of its own; includes are rooted at src/"
        inside = f"src/{name}" if (self.root / "src" / name.split("/")[0]).is_dir() else name
        target = self.room_of(inside)
        own = set().union(*(rule.own for rule in rules))
        allowed = (target == room or name in own or (target or "").removeprefix("src/") in own or
                   (name in self.public and "installed headers" in words))
        if not allowed:
            return f"is not for {room}, whose README names what is"
        if str(path).removeprefix("src/") in self.public and name not in self.public:
            return "is not installed, but the file that includes it is"
        return None

    def wrong_link(self, folder, link):
        """Why the target of that room may not link that; None when it may."""
        rules = self.rooms[folder].values()
        words = set().union(*(rule.words for rule in rules))
        if link in self.targets:
            room = self.targets[link][0].removeprefix("src/")
            if room in set().union(*(rule.own for rule in rules)) or (room == "hal" and "installed headers" in words):
                return None
        elif link == "Threads::Threads":  # of the C++ library
            return None
        else:
            library = next((word for word in LIBRARIES if word.lower() in link.lower()), "the operating system")
            if library in words or (library == "Boost" and "installed headers" in words):
                return None
        return f"is not for {folder}, whose README names what is"

    def check_links(self):
        """All targets that link too much, one line each."""
        reasons = [(folder, link, self.wrong_link(folder, link))
                   for folder, links in self.targets.values() for link in links]
        return [f"{folder}/CMakeLists.txt: {link} {reason}" for folder, link, reason in reasons if reason]

    def check(self, files):
        """All violations in the files, one line each."""
        found = []
        for path in files:
            for number, line in enumerate((self.root / path).read_text().splitlines(), 1):
                match = INCLUDE.match(line)
                reason = match and self.violation(path, match.group(1), match.group(2))
                if reason:
                    found.append(f"{path}:{number}: {match.group(2)} {reason}")
        return found


def try_the_rules(house):
    """Each room refuses the first of its headers, which lies above or beside it, and accepts the second."""
    cases = [
        ("src/hal/HAL.h", '"common/Error.h"', "<stdint.h>"),
        ("src/hal/HAL.h", "<string.h>", '"hal/HAL.h"'),
        ("src/common/Error.cpp", '"busmaster/BusMaster.h"', '"hal/HAL.h"'),
        ("src/common/Error.cpp", '"topology/TopologyNode.h"', "<boost/bind.hpp>"),
        ("src/common/Trace.cpp", "<pthread.h>", "<atomic>"),
        ("src/common/Posix.cpp", '"topology/TopologyNode.h"', "<pthread.h>"),
        ("src/topology/TopologyNode.h", '"busmaster/BusMaster.h"', '"common/Error.h"'),
        ("src/topology/TopologyNode.h", '"platform/Platform.h"', '"hal/HAL.h"'),
        ("src/busmaster/worker.cpp", '"platform/Platform.h"', '"busmaster/BusMasterMembers.h"'),
        ("src/busmaster/worker.cpp", "<sys/socket.h>", "<boost/thread/thread.hpp>"),
        ("src/busmaster/BusMaster.h", '"busmaster/BusMasterMembers.h"', '"common/Error.h"'),
        ("src/platform/Drivers.h", '"platform/hal/Calls.h"', '"hal/HAL.h"'),
        ("src/platform/Drivers.h", '"platform/base/Poller.h"', '"platform/Diagnostics.h"'),
        ("src/platform/base/Poller.cpp", '"platform/linux/gige/UdpSocket.h"', '"platform/base/Clock.h"'),
        ("src/platform/base/SelfIds.cpp", '"platform/linux/firewire/ConfigRom.h"', '"platform/FireWireDiagnostics.h"'),
        ("src/platform/base/Poller.cpp", '"platform/Drivers.h"', '"platform/Diagnostics.h"'),
        ("src/platform/base/Poller.cpp", '"platform/gvcp/GvcpCodec.h"', "<sys/epoll.h>"),
        ("src/platform/gvcp/GvcpDecode.cpp", '"platform/hal/Calls.h"', '"platform/gvcp/GvcpCodec.h"'),
        ("src/platform/gvcp/GvcpDecode.cpp", '"platform/base/Texts.h"', '"hal/HAL.h"'),
        ("src/platform/linux/firewire/ConfigRom.h", '"platform/hal/Calls.h"', '"platform/Drivers.h"'),
        ("src/platform/linux/firewire/ConfigRom.h", '"platform/rig/ConfigRom.h"', '"platform/base/SelfIds.h"'),
        ("src/platform/linux/firewire/ConfigRom.h", '"platform/linux/gige/UdpSocket.h"', "<linux/firewire-cdev.h>"),
        ("src/platform/linux/gige/UdpSocket.h", '"platform/hal/Calls.h"', '"platform/Drivers.h"'),
        ("src/platform/linux/gige/UdpSocket.h", '"platform/simulated/CameraSocket.h"', '"platform/gvcp/GvcpCodec.h"'),
        ("src/platform/linux/usb/Place.h", '"platform/linux/gige/UdpPort.h"', '"platform/base/Sysfs.h"'),
        ("src/platform/linux/usb/Place.h", '"platform/hal/Calls.h"', '"platform/Drivers.h"'),
        ("src/platform/linux/usb/Place.h", '"platform/gvcp/GvcpCodec.h"', "<libusb.h>"),
        ("src/platform/simulated/CameraSocket.h", '"platform/rig/Rig.h"', '"platform/base/FileDescriptor.h"'),
        ("src/platform/simulated/CameraSocket.h", '"platform/linux/gige/UdpSocket.h"', "<sys/socket.h>"),
        ("src/platform/rig/Rig.h", '"platform/hal/Process.h"', '"platform/simulated/BootstrapRegisters.h"'),
        ("src/platform/rig/Rig.h", '"platform/linux/gige/UdpSocket.h"', "<nlohmann/json.hpp>"),
        ("src/platform/rig/Rig.h", "<sys/socket.h>", '"platform/Drivers.h"'),
        ("src/platform/hal/Session.cpp", '"platform/linux/gige/LinuxGigEBus.h"', '"platform/Drivers.h"'),
        ("src/platform/hal/DriverFactory.cpp", '"platform/rig/Rig.h"', '"platform/linux/gige/LinuxGigEBus.h"'),
        ("src/platform/hal/Calls.h", '"busmaster/BusMaster.h"', '"platform/base/StartThread.h"'),
        ("src/platform/linux/gige/GigECore.h", "<platform/hal/Calls.h>", "<poll.h>"),
        ("tools/nimbrel/main.cpp", "<platform/hal/Calls.h>", "<CLI/CLI.hpp>"),
        ("tools/nimbrel/main.cpp", '"busmaster/BusMasterMembers.h"', '"busmaster/BusMaster.h"'),
        ("tools/nimbrel/main.cpp", '"platform/hal/Process.h"', '"tools/nimbrel/Program.h"'),
        ("tools/nimbrel/doctor/GigEChecks.cpp", '"platform/linux/gige/CameraKey.h"', '"tools/nimbrel/Text.h"'),
        ("examples/list_cameras.cpp", '"platform/simulated/CameraSocket.h"', '"busmaster/BusMaster.h"'),
        ("examples/list_cameras.cpp", '"tools/nimbrel/Text.h"', "<cstdio>"),
    ]
    tried = set()
    refused = {}
    for path, *names in cases:
        tried.add(house.room_of(path))
        for name, allowed in zip(names, (False, True)):
            reason = house.violation(path, name[0], name[1:-1])
            if (reason is None) != allowed:
                sys.exit(f"the rules are wrong about {name} in {path}: {reason or 'it is accepted'}")
        if names[0].startswith('"'):
            refused.setdefault(house.room_of(path), set()).add(house.room_of(f"src/{names[0][1:-1]}"))
    if set(house.rooms) - tried:
        sys.exit(f"nobody has tried to break the rules of {sorted(set(house.rooms) - tried)}")
    for room in house.rooms:
        if room.startswith("src/platform") and len(refused[room]) < 2:
            sys.exit(f"{room} has been tried with {refused[room]} only: one room is above it, another beside it")
    for folder, link, allowed in [("src/platform/gvcp", "nimbrel2_platform_hal", False),
                                  ("src/platform/gvcp", "nimbrel2_base", False),
                                  ("src/platform/gvcp", "nimbrel2_hal", True),
                                  ("src/platform/linux/gige", "nimbrel2_simulated", False),
                                  ("src/platform/linux/gige", "nlohmann_json::nlohmann_json", False),
                                  ("src/platform/rig", "nlohmann_json::nlohmann_json", True),
                                  ("src/topology", "Boost::headers", True),
                                  ("src/platform/base", "Boost::headers", False),
                                  ("src/topology", "PkgConfig::LIBUSB", False)]:
        if (house.wrong_link(folder, link) is None) != allowed:
            sys.exit(f"the rules are wrong about linking {link} to {folder}")


def main():
    house = House(pathlib.Path(sys.argv[1]))
    try_the_rules(house)
    files = [path.relative_to(house.root) for top in ("src", "tools", "examples")
             for path in sorted((house.root / top).rglob("*")) if path.suffix in SOURCES]
    found = house.check(files) + house.check_links()
    found += [f"{folder} is no CMake target" for folder in sorted(house.rooms)
              if folder.startswith("src/") and folder not in {room for room, _ in house.targets.values()}]
    found += [f"cmake/Install.cmake: src/{name} does not exist" for name in sorted(house.public)
              if not (house.root / "src" / name).is_file()]
    if found or len(files) < len(house.public):
        sys.exit("\n".join(found) or "too few files were found: is the root right?")
    print(f"{len(files)} files in {len(house.rooms)} rooms include what they may")


main()
