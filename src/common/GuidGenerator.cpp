// SPDX-License-Identifier: Apache-2.0
// Key texts and the 128-bit multiplicative hash over them. Pure.
#include "common/GuidGenerator.h"

#include <cstdio>

#include "common/InternalError.h"

namespace Nimbrel2 {

namespace {

void AppendHex(std::string& key, unsigned int number) {
    char digits[32];
    std::snprintf(digits, sizeof digits, "%x", number);
    key += digits;
}

std::string CameraKey(const char* first, const char* second) {
    std::string key = first;
    key += "&";
    key += second;
    key += "&";
    return key;
}

}  // namespace

Error GuidGenerator::GenerateGUIDForCamera(char* first, char* second, unsigned int number, ZevoGuid* guid) {
    std::string key = CameraKey(first, second);
    AppendHex(key, number);
    HashKey(key, guid);
    return InternalError(ERROR_OK);
}

Error GuidGenerator::GenerateGUIDForDevice(InterfaceType type, unsigned int first, unsigned int second,
                                           unsigned int third, ZevoGuid* guid) {
    std::string key;
    AppendHex(key, type);
    AppendHex(key, first);
    AppendHex(key, second);
    AppendHex(key, third);
    HashKey(key, guid);
    return InternalError(ERROR_OK);
}

Error GuidGenerator::GenerateGUIDForGigECamera(char* first, char* second, unsigned int serialNumber,
                                               unsigned int ipAddress, unsigned int marker, ZevoGuid* guid) {
    std::string key = CameraKey(first, second);
    AppendHex(key, serialNumber);
    AppendHex(key, ipAddress);
    AppendHex(key, marker);
    HashKey(key, guid);
    return InternalError(ERROR_OK);
}

// Each byte counts as 0 to 255, whatever the sign of char on this machine.
void GuidGenerator::HashKey(const std::string& key, ZevoGuid* guid) {
    static constexpr std::uint32_t multipliers[4] = {0x55C3F2B5, 0xB20F477D, 0xCF5CC0A8, 0x01F66F90};
    std::uint32_t words[4] = {0, 0, 0, 0};
    for (const char character : key) {
        const auto byte = static_cast<unsigned char>(character);
        for (int k = 0; k < 4; ++k) {
            words[k] = words[k] * multipliers[k] + byte;
        }
    }
    for (int k = 0; k < 4; ++k) {
        guid->value[k] = words[k];
    }
}

}  // namespace Nimbrel2
