// SPDX-License-Identifier: Apache-2.0
// What a check says, and what a check is. Values; any thread.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_FINDING_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_FINDING_H

#include <string>
#include <vector>

namespace Nimbrel2::Tool::Doctor {

struct Finding {
    std::string check;  ///< the bus and what was looked at, "gige.rp-filter"; of a fixed set
    bool ok = true;
    std::string evidence;  ///< what was measured and, unless ok, what is wrong with it; one line
    std::string cure;      ///< the command that cures it; empty when nothing is wrong
};

using Findings = std::vector<Finding>;

/// That all is well.
Finding Fine(const std::string& check, const std::string& evidence);
/// One finding that is ok, made of what was measured, unless something is wrong. None when nothing was measured.
Findings OrOk(Findings wrong, const std::string& check, const std::vector<std::string>& measured);

/// A check looks at what was diagnosed on its bus and says what it found: one finding that is ok, or one for each thing
/// that is wrong. Nothing when there was nothing to look at. Pure.
template <class Diagnosed>
using Check = Findings (*)(const Diagnosed& diagnosed);

}  // namespace Nimbrel2::Tool::Doctor

#endif
