// SPDX-License-Identifier: Apache-2.0
// Which changes count as unseen, for every order of changes and listings.
#include <gtest/gtest.h>

#include "platform/hal/ListingLedger.h"

namespace Nimbrel2::Platform {
namespace {

using Listing = ListingLedger::Listing;

void List(ListingLedger& ledger, Listing listing) { ledger.End(listing, ledger.Begin()); }

TEST(ListingLedger, ABusThatNeverChangedHasNothingUnseen) {
    ListingLedger ledger;
    EXPECT_FALSE(ledger.HasUnseenChange());
    List(ledger, Listing::Cameras);
    EXPECT_FALSE(ledger.HasUnseenChange());
}

TEST(ListingLedger, AChangeBeforeAnyListingIsUnseen) {
    ListingLedger ledger;
    ledger.CountChange();
    EXPECT_TRUE(ledger.HasUnseenChange());
}

TEST(ListingLedger, AListingThatBeganAfterAChangeShowsIt) {
    ListingLedger ledger;
    ledger.CountChange();
    ledger.CountChange();
    List(ledger, Listing::Cameras);
    EXPECT_FALSE(ledger.HasUnseenChange());
}

TEST(ListingLedger, AChangeAfterTheListingIsUnseen) {
    ListingLedger ledger;
    List(ledger, Listing::Cameras);
    ledger.CountChange();
    EXPECT_TRUE(ledger.HasUnseenChange());
}

TEST(ListingLedger, AChangeDuringAListingStaysUnseenUntilTheNext) {
    ListingLedger ledger;
    const std::uint64_t begin = ledger.Begin();
    ledger.CountChange();
    ledger.End(Listing::Cameras, begin);
    EXPECT_TRUE(ledger.HasUnseenChange());
    List(ledger, Listing::Cameras);
    EXPECT_FALSE(ledger.HasUnseenChange());
}

TEST(ListingLedger, AListingThatFailsShowsNothing) {
    ListingLedger ledger;
    ledger.CountChange();
    (void)ledger.Begin();
    EXPECT_TRUE(ledger.HasUnseenChange());
}

TEST(ListingLedger, AChangeBetweenTheListingsOfCamerasAndDevicesIsUnseen) {
    ListingLedger ledger;
    List(ledger, Listing::Cameras);
    ledger.CountChange();
    List(ledger, Listing::Devices);
    EXPECT_TRUE(ledger.HasUnseenChange());
    List(ledger, Listing::Cameras);
    EXPECT_FALSE(ledger.HasUnseenChange());
}

TEST(ListingLedger, AKindThatWasNeverListedCannotBeOutOfDate) {
    ListingLedger ledger;
    ledger.CountChange();
    List(ledger, Listing::Devices);
    EXPECT_FALSE(ledger.HasUnseenChange());
}

TEST(ListingLedger, AnOverlappedListingThatEndsLateTakesNothingBack) {
    ListingLedger ledger;
    const std::uint64_t early = ledger.Begin();
    ledger.CountChange();
    List(ledger, Listing::Cameras);
    ledger.End(Listing::Cameras, early);
    EXPECT_FALSE(ledger.HasUnseenChange());
}

}  // namespace
}  // namespace Nimbrel2::Platform
