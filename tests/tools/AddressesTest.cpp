// SPDX-License-Identifier: Apache-2.0
// `nimbrel discover`, `force-ip` and `auto-ip` on simulated computers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// One camera at its place, one with an address of another subnet.
ProgramResult OnWrongSubnet(Words arguments) {
    arguments.insert(arguments.end(), {"--rig", std::string(NIMBREL_RIGS) + "/wrong-subnet.json"});
    return RunReal(arguments);
}

// Two foreign cameras on one interface; what stands in the timeline has happened when the program starts.
std::string TwoStrangers(const std::string& timeline, const std::string& address = "192.168.77.1/24") {
    return R"({"gige": [{"name": "eth0", "address": ")" + address + R"(", "cameras": [
                  {"name": "a", "mac": "02:00:00:00:09:01", "address": "10.9.9.1/8", "serial": "1"},
                  {"name": "b", "mac": "02:00:00:00:09:02", "address": "10.9.9.2/8", "serial": "2"}]}],
               "timeline": [)" +
           timeline + "]}";
}

const char TestTaken[] = R"({"take": {"camera": "b", "address": "10.9.9.200", "port": 50000}})";

std::string Fault(const std::string& function, unsigned int status) {
    return R"({"fault": {"function": ")" + function + R"(", "call": 1, "status": )" + std::to_string(status) + "}}";
}

// ---- discover ------------------------------------------------------------------------------------------------------

TEST(Discover, ShowsCamerasOnAWrongSubnetToo) {
    const ProgramResult result = OnWrongSubnet({"discover"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_THAT(
        Lines(result.output),
        ElementsAre("  SERIAL  MAC                ADDRESS           GATEWAY  VENDOR  MODEL   NAME  GEV  USABLE",
                    "44000001  02:00:00:00:09:01  192.168.77.10/24  none     Cairn   G 2040        2.0  yes",
                    "44000002  02:00:00:00:09:09  10.9.9.9/24       none     Cairn   G 2040        2.0  wrong-subnet",
                    "", "`nimbrel auto-ip` gives that camera an address of the right subnet."));
}

TEST(Discover, PrintsAnObjectWithTheCamerasAsJson) {
    const ProgramResult result = RunReal({"discover", "--demo", "--json"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(
        Json::parse(result.output).dump(),
        R"({"cameras":[{"serial":31000001,"mac":"02:00:00:00:77:0a","ip":"192.168.77.10","subnet":"255.255.255.0",)"
        R"("gateway":"0.0.0.0","vendor":"Cairn","model":"G 2040","name":"gate","version":"2.0","usable":"usable"},)"
        R"({"serial":31000002,"mac":"02:00:00:00:77:0b","ip":"192.168.77.11","subnet":"255.255.255.0",)"
        R"("gateway":"0.0.0.0","vendor":"Cairn","model":"G 2040","name":"belt","version":"2.0","usable":"usable"}]})");
}

TEST(Discover, SaysWhereItLookedWhenNothingAnswers) {
    const RigComputer rig(R"({"gige": [{"name": "eth0", "address": "192.168.77.1/24"}]})");
    EXPECT_EQ(rig.Run({"discover"}).output, "No GigE camera answered on eth0. `nimbrel doctor` finds out why.\n");
    const ProgramResult json = rig.Run({"discover", "--json"});
    EXPECT_EQ(json.exitStatus, 0);
    EXPECT_EQ(Json::parse(json.output).dump(), R"({"cameras":[]})");
}

TEST(Discover, StaysValidAndHarmlessWhateverTheCameraSends) {
    const RigComputer rig(
        R"({"gige": [{"name": "eth0", "address": "192.168.77.1/24", "cameras": [{"name": "a",
             "mac": "02:00:00:00:09:01", "address": "192.168.77.2/24", "serial": "1", "vendor": "\u001b[2J",
             "model": "\u0007\"", "userName": "\u009b", "gateway": "192.168.77.254"}]}]})");
    const std::string text = rig.Run({"discover"}).output;
    EXPECT_EQ(text.find_first_of("\x1b\x07\x9b"), std::string::npos) << text;
    EXPECT_THAT(text, HasSubstr("192.168.77.254"));
    EXPECT_EQ(Json::parse(rig.Run({"discover", "--json"}).output)["cameras"][0]["vendor"], "\x1b[2J");
}

