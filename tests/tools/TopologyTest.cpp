// SPDX-License-Identifier: Apache-2.0
// `nimbrel topology` in each of its forms, on rigs and on scripted buses. Forms are judged by others' parsers: JSON by
// nlohmann, DOT by Graphviz, SVG by Python.
#include <cgraph.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
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

const char NoGuid[] = "00000000-00000000-00000000-00000000";

ProgramResult RunReal(const Words& arguments, const std::string& locale = "C.UTF-8") {
    Words words{"env", "LC_ALL=" + locale, RealProgram()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return Nimbrel2::Testing::RunProgram(words, TestDeadline);
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
        if (mkdtemp(m_path.data()) == nullptr) {
            throw std::runtime_error("mkdtemp");
        }
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
        for (const Json& below : NodesOf(child)) {
            nodes.push_back(below);
        }
    }
    return nodes;
}

// What Graphviz reads in a DOT text: labels of the nodes and of the edges, empty ones left out.
struct Graph {
    explicit Graph(const std::string& dot) {
        Agraph_t* graph = agmemread(dot.c_str());
        if (graph == nullptr) {
            throw std::runtime_error("no DOT: " + dot);
        }
        std::string name = "label";
        for (Agnode_t* node = agfstnode(graph); node != nullptr; node = agnxtnode(graph, node)) {
            nodes.emplace_back(agget(node, name.data()));
            for (Agedge_t* edge = agfstout(graph, node); edge != nullptr; edge = agnxtout(graph, edge)) {
                const char* label = agget(edge, name.data());  // null when no edge has one
                if (label != nullptr && *label != '\0') {
                    edgeLabels.emplace_back(label);
                }
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
        Nimbrel2::Testing::RunProgram({"python3", "-c", script, folder.File("picture.svg")}, TestDeadline);
    EXPECT_EQ(result.exitStatus, 0) << result.errors << svg;
    return Lines(result.output);
}

// ---- For people ----------------------------------------------------------------------------------------------------

TEST(TopologyForPeople, IsATreeOfAllThreeBusesWithNamesPortsSpeedsAndLinks) {
    EXPECT_EQ(OutputOf({"--demo", "topology"}),
              "Computer                                     SERIAL       SPEED\n"
              "├─ IEEE 1394\n"
              "│  └─ fw0: this computer (PHY 4)                     400 Mbit/s  3 ports, 1 free\n"
              "│     ├─ port 0: repeater (PHY 2)                    400 Mbit/s  6 ports, 3 free\n"
              "│     │  ├─ port 1: Acme Zoom 1394           200705  400 Mbit/s  2 ports, 1 free\n"
              "│     │  └─ port 4: Acme Zoom 1394           200706  400 Mbit/s\n"
              "│     └─ port 2: Lakeside Archive (PHY 3)            400 Mbit/s\n"
              "├─ USB 2\n"
              "│  └─ Brightline U2 130                    20000007  480 Mbit/s  xhci0 port 3\n"
              "├─ USB 3\n"
              "│  └─ USB host xhci0\n"
              "│     ├─ port 1: hub                                 480 Mbit/s\n"
              "│     │  └─ port 4: dock                             480 Mbit/s\n"
              "│     ├─ port 3: Brightline U2 130                   480 Mbit/s\n"
              "│     └─ port 1: hub                                   5 Gbit/s\n"
              "│        ├─ port 2: Brightline U3 500      21000101    5 Gbit/s\n"
              "│        └─ port 4: dock                               5 Gbit/s\n"
              "│           └─ port 1: Brightline U3 500   21000102    5 Gbit/s\n"
              "└─ GigE\n"
              "   └─ eth0                                             1 Gbit/s  link up\n"
              "      ├─ Cairn G 2040                      31000001    1 Gbit/s  192.168.77.10\n"
              "      └─ Cairn G 2040                      31000002    1 Gbit/s  192.168.77.11\n");
}

TEST(TopologyForPeople, IsDrawnInAsciiWhereTheLocaleHasNothingElse) {
    const ProgramResult result = RunReal({"topology", "--demo", "--bus", "gige"}, "C");
    EXPECT_EQ(result.output,
              "Computer                 SERIAL     SPEED\n"
              "`- GigE\n"
              "   `- eth0                       1 Gbit/s  link up\n"
              "      |- Cairn G 2040  31000001  1 Gbit/s  192.168.77.10\n"
              "      `- Cairn G 2040  31000002  1 Gbit/s  192.168.77.11\n");
}

TEST(TopologyForPeople, ShowsAChainOfCamerasOneBehindTheOther) {
    EXPECT_EQ(OutputOf({"topology", "--rig", RigFile("firewire-chain.json")}),
              "Computer                                   SERIAL       SPEED\n"
              "└─ IEEE 1394\n"
              "   └─ fw0: Acme Chain 1                       258  400 Mbit/s  2 ports, 0 free\n"
              "      ├─ port 0: Acme Chain 1                 257  400 Mbit/s  2 ports, 0 free\n"
              "      │  └─ port 0: this computer (PHY 0)          400 Mbit/s  3 ports, 2 free\n"
              "      └─ port 1: Acme Chain 1                 259  400 Mbit/s  2 ports, 0 free\n"
              "         └─ port 1: Acme Chain 1              260  400 Mbit/s  2 ports, 1 free\n");
}

TEST(TopologyForPeople, FitsTheColumnsOfTheTerminalAndCutsNothingInAPipe) {
    const std::string longText(63, 'W');
    const Words script{"usb 4294967295 20000 " + longText + " " + longText,
                       "gige 4294967295 255.255.255.255 " + longText + " " + longText};
    const ProgramResult narrow = ScriptedComputer(script).RunWith({"LC_ALL=C", "COLUMNS=80"}, {"topology"});
    EXPECT_THAT(narrow.output, AllOf(HasSubstr("255.255.255.255"), HasSubstr("20 Gbit/s"), HasSubstr("WWW...")));
    for (const std::string& line : Lines(narrow.output)) {
        EXPECT_LE(line.size(), 80u) << line;
    }
    EXPECT_THAT(ScriptedComputer(script).Run({"topology"}).output, HasSubstr(longText + " " + longText));
}

// A card and 62 cameras, each behind the one before.
std::string LongestChain() {
    std::string phys = R"({"name": "card", "kind": "card", "eui64": "0x0800460100000000", "contender": true})";
    std::string cables;
    for (int i = 1; i <= 62; ++i) {
        const std::string name = "\"c" + std::to_string(i) + "\"";
        phys += R"(, {"name": )" + name + R"(, "eui64": )" + std::to_string(0x1100 + i) +
                R"(, "vendor": "Acme", "model": "Link )" + std::to_string(i) + R"(", "ports": 2})";
        const std::string before = i == 1 ? R"(["card", 0])" : "[\"c" + std::to_string(i - 1) + "\", 1]";
        cables += std::string(i == 1 ? "" : ", ") + "[" + before + ", [" + name + ", 0]]";
    }
    return R"({"firewire": [{"name": "fw0", "phys": [)" + phys + R"(], "cables": [)" + cables + "]}]}";
}

TEST(TopologyForPeople, LosesNoNameOnABusOf63PhysInAChain) {
    const RigComputer rig(LongestChain());
    const std::string piped = rig.Run({"topology"}).output;
    EXPECT_THAT(Lines(piped), SizeIs(65));
    const ProgramResult narrow = Nimbrel2::Testing::RunProgram(
        {"sh", "-c", "COLUMNS=80 LC_ALL=C.UTF-8 " + rig.ShellCommandLine("topology")}, TestDeadline);
    for (int i = 1; i <= 62; ++i) {
        const std::string name = "Acme Link " + std::to_string(i) + " ";
        EXPECT_THAT(piped, HasSubstr(name));
        EXPECT_THAT(narrow.output, HasSubstr(name));
    }
    EXPECT_THAT(narrow.output, Not(HasSubstr("...")));
    EXPECT_THAT(narrow.output, AllOf(HasSubstr("[1] port"), HasSubstr("\n\n[1] ")));
}

// A camera behind five hubs, and one behind two.
const char DeepHubs[] = R"({"usb": [{"name": "xhci0", "devices": [
    {"name": "h1", "kind": "hub", "parent": "xhci0", "port": 2}, {"name": "h2", "kind": "hub", "parent": "h1", "port": 1},
    {"name": "h3", "kind": "hub", "parent": "h2", "port": 1}, {"name": "h4", "kind": "hub", "parent": "h3", "port": 1},
    {"name": "h5", "kind": "hub", "parent": "h4", "port": 1},
    {"name": "deep", "parent": "h5", "port": 3, "serial": "77", "vendor": "V", "model": "Deep"},
    {"name": "near", "parent": "h2", "port": 2, "serial": "78", "vendor": "V", "model": "Near"}]}]})";

