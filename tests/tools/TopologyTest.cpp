// SPDX-License-Identifier: Apache-2.0
// `nimbrel topology` in each of its forms, on rigs and on scripted buses. Forms are judged by others' parsers: JSON by
// nlohmann, DOT by Graphviz, SVG by Python.
#include <cgraph.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;
using ::testing::SizeIs;

const char kNoGuid[] = "00000000-00000000-00000000-00000000";

ProgramResult RunReal(const Words& arguments, const std::string& locale = "C.UTF-8") {
    Words words{"env", "LC_ALL=" + locale, RealProgram()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return Nimbrel2::Testing::RunProgram(words, kDeadline);
}

std::string OutputOf(const Words& arguments) {
    const ProgramResult result = RunReal(arguments);
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    EXPECT_THAT(result.errors, IsEmpty());
    return result.output;
}

std::string RigFile(const std::string& name) { return std::string(NIMBREL_RIGS) + "/" + name; }

class TemporaryFolder {
public:
    TemporaryFolder() {
        if (mkdtemp(m_path.data()) == nullptr) throw std::runtime_error("mkdtemp");
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path = "/tmp/nimbrel-test-XXXXXX";
};

std::string ReadFile(const std::string& name) {
    std::ostringstream text;
    text << std::ifstream(name).rdbuf();
    return text.str();
}

bool IsPlainAscii(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' && c < '\x7f'); });
}

// The node and everything below it, parents first.
std::vector<Json> NodesOf(const Json& node) {
    std::vector<Json> nodes{node};
    for (const Json& child : node["children"]) {
        for (const Json& below : NodesOf(child)) nodes.push_back(below);
    }
    return nodes;
}

// What Graphviz reads in a DOT text: labels of the nodes and of the edges, empty ones left out.
struct Graph {
    explicit Graph(const std::string& dot) {
        Agraph_t* graph = agmemread(dot.c_str());
        if (graph == nullptr) throw std::runtime_error("no DOT: " + dot);
        std::string name = "label";
        for (Agnode_t* node = agfstnode(graph); node != nullptr; node = agnxtnode(graph, node)) {
            nodes.emplace_back(agget(node, name.data()));
            for (Agedge_t* edge = agfstout(graph, node); edge != nullptr; edge = agnxtout(graph, edge)) {
                const char* label = agget(edge, name.data());  // null when no edge has one
                if (label != nullptr && *label != '\0') edgeLabels.emplace_back(label);
            }
        }
        edges = static_cast<std::size_t>(agnedges(graph));
        agclose(graph);
    }

    Words nodes;
    Words edgeLabels;
    std::size_t edges = 0;
};

// The lines of text that an SVG picture shows, as Python's XML parser finds them, a "class" before those of a node.
Words TextsOf(const std::string& svg) {
    const TemporaryFolder folder;
    std::ofstream(folder.File("picture.svg"), std::ios::binary) << svg;
    const char* script =
        "import sys, xml.etree.ElementTree as tree\n"
        "svg = '{http://www.w3.org/2000/svg}'\n"
        "root = tree.parse(sys.argv[1]).getroot()\n"
        "assert root.tag == svg + 'svg', root.tag\n"
        "for group in root.iter(svg + 'g'):\n"
        "    texts = [ascii(text.text)[1:-1] for text in group.findall(svg + 'text')]\n"
        "    print('\\n'.join([group.get('class')] + texts))\n";
    const ProgramResult result =
        Nimbrel2::Testing::RunProgram({"python3", "-c", script, folder.File("picture.svg")}, kDeadline);
    EXPECT_EQ(result.exitStatus, 0) << result.errors << svg;
    return Lines(result.output);
}

// ---- For people ----------------------------------------------------------------------------------------------------

TEST(TopologyForPeople, IsATreeOfAllThreeBusesWithTheirCameras) {
    EXPECT_EQ(OutputOf({"--demo", "topology"}),
              "Computer                                    SERIAL       SPEED\n"
              "├─ IEEE 1394\n"
              "│  └─ PHY 4                                                     3 ports, 1 free\n"
              "│     ├─ port 0: PHY 2                                          6 ports, 3 free\n"
              "│     │  ├─ port 1: Acme Zoom 1394          200705  400 Mbit/s  2 ports, 1 free\n"
              "│     │  └─ port 4: Acme Zoom 1394          200706  400 Mbit/s\n"
              "│     └─ port 2: PHY 3\n"
              "├─ USB 2\n"
              "│  └─ Brightline U2 130                   20000007  480 Mbit/s\n"
              "├─ USB 3\n"
              "│  └─ USB host\n"
              "│     ├─ Hub\n"
              "│     │  └─ Device\n"
              "│     ├─ Device\n"
              "│     └─ Hub\n"
              "│        ├─ port 2: Brightline U3 500     21000101    5 Gbit/s\n"
              "│        └─ Hub\n"
              "│           └─ port 1: Brightline U3 500  21000102    5 Gbit/s\n"
              "└─ GigE\n"
              "   ├─ Cairn G 2040                        31000001    1 Gbit/s  192.168.77.10\n"
              "   └─ Cairn G 2040                        31000002    1 Gbit/s  192.168.77.11\n");
}

TEST(TopologyForPeople, IsDrawnInAsciiWhereTheLocaleHasNothingElse) {
    const ProgramResult result = RunReal({"topology", "--demo", "--bus", "gige"}, "C");
    EXPECT_EQ(result.output,
              "Computer              SERIAL     SPEED\n"
              "`- GigE\n"
              "   |- Cairn G 2040  31000001  1 Gbit/s  192.168.77.10\n"
              "   `- Cairn G 2040  31000002  1 Gbit/s  192.168.77.11\n");
}

TEST(TopologyForPeople, ShowsAChainOfCamerasOneBehindTheOther) {
    EXPECT_EQ(OutputOf({"topology", "--rig", RigFile("firewire-chain.json")}),
              "Computer                          SERIAL       SPEED\n"
              "└─ IEEE 1394\n"
              "   └─ Acme Chain 1                   258  400 Mbit/s  2 ports, 0 free\n"
              "      ├─ port 0: Acme Chain 1        257  400 Mbit/s  2 ports, 0 free\n"
              "      │  └─ port 0: PHY 0                             3 ports, 2 free\n"
              "      └─ port 1: Acme Chain 1        259  400 Mbit/s  2 ports, 0 free\n"
              "         └─ port 1: Acme Chain 1     260  400 Mbit/s  2 ports, 1 free\n");
}

TEST(TopologyForPeople, FitsEightyColumnsWithTheLongestTexts) {
    const std::string longText(63, 'W');
    const ProgramResult result = ScriptedComputer({"usb 4294967295 20000 " + longText + " " + longText,
                                                   "gige 4294967295 255.255.255.255 " + longText + " " + longText})
                                     .RunWith({"LC_ALL=C"}, {"topology"});
    EXPECT_THAT(result.output, AllOf(HasSubstr("255.255.255.255"), HasSubstr("20 Gbit/s"), HasSubstr("WWW...")));
    for (const std::string& line : Lines(result.output)) EXPECT_LE(line.size(), 80u) << line;
}

TEST(TopologyForPeople, NamesCamerasOfWhichNobodyKnowsWhereTheyAre) {
    // These buses have no self-IDs to tell.
    const Words script{"1394 12 V M", "virtual 77 V M", "usb 1 480 V M"};
    EXPECT_THAT(ScriptedComputer(script).Run({"topology"}).output,
                AllOf(HasSubstr("V M"), HasSubstr("\nNot in the tree, for nothing tells where they are: camera 12\n")));
    EXPECT_THAT(ScriptedComputer(script).Run({"topology", "--virtual"}).output, HasSubstr(": cameras 12 and 77\n"));
}

TEST(TopologyForPeople, LeavesOutASpeedThatNobodyKnows) {
    const std::string output = ScriptedComputer({"usb 1 0 V M", "gige 2 10.0.0.1 V M"}).Run({"topology"}).output;
    EXPECT_THAT(output, AllOf(HasSubstr("V M"), HasSubstr("10.0.0.1"), Not(HasSubstr("bit/s"))));
}

TEST(TopologyForPeople, IsTheComputerAloneAndAWordWhenNothingIsAttached) {
    const ProgramResult result = ScriptedComputer().Run({"topology", "--bus", "usb"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_EQ(result.output, "Computer\n\nNo cameras found on USB. `nimbrel list` tells what to check.\n");
}

// ---- JSON ----------------------------------------------------------------------------------------------------------

TEST(TopologyAsJson, HasTheSameSixMembersInEachNodeAndThenWhatIsKnownOfACamera) {
    const Json json = Json::parse(OutputOf({"topology", "--demo", "--json"}));
    EXPECT_EQ(json, Json::parse(OutputOf({"topology", "--demo", "--format", "json"})));
    for (const Json& node : NodesOf(json)) {
        Words members;
        for (const auto& [name, value] : node.items()) members.push_back(name);
        ASSERT_GE(members.size(), 6u);
        EXPECT_THAT(Words(members.begin(), members.begin() + 6),
                    ElementsAre("type", "interface", "id", "guid", "ports", "children"));
        EXPECT_EQ(node.contains("serial"), node["guid"] != kNoGuid) << node;
    }
    EXPECT_EQ(json["type"], "computer");
    EXPECT_EQ(json["interface"], "none");
    EXPECT_EQ(json["ports"].dump(), R"(["child","child","child","child"])");
    const Json& fireWire = json["children"][0];
    EXPECT_EQ(fireWire["type"], "bus");
    EXPECT_EQ(fireWire["interface"], "1394");
    EXPECT_EQ(fireWire["ports"].dump(), R"(["parent","child"])");
    const Json& root = fireWire["children"][0];
    EXPECT_EQ(root["type"], "device");
    EXPECT_EQ(root["id"], 4);
    EXPECT_EQ(root["ports"].dump(), R"(["parent","child","unconnected","child"])");
    Json microscope = root["children"][0]["children"][0];
    microscope["guid"] = "";
    EXPECT_EQ(microscope.dump(),
              R"({"type":"device","interface":"1394","id":0,"guid":"","ports":["parent","unconnected"],"children":[],)"
              R"("port":1,"serial":200705,"serial_text":"0011880000031001","vendor":"Acme","model":"Zoom 1394",)"
              R"("speed":400})");
    Json gate = json["children"][3]["children"][0];
    gate["guid"] = "";
    EXPECT_EQ(gate.dump(), R"({"type":"camera","interface":"GigE","id":0,"guid":"","ports":["parent"],"children":[],)"
                           R"("serial":31000001,"serial_text":"31000001","vendor":"Cairn","model":"G 2040",)"
                           R"("ip":"192.168.77.10","speed":1000})");
}

TEST(TopologyAsJson, PlacesEachListedCameraOnceByItsGuid) {
    std::map<std::string, std::uint32_t> listed;
    const Json list = Json::parse(OutputOf({"list", "--demo", "--json"}));
    for (const Json& camera : list["cameras"]) {
        listed[camera["guid"]] = camera["serial"];
    }
    std::map<std::string, std::uint32_t> placed;
    for (const Json& node : NodesOf(Json::parse(OutputOf({"topology", "--demo", "--json"})))) {
        if (!node.contains("serial")) continue;
        EXPECT_TRUE(placed.emplace(node["guid"], node["serial"]).second) << node;
    }
    EXPECT_EQ(listed.size(), 7u);
    EXPECT_EQ(placed, listed);
}

TEST(TopologyAsJson, IsTheComputerAloneWhenNothingIsAttached) {
    const ProgramResult result = ScriptedComputer().Run({"topology", "--json"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(Json::parse(result.output).dump(), R"({"type":"computer","interface":"none","id":0,"guid":")" +
                                                     std::string(kNoGuid) + R"(","ports":[],"children":[]})");
}

// ---- DOT and SVG ---------------------------------------------------------------------------------------------------

TEST(TopologyAsDot, HasNamesSerialNumbersPortsAndSpeeds) {
    const Graph graph(OutputOf({"topology", "--demo", "--format", "dot"}));
    EXPECT_THAT(graph.nodes, SizeIs(21));
    EXPECT_EQ(graph.edges, 20u);
    EXPECT_THAT(graph.nodes, IsSupersetOf({"Computer\\n7 cameras", "USB 2\\n1 camera", "PHY 2\\n3 of 6 ports free",
                                           "Acme Zoom 1394\\nserial 200705\\n1 of 2 ports free",
                                           "Cairn G 2040\\nserial 31000001\\n192.168.77.10"}));
    EXPECT_THAT(graph.edgeLabels,
                IsSupersetOf({"port 0", "port 4\\n400 Mbit/s", "port 2\\n5 Gbit/s", "480 Mbit/s", "1 Gbit/s"}));
}

TEST(TopologyAsSvg, ShowsNamesSerialNumbersPortsAndSpeeds) {
    const std::string svg = OutputOf({"topology", "--demo", "--format", "svg"});
    EXPECT_TRUE(IsPlainAscii(svg));
    const Words texts = TextsOf(svg);
    EXPECT_THAT(texts, IsSupersetOf({"node computer", "node bus", "node hub", "node camera", "node device", "Computer",
                                     "Acme Zoom 1394", "serial 200705", "1 of 2 ports free", "192.168.77.11", "port 4",
                                     "400 Mbit/s", "5 Gbit/s"}));
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "node camera"), 7);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "edge"), 20);
}

