# SPDX-License-Identifier: Apache-2.0
# Thin fronts for CMake presets and scripts/; each first sees to the Debian packages that it needs.
.PHONY: all run build test bench check abi docs release-check test-arm64 clean

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

# Everything that may refuse a change: format, clang-tidy, thread-safety analysis, binary interface, fuzzers, all tests,
# sanitizers, arm64.
check:
	scripts/setup.sh check
	scripts/check.sh

# Renews the dumps of the shared libraries' binary interface that check compares with.
abi:
	scripts/setup.sh check
	cmake --preset dev
	cmake --build --preset dev --target nimbrel2 nimbrel2_simulation
	python3 tests/project/check_abi.py . build/dev --update

# One HTML site of the documents, the headers and the schemas: build/docs/html/index.html.
docs:
	scripts/setup.sh docs
	scripts/site.py . build/docs

# Says what is missing before the version in src/common/Version.h can be tagged.
release-check:
	scripts/changelog.py . release-check

# Cross-builds with Debian's compiler and runs the core's tests under qemu-user.
test-arm64:
	scripts/setup.sh arm64
	cmake --preset arm64
	cmake --build --preset arm64
	ctest --preset arm64

clean:
	rm -rf build
