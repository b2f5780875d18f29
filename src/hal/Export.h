/* SPDX-License-Identifier: Apache-2.0
 *
 * What the shared libraries show. All else is compiled with hidden visibility.
 */
#ifndef NIMBREL2_HAL_EXPORT_H
#define NIMBREL2_HAL_EXPORT_H

#if defined(__GNUC__)
#define NIMBREL2_API __attribute__((visibility("default")))
#define NIMBREL2_INTERNAL __attribute__((visibility("hidden"))) /* of a class inside one that is shown */
#else
#define NIMBREL2_API
#define NIMBREL2_INTERNAL
#endif

#endif