TEST(TopologyPicture, IsTheComputerAloneWhenNothingIsAttached) {
    const ScriptedComputer computer;
    EXPECT_THAT(Graph(computer.Run({"topology", "--format", "dot"}).output).nodes, ElementsAre("Computer\\n0 cameras"));
    EXPECT_THAT(TextsOf(ScriptedComputer().Run({"topology", "--format", "svg"}).output),
                ElementsAre("graph", "node computer", "Computer", "0 cameras"));
}

// ---- Every form ----------------------------------------------------------------------------------------------------

class TopologyOfRig : public ::testing::TestWithParam<const char*> {};

TEST_P(TopologyOfRig, IsTheSameTreeInEachForm) {
    const Words command{"--rig", RigFile(GetParam() + std::string(".json")), "topology", "--format"};
    const auto in = [&command](const char* format) {
        Words words = command;
        words.emplace_back(format);
        return OutputOf(words);
    };
    const std::vector<Json> nodes = NodesOf(Json::parse(in("json")));
    EXPECT_GE(nodes.size(), 3u);
    for (const Json& node : nodes) {
        EXPECT_EQ(std::count(node["ports"].begin(), node["ports"].end(), "child"), node["children"].size()) << node;
    }
    EXPECT_THAT(Lines(in("text")), SizeIs(nodes.size()));
    const Graph graph(in("dot"));
    EXPECT_THAT(graph.nodes, SizeIs(nodes.size()));
    EXPECT_EQ(graph.edges, nodes.size() - 1);
    const Words texts = TextsOf(in("svg"));
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "edge"), nodes.size() - 1);
}