TEST(Topology, NamesACameraThatIsTooDeepForTheTreeInEachForm) {
    const RigComputer rig(DeepHubs);
    const std::string reason = "it is more than four hubs deep";
    EXPECT_THAT(rig.Run({"topology"}).output,
                HasSubstr("\nNot in the tree:\n  camera 77 V Deep, xhci0 port 2.1.1.1.1.3: " + reason + "\n"));
    const Json unplaced = Json::parse(rig.Run({"topology", "--json"}).output)["unplaced"];
    ASSERT_EQ(unplaced.size(), 1u);
    EXPECT_EQ(unplaced[0]["serial"], 77);
    EXPECT_EQ(unplaced[0]["reason"], reason);
    EXPECT_EQ(unplaced[0]["location"], "xhci0 port 2.1.1.1.1.3");
    EXPECT_THAT(Graph(rig.Run({"topology", "--format", "dot"}).output).nodes,
                Contains("V Deep\\nserial 77\\nnot in the tree:\\n" + reason));
    EXPECT_THAT(TextsOf(rig.Run({"topology", "--format", "svg"}).output),
                IsSupersetOf({"node unplaced", "V Deep", "serial 77", reason.c_str()}));
    EXPECT_EQ(rig.Run({"topology", "--below", "77"}).errors,
              "nimbrel topology: camera 77 is not in the tree: " + reason + "\n");
}

