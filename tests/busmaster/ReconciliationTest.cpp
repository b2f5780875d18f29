// SPDX-License-Identifier: Apache-2.0
// Merging a fresh camera list into the kept one: each rule alone, then random sequences against a plain copy.
#include <algorithm>
#include <random>
#include <sstream>

#include "common/IEEE1394Interface.h"
#include "tests/busmaster/CoreFixture.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2 {
namespace {

using Device = Testing::ScriptedHal::DevicePointer;

ZevoGuid Guid(std::uint32_t number) { return ZevoGuid{{number, 0, 0, 0}}; }

class ReconciliationTest : public CoreTest {
protected:
    ~ReconciliationTest() override {
        std::sort(removed.begin(), removed.end());
        removed.erase(std::unique(removed.begin(), removed.end()), removed.end());
        for (BusMasterHandle* handle : removed) {
            current.erase(std::remove(current.begin(), current.end(), handle), current.end());
        }
        Access::FreeCameraList(&removed);
        Access::FreeCameraList(&current);
        Access::FreeCameraList(&fresh);
    }

    void Update() { ExpectOk(Access::UpdateCameraList(current, fresh, arrived, removed)); }

    BusMasterHandle* Fake(std::uint32_t guid, InterfaceType type = INTERFACE_GIGE) {
        return NewHandle(Guid(guid), guid, new FakeInterface(type, &released[guid]));
    }

    // A handle of a camera on IEEE 1394, from a listing of its own.
    BusMasterHandle* ListOne(const Device& device) {
        hal.DetachAll();
        hal.Attach(device);
        HandleList list;
        ExpectOk(Access::Get1394Cameras(&list));
        EXPECT_EQ(1U, list.size());
        return list.empty() ? nullptr : list[0];
    }

    static IEEE1394Interface& FireWire(const BusMasterHandle* handle) {
        return dynamic_cast<IEEE1394Interface&>(*handle->hwInterface);
    }

    static std::uint16_t NodeOf(const BusMasterHandle* handle) {
        std::uint16_t node = 0;
        FireWire(handle).GetCameraNode(&node);
        return node;
    }

    static std::uint16_t BusOf(const BusMasterHandle* handle) {
        std::uint16_t busNumber = 0;
        FireWire(handle).GetCameraBusNum(&busNumber);
        return busNumber;
    }

