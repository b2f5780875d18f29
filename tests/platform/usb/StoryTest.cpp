// SPDX-License-Identifier: Apache-2.0
// Real USB from end to end on mocked devices: what an application hears, sees and gets from the bus master, and that
// nothing stays behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "busmaster/BusMaster.h"
#include "common/UsbInterface.h"
#include "platform/Platform.h"
#include "tests/platform/usb/UsbTestbed.h"
#include "topology/TopologyNode.h"

namespace Nimbrel2::Testing {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr std::chrono::seconds Patience{20};

std::size_t CountEntries(const char* folder) {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) {
        ++count;
    }
    return count;
}

std::vector<std::string> ThreadNames() {
    std::vector<std::string> names;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(thread.path() / "comm");
        std::getline(file, names.emplace_back());
    }
    return names;
}

// The testbed's own thread closes its side of a connection a little later.
bool FallsTo(std::size_t most, const char* folder) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (CountEntries(folder) > most) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

/// What an application's callbacks were called with.
class Heard {
public:
    struct Callback {
        Heard* owner;
        BusCallbackType type;
    };
    Callback reset{this, BUS_RESET};
    Callback arrival{this, ARRIVAL};
    Callback removal{this, REMOVAL};

    static void OnEvent(void* data, unsigned int serialNumber) {
        auto* const callback = static_cast<Callback*>(data);
        const std::lock_guard lock(callback->owner->m_mutex);
        callback->owner->m_serials[callback->type].push_back(serialNumber);
        callback->owner->m_changed.notify_all();
    }

    bool WaitFor(BusCallbackType type, std::size_t number) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, Patience, [&] { return m_serials[type].size() >= number; });
    }
    std::vector<unsigned int> Get(BusCallbackType type) {
        const std::lock_guard lock(m_mutex);
        return m_serials[type];
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<BusCallbackType, std::vector<unsigned int>> m_serials;
};

class UsbStory : public testing::Test {
public:
    UsbStory() {
        Platform::Options options;
        options.fireWire = options.gigE = Platform::Driver::None;
        EXPECT_TRUE(static_cast<bool>(Platform::Configure(options)));
        bed.AddController(UsbTestbed::Pci, 1, 2);
    }

    void Start() {
        busMaster = std::make_unique<BusMaster>();
        ASSERT_EQ(busMaster->Initialize(), ERROR_OK);
        for (Heard::Callback* callback : {&heard.reset, &heard.arrival, &heard.removal}) {
            void* handle = nullptr;
            ASSERT_EQ(busMaster->RegisterCallback(Heard::OnEvent, callback->type, callback, &handle), ERROR_OK);
        }
    }

    UsbTestbed bed;
    Heard heard;
    std::unique_ptr<BusMaster> busMaster;
};

TEST_F(UsbStory, AHotPlugReachesAnArrivalCallbackAndAPullARemovalCallback) {
    Start();
    bed.Add(Camera("2-1", 2, "4711"));
    ASSERT_TRUE(heard.WaitFor(ARRIVAL, 1));
    EXPECT_THAT(heard.Get(ARRIVAL), ElementsAre(4711u));
    EXPECT_FALSE(heard.Get(BUS_RESET).empty());
    unsigned int cameras = 0;
    EXPECT_EQ(busMaster->GetNumOfCameras(&cameras), ERROR_OK);
    EXPECT_EQ(cameras, 1u);
    bed.Remove("2-1");
    ASSERT_TRUE(heard.WaitFor(REMOVAL, 1));
    EXPECT_THAT(heard.Get(REMOVAL), ElementsAre(4711u));
}

TEST_F(UsbStory, ACameraThatWasPulledAndPluggedBetweenTwoLooksIsHeardOfAsAResetOnly) {
    bed.Add(Camera("2-1", 2, "4711"));
    Start();
    // Without news of its removal there is no look before it is back.
    bed.RemoveSilently("2-1");
    bed.Add(Camera("2-1", 3, "4711"));
    ASSERT_TRUE(heard.WaitFor(BUS_RESET, 1));
    EXPECT_EQ(busMaster->RescanBus(), ERROR_OK);
    EXPECT_THAT(heard.Get(ARRIVAL), SizeIs(0));
    EXPECT_THAT(heard.Get(REMOVAL), SizeIs(0));
}

