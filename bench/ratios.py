#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs a benchmark program and prints what each operation costs beside the bare cost of what it cannot do without.

ratios.py PROGRAM [options of Google Benchmark]. Both sides come from one run, in random turns, as medians of their
repetitions. A missed goal is printed, not a failure: a busy machine misses goals.
"""

import json
import os
import subprocess
import sys
import tempfile

# (what, operation, what it is held against, greatest ratio or None)
PAIRS = [
    ("listing three buses of 100 ms / the slowest alone", "ListThreeSlowBuses", "ListOneSlowBus", 1.05),
    ("one cycle of 512 cameras / threads, allocations, merge", "Cycle512Cameras", "BareCycle512Cameras", 2.0),
    ("reset to arrival callback / wake-up and threads", "ResetToArrivalCallback", "BareWakeToCallback", 2.0),
    ("unregistering beside 50 queued callbacks / one of them", "UnregisterBesideQueuedCallbacks", "OneSlowCallback",
     1.2),
    ("serial number of the last of 512 / lock and loop", "LookUpLastOf512BySerialNumber",
     "BareLastOf512BySerialNumber", 2.0),
    ("guid of the last of 512 / lock and loop", "LookUpLastOf512ByGuid", "BareLastOf512ByGuid", 2.0),
    ("a bus of 63 PHYs / one pass that only moves nodes", "ParseBusOf63Phys", "BareBusOf63Phys", 3.0),
    ("a USB host of 127 devices / one pass that only moves nodes", "BuildHostOf127Devices",
     "BareHostOf127Devices", 3.0),
    ("listing 1 known GigE camera / the tool's discovery", "Reenumerate1", "DiscoverWithIndependentTool1", 0.05),
    ("listing 4 known GigE cameras / the tool's discovery", "Reenumerate4", "DiscoverWithIndependentTool4", 0.05),
    ("listing 16 known GigE cameras / the tool's discovery", "Reenumerate16", "DiscoverWithIndependentTool16", 0.05),
    ("listing 128 known GigE cameras / the tool's discovery", "Reenumerate128", "DiscoverWithIndependentTool128", 0.05),
    ("the first discovery of 1 / the tool's", "DiscoverFirst1", "DiscoverWithIndependentTool1", 1.0),
    ("the first discovery of 16 / the tool's", "DiscoverFirst16", "DiscoverWithIndependentTool16", 1.0),
    ("the first discovery of 1 that answers without end / of 1", "DiscoverFirstUnderSteadyAnswers", "DiscoverFirst1",
     1.1),
    ("a GigE register / a bare socket", "ReadRegister", "ReadRegisterOnBareSocket", 1.3),
    ("listing a USB tree of 127 / libusb's list and the texts", "ListUsbTreeOf127", "ListUsbTreeOf127WithLibusb", 1.0),
    ("the first listing of it, starting included / libusb's", "ListUsbTreeOf127First", "ListUsbTreeOf127FirstWithLibusb",
     None),
    ("a USB plug to the arrival callback / quiet and one scan", "UsbPlugToArrivalCallback", "BareUsbPlugToScan", 1.5),
    ("listing an IEEE 1394 bus of 63 / a bare scan of sysfs", "ListFireWireBusOf63", "BareScanOfFireWireBusOf63", 1.5),
    ("an IEEE 1394 register / an ioctl, a poll and a read", "ReadFireWireRegister", "BareFireWireRegister", 1.3),
    ("an IEEE 1394 bus reset to the callback / 10 ms of quiet", "FireWireResetToCallback", "BareFireWireResetToQuiet",
     1.5),
    ("starting on a rig of 512 cameras / the HAL alone", "StartRigOf512Cameras", "BareStartOf512Cameras", None),
]
# (what, operation, most microseconds or None)
TIMES = [
    ("starting on a rig of 512 cameras", "StartRigOf512Cameras", 1e6),
    ("the tree of a rig of 512 cameras", "GetTopologyOfRigOf512Cameras", None),
]
# (what, operation, counter, greatest or None, the operation whose counter that is a multiple of, or None)
TRIALS = [
    ("a million register reads: 99.9th percentile, us", "MillionReads", "p999_us", 3, "MillionReadsOnBareSockets"),
    ("the longest of them, us", "MillionReads", "longest_us", None, "MillionReadsOnBareSockets"),
    ("requests that were repeated", "MillionReads", "repeats", 0, None),
    ("reads that failed", "MillionReads", "failures", 0, None),
    ("64 cameras, 8 without registers: `list`, ms", "MuteAmong64", "list_ms", 1800, None),
    ("the first listing that finds them so, ms", "MuteAmong64", "rescan_first_ms", 700, None),
    ("the longest of 100 after that, ms", "MuteAmong64", "rescan_later_ms", 50, None),
    ("24 of 128 cameras die and return a second: longest cycle, ms", "Churn", "longest_cycle_ms", 100, None),
    ("until a removal is told, 95th percentile, ms", "Churn", "removal_p95_ms", 1500, None),
    ("until an arrival is told, 95th percentile, ms", "Churn", "arrival_p95_ms", 1500, None),
    ("changes that nobody was told of", "Churn", "untold", 0, None),
    ("128 idle cameras: packets per second and camera", "Idle", "packets_per_camera_s", 4, None),
    ("percent of a core", "Idle", "core_percent", 1, None),
]
STORM = "LookUpInResetStorm"
TO_MICROSECONDS = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}


def run(program, options):
    descriptor, path = tempfile.mkstemp(suffix=".json")
    os.close(descriptor)
    try:
        subprocess.run([program, "--benchmark_repetitions=7", "--benchmark_enable_random_interleaving=true",
                        "--benchmark_min_time=0.2", "--benchmark_display_aggregates_only=true",
                        "--benchmark_out_format=json", f"--benchmark_out={path}", *options], check=True)
        with open(path, encoding="utf-8") as file:
            return json.load(file)["benchmarks"]
    finally:
        os.unlink(path)


def medians(benchmarks):
    found = {}
    for entry in benchmarks:
        if entry.get("aggregate_name") == "median":
            found[entry["run_name"].split("/")[0]] = entry["real_time"] * TO_MICROSECONDS[entry["time_unit"]]
    return found


def against(goal, value):
    return "" if goal is None else f"{goal:>8g}" + ("" if value <= goal else "  MISSED")


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    benchmarks = run(sys.argv[1], sys.argv[2:])
    failed = sorted({entry["run_name"] for entry in benchmarks if entry.get("error_occurred")})
    if failed:
        sys.exit("failed: " + ", ".join(failed))
    median = medians(benchmarks)

    pairs = [pair for pair in PAIRS if pair[1] in median and pair[2] in median]
    if pairs:
        print(f"\n{'operation / bare cost':<62}{'us':>12}{'us':>12}{'ratio':>8}{'goal':>8}")
    for what, operation, bare, goal in pairs:
        ratio = median[operation] / median[bare]
        print(f"{what:<62}{median[operation]:>12.2f}{median[bare]:>12.2f}{ratio:>8.2f}{against(goal, ratio)}")
    for what, operation, most in TIMES:
        if operation in median:
            print(f"{what:<62}{median[operation]:>12.2f}{'':>20}{against(most, median[operation])}")
    counters = {entry["run_name"].split("/")[0]: entry for entry in benchmarks if entry.get("run_type") == "iteration"}
    for what, operation, counter, goal, bare in TRIALS:
        value = counters.get(operation, {}).get(counter)
        if value is None:
            continue
        beside = counters.get(bare, {}).get(counter)
        if beside is None:
            print(f"{what:<62}{value:>12.2f}{'':>20}{against(goal, value)}")
        else:
            print(f"{what:<62}{value:>12.2f}{beside:>12.2f}{value / beside:>8.2f}{against(goal, value / beside)}")
    worst = [entry["worst_us"] for entry in benchmarks
             if entry["run_name"].split("/")[0] == STORM and entry.get("run_type") == "iteration"]
    if worst:
        print(f"{'a look-up in a reset storm: median, and the worst of all':<62}{median[STORM]:>12.2f}{max(worst):>12.2f}")


if __name__ == "__main__":
    main()
