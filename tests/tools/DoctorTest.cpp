// SPDX-License-Identifier: Apache-2.0
// `nimbrel doctor` on real networks: namespaces with simulated and independent cameras, as root and as nobody.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "tests/support/NetworkNamespace.h"
#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Nimbrel2::Testing::Connect;
using Nimbrel2::Testing::NetworkNamespace;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// h0 (192.168.77.1/24) on a wire to c0 (192.168.77.100/24) of another computer.
class DoctorOnAWire : public ::testing::Test {
protected:
    DoctorOnAWire() {
        Connect(m_host, "h0", m_wire, "c0");
        m_host.Ip("addr add 192.168.77.1/24 dev h0");
        m_wire.Ip("addr add 192.168.77.100/24 dev c0");
        for (const char* which : {"all", "h0"}) {
            m_host.SetSystemControl(std::string("net/ipv4/conf/") + which + "/rp_filter", "0");
        }
    }

    void SimulateCamera(const std::string& address, const std::string& mac, const std::string& serial) {
        m_simulators.push_back(m_wire.StartProgram({RealProgram(), "simulate", "gige", "--interface", "c0", "--address",
                                                    address, "--mac", mac, "--serial", serial}));
        ASSERT_TRUE(m_simulators.back()->WaitForOutput("\n", kDeadline)) << m_simulators.back()->GetErrors();
    }

    void StartIndependentCamera() {
        m_simulators.push_back(m_wire.StartProgram({"arv-fake-gv-camera-0.8", "-i", "192.168.77.100", "-s", "1001"}));
        const auto list =
            m_host.RunProgram({RealProgram(), "list", "--bus", "gige", "--wait", "1001", "--timeout", "20"}, kDeadline);
        ASSERT_EQ(list.exitStatus, 0) << list.errors;
    }

    ProgramResult Run(Words before, const Words& arguments) {
        before.insert(before.end(), {RealProgram(), "doctor", "--bus", "gige", "--discovery-window", "0.3"});
        before.insert(before.end(), arguments.begin(), arguments.end());
        return m_host.RunProgram(before, kDeadline);
    }

    /// The findings of a check. Whether any check of all is wrong must be the exit status.
    std::vector<Json> Findings(const std::string& check, const Words& before = {}) {
        const ProgramResult result = Run(before, {"--json"});
        std::vector<Json> found;
        bool anyWrong = false;
        for (const Json& finding : Json::parse(result.output)) {
            anyWrong = anyWrong || !finding["ok"].get<bool>();
            EXPECT_EQ(finding["cure"].get<std::string>().empty(), finding["ok"].get<bool>());
            if (finding["check"] == check) found.push_back(finding);
        }
        EXPECT_EQ(result.exitStatus, anyWrong ? 1 : 0);
        EXPECT_THAT(result.errors, IsEmpty());
        return found;
    }

    Json OneWrong(const std::string& check, const Words& before = {}) {
        const std::vector<Json> found = Findings(check, before);
        EXPECT_EQ(found.size(), 1u) << check;
        if (found.empty()) return {{"evidence", ""}, {"cure", ""}};
        EXPECT_FALSE(found[0]["ok"].get<bool>()) << found[0].dump();
        return found[0];
    }

    void ExpectFine(const std::string& check, const Words& before = {}) {
        const std::vector<Json> found = Findings(check, before);
        ASSERT_EQ(found.size(), 1u) << check;
        EXPECT_TRUE(found[0]["ok"].get<bool>()) << found[0].dump();
    }

    /// The cure, without sudo: this is root.
    void Apply(const Json& finding) {
        std::string cure = finding["cure"];
        for (std::size_t at = 0; (at = cure.find("sudo ", at)) != std::string::npos;) cure.erase(at, 5);
        const ProgramResult result = m_host.RunProgram({"sh", "-c", cure});
        EXPECT_EQ(result.exitStatus, 0) << cure << ": " << result.errors;
    }

    static Words Nobody() {
        return {"setpriv",        "--reuid=65534",   "--regid=65534",
                "--clear-groups", "--inh-caps=-all", "--bounding-set=-all"};
    }

    NetworkNamespace m_host;
    NetworkNamespace m_wire;
    std::vector<std::unique_ptr<ChildProcess>> m_simulators;
};

TEST_F(DoctorOnAWire, FindsNothingWrongWhereNothingIs) {
    SimulateCamera("192.168.77.102", "02:00:00:00:00:02", "2");
    for (const Words& user : {Words{}, Nobody()}) {
        const ProgramResult result = Run(user, {});
        EXPECT_EQ(result.exitStatus, 0) << result.output << result.errors;
        EXPECT_THAT(result.output, HasSubstr("Nothing is wrong."));
    }
}

TEST_F(DoctorOnAWire, FindsACameraOnAForeignSubnet) {
    SimulateCamera("10.9.9.9", "02:00:00:00:00:09", "9");
    for (const Words& user : {Words{}, Nobody()}) {
        const Json finding = OneWrong("gige.foreign-subnet", user);
        EXPECT_THAT(finding["evidence"].get<std::string>(),
                    AllOf(HasSubstr("10.9.9.9"), HasSubstr("192.168.77.0/24"), HasSubstr("h0")));
        EXPECT_EQ(finding["cure"], "nimbrel auto-ip --serial 9");
    }
}

