// SPDX-License-Identifier: Apache-2.0
// Letting a step happen to a rig. Runs on the thread that plays.
#include "platform/rig/RigStep.h"

namespace Nimbrel2::Platform {

namespace {

template <class... Functions>
struct Overloaded : Functions... {
    using Functions::operator()...;
};
template <class... Functions>
Overloaded(Functions...) -> Overloaded<Functions...>;

std::string Quoted(const std::string& name) { return "\"" + name + "\""; }

}  // namespace

std::optional<std::string> Apply(Rig& rig, const RigAction& action) {
    using Result = std::optional<std::string>;
    return std::visit(Overloaded{
                          [&](const PlugStep& step) { return rig.Plug(step.device); },
                          [&](const UnplugStep& step) { return rig.Unplug(step.device); },
                          [&](const MoveStep& step) {
                              return rig.Move(step.device, step.ownPort, CableEnd{step.to, step.port});
                          },
                          [&](const BusResetStep& step) { return rig.ResetBus(step.bus, step.count); },
                          [&](const BusErrorStep& step) { return rig.FailBus(step.bus); },
                          [&](const TakeStep& step) { return rig.Hold(step.camera, step.owner); },
                          [&](const ReleaseStep& step) { return rig.Release(step.camera); },
                          [&](const AddressStep& step) {
                              return rig.SetAddress(step.camera, step.address, step.subnetMask, step.gateway);
                          },
                          [&](const LinkStep& step) { return rig.SetLink(step.interfaceName, step.up); },
                          [&](const AnswersStep& step) { return rig.SetFaults(step.camera, step.faults); },
                          [&](const RigFault& fault) {
                              rig.AddFault(fault);
                              return Result();
                          },
                      },
                      action);
}

std::string Describe(const RigAction& action) {
    return std::visit(
        Overloaded{
            [](const PlugStep& step) { return "plug in " + Quoted(step.device); },
            [](const UnplugStep& step) { return "unplug " + Quoted(step.device); },
            [](const MoveStep& step) { return "move " + Quoted(step.device) + " to " + Quoted(step.to); },
            [](const BusResetStep& step) {
                return step.count == 1 ? "reset " + Quoted(step.bus)
                                       : "reset " + Quoted(step.bus) + " " + std::to_string(step.count) + " times";
            },
            [](const BusErrorStep& step) { return "bus error on " + Quoted(step.bus); },
            [](const TakeStep& step) { return "another host takes " + Quoted(step.camera); },
            [](const ReleaseStep& step) { return "the other host gives back " + Quoted(step.camera); },
            [](const AddressStep& step) { return "the address of " + Quoted(step.camera) + " changes"; },
            [](const LinkStep& step) {
                return "the link of " + Quoted(step.interfaceName) + (step.up ? " comes up" : " goes down");
            },
            [](const AnswersStep& step) { return "the answers of " + Quoted(step.camera) + " change"; },
            [](const RigFault& fault) {
                const std::string late = "takes " + std::to_string(fault.delay.count()) + " ms longer";
                return "call " + std::to_string(fault.call) + " of " + fault.function + " from now on " +
                       (fault.status == HAL_OK     ? late
                        : fault.delay.count() == 0 ? "answers " + std::to_string(fault.status)
                                                   : "answers " + std::to_string(fault.status) + " and " + late);
            },
        },
        action);
}

}  // namespace Nimbrel2::Platform
