#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints a rig of 512 cameras: as many as a listing has room for on each bus, behind repeaters and hubs as in a plant."""

import json


def fire_wire(bus, cameras):
    """Repeaters one behind the other, six cameras on each."""
    phys = [{"name": f"card{bus}", "kind": "card", "ports": 3, "eui64": f"0x08004601{bus:02x}000000", "contender": True}]
    cables = []
    end = [f"card{bus}", 0]
    for number in range(cameras):
        repeater = f"rep{bus}-{number // 6}"
        if number % 6 == 0:
            phys.append({"name": repeater, "kind": "repeater", "ports": 8})
            cables.append([end, [repeater, 0]])
            end = [repeater, 7]
        name = f"eye{bus}-{number}"
        model = "Zoom 1394" if number % 9 == 0 else "Gauge"
        phys.append({"name": name, "eui64": f"0x00118800{bus + 1:02x}00{number:04x}", "vendor": "Acme", "model": model})
        cables.append([[repeater, 1 + number % 6], [name, 0]])
    return {"name": f"fw{bus}", "phys": phys, "cables": cables}


def usb(host, cameras):
    """Four hubs, four more on each, four cameras on each of those."""
    devices = []
    for port in range(1, 5):
        devices.append({"name": f"hub{host}-{port}", "kind": "hub", "parent": f"xhci{host}", "port": port})
        for second in range(1, 5):
            parent = f"hub{host}-{port}-{second}"
            devices.append({"name": parent, "kind": "hub", "parent": f"hub{host}-{port}", "port": second})
    for number in range(cameras):
        parent = f"hub{host}-{1 + number // 16}-{1 + number // 4 % 4}"
        devices.append({"name": f"u{host}-{number}", "parent": parent, "port": 1 + number % 4,
                        "serial": str(42000000 + host * 100 + number), "vendor": "Brightline", "model": "U3 500"})
    return {"name": f"xhci{host}", "devices": devices}


def gig_e(number, cameras):
    return {"name": f"eth{number}", "address": f"192.168.{70 + number}.1/24",
            "cameras": [{"name": f"g{number}-{i}", "mac": f"02:00:00:00:{number:02x}:{i:02x}",
                         "address": f"192.168.{70 + number}.{10 + i}/24", "serial": str(43000000 + number * 1000 + i),
                         "vendor": "Cairn", "model": "G 2040"} for i in range(cameras)]}


print(json.dumps({"firewire": [fire_wire(bus, 52 if bus < 4 else 48) for bus in range(5)],
                  "usb": [usb(host, 64) for host in range(2)], "gige": [gig_e(number, 64) for number in range(2)]}))
