// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_GUIDGENERATOR_H
#define NIMBREL2_COMMON_GUIDGENERATOR_H

#include <string>

#include "common/Error.h"
#include "common/InterfaceType.h"
#include "common/ZevoGuid.h"

namespace Nimbrel2 {

/// Derives identifiers from what devices tell of themselves: the same device has the same one in every process.
/// @par Threads  Any. No lock, no I/O. Both return ERROR_OK, check no pointer, and may throw std::bad_alloc.
class GuidGenerator {
public:
    /// The key is first&second&number, the number in lower-case hexadecimal. Texts are zero-terminated.
    static Error GenerateGUIDForCamera(char* first, char* second, unsigned int number, ZevoGuid* guid);

    /// The key is the four numbers in lower-case hexadecimal, one after the other without a separator, so different
    /// numbers can share a key. Changing that would change the identifier of every device.
    static Error GenerateGUIDForDevice(InterfaceType type, unsigned int first, unsigned int second, unsigned int third,
                                       ZevoGuid* guid);

    /// A GigE camera is also told apart by its IP address, so its identifier changes with it. The key is
    /// first&second& and then the three numbers without a separator; marker is 0 for a camera on a GigE interface.
    static Error GenerateGUIDForGigECamera(char* first, char* second, unsigned int serialNumber, unsigned int ipAddress,
                                           unsigned int marker, ZevoGuid* guid);

    /// The hash under all three: one multiply-add a word and byte, from zero. Bytes count as 0 to 255.
    static void HashKey(const std::string& key, ZevoGuid* guid);
};

}  // namespace Nimbrel2

#endif
