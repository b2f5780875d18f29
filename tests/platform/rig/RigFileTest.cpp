// SPDX-License-Identifier: Apache-2.0
// Rig files: what they say, and what is wrong with those that are none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "platform/rig/RigFile.h"

namespace Nimbrel2::Platform {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

const char Good[] = R"({
  "name": "good", "description": "all kinds",
  "firewire": [{"name": "fw0", "gapCount": 5,
    "phys": [{"name": "card", "kind": "card", "eui64": "0x01"}, {"name": "cam", "eui64": "11", "vendor": "V", "model": "M", "plugged": false}],
    "cables": [[["card", 0], ["cam", 0]]]}],
  "usb": [{"name": "x", "devices": [{"name": "u", "parent": "x", "port": 1, "serial": "7", "vendorId": "0x1234"}]}],
  "gige": [{"name": "e", "address": "10.0.0.1/8", "cameras": [
    {"name": "g", "mac": "02:00:00:00:00:0A", "address": "10.0.0.2/24", "gateway": "10.0.0.254", "serial": "8",
     "owner": {"address": "10.0.0.3", "port": 5, "exclusive": true}, "answers": {"delayMs": 7}}]}],
  "virtualCameras": [9],
  "timeline": [
    {"at": 0.5, "plug": "cam"}, {"unplug": "u"}, {"after": {"event": "removal", "serial": 7}, "busReset": "fw0"},
    {"move": {"device": "u", "to": "x", "port": 2}}, {"resetStorm": {"bus": "x", "count": 3}}, {"busError": "fw0"},
    {"take": {"camera": "g", "address": "1.2.3.4", "port": 6}}, {"release": "g"},
    {"setAddress": {"camera": "g", "address": "10.0.0.9/16"}}, {"link": {"interface": "e", "up": false}},
    {"answers": {"camera": "g", "lossPercent": 1.5}}, {"fault": {"function": "HAL_UsbGetCameras", "call": 2, "status": 3, "delayMs": 4}}],
  "end": {"cameras": [8, 7]}
})";

TEST(RigFile, ReadsEveryKey) {
    const RigPlan plan = ParseRig(Good, "good.json");
    EXPECT_EQ(plan.name, "good");
    EXPECT_EQ(plan.rig.fireWire.at(0).gapCount, 5U);
    EXPECT_EQ(plan.rig.fireWire.at(0).phys.at(1).eui64, 0x11U);
    EXPECT_EQ(plan.rig.usb.at(0).devices.at(0).vendorId, 0x1234);
    const GigECameraDescription& camera = plan.rig.gigE.at(0).cameras.at(0);
    EXPECT_EQ(camera.options.mac, 0x02000000000AU);
    EXPECT_EQ(camera.options.address, 0x0A000002U);
    EXPECT_EQ(camera.options.subnetMask, 0xFFFFFF00U);
    EXPECT_EQ(plan.rig.gigE.at(0).subnetMask, 0xFF000000U);
    EXPECT_TRUE(camera.options.owner->exclusive);
    EXPECT_EQ(camera.options.faults.delayMinimum.count(), 7);
    ASSERT_EQ(plan.timeline.size(), 12U);
    EXPECT_EQ(plan.timeline[0].at->count(), 500);
    EXPECT_EQ(plan.timeline[2].after->serialNumber, 7U);
    EXPECT_EQ(std::get<AddressStep>(plan.timeline[8].action).subnetMask, 0xFFFF0000U);
    EXPECT_EQ(std::get<RigFault>(plan.timeline[11].action).status, 3U);
    EXPECT_EQ(plan.timeline[11].pointer, "/timeline/11");
    EXPECT_THAT(*plan.finalSerialNumbers, ElementsAre(7U, 8U)) << "ascending";
}

TEST(RigFile, DescribesEveryActionInWords) {
    for (const RigStep& step : ParseRig(Good, "good.json").timeline) {
        EXPECT_FALSE(Describe(step.action).empty());
    }
}

TEST(RigFile, TellsWhatAFaultDoes) {
    EXPECT_EQ(Describe(RigFault{"HAL_X", 2, 7, {}}), "call 2 of HAL_X from now on answers 7");
    EXPECT_EQ(Describe(RigFault{"HAL_X", 1, HAL_OK, std::chrono::milliseconds(5)}),
              "call 1 of HAL_X from now on takes 5 ms longer");
    EXPECT_EQ(Describe(RigFault{"HAL_X", 1, 7, std::chrono::milliseconds(5)}),
              "call 1 of HAL_X from now on answers 7 and takes 5 ms longer");
}

