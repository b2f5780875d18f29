// SPDX-License-Identifier: Apache-2.0
// Chance. Any thread, each with its own object.
#include "platform/base/Random.h"

#include <random>

namespace Nimbrel2::Platform {

Random Random::FromSystem() {
    std::random_device system;
    return Random(std::uint64_t{system()} << 32 | system());
}

bool Random::HappensInPercent(double percent) {
    if (percent <= 0) {
        return false;
    }
    constexpr double Steps = 9007199254740992.0;  // 2^53
    return static_cast<double>(Next() >> 11) / Steps * 100 < percent;
}

std::chrono::milliseconds Random::Between(std::chrono::milliseconds low, std::chrono::milliseconds high) {
    if (high <= low) {
        return low;
    }
    const auto span = static_cast<std::uint64_t>((high - low).count()) + 1;
    return low + std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(Below(span)));
}

}  // namespace Nimbrel2::Platform