TEST_F(DoctorOnAWire, FindsTwoInterfacesInOneSubnetAndItsCureHelps) {
    m_host.Ip("link add u0 type veth peer name u1");
    m_host.Ip("link set u0 up");
    m_host.Ip("link set u1 up");
    m_host.Ip("addr add 192.168.77.2/24 dev u0");
    const Json finding = OneWrong("gige.subnet-overlap");
    EXPECT_THAT(finding["evidence"].get<std::string>(), AllOf(HasSubstr("h0"), HasSubstr("u0")));
    Apply(finding);
    ExpectFine("gige.subnet-overlap");
}

TEST_F(DoctorOnAWire, FindsTwoCamerasOnOneAddress) {
    NetworkNamespace second;
    Connect(m_wire, "b1", second, "c1");
    m_wire.Ip("link add name bridge0 type bridge");
    m_wire.Ip("link set bridge0 up");
    m_wire.Ip("addr flush dev c0");
    m_wire.Ip("link set c0 master bridge0");
    m_wire.Ip("link set b1 master bridge0");
    NetworkNamespace first;
    Connect(m_wire, "b2", first, "c2");
    m_wire.Ip("link set b2 master bridge0");
    std::vector<std::unique_ptr<ChildProcess>> cameras;
    for (const auto& [network, name, mac] : {std::tuple{&second, "c1", "1"}, std::tuple{&first, "c2", "2"}}) {
        network->Ip(std::string("addr add 192.168.77.10") + mac + "/24 dev " + name);
        cameras.push_back(
            network->StartProgram({RealProgram(), "simulate", "gige", "--interface", name, "--address", "192.168.77.55",
                                   "--mac", std::string("02:00:00:00:00:0") + mac, "--serial", mac}));
        ASSERT_TRUE(cameras.back()->WaitForOutput("\n", kDeadline)) << cameras.back()->GetErrors();
    }
    // A bridge passes nothing on until its ports have come up.
    const auto bothAnswer = [this] {
        const Words discover{RealProgram(), "discover", "--discovery-window", "0.3", "--json"};
        return Json::parse(m_host.RunProgram(discover, kDeadline).output).size() == 2;
    };
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (!bothAnswer()) ASSERT_LT(std::chrono::steady_clock::now(), end);
    const Json finding = OneWrong("gige.address-conflict");
    EXPECT_THAT(finding["evidence"].get<std::string>(),
                AllOf(HasSubstr("02:00:00:00:00:01"), HasSubstr("02:00:00:00:00:02"), HasSubstr("192.168.77.55")));
    EXPECT_THAT(finding["cure"].get<std::string>(), HasSubstr("nimbrel force-ip --mac 02:00:00:00:00:0"));
}

TEST_F(DoctorOnAWire, FindsAReversePathFilterThatDropsAnswersAndItsCureHelps) {
    SimulateCamera("10.9.9.9", "02:00:00:00:00:09", "9");
    ExpectFine("gige.rp-filter");
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "2");
    OneWrong("gige.rp-filter", Nobody());
    m_host.SetSystemControl("net/ipv4/conf/h0/rp_filter", "1");
    EXPECT_THAT(Findings("gige.foreign-subnet", Nobody()), IsEmpty()) << "nobody can know";
    EXPECT_THAT(OneWrong("gige.foreign-subnet")["evidence"].get<std::string>(), HasSubstr("10.9.9.9"));
    const Json finding = OneWrong("gige.rp-filter");
    EXPECT_THAT(finding["evidence"].get<std::string>(),
                AllOf(HasSubstr("in force is 2"), HasSubstr("camera 9"), HasSubstr("packets meanwhile")));
    Apply(finding);
    ExpectFine("gige.rp-filter");
    OneWrong("gige.foreign-subnet", Nobody());
}

TEST_F(DoctorOnAWire, LeavesAReversePathFilterAloneThatDropsNothing) {
    m_host.SetSystemControl("net/ipv4/conf/all/rp_filter", "1");
    m_host.Ip("route add default via 192.168.77.254 dev h0");
    ExpectFine("gige.rp-filter");
}

TEST_F(DoctorOnAWire, FindsAFirewallThatDropsAnswersAndItsCureHelps) {
    StartIndependentCamera();
    for (const std::string rule :
         {"add table inet wall", "add chain inet wall entry { type filter hook input priority 0; policy drop; }",
          "add rule inet wall entry ct state established,related accept"}) {
        ASSERT_EQ(m_host.RunProgram({"nft", rule}).exitStatus, 0) << rule;
    }
    EXPECT_THAT(OneWrong("gige.firewall", Nobody())["evidence"].get<std::string>(),
                AllOf(HasSubstr("camera 1001"), HasSubstr("asked directly"), HasSubstr("cannot be read")));
    const Json finding = OneWrong("gige.firewall");
    EXPECT_THAT(finding["evidence"].get<std::string>(), AllOf(HasSubstr("on the wire"), HasSubstr("inet wall entry")));
    EXPECT_EQ(finding["cure"], "sudo nft insert rule inet wall entry udp sport 3956 accept");
    Apply(finding);
    ExpectFine("gige.firewall");
    ExpectFine("gige.firewall", Nobody());
}

