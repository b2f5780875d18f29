// SPDX-License-Identifier: Apache-2.0
// What the USB driver reports while devices come and go. Where a test says what is in one burst, the driver waits for
// much more quiet than it does otherwise, for a busy computer may take its time between two uevents.
#include <filesystem>
#include <mutex>

#include "tests/platform/usb/UsbFixture.h"

namespace Nimbrel2::Testing {
namespace {

using Platform::BusState;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class UsbEvents : public UsbFixture {
public:
    UsbEvents() { bed.AddController(UsbTestbed::Pci, 1, 2); }

    /// What happens from here on is one burst to the monitor, however long it takes.
    void BeginBurst() {
        const std::size_t reports = states.GetReports();
        states.Hold();
        bed.SendUevent("usb2", "change");
        ASSERT_TRUE(states.WaitForReports(reports + 1));
    }
    void EndBurst() { states.Release(); }
};

TEST_F(UsbEvents, ReportWhatIsThereWhenTheDriverStarts) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    ASSERT_THAT(states.GetStates(), SizeIs(1));
    EXPECT_THAT(states.GetLast().devices, SizeIs(1));
    List();
    EXPECT_EQ(listedState, states.GetLast());
}

TEST_F(UsbEvents, ReportACameraThatIsPluggedInAndPulledOut) {
    Start();
    const std::uint64_t resets = states.GetLast().resets;
    bed.Add(Camera("2-1", 2, "A"));
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_GT(states.GetLast().resets, resets);
    EXPECT_TRUE(states.IsLastSettled()) << "nobody need wait for the end of the burst once more";
    EXPECT_THAT(ListNames(), ElementsAre("Model A"));
    bed.Remove("2-1");
    ASSERT_TRUE(states.WaitForDevices(0));
    EXPECT_THAT(List(), IsEmpty());
}

TEST_F(UsbEvents, ReportAHubWithThreeCamerasBehindItAsOneChange) {
    Start();
    BeginBurst();
    bed.Add(Hub("1-3", 2, false));
    bed.Add(Hub("2-3", 2, true));
    for (unsigned int port = 1; port <= 3; ++port) {
        bed.Add(Camera("2-3." + std::to_string(port), 2 + port, std::to_string(port)));
    }
    EndBurst();
    ASSERT_TRUE(states.WaitForDevices(3));
    EXPECT_THAT(states.GetStates(), SizeIs(2));
    EXPECT_EQ(states.GetLast().resets, states.GetStates().front().resets + 1);

    BeginBurst();
    bed.Remove("2-3");
    EndBurst();
    ASSERT_TRUE(states.WaitForDevices(0));
    EXPECT_THAT(states.GetStates(), SizeIs(3));
}

TEST_F(UsbEvents, ReportACameraThatWasPulledAndPluggedBetweenTwoLooksAsAnotherVisit) {
    bed.Add(Camera("2-1", 17, "A"));
    Start();
    const BusState before = states.GetLast();
    BeginBurst();
    bed.Remove("2-1");
    bed.Add(Camera("2-1", 18, "A"));
    EndBurst();
    ASSERT_TRUE(states.WaitFor([&](const BusState& state) { return state != before; }));
    ASSERT_THAT(states.GetStates(), SizeIs(2));
    const BusState after = states.GetLast();
    ASSERT_THAT(after.devices, SizeIs(1));
    EXPECT_EQ(after.devices[0].identity, before.devices[0].identity);
    EXPECT_NE(after.devices[0].version, before.devices[0].version);
    EXPECT_EQ(after.resets, before.resets + 1);
}

TEST_F(UsbEvents, KnowACameraThatComesBackOnAnotherPort) {
    bed.Add(Camera("2-1", 17, "A"));
    Start();
    const BusState before = states.GetLast();
    BeginBurst();
    bed.Remove("2-1");
    bed.Add(Camera("1-4", 5, "A", false));
    EndBurst();
    ASSERT_TRUE(states.WaitFor([&](const BusState& state) { return state != before; }));
    ASSERT_THAT(states.GetLast().devices, SizeIs(1));
    EXPECT_EQ(states.GetLast().devices[0].identity, before.devices[0].identity);
}

TEST_F(UsbEvents, TakeTheKernelsWordForARemovalBeforeTheDirectoryIsGone) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    bed.SendUevent("2-1", "remove");
    ASSERT_TRUE(states.WaitForDevices(0));
    EXPECT_THAT(List(), IsEmpty());
    bed.RemoveSilently("2-1");
    bed.Add(Camera("2-1", 3, "A"));
    EXPECT_TRUE(states.WaitForDevices(1));
}

