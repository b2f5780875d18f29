// SPDX-License-Identifier: Apache-2.0
// `nimbrel discover`, `force-ip`, `auto-ip` and `control` on real sockets: simulated and independent cameras in network
// namespaces of the tests' own, with and without the privileges of root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>

#include "platform/base/Texts.h"
#include "platform/gvcp/GvcpCodec.h"
#include "tests/platform/gige/GigEFixture.h"
#include "tests/platform/gige/HostileDevice.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/PacketCapture.h"
#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Nimbrel2::Testing::Connect;
using Nimbrel2::Testing::HostileDevice;
using Nimbrel2::Testing::IndependentCamera;
using Nimbrel2::Testing::Ip;
using Nimbrel2::Testing::MakeCameras;
using Nimbrel2::Testing::NetworkNamespace;
using Nimbrel2::Testing::PacketCapture;
using Nimbrel2::Testing::RawGvcp;
using Nimbrel2::Testing::TemporaryFile;
using Platform::Simulated::SimulatedCameraOptions;
using Platform::Simulated::SimulatedGigENetwork;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

// Long enough for every camera to answer on a busy machine; they answer at once.
const char Window[] = "0.4";

/// The program where everybody may run it: what it was built in may be its owner's alone.
class ProgramForEverybody {
public:
    ProgramForEverybody() : m_folder("/tmp/nimbrel-test-XXXXXX") {
        EXPECT_NE(mkdtemp(m_folder.data()), nullptr);
        EXPECT_EQ(chmod(m_folder.c_str(), 0755), 0);
        std::filesystem::copy_file(NIMBREL_PROGRAM, m_folder + "/nimbrel");
        for (const auto& entry : std::filesystem::directory_iterator(NIMBREL_LIBRARY_FOLDER)) {
            const std::string name = entry.path().filename();
            if (name.rfind("libnimbrel2.so", 0) != 0) {
                continue;
            }
            std::filesystem::copy(entry.path(), m_folder + "/" + name, std::filesystem::copy_options::copy_symlinks);
        }
    }
    ~ProgramForEverybody() {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    ProgramForEverybody(const ProgramForEverybody&) = delete;
    ProgramForEverybody& operator=(const ProgramForEverybody&) = delete;

    /// The words that run it as nobody, without any capability.
    Words CommandLine() const {
        return {"setpriv",
                "--reuid=65534",
                "--regid=65534",
                "--clear-groups",
                "--inh-caps=-all",
                "--bounding-set=-all",
                "--no-new-privs",
                "env",
                "LD_LIBRARY_PATH=" + m_folder,
                m_folder + "/nimbrel"};
    }

private:
    std::string m_folder;
};

/// The address in a FORCEIP_CMD: behind the header of 8 octets and 20 more.
std::uint32_t ForcedAddress(const HostileDevice::Request& request) {
    std::uint32_t address = 0;
    for (std::size_t i = 28; i < 32; ++i) {
        address = address << 8 | request.bytes.at(i);
    }
    return address;
}

/// This computer's h0, 192.168.77.1/24, on a wire with simulated cameras.
class GigEAddresses : public ::testing::Test {
protected:
    GigEAddresses() {
        Connect(m_host, "h0", m_wire, "c0");
        m_host.Ip("addr add 192.168.77.1/24 dev h0");
        m_wire.Ip("addr add 192.168.77.100/24 dev c0");
        SetRpFilter(0);
        m_cameras = MakeCameras(m_wire);
    }

    void SetRpFilter(int value) {
        m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", std::to_string(value));
        m_host.SetSystemControl("net/ipv4/conf/h0/rp_filter", "0");
    }

    static SimulatedCameraOptions Camera(const std::string& ip, std::uint64_t number) {
        SimulatedCameraOptions options;
        options.interfaceName = "c0";
        options.address = Ip(ip);
        options.subnetMask = 0xFFFFFF00;
        options.mac = 0x020000000000 + number;
        options.serialNumber = std::to_string(number);
        return options;
    }

    /// Camera 9 at 192.168.77.50, in the place of the others, that says it has 10.9.9.9.
    /// @param take  What it says that it has after a FORCEIP.
    HostileDevice MakeClaimant(std::uint32_t (*take)(const HostileDevice::Request& request)) {
        m_cameras.reset();
        m_wire.Ip("addr add 192.168.77.50/24 dev c0");
        return HostileDevice(
            m_wire, Ip("192.168.77.50"),
            [take, address = Ip("10.9.9.9")](HostileDevice& self, const HostileDevice::Request& request) mutable {
                if (request.Is(Platform::Gvcp::MessageId::ForceIpCmd)) {
                    address = take(request);
                } else if (request.Is(Platform::Gvcp::MessageId::DiscoveryCmd)) {
                    self.Answer(request, HostileDevice::DiscoveryAck(request, 0x020000000009, address));
                }
            });
    }