TEST_F(UsbStory, AnInterfaceThatIsKeptWorksAgainOnAnotherPort) {
    bed.Add(Camera("2-1", 2, "4711"));
    Start();
    ZevoGuid guid;
    ASSERT_EQ(busMaster->GetCameraFromIndex(0, &guid), ERROR_OK);
    unsigned int info = 0;
    EXPECT_EQ(busMaster->GetUsbLinkInfo(guid, &info), ERROR_OK);
    EXPECT_EQ(info, 500u << 16 | 1u << 8);
    bed.RemoveSilently("2-1");
    bed.Add(Hub("2-4", 3, true));
    bed.Add(Camera("2-4.2", 4, "4711"));
    // The guid is the same, so that only the link tells.
    const auto deadline = std::chrono::steady_clock::now() + Patience;
    while (info != (500u << 16 | 2u << 8 | 1u) && std::chrono::steady_clock::now() < deadline) {
        busMaster->GetUsbLinkInfo(guid, &info);
    }
    EXPECT_EQ(info, 500u << 16 | 2u << 8 | 1u);
}

TEST_F(UsbStory, ACameraBehindFourHubsStandsInTheTopology) {
    std::string name = "2-1";
    for (unsigned int hub = 0; hub < 4; ++hub) {
        bed.Add(Hub(name, 2 + hub, true));
        name += "." + std::to_string(hub + 1);
    }
    bed.Add(Camera(name, 20, "4711"));
    Start();
    TopologyNode computer;
    ASSERT_EQ(busMaster->GetTopology(&computer), ERROR_OK);
    ASSERT_EQ(computer.GetNumChildren(), 1u);
    const TopologyNode* node = &computer.GetChild(0).GetChild(0);  // the bus, the host
    EXPECT_EQ(node->GetDeviceId(), 63u);
    for (int hub = 0; hub < 4; ++hub) {
        ASSERT_EQ(node->GetNumChildren(), 1u) << hub;
        node = &node->GetChild(0);
    }
    ASSERT_EQ(node->GetNumChildren(), 1u);
    ZevoGuid guid;
    ASSERT_EQ(busMaster->GetCameraFromIndex(0, &guid), ERROR_OK);
    EXPECT_EQ(node->GetChild(0).GetGuid(), guid);
}

TEST_F(UsbStory, AQueryAndItsFillAgreeOrTheFillSaysThatTheBusHasChanged) {
    bed.Add(Camera("2-1", 2, "4711"));
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    void* entries[128];
    std::uint64_t count = 128;
    ASSERT_EQ(HAL_UsbGetCameras(entries, &count), HAL_OK);
    ASSERT_EQ(count, 1u);
    {
        UsbInterface camera(entries[0]);
        unsigned int deviceId = 0;
        std::uint64_t hostKey = 0;
        std::uint64_t records = 0;
        ASSERT_EQ(camera.GetUsbSelfIds(&deviceId, &hostKey, &records, nullptr), 0);
        EXPECT_EQ(records, 1u);
        std::vector<UsbSelfId> read(16);
        records = read.size();
        ASSERT_EQ(camera.GetUsbSelfIds(&deviceId, &hostKey, &records, read.data()), 0);
        EXPECT_EQ(records, 1u);
        EXPECT_EQ(read[0].deviceId, deviceId);

        ASSERT_EQ(camera.GetUsbSelfIds(&deviceId, &hostKey, &records, nullptr), 0);
        bed.Add(Hub("2-2", 3, true));
        records = read.size();
        EXPECT_EQ(camera.GetUsbSelfIds(&deviceId, &hostKey, &records, read.data()), HAL_BUS_CHANGED);
        ASSERT_EQ(camera.GetUsbSelfIds(&deviceId, &hostKey, &records, nullptr), 0);
        EXPECT_EQ(records, 2u);
        records = read.size();
        EXPECT_EQ(camera.GetUsbSelfIds(&deviceId, &hostKey, &records, read.data()), 0);
        camera.ReleaseCamera();
    }
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
}

TEST_F(UsbStory, LeavesNoThreadAndNoFileBehind) {
    bed.Add(Camera("2-1", 2, "4711"));
    std::size_t threads = 0;
    std::size_t files = 0;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
        void* entries[128];
        std::uint64_t count = 128;
        ASSERT_EQ(HAL_UsbGetCameras(entries, &count), HAL_OK);
        std::uint32_t value = 0;
        // It opens the node, which is an ordinary file here: libusb gets as far as that.
        EXPECT_NE(HAL_UsbReadRegister(entries[0], 0, 0xFFFFFFFF, &value), HAL_OK);
        EXPECT_THAT(ThreadNames(), testing::Not(testing::Contains(testing::HasSubstr("libusb"))))
            << "it looks for nothing";
        ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
        if (i == 0) {
            threads = CountEntries("/proc/self/task");
            files = CountEntries("/proc/self/fd");
        }
    }
    EXPECT_TRUE(FallsTo(threads, "/proc/self/task")) << CountEntries("/proc/self/task") << " and not " << threads;
    EXPECT_TRUE(FallsTo(files, "/proc/self/fd")) << CountEntries("/proc/self/fd") << " and not " << files;
}

}  // namespace
}  // namespace Nimbrel2::Testing
