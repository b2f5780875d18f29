# SPDX-License-Identifier: Apache-2.0
# Thin fronts for CMake presets and scripts/; each first sees to the Debian packages that it needs.
.PHONY: all run build test bench symbols check test-arm64 clean

all: build

# Builds, then shows the built-in simulated computer and what is attached to this one; when nothing is, simulated cameras
# on loopback.
run: build
	scripts/run.sh build/release/bin/nimbrel

# Leaves the command line at build/release/bin/nimbrel.
build:
	scripts/setup.sh run
	cmake --preset release
	cmake --build --preset release

test:
	scripts/setup.sh test
	cmake --preset dev
	cmake --build --preset dev
	ctest --preset dev

bench:
	scripts/setup.sh bench
	cmake --preset bench
	cmake --build --preset bench
	for program in build/bench/bin/bench_*; do bench/ratios.py $$program || exit; done

# Writes anew what the shared libraries show: their symbols, and for this architecture the layout of their types.
symbols:
	scripts/setup.sh test
	cmake --preset dev
	cmake --build --preset dev --target nimbrel2 nimbrel2_simulation
	for name in nimbrel2 nimbrel2_simulation; do \
	    tests/project/check_symbols.py nm tests/project/symbols/$$name.txt build/dev/lib/lib$$name.so --update && \
	    tests/project/check_abi.py . tests/project/symbols/$$name-$$(uname -m).abi build/dev/lib/lib$$name.so --update || \
	    exit; done

# Everything that may refuse a change: format, clang-tidy, thread-safety analysis, fuzzers, all tests, sanitizers, arm64.
check:
	scripts/setup.sh check
	scripts/check.sh

# Cross-builds with Debian's compiler and runs the core's tests under qemu-user.
test-arm64:
	scripts/setup.sh arm64
	cmake --preset arm64
	cmake --build --preset arm64
	ctest --preset arm64

clean:
	rm -rf build
