// SPDX-License-Identifier: Apache-2.0
// The command line as users have it, on emulated IEEE 1394 buses: listing, watching, trees, resets, PHY registers,
// permissions, and an application whose camera transmits on after a bus reset.
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tests/platform/firewire/FireWireFixture.h"
#include "tests/support/ChildProcess.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Json = nlohmann::ordered_json;
using Nimbrel2::Testing::ChildProcess;
using Nimbrel2::Testing::FireWireBusOfCameras;
using Nimbrel2::Testing::ProgramResult;
using Nimbrel2::Testing::StandardFireWireBus;
using Platform::FireWire::FirstCard;
using Platform::FireWire::IsoEnableRegister;
using Platform::FireWire::SecondCard;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using Words = std::vector<std::string>;

constexpr std::chrono::seconds TestDeadline{60};
constexpr std::uint32_t IsoOn = 0x80000000;

class FireWireTool : public ::testing::Test {
protected:
    void AddStandardBus() { m_computer.AddBus(StandardFireWireBus(), FirstCard); }

    /// A program as users have it, with the emulated buses in front of the C library.
    Words CommandLine(const std::string& program, const Words& arguments) const {
        const char* const options = secure_getenv("ASAN_OPTIONS");
        Words words = m_asUser;
        words.push_back("env");
        const Words variables = m_computer.GetEnvironment();
        words.insert(words.end(), variables.begin(), variables.end());
        // What is preloaded comes before a sanitizer's library here, and may.
        words.push_back("ASAN_OPTIONS=" + std::string(options != nullptr ? options : "") + ":verify_asan_link_order=0");
        words.push_back(program);
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
    }
    Words Nimbrel(const Words& arguments) const { return CommandLine(NIMBREL_PROGRAM, arguments); }
    ProgramResult Run(const Words& arguments) const {
        return Nimbrel2::Testing::RunProgram(Nimbrel(arguments), TestDeadline);
    }
    Json RunForJson(const Words& arguments) const {
        const ProgramResult result = Run(arguments);
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        EXPECT_THAT(result.errors, IsEmpty());
        return Json::parse(result.output, nullptr, false);
    }
    /// The findings that something is wrong, by check.
    std::map<std::string, Json> Wrong() const {
        const ProgramResult result = Run({"--bus", "1394", "doctor", "--json"});
        const Json all = Json::parse(result.output, nullptr, false);
        std::map<std::string, Json> wrong;
        for (const Json& finding : all.is_object() ? all.at("findings") : all) {
            if (!finding.at("ok").get<bool>()) {
                wrong[finding.at("check")] = finding;
            }
        }
        EXPECT_EQ(result.exitStatus, wrong.empty() ? 0 : 1);
        return wrong;
    }

    /// Programs of this test may not override permissions, though root runs them.
    void ActAsUser() { m_asUser = {"setpriv", "--bounding-set=-dac_override,-dac_read_search"}; }

    Nimbrel2::Testing::EmulatedFireWire m_computer;

private:
    Words m_asUser;
};

/// All nodes of a tree, parents first.
void Flatten(const Json& node, std::vector<Json>* nodes) {
    nodes->push_back(node);
    for (const Json& child : node.at("children")) {
        Flatten(child, nodes);
    }
}

TEST_F(FireWireTool, ListsCamerasAndOtherNodes) {
    AddStandardBus();
    const Json list = RunForJson({"--bus", "1394", "list", "--json"});
    ASSERT_THAT(list.at("cameras"), SizeIs(2));
    EXPECT_EQ(list["cameras"][0].at("serial"), 0x31001);
    EXPECT_EQ(list["cameras"][1].at("serial"), 0x31002);
    EXPECT_EQ(list["cameras"][0].at("interface"), "1394");
    EXPECT_EQ(list["cameras"][0].at("vendor"), "Acme");
    EXPECT_EQ(list["cameras"][0].at("model"), "Zoom 1394");
    EXPECT_THAT(list.at("devices"), SizeIs(1));
}

