// SPDX-License-Identifier: Apache-2.0
// Counters of the kernel's network.
#include <gtest/gtest.h>

#include "platform/base/Netstat.h"

namespace Nimbrel2::Platform {
namespace {

const char TestNetstat[] =
    "TcpExt: SyncookiesSent EmbryonicRsts IPReversePathFilter TCPTimeouts\n"
    "TcpExt: 1 2 4711 5\n"
    "IpExt: InNoRoutes InOctets\n"
    "IpExt: 6 7\n";

TEST(Netstat, HasEachCounterUnderItsName) {
    EXPECT_EQ(ParseNetstat(TestNetstat, "IPReversePathFilter"), 4711u);
    EXPECT_EQ(ParseNetstat(TestNetstat, "InOctets"), 7u);
    EXPECT_EQ(ParseNetstat(TestNetstat, "TCPTimeouts"), 5u);
}

TEST(Netstat, HasNoOthers) {
    EXPECT_EQ(ParseNetstat(TestNetstat, "IPReverse"), std::nullopt);
    EXPECT_EQ(ParseNetstat("", "InOctets"), std::nullopt);
    EXPECT_EQ(ParseNetstat("TcpExt: A B\n", "A"), std::nullopt) << "names without values";
    EXPECT_EQ(ParseNetstat("TcpExt: A B\nTcpExt: 1\n", "B"), std::nullopt) << "a value too few";
    EXPECT_EQ(ParseNetstat("TcpExt: A\nTcpExt: many\n", "A"), std::nullopt);
}

}  // namespace
}  // namespace Nimbrel2::Platform