TEST(Topology, NamesCamerasOfWhichNoBusTellsWhereTheyAre) {
    // These buses have no self-IDs.
    const Words script{"1394 12 V M", "virtual 77 V M", "usb 1 480 V M"};
    EXPECT_THAT(
        ScriptedComputer(script).Run({"topology"}).output,
        AllOf(HasSubstr("V M"),
              HasSubstr("\nNot in the tree:\n  camera 12 V M: it is virtual, or its bus does not tell where it is\n")));
    EXPECT_THAT(ScriptedComputer(script).Run({"topology", "--virtual"}).output,
                HasSubstr("\n  camera 77 V M: it is virtual"));
}

// Two hubs on port 3 of different hubs: the tree shows what is below either below both.
const char EqualPorts[] = R"({"usb": [{"name": "xhci0", "devices": [
    {"name": "a", "kind": "hub", "parent": "xhci0", "port": 1}, {"name": "a1", "kind": "hub", "parent": "a", "port": 1},
    {"name": "a2", "kind": "hub", "parent": "a", "port": 2}, {"name": "b1", "kind": "hub", "parent": "a1", "port": 3},
    {"name": "b2", "kind": "hub", "parent": "a2", "port": 3},
    {"name": "x", "parent": "b1", "port": 1, "serial": "1", "vendor": "V", "model": "X"},
    {"name": "y", "parent": "b2", "port": 2, "serial": "2", "vendor": "V", "model": "Y"}]}]})";

TEST(Topology, MarksADeviceThatStandsAtMoreThanOnePlace) {
    const RigComputer rig(EqualPorts);
    const std::string text = rig.Run({"topology"}).output;
    EXPECT_THAT(text, AllOf(HasSubstr("shown at 2 places; this is the true one"),
                            HasSubstr("shown at 2 places; really at port 1.2.3.2"),
                            HasSubstr("shown at 2 places; really at port 1.1.3.1")));
    std::map<std::pair<int, bool>, int> places;
    for (const Json& node : NodesOf(Json::parse(rig.Run({"topology", "--json"}).output))) {
        if (!node.contains("places")) {
            continue;
        }
        EXPECT_EQ(node["places"], 2);
        ++places[{node["id"], node["true_place"]}];
    }
    EXPECT_EQ(places.size(), 4u) << "two devices, each at a true place and at another";
    EXPECT_THAT(TextsOf(rig.Run({"topology", "--format", "svg"}).output),
                IsSupersetOf({"shown at 2 places", "really at port 1.2.3.2"}));
}