    void AddCamera(const std::string& ip, std::uint64_t number) { AddCamera(Camera(ip, number)); }
    void AddCamera(const SimulatedCameraOptions& options) {
        const auto added = m_cameras->AddCamera(options);
        ASSERT_TRUE(added) << added.reason;
    }

    static Words WithWindow(Words program, const Words& arguments) {
        program.insert(program.end(), arguments.begin(), arguments.end());
        program.insert(program.end(), {"--discovery-window", Window});
        return program;
    }

    ProgramResult Run(const Words& arguments) {
        return m_host.RunProgram(WithWindow({RealProgram()}, arguments), TestDeadline);
    }

    ProgramResult RunAsNobody(const Words& arguments) {
        if (!m_forEverybody) {
            m_forEverybody = std::make_unique<ProgramForEverybody>();
        }
        return m_host.RunProgram(WithWindow(m_forEverybody->CommandLine(), arguments), TestDeadline);
    }

    /// "serial@ip" of what a command printed.
    static Words Names(const ProgramResult& result) {
        Words names;
        const Json json = Json::parse(result.output);
        for (const Json& camera : json["cameras"]) {
            names.push_back(std::to_string(camera["serial"].get<unsigned int>()) + "@" +
                            camera["ip"].get<std::string>());
        }
        return names;
    }

    void Nft(const std::string& rules) {
        const ProgramResult result = m_host.RunProgram({"nft", rules});
        ASSERT_EQ(result.exitStatus, 0) << result.errors;
    }

    NetworkNamespace m_host;
    NetworkNamespace m_wire;
    std::unique_ptr<SimulatedGigENetwork> m_cameras;
    std::unique_ptr<ProgramForEverybody> m_forEverybody;
};

TEST_F(GigEAddresses, OfACameraOnAWrongSubnetAreRepairedByNobody) {
    AddCamera("10.9.9.9", 9);
    const ProgramResult who = m_host.RunProgram({"setpriv", "--reuid=65534", "--clear-groups", "--inh-caps=-all",
                                                 "--bounding-set=-all", "grep", "CapEff", "/proc/self/status"});
    ASSERT_THAT(who.output, HasSubstr("0000000000000000"));

    EXPECT_THAT(Names(RunAsNobody({"list", "--json"})), IsEmpty());
    const ProgramResult found = RunAsNobody({"discover", "--json"});
    EXPECT_EQ(found.exitStatus, 0) << found.errors;
    EXPECT_THAT(Names(found), ElementsAre("9@10.9.9.9"));
    EXPECT_THAT(found.errors, IsEmpty());

    const ProgramResult dry = RunAsNobody({"auto-ip", "--dry-run", "--json"});
    EXPECT_EQ(dry.exitStatus, 0) << dry.errors;
    EXPECT_EQ(Json::parse(dry.output)["cameras"][0]["result"], "would-change");
    EXPECT_THAT(Names(RunAsNobody({"discover", "--json"})), ElementsAre("9@10.9.9.9")) << "nothing has changed";

    const ProgramResult repaired = RunAsNobody({"auto-ip", "--json"});
    EXPECT_EQ(repaired.exitStatus, 0) << repaired.errors;
    const Json camera = Json::parse(repaired.output)["cameras"][0];
    EXPECT_EQ(camera["result"], "changed");
    EXPECT_EQ(camera["network_interface"], "h0");
    const std::string address = camera["new_ip"];
    EXPECT_THAT(address, ::testing::StartsWith("192.168.77."));
    EXPECT_EQ(address, Json::parse(dry.output)["cameras"][0]["new_ip"]) << "as was planned";
    EXPECT_THAT(Names(RunAsNobody({"list", "--json"})), ElementsAre("9@" + address));
}

// ---- What the reverse path filter hides ----------------------------------------------------------------------------

TEST_F(GigEAddresses, AreShownWithoutAWarningWhereTheFilterIsOff) {
    AddCamera("10.9.9.9", 9);
    const ProgramResult result = RunAsNobody({"discover"});
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("10.9.9.9/24"), HasSubstr("`nimbrel auto-ip` gives that camera an address")));
    EXPECT_THAT(result.errors, IsEmpty());
}

TEST_F(GigEAddresses, CannotBeShownOnAClosedStandardOutput) {
    const std::string program = RealProgram() + " discover --discovery-window 0.1";
    const ProgramResult result = m_host.RunProgram({"sh", "-c", program + " <&- >&-"}, TestDeadline);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.errors, "nimbrel discover: standard output cannot be written: Bad file descriptor\n");
}

class ReversePathFilter : public GigEAddresses, public ::testing::WithParamInterface<int> {};