    HandleList current;
    HandleList fresh;
    HandleList arrived;
    HandleList removed;
    std::map<std::uint32_t, int> released;  // by guid
};

// ---- AreDevicesEqual -----------------------------------------------------------------------------------------------

TEST(AreDevicesEqual, LooksAtAllFourWordsOfTheIdentifierAndAtNothingElse) {
    BusMasterHandle first;
    BusMasterHandle second;
    EXPECT_TRUE(BusMaster::AreDevicesEqual(&first, &second));
    first.guid = second.guid = ZevoGuid{{1, 2, 3, 4}};
    second.serialNumber = 7;
    EXPECT_TRUE(BusMaster::AreDevicesEqual(&first, &second));
    for (int word = 0; word < 4; ++word) {
        second.guid = first.guid;
        second.guid.value[word] ^= 0x80000000;
        EXPECT_FALSE(BusMaster::AreDevicesEqual(&first, &second)) << "word " << word;
    }
}

// ---- UpdateCameraList ----------------------------------------------------------------------------------------------

TEST_F(ReconciliationTest, OfNothingWithNothingGivesNothing) {
    Update();
    EXPECT_TRUE(current.empty() && fresh.empty() && arrived.empty() && removed.empty());
    EXPECT_EQ((Names{"Updating camera list. Current size: 0, new size: 0", "Completed updating camera list"}),
              traces.Lines());
}

TEST_F(ReconciliationTest, TracesTheSizesBeforeItStarts) {
    current = {Fake(1), Fake(2)};
    fresh = {Fake(1), Fake(3), Fake(4)};
    Update();
    EXPECT_EQ((Names{"Updating camera list. Current size: 2, new size: 3", "Completed updating camera list"}),
              traces.Lines());
}

TEST_F(ReconciliationTest, TakesAllAsArrivedWhenNoneWasKnown) {
    const HandleList cameras{Fake(1), Fake(2), Fake(3)};
    fresh = cameras;
    BusMasterHandle* const earlier = Fake(9);
    removed = {earlier};
    Update();
    EXPECT_EQ(cameras, arrived);
    EXPECT_EQ(cameras, current);
    EXPECT_EQ(HandleList{earlier}, removed);
    EXPECT_TRUE(fresh.empty());
    for (const auto& count : released) {
        EXPECT_EQ(0, count.second);
    }
}

TEST_F(ReconciliationTest, TakesAllAsRemovedWhenNoneIsLeft) {
    const HandleList cameras{Fake(1), Fake(2), Fake(3)};
    current = cameras;
    Update();
    EXPECT_TRUE(current.empty());
    EXPECT_TRUE(arrived.empty());
    EXPECT_EQ(cameras, removed);
    EXPECT_EQ(0, released[1]);
}

TEST_F(ReconciliationTest, KeepsTheOldHandleOfACameraThatStaysAndFreesTheFreshOne) {
    BusMasterHandle* const kept = Fake(1);
    const HardwareInterface* const keptInterface = kept->hwInterface.get();
    current = {kept};
    int duplicateReleased = 0;
    fresh = {NewHandle(Guid(1), 99, new FakeInterface(INTERFACE_GIGE, &duplicateReleased))};
    Update();
    EXPECT_EQ(HandleList{kept}, current);
    EXPECT_EQ(keptInterface, kept->hwInterface.get());
    EXPECT_EQ(1U, kept->serialNumber);
    EXPECT_EQ(1, duplicateReleased);
    EXPECT_EQ(0, released[1]);
    EXPECT_TRUE(fresh.empty() && arrived.empty() && removed.empty());
}

TEST_F(ReconciliationTest, KeepsSurvivorsInOrderWhenTheFirstLeaves) {
    BusMasterHandle* const first = Fake(1);
    BusMasterHandle* const second = Fake(2);
    BusMasterHandle* const third = Fake(3);
    current = {first, second, third};
    fresh = {Fake(3), Fake(2)};
    Update();
    EXPECT_EQ((HandleList{second, third}), current);
    EXPECT_EQ(HandleList{first}, removed);
}

TEST_F(ReconciliationTest, PutsNewcomersBehindSurvivorsInTheOrderOfTheEnumeration) {
    BusMasterHandle* const kept = Fake(2);
    BusMasterHandle* const newcomer = Fake(9);
    BusMasterHandle* const other = Fake(1);
    current = {kept};
    fresh = {newcomer, Fake(2), other};
    Update();
    EXPECT_EQ((HandleList{kept, newcomer, other}), current);
    EXPECT_EQ((HandleList{newcomer, other}), arrived);
}

TEST_F(ReconciliationTest, OverwritesWhatWasInTheArrivedList) {
    BusMasterHandle stranger;
    arrived = {&stranger, &stranger};
    BusMasterHandle* const newcomer = Fake(1);
    fresh = {newcomer};
    Update();
    EXPECT_EQ(HandleList{newcomer}, arrived);
}

TEST_F(ReconciliationTest, KeepsWhatWasInTheRemovedListAndErasesItFromTheCurrentOne) {
    BusMasterHandle* const stays = Fake(1);
    BusMasterHandle* const leftEarlier = Fake(2);
    BusMasterHandle* const leaves = Fake(3);
    current = {stays, leftEarlier, leaves};
    removed = {leftEarlier};
    fresh = {Fake(1), Fake(2)};  // the one that left earlier is still on the bus
    Update();
    EXPECT_EQ(HandleList{stays}, current);
    EXPECT_EQ((HandleList{leftEarlier, leaves}), removed);
    EXPECT_TRUE(arrived.empty());
}

TEST_F(ReconciliationTest, ListsACameraTwiceAsRemovedWhenItWasThereAndLeavesAgain) {
    BusMasterHandle* const leaves = Fake(1);
    current = {leaves};
    removed = {leaves};
    Update();
    EXPECT_TRUE(current.empty());
    EXPECT_EQ((HandleList{leaves, leaves}), removed);
}

TEST_F(ReconciliationTest, ErasesOneHandleForEachOfTheRemovedList) {
    BusMasterHandle* const listedTwice = Fake(1);
    current = {listedTwice, listedTwice};
    fresh = {Fake(1)};
    Update();
    EXPECT_EQ(HandleList{listedTwice}, current);
    EXPECT_EQ(HandleList{listedTwice}, removed);
}

TEST_F(ReconciliationTest, MergesTheFirstOfTwoFreshOnesAlikeAndTakesTheSecondAsArrived) {
    BusMasterHandle* const kept = Fake(1);
    int firstReleased = 0;
    BusMasterHandle* const second = NewHandle(Guid(1), 22, new FakeInterface(INTERFACE_USB_2));
    current = {kept};
    fresh = {NewHandle(Guid(1), 11, new FakeInterface(INTERFACE_USB_2, &firstReleased)), second};
    Update();
    EXPECT_EQ(1, firstReleased);
    EXPECT_EQ((HandleList{kept, second}), current);
    EXPECT_EQ(HandleList{second}, arrived);
}

TEST_F(ReconciliationTest, MergesTheFirstOfTwoKeptOnesAlikeAndTakesTheSecondAsRemoved) {
    BusMasterHandle* const first = Fake(1);
    BusMasterHandle* const second = Fake(1);
    current = {first, second};
    fresh = {Fake(1)};
    Update();
    EXPECT_EQ(HandleList{first}, current);
    EXPECT_EQ(HandleList{second}, removed);
}

TEST_F(ReconciliationTest, TouchesNothingOfCamerasOnOtherBuses) {
    hal.AddUsbCamera(1);
    hal.AddGigECamera(2, 3);
    ExpectOk(Access::GetUSBCameras(&current));
    ExpectOk(Access::GetGigECameras(&current));
    ExpectOk(Access::GetUSBCameras(&fresh));
    ExpectOk(Access::GetGigECameras(&fresh));
    hal.ClearCalls();
    Update();
    const Names names = hal.CallNames();
    EXPECT_EQ(1U, hal.Count("HAL_UsbFreeCamera"));
    EXPECT_EQ(1U, hal.Count("HAL_GigEFreeCamera"));
    // Beside those only the kind of the USB camera, which is live, is asked for.
    EXPECT_EQ(names.size(), 2U + hal.Count("HAL_UsbGetSpeed"));
    EXPECT_EQ(2U, traces.LinesOfThisThread().size());
}

TEST_F(ReconciliationTest, BringsNodeAndBusOfAKeptCameraUpToDateThenTransmissionThenFreesTheDuplicate) {
    const Device camera = hal.AddFireWireCamera(0xCAFE, 2, 0);
    current = {ListOne(camera)};
    FireWire(current[0]).isoEnabled = true;
    hal.Change([&] {
        camera->node = 5;
        camera->busNumber = 1;
    });
    fresh = {ListOne(camera)};
    hal.ClearCalls();
    traces.Clear();
    Update();
    EXPECT_EQ(5, NodeOf(current[0]));
    EXPECT_EQ(1, BusOf(current[0]));
    EXPECT_EQ((Names{"Updating camera list. Current size: 1, new size: 1", "Reassigning Node 5 to Node 2\n",
                     "Reassigning Bus Number 1 to Bus Number 0\n", "Write to iso bit succeeded",
                     "Completed updating camera list"}),
              traces.Lines());
    EXPECT_EQ((Names{"HAL_1394ReadRegister", "HAL_1394WriteRegister", "HAL_1394FreeCamera"}), hal.CallNames());
    const std::vector<void*> entries = hal.EntriesOf(camera);
    EXPECT_EQ(entries[0], hal.Calls()[0].Entry());  // the kept one transmits, the fresh one goes
    EXPECT_EQ(entries[1], hal.Calls()[2].Entry());
}

TEST_F(ReconciliationTest, ChangesNothingWhenMemoryRunsOut) {
    for (std::uint64_t nth = 1;; ++nth) {
        // The first stays, so that something was merged already when the lists of those that came and went need room.
        current = {Fake(2), Fake(1)};
        fresh = {Fake(2), Fake(3)};
        const HandleList currentBefore = current;
        const HandleList freshBefore = fresh;
        Error error;
        bool happened = false;
        {
            const Testing::AllocationFailure failure(nth);
            error = Access::UpdateCameraList(current, fresh, arrived, removed);
            happened = failure.Happened();
        }
        if (error != ERROR_OK) {
            EXPECT_EQ(ERROR_MEMORY_ALLOCATION_FAILED, error.GetType());
            EXPECT_EQ(currentBefore, current);
            EXPECT_EQ(freshBefore, fresh);
            EXPECT_TRUE(removed.empty());
        } else {
            EXPECT_EQ((HandleList{currentBefore[0], freshBefore[1]}), current);
            EXPECT_EQ(HandleList{currentBefore[1]}, removed);
        }
        Access::FreeCameraList(&current);
        Access::FreeCameraList(&fresh);
        Access::FreeCameraList(&removed);
        // The next round must need memory again.
        HandleList().swap(removed);
        HandleList().swap(arrived);
        HandleList().swap(current);
        if (!happened) {
            EXPECT_TRUE(error == ERROR_OK);
            EXPECT_GT(nth, 3U);
            break;
        }
    }
}

// ---- ReassignNode and ReassignBusNumber ----------------------------------------------------------------------------

TEST_F(ReconciliationTest, ReassignsOnlyWhatDiffers) {
    const Device camera = hal.AddFireWireCamera(1, 2, 3);
    current = {ListOne(camera)};
    fresh = {ListOne(camera)};
    traces.Clear();
    EXPECT_TRUE(Access::ReassignNode(fresh[0], current[0]));
    EXPECT_TRUE(Access::ReassignBusNumber(fresh[0], current[0]));
    EXPECT_TRUE(traces.Lines().empty());
    FireWire(fresh[0]).SetCameraNode(62);
    FireWire(fresh[0]).SetCameraBusNum(1023);
    EXPECT_TRUE(Access::ReassignNode(fresh[0], current[0]));
    EXPECT_EQ(62, NodeOf(current[0]));
    EXPECT_EQ(3, BusOf(current[0]));
    EXPECT_TRUE(Access::ReassignBusNumber(fresh[0], current[0]));
    EXPECT_EQ(1023, BusOf(current[0]));
    EXPECT_EQ((Names{"Reassigning Node 62 to Node 2\n", "Reassigning Bus Number 1023 to Bus Number 3\n"}),
              traces.Lines());
    EXPECT_EQ(62, NodeOf(fresh[0]));
}

TEST_F(ReconciliationTest, ReassignsNothingBetweenDifferentCameras) {
    current = {ListOne(hal.AddFireWireCamera(1, 2, 3))};
    fresh = {ListOne(hal.AddFireWireCamera(4, 5, 6))};
    EXPECT_FALSE(Access::ReassignNode(fresh[0], current[0]));
    EXPECT_FALSE(Access::ReassignBusNumber(fresh[0], current[0]));
    EXPECT_EQ(2, NodeOf(current[0]));
    EXPECT_EQ(3, BusOf(current[0]));
}

TEST_F(ReconciliationTest, ReassignsNothingWhenOneOfTheTwoIsNoIEEE1394Camera) {
    BusMasterHandle* const fireWire = ListOne(hal.AddFireWireCamera(1, 2, 3));
    current = {fireWire};
    // Of another kind, and of that kind without being one.
    for (const InterfaceType type :
         {INTERFACE_USB_2, INTERFACE_USB_3, INTERFACE_GIGE, INTERFACE_NONE, INTERFACE_IEEE1394}) {
        BusMasterHandle* const other = NewHandle(fireWire->guid, 1, new FakeInterface(type));
        fresh.push_back(other);
        EXPECT_FALSE(Access::ReassignNode(other, fireWire));
        EXPECT_FALSE(Access::ReassignNode(fireWire, other));
        EXPECT_FALSE(Access::ReassignBusNumber(other, fireWire));
        EXPECT_FALSE(Access::ReassignBusNumber(fireWire, other));
    }
    EXPECT_EQ(2, NodeOf(fireWire));
    EXPECT_EQ(3, BusOf(fireWire));
}

// ---- ReenableIso ---------------------------------------------------------------------------------------------------

class ReenableIsoTest : public ReconciliationTest {
protected:
    ReenableIsoTest() : camera(hal.AddFireWireCamera(0xCAFE)) {
        current = {ListOne(camera)};
        FireWire(current[0]).isoEnabled = true;
        hal.ClearCalls();
        traces.Clear();
    }