TEST(Topology, SaysWhenAListingIsCutAtItsCapacity) {
    std::string cameras;
    for (int i = 0; i < 130; ++i) {
        char text[200];
        std::snprintf(text, sizeof text,
                      R"(%s{"name": "g%d", "mac": "02:00:00:00:01:%02x", "address": "10.0.0.%d/8", "serial": "%d"})",
                      i == 0 ? "" : ",", i, i, i + 10, 1000 + i);
        cameras += text;
    }
    const RigComputer rig(R"({"gige": [{"name": "eth0", "address": "10.0.0.1/8", "cameras": [)" + cameras + "]}]}");
    const std::string sentence = "128 of 130 GigE cameras are listed, as many as there is room for.";
    EXPECT_THAT(rig.Run({"topology"}).output, HasSubstr("\n" + sentence + "\n"));
    EXPECT_THAT(rig.Run({"list"}).output, HasSubstr("\n" + sentence + "\n"));
    EXPECT_EQ(Json::parse(rig.Run({"topology", "--json"}).output)["cut"], Json::array({sentence}));
    EXPECT_THAT(TextsOf(rig.Run({"topology", "--format", "svg"}).output), Contains(sentence));
    EXPECT_THAT(Graph(rig.Run({"topology", "--format", "dot"}).output).nodes,
                Contains("128 of 130 GigE cameras are listed, a..."));
}

TEST(TopologyForPeople, LeavesOutASpeedThatNobodyKnows) {
    const std::string output = ScriptedComputer({"usb 1 0 V M"}).Run({"topology"}).output;
    EXPECT_THAT(output, AllOf(HasSubstr("V M"), Not(HasSubstr("bit/s"))));
}

TEST(TopologyForPeople, IsTheComputerAloneAndAHintWhenNothingIsAttached) {
    const ProgramResult result = ScriptedComputer().Run({"topology", "--bus", "usb"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_EQ(result.output, "Computer\n\nNo cameras found on USB. `nimbrel list` shows what to check.\n");
}

TEST(TopologyForPeople, HasColoursWhenTheyAreWanted) {
    EXPECT_THAT(
        RunReal({"topology", "--demo", "--color", "always"}).output,
        AllOf(HasSubstr("\x1b[35mGigE\x1b[0m\n"), HasSubstr("\x1b[34mport 2: Brightline U3 500\x1b[0m      21000101")));
}

TEST(TopologyBelow, IsACameraWithWhatIsBehindIt) {
    const Words chain{"topology", "--rig", RigFile("firewire-chain.json"), "--below", "259"};
    EXPECT_EQ(OutputOf(chain),
              "port 1: Acme Chain 1     259  400 Mbit/s  2 ports, 0 free\n"
              "└─ port 1: Acme Chain 1  260  400 Mbit/s  2 ports, 1 free\n");
    Words asJson = chain;
    asJson.emplace_back("--json");
    const Json json = Json::parse(OutputOf(asJson));
    EXPECT_EQ(json["serial"], 259);
    EXPECT_THAT(NodesOf(json), SizeIs(2));
    EXPECT_THAT(OutputOf({"topology", "--demo", "--below", "ip:192.168.77.11", "--format", "svg"}),
                HasSubstr("serial 31000002"));
    EXPECT_THAT(RunReal({"topology", "--demo", "--below", "5"}).errors, HasSubstr("no camera has the serial number 5"));
}

// ---- JSON ----------------------------------------------------------------------------------------------------------

TEST(TopologyAsJson, HasTheSameSixMembersInEachNodeAndThenWhatIsKnownOfACamera) {
    const Json json = Json::parse(OutputOf({"topology", "--demo", "--json"}));
    EXPECT_EQ(json, Json::parse(OutputOf({"topology", "--demo", "--format", "json"})));
    for (const Json& node : NodesOf(json)) {
        Words members;
        for (const auto& [name, value] : node.items()) {
            members.push_back(name);
        }
        ASSERT_GE(members.size(), 6u);
        EXPECT_THAT(Words(members.begin(), members.begin() + 6),
                    ElementsAre("type", "interface", "id", "guid", "ports", "children"));
        EXPECT_EQ(node.contains("serial"), node["guid"] != NoGuid) << node;
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
              R"("location":"fw0 PHY 0","speed":400})");
    EXPECT_EQ(root["bus"], "fw0");
    EXPECT_EQ(root["this_computer"], true);
    EXPECT_EQ(root["children"][1]["name"], "Lakeside Archive");
    const Json& host = json["children"][2]["children"][0];
    EXPECT_EQ(host["bus"], "xhci0");
    EXPECT_EQ(host["children"][2]["name"], "hub");
    EXPECT_EQ(host["children"][2]["port"], 1);
    EXPECT_EQ(host["children"][2]["speed"], 5000);
    EXPECT_THAT(json["unplaced"], IsEmpty());
    EXPECT_THAT(json["cut"], IsEmpty());
    Json gate = json["children"][3]["children"][0];
    gate["guid"] = "";
    EXPECT_EQ(gate.dump(), R"({"type":"camera","interface":"GigE","id":0,"guid":"","ports":["parent"],"children":[],)"
                           R"("serial":31000001,"serial_text":"31000001","vendor":"Cairn","model":"G 2040",)"
                           R"("name":"gate","location":"eth0","ip":"192.168.77.10","speed":1000,)"
                           R"("link":{"name":"eth0","up":true,"speed":1000}})");
}

TEST(TopologyAsJson, PlacesEachListedCameraOnceByItsGuid) {
    std::map<std::string, std::uint32_t> listed;
    const Json list = Json::parse(OutputOf({"list", "--demo", "--json"}));
    for (const Json& camera : list["cameras"]) {
        listed[camera["guid"]] = camera["serial"];
    }
    std::map<std::string, std::uint32_t> placed;
    for (const Json& node : NodesOf(Json::parse(OutputOf({"topology", "--demo", "--json"})))) {
        if (!node.contains("serial")) {
            continue;
        }
        EXPECT_TRUE(placed.emplace(node["guid"], node["serial"]).second) << node;
    }
    EXPECT_EQ(listed.size(), 7u);
    EXPECT_EQ(placed, listed);
}

TEST(TopologyAsJson, IsTheComputerAloneWhenNothingIsAttached) {
    const ProgramResult result = ScriptedComputer().Run({"topology", "--json"});
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(Json::parse(result.output).dump(), R"({"type":"computer","interface":"none","id":0,"guid":")" +
                                                     std::string(NoGuid) +
                                                     R"(","ports":[],"children":[],"unplaced":[],"cut":[]})");
}

