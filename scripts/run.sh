#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Shows the program: scripts/run.sh NIMBREL. First on the built-in simulated computer: its cameras, then an arrival, a
# removal and a bus reset. Then on this computer: lists and watches for a few seconds. When nothing is attached, simulated
# cameras on loopback stand in: one to be listed, another that comes and goes while we watch. Ends by itself.
set -euo pipefail
nimbrel=${1:?the nimbrel program}

show() {
    printf '\n$ nimbrel %s\n' "$*"
    "$nimbrel" "$@"
}

echo "A simulated computer with cameras on all three buses:"
show list --demo
show topology --demo
show rig play

echo
echo "And this computer:"
show list
if "$nimbrel" list --json | tr -d '[:space:]' | grep -q '"cameras":\[{'; then
    show watch --duration 10
    exit
fi

simulated=()
# Each ends by itself too, should this script be killed.
simulate() {
    printf '\n$ nimbrel simulate gige %s &\n' "$*"
    "$nimbrel" simulate gige "$@" &
    simulated+=($!)
}
trap 'kill "${simulated[@]}" 2>/dev/null || true' EXIT

echo
echo "Nothing is attached. So here is a simulated camera, on loopback, through the same network code:"
simulate --address 127.0.0.2 --serial 1001 --duration 60
show list --interface lo --wait 1001 --timeout 20

(
    sleep 3
    simulate --address 127.0.0.3 --serial 1002 --duration 4
    wait
) &
simulated+=($!)
show watch --interface lo --duration 12