TEST(Discover, FailsWithTheErrorOfTheBusMaster) {
    const ProgramResult result = RigComputer(TwoStrangers(Fault("HAL_GvcpDiscovery", 3))).Run({"discover", "--json"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, HasSubstr("nimbrel discover: GigE cannot be searched: permission denied\nTry again as "
                                         "root: `sudo nimbrel discover --json`.\n"));
}

TEST(Discover, FailsWhenNoInterfaceIsUp) {
    EXPECT_EQ(RigComputer(TwoStrangers(R"({"link": {"interface": "eth0", "up": false}})")).Run({"discover"}).exitStatus,
              1);
}

// ---- force-ip ------------------------------------------------------------------------------------------------------

TEST(ForceIp, SaysDoneOnceTheCameraAnswersThere) {
    const ProgramResult result = OnWrongSubnet({"force-ip", "--mac", "02:00:00:00:09:09", "--ip", "192.168.77.50"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(result.output, "02:00:00:00:09:09 now answers at 192.168.77.50/24.\n");
    EXPECT_THAT(result.errors, IsEmpty());
}

TEST(ForceIp, TakesTheMaskOfTheInterfaceThatHearsTheCamera) {
    const RigComputer rig(TwoStrangers("", "172.20.0.1/20"));
    EXPECT_EQ(rig.Run({"force-ip", "--mac", "02:00:00:00:09:01", "--ip", "172.20.3.3", "--json"}).output,
              R"({"ok":true,"mac":"02:00:00:00:09:01","ip":"172.20.3.3","subnet":"255.255.240.0",)"
              R"("gateway":"0.0.0.0","verified":true})"
              "\n");
}

TEST(ForceIp, TakesMaskAndGatewayOfTheUser) {
    const ProgramResult result = RigComputer(TwoStrangers(""))
                                     .Run({"force-ip", "--mac", "02:00:00:00:09:01", "--ip", "192.168.77.20", "--mask",
                                           "255.255.0.0", "--gateway", "192.168.77.254", "--json"});
    EXPECT_EQ(result.output, R"({"ok":true,"mac":"02:00:00:00:09:01","ip":"192.168.77.20","subnet":"255.255.0.0",)"
                             R"("gateway":"192.168.77.254","verified":true})"
                             "\n");
}

TEST(ForceIp, TakesMaskAndMacInEitherForm) {
    for (const Words& address : {Words{"--ip", "192.168.77.20/16"}, Words{"--ip", "192.168.77.20", "--mask", "/16"},
                                 Words{"--ip", "192.168.77.20", "--mask", "16"}}) {
        Words words{"force-ip", "--mac", "02-00-00-00-09-01", "--json"};
        words.insert(words.end(), address.begin(), address.end());
        EXPECT_EQ(Json::parse(RigComputer(TwoStrangers("")).Run(words).output)["subnet"], "255.255.0.0");
    }
}

TEST(ForceIp, ToAnAddressOutsideAllSubnetsIsVerifiedByNobodyAndDoneOnlyWhenForced) {
    Words words{"force-ip", "--mac", "02:00:00:00:09:09", "--ip", "172.16.0.9"};
    const ProgramResult result = OnWrongSubnet(words);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, HasSubstr("02:00:00:00:09:09 acknowledged 172.16.0.9/24, not verified: no network "
                                         "interface is in a subnet with that address\nWith --force that is enough.\n"));
    words.emplace_back("--force");
    const ProgramResult forced = OnWrongSubnet(words);
    EXPECT_EQ(forced.exitStatus, 0);
    EXPECT_EQ(forced.output, "02:00:00:00:09:09 acknowledged 172.16.0.9/24, not verified.\n");
    words.emplace_back("--json");
    EXPECT_EQ(Json::parse(OnWrongSubnet(words).output)["verified"], false);
}

TEST(ForceIp, ToAnAddressThatACameraHasIsDoneOnlyWhenForced) {
    const ProgramResult result =
        OnWrongSubnet({"force-ip", "--mac", "02:00:00:00:09:09", "--ip", "192.168.77.10", "--force"});
    EXPECT_THAT(result.errors, ::testing::Not(HasSubstr("--ip: 192.168.77.10 is the address")));
}

struct Refusal {
    const char* name;
    Words arguments;
    int exitStatus;
    Words said;
};

std::ostream& operator<<(std::ostream& out, const Refusal& row) { return out << row.name; }

class ForceIpFails : public ::testing::TestWithParam<Refusal> {};

TEST_P(ForceIpFails, WithTheReason) {
    Words arguments{"force-ip"};
    arguments.insert(arguments.end(), GetParam().arguments.begin(), GetParam().arguments.end());
    const ProgramResult result = OnWrongSubnet(arguments);
    EXPECT_EQ(result.exitStatus, GetParam().exitStatus);
    EXPECT_THAT(result.output, IsEmpty());
    for (const std::string& words : GetParam().said) {
        EXPECT_THAT(result.errors, HasSubstr(words));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Command, ForceIpFails,
    ::testing::Values(
        Refusal{"WithoutMac", {"--ip", "192.168.77.50"}, 2, {"--mac is missing"}},
        Refusal{"WithoutIp", {"--mac", "02:00:00:00:09:09"}, 2, {"--ip is missing"}},
        Refusal{
            "MalformedMac", {"--mac", "02:00:00:00:09", "--ip", "192.168.77.50"}, 2, {"--mac", "\"02:00:00:00:09\""}},
        Refusal{"MalformedIp", {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77"}, 2, {"--ip", "\"192.168.77\""}},
        Refusal{"MulticastIp", {"--mac", "02:00:00:00:09:09", "--ip", "239.0.0.1"}, 2, {"--ip", "\"239.0.0.1\""}},
        Refusal{"MaskWithHoles",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.50", "--mask", "255.0.255.0"},
                2,
                {"--mask", "\"255.0.255.0\""}},
        Refusal{"MalformedGateway",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.50", "--gateway", "none"},
                2,
                {"--gateway", "\"none\""}},
        Refusal{"NetworkAddress",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.0"},
                2,
                {"\"192.168.77.0\" is the first or last address of 192.168.77.0/24"}},
        Refusal{"LoopbackAddress",
                {"--mac", "02:00:00:00:09:09", "--ip", "127.0.0.5"},
                2,
                {"--ip: \"127.0.0.5\" is not an address of a host"}},
        Refusal{"MaskOfTwo",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.50/31"},
                2,
                {"--mask: \"255.255.255.254\" leaves no room"}},
        Refusal{"MaskOfOne",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.50", "--mask", "255.255.255.255"},
                2,
                {"--mask: \"255.255.255.255\" leaves no room"}},
        Refusal{"NoMaskAtAll", {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.50", "--mask", "/0"}, 2, {"--mask"}},
        Refusal{"GatewayThatIsTheCamera",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.50", "--gateway", "192.168.77.50"},
                2,
                {"--gateway: \"192.168.77.50\" is not another address of 192.168.77.0/24"}},
        Refusal{"GatewayOutsideTheSubnet",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.50", "--gateway", "192.168.78.1"},
                2,
                {"--gateway: \"192.168.78.1\" is not another address of 192.168.77.0/24"}},
        Refusal{"BroadcastAddress",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.255"},
                2,
                {"\"192.168.77.255\" is the first or last address of 192.168.77.0/24"}},
        Refusal{"AddressOfAnotherCamera",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.10"},
                1,
                {"192.168.77.10 is the address of camera 44000001 (02:00:00:00:09:01)", "--force"}},
        Refusal{"AddressOfThisComputer",
                {"--mac", "02:00:00:00:09:09", "--ip", "192.168.77.1"},
                1,
                {"192.168.77.1 is the address of this computer on eth0"}},
        Refusal{"NoSuchCamera",
                {"--mac", "02:00:00:00:09:08", "--ip", "192.168.77.50"},
                1,
                {"no acknowledge, and no camera with the MAC 02:00:00:00:09:08 answers", "`nimbrel discover`"}},
        Refusal{"NoMaskToBeHad",
                {"--mac", "02:00:00:00:09:08", "--ip", "172.16.0.9"},
                1,
                {"--mask is missing", "02:00:00:00:09:08 does not answer", "172.16.0.9"}}),
    [](const auto& test) { return test.param.name; });

TEST(ForceIp, SaysThatACameraInUseStaysWhereItIs) {
    const ProgramResult result =
        RigComputer(TwoStrangers(TestTaken)).Run({"force-ip", "--mac", "02:00:00:00:09:02", "--ip", "192.168.77.20"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors,
                AllOf(HasSubstr("nimbrel force-ip: no acknowledge: camera 2 (02:00:00:00:09:02) stays at 10.9.9.2/8"),
                      HasSubstr("`nimbrel control mac:02:00:00:00:09:02` shows who holds it.")));
}

TEST(ForceIp, FailsWithTheErrorOfTheBusMaster) {
    const ProgramResult result = RigComputer(TwoStrangers(Fault("HAL_GvcpForceIp", 6)))
                                     .Run({"force-ip", "--mac", "02:00:00:00:09:02", "--ip", "192.168.77.20"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("02:00:00:00:09:02 cannot be given an address: busy, try again later"));
}

// ---- auto-ip -------------------------------------------------------------------------------------------------------

TEST(AutoIp, TellsWhatItChangedAndWhatItLeftAlone) {
    const ProgramResult result = OnWrongSubnet({"auto-ip"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_EQ(result.output,
              "camera 44000001 (02:00:00:00:09:01): 192.168.77.10/24 stays\n"
              "    it is in the subnet of eth0, 192.168.77.1/24\n"
              "camera 44000002 (02:00:00:00:09:09): 10.9.9.9/24 became 192.168.77.13/24\n"
              "    it is not in the subnet of eth0, 192.168.77.1/24\n");
}

TEST(AutoIp, PrintsOneDocumentAsJson) {
    const ProgramResult result = OnWrongSubnet({"auto-ip", "--json"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(Json::parse(result.output).dump(),
              R"({"ok":true,"dry_run":false,"cameras":[)"
              R"({"serial":44000001,"mac":"02:00:00:00:09:01","network_interface":"eth0","ip":"192.168.77.10",)"
              R"("subnet":"255.255.255.0","new_ip":null,"new_subnet":null,"result":"right",)"
              R"("reason":"it is in the subnet of eth0, 192.168.77.1/24"},)"
              R"({"serial":44000002,"mac":"02:00:00:00:09:09","network_interface":"eth0","ip":"10.9.9.9",)"
              R"("subnet":"255.255.255.0","new_ip":"192.168.77.13","new_subnet":"255.255.255.0",)"
              R"("result":"changed","reason":"it is not in the subnet of eth0, 192.168.77.1/24"}]})");
}

TEST(AutoIp, ChangesNothingInADryRunAndTellsWhatItWould) {
    // The listing of the same process would show a change; a rig begins anew with each.
    const ProgramResult result = OnWrongSubnet({"auto-ip", "--dry-run"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, HasSubstr("10.9.9.9/24 would become 192.168.77.13/24\n"
                                         "    it is not in the subnet of eth0, 192.168.77.1/24\n"));
    const Json json = Json::parse(OnWrongSubnet({"auto-ip", "--dry-run", "--json"}).output);
    EXPECT_EQ(json["dry_run"], true);
    EXPECT_EQ(json["cameras"][1]["result"], "would-change");
    EXPECT_EQ(json["cameras"][1]["new_ip"], "192.168.77.13");
}

TEST(AutoIp, ADryRunSendsNoCommand) {
    // Any command that gives an address would fail here.
    const RigComputer rig(TwoStrangers(Fault("HAL_GvcpForceIpAuto", 6) + "," + Fault("HAL_GvcpForceIp", 6)));
    EXPECT_EQ(rig.Run({"auto-ip", "--dry-run"}).exitStatus, 0);
    EXPECT_EQ(rig.Run({"auto-ip"}).exitStatus, 1);
}

TEST(AutoIp, ServesOneCameraBySerialNumber) {
    const Json json =
        Json::parse(RigComputer(TwoStrangers("")).Run({"auto-ip", "--serial", "2", "--json"}).output)["cameras"];
    ASSERT_EQ(json.size(), 1u);
    EXPECT_EQ(json[0]["serial"], 2);
    EXPECT_EQ(json[0]["result"], "changed");
}

TEST(AutoIp, ServesACameraThatHasNoAddressYet) {
    std::string rig = TwoStrangers("");
    rig.replace(rig.find("10.9.9.1/8"), 10, "0.0.0.0/0");
    EXPECT_EQ(Json::parse(RigComputer(rig).Run({"discover", "--json"}).output)["cameras"][0]["usable"], "no-address");
    EXPECT_EQ(Json::parse(RigComputer(rig).Run({"list", "--json"}).output)["cameras"].size(), 0u);
    const Json json = Json::parse(RigComputer(rig).Run({"auto-ip", "--serial", "1", "--json"}).output);
    EXPECT_EQ(json["ok"], true);
    ASSERT_EQ(json["cameras"].size(), 1u);
    EXPECT_EQ(json["cameras"][0]["ip"], "0.0.0.0");
    EXPECT_EQ(json["cameras"][0]["result"], "changed");
    EXPECT_THAT(json["cameras"][0]["new_ip"].get<std::string>(), ::testing::StartsWith("192.168.77."));
}

TEST(AutoIp, RefusesASerialNumberOfTwoCamerasAndNamesBoth) {
    std::string twins = TwoStrangers("");
    twins.replace(twins.find(R"("serial": "2")"), 13, R"("serial": "1")");
    const ProgramResult result = RigComputer(twins).Run({"auto-ip", "--serial", "1"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors,
                HasSubstr("--serial: 2 cameras have the serial number 1: 02:00:00:00:09:01 at 10.9.9.1/8 and "
                          "02:00:00:00:09:02 at 10.9.9.2/8\n`nimbrel force-ip --mac` gives one of them an address.\n"));
}

TEST(AutoIp, ThatFailsForOneCameraServesTheOthersAndSaysSo) {
    const ProgramResult result = RigComputer(TwoStrangers(TestTaken)).Run({"auto-ip"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(result.output,
              "camera 1 (02:00:00:00:09:01): 10.9.9.1/8 became 192.168.77.198/24\n"
              "    it is not in the subnet of eth0, 192.168.77.1/24\n"
              "camera 2 (02:00:00:00:09:02): 10.9.9.2/8 could not be changed\n"
              "    it stays at its old address, most likely because an application holds it\n");
    EXPECT_THAT(result.errors,
                HasSubstr("nimbrel auto-ip: camera 2 (02:00:00:00:09:02) has no address of the right subnet\n"));
    const Json json = Json::parse(RigComputer(TwoStrangers(TestTaken)).Run({"auto-ip", "--json"}).output);
    EXPECT_EQ(json["ok"], false);
    EXPECT_EQ(json["cameras"][0]["result"], "changed");
    EXPECT_EQ(json["cameras"][1]["result"], "failed");
    EXPECT_EQ(json["cameras"][1]["new_ip"], nullptr);
}

TEST(AutoIp, OfOneCameraInUseFailsWithTheTimeOut) {
    const ProgramResult result = RigComputer(TwoStrangers(TestTaken)).Run({"auto-ip", "--serial", "2"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("has no address of the right subnet"));
}

TEST(AutoIp, SaysInADryRunTooWhenNoAddressIsFree) {
    const RigComputer rig(TwoStrangers("", "192.168.77.1/30"));
    const ProgramResult result = rig.Run({"auto-ip", "--dry-run"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, AllOf(HasSubstr("camera 1 (02:00:00:00:09:01): 10.9.9.1/8 would become 192.168.77.2/30"),
                                     HasSubstr("camera 2 (02:00:00:00:09:02): 10.9.9.2/8 could not be changed\n"
                                               "    no address is free in the subnet of eth0, 192.168.77.1/30")));
    EXPECT_THAT(result.errors, HasSubstr("camera 2 (02:00:00:00:09:02) has no address of the right subnet\n"));
}

TEST(AutoIp, FailsForASerialNumberThatNobodyHas) {
    const ProgramResult result = OnWrongSubnet({"auto-ip", "--serial", "5"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("no GigE camera with the serial number 5 answers"));
}

TEST(AutoIp, FindsNothingToDoWithoutCameras) {
    const RigComputer rig(R"({"gige": [{"name": "eth0", "address": "192.168.77.1/24"}]})");
    EXPECT_EQ(rig.Run({"auto-ip"}).output, "No GigE camera answered. `nimbrel doctor` finds out why.\n");
    EXPECT_EQ(Json::parse(rig.Run({"auto-ip", "--json"}).output).dump(), R"({"ok":true,"dry_run":false,"cameras":[]})");
}

TEST(AutoIp, FailsWhenNoInterfaceIsUp) {
    const ProgramResult result =
        RigComputer(TwoStrangers(R"({"link": {"interface": "eth0", "up": false}})")).Run({"auto-ip"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("nimbrel auto-ip: GigE cannot be searched: "));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
