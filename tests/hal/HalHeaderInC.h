/* SPDX-License-Identifier: Apache-2.0
 * What the C half of the test tells the C++ half. No thread, no lock.
 */
#ifndef NIMBREL2_TESTS_HAL_HALHEADERINC_H
#define NIMBREL2_TESTS_HAL_HALHEADERINC_H

#include "hal/HAL.h"

#ifdef __cplusplus
extern "C" {
#endif

enum RecordOfTheHal { RECORD_SELF_ID, RECORD_USB, RECORD_DISCOVERY };

uint64_t SizeInC(enum RecordOfTheHal record);
uint32_t CallTheCallback(HALBusEvent event, HALInterfaceType interfaceType);
extern const uint64_t DISCOVERY_OFFSETS_IN_C[];
extern const uint64_t DISCOVERY_FIELDS_IN_C;

#ifdef __cplusplus
}
#endif

#endif
