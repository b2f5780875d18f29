// SPDX-License-Identifier: Apache-2.0
// `nimbrel list` on scripted buses: what it prints, how it ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

const Words TestOneOfEach{"1394 11 Mill Grinder", "usb 22 5000 Mill Planer", "usb 23 480 Mill Saw",
                          "gige 44 10.1.2.3 Mill Drill\\sX", "device 0x00010203 7"};

// No byte that a terminal acts upon.
bool IsHarmless(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' && c < '\x7f'); });
}

TEST(ListAsJson, HasAnObjectPerCameraWithItsMembersInOrder) {
    const ProgramResult result = ScriptedComputer(TestOneOfEach).Run({"list", "--json"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    Json json = Json::parse(result.output);
    for (Json& camera : json["cameras"]) {
        EXPECT_THAT(camera["guid"].get<std::string>(), MatchesRegex("([0-9a-f]{8}-){3}[0-9a-f]{8}"));
        camera["guid"] = "";
    }
    for (Json& device : json["devices"]) {
        EXPECT_THAT(device["guid"].get<std::string>(), MatchesRegex("([0-9a-f]{8}-){3}[0-9a-f]{8}"));
        device["guid"] = "";
    }
    EXPECT_EQ(
        json.dump(),
        R"({"cameras":[)"
        R"({"index":0,"serial":11,"serial_text":"11","guid":"","interface":"1394","vendor":"Mill","model":"Grinder"},)"
        R"({"index":1,"serial":22,"serial_text":"22","guid":"","interface":"USB3","vendor":"Mill","model":"Planer","speed":5000},)"
        R"({"index":2,"serial":23,"serial_text":"23","guid":"","interface":"USB2","vendor":"Mill","model":"Saw","speed":480},)"
        R"({"index":3,"serial":44,"serial_text":"44","guid":"","interface":"GigE","vendor":"Mill","model":"Drill X",)"
        R"("location":"eth0","ip":"10.1.2.3","mac":"02:00:0a:01:02:03","control":"free"}],)"
        R"("devices":[{"index":0,"guid":"","interface":"1394"}],"searched":["1394","usb","gige"]})");
}

TEST(ListAsJson, GivesEachCameraAGuidOfItsOwnThatStays) {
    const Words script{"gige A1 10.0.0.1 V M", "gige A2 10.0.0.2 V M"};
    const std::string first = ScriptedComputer(script).Run({"list", "--json"}).output;
    const Json json = Json::parse(first);
    EXPECT_NE(json["cameras"][0]["guid"], json["cameras"][1]["guid"]);
    EXPECT_EQ(first, ScriptedComputer(script).Run({"list", "--json"}).output);
}

TEST(ListAsJson, IsADocumentWithEmptyListsWhenNothingIsAttached) {
    const ProgramResult result = ScriptedComputer().Run({"list", "--json"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(Json::parse(result.output).dump(), R"({"cameras":[],"devices":[],"searched":["1394","usb","gige"]})");
    EXPECT_THAT(result.errors, IsEmpty());
}

TEST(ListAsJson, StaysValidAndHarmlessWhateverTheCameraSends) {
    const ProgramResult result =
        ScriptedComputer({R"(gige \xff1 10.0.0.1 \x1b[2J"\x5c\x07 \xc3\xa4\x7f\xc2\x9b\xe2\x80\xae\xed\xa0\x80)"})
            .Run({"list", "--json"});
    EXPECT_TRUE(IsHarmless(result.output)) << result.output;
    const Json camera = Json::parse(result.output)["cameras"][0];
    EXPECT_EQ(camera["serial_text"], "\uFFFD1");
    EXPECT_THAT(camera["vendor"].get<std::string>(), HasSubstr("\x1b[2J\"\\"));
    EXPECT_THAT(camera["model"].get<std::string>(), HasSubstr("\u00e4"));
}

TEST(ListForPeople, IsAnAlignedTable) {
    const ProgramResult result = ScriptedComputer(TestOneOfEach).Run({"list"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    const Words lines = Lines(result.output);
    ASSERT_EQ(lines.size(), 11u) << result.output;
    EXPECT_THAT(Words(lines.begin(), lines.begin() + 9), ElementsAre("#  SERIAL  BUS   ADDRESS   VENDOR  MODEL",    //
                                                                     "0      11  1394            Mill    Grinder",  //
                                                                     "1      22  USB3            Mill    Planer",   //
                                                                     "2      23  USB2            Mill    Saw",      //
                                                                     "3      44  GigE  10.1.2.3  Mill    Drill X",  //
                                                                     "",                                            //
                                                                     "4 cameras",                                   //
                                                                     "",                                            //
                                                                     "IEEE 1394 devices other than cameras:"));
}

TEST(ListForPeople, ShowsTheSerialTextWhereItSaysMoreThanTheNumber) {
    const std::string output =
        ScriptedComputer({"gige 12AB 10.0.0.1 V M", "gige 13 10.0.0.2 V M"}).Run({"list"}).output;
    EXPECT_THAT(Lines(output), ::testing::IsSupersetOf({"#  SERIAL  SERIAL TEXT  BUS   ADDRESS   VENDOR  MODEL",
                                                        "0      12  12AB         GigE  10.0.0.1  V       M"}));
}

TEST(ListForPeople, FitsTheColumnsOfTheTerminalWithTheLongestTexts) {
    const std::string longText(32, 'W');
    const Words script{"gige 4294967295ABCDEF 255.255.255.255 " + longText + " " + longText,
                       "usb 4294967295 5000 " + longText + longText + " " + longText};
    for (const std::size_t columns : {80, 72}) {
        const ProgramResult result = ScriptedComputer(script).RunWith({"COLUMNS=" + std::to_string(columns)}, {"list"});
        for (const std::string& line : Lines(result.output)) {
            EXPECT_LE(line.size(), columns) << line;
        }
        EXPECT_THAT(result.output, AllOf(HasSubstr("255.255.255.255"), HasSubstr("WWW...")));
    }
    const std::string narrow = ScriptedComputer(script).RunWith({"COLUMNS=40"}, {"list"}).output;
    EXPECT_THAT(narrow, AllOf(HasSubstr("Camera 1\n"), HasSubstr("  model          " + longText + "\n")))
        << "a paragraph per camera where a table has no room";
}

TEST(ListForPeople, CutsNothingInAPipe) {
    const std::string longText(63, 'W');
    EXPECT_THAT(ScriptedComputer({"usb 1 5000 " + longText + " " + longText}).Run({"list"}).output,
                HasSubstr(longText + "  " + longText + "\n"));
}

TEST(ListForPeople, HasTheColumnsThatAreWanted) {
    EXPECT_THAT(
        Lines(ScriptedComputer(TestOneOfEach).Run({"list", "--columns", "model,serial,mac,location,speed"}).output),
        ::testing::IsSupersetOf({"MODEL    SERIAL  MAC                LOCATION       SPEED",
                                 "Planer       22                                 5 Gbit/s",
                                 "Drill X      44  02:00:0a:01:02:03  eth0"}));
}

TEST(ListForPeople, HasColoursOnTerminalsUnlessToldOtherwise) {
    const std::string plain = ScriptedComputer(TestOneOfEach).Run({"list"}).output;
    EXPECT_THAT(plain, Not(HasSubstr("\x1b")));
    EXPECT_THAT(ScriptedComputer(TestOneOfEach).Run({"list", "--color", "always"}).output,
                AllOf(HasSubstr("\x1b[1mSERIAL\x1b[0m"), HasSubstr("\x1b[35mGigE\x1b[0m")));
    EXPECT_THAT(ScriptedComputer(TestOneOfEach).Run({"list", "--color", "always", "--json"}).output,
                Not(HasSubstr("\x1b")));
}

TEST(List, ShowsOnlyTheCamerasThatAreWanted) {
    const auto serials = [](Words filter) {
        filter.insert(filter.begin(), {"list", "--json"});
        const Json json = Json::parse(ScriptedComputer(TestOneOfEach).Run(filter).output);
        std::string text;
        for (const Json& camera : json["cameras"]) {
            text += " " + camera["serial_text"].get<std::string>();
        }
        return text;
    };
    EXPECT_EQ(serials({"--model", "dRILL"}), " 44");
    EXPECT_EQ(serials({"--vendor", "mil"}), " 11 22 23 44");
    EXPECT_EQ(serials({"--serial", "23", "--serial", "11"}), " 11 23");
    EXPECT_EQ(serials({"--vendor", "mill", "--model", "saw", "--model", "planer"}), " 22 23");
    EXPECT_EQ(serials({"--vendor", "nobody"}), "");
    const ProgramResult none = ScriptedComputer(TestOneOfEach).Run({"list", "--vendor", "nobody"});
    EXPECT_EQ(none.exitStatus, 0);
    EXPECT_EQ(none.output, "No attached camera matches.\n");
}

TEST(List, IsSortedByAnyColumnInEitherDirection) {
    const auto serials = [](const std::string& keys) {
        const Json json = Json::parse(ScriptedComputer(TestOneOfEach).Run({"list", "--json", "--sort", keys}).output);
        std::string text;
        for (const Json& camera : json["cameras"]) {
            text += " " + camera["serial_text"].get<std::string>();
        }
        return text;
    };
    EXPECT_EQ(serials("-serial"), " 44 23 22 11");
    EXPECT_EQ(serials("model"), " 44 11 22 23");
    EXPECT_EQ(serials("vendor,-speed,serial"), " 22 23 11 44");
}

TEST(List, NamesCamerasThatAreHeardOnAWrongSubnetAndTheCommandThatHelps) {
    const Words script{"heard 9 10.9.9.9"};
    const ProgramResult alone = ScriptedComputer(script).Run({"list"});
    EXPECT_EQ(alone.exitStatus, 0);
    EXPECT_THAT(alone.output,
                AllOf(HasSubstr("No usable cameras found"),
                      HasSubstr("  camera 9 (02:00:0a:09:09:09) at 10.9.9.9/24 on eth0: its address is in another "
                                "subnet; eth0 is on 192.168.77.0/24\n"),
                      HasSubstr("`nimbrel auto-ip` gives that camera an address of the right subnet.\n")));
    EXPECT_THAT(ScriptedComputer({"heard 9 10.9.9.9", "usb 1 480 V M"}).Run({"list"}).output,
                AllOf(HasSubstr("V       M"), HasSubstr("camera 9"), HasSubstr("`nimbrel auto-ip`")));
    EXPECT_THAT(ScriptedComputer(script).Run({"list", "--bus", "usb"}).output, Not(HasSubstr("camera 9")));
}

TEST(ListForPeople, TellsAllThatIsKnownInTheLongForm) {
    const std::string longText(32, 'W');
    const ProgramResult result = ScriptedComputer({"gige 12AB 10.0.0.1 " + longText + " M"}).Run({"list", "--long"});
    EXPECT_THAT(result.output, AllOf(HasSubstr("12\n"), HasSubstr("12AB\n"), HasSubstr("10.0.0.1\n"),
                                     HasSubstr(longText + "\n"), HasSubstr("guid           ")));
}

TEST(ListForPeople, NeverSendsWhatATerminalActsUpon) {
    const Words script{R"(gige \xff1 10.0.0.1 \x1b[2JVendor\x07 M\xc3\xb6del\x7f\xc2\x9b\xe2\x80\xae\xf5)"};
    for (const char* form : {"--bus=gige", "--long"}) {
        const std::string ascii = ScriptedComputer(script).RunWith({"LC_ALL=C"}, {"list", form}).output;
        EXPECT_TRUE(IsHarmless(ascii)) << ascii;
        EXPECT_THAT(ascii, AllOf(HasSubstr("?[2JVendor?"), HasSubstr("M?del????")));
        const std::string utf8 = ScriptedComputer(script).RunWith({"LC_ALL=C.UTF-8"}, {"list", form}).output;
        EXPECT_THAT(utf8, AllOf(HasSubstr("\uFFFD[2JVendor\uFFFD"), HasSubstr("M\u00f6del\uFFFD\uFFFD\uFFFD\uFFFD")));
    }
}

TEST(ListForPeople, SaysWhatToCheckWhenNothingIsFound) {
    const ProgramResult result = ScriptedComputer().Run({"list", "--interface", "lo"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.output, AllOf(HasSubstr("No cameras found on IEEE 1394, USB or GigE."), HasSubstr("power"),
                                     HasSubstr("GigE: searched lo."), HasSubstr("`nimbrel doctor`")));
    EXPECT_THAT(
        ScriptedComputer().Run({"list", "--bus", "usb"}).output,
        AllOf(HasSubstr("No cameras found on USB."), HasSubstr("`nimbrel doctor` finds out"), Not(HasSubstr("GigE"))));
}

TEST(List, ShowsVirtualCamerasWhenAsked) {
    const Words script{"virtual 77 Nobody Nothing"};
    EXPECT_THAT(Json::parse(ScriptedComputer(script).Run({"list", "--json"}).output)["cameras"], IsEmpty());
    const Json cameras = Json::parse(ScriptedComputer(script).Run({"list", "--json", "--virtual"}).output)["cameras"];
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0]["serial"], 77);
}

TEST(List, ShowsTheOtherBusesAndFailsWhenOneCannotBeSearched) {
    const Words script{"gige 1 10.0.0.1 V M", "fail usb 3"};
    const ProgramResult result = ScriptedComputer(script).Run({"list", "--json"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_EQ(Json::parse(result.output)["cameras"].size(), 1u);
    EXPECT_EQ(result.errors, "nimbrel: USB cannot be searched: permission denied\n");
    EXPECT_EQ(ScriptedComputer(script).Run({"list", "--wait", "1"}).exitStatus, 0) << "who was asked for is there";
}

TEST(List, FailsWithTheErrorOfTheBusMasterWhenItDoesNotStart) {
    const ProgramResult result = ScriptedComputer({"gige 1 10.0.0.1 V M", "fail 1394 3"}).Run({"list", "--json"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, AllOf(HasSubstr("nimbrel list: IEEE 1394 cannot be searched: permission denied\n"),
                                     HasSubstr("`--bus usb --bus gige`"), Not(HasSubstr("BusMaster.cpp"))));
}

TEST(List, FailsWhenStandardOutputIsFull) {
    const ScriptedComputer computer;
    const ProgramResult result =
        Nimbrel2::Testing::RunProgram({"sh", "-c", computer.ShellCommandLine("list --json >/dev/full")}, TestDeadline);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, HasSubstr("standard output cannot be written"));
}

TEST(List, IsQuietWhenNobodyReadsIt) {
    const ScriptedComputer computer(TestOneOfEach);
    const ProgramResult result = Nimbrel2::Testing::RunProgram(
        {"bash", "-c", computer.ShellCommandLine("list") + " | true; echo ${PIPESTATUS[0]}"}, TestDeadline);
    EXPECT_EQ(result.output, "0\n");
    EXPECT_THAT(result.errors, IsEmpty());
}

class ListSignal : public ::testing::TestWithParam<int> {};

TEST_P(ListSignal, EndsTheFirstDiscoveryAtOnce) {
    const ScriptedComputer computer({"hold gige"});
    const auto list = computer.Start({"list"});
    ASSERT_TRUE(list->WaitForErrors("listing gige is held", TestDeadline));
    EXPECT_EQ(EndBy(GetParam(), *list), 128 + GetParam());
    EXPECT_THAT(list->GetOutput(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Signals, ListSignal, ::testing::Values(SIGINT, SIGTERM, SIGHUP));

// ---- --wait --------------------------------------------------------------------------------------------------------

TEST(ListWait, EndsAtOnceWhenTheCamerasAreThere) {
    const ProgramResult result =
        ScriptedComputer(TestOneOfEach).Run({"list", "--wait", "44,11,44", "--timeout", "20", "--json"});
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_EQ(Json::parse(result.output)["cameras"].size(), 4u) << "all that is there is listed";
}

TEST(ListWait, EndsWhenTheLastOfTheNamedCamerasArrives) {
    ScriptedComputer computer({"usb 22 5000 V M", "hold gige"});
    const auto list = computer.Start({"list", "--wait", "22,44,45", "--json"});
    ASSERT_TRUE(list->WaitForErrors("listing gige is held", TestDeadline));
    computer.Do("release gige");
    computer.Do("gige 44 10.0.0.1 V M");
    EXPECT_FALSE(list->WaitForOutput("44", milliseconds(300))) << "45 is missing";
    computer.Do("gige 45 10.0.0.2 V M");
    EXPECT_EQ(list->WaitForExit(TestDeadline), 0);
    EXPECT_EQ(Json::parse(list->GetOutput())["cameras"].size(), 3u);
    EXPECT_EQ(list->GetErrors(), "listing gige is held\n") << "no progress in a pipe";
}

TEST(ListWait, NamesTheMissingWhenTheTimeIsOver) {
    const auto start = std::chrono::steady_clock::now();
    const ProgramResult result =
        ScriptedComputer({"usb 22 5000 V M"}).Run({"list", "--wait", "22,44,45", "--timeout", "0.3", "--json"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(300));
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_EQ(result.errors,
              "nimbrel list: after 0.3 s still missing: cameras 44 and 45\n"
              "`nimbrel list` shows what is attached; `nimbrel doctor` finds out why a camera is not seen.\n");
}

TEST(ListWait, SearchesBrieflyUnlessToldOtherwise) {
    EXPECT_THAT(ScriptedComputer({"tell options", "usb 1 480 V M"}).Run({"list", "--wait", "1"}).errors,
                HasSubstr("window=100\n"));
    EXPECT_THAT(ScriptedComputer({"tell options", "usb 1 480 V M"})
                    .Run({"list", "--wait", "1", "--discovery-window", "0.5"})
                    .errors,
                HasSubstr("window=500\n"));
}

TEST(ListWait, EndsOnCtrlC) {
    ScriptedComputer computer({"tell options"});
    const auto list = computer.Start({"list", "--wait", "5"});
    ASSERT_TRUE(list->WaitForErrors("options", TestDeadline));
    EXPECT_EQ(EndBy(SIGINT, *list), 128 + SIGINT);
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
