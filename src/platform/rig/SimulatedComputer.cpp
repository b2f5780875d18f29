// SPDX-License-Identifier: Apache-2.0
// Rigs for applications. Any thread; no lock of its own.
#include "platform/SimulatedComputer.h"

#include <stdexcept>
#include <utility>

#include "platform/rig/RigDrivers.h"
#include "platform/rig/RigFile.h"

namespace Nimbrel2::Platform {

struct SimulatedComputer::State {
    explicit State(RigPlan plan) : description(plan.rig), rig(std::make_shared<Rig>(std::move(plan.rig))) {}

    const RigDescription description;  // what actions may name
    const std::shared_ptr<Rig> rig;
};

SimulatedComputer SimulatedComputer::ReadFile(const std::string& path) {
    return SimulatedComputer(std::make_shared<const State>(ReadRigFile(path)));
}

SimulatedComputer SimulatedComputer::Parse(std::string_view json, const std::string& name) {
    return SimulatedComputer(std::make_shared<const State>(ParseRig(json, name)));
}

SimulatedComputer SimulatedComputer::BuiltIn() { return Parse(BuiltInRig(), "the built-in computer"); }

Options SimulatedComputer::MakeOptions() const {
    Options options;
    options.fireWire = options.usb = options.gigE = Driver::Rig;
    options.makeDrivers = MakeRigDrivers(m_state->rig);
    return options;
}

void SimulatedComputer::Perform(std::string_view action) {
    const std::optional<std::string> problem = Apply(*m_state->rig, ParseRigAction(action, m_state->description));
    if (problem.has_value()) {
        throw std::logic_error(std::string(action) + ": " + *problem);
    }
}

}  // namespace Nimbrel2::Platform
