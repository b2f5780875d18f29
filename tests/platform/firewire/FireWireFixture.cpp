// SPDX-License-Identifier: Apache-2.0
// The driver on emulated buses. Tests run on their own thread.
#include "tests/platform/firewire/FireWireFixture.h"

#include <cstdio>
#include <thread>

namespace Nimbrel2::Platform::FireWire {

namespace {

/// A disk of the serial bus protocol (SBP-2).
std::vector<std::uint32_t> DiskRom() {
    return {0x0404A5A5, 0x31333934, 0xE000A002, 0x00309400, 0x0000D15C,  // bus information block
            0x0003A5A5, 0x03003094, 0x81000002, 0xD1000006,              // vendor, its text, unit
            0x0004A5A5, 0x00000000, 0x00000000, 0x44697363, 0x6F000000,  // "Disco"
            0x0002A5A5, 0x1200609E, 0x13010483};                         // SBP-2
}

}  // namespace

void FireWireDriver::AddStandardBus() {
    m_computer.SetRom("disk", DiskRom());
    m_computer.AddBus(Testing::StandardFireWireBus(), FirstCard);
}

void FireWireDriver::Start() {
    m_bus = MakeLinuxFireWireBus(m_sink);
    ASSERT_EQ(m_bus->Start(), HAL_OK);
}

void FireWireDriver::Stop() {
    if (m_bus) {
        m_bus->Stop();
    }
    m_bus.reset();
}

Devices FireWireDriver::ListCameras(BusState* state) {
    Listing<FireWireDevice> listing;
    EXPECT_EQ(m_bus->ListCameras(&listing), HAL_OK);
    if (state != nullptr) {
        *state = listing.state;
    }
    return listing.devices;
}

Devices FireWireDriver::ListDevices(BusState* state) {
    Listing<FireWireDevice> listing;
    EXPECT_EQ(m_bus->ListDevices(&listing), HAL_OK);
    if (state != nullptr) {
        *state = listing.state;
    }
    return listing.devices;
}

std::uint32_t FireWireDriver::SerialNumberOf(FireWireDevice& device) {
    std::uint32_t high = 0;
    std::uint32_t low = 0;
    device.GetEui64(&high, &low);
    return low;
}

std::shared_ptr<FireWireDevice> FireWireDriver::FindCamera(std::uint32_t serialNumber) {
    for (const auto& camera : ListCameras()) {
        if (SerialNumberOf(*camera) == serialNumber) {
            return camera;
        }
    }
    ADD_FAILURE() << "no camera has the serial number " << serialNumber;
    return nullptr;
}

std::string FireWireDriver::Describe(FireWireDevice& device) {
    ConfigInfo info;
    if (device.GetConfigInfo(&info) != HAL_OK) {
        return "gone";
    }
    std::uint16_t node = 0;
    std::uint16_t bus = 0;
    if (device.GetNode(&node, &bus) != HAL_OK) {
        return "gone";
    }
    char text[256];
    std::snprintf(text, sizeof text, "%08x%08x %s/%s node %u (0x%04x) bus %u (%u) version 0x%06x", info.numbers[0],
                  info.numbers[2], info.vendor.c_str(), info.model.c_str(), node, info.numbers[1], bus, info.numbers[3],
                  info.numbers[4]);
    return text;
}

std::vector<std::string> FireWireDriver::DescribeAll(const Devices& devices) {
    std::vector<std::string> texts;
    for (const auto& device : devices) {
        texts.push_back(Describe(*device));
    }
    return texts;
}

bool WaitUntil(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + TestDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // leaves the processor to the others
    }
    return true;
}

}  // namespace Nimbrel2::Platform::FireWire
