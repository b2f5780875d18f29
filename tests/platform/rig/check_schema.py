#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The published schema is one. It takes the built-in rig, the examples and the rig in the documentation, and it and the
program agree on what is a rig and what is none."""
import copy
import json
import re
import subprocess
import sys

import jsonschema

GOOD = {
    "firewire": [
        {
            "name": "fw0",
            "phys": [
                {"name": "card", "kind": "card", "ports": 2, "eui64": "0x1"},
                {"name": "hub", "kind": "repeater", "ports": 3},
                {"name": "cam", "eui64": 17, "unitVersion": "0x100", "speed": "S100", "powerClass": 7, "contender": True},
            ],
            "gapCount": 10.0,
            "cables": [[["card", 0], ["hub", 0]], [["hub", 2], ["cam", 0]]],
        },
        {"name": "fw1", "selfIds": ["0x807f8942", 2172616832], "placedCameras": [{"phyId": 1, "name": "eye", "eui64": "12", "kind": "device"}]},
    ],
    "usb": [
        {"name": "x", "usb2Ports": 0, "devices": [{"name": "u", "parent": "x", "port": 1, "vendorId": "0x1234", "speed": 10000}]},
        {"name": "y", "records": [{"deviceId": 1, "rootPortId": "0x201", "routeString": 0, "speed": 480, "parentId": 63}], "placedCameras": [{"deviceId": 1, "name": "v", "serial": "7"}]},
    ],
    "gige": [
        {
            "name": "e",
            "address": "10.0.0.1/8",
            "up": False,
            "cameras": [
                {"name": "g", "mac": "02:00:00:00:00:0A", "address": "010.0.0.2/24", "serial": "8", "owner": {"address": "10.0.0.3", "port": 5}, "answers": {"silent": True}},
                {"name": "h", "mac": "02:00:00:00:00:0B", "address": "0.0.0.0/0"},
            ],
        }
    ],
    "virtualCameras": [9],
    "timeline": [
        {"at": 0.5, "unplug": "cam"},
        {"after": {"event": "removal", "serial": 7}, "busReset": "fw0"},
        {"fault": {"function": "HAL_UsbGetCameras"}},
    ],
    "end": {"cameras": [8, 7]},
}

# What is put where in the good rig, which makes it none.
BAD = [
    ("/nom", 1),
    ("/name", 5),
    ("/firewire/0/nom", 1),
    ("/firewire/0/name", ""),
    ("/firewire/0/gapCount", 64),
    ("/firewire/0/gapCount", 10.5),
    ("/firewire/0/selfIds", ["0x807f8942"]),
    ("/firewire/0/placedCameras", []),
    ("/firewire/0/phys", []),
    ("/firewire/0/phys/0/kind", "camera"),
    ("/firewire/0/phys/2/kind", "card"),
    ("/firewire/0/phys/2/nom", 1),
    ("/firewire/0/phys/2/ports", 28),
    ("/firewire/0/phys/2/speed", "S300"),
    ("/firewire/0/phys/2/powerClass", 8),
    ("/firewire/0/phys/2/contender", 1),
    ("/firewire/0/phys/2/eui64", "0x00"),
    ("/firewire/0/phys/2/eui64", 0),
    ("/firewire/0/phys/2/eui64", "11223344556677889"),
    ("/firewire/0/phys/2", {"name": "cam"}),
    ("/firewire/0/phys/2/unitVersion", "103"),
    ("/firewire/0/phys/2/unitVersion", 99),
    ("/firewire/0/cables/0/0", ["card"]),
    ("/firewire/0/cables/0/0", ["card", 27]),
    ("/firewire/0/cables/0", [["card", 0]]),
    ("/firewire/1/selfIds", []),
    ("/firewire/1/selfIds/0", "xyz"),
    ("/firewire/1/cables", []),
    ("/firewire/1/placedCameras/0/nom", 1),
    ("/firewire/1/placedCameras/0/phyId", 63),
    ("/firewire/1/placedCameras/0/kind", "card"),
    ("/firewire/1/placedCameras/0", {"phyId": 1, "name": "eye"}),
    ("/usb/0/usb3Ports", 0),
    ("/usb/0/usb3Ports", 16),
    ("/usb/0/placedCameras", []),
    ("/usb/0/devices/0/nom", 1),
    ("/usb/0/devices/0/port", 0),
    ("/usb/0/devices/0/speed", 100),
    ("/usb/0/devices/0/vendorId", "12345"),
    ("/usb/0/devices/0", {"name": "u", "port": 1}),
    ("/usb/1/devices", []),
    ("/usb/1/records", []),
    ("/usb/1/records/0/deviceId", 63),
    ("/usb/1/records/0/nom", 1),
    ("/usb/1/placedCameras/0/nom", 1),
    ("/usb/1/placedCameras/0/parent", "y"),
    ("/usb/1/placedCameras/0/speed", 13),
    ("/gige/0/address", "10.0.0.256/8"),
    ("/gige/0/address", "10.0.0.1/33"),
    ("/gige/0/address", "10.0.0.1"),
    ("/gige/0/cameras/0/address", "10.0.0.0002/24"),
    ("/gige/0/cameras/0/mac", "00:00:00:00:00:00"),
    ("/gige/0/cameras/0/mac", "02-00-00-00-00-0A"),
    ("/gige/0/cameras/0/mac", "03:00:00:00:00:0A"),
    ("/gige/0/cameras/0/mac", "ff:ff:ff:ff:ff:ff"),
    ("/gige/0/cameras/0/owner/address", "0.0.0.0"),
    ("/gige/0/address", "0.0.0.0/8"),
    ("/gige/0/cameras/0/serial", "12345678901234567"),
    ("/gige/0/cameras/0/owner/port", 0),
    ("/gige/0/cameras/0/owner/nom", 1),
    ("/gige/0/cameras/0/answers/lossPercent", -0.5),
    ("/virtualCameras/0", -1),
    ("/virtualCameras", [1] * 257),
    ("/timeline/0/at", -1),
    ("/timeline/0/at", 86401),
    ("/timeline/0/after", {"event": "reset"}),
    ("/timeline/0/plug", "cam"),
    ("/timeline/0/plugg", "cam"),
    ("/timeline/0", {"at": 1}),
    ("/timeline/1/after/event", "error"),
    ("/timeline/1/after/event", "reset"),
    ("/timeline/2/fault/function", "HAL_Nothing"),
    ("/timeline/2/fault/call", 0),
    ("/end/cameras/0", "8"),
    ("/end/nom", 1),
    ("/end", {}),
]


def with_value(rig, pointer, value):
    rig = copy.deepcopy(rig)
    *path, last = pointer.split("/")[1:]
    at = rig
    for step in path:
        at = at[int(step) if isinstance(at, list) else step]
    at[int(last) if isinstance(at, list) else last] = value
    return rig


def is_rig(nimbrel, rig):
    check = subprocess.run([nimbrel, "rig", "check", "/dev/stdin"], input=json.dumps(rig), text=True, capture_output=True)
    return check.returncode == 0


def main(nimbrel, document, examples):
    schema = json.loads(subprocess.check_output([nimbrel, "rig", "schema"]))
    validator = jsonschema.Draft202012Validator
    validator.check_schema(schema)
    rigs = {"built-in": json.loads(subprocess.check_output([nimbrel, "rig", "demo"]))}
    for path in examples:
        with open(path, encoding="utf-8") as file:
            rigs[path] = json.load(file)
    with open(document, encoding="utf-8") as file:
        blocks = re.findall(r"```json\n(.*?)```", file.read(), re.S)
    assert blocks, "the documentation has no rig"
    for number, block in enumerate(blocks):
        rigs[f"{document} block {number}"] = json.loads(block)
    failures = 0
    for name, rig in rigs.items():
        for error in validator(schema).iter_errors(rig):
            print(f"{name}: {error.json_path}: {error.message}")
            failures += 1
    if not validator(schema).is_valid(GOOD) or not is_rig(nimbrel, GOOD):
        print("the good rig is none")
        failures += 1
    for pointer, value in BAD:
        bad = with_value(GOOD, pointer, value)
        for who, takes in (("schema", validator(schema).is_valid(bad)), ("program", is_rig(nimbrel, bad))):
            if takes:
                print(f"the {who} takes {value} at {pointer}")
                failures += 1
    print(f"{len(rigs)} rigs, {failures} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2], sys.argv[3:]))
