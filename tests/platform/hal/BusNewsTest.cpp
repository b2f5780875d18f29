// SPDX-License-Identifier: Apache-2.0
// What is news, for every order of reports, listings and registrations.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/hal/BusNews.h"

namespace Nimbrel2::Platform {
namespace {

using Kind = BusNews::Listing;
using testing::ElementsAre;
using testing::IsEmpty;

/// "a", or "a/2" for another version.
BusState State(std::uint64_t resets, const std::vector<std::string>& devices) {
    BusState state{resets, {}};
    for (const std::string& device : devices) {
        const std::size_t slash = device.find('/');
        PresentDevice present{device.substr(0, slash)};
        if (slash != std::string::npos) {
            present.version = std::stoull(device.substr(slash + 1));
        }
        present.firstWord = static_cast<std::uint32_t>(device[0]);
        state.devices.push_back(present);
    }
    return state;
}

/// Takes events as "reset", "+a", "-a".
class Events {
public:
    void operator()(HALBusEvent event, std::uint32_t first, std::uint32_t second) const {
        EXPECT_EQ(second, 0u);
        if (event == HAL_BUS_RESET) {
            EXPECT_EQ(first, 0u);
            m_events->push_back("reset");
        } else {
            m_events->push_back((event == HAL_BUS_ARRIVAL ? "+" : "-") + std::string(1, static_cast<char>(first)));
        }
    }
    std::vector<std::string> Take() { return std::exchange(*m_events, {}); }

private:
    std::shared_ptr<std::vector<std::string>> m_events = std::make_shared<std::vector<std::string>>();
};

class BusNewsTest : public testing::Test {
protected:
    std::vector<std::string> Report(std::uint64_t resets, const std::vector<std::string>& devices) {
        m_news.Report(State(resets, devices), m_events);
        return m_events.Take();
    }
    void Listed(Kind kind, BusState state) {
        m_news.BeginListing(kind);
        m_news.Listed(kind, std::move(state));
        m_news.EndListing(kind);
    }
    std::vector<std::string> Unseen() {
        m_news.RaiseUnseen(m_events);
        return m_events.Take();
    }