TEST_F(FireWireTool, ListsNothingSilentlyOnAComputerWithoutFireWire) {
    const Json list = RunForJson({"--bus", "1394", "list", "--json"});
    EXPECT_THAT(list.at("cameras"), IsEmpty());
    m_computer.AddIdleController(FirstCard);
    EXPECT_THAT(RunForJson({"--bus", "1394", "list", "--json"}).at("cameras"), IsEmpty());
}

TEST_F(FireWireTool, ListsCamerasThatMayNotBeOpened) {
    AddStandardBus();
    for (const char* phy : {"card", "left", "right", "disk"}) {
        m_computer.Deny(phy);
    }
    ActAsUser();
    EXPECT_THAT(RunForJson({"--bus", "1394", "list", "--json"}).at("cameras"), SizeIs(2));
}

TEST_F(FireWireTool, TopologyShowsTheHubAndBothCamerasWithTheirSerialNumbers) {
    AddStandardBus();
    const ProgramResult text = Run({"--bus", "1394", "topology"});
    EXPECT_EQ(text.exitStatus, 0) << text.errors;
    EXPECT_THAT(text.output, AllOf(HasSubstr("200705"), HasSubstr("200706"), HasSubstr("port 0: hub (PHY 2)")))
        << text.output;
    EXPECT_THAT(text.errors, IsEmpty());

    const Json list = RunForJson({"--bus", "1394", "list", "--json"});
    std::vector<Json> nodes;
    Flatten(RunForJson({"--bus", "1394", "topology", "--format", "json"}), &nodes);
    const auto holds = [](const Json& node, const Json& camera) {
        return node.at("guid") == camera.at("guid") && node.at("serial") == camera.at("serial");
    };
    int hubs = 0;
    for (const Json& node : nodes) {
        const Json& children = node.at("children");
        if (children.size() != 2 || node.at("ports").size() != 6) {
            continue;
        }
        ++hubs;
        EXPECT_EQ(node.at("type"), "device");
        EXPECT_TRUE(holds(children[0], list["cameras"][0])) << node.dump(2);
        EXPECT_TRUE(holds(children[1], list["cameras"][1])) << node.dump(2);
    }
    EXPECT_EQ(hubs, 1) << "the hub";
}

TEST_F(FireWireTool, TopologyNamesTheBusWhoseTreeItCannotSee) {
    AddStandardBus();
    m_computer.Deny("card");
    ActAsUser();
    const ProgramResult result = Run({"--bus", "1394", "topology"});
    EXPECT_THAT(result.errors, AllOf(HasSubstr("bus 0 (0000:06:01.0): how it is connected cannot be seen"),
                                     HasSubstr("nimbrel doctor --bus 1394")));
}

TEST_F(FireWireTool, TopologyPutsNoCameraThatMayNotBeOpenedInThePlaceOfAnotherOne) {
    AddStandardBus();
    m_computer.Deny("right");
    ActAsUser();
    const Json tree = RunForJson({"--bus", "1394", "topology", "--format", "json"});
    std::vector<Json> nodes;
    Flatten(tree, &nodes);
    int numCameras = 0;
    for (const Json& node : nodes) {
        if (node.contains("serial")) {
            ++numCameras;
            EXPECT_EQ(node.at("serial"), 0x31001);
            EXPECT_EQ(node.at("id"), m_computer.GetPhyId("left"));
        }
    }
    EXPECT_EQ(numCameras, 1) << tree.dump(2);
    ASSERT_THAT(tree.at("unplaced"), SizeIs(1));
    EXPECT_EQ(tree.at("unplaced")[0].at("serial"), 0x31002);
    EXPECT_THAT(tree.at("unplaced")[0].at("reason").get<std::string>(), HasSubstr("permission"));
}

