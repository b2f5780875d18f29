// SPDX-License-Identifier: Apache-2.0
// Makes findings. Pure.
#include "tools/nimbrel/doctor/Finding.h"

namespace Nimbrel2::Tool::Doctor {

Finding Fine(const std::string& check, const std::string& evidence) { return {check, true, evidence, ""}; }

Findings OrOk(Findings wrong, const std::string& check, const std::vector<std::string>& measured) {
    if (!wrong.empty() || measured.empty()) {
        return wrong;
    }
    std::string evidence;
    for (const std::string& text : measured) {
        evidence += (evidence.empty() ? "" : "; ") + text;
    }
    return {Fine(check, evidence)};
}

}  // namespace Nimbrel2::Tool::Doctor