INSTANTIATE_TEST_SUITE_P(Rigs, TopologyOfRig,
                         ::testing::Values("faulty", "firewire-chain", "production-line", "reset-storm", "usb-hub-tree",
                                           "wrong-subnet"),
                         [](const auto& test) {
                             std::string name = test.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

// What each kind of reader acts upon: terminals, quotes of DOT and its escapes, markup and entities, bytes that are no
// UTF-8, text from right to left; and texts of nothing.
const Words kHostile{
    R"(gige 1 10.0.0.1 \x1b[2J\x07\x9b31m \xc2\x9b\x00\x7f\x0a\x0d\x09)",
    R"(gige 2 10.0.0.2 "];x->y;[label=" \x5c"\x5cN\x5cG\x5cn\x5c\x5c\x5c)",
    R"(gige 3 10.0.0.3 <script>alert(1)</script> &lt;B&gt;&amp;&#0;&\x5c')",
    R"(gige 4 10.0.0.4 ]]>-->\x3c!--\x3c?xml <<HTML>>)",
    R"(gige 5 10.0.0.5 \xff\xfe\xc0\xaf\xed\xa0\x80\xef\xbf\xbf \xe2\x80\xae\xe6\x97\xa5\xf0\x9f\x93\xb7)",
    R"(gige 6 10.0.0.6 )" + std::string(40, '"') + R"( %s%n\s\s)",
    R"(gige 7 10.0.0.7 \s \s)"};

TEST(TopologyOfHostileTexts, SendsNothingThatATerminalActsUpon) {
    for (const char* format : {"text", "json", "dot", "svg"}) {
        const ProgramResult result = ScriptedComputer(kHostile).RunWith({"LC_ALL=C"}, {"topology", "--format", format});
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        EXPECT_THAT(result.errors, IsEmpty());
        EXPECT_TRUE(IsPlainAscii(result.output)) << result.output;
    }
    const std::string text = ScriptedComputer(kHostile).RunWith({"LC_ALL=C.UTF-8"}, {"topology"}).output;
    EXPECT_THAT(Lines(text), SizeIs(9)) << "no text makes a line of its own";
    EXPECT_THAT(text, AllOf(HasSubstr("\u65e5\U0001f4f7"), Not(HasSubstr("\u202e")), Not(HasSubstr("\x1b"))));
}

TEST(TopologyOfHostileTexts, IsValidJsonWithTheTextsAsTheyWereSent) {
    const Json json = Json::parse(ScriptedComputer(kHostile).Run({"topology", "--json"}).output);
    const Json& cameras = json["children"][0]["children"];
    ASSERT_EQ(cameras.size(), 7u);
    EXPECT_EQ(cameras[1]["model"], R"(\"\N\G\n\\\)");
    EXPECT_EQ(cameras[2]["vendor"], "<script>alert(1)</script>");
}

TEST(TopologyOfHostileTexts, MakesNoNodeEdgeOrAttributeOfThem) {
    const Graph graph(ScriptedComputer(kHostile).Run({"topology", "--format", "dot"}).output);
    EXPECT_THAT(graph.nodes, SizeIs(9));
    EXPECT_EQ(graph.edges, 8u);
    EXPECT_THAT(graph.nodes, Contains("<script>alert(1)</script> &amp;lt;B&amp;gt;&amp;a...\\nserial 3\\n10.0.0.3"));
}

TEST(TopologyOfHostileTexts, ShowsThemInThePictureLetterByLetter) {
    const Words texts = TextsOf(ScriptedComputer(kHostile).Run({"topology", "--format", "svg"}).output);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "node camera"), 7);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "edge"), 8);
    // As Python writes them: a backslash is two.
    EXPECT_THAT(texts, IsSupersetOf({R"("];x->y;[label=" \\"\\N\\G\\n\\\\\\)",
                                     "<script>alert(1)</script> &lt;B&gt;&a...", "]]>--><!--<?xml <<HTML>>",
                                     R"(\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd \ufffd\u65e5\ufffd)"}));
}

