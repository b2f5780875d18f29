#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Everything that may refuse a change, the quick things first. Ends at the first that fails.
set -euo pipefail
cd "$(dirname "$0")/.."

step() { printf '\n== %s\n' "$*"; }

step "format"
git ls-files -z '*.h' '*.c' '*.cpp' | xargs -0 -r clang-format --dry-run --Werror

step "scripts"
git ls-files -z '*.sh' .ci/run | xargs -0 -r shellcheck

step "clang's warnings and thread-safety analysis"
cmake --preset analyze
cmake --build --preset analyze

step "clang-tidy"
cmake --preset dev
scripts/tidy.py all

step "the binary interface of the shared libraries"
cmake --build --preset dev --target nimbrel2 nimbrel2_simulation
python3 tests/project/check_abi.py . build/dev

if [ -f fuzz/CMakeLists.txt ]; then
    step "fuzzers, 30 seconds each"
    cmake --preset fuzz
    cmake --build --preset fuzz
    for fuzzer in build/fuzz/bin/fuzz_*; do
        corpus=corpus/${fuzzer##*/fuzz_}
        # New inputs go to the first folder; the seeds are only read.
        mkdir -p "build/fuzz/$corpus"
        "$fuzzer" -max_total_time=30 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "build/fuzz/$corpus" "fuzz/$corpus"
    done
fi

step "tests, with and without sanitizers"
.ci/run

step "the core on 64-bit Arm"
make test-arm64

step "all is well"
