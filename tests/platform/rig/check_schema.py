#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The published schema is one, and takes the built-in rig, the examples and the rig in the documentation."""
import json
import re
import subprocess
import sys

import jsonschema


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
    for bad in ({"nom": 1}, {"timeline": [{"plugg": "x"}]}, {"firewire": [{}]}):
        if validator(schema).is_valid(bad):
            print(f"the schema takes {bad}")
            failures += 1
    print(f"{len(rigs)} rigs, {failures} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2], sys.argv[3:]))
