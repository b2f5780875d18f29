#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that a job needs: scripts/setup.sh run|test|bench|docs|ci|check|arm64
# Looks first, and when everything is there it is done in a few milliseconds: no root, no network.
set -euo pipefail

build=(g++ cmake ninja-build pkg-config make git libboost-thread-dev libboost-date-time-dev libboost-dev
       libcli11-dev nlohmann-json3-dev libcairo2-dev libusb-1.0-0-dev
       python3 lowdown) # the manual pages
# The independent camera is in aravis-tools, the tool that lists it in aravis-tools-cli.
# clang shows that its thread-safety analysis sees our mutexes.
# Fonts and readers that others wrote judge the pictures. Completion runs in the shells, pages in
# man, and the site is made.
tests=(ccache clang libbenchmark-dev libgtest-dev libgmock-dev aravis-tools aravis-tools-cli tshark iproute2 nftables
       iptables ufw firewalld dbus jq procps python3-jsonschema libgraphviz-dev librsvg2-bin python3-cairo fonts-dejavu-core
       fonts-liberation umockdev libumockdev-dev bash-completion zsh fish man-db doxygen)
bench=(libbenchmark-dev aravis-tools-cli umockdev libumockdev-dev)
# clang's sanitizers. The runtime has clang's version in its name: 14 is Debian 12's.
ci=(clang clang-tidy libclang-rt-14-dev)
check=(abigail-tools clang-format shellcheck)
arm64=()
if [ "$(uname -m)" != aarch64 ]; then
    arm64=(g++-aarch64-linux-gnu qemu-user libboost-thread-dev:arm64 libboost-date-time-dev:arm64
           libboost-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64 libusb-1.0-0-dev:arm64)
fi

case "${1:-}" in
    run) wanted=("${build[@]}") ;;
    test) wanted=("${build[@]}" "${tests[@]}") ;;
    bench) wanted=("${build[@]}" "${bench[@]}") ;;
    docs) wanted=(git make python3 doxygen) ;;
    ci) wanted=("${build[@]}" "${tests[@]}" "${bench[@]}" "${ci[@]}") ;;
    check) wanted=("${build[@]}" "${tests[@]}" "${bench[@]}" "${ci[@]}" "${check[@]}") ;;
    arm64) wanted=("${build[@]}" "${tests[@]}" ${arm64[@]+"${arm64[@]}"}) ;;
    *)
        echo "usage: $0 run|test|bench|docs|ci|check|arm64" >&2
        exit 2
        ;;
esac

if ! command -v dpkg-query >/dev/null; then
    # Not Debian: whoever works here installs by hand, and CMake says what it does not find.
    echo "setup: this is no Debian system; these packages' equivalents are needed: ${wanted[*]}" >&2
    exit 0
fi

native=$(dpkg --print-architecture)
missing=()
installed=" $(dpkg-query -W -f='${db:Status-Status}/${Package}:${Architecture} ' "${wanted[@]%%:*}" 2>/dev/null || true)"
for package in "${wanted[@]}"; do
    case "$package" in
        *:*) [[ $installed == *" installed/$package "* ]] || missing+=("$package") ;;
        *) [[ $installed == *" installed/$package:$native "* || $installed == *" installed/$package:all "* ]] ||
            missing+=("$package") ;;
    esac
done
[ ${#missing[@]} -eq 0 ] && exit 0

# noninteractive, or tshark would ask who may capture.
root=(env DEBIAN_FRONTEND=noninteractive)
if [ "$(id -u)" -ne 0 ]; then
    askable=(-n)
    [ -t 0 ] && askable=()
    if ! command -v sudo >/dev/null || ! sudo ${askable[@]+"${askable[@]}"} true; then
        {
            echo "setup: these Debian packages are missing and only root may install them:"
            echo "    ${missing[*]}"
            echo "Run this again as root or as a user of sudo, or ask an administrator for:"
            [[ "${missing[*]}" == *:arm64* ]] && echo "    dpkg --add-architecture arm64 && apt-get update"
            echo "    apt-get install --no-install-recommends ${missing[*]}"
        } >&2
        exit 1
    fi
    root=(sudo ${askable[@]+"${askable[@]}"} "${root[@]}")
fi

install=(apt-get install --yes --quiet --no-install-recommends -o DPkg::Lock::Timeout=600)
echo "setup: installing ${missing[*]}"
# A test starts it in a network of its own. Nothing may start it on this computer, where it would be a firewall.
if [[ " ${missing[*]} " == *" firewalld "* ]] && command -v systemctl >/dev/null; then
    echo "setup: masking firewalld.service, which is for tests only"
    "${root[@]}" systemctl mask --quiet firewalld.service
fi
fresh=
if [[ "${missing[*]}" == *:arm64* ]] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
    echo "setup: adding the arm64 architecture to this system's package manager"
    "${root[@]}" dpkg --add-architecture arm64
    "${root[@]}" apt-get update --quiet
    fresh=yes
fi
# A new machine has no package lists, an old one may have lists that name versions long gone: then, and only then, update.
if [ -z "$fresh" ] && ! { "${install[@]}" --simulate "${missing[@]}" >/dev/null 2>&1 &&
    "${root[@]}" "${install[@]}" "${missing[@]}"; }; then
    "${root[@]}" apt-get update --quiet
    fresh=yes
fi
[ -z "$fresh" ] || "${root[@]}" "${install[@]}" "${missing[@]}"