TEST_P(ReversePathFilter, ThatMayHideACameraIsNamedInOneLineAndIsNoFailure) {
    SetRpFilter(GetParam());
    AddCamera("10.9.9.9", 9);
    const std::string line = ": cameras on other subnets may be hidden: the reverse path filter of h0 (rp_filter " +
                             std::to_string(GetParam()) + ") drops their answers; `nimbrel doctor` explains.\n";
    for (const char* command : {"discover", "list"}) {
        const ProgramResult nobody = RunAsNobody({command, "--interface", "h0"});
        EXPECT_EQ(nobody.exitStatus, 0) << command;
        EXPECT_THAT(nobody.errors, ::testing::StartsWith("nimbrel " + std::string(command) + line));
    }
    const ProgramResult root = Run({"discover"});
    EXPECT_EQ(root.exitStatus, 0);
    EXPECT_THAT(root.output, HasSubstr("10.9.9.9/24")) << "who may listen to packets sees this one";
    EXPECT_EQ(root.errors, "nimbrel discover" + line) << "another may be hidden from root too";
}

TEST_P(ReversePathFilter, ThatHidesNothingIsNotNamed) {
    SetRpFilter(GetParam());
    AddCamera("192.168.77.102", 2);
    EXPECT_THAT(RunAsNobody({"discover"}).errors, IsEmpty());
    EXPECT_THAT(Run({"discover"}).errors, IsEmpty());
}

TEST_P(ReversePathFilter, IsCuredByARouteToTheCamera) {
    SetRpFilter(GetParam());
    AddCamera("10.9.9.9", 9);
    m_host.Ip("route add 10.9.9.9/32 dev h0");
    EXPECT_THAT(Names(RunAsNobody({"discover", "--json"})), ElementsAre("9@10.9.9.9"));
    EXPECT_THAT(Run({"discover"}).errors, IsEmpty());
}