    bool Reenable() { return Access::ReenableIso(current[0]); }

    Device camera;
};

TEST_F(ReenableIsoTest, SwitchesTransmissionOnAgain) {
    EXPECT_TRUE(Reenable());
    const std::vector<Testing::HalCall> calls = hal.Calls();
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ("HAL_1394ReadRegister", calls[0].function);
    EXPECT_EQ((std::vector<std::uint64_t>{0xF0000410, 0xFFFFFFFF, 0}),
              std::vector<std::uint64_t>(calls[0].arguments.begin() + 1, calls[0].arguments.end()));
    EXPECT_EQ("HAL_1394WriteRegister", calls[1].function);
    EXPECT_EQ((std::vector<std::uint64_t>{0xF0F00614, 0xFFFFFFFF, 0x80000000, 0}),
              std::vector<std::uint64_t>(calls[1].arguments.begin() + 1, calls[1].arguments.end()));
    EXPECT_EQ(Names{"Write to iso bit succeeded"}, traces.Lines());
}

TEST_F(ReenableIsoTest, OnlyTracesAFailedWrite) {
    camera->statuses["HAL_1394WriteRegister"] = 0xAB;
    EXPECT_TRUE(Reenable());
    EXPECT_EQ(Names{"Write to iso bit failed with error 000000AB"}, traces.Lines());
}

TEST_F(ReenableIsoTest, WritesNothingWhenTransmissionWasNotOn) {
    FireWire(current[0]).isoEnabled = false;
    EXPECT_TRUE(Reenable());
    EXPECT_EQ(Names{"HAL_1394ReadRegister"}, hal.CallNames());
    EXPECT_TRUE(traces.Lines().empty());
}

TEST_F(ReenableIsoTest, WritesNothingWhenTheIdentityCannotBeRead) {
    camera->statuses["HAL_1394ReadRegister"] = HAL_BUSY;
    EXPECT_TRUE(Reenable());
    EXPECT_EQ(Names{"HAL_1394ReadRegister"}, hal.CallNames());
    EXPECT_TRUE(traces.Lines().empty());
}

TEST_F(ReenableIsoTest, WritesNothingToAnotherCameraAtThatPlace) {
    camera->registers[0xF0000410] = 0xBEEF;
    EXPECT_TRUE(Reenable());
    EXPECT_EQ(Names{"HAL_1394ReadRegister"}, hal.CallNames());
    EXPECT_TRUE(traces.Lines().empty());
}

TEST_F(ReenableIsoTest, WritesNothingToACameraThatWasReleased) {
    current[0]->hwInterface->ReleaseCamera();
    hal.ClearCalls();
    EXPECT_TRUE(Reenable());
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(ReenableIsoTest, RefusesWhatIsNoIEEE1394Camera) {
    for (const InterfaceType type :
         {INTERFACE_USB_2, INTERFACE_USB_3, INTERFACE_GIGE, INTERFACE_NONE, INTERFACE_IEEE1394}) {
        fresh.push_back(NewHandle(Guid(1), 1, new FakeInterface(type)));
        EXPECT_FALSE(Access::ReenableIso(fresh.back()));
    }
    EXPECT_TRUE(hal.Calls().empty());
}

// ---- Handles without an interface ----------------------------------------------------------------------------------

using ReconciliationDeathTest = ReconciliationTest;

TEST_F(ReconciliationDeathTest, EndsTheProgramForAHandleWithoutAnInterface) {
    BusMasterHandle empty;
    BusMasterHandle other;
    EXPECT_DEATH(Access::ReenableIso(&empty), "");
    EXPECT_DEATH(Access::ReassignNode(&empty, &other), "");
    EXPECT_DEATH(Access::ReassignBusNumber(&empty, &other), "");
    HandleList kept{&empty};
    HandleList found{&other};
    EXPECT_DEATH((void)Access::UpdateCameraList(kept, found, arrived, removed), "");
}

// ---- Random sequences against a plain copy -------------------------------------------------------------------------

// The same steps on plain lists, one after the other, without freeing anything.
struct Plain {
    HandleList current;
    HandleList fresh;
    HandleList arrived;
    HandleList removed;
    HandleList freed;

    void Update() {
        for (BusMasterHandle* kept : current) {
            bool merged = false;
            for (std::size_t i = 0; i < fresh.size() && !merged; ++i) {
                if (fresh[i]->guid == kept->guid) {
                    freed.push_back(fresh[i]);
                    fresh.erase(fresh.begin() + static_cast<std::ptrdiff_t>(i));
                    merged = true;
                }
            }
            if (!merged) {
                removed.push_back(kept);
            }
        }
        for (const BusMasterHandle* gone : removed) {
            for (std::size_t i = 0; i < current.size(); ++i) {
                if (current[i] == gone) {
                    current.erase(current.begin() + static_cast<std::ptrdiff_t>(i));
                    break;
                }
            }
        }
        arrived = fresh;
        fresh.clear();
        for (BusMasterHandle* handle : arrived) {
            current.push_back(handle);
        }
    }
};

// Tells the test when it is released, and when it is destroyed.
class WatchedInterface : public FakeInterface {
public:
    struct Life {
        int released = 0;
        bool destroyed = false;
    };

    WatchedInterface(InterfaceType type, Life& life) : FakeInterface(type, &life.released), m_life(life) {}
    ~WatchedInterface() override { m_life.destroyed = true; }

private:
    Life& m_life;
};

TEST(RandomReconciliation, GoesAsThePlainCopyGoes) {
    std::mt19937 random(20260101);
    const auto below = [&random](std::size_t bound) { return static_cast<std::uint32_t>(random() % bound); };
    for (int sequence = 0; sequence < 3000; ++sequence) {
        std::ostringstream where;
        where << "sequence " << sequence;
        SCOPED_TRACE(where.str());
        std::map<BusMasterHandle*, std::unique_ptr<WatchedInterface::Life>> lives;
        const std::uint32_t kinds = 1 + below(12);  // few: many alike
        const auto make = [&] {
            auto life = std::make_unique<WatchedInterface::Life>();
            BusMasterHandle* const handle = NewHandle(
                Guid(below(kinds)), below(4), new WatchedInterface(static_cast<InterfaceType>(below(5)), *life));
            lives[handle] = std::move(life);
            return handle;
        };
        Plain plain;
        HandleList current;
        HandleList arrived;
        std::set<BusMasterHandle*> alive;
        // A camera list lives through several merges.
        for (int cycle = 0; cycle < 4; ++cycle) {
            HandleList fresh;
            for (std::uint32_t i = below(10); i > 0; --i) {
                fresh.push_back(make());
                alive.insert(fresh.back());
            }
            HandleList removed;
            if (below(4) == 0 && !current.empty()) {
                removed.push_back(current[below(current.size())]);
            }
            if (below(4) == 0) {
                removed.push_back(make());
                alive.insert(removed.back());
            }
            plain = {current, fresh, arrived, removed, {}};
            plain.Update();
            ASSERT_TRUE(Access::UpdateCameraList(current, fresh, arrived, removed) == ERROR_OK);
            ASSERT_EQ(plain.current, current);
            ASSERT_EQ(plain.fresh, fresh);
            ASSERT_EQ(plain.arrived, arrived);
            ASSERT_EQ(plain.removed, removed);
            for (BusMasterHandle* handle : plain.freed) {
                EXPECT_EQ(1, lives[handle]->released);
                EXPECT_TRUE(lives[handle]->destroyed);
                alive.erase(handle);
                lives.erase(handle);
            }
            for (BusMasterHandle* handle : alive) {
                EXPECT_EQ(0, lives[handle]->released);
                EXPECT_FALSE(lives[handle]->destroyed);
            }
            // The caller owns the removed ones now.
            for (BusMasterHandle* handle : std::set<BusMasterHandle*>(removed.begin(), removed.end())) {
                alive.erase(handle);
                Access::FreeCamera(handle);
                lives.erase(handle);
            }
            ASSERT_EQ(alive, std::set<BusMasterHandle*>(current.begin(), current.end()));
        }
        Access::FreeCameraList(&current);
    }
}

// The same with real interface objects: entries, node and bus numbers.
TEST_F(ReconciliationTest, OfRandomIEEE1394CamerasKeepsNodesCurrentAndGivesEveryEntryBackOnce) {
    std::mt19937 random(4711);
    std::vector<Device> cameras;
    for (std::uint32_t i = 0; i < 12; ++i) {
        cameras.push_back(hal.AddFireWireCamera(i + 1));
    }
    for (int cycle = 0; cycle < 300; ++cycle) {
        std::shuffle(cameras.begin(), cameras.end(), random);
        hal.DetachAll();
        const std::size_t attached = random() % (cameras.size() + 1);
        for (std::size_t i = 0; i < attached; ++i) {
            hal.Change([&] {
                cameras[i]->node = static_cast<std::uint16_t>(i);
                cameras[i]->busNumber = static_cast<std::uint16_t>(random() % 3);
            });
            hal.Attach(cameras[i]);
        }
        const HandleList before = current;
        ExpectOk(Access::Get1394Cameras(&fresh));
        Update();
        ASSERT_EQ(attached, current.size());
        EXPECT_EQ(before.size() + arrived.size(), current.size() + removed.size());
        for (const BusMasterHandle* handle : current) {
            const auto camera = std::find_if(cameras.begin(), cameras.end(), [handle](const Device& device) {
                return device->serialNumber == handle->serialNumber;
            });
            EXPECT_EQ((*camera)->node, NodeOf(handle));
            EXPECT_EQ((*camera)->busNumber, BusOf(handle));
        }
        Access::FreeCameraList(&removed);
        EXPECT_EQ(current.size(), hal.EntriesOutstanding());
    }
    Access::FreeCameraList(&current);
    hal.ExpectAllEntriesGivenBackOnce();
}

}  // namespace
}  // namespace Nimbrel2
