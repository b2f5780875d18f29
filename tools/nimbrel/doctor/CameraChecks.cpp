// SPDX-License-Identifier: Apache-2.0
// Looks for cameras that look alike. Pure.
#include "tools/nimbrel/doctor/CameraChecks.h"

#include <map>
#include <string>

#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/Locations.h"
#include "tools/nimbrel/Words.h"
#include "tools/nimbrel/doctor/GigETexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

template <class Key>
std::map<Key, std::vector<const Camera*>> GroupBy(const std::vector<Camera>& cameras,
                                                  Key (*key)(const Camera& camera)) {
    std::map<Key, std::vector<const Camera*>> groups;
    for (const Camera& camera : cameras) {
        groups[key(camera)].push_back(&camera);
    }
    return groups;
}

std::string Describe(const std::vector<const Camera*>& cameras) {
    std::vector<std::string> words;
    for (const Camera* camera : cameras) {
        const std::string where = DescribeLocation(*camera);
        words.push_back(BusName(camera->interfaceType) + (where.empty() ? "" : ", " + where) + " (index " +
                        std::to_string(camera->index) + ")");
    }
    return Enumerate(words);
}

}  // namespace

Findings CheckGuids(const std::vector<Camera>& cameras) {
    const std::string check = "cameras.guid";
    Findings wrong;
    for (const auto& [guid, same] : GroupBy<std::string>(cameras, [](const Camera& c) { return FormatGuid(c.guid); })) {
        if (same.size() < 2) {
            continue;
        }
        wrong.push_back({check, false,
                         CountOf(same.size(), "camera") + " have vendor, model and serial number " +
                             std::to_string(same.front()->serialNumber) +
                             " in common, so programs cannot tell them apart: " + Describe(same),
                         ByHand("unplug all but one of them, or give one another serial number")});
    }
    if (!wrong.empty() || cameras.empty()) {
        return wrong;
    }
    return {{check, true,
             cameras.size() == 1 ? "the only camera has a guid of its own"
                                 : "each of " + CountOf(cameras.size(), "camera") + " has a guid of its own",
             ""}};
}

Findings CheckSerialNumbers(const std::vector<Camera>& cameras) {
    std::vector<std::string> measured;
    for (const auto& [serial, same] : GroupBy<std::uint32_t>(cameras, [](const Camera& c) { return c.serialNumber; })) {
        if (same.size() < 2) {
            continue;
        }
        measured.push_back(CountOf(same.size(), "camera") + " have the serial number " + std::to_string(serial) +
                           ", so commands need guid: or mac: for them: " + Describe(same));
    }
    return OrOk({}, "cameras.serial", measured);
}

}  // namespace Nimbrel2::Tool::Doctor