TEST_P(ReversePathFilter, DoesNotKeepACameraFromAnAddressWhenItsMacIsKnown) {
    SetRpFilter(GetParam());
    AddCamera("10.9.9.9", 9);
    const ProgramResult result =
        RunAsNobody({"force-ip", "--mac", "02:00:00:00:00:09", "--ip", "192.168.77.50", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.output, R"({"ok":true,"mac":"02:00:00:00:00:09","ip":"192.168.77.50","subnet":"255.255.255.0",)"
                             R"("gateway":"0.0.0.0","verified":true})"
                             "\n");
    EXPECT_THAT(Names(RunAsNobody({"list", "--json"})), ElementsAre("9@192.168.77.50"));
}

INSTANTIATE_TEST_SUITE_P(Settings, ReversePathFilter, ::testing::Values(1, 2));

TEST_F(GigEAddresses, AreNotHiddenByALooseFilterWhereADefaultRouteLeadsAnywhere) {
    SetRpFilter(2);
    AddCamera("10.9.9.9", 9);
    NetworkNamespace elsewhere;
    Connect(m_host, "u0", elsewhere, "c0");
    m_host.Ip("addr add 172.20.0.1/24 dev u0");
    m_host.Ip("route add default via 172.20.0.2 dev u0");
    const ProgramResult loose = RunAsNobody({"discover", "--json"});
    EXPECT_THAT(Names(loose), ElementsAre("9@10.9.9.9"));
    EXPECT_THAT(loose.errors, IsEmpty());
    SetRpFilter(1);
    EXPECT_THAT(RunAsNobody({"discover", "--json"}).errors, HasSubstr("of h0 (rp_filter 1)"))
        << "the strict one wants the way back by the same interface";
}

// ---- Several wires, and cameras in each other's way -----------------------------------------------------------------

class TwoWires : public GigEAddresses {
protected:
    void AddWire(const std::string& hostAddress, const std::string& cameraAddress) {
        Connect(m_host, "h1", m_second, "c0");
        m_host.Ip("addr add " + hostAddress + " dev h1");
        m_second.Ip("addr add " + cameraAddress + " dev c0");
        m_secondCameras = MakeCameras(m_second);
    }

    NetworkNamespace m_second;
    std::unique_ptr<SimulatedGigENetwork> m_secondCameras;
};

TEST_F(TwoWires, GiveEachCameraAnAddressOfItsOwnWire) {
    AddWire("172.20.0.1/20", "172.20.0.100/20");
    AddCamera("10.9.9.8", 8);
    ASSERT_TRUE(m_secondCameras->AddCamera(Camera("10.9.9.9", 9)));
    const ProgramResult result = Run({"auto-ip", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    const Json cameras = Json::parse(result.output)["cameras"];
    ASSERT_EQ(cameras.size(), 2u);
    EXPECT_EQ(cameras[0]["network_interface"], "h0");
    EXPECT_THAT(cameras[0]["new_ip"].get<std::string>(), ::testing::StartsWith("192.168.77."));
    EXPECT_EQ(cameras[0]["new_subnet"], "255.255.255.0");
    EXPECT_EQ(cameras[1]["network_interface"], "h1");
    EXPECT_THAT(cameras[1]["new_ip"].get<std::string>(), ::testing::StartsWith("172.20."));
    EXPECT_EQ(cameras[1]["new_subnet"], "255.255.240.0");
    EXPECT_EQ(Names(Run({"list", "--json"})).size(), 2u);
}

TEST_F(TwoWires, AreLookedAtOneByOneWhenAskedTo) {
    AddWire("172.20.0.1/24", "172.20.0.100/24");
    AddCamera("10.9.9.8", 8);
    ASSERT_TRUE(m_secondCameras->AddCamera(Camera("10.9.9.9", 9)));
    EXPECT_THAT(Names(Run({"discover", "--interface", "h1", "--json"})), ElementsAre("9@10.9.9.9"));
    EXPECT_EQ(Run({"auto-ip", "--interface", "h1"}).exitStatus, 0);
    EXPECT_THAT(Names(Run({"discover", "--interface", "h0", "--json"})), ElementsAre("8@10.9.9.8")) << "left alone";
}

TEST_F(TwoWires, GiveAMaskOfTheInterfaceThatHearsTheCamera) {
    AddWire("172.20.0.1/20", "172.20.0.100/20");
    ASSERT_TRUE(m_secondCameras->AddCamera(Camera("10.9.9.9", 9)));
    EXPECT_THAT(Run({"force-ip", "--mac", "02:00:00:00:00:09", "--ip", "172.20.3.4"}).output,
                HasSubstr("172.20.3.4/20"));
}

TEST_F(GigEAddresses, OfTwoCamerasThatShareOneAreToldApart) {
    // A second camera computer on the same wire, with the same address.
    NetworkNamespace other;
    m_wire.Ip("link add br0 type bridge");
    m_wire.Ip("link set br0 up");
    Connect(m_wire, "p1", other, "c0");
    m_wire.Ip("link set p1 master br0");
    NetworkNamespace first;
    Connect(m_wire, "p2", first, "c0");
    m_wire.Ip("link set p2 master br0");
    m_wire.Ip("addr flush dev c0");
    m_wire.Ip("link set c0 master br0");
    first.Ip("addr add 192.168.77.101/24 dev c0");
    other.Ip("addr add 192.168.77.101/24 dev c0");
    const auto firstCameras = MakeCameras(first);
    const auto otherCameras = MakeCameras(other);
    ASSERT_TRUE(firstCameras->AddCamera(Camera("192.168.77.101", 1)));
    ASSERT_TRUE(otherCameras->AddCamera(Camera("192.168.77.101", 2)));

    EXPECT_THAT(Names(Run({"discover", "--json"})), UnorderedElementsAre("1@192.168.77.101", "2@192.168.77.101"));
    const ProgramResult taken = Run({"force-ip", "--mac", "02:00:00:00:00:02", "--ip", "192.168.77.101"});
    EXPECT_EQ(taken.exitStatus, 1);
    EXPECT_THAT(taken.errors, HasSubstr("192.168.77.101 is the address of camera 1 (02:00:00:00:00:01)"));
    const ProgramResult moved = Run({"force-ip", "--mac", "02:00:00:00:00:02", "--ip", "192.168.77.102"});
    EXPECT_EQ(moved.exitStatus, 0) << moved.errors;
    EXPECT_THAT(Names(Run({"discover", "--json"})), UnorderedElementsAre("1@192.168.77.101", "2@192.168.77.102"));
    otherCameras->RemoveCamera(1);
}

TEST_F(GigEAddresses, OfASilentHostAreRefusedUnlessForced) {
    AddCamera("10.9.9.9", 9);
    const Words arguments{"force-ip", "--mac", "02:00:00:00:00:09", "--ip", "192.168.77.100"};
    for (const bool asNobody : {false, true}) {
        const ProgramResult refused = asNobody ? RunAsNobody(arguments) : Run(arguments);
        EXPECT_EQ(refused.exitStatus, 1);
        EXPECT_THAT(refused.errors,
                    AllOf(HasSubstr("--ip: 192.168.77.100 is the address of the host "), HasSubstr("--force")));
    }
    EXPECT_THAT(Names(Run({"discover", "--json"})), ElementsAre("9@10.9.9.9"));
    EXPECT_THAT(Run({"force-ip", "--mac", "02:00:00:00:00:09", "--ip", "192.168.77.100", "--force"}).errors,
                Not(HasSubstr("is the address of")));
}

// ---- Where it is not searched --------------------------------------------------------------------------------------

TEST_F(GigEAddresses, AreNotSearchedInSilenceWhereABroadcastIsRefused) {
    AddCamera("192.168.77.102", 2);
    Nft("add table ip t; add chain ip t out { type filter hook output priority 0; };"
        "add rule ip t out udp dport 3956 drop");
    const ProgramResult list = Run({"list", "--interface", "h0"});
    EXPECT_EQ(list.exitStatus, 1);
    EXPECT_THAT(list.errors, HasSubstr("h0 is not searched: broadcasts are refused: Operation not permitted; `nimbrel "
                                       "doctor` finds out why"));
    EXPECT_THAT(list.output, AllOf(HasSubstr("GigE: no network interface was searched."), Not(HasSubstr("h0"))));
    for (const Words& command : {Words{"discover"}, Words{"auto-ip"},
                                 Words{"force-ip", "--mac", "02:00:00:00:00:02", "--ip", "192.168.77.50"}}) {
        const ProgramResult result = Run(command);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_EQ(result.errors, "nimbrel " + command[0] +
                                     ": GigE cannot be searched: h0: broadcasts are refused: Operation not permitted\n"
                                     "`nimbrel doctor` finds out why.\n");
    }
}

TEST_F(TwoWires, AreNotHalfSearchedInSilence) {
    AddWire("172.20.0.1/24", "172.20.0.100/24");
    AddCamera("10.9.9.8", 8);
    Nft("add table ip t; add chain ip t out { type filter hook output priority 0; };"
        "add rule ip t out oifname h1 udp dport 3956 drop");
    for (const Words& command : {Words{"discover"}, Words{"auto-ip"}}) {
        const ProgramResult result = Run(command);
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.output, HasSubstr("02:00:00:00:00:08"));
        EXPECT_THAT(result.errors, HasSubstr("nimbrel " + command[0] + ": h1 is not searched: broadcasts are refused"));
    }
}

TEST_F(GigEAddresses, AreAskedFromTheSourcePortsOfTheUser) {
    AddCamera("192.168.77.102", 2);
    AddCamera("192.168.77.103", 3);
    Nft("add table ip t; add chain ip t out { type filter hook output priority 0; };"
        "add rule ip t out udp dport 3956 udp sport != 50000-50007 drop");
    EXPECT_EQ(Run({"list", "--interface", "h0"}).exitStatus, 1);
    const ProgramResult result = Run({"list", "--interface", "h0", "--source-port", "50000-50007", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(Names(result).size(), 2u);
}

TEST_F(GigEAddresses, NeedAPortForEachCamera) {
    for (unsigned int number = 2; number < 8; ++number) {
        AddCamera("192.168.77.10" + std::to_string(number), number);
    }
    const ProgramResult result = Run({"list", "--interface", "h0", "--source-port", "50000-50004"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("nimbrel: h0 is searched in part: "), HasSubstr("50000-50004"),
                                     HasSubstr("give --source-port a wider range")));
}

TEST_F(GigEAddresses, EndAWatchWith1WhereTheInterfaceIsNotSearchedOrInPart) {
    for (unsigned int number = 2; number < 8; ++number) {
        AddCamera("192.168.77.10" + std::to_string(number), number);
    }
    const Words watch{"watch", "--interface", "h0", "--duration", "0"};
    EXPECT_EQ(Run(watch).exitStatus, 0);
    Words withFewPorts = watch;
    withFewPorts.insert(withFewPorts.end(), {"--source-port", "50000-50004"});
    const ProgramResult inPart = Run(withFewPorts);
    EXPECT_EQ(inPart.exitStatus, 1);
    EXPECT_THAT(inPart.errors, HasSubstr("nimbrel: h0 is searched in part: "));
    Nft("add table ip t; add chain ip t out { type filter hook output priority 0; };"
        "add rule ip t out udp dport 3956 drop");
    const ProgramResult refused = Run(watch);
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_THAT(refused.errors, HasSubstr("nimbrel: h0 is not searched: "));
}

TEST_F(GigEAddresses, EndASearchAsSoonAsTheNamedCameraAnswers) {
    AddCamera("192.168.77.102", 2);
    for (const char* camera : {"ip:192.168.77.102", "mac:02-00-00-00-00-02"}) {
        const auto start = std::chrono::steady_clock::now();
        const ProgramResult result = m_host.RunProgram(
            {RealProgram(), "control", camera, "--bus", "gige", "--discovery-window", "30"}, TestDeadline);
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        EXPECT_EQ(result.output, "Camera 2 is free: this computer may control it.\n");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << "half of the window";
    }
}

// ---- Firewalls -----------------------------------------------------------------------------------------------------

TEST_F(GigEAddresses, CannotBeGivenThroughAFirewallThatDropsTheAnswers) {
    AddCamera("10.9.9.9", 9);
    Nft("add table ip t; add chain ip t in { type filter hook input priority 0; policy drop; };"
        "add rule ip t in ct state established,related accept");
    EXPECT_EQ(Run({"discover"}).output, "No GigE camera answered on h0. `nimbrel doctor` finds out why.\n");
    const ProgramResult forced = Run({"force-ip", "--mac", "02:00:00:00:00:08", "--ip", "192.168.77.50"});
    EXPECT_EQ(forced.exitStatus, 1);
    EXPECT_THAT(forced.errors, HasSubstr("no acknowledge"));
    Nft("add rule ip t in udp sport 3956 accept");
    EXPECT_THAT(Names(Run({"discover", "--json"})), ElementsAre("9@10.9.9.9"));
    EXPECT_EQ(Run({"auto-ip"}).exitStatus, 0);
}

// ---- Cameras that do not do as they are told -----------------------------------------------------------------------

TEST_F(GigEAddresses, OfACameraInUseStay) {
    SimulatedCameraOptions options = Camera("10.9.9.8", 8);
    options.owner = Platform::Simulated::ControlOwner{{Ip("10.9.9.60"), 1234}, false};
    AddCamera(options);
    AddCamera("10.9.9.9", 9);
    const ProgramResult forced = Run({"force-ip", "--mac", "02:00:00:00:00:08", "--ip", "192.168.77.50"});
    EXPECT_EQ(forced.exitStatus, 1);
    EXPECT_THAT(forced.output, IsEmpty());
    EXPECT_THAT(forced.errors, HasSubstr("no acknowledge: camera 8 (02:00:00:00:00:08) stays at 10.9.9.8/24"));
    const ProgramResult automatic = Run({"auto-ip"});
    EXPECT_EQ(automatic.exitStatus, 1);
    EXPECT_THAT(automatic.output, AllOf(HasSubstr("camera 8 (02:00:00:00:00:08): 10.9.9.8/24 could not be changed"),
                                        HasSubstr("camera 9 (02:00:00:00:00:09): 10.9.9.9/24 became 192.168.77.")));
}

TEST_F(GigEAddresses, AreNotSaidToBeGivenByACameraThatOnlyAcknowledges) {
    m_cameras.reset();
    m_wire.Ip("addr flush dev c0");
    m_wire.Ip("addr add 192.168.77.50/24 dev c0");
    const HostileDevice device(
        m_wire, Ip("192.168.77.50"), [](HostileDevice& self, const HostileDevice::Request& request) {
            if (!request.Is(Platform::Gvcp::MessageId::ForceIpCmd)) {
                return;
            }
            self.Answer(request, Platform::Gvcp::EncodeForceIpAck(request.header.requestId).GetBytes());
        });
    const ProgramResult result = Run({"force-ip", "--mac", "02:00:00:00:00:09", "--ip", "192.168.77.50", "--force"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, HasSubstr("02:00:00:00:00:09 acknowledged 192.168.77.50/24, but no longer answers"));
}

TEST_F(GigEAddresses, AreNotSaidToBeGivenByACameraThatKeepsItsOwn) {
    m_cameras.reset();
    m_wire.Ip("addr add 192.168.77.50/24 dev c0");
    const HostileDevice device(
        m_wire, Ip("192.168.77.50"), [](HostileDevice& self, const HostileDevice::Request& request) {
            if (request.Is(Platform::Gvcp::MessageId::ForceIpCmd)) {
                self.Answer(request, Platform::Gvcp::EncodeForceIpAck(request.header.requestId).GetBytes());
            } else if (request.Is(Platform::Gvcp::MessageId::DiscoveryCmd)) {
                self.Answer(request, HostileDevice::DiscoveryAck(request, 0x020000000009, Ip("192.168.77.100")));
            }
        });
    const ProgramResult result = Run({"force-ip", "--mac", "02:00:00:00:00:09", "--ip", "192.168.77.50", "--force"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("acknowledged 192.168.77.50/24, but answers at 192.168.77.100")));
}

TEST_F(GigEAddresses, OfACameraThatARouteLeadsToAreLeftAloneAndTheRouteIsTheReason) {
    auto options = Camera("10.9.9.9", 9);
    options.gateway = Ip("10.9.9.1");  // or it would know no way back
    AddCamera(options);
    m_wire.Ip("route add 192.168.77.1/32 dev c0");
    m_host.Ip("route add 10.9.9.9/32 dev h0");
    EXPECT_EQ(Run({"auto-ip", "--dry-run"}).output,
              "camera 9 (02:00:00:00:00:09): 10.9.9.9/24 stays\n"
              "    it is not in the subnet of h0, 192.168.77.1/24, but has a route there\n");
}

TEST_F(GigEAddresses, AreNotSaidToBeGivenByACameraThatOnlyClaimsToHaveThem) {
    const HostileDevice device = MakeClaimant(ForcedAddress);
    const ProgramResult result = Run({"auto-ip"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("10.9.9.9/24 could not be changed"), HasSubstr("it says that it has 192.168.77."),
                      HasSubstr("/24, but does not answer there")));
}

TEST_F(GigEAddresses, AreWaitedForWhenTheCameraBeginsAnewAndItsAcknowledgeIsLost) {
    m_cameras.reset();
    m_wire.Ip("addr add 192.168.77.50/24 dev c0");
    std::uint32_t address = Ip("10.9.9.9");
    std::uint32_t from = Ip("192.168.77.50");
    int requestsToMiss = 0;  // more than the command asks in its first look
    const HostileDevice device(
        m_wire, Ip("192.168.77.50"), [&](HostileDevice& self, const HostileDevice::Request& request) {
            if (request.Is(Platform::Gvcp::MessageId::ForceIpCmd)) {
                if (from != ForcedAddress(request)) {
                    address = from = ForcedAddress(request);
                    m_wire.Ip("addr add " + Platform::FormatIp(address) + "/24 dev c0");
                    requestsToMiss = 40;
                }
            } else if (request.Is(Platform::Gvcp::MessageId::DiscoveryCmd) && requestsToMiss-- <= 0) {
                self.AnswerFrom(request, from, 3956, HostileDevice::DiscoveryAck(request, 0x020000000009, address));
            }
        });
    const ProgramResult result = Run({"auto-ip"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("(02:00:00:00:00:09): 10.9.9.9/24 became 192.168.77."));
}

TEST_F(GigEAddresses, AreNamedWhenACameraTakesAnotherThanItWasGiven) {
    const HostileDevice device = MakeClaimant([](const HostileDevice::Request&) { return Ip("10.8.8.8"); });
    const ProgramResult result = Run({"auto-ip"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, AllOf(HasSubstr("10.9.9.9/24 could not be changed"),
                                     HasSubstr("it now answers at 10.8.8.8/24, which it was not given")));
}

// ---- What goes over the wire ---------------------------------------------------------------------------------------

TEST_F(GigEAddresses, AreForcedByOneBroadcastThatAnIndependentDissectorUnderstands) {
    AddCamera("10.9.9.9", 9);
    std::unique_ptr<PacketCapture> capture;
    m_wire.Run([&] { capture = std::make_unique<PacketCapture>("c0"); });
    const ProgramResult result = Run({"force-ip", "--mac", "02:00:00:00:00:09", "--ip", "192.168.77.50", "--mask",
                                      "255.255.255.128", "--gateway", "192.168.77.126"});
    ASSERT_EQ(result.exitStatus, 0) << result.errors;
    const TemporaryFile file;
    m_wire.Run([&] {
        capture->Collect();
        capture->WriteTo(file.GetPath());
    });
    const auto tshark = [&](Words arguments) {
        arguments.insert(arguments.begin(), {"tshark", "-r", file.GetPath()});
        return Nimbrel2::Testing::RunProgram(arguments, TestDeadline).output;
    };
    EXPECT_THAT(tshark({"-Y", "gvcp && (_ws.malformed || _ws.expert.severity >= 0x600000)"}), IsEmpty());
    EXPECT_EQ(tshark({"-Y", "gvcp.cmd.command == 4", "-T", "fields", "-E", "separator=,", "-e", "ip.dst", "-e",
                      "udp.dstport", "-e", "gvcp.cmd.forceip.macaddress", "-e", "gvcp.cmd.forceip.ip", "-e",
                      "gvcp.cmd.forceip.subnetmask", "-e", "gvcp.cmd.forceip.defaultgateway"}),
              "255.255.255.255,3956,02:00:00:00:00:09,192.168.77.50,255.255.255.128,192.168.77.126\n");
    EXPECT_THAT(tshark({"-Y", "gvcp.ack == 5", "-T", "fields", "-e", "ip.src"}), HasSubstr("192.168.77.50"));
}

TEST_F(GigEAddresses, AreNotTouchedByADryRun) {
    AddCamera("10.9.9.9", 9);
    std::unique_ptr<PacketCapture> capture;
    m_wire.Run([&] { capture = std::make_unique<PacketCapture>("c0"); });
    EXPECT_EQ(Run({"auto-ip", "--dry-run"}).exitStatus, 0);
    const TemporaryFile file;
    m_wire.Run([&] {
        capture->Collect();
        capture->WriteTo(file.GetPath());
    });
    const Words tshark{"tshark", "-r", file.GetPath(), "-Y"};
    const auto packets = [&](const std::string& filter) {
        Words words = tshark;
        words.push_back(filter);
        return Nimbrel2::Testing::RunProgram(words, TestDeadline).output;
    };
    EXPECT_THAT(packets("gvcp.cmd.command == 2"), Not(IsEmpty())) << "it was looked for";
    EXPECT_THAT(packets("gvcp.cmd.command == 4"), IsEmpty());
}

// ---- Who holds an independent camera -------------------------------------------------------------------------------

class ControlOfAnIndependentCamera : public GigEAddresses {
protected:
    // Without the simulated cameras: the independent one listens at their port.
    ControlOfAnIndependentCamera() {
        m_cameras.reset();
        m_camera.emplace(m_wire, TestAddress, "7");
        m_camera->SetMac(0x020000007701);
        m_holder.emplace(m_wire);
        EXPECT_TRUE(m_holder->Write(TestAddress, 0x938, 60000)) << "a heartbeat time that no busy machine exceeds";
    }

    void Take(std::uint32_t privilege) { EXPECT_TRUE(m_holder->Write(TestAddress, 0xA00, privilege)); }

    static constexpr char TestAddress[] = "192.168.77.100";
    std::optional<IndependentCamera> m_camera;
    std::optional<RawGvcp> m_holder;
};

/// Answers the register with that status.
Platform::Simulated::ErrorRule Refusing(std::uint32_t address, Platform::Gvcp::Status status) {
    Platform::Simulated::ErrorRule rule;
    rule.address = address;
    rule.status = status;
    return rule;
}

TEST_F(GigEAddresses, OfACameraThatIsBusySayWhyItsHolderIsNotKnown) {
    auto busy = Camera("192.168.77.102", 2);
    busy.faults.errors = {Refusing(0xA00, Platform::Gvcp::Status::Busy)};
    AddCamera(busy);
    auto held = Camera("192.168.77.103", 3);
    held.owner = Platform::Simulated::ControlOwner{{Ip("192.168.77.9"), 5555}, false};
    held.faults.errors = {Refusing(0xA04, Platform::Gvcp::Status::Busy)};
    AddCamera(held);
    auto silent = held;
    silent.address = Ip("192.168.77.104");
    silent.mac = 0x020000000004;
    silent.serialNumber = "4";
    silent.faults.errors = {Refusing(0xA04, Platform::Gvcp::Status::InvalidAddress)};
    AddCamera(silent);

    const ProgramResult unknown = Run({"control", "ip:192.168.77.102"});
    EXPECT_EQ(unknown.exitStatus, 1);
    EXPECT_EQ(unknown.errors, "nimbrel control: camera 2 (GigE) did not say who controls it: busy, try again later\n");
    const ProgramResult notNamed = Run({"control", "ip:192.168.77.103"});
    EXPECT_EQ(notNamed.exitStatus, 0) << notNamed.errors;
    EXPECT_EQ(notNamed.output,
              "Camera 3 is in use by another application, which it did not name: busy, try again later.\n");
    EXPECT_EQ(Run({"control", "ip:192.168.77.104"}).output,
              "Camera 4 is in use by another application, which it does not name.\n");
}

TEST_F(ControlOfAnIndependentCamera, IsFreeWhenNobodyHoldsIt) {
    const ProgramResult result = RunAsNobody({"control", "7", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.output, "{\"available\":true}\n");
}

TEST_F(ControlOfAnIndependentCamera, IsNotFreeWhenAnotherApplicationControlsIt) {
    Take(2);
    EXPECT_EQ(Run({"control", "ip:192.168.77.100", "--json"}).output, "{\"available\":false,\"exclusive\":false}\n");
    const ProgramResult result = Run({"control", "7"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.output, "Camera 7 is in use by another application, which it does not name.\n");
}

TEST_F(ControlOfAnIndependentCamera, IsNotFreeWhenAnotherApplicationHoldsItExclusively) {
    Take(1);
    EXPECT_EQ(Run({"control", "7", "--json"}).output, "{\"available\":false,\"exclusive\":true}\n");
}

TEST_F(ControlOfAnIndependentCamera, IsNotFreeAndTheHolderIsNamedWhenTheCameraTells) {
    EXPECT_TRUE(m_holder->Write(TestAddress, 0xA04, 55555));
    EXPECT_TRUE(m_holder->Write(TestAddress, 0xA14, Ip("192.168.77.99")));
    Take(2);
    EXPECT_EQ(Run({"control", "7", "--json"}).output,
              R"({"available":false,"exclusive":false,"holder":{"ip":"192.168.77.99","port":55555}})"
              "\n");
}

TEST_F(ControlOfAnIndependentCamera, IsNotToldOfACameraThatDoesNotAnswer) {
    ASSERT_EQ(Names(Run({"list", "--json"})).size(), 1u);
    m_camera->Pause();
    const ProgramResult result = Run({"control", "7"});
    m_camera->Continue();
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("no camera has the serial number 7"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
