// SPDX-License-Identifier: Apache-2.0
// Reads and writes one PHY register. Main thread only; no lock.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

// IEEE 1394a-2000 5B.1: base registers 0 to 7, then eight of each page and port.
constexpr std::uint32_t FirstPaged = 8;
constexpr std::uint32_t LastAddress = 15;
constexpr std::uint32_t LastPage = 7;
constexpr std::uint32_t LastPort = 15;
constexpr std::uint32_t LargestValue = 0xFF;

const char Footer[] =
    R"(The registers are those of IEEE 1394a-2000, clause 5B.1. Numbers are decimal, or
hexadecimal after 0x. Writing a register can bring a live bus down. Linux cannot
write PHY registers; simulated computers can.

Exit status:
  0  Done.
  1  No such camera, it is not on IEEE 1394, or the bus refused; standard error
     says why.
  2  Wrong usage; standard error names the argument and the value.

JSON: {"ok":true,"value":N}

Examples:
  nimbrel phy read 200705 0 0 1                   gap count and RHB
  nimbrel phy read 200705 0 2 8                   status of port 2
  nimbrel phy write 200705 0 0 1 0x3f --demo
)";

class PhyCommand {
public:
    explicit PhyCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command, bool writes) {
        m_camera.AddTo(command);
        AddNumber(command, "PAGE", "0 to 7; 0 for base registers.", LastPage, &m_page);
        AddNumber(command, "PORT", "0 to 15; 0 for base registers.", LastPort, &m_port);
        AddNumber(command, "ADDRESS",
                  "0 to 7: a base register; 8 to 15: a register of\n"
                  "that page and port.",
                  LastAddress, &m_address);
        if (writes) {
            AddNumber(command, "VALUE", "0 to 255.", LargestValue, &m_value);
        }
        m_context.AddJsonOption(command, "Print JSON.");
        m_context.AddBusOptions(command);
    }

    int Read() {
        CheckSelectors();
        const BusMasterSession busMaster = m_camera.Start(m_context);
        const FoundCamera camera = m_camera.Find(m_context, *busMaster, "phy", Scope::IEEE1394);
        unsigned int value = 0;
        CheckFor(camera, busMaster->ReadPhyRegister(camera.guid, m_page, m_port, m_address, &value),
                 "did not return its PHY register");
        char text[16];
        std::snprintf(text, sizeof text, "0x%02x\n", value);
        m_context.Print(m_context.WantsJson() ? Dump({{"ok", true}, {"value", value}}) : text);
        return ExitDone;
    }

    int Write() {
        CheckSelectors();
        const BusMasterSession busMaster = m_camera.Start(m_context);
        const FoundCamera camera = m_camera.Find(m_context, *busMaster, "phy", Scope::IEEE1394);
        CheckFor(camera, busMaster->WritePhyRegister(camera.guid, m_page, m_port, m_address, m_value),
                 "has a PHY register that was not written");
        char text[16];
        std::snprintf(text, sizeof text, "0x%02x", m_value);
        m_context.Print(m_context.WantsJson()
                            ? Dump({{"ok", true}, {"value", m_value}})
                            : "Wrote " + std::string(text) + " to " + camera.GetNameWithBus() + ".\n");
        return ExitDone;
    }

private:
    static void AddNumber(CLI::App& command, const std::string& name, const std::string& description,
                          std::uint32_t largest, std::uint32_t* number) {
        const CLI::callback_t parser = [name, largest, number](const CLI::results_t& words) {
            *number = ParseNumber(name, words.at(0), 0, largest);
            return true;
        };
        command.add_option(name, parser, description)->required()->type_name("");
    }

    void CheckSelectors() const {
        if (m_address >= FirstPaged || (m_page == 0 && m_port == 0)) {
            return;
        }
        throw CommandError("ADDRESS: \"" + std::to_string(m_address) +
                               "\" is a base register, which has no page or port; write 0 and 0 in place of page " +
                               std::to_string(m_page) + " and port " + std::to_string(m_port),
                           ExitUsage);
    }

    CommandContext& m_context;
    CameraArgument m_camera;
    std::uint32_t m_page = 0;
    std::uint32_t m_port = 0;
    std::uint32_t m_address = 0;
    std::uint32_t m_value = 0;
};

}  // namespace

void AddPhyCommand(CLI::App& app, CommandContext& context) {
    CLI::App* phy = app.add_subcommand("phy", "Reads and writes PHY registers of IEEE 1394 nodes.");
    phy->require_subcommand(1);
    phy->footer(Footer);
    const auto read = std::make_shared<PhyCommand>(context);
    CLI::App* reading =
        context.AddCommand(*phy, "read", "Prints one PHY register, in hexadecimal.", [read] { return read->Read(); });
    read->AddOptions(*reading, false);
    reading->footer(Footer);
    const auto write = std::make_shared<PhyCommand>(context);
    CLI::App* writing =
        context.AddCommand(*phy, "write", "Writes one PHY register.", [write] { return write->Write(); });
    write->AddOptions(*writing, true);
    writing->footer(Footer);
}

}  // namespace Nimbrel2::Tool