// ---- DOT and SVG ---------------------------------------------------------------------------------------------------

TEST(TopologyAsDot, HasNamesSerialNumbersPortsAndSpeeds) {
    const Graph graph(OutputOf({"topology", "--demo", "--format", "dot"}));
    EXPECT_THAT(graph.nodes, SizeIs(22));
    EXPECT_EQ(graph.edges, 21u);
    EXPECT_THAT(graph.nodes,
                IsSupersetOf({"Computer\\n7 cameras", "USB 2\\n1 camera", "repeater (PHY 2)\\n3 of 6 ports free",
                              "eth0\\n1 Gbit/s, link up\\n2 cameras", "fw0: this computer (PHY 4)\\n1 of 3 ports free",
                              "Acme Zoom 1394\\nserial 200705\\n1 of 2 ports free",
                              "Cairn G 2040\\nserial 31000001\\n192.168.77.10"}));
    EXPECT_THAT(graph.edgeLabels, IsSupersetOf({"port 0\\n400 Mbit/s", "port 4\\n400 Mbit/s", "port 2\\n5 Gbit/s",
                                                "480 Mbit/s", "1 Gbit/s"}));
}

TEST(TopologyAsSvg, ShowsNamesSerialNumbersPortsAndSpeeds) {
    const std::string svg = OutputOf({"topology", "--demo", "--format", "svg"});
    EXPECT_TRUE(IsPlainAscii(svg));
    const Words texts = TextsOf(svg);
    EXPECT_THAT(texts, IsSupersetOf({"node computer", "node bus", "node hub", "node interface", "node camera",
                                     "node device", "Computer", "Acme Zoom 1394", "serial 200705", "1 of 2 ports free",
                                     "192.168.77.11", "port 4", "400 Mbit/s", "5 Gbit/s"}));
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "node camera"), 7);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "edge"), 21);
}

TEST(TopologyPicture, IsTheComputerAloneWhenNothingIsAttached) {
    const ScriptedComputer computer;
    EXPECT_THAT(Graph(computer.Run({"topology", "--format", "dot"}).output).nodes, ElementsAre("Computer\\n0 cameras"));
    EXPECT_THAT(TextsOf(ScriptedComputer().Run({"topology", "--format", "svg"}).output),
                ElementsAre("graph", "node computer", "Computer", "0 cameras"));
}

// ---- Pictures that are good to look at -----------------------------------------------------------------------------