TEST(RigFile, CarriesASchemaAndARigOfItsOwn) {
    EXPECT_THAT(std::string(RigSchema()), HasSubstr("json-schema.org"));
    for (const std::string& function : RigFaultFunctions()) {
        EXPECT_THAT(std::string(RigSchema()), HasSubstr('"' + function + '"'));
    }
    EXPECT_NO_THROW(ParseRig(BuiltInRig(), "built-in"));
}

struct BadFile {
    const char* name;
    const char* from;  // What in the good file is replaced ...
    const char* to;    // ... by this.
    const char* pointer;
    const char* reason;
};

class RigFileRefuses : public testing::TestWithParam<BadFile> {};

TEST_P(RigFileRefuses, AndNamesFilePlaceAndReason) {
    std::string text = Good;
    const std::size_t place = text.find(GetParam().from);
    ASSERT_NE(place, std::string::npos);
    text.replace(place, std::string(GetParam().from).size(), GetParam().to);
    try {
        ParseRig(text, "bad.json");
        FAIL() << "was taken for a rig";
    } catch (const RigFileError& error) {
        const std::string where = *GetParam().pointer == '\0' ? "" : std::string(GetParam().pointer) + ": ";
        EXPECT_THAT(error.what(), StartsWith("bad.json: " + where));
        EXPECT_THAT(error.what(), HasSubstr(GetParam().reason));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, RigFileRefuses,
    testing::Values(
        BadFile{"NoJson", R"("name": "good",)", R"("name": "good")", "", "line 2"},
        BadFile{"UnknownKey", R"("gapCount")", R"("gap_count")", "/firewire/0/gap_count", "unknown key"},
        BadFile{"UnknownTopKey", R"("name": "good")", R"("nom": "good")", "/nom", "unknown key"},
        BadFile{"KeyThatNeedsEscaping", R"("name": "good")", R"("a/b~": 1)", "/a~1b~0", "unknown key"},
        BadFile{"RepeatedKey", R"("gapCount": 5)", R"("gapCount": 5, "gapCount": 6)", "/firewire/0/gapCount",
                "stands twice"},
        BadFile{"NumberBeyondAllNumbers", R"("at": 0.5)", R"("at": 1e400)", "", "number overflow"},
        BadFile{"MissingKey", R"("parent": "x", )", "", "/usb/0/devices/0", "\"parent\" is missing"},
        BadFile{"WrongKind", R"("kind": "card")", R"("kind": "cart")", "/firewire/0/phys/0/kind", "not \"cart\""},
        BadFile{"TextForNumber", R"("gapCount": 5)", R"("gapCount": "5")", "/firewire/0/gapCount",
                "not the text \"5\""},
        BadFile{"NumberForText", R"("name": "good")", R"("name": 5)", "/name", "a text is wanted"},
        BadFile{"NegativeNumber", R"("gapCount": 5)", R"("gapCount": -5)", "/firewire/0/gapCount", "not -5"},
        BadFile{"NumberTooLarge", R"("gapCount": 5)", R"("gapCount": 64)", "/firewire/0/gapCount", "0 to 63"},
        BadFile{"BadHex", R"("eui64": "11")", R"("eui64": "1g")", "/firewire/0/phys/1/eui64", "not the text \"1g\""},
        BadFile{"HexTooLong", R"("0x1234")", R"("0x12345")", "/usb/0/devices/0/vendorId", "up to 4"},
        BadFile{"BadMac", "02:00:00:00:00:0A", "02:00:00:00:00", "/gige/0/cameras/0/mac", "a MAC address"},
        BadFile{"ZeroMac", "02:00:00:00:00:0A", "00:00:00:00:00:00", "/gige/0/cameras/0/mac", "needs a MAC"},
        BadFile{"BadAddress", "10.0.0.2/24", "10.0.0.256/24", "/gige/0/cameras/0/address", "an IPv4 address"},
        BadFile{"NoPrefix", "10.0.0.2/24", "10.0.0.2", "/gige/0/cameras/0/address", "prefix length"},
        BadFile{"BadPrefix", "10.0.0.2/24", "10.0.0.2/33", "/gige/0/cameras/0/address", "prefix length"},
        BadFile{"BadGateway", "10.0.0.254", "10.0.0", "/gige/0/cameras/0/gateway", "an IPv4 address"},
        BadFile{"SameNameOnTwoBuses", R"("name": "u")", R"("name": "cam")", "/usb/0/devices/0/name", "taken"},
        BadFile{"OneEndedCable", R"([[["card", 0], ["cam", 0]]])", R"([[["card", 0]]])", "/firewire/0/cables/0",
                "two ends"},
        BadFile{"NoCableEnd", R"(["cam", 0])", R"(["cam"])", "/firewire/0/cables/0/1", "a cable end"},
        BadFile{"TextBeyondItsField", R"("serial": "8")", R"("serial": "12345678901234567")",
                "/gige/0/cameras/0/serial", "at most 16 bytes"},
        BadFile{"TooManyDigits", "10.0.0.2/24", "10.0.0.0002/24", "/gige/0/cameras/0/address", "an IPv4 address"},
        BadFile{"TwoForms", R"("gapCount": 5,)", R"("selfIds": ["807f8942"],)", "/firewire/0/phys",
                "beside \"selfIds\""},
        BadFile{"EmptyRawForm", R"("devices": [)", R"("records": [], "devices": [)", "/usb/0/devices",
                "beside \"records\""},
        BadFile{"PlacesWithoutRawForm", R"("devices": [)", R"("placedCameras": [], "devices": [)",
                "/usb/0/placedCameras", "only beside \"records\""},
        BadFile{"PlugsNobody", R"("plug": "cam")", R"("plug": "com")", "/timeline/0/plug", "no device named \"com\""},
        BadFile{"ResetsNoBus", R"("busReset": "fw0")", R"("busReset": "fw1")", "/timeline/2/busReset", "named \"fw1\""},
        BadFile{"MovesNowhere", R"("to": "x")", R"("to": "y")", "/timeline/3/move/to", "named \"y\""},
        BadFile{"TakesNoGigECamera", R"("take": {"camera": "g")", R"("take": {"camera": "cam")",
                "/timeline/6/take/camera", "no GigE camera named \"cam\""},
        BadFile{"NoInterface", R"("interface": "e")", R"("interface": "f")", "/timeline/9/link/interface",
                "named \"f\""},
        BadFile{"NoFunction", "HAL_UsbGetCameras", "HAL_Nothing", "/timeline/11/fault/function", "\"HAL_Nothing\""},
        BadFile{"PlugsTwice", R"("busReset": "fw0")", R"("plug": "cam")", "/timeline/2/plug", "plugged in already"},
        BadFile{"MovesToAPortThatIsNotThere", R"("port": 2})", R"("port": 9})", "/timeline/3/move", "has no port 9"},
        BadFile{"NoAction", R"({"release": "g"})", "{}", "/timeline/7", "exactly one action, it has none"},
        BadFile{"TwoActions", R"({"release": "g"})", R"({"release": "g", "plug": "cam"})", "/timeline/7", "it has 2"},
        BadFile{"AtAndAfter", R"("at": 0.5)", R"("at": 0.5, "after": {"event": "reset"})", "/timeline/0", "not both"},
        BadFile{"TimeOutOfRange", R"("at": 0.5)", R"("at": -1)", "/timeline/0/at", "not -1"},
        BadFile{"TimeThatGoesBack", R"({"unplug": "u"})", R"({"at": 0.25, "unplug": "u"})", "/timeline/1/at",
                "0.25 s is before an earlier step, which is at 0.5 s"},
        BadFile{"ResetOfACamera", R"("event": "removal")", R"("event": "reset")", "/timeline/2/after/serial",
                "no serial number"},
        BadFile{"GroupMac", "02:00:00:00:00:0A", "01:00:5e:00:00:0A", "/gige/0/cameras/0/mac", "of a group"},
        BadFile{"BroadcastMac", "02:00:00:00:00:0A", "ff:ff:ff:ff:ff:ff", "/gige/0/cameras/0/mac", "of a group"},
        BadFile{"NoAddress", "10.0.0.1/8", "0.0.0.0/8", "/gige/0/address", "nobody's"},
        BadFile{"TakenByNobody", R"("address": "1.2.3.4")", R"("address": "0.0.0.0")", "/timeline/6/take/address",
                "nobody's"},
        BadFile{"MovesToAPortOfAnInterface", R"({"device": "u", "to": "x", "port": 2})",
                R"({"device": "g", "to": "e", "port": 2})", "/timeline/3/move/port", "has no ports"},
        BadFile{"MovesByASecondPlug", R"({"device": "u", "to": "x", "port": 2})",
                R"({"device": "u", "to": "x", "port": 2, "ownPort": 0})", "/timeline/3/move/ownPort",
                "only a FireWire"},
        BadFile{"MovesTheCard", R"({"device": "u", "to": "x", "port": 2})", R"({"device": "card", "to": "cam"})",
                "/timeline/3/move", "the computer's own card"},
        BadFile{"MovesOntoACamera", R"({"device": "u", "to": "x", "port": 2})",
                R"({"device": "u", "to": "u", "port": 2})", "/timeline/3/move", "one of its hubs"},
        BadFile{"EndOfNothing", R"("end": {"cameras": [8, 7]})", R"("end": {})", "/end", "\"cameras\" is missing"},
        BadFile{"NullForBoolean", R"("exclusive": true)", R"("exclusive": null)", "/gige/0/cameras/0/owner/exclusive",
                "true or false is wanted, not null"},
        BadFile{"ArrayForText", R"("name": "good")", R"("name": [5])", "/name", "a text is wanted, not an array"},
        BadFile{"FractionForWhole", R"("gapCount": 5)", R"("gapCount": 5.5)", "/firewire/0/gapCount", "not 5.5"},
        BadFile{"LossOutOfRange", "1.5", "101", "/timeline/10/answers/lossPercent", "not 101"}),
    [](const testing::TestParamInfo<BadFile>& row) { return row.param.name; });

std::string ErrorOf(const std::string& text) {
    try {
        ParseRig(text, "bad.json");
    } catch (const RigFileError& error) {
        return error.what();
    }
    return "";
}

TEST(RigFile, RefusesAMillionNestedArraysWithoutFallingOver) {
    EXPECT_THAT(ErrorOf(std::string(1000000, '[')), HasSubstr("nested deeper than 16 levels"));
    EXPECT_THAT(ErrorOf(R"({"a": [0, [[[[[[[[[[[[[[[1]]]]]]]]]]]]]]]]})"),
                StartsWith("bad.json: /a/1/0/0/0/0/0/0/0/0/0/0/0/0/0/0: nested deeper"));
}

// Were it to look back at all of them at each, this would take many minutes.
TEST(RigFile, ReadsTwoHundredThousandElementsInOneGo) {
    std::string text = R"({"firewire": [{"name": "f", "cables": [[])";
    for (int i = 0; i < 200000; ++i) {
        text += ",[]";
    }
    EXPECT_THAT(ErrorOf(text + "]}]}"), StartsWith("bad.json: /firewire/0/cables/0: "));
}

TEST(RigFile, RefusesEveryTruncationOfAGoodFile) {
    const std::string text = Good;
    for (std::size_t length = 0; length < text.size(); length += 7) {
        EXPECT_NE(ErrorOf(text.substr(0, length)), "") << length;
    }
}

TEST(RigFile, RefusesMoreVirtualCamerasThanAListingHolds) {
    std::string text = "[1";
    for (int i = 0; i < 255; ++i) {
        text += ",1";
    }
    EXPECT_EQ(ErrorOf(R"({"virtualCameras": )" + text + "]}"), "");
    EXPECT_THAT(ErrorOf(R"({"virtualCameras": )" + text + ",1]}"), StartsWith("bad.json: /virtualCameras: "));
}

TEST(RigFile, RefusesAnEndlessTimeline) {
    std::string text = R"({"usb": [{"name": "x"}], "timeline": [{"busReset": "x"})";
    for (int i = 1; i < 10000; ++i) {
        text += R"(,{"busReset": "x"})";
    }
    EXPECT_EQ(ErrorOf(text + "]}"), "");
    EXPECT_THAT(ErrorOf(text + R"(,{"busReset": "x"}]})"), HasSubstr("/timeline: a timeline has at most 10000 steps"));
}

TEST(RigFile, RefusesWhatIsNoObject) {
    EXPECT_THAT(ErrorOf("[]"), HasSubstr("an object is wanted, not an array"));
    EXPECT_THAT(ErrorOf("null"), HasSubstr("an object is wanted, not null"));
}

TEST(RigFile, TakesWholeNumbersHoweverTheyAreWritten) {
    const auto gapCount = [](const std::string& number) {
        const std::string phys = R"("phys": [{"name": "c", "kind": "card", "eui64": 1e1}])";
        const std::string text = R"({"firewire": [{"name": "b", "gapCount": )" + number + ", " + phys + "}]}";
        return ParseRig(text, "whole.json").rig.fireWire.at(0).gapCount;
    };
    EXPECT_EQ(gapCount("10.0"), 10U);
    EXPECT_EQ(gapCount("1e1"), 10U);
    EXPECT_EQ(gapCount("-0"), 0U);
}

TEST(RigFile, ShowsOnlyTheBeginningOfALongKeyOrValue) {
    const std::string veryLong(100000, 'k');
    EXPECT_EQ(ErrorOf("{\"" + veryLong + "\": 1}"), "bad.json: /" + std::string(60, 'k') + "...: unknown key");
    EXPECT_LT(ErrorOf("{\"" + veryLong + "\": 1, \"" + veryLong + "\": 2}").size(), 500U);
    EXPECT_LT(ErrorOf(R"({"name": 1, "description": ")" + veryLong + "\"}").size(), 500U);
    EXPECT_LT(ErrorOf(R"({"timeline": [{"plug": ")" + veryLong + "\"}]}").size(), 500U);
    EXPECT_LT(ErrorOf("{\"" + veryLong + "\" 1}").size(), 500U) << "which the parser has read last";
    std::string accents;
    for (int i = 0; i < 100; ++i) {
        accents += "\u00e9";
    }
    EXPECT_THAT(ErrorOf("{\"" + accents + "\": 1}"), HasSubstr("\u00e9...: ")) << "between characters";
    EXPECT_THAT(ErrorOf("{\"k" + accents + "\": 1}"), HasSubstr("\u00e9...: "));
}