TEST_F(DoctorOnAWire, FindsAFirewallThatRefusesBroadcasts) {
    for (const std::string rule :
         {"add table inet filter",
          "add chain inet filter output { type filter hook output priority 0; policy drop; }"}) {
        ASSERT_EQ(m_host.RunProgram({"nft", rule}).exitStatus, 0) << rule;
    }
    const Json finding = OneWrong("gige.driver");
    EXPECT_THAT(finding["evidence"].get<std::string>(), HasSubstr("Operation not permitted"));
    Apply(finding);
    ExpectFine("gige.driver");
}

TEST_F(DoctorOnAWire, FindsAnInterfaceThatIsDownAndItsCureHelps) {
    m_host.Ip("link set h0 down");
    const Json finding = OneWrong("gige.interface");
    EXPECT_THAT(finding["evidence"].get<std::string>(), HasSubstr("h0 is down"));
    Apply(finding);
    // The kernel takes a while to notice the link.
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!Findings("gige.interface").at(0)["ok"].get<bool>() && std::chrono::steady_clock::now() < deadline) continue;
    ExpectFine("gige.interface");
}

TEST_F(DoctorOnAWire, FindsAnInterfaceWithoutAnAddressAndItsCureHelps) {
    m_host.Ip("addr flush dev h0");
    const Json finding = OneWrong("gige.interface");
    EXPECT_THAT(finding["evidence"].get<std::string>(), HasSubstr("h0 has no IPv4 address"));
    Apply(finding);
    ExpectFine("gige.interface");
}

TEST_F(DoctorOnAWire, FindsWhoControlsAnIndependentCamera) {
    StartIndependentCamera();
    // Takes control, says who it is in the registers that this camera does not fill by itself, and keeps its heartbeat.
    const auto holder = m_wire.StartProgram({"python3", "-u", "-c", R"(
import socket, struct, time
camera = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
camera.connect(("192.168.77.100", 3956))
def write(address, value):
    camera.send(struct.pack(">BBHHHII", 0x42, 1, 0x82, 8, 1, address, value))
    camera.recv(100)
write(0xA04, 1234)
write(0xA14, 0xC0A84D37)
write(0xA00, 2)
print("held")
while True:
    time.sleep(0.5)
    write(0xA00, 2)
)"});
    ASSERT_TRUE(holder->WaitForOutput("held", kDeadline)) << holder->GetErrors();
    const Json finding = OneWrong("gige.control", Nobody());
    EXPECT_THAT(finding["evidence"].get<std::string>(), HasSubstr("192.168.77.55, port 1234: another computer"));
    EXPECT_THAT(finding["evidence"].get<std::string>(), HasSubstr("camera 1001"));
}

TEST_F(DoctorOnAWire, FindsAnMtuThatCutsWhatCamerasSend) {
    m_host.Ip("link set dev h0 mtu 1280");
    const Json finding = OneWrong("gige.mtu");
    EXPECT_THAT(finding["evidence"].get<std::string>(), HasSubstr("1280"));
    Apply(finding);
    ExpectFine("gige.mtu");
}

TEST(Doctor, SaysThatThereIsNoNetworkAtAll) {
    NetworkNamespace network;
    network.Ip("link set lo down");
    const ProgramResult result = network.RunProgram({RealProgram(), "doctor", "--discovery-window", "0.1"}, kDeadline);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, HasSubstr("no network interface that cameras could be on"));
    EXPECT_THAT(result.output, HasSubstr("1 thing is wrong."));
}

TEST(Doctor, RunsOnASimulatedComputer) {
    const ProgramResult result =
        Nimbrel2::Testing::RunProgram({RealProgram(), "doctor", "--demo", "--json"}, kDeadline);
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    const Json json = Json::parse(result.output);
    EXPECT_GT(json.size(), 5u);
    for (const Json& finding : json) {
        EXPECT_TRUE(finding["ok"].get<bool>());
        EXPECT_EQ(finding.size(), 4u);
    }
}

TEST(Doctor, HasNoChecksForOtherBusesYet) {
    const ProgramResult json =
        Nimbrel2::Testing::RunProgram({RealProgram(), "doctor", "--demo", "--bus", "usb", "--json"}, kDeadline);
    EXPECT_EQ(json.exitStatus, 0);
    EXPECT_EQ(Json::parse(json.output), Json::array());
    const ProgramResult text =
        Nimbrel2::Testing::RunProgram({RealProgram(), "doctor", "--demo", "--bus", "usb"}, kDeadline);
    EXPECT_EQ(text.output, "There are no checks for USB yet.\n");
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