// What check_picture.py has to say of a picture: texts outside of their boxes, lines through labels, and so on.
std::string ProblemsOf(const std::string& svg) {
    const TemporaryFolder folder;
    std::ofstream(folder.File("picture.svg"), std::ios::binary) << svg;
    const ProgramResult result = Nimbrel2::Testing::RunProgram(
        {"/usr/bin/python3", NIMBREL_TESTS "/check_picture.py", folder.File("picture.svg")}, std::chrono::minutes(2));
    return result.exitStatus == 0 ? result.output
                                  : result.output + result.errors + "status " + std::to_string(result.exitStatus);
}

std::string BigRig() {
    const TemporaryFolder folder;
    const ProgramResult result =
        Nimbrel2::Testing::RunProgram({"/usr/bin/python3", NIMBREL_TESTS "/big_rig.py"}, TestDeadline);
    EXPECT_EQ(result.exitStatus, 0) << result.errors;
    return result.output;
}

TEST(TopologyPicture, KeepsNamesInTheirBoxesAndLinesOffTheLabels) {
    for (const char* rig : {"production-line.json", "firewire-chain.json", "usb-hub-tree.json"}) {
        EXPECT_EQ(ProblemsOf(OutputOf({"topology", "--rig", RigFile(rig), "--format", "svg"})), "") << rig;
    }
    EXPECT_EQ(ProblemsOf(RigComputer(DeepHubs).Run({"topology", "--format", "svg"}).output), "");
    EXPECT_EQ(ProblemsOf(RigComputer(EqualPorts).Run({"topology", "--format", "svg"}).output), "");
    EXPECT_EQ(ProblemsOf(RigComputer(LongestChain()).Run({"topology", "--format", "svg"}).output), "");
    std::string widest;
    for (int i = 0; i < 40; ++i) {
        widest += i % 2 == 0 ? 'W' : '@';
    }
    EXPECT_EQ(ProblemsOf(ScriptedComputer({"usb 1 480 " + widest + " M", "gige 2 10.0.0.1 \\xe6\\x97\\xa5\\xc3\\xa4 M"})
                             .Run({"topology", "--format", "svg"})
                             .output),
              "");
}

TEST(TopologyPicture, Of512CamerasShowsEachOnceAndCanBeLookedAt) {
    const RigComputer rig(BigRig());
    const ProgramResult result = rig.Run({"topology", "--format", "svg"});
    EXPECT_EQ(ProblemsOf(result.output), "");
    const Json listed = Json::parse(rig.Run({"list", "--json"}).output)["cameras"];
    EXPECT_EQ(listed.size(), 512u);
    std::map<std::string, int> seen;
    std::istringstream texts(result.output);
    for (std::string line; std::getline(texts, line);) {
        const std::size_t serial = line.find("serial ");
        if (serial != std::string::npos) {
            ++seen[line.substr(serial + 7, line.find_first_not_of("0123456789", serial + 7) - serial - 7)];
        }
    }
    for (const Json& camera : listed) {
        EXPECT_EQ(seen[std::to_string(camera["serial"].get<unsigned int>())], 1) << camera;
    }
}