TEST(RigFile, TellsWhereItIsNestedTooDeeplyOrAKeyStandsTwice) {
    EXPECT_THAT(ErrorOf(R"({"gige": [{"name": {"a": )" + std::string(20, '[') + std::string(20, ']') + "}}]}"),
                StartsWith("bad.json: /gige/0/name/a/0/0"));
    EXPECT_THAT(ErrorOf(R"({"gige": [{}, {"name": 1, "name": 2}]})"),
                StartsWith("bad.json: /gige/1/name: the key \"name\" stands twice"));
}

TEST(RigFile, HasEveryFunctionThatCanFailInItsSchema) {
    const nlohmann::json schema = nlohmann::json::parse(RigSchema());
    const nlohmann::json& fault = schema.at("$defs").at("step").at("properties").at("fault");
    EXPECT_EQ(fault.at("properties").at("function").at("enum").get<std::vector<std::string>>(), RigFaultFunctions());
}

class RigFileOnDisk : public testing::Test {
protected:
    ~RigFileOnDisk() override { std::remove(m_path.c_str()); }

    std::string ReadError() const {
        try {
            ReadRigFile(m_path);
        } catch (const RigFileError& error) {
            return error.what();
        }
        return "";
    }

    const std::string m_path = testing::TempDir() + "rig-" + std::to_string(getpid()) + ".json";
};

TEST_F(RigFileOnDisk, IsRead) {
    std::ofstream(m_path) << Good;
    EXPECT_EQ(ReadRigFile(m_path).name, "good");
}

TEST_F(RigFileOnDisk, ThatIsNotThereIsNamed) {
    EXPECT_EQ(ReadError(), m_path + ": cannot be opened: No such file or directory");
}

TEST_F(RigFileOnDisk, OfAHundredMegabytesIsRefused) {
    std::ofstream(m_path).close();
    ASSERT_EQ(truncate(m_path.c_str(), 100 << 20), 0);
    EXPECT_EQ(ReadError(), m_path + ": is larger than 16 MiB");
}

}  // namespace
}  // namespace Nimbrel2::Platform