TEST_F(UsbEvents, ReportAHubAloneForTheTreeIsAnotherOne) {
    Start();
    const BusState before = states.GetLast();
    bed.Add(Hub("2-1", 2, true));
    EXPECT_TRUE(states.WaitFor([&](const BusState& state) { return state.resets > before.resets; }));
    EXPECT_THAT(states.GetLast().devices, IsEmpty());
}

TEST_F(UsbEvents, WithoutAChangeBringNothing) {
    bed.Add(Camera("2-1", 2, "A"));
    Start();
    const std::size_t reports = states.GetReports();
    bed.SendUevent("2-1", "change");
    EXPECT_TRUE(states.WaitForReports(reports + 1));
    EXPECT_THAT(states.GetStates(), SizeIs(1));
}

TEST_F(UsbEvents, ThatNeverRestAreSeenToAllTheSame) {
    timings.quiet = 60s;
    timings.longestBurst = 100ms;
    Start();
    bed.Add(Camera("2-1", 2, "A"));
    EXPECT_TRUE(states.WaitForDevices(1));
}

TEST_F(UsbEvents, AreSeenToWithinABurstByAListing) {
    timings.quiet = timings.longestBurst = 60s;
    Start();
    bed.Add(Camera("2-1", 2, "A"));
    EXPECT_THAT(ListNames(), ElementsAre("Model A"));
    EXPECT_FALSE(states.IsLastSettled()) << "more may come";
    EXPECT_EQ(listedState, states.GetLast()) << "it was reported before the listing returned";
    EXPECT_THAT(listedState.devices, SizeIs(1));
}

TEST_F(UsbEvents, OfASecondCameraWithTheSameSerialTextAreNoNewsOfTheFirst) {
    bed.Add(Camera("2-2", 2, "A"));
    Start();
    const BusState before = states.GetLast();
    bed.Add(Camera("2-1", 3, "A"));
    ASSERT_TRUE(states.WaitForDevices(2));
    EXPECT_THAT(states.GetLast().devices, testing::Contains(before.devices[0]));
    bed.Remove("2-1");
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_THAT(states.GetLast().devices, ElementsAre(before.devices[0]));
}

TEST_F(UsbEvents, ComeToAnEndWithTheDriver) {
    Start();
    core->Stop();
    const std::size_t reports = states.GetReports();
    bed.Add(Camera("2-1", 2, "A"));
    core.reset();
    EXPECT_EQ(states.GetReports(), reports);
}

// ---- Where uevents cannot come -------------------------------------------------------------------------------------

TEST_F(UsbEvents, ThatCannotBeHeardAreReplacedByALookNowAndThenWhichIsSaidOnce) {
    // The mocked socket lies at a path, and this takes all of them.
    for (int fd = 0; fd < 200; ++fd) {
        std::filesystem::create_directory(bed.GetRoot() + "/event" + std::to_string(fd));
    }
    std::mutex mutex;
    std::vector<std::string> traces;
    options.trace = [&](const std::string& text) {
        const std::lock_guard lock(mutex);
        traces.push_back(text);
    };
    timings.scanPeriod = 20ms;
    Start();
    bed.Add(Camera("2-1", 2, "A"));
    ASSERT_TRUE(states.WaitForDevices(1));
    bed.RemoveSilently("2-1");
    ASSERT_TRUE(states.WaitForDevices(0));
    Platform::UsbDiagnosis diagnosis;
    ASSERT_EQ(core->Diagnose(&diagnosis), HAL_OK);
    EXPECT_FALSE(diagnosis.hearsUevents);
    EXPECT_NE(diagnosis.ueventError, 0);
    const std::lock_guard lock(mutex);
    ASSERT_THAT(traces, SizeIs(1));
    EXPECT_THAT(traces[0], testing::HasSubstr("every two seconds"));
}

TEST_F(UsbEvents, ThatCannotBeHeardAreNoReasonForAListingToBeLate) {
    for (int fd = 0; fd < 200; ++fd) {
        std::filesystem::create_directory(bed.GetRoot() + "/event" + std::to_string(fd));
    }
    timings.scanPeriod = 3600s;
    Start();
    bed.Add(Camera("2-1", 2, "A"));
    EXPECT_THAT(ListNames(), ElementsAre("Model A"));
    EXPECT_THAT(states.GetLast().devices, SizeIs(1));
}

TEST_F(UsbEvents, ThatAreHeardLeaveTheComputerAloneInBetween) {
    timings.scanPeriod = 1ms;
    Start();
    const std::size_t reports = states.GetReports();
    bed.Add(Camera("2-1", 2, "A"));
    ASSERT_TRUE(states.WaitForDevices(1));
    EXPECT_EQ(states.GetReports(), reports + 1) << "there were no other looks";
}

}  // namespace
}  // namespace Nimbrel2::Testing
