/* SPDX-License-Identifier: Apache-2.0
 *
 * What the shared libraries show. All else is compiled with hidden visibility.
 */
#ifndef NIMBREL2_HAL_EXPORT_H
#define NIMBREL2_HAL_EXPORT_H

#if defined(__GNUC__)
#define NIMBREL2_API __attribute__((visibility("default")))
#else
#define NIMBREL2_API
#endif

#endif