TEST(Topology, ShowsTheOtherBusesAndFailsWhenOneCannotBeSearched) {
    const ProgramResult result = ScriptedComputer({"gige 1 10.0.0.1 V M", "fail usb 3"}).Run({"topology", "--json"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(NodesOf(Json::parse(result.output)), SizeIs(3));
    EXPECT_EQ(result.errors, "nimbrel: USB cannot be searched: permission denied (status 3)\n");
}

// ---- Where to ------------------------------------------------------------------------------------------------------

TEST(TopologyOutput, GoesToTheNamedFileAndNowhereElse) {
    const TemporaryFolder folder;
    std::ofstream(folder.File("tree.svg")) << std::string(100000, 'x');  // what was there before is gone
    EXPECT_THAT(OutputOf({"topology", "--demo", "--format", "svg", "--output", folder.File("tree.svg")}), IsEmpty());
    EXPECT_EQ(ReadFile(folder.File("tree.svg")), OutputOf({"topology", "--demo", "--format", "svg"}));
}

TEST(TopologyOutput, ThatCannotBeWrittenFailsAndIsNamed) {
    for (const auto& [file, reason] :
         std::map<std::string, std::string>{{"/nonexistent/tree", "No such file or directory"},
                                            {"/tmp", "Is a directory"},
                                            {"/dev/full", "No space left on device"},
                                            {"", "No such file or directory"}}) {
        const ProgramResult result = RunReal({"topology", "--demo", "--output", file});
        EXPECT_EQ(result.exitStatus, 1);
        EXPECT_THAT(result.output, IsEmpty());
        std::string expected = "nimbrel topology: --output: \"";
        expected.append(file).append("\" cannot be written: ").append(reason).append("\n");
        EXPECT_EQ(result.errors, expected);
    }
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
