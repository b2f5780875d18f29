// SPDX-License-Identifier: Apache-2.0
// Inputs from files and the trees they become, a text dump beside each. One thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "tests/topology/TreeSupport.h"
#include "topology/SelfIdParsing.h"
#include "topology/UsbTopology.h"

namespace Nimbrel2 {
namespace {

using Testing::Input;

std::string ReadFile(const std::string& name) {
    std::ifstream file(std::string(TOPOLOGY_DATA_DIR) + '/' + name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

// The lines of an input without what stands behind '#', each as its words.
std::vector<std::vector<std::string>> ReadLines(const std::string& name) {
    std::vector<std::vector<std::string>> lines;
    std::istringstream text(ReadFile(name));
    for (std::string line; std::getline(text, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        const std::vector<std::string> found{std::istream_iterator<std::string>(words), {}};
        if (!found.empty()) {
            lines.push_back(found);
        }
    }
    EXPECT_FALSE(lines.empty()) << name;
    return lines;
}

struct Recording {
    const char* name;
    Input input;
};

void PrintTo(const Recording& recording, std::ostream* out) { *out << recording.name; }

std::string TestName(const testing::TestParamInfo<Recording>& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

class RecordedTrees : public testing::TestWithParam<Recording> {
protected:
    static void Compare(const TopologyNode& tree) {
        EXPECT_EQ(Testing::Dump(tree), ReadFile(std::string(GetParam().name) + ".tree"));
        EXPECT_THAT(Testing::Violations(tree, GetParam().input), testing::IsEmpty());
    }
};

class RecordedSelfIds : public RecordedTrees {};
class RecordedUsbRecords : public RecordedTrees {};

TEST_P(RecordedSelfIds, BecomeTheTreeBeside) {
    std::vector<SelfIdPacket_t> stream;
    for (const auto& words : ReadLines(std::string(GetParam().name) + ".selfid")) {
        const unsigned long quadlet = std::stoul(words[0], nullptr, 16);
        stream.push_back(SelfIdPacket_t{
            {static_cast<std::uint8_t>(quadlet >> 24), static_cast<std::uint8_t>(quadlet >> 16 & 0xFF),
             static_cast<std::uint8_t>(quadlet >> 8 & 0xFF), static_cast<std::uint8_t>(quadlet & 0xFF)}});
    }
    Compare(ParseSelfIdPackets(stream));
}

TEST_P(RecordedUsbRecords, BecomeTheTreeBeside) {
    std::vector<UsbSelfId> records;
    for (const auto& words : ReadLines(std::string(GetParam().name) + ".records")) {
        records.push_back(UsbSelfId{
            static_cast<std::uint32_t>(std::stoul(words.at(0))), static_cast<std::uint32_t>(std::stoul(words.at(1))),
            std::stoull(words.at(2), nullptr, 16), std::stoull(words.at(3), nullptr, 16), std::stoull(words.at(4))});
    }
    Compare(BuildUsbHost(records));
}

INSTANTIATE_TEST_SUITE_P(All, RecordedSelfIds,
                         testing::Values(Recording{"three-cameras-on-a-hub", Input::WellFormed},
                                         Recording{"nested-hubs", Input::WellFormed},
                                         Recording{"cut-in-an-extended-packet", Input::Anything},
                                         Recording{"reset-while-reading", Input::Anything}),
                         TestName);

INSTANTIATE_TEST_SUITE_P(All, RecordedUsbRecords,
                         testing::Values(Recording{"xhci-hubs-and-camera", Input::WellFormed},
                                         Recording{"superspeed-hub-chain", Input::WellFormed},
                                         Recording{"same-port-of-two-hubs", Input::Anything}),
                         TestName);

}  // namespace
}  // namespace Nimbrel2
