// SPDX-License-Identifier: Apache-2.0
// Whether a sanitizer slows this program down. Constants only.
#ifndef NIMBREL2_TESTS_SUPPORT_SANITIZED_H
#define NIMBREL2_TESTS_SUPPORT_SANITIZED_H

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
#define NIMBREL2_TESTS_SANITIZED 1  // gcc says so
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define NIMBREL2_TESTS_SANITIZED 1  // and clang
#endif
#endif
#ifndef NIMBREL2_TESTS_SANITIZED
#define NIMBREL2_TESTS_SANITIZED 0
#endif

#endif