TEST(TopologyAsPng, IsAPictureThatOthersRead) {
    const TemporaryFolder folder;
    for (const Words& words : {Words{"--demo"}, Words{"--rig", RigFile("production-line.json")}}) {
        Words command{"topology", "--format", "png", "--output", folder.File("picture.png")};
        command.insert(command.end(), words.begin(), words.end());
        EXPECT_THAT(OutputOf(command), IsEmpty());
        const ProgramResult read = Nimbrel2::Testing::RunProgram(
            {"/usr/bin/python3", "-c",
             "import cairo, sys\n"
             "picture = cairo.ImageSurface.create_from_png(sys.argv[1])\n"
             "print(len(set(bytes(picture.get_data()))) > 20, picture.get_width() > 800)\n",
             folder.File("picture.png")},
            TestDeadline);
        EXPECT_EQ(read.output, "True True\n") << read.errors;
    }
    const RigComputer big(BigRig());
    EXPECT_EQ(big.Run({"topology", "--format", "png", "--output", folder.File("big.png")}).exitStatus, 0);
    EXPECT_GT(std::filesystem::file_size(folder.File("big.png")), 100000u);
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
    std::set<std::string> interfaces;  // which the drawings have in addition
    for (const Json& node : nodes) {
        if (node.contains("link")) {
            interfaces.insert(node["link"]["name"]);
        }
    }
    const std::size_t drawn = nodes.size() + interfaces.size();
    EXPECT_THAT(Lines(in("text")), SizeIs(drawn));
    const Graph graph(in("dot"));
    EXPECT_THAT(graph.nodes, SizeIs(drawn));
    EXPECT_EQ(graph.edges, drawn - 1);
    const Words texts = TextsOf(in("svg"));
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "edge"), drawn - 1);
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
const Words Hostile{
    R"(gige 1 10.0.0.1 \x1b[2J\x07\x9b31m \xc2\x9b\x00\x7f\x0a\x0d\x09)",
    R"(gige 2 10.0.0.2 "];x->y;[label=" \x5c"\x5cN\x5cG\x5cn\x5c\x5c\x5c)",
    R"(gige 3 10.0.0.3 <script>alert(1)</script> &lt;B&gt;&amp;&#0;&\x5c')",
    R"(gige 4 10.0.0.4 ]]>-->\x3c!--\x3c?xml <<HTML>>)",
    R"(gige 5 10.0.0.5 \xff\xfe\xc0\xaf\xed\xa0\x80\xef\xbf\xbf \xe2\x80\xae\xe6\x97\xa5\xf0\x9f\x93\xb7)",
    R"(gige 6 10.0.0.6 )" + std::string(40, '"') + R"( %s%n\s\s)",
    R"(gige 7 10.0.0.7 \s \s)"};

TEST(TopologyOfHostileTexts, SendsNothingThatATerminalActsUpon) {
    for (const char* format : {"text", "json", "dot", "svg"}) {
        const ProgramResult result = ScriptedComputer(Hostile).RunWith({"LC_ALL=C"}, {"topology", "--format", format});
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        EXPECT_THAT(result.errors, IsEmpty());
        EXPECT_TRUE(IsPlainAscii(result.output)) << result.output;
    }
    const std::string text = ScriptedComputer(Hostile).RunWith({"LC_ALL=C.UTF-8"}, {"topology"}).output;
    EXPECT_THAT(Lines(text), SizeIs(10)) << "no text makes a line of its own";
    EXPECT_THAT(text, AllOf(HasSubstr("\u65e5\U0001f4f7"), Not(HasSubstr("\u202e")), Not(HasSubstr("\x1b"))));
}

TEST(TopologyOfHostileTexts, IsValidJsonWithTheTextsAsTheyWereSent) {
    const Json json = Json::parse(ScriptedComputer(Hostile).Run({"topology", "--json"}).output);
    const Json& cameras = json["children"][0]["children"];
    ASSERT_EQ(cameras.size(), 7u);
    EXPECT_EQ(cameras[1]["model"], R"(\"\N\G\n\\\)");
    EXPECT_EQ(cameras[2]["vendor"], "<script>alert(1)</script>");
}

TEST(TopologyOfHostileTexts, MakesNoNodeEdgeOrAttributeOfThem) {
    const Graph graph(ScriptedComputer(Hostile).Run({"topology", "--format", "dot"}).output);
    EXPECT_THAT(graph.nodes, SizeIs(10));
    EXPECT_EQ(graph.edges, 9u);
    EXPECT_THAT(graph.nodes, Contains("<script>alert(1)</script> &amp;lt;B&amp;gt;&amp;a...\\nserial 3\\n10.0.0.3"));
}

TEST(TopologyOfHostileTexts, ShowsThemInThePictureLetterByLetter) {
    const Words texts = TextsOf(ScriptedComputer(Hostile).Run({"topology", "--format", "svg"}).output);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "node camera"), 7);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "edge"), 9);
    // As Python writes them: a backslash is two.
    EXPECT_THAT(texts, IsSupersetOf({R"("];x->y;[label=" \\"\\N\\G\\n\\\\\\)",
                                     "<script>alert(1)</script> &lt;B&gt;&a...", "]]>--><!--<?xml <<HTML>>",
                                     R"(\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd\ufffd \ufffd\u65e5\U0001f4f7)"}));
}

TEST(Topology, ShowsTheOtherBusesAndFailsWhenOneCannotBeSearched) {
    const ProgramResult result = ScriptedComputer({"gige 1 10.0.0.1 V M", "fail usb 3"}).Run({"topology", "--json"});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(NodesOf(Json::parse(result.output)), SizeIs(3));
    EXPECT_EQ(result.errors, "nimbrel: USB cannot be searched: permission denied\n");
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