TEST_F(FireWireTool, WatchTellsOfResetsDeparturesAndArrivals) {
    AddStandardBus();
    ChildProcess watch(Nimbrel({"--bus", "1394", "watch", "--json"}));
    ASSERT_TRUE(watch.WaitForErrors("2 cameras now", TestDeadline)) << watch.GetErrors();
    EXPECT_THAT(watch.GetErrors(), Not(HasSubstr("cannot be seen")));
    m_computer.Reset("left");
    EXPECT_TRUE(watch.WaitForOutput("\"reset\"", TestDeadline)) << watch.GetErrors();
    m_computer.Unplug("right");
    EXPECT_TRUE(watch.WaitForOutput("\"removal\"", TestDeadline)) << watch.GetOutput();
    m_computer.Forget("right");
    m_computer.Plug("right");
    EXPECT_TRUE(watch.WaitForOutput("\"arrival\"", TestDeadline)) << watch.GetOutput();
    EXPECT_THAT(watch.GetOutput(), HasSubstr("200706"));
    EXPECT_THAT(watch.GetOutput(), Not(HasSubstr("200705")));
}

TEST_F(FireWireTool, WatchNamesTheBusWhoseResetsItCannotSee) {
    AddStandardBus();
    m_computer.AddBus(FireWireBusOfCameras(1, "b."), SecondCard);
    for (const char* phy : {"card", "left", "right", "disk"}) {
        m_computer.Deny(phy);
    }
    ActAsUser();
    ChildProcess watch(Nimbrel({"--bus", "1394", "watch"}));
    ASSERT_TRUE(watch.WaitForErrors("the bus of 0000:06:01.0: its resets cannot be seen", TestDeadline))
        << watch.GetErrors();
    EXPECT_THAT(watch.GetErrors(), Not(HasSubstr(SecondCard)));
    m_computer.Unplug("left");
    m_computer.Forget("left");
    EXPECT_TRUE(watch.WaitForOutput("removal", TestDeadline)) << "the kernel's own, two seconds late";
}

TEST_F(FireWireTool, WatchNoticesDeparturesAndArrivalsWhereUeventsDoNotComeToo) {
    AddStandardBus();
    Words words{"unshare", "--user", "--map-root-user", "--net"};
    const Words watching = Nimbrel({"--bus", "1394", "watch"});
    words.insert(words.end(), watching.begin(), watching.end());
    ChildProcess watch(words);
    ASSERT_TRUE(watch.WaitForErrors("2 cameras now", TestDeadline)) << watch.GetErrors();
    m_computer.Unplug("right");
    m_computer.Forget("right");
    EXPECT_TRUE(watch.WaitForOutput("removal", TestDeadline)) << watch.GetOutput();
    m_computer.Plug("right");
    EXPECT_TRUE(watch.WaitForOutput("arrival", TestDeadline)) << watch.GetOutput();
}

