// SPDX-License-Identifier: Apache-2.0
// Trees of controllers as the driver reads them: what a size query and its fill see, whatever happens in between.
#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/platform/usb/UsbFixture.h"

namespace Nimbrel2::Testing {
namespace {

using testing::SizeIs;

class UsbTrees : public UsbFixture {};

/// The records of tests/topology/data, which say what the kernel's tree is as records: id, speed, root port, route,
/// parent.
std::string ReadRecords(const std::string& name) {
    std::ifstream file(std::string(NIMBREL2_TOPOLOGY_DATA) + "/" + name);
    std::string all;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string id, speed, rootPort, route, parent;
        if (!(words >> id >> speed >> rootPort >> route >> parent)) {
            continue;
        }
        std::ostringstream text;
        text << std::stoul(id) << " " << std::stoul(speed) << " " << std::hex << std::stoul(rootPort, nullptr, 16)
             << " " << std::stoul(route, nullptr, 16) << std::dec << " " << std::stoul(parent) << "\n";
        all += text.str();
    }
    return all;
}

std::string Write(const std::vector<UsbSelfId>& records) {
    std::ostringstream text;
    for (const UsbSelfId& record : records) {
        text << record.deviceId << " " << record.speed << " " << std::hex << record.rootPortId << " "
             << record.routeString << std::dec << " " << record.parentId << "\n";
    }
    return text.str();
}

std::vector<std::string> SortedLines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

class RecordedUsbTrees : public UsbTrees, public testing::WithParamInterface<const char*> {};

TEST_P(RecordedUsbTrees, AreTheKernelsTrees) {
    const std::string name = GetParam();
    bed.AddRecording(name + ".umockdev");
    Start();
    const auto tree = ReadTree(*List().back());
    EXPECT_EQ(tree.status, HAL_OK);
    EXPECT_FALSE(tree.records.empty());
    EXPECT_EQ(SortedLines(Write(tree.records)), SortedLines(ReadRecords(name + ".records")));
}

INSTANTIATE_TEST_SUITE_P(Usb, RecordedUsbTrees, testing::Values("superspeed-hub-chain", "xhci-hubs-and-camera"));

TEST_F(UsbTrees, HoldACameraBehindFiveHubs) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    std::string name = "2-1";
    for (unsigned int hub = 0; hub < 5; ++hub) {
        bed.Add(Hub(name, 2 + hub, true));
        name += "." + std::to_string(hub + 2);
    }
    bed.Add(Camera(name, 20, "A"));
    Start();
    const auto tree = ReadTree(*List().at(0));
    ASSERT_THAT(tree.records, SizeIs(6));
    EXPECT_EQ(tree.records.back().routeString, 0x65432u);
    EXPECT_EQ(tree.records.back().deviceId, tree.deviceId);
    EXPECT_EQ(tree.hostKey, 0xA0u);
    for (const UsbSelfId& record : tree.records) {
        EXPECT_NE(record.deviceId, 63u);
    }
}

TEST_F(UsbTrees, OfTwoControllersAreApartAndChangeApart) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.AddController("/devices/pci0000:00/0000:00:1d.0", 3, 4);
    bed.Add(Camera("2-1", 2, "A"));
    bed.Add(Camera("4-1", 2, "B"));
    Start();
    const auto cameras = List();
    const auto first = ReadTree(*cameras[0]);
    const auto second = ReadTree(*cameras[1]);
    EXPECT_NE(first.hostKey, second.hostKey);
    EXPECT_THAT(first.records, SizeIs(1));
    EXPECT_THAT(second.records, SizeIs(1));
    bed.Add(Hub("3-1", 2, false));
    ASSERT_TRUE(states.WaitFor([&](const auto& state) { return state.resets > listedState.resets; }));
    EXPECT_EQ(ReadTree(*cameras[0]).generation, first.generation);
    EXPECT_NE(ReadTree(*cameras[1]).generation, second.generation);
}

TEST_F(UsbTrees, HaveAnotherGenerationAfterEachChange) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const auto cameras = List();
    std::set<std::uint32_t> generations{ReadTree(*cameras[0]).generation};
    bed.Add(Hub("1-1", 2, false));
    generations.insert(ReadTree(*cameras[0]).generation);
    bed.Remove("1-1");
    generations.insert(ReadTree(*cameras[0]).generation);
    EXPECT_THAT(generations, SizeIs(3)) << "back to the first tree, but not to its generation";
    EXPECT_EQ(ReadTree(*cameras[0]).generation, *generations.rbegin());
}

TEST_F(UsbTrees, HoldBothHalvesOfAHub) {
    bed.AddController(UsbTestbed::Pci, 1, 2);
    bed.Add(Hub("1-2", 2, false));
    bed.Add(Hub("2-2", 2, true));
    bed.Add(Camera("2-2.3", 3, "A"));
    bed.Add(Camera("1-2.1", 3, "B", false));
    Start();
    const auto tree = ReadTree(*List().back());
    EXPECT_EQ(Write(tree.records),
              "130 480 102 0 63\n"
              "131 480 102 1 130\n"
              "258 5000 202 0 63\n"
              "259 5000 202 3 258\n");
}

}  // namespace
}  // namespace Nimbrel2::Testing
