#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fails when the udev rule gives away other devices than cameras, or not all cameras, of the recorded computers:
check_udev_rule.py RULES RECORDING..."""
import fnmatch
import pathlib
import re
import sys

TERM = re.compile(r'([A-Z]+(?:\{\w+\})?)(==|!=|\+=|=)"([^"]*)"')
GIVEN = {"MODE": "0664", "GROUP": "plugdev", "TAG": "uaccess"}


def read_rule(path):
    lines = [line for line in path.read_text().splitlines() if line and not line.startswith("#")]
    if len(lines) != 1:
        sys.exit(f"{path} has {len(lines)} rules, not one")
    terms = [TERM.fullmatch(term.strip()) for term in lines[0].split(",")]
    if None in terms:
        sys.exit(f"{path}: not the form of a rule: {lines[0]}")
    matches = [term.groups() for term in terms if term[2] in ("==", "!=")]
    return matches, {term[1]: term[3] for term in terms if term[2] in ("=", "+=")}


def read_devices(recording):
    for block in recording.read_text().split("\n\n"):
        properties = dict(line[3:].split("=", 1) for line in block.splitlines() if line.startswith("E: "))
        if properties:
            yield block.splitlines()[0][3:], properties


def applies(matches, properties):
    def matching(key, operator, pattern):
        name = re.sub(r"^ENV\{(\w+)\}$", r"\1", key)
        return fnmatch.fnmatchcase(properties.get(name, ""), pattern) == (operator == "==")
    return all(matching(*match) for match in matches)


def main():
    matches, given = read_rule(pathlib.Path(sys.argv[1]))
    if given != GIVEN:
        sys.exit(f"{sys.argv[1]} gives {given}, not {GIVEN}")
    found = []
    cameras = 0
    for name in sys.argv[2:]:
        for path, properties in read_devices(pathlib.Path(name)):
            is_camera = (properties.get("DEVTYPE") == "usb_device" and
                         ":ef0500:" in properties.get("ID_USB_INTERFACES", ""))
            cameras += is_camera
            for action, expected in (("add", is_camera), ("change", is_camera), ("bind", is_camera), ("remove", False)):
                if applies(matches, {**properties, "ACTION": action}) != expected:
                    found.append(f"{name}: {path}: the rule {'does not apply' if expected else 'applies'} to {action}")
    if cameras == 0:
        found.append("the recordings hold no camera")
    print("\n".join(found) or f"the rule gives away {cameras} cameras and nothing else")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
