#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds what the program prints with --json to the published schemas: check_schemas.py NIMBREL NIMBREL_ON_RIG SCHEMAS.

Runs each command that prints JSON, on rigs that have everything, and validates the output. Members that no schema knows
are a fault, and so are members of a schema that no command has printed.
"""

import copy
import json
import pathlib
import subprocess
import sys
import tempfile

import jsonschema

NIMBREL, ON_RIG, SCHEMAS = sys.argv[1], sys.argv[2], pathlib.Path(sys.argv[3])

RIG = {
    "firewire": [{"name": "fw0", "phys": [
        {"name": "card", "kind": "card", "eui64": "0x0800460102030405", "ports": 2},
        {"name": "eye", "eui64": "0x0011880000000011", "vendor": "Acme", "model": "Eye"},
        {"name": "disk", "kind": "device", "eui64": "0x0030E00102AABB01", "vendor": "Lakeside", "model": "Archive"}],
        "cables": [[["card", 0], ["eye", 0]], [["card", 1], ["disk", 0]]]}],
    "usb": [{"name": "xhci0", "devices": [
        {"name": "a", "kind": "hub", "parent": "xhci0", "port": 1},
        {"name": "a1", "kind": "hub", "parent": "a", "port": 1}, {"name": "a2", "kind": "hub", "parent": "a", "port": 2},
        {"name": "b1", "kind": "hub", "parent": "a1", "port": 3}, {"name": "b2", "kind": "hub", "parent": "a2", "port": 3},
        {"name": "x", "parent": "b1", "port": 1, "serial": "21", "vendor": "V", "model": "X"},
        {"name": "c1", "kind": "hub", "parent": "b1", "port": 2}, {"name": "d1", "kind": "hub", "parent": "c1", "port": 1},
        {"name": "deep", "parent": "d1", "port": 1, "serial": "22", "vendor": "V", "model": "Deep"},
        {"name": "slow", "parent": "xhci0", "port": 2, "speed": 480, "serial": "23", "vendor": "V", "model": "Slow"}]}],
    "gige": [{"name": "eth0", "address": "192.168.77.1/24", "cameras": [
        {"name": "g", "mac": "02:00:00:00:77:0a", "address": "192.168.77.10/24", "serial": "33", "userName": "gate"},
        {"name": "h", "mac": "02:00:00:00:77:0b", "address": "10.9.9.9/24", "serial": "34"}]}],
    "timeline": [],
}
TAKEN = {"take": {"camera": "g", "address": "192.168.77.200", "port": 50000}}

# The schema, the arguments, what has happened to the rig before, and whether each line is a document.
CASES = [
    ("list", ["list"], [], False),
    ("topology", ["topology"], [], False),
    ("discover", ["discover"], [], False),
    ("force-ip", ["force-ip", "--mac", "02:00:00:00:77:0b", "--ip", "192.168.77.20"], [], False),
    ("auto-ip", ["auto-ip", "--dry-run"], [], False),
    ("auto-ip", ["auto-ip"], [], False),
    ("control", ["control", "33"], [], False),
    ("control", ["control", "33"], [TAKEN], False),
    ("reset", ["reset", "17"], [], False),
    ("phy", ["phy", "read", "17", "0", "0", "1"], [], False),
    ("phy", ["phy", "write", "17", "0", "0", "1", "1"], [], False),
    ("usb-link", ["usb-link", "21"], [], False),
    ("usb-port", ["usb-port", "21"], [], False),
    ("usb-port", ["usb-port", "23"], [], False),
    ("rescan", ["rescan"], [], False),
    ("doctor", ["doctor"], [], False),
    ("help", ["help"], [], False),
]
TIMELINE = [{"unplug": "g"}, {"plug": "g"}, {"busReset": "fw0"}]


def closed(schema):
    """The schema with no member but those that it names."""
    schema = copy.deepcopy(schema)
    pending = [schema]
    while pending:
        part = pending.pop()
        if isinstance(part, dict):
            if "properties" in part:
                part["additionalProperties"] = False
            pending.extend(part.values())
        elif isinstance(part, list):
            pending.extend(part)
    return schema


def members_of(schema, path=""):
    for name, part in schema.get("properties", {}).items():
        yield f"{path}/{name}"
        yield from members_of(part, f"{path}/{name}")
    if "items" in schema:
        yield from members_of(schema["items"], path)
    for name, part in schema.get("$defs", {}).items():
        yield from members_of(part, f"#{name}")


def printed_members(schema, root, value, path=""):
    if "$ref" in schema:
        name = schema["$ref"].rsplit("/", 1)[1]
        schema, path = root["$defs"][name], f"#{name}"
    if isinstance(value, list) and "items" in schema:
        for item in value:
            yield from printed_members(schema["items"], root, item, path)
    if isinstance(value, dict):
        for name, part in schema.get("properties", {}).items():
            if name in value:
                yield f"{path}/{name}"
                yield from printed_members(part, root, value[name], f"{path}/{name}")


def main():
    schemas = {path.name.removesuffix(".schema.json"): json.loads(path.read_text()) for path in SCHEMAS.glob("*.json")}
    printed = {name: set() for name in schemas}
    faults = []

    def check(name, command, lines):
        result = subprocess.run(command, capture_output=True, text=True, check=False)
        documents = [json.loads(line) for line in result.stdout.splitlines()] if lines else [json.loads(result.stdout)]
        if not documents:
            faults.append(f"{' '.join(command)} printed nothing: {result.stderr}")
        for document in documents:
            for error in jsonschema.Draft202012Validator(closed(schemas[name])).iter_errors(document):
                faults.append(f"{' '.join(command)}: /{'/'.join(map(str, error.path))}: {error.message}")
            printed[name].update(printed_members(schemas[name], schemas[name], document))

    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "rig.json"
        for name, arguments, timeline, lines in CASES:
            file.write_text(json.dumps({**RIG, "timeline": timeline}))
            check(name, [ON_RIG, str(file), *arguments, "--json"], lines)
        file.write_text(json.dumps({**RIG, "timeline": TIMELINE}))
        check("watch", [NIMBREL, "rig", "play", "--fast", "--json", str(file)], True)
        check("simulate", [NIMBREL, "simulate", "gige", "--json", "--duration", "0.05"], True)
        file.write_text(json.dumps({"gige": [{"name": "eth0", "address": "10.0.0.1/8", "cameras": [
            {"name": f"g{i}", "mac": f"02:00:00:00:01:{i:02x}", "address": f"10.0.0.{i + 9}/8", "serial": str(i + 1)}
            for i in range(130)]}]}))
        check("topology", [NIMBREL, "topology", "--rig", str(file), "--json"], False)

    for name, schema in schemas.items():
        jsonschema.Draft202012Validator.check_schema(schema)
        # The top of the topology is a node as well; the computer is no camera.
        top = name == "topology"
        for member in sorted(set(members_of(schema)) - printed[name]):
            if not (top and f"#node{member}" in printed[name]):
                faults.append(f"{name}: no output had the member {member}")
    print("\n".join(faults))
    return 1 if faults else 0


sys.exit(main())