    BusNews m_news;
    Events m_events;
};

TEST_F(BusNewsTest, ADifferenceIsAResetThenRemovalsThenArrivals) {
    EXPECT_THAT(Report(0, {"b", "a"}), ElementsAre("reset", "+a", "+b"));
    EXPECT_THAT(Report(0, {"c", "b", "d"}), ElementsAre("reset", "-a", "+c", "+d"));
    EXPECT_THAT(Report(0, {}), ElementsAre("reset", "-b", "-c", "-d"));
}

TEST_F(BusNewsTest, TheSameStateInAnotherOrderIsNoNews) {
    Report(3, {"a", "b"});
    EXPECT_THAT(Report(3, {"b", "a"}), IsEmpty());
}

TEST_F(BusNewsTest, AResetThatChangesNoDeviceIsAReset) {
    Report(0, {"a"});
    EXPECT_THAT(Report(1, {"a"}), ElementsAre("reset"));
}

TEST_F(BusNewsTest, ADeviceThatCameBackBetweenTwoLooksLeftAndArrived) {
    Report(0, {"a/1", "b/1"});
    EXPECT_THAT(Report(0, {"a/2", "b/1"}), ElementsAre("reset", "-a", "+a"));
}

TEST_F(BusNewsTest, WhatWasListedIsKnownToANewRegistration) {
    Report(0, {"a"});
    Listed(Kind::Cameras, State(0, {"a"}));
    EXPECT_THAT(Unseen(), IsEmpty());
}

TEST_F(BusNewsTest, WhatChangedSinceTheListingIsNotKnownToANewRegistration) {
    Report(0, {"a"});
    Listed(Kind::Cameras, State(0, {"a"}));
    Report(0, {"b"});
    EXPECT_THAT(Unseen(), ElementsAre("reset", "-a", "+b"));
    EXPECT_THAT(Unseen(), ElementsAre("reset", "-a", "+b")) << "each registration has its own listing behind it";
}

TEST_F(BusNewsTest, AChangeThatWasUndoneIsNoNews) {
    Report(0, {"a"});
    Listed(Kind::Cameras, State(0, {"a"}));
    Report(0, {});
    Report(0, {"a"});
    EXPECT_THAT(Unseen(), IsEmpty());
}

TEST_F(BusNewsTest, AChangeBetweenTheListingsOfCamerasAndDevicesIsUnseen) {
    Listed(Kind::Cameras, State(0, {}));
    Report(0, {"a"});
    Listed(Kind::Devices, State(0, {"a"}));
    EXPECT_THAT(Unseen(), ElementsAre("reset", "+a"));
    Listed(Kind::Cameras, State(0, {"a"}));
    EXPECT_THAT(Unseen(), IsEmpty());
}

TEST_F(BusNewsTest, AListOfDevicesThatIsTooOldIsUnseenToo) {
    Listed(Kind::Devices, State(0, {}));
    Report(0, {"a"});
    Listed(Kind::Cameras, State(0, {"a"}));
    EXPECT_THAT(Unseen(), ElementsAre("reset", "+a"));
}

TEST_F(BusNewsTest, AKindThatWasNeverListedCannotBeOutOfDate) {
    Report(0, {"a"});
    Listed(Kind::Devices, State(0, {"a"}));
    EXPECT_THAT(Unseen(), IsEmpty());
}

TEST_F(BusNewsTest, WhoeverNeverListedHearsWhatIsThere) {
    Report(0, {"a"});
    EXPECT_THAT(Unseen(), ElementsAre("reset", "+a"));
}

TEST_F(BusNewsTest, AListingThatWasOvertakenCostsAResetAndMissesNothing) {
    Report(0, {"a"});
    m_news.BeginListing(Kind::Cameras);
    Listed(Kind::Cameras, State(0, {"a"}));
    m_news.Listed(Kind::Cameras, State(0, {}));  // began first, ended last
    m_news.EndListing(Kind::Cameras);
    EXPECT_THAT(Unseen(), ElementsAre("reset", "+a"));
}

TEST_F(BusNewsTest, OfTwoListingsAtOnceEitherMayBeBehindARegistration) {
    m_news.BeginListing(Kind::Cameras);
    m_news.BeginListing(Kind::Cameras);
    m_news.Listed(Kind::Cameras, State(0, {}));
    m_news.EndListing(Kind::Cameras);
    Report(0, {"a"});
    m_news.Listed(Kind::Cameras, State(0, {"a"}));
    m_news.EndListing(Kind::Cameras);
    EXPECT_THAT(Unseen(), ElementsAre("reset")) << "whoever holds the first list must list again";
    Listed(Kind::Cameras, State(0, {"a"}));
    EXPECT_THAT(Unseen(), IsEmpty());
}

TEST_F(BusNewsTest, TwoListingsAtOnceThatSawTheSameAreAsGoodAsOne) {
    Report(0, {"a"});
    for (int i = 0; i < 2; ++i) {
        m_news.BeginListing(Kind::Cameras);
    }
    for (int i = 0; i < 2; ++i) {
        m_news.Listed(Kind::Cameras, State(0, {"a"}));
        m_news.EndListing(Kind::Cameras);
    }
    EXPECT_THAT(Unseen(), IsEmpty());
}

TEST_F(BusNewsTest, AListingThatFailedBesideAnotherChangesNothing) {
    Report(0, {"a"});
    m_news.BeginListing(Kind::Cameras);
    m_news.BeginListing(Kind::Cameras);
    m_news.EndListing(Kind::Cameras);
    m_news.Listed(Kind::Cameras, State(0, {"a"}));
    m_news.EndListing(Kind::Cameras);
    EXPECT_THAT(Unseen(), IsEmpty());
}

TEST_F(BusNewsTest, WhatEitherListHasOrLacksIsToldOnce) {
    Report(0, {"a", "b"});
    Listed(Kind::Cameras, State(0, {"a", "b"}));
    Report(0, {"a", "c"});
    Listed(Kind::Devices, State(0, {"a", "c"}));
    Report(0, {"d"});
    EXPECT_THAT(Unseen(), ElementsAre("reset", "-a", "-b", "-c", "+d"));
}

TEST_F(BusNewsTest, AChangeThatNobodyHasMemoryForIsAReset) {
    Report(0, {"a"});
    Listed(Kind::Cameras, State(0, {"a"}));
    m_news.ReportUnknown(m_events);
    EXPECT_THAT(m_events.Take(), ElementsAre("reset"));
    EXPECT_THAT(Unseen(), ElementsAre("reset")) << "also for whoever registers before it is known";
    EXPECT_THAT(Report(0, {"b"}), ElementsAre("reset", "-a", "+b"));
    Listed(Kind::Cameras, State(0, {"b"}));
    EXPECT_THAT(Unseen(), IsEmpty());
}

TEST_F(BusNewsTest, AChangeThatNobodyHasMemoryForIsToldToWhoeverNeverListed) {
    m_news.ReportUnknown(m_events);
    m_events.Take();
    EXPECT_THAT(Unseen(), ElementsAre("reset"));
    EXPECT_THAT(Report(0, {}), IsEmpty());
    EXPECT_THAT(Unseen(), IsEmpty());
}

}  // namespace
}  // namespace Nimbrel2::Platform
