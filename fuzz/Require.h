// SPDX-License-Identifier: Apache-2.0
// What a fuzz target holds true of every input. Any thread.
#ifndef NIMBREL2_FUZZ_REQUIRE_H
#define NIMBREL2_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

/// Ends the program, in every kind of build, so that the fuzzer keeps the input.
#define NIMBREL2_REQUIRE(condition)                                                      \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                \
        }                                                                                \
    } while (false)

#endif