TEST_F(FireWireTool, ResetResetsTheBus) {
    AddStandardBus();
    const ProgramResult result = Run({"--bus", "1394", "reset", "200705"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_TRUE(Platform::FireWire::WaitUntil([&] { return m_computer.CountResets("left") == 1; }));
}

TEST_F(FireWireTool, PhyReadPrintsARegisterAndPhyWriteFails) {
    AddStandardBus();
    const Json read = RunForJson({"--bus", "1394", "phy", "read", "200706", "0", "0", "0", "--json"});
    EXPECT_EQ(read.at("value").get<unsigned int>() >> 2, 1u) << "its phy id";
    const ProgramResult write = Run({"--bus", "1394", "phy", "write", "200706", "0", "0", "1", "0x3f"});
    EXPECT_EQ(write.exitStatus, 1);
    EXPECT_THAT(write.errors, HasSubstr("this computer cannot write PHY registers"));
}

TEST_F(FireWireTool, PhyReadSaysThatItTakesAPermission) {
    AddStandardBus();
    m_computer.Deny("card");
    ActAsUser();
    const ProgramResult result = Run({"--bus", "1394", "phy", "read", "200706", "0", "0", "0"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("permission"));
}

// ---- The doctor ----------------------------------------------------------------------------------------------------

TEST_F(FireWireTool, DoctorFindsNothingWrongOnAHealthyBus) {
    Platform::FireWireBusDescription bus = StandardFireWireBus();
    bus.gapCount = 7;
    m_computer.AddBus(bus, FirstCard);
    const auto wrong = Wrong();
    EXPECT_THAT(wrong, IsEmpty()) << Json(wrong).dump(2);
}

TEST_F(FireWireTool, DoctorIsContentWithADiskWhoseFileIsRoots) {
    Platform::FireWireBusDescription bus = StandardFireWireBus();
    bus.gapCount = 7;
    m_computer.AddBus(bus, FirstCard);
    m_computer.Deny("disk");
    ActAsUser();
    const auto wrong = Wrong();
    EXPECT_THAT(wrong, IsEmpty()) << Json(wrong).dump(2);
}

TEST_F(FireWireTool, DoctorFindsAMissingModuleAFileThatMayNotBeOpenedAndALongGap) {
    AddStandardBus();
    m_computer.AddIdleController(SecondCard);
    m_computer.Deny("right");
    ActAsUser();
    const auto wrong = Wrong();
    ASSERT_EQ(wrong.count("1394.driver"), 1u) << Json(wrong).dump(2);
    EXPECT_EQ(wrong.at("1394.driver").at("cure"), "sudo modprobe firewire-ohci");
    ASSERT_EQ(wrong.count("1394.permission"), 1u) << Json(wrong).dump(2);
    EXPECT_THAT(wrong.at("1394.permission").at("cure").get<std::string>(), HasSubstr("70-nimbrel2-firewire.rules"));
    ASSERT_EQ(wrong.count("1394.gap-count"), 1u) << Json(wrong).dump(2);
    EXPECT_THAT(wrong, SizeIs(3)) << Json(wrong).dump(2);
}

TEST_F(FireWireTool, DoctorFindsABusThatResetsAgainAndAgainAndTheSocket) {
    AddStandardBus();
    ChildProcess doctor(Nimbrel({"--bus", "1394", "doctor", "--json"}));
    ASSERT_TRUE(Platform::FireWire::WaitUntil([&] { return m_computer.HasBeenOpened("card"); }));
    const auto hasFound = [&doctor] { return doctor.GetOutput().find("1394.resets") != std::string::npos; };
    const auto end = std::chrono::steady_clock::now() + TestDeadline;
    for (bool plugged = true; !doctor.WaitUntil(hasFound, std::chrono::milliseconds(300)); plugged = !plugged) {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << doctor.GetErrors();
        plugged ? m_computer.Unplug("right") : m_computer.Plug("right");
    }
    EXPECT_EQ(doctor.WaitForExit(TestDeadline), 1);
    EXPECT_THAT(doctor.GetOutput(), AllOf(HasSubstr("1394.resets"), HasSubstr("port 2 of the hub")))
        << doctor.GetErrors();
}

// ---- An application ------------------------------------------------------------------------------------------------

TEST_F(FireWireTool, AnApplicationsCameraTransmitsAgainAfterABusReset) {
    AddStandardBus();
    ChildProcess application(CommandLine(NIMBREL_KEEP_TRANSMITTING, {"200706"}));
    ASSERT_TRUE(application.WaitForErrors("waiting for a bus reset", TestDeadline)) << application.GetErrors();
    EXPECT_EQ(m_computer.GetRegister("right", IsoEnableRegister), IsoOn);
    m_computer.SetRegister("right", IsoEnableRegister, 0);  // as a reset does
    m_computer.Reset("right");
    EXPECT_EQ(application.WaitForExit(TestDeadline), 0) << application.GetErrors();
    EXPECT_THAT(application.GetOutput(), HasSubstr("transmitting again"));
    EXPECT_EQ(m_computer.GetRegister("right", IsoEnableRegister), IsoOn);
    EXPECT_EQ(m_computer.GetRegister("left", IsoEnableRegister), 0u);
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
