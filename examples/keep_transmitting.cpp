// SPDX-License-Identifier: Apache-2.0
// Has an IEEE 1394 camera transmit, and sees it transmit again after a bus reset: keep_transmitting SERIAL.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "busmaster/BusMaster.h"
#include "common/IEEE1394Interface.h"

std::mutex g_mutex;
std::condition_variable g_changed;
bool g_wasReset = false;

void OnReset(void*, unsigned int) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_wasReset = true;
    g_changed.notify_one();
}

void Check(const Nimbrel2::Error& error) {
    if (error != Nimbrel2::ERROR_OK) {
        std::fprintf(stderr, "%s\n", error.Describe().c_str());
        std::exit(1);
    }
}

int main(int argc, char** argv) {
    constexpr std::uint64_t IsoEnable = 0xF0F00614;  // IIDC ISO_EN; its most significant bit is transmission.
    const unsigned int serial = argc == 2 ? static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 10)) : 0;
    Nimbrel2::BusMaster& busMaster = Nimbrel2::Singleton<Nimbrel2::BusMaster>::GetInstance();
    Nimbrel2::ZevoGuid guid;
    boost::shared_ptr<Nimbrel2::HardwareInterface> kept;
    void* handle = nullptr;
    Check(busMaster.Initialize());
    Check(busMaster.GetCameraFromSerialNumber(serial, &guid));
    Check(busMaster.KeepHwInterface(guid, &kept));
    Check(busMaster.RegisterCallback(OnReset, Nimbrel2::BUS_RESET, nullptr, &handle));
    const auto camera = boost::dynamic_pointer_cast<Nimbrel2::IEEE1394Interface>(kept);
    std::uint32_t value = 0x80000000;
    if (!camera || camera->WriteRegister(IsoEnable, 0xFFFFFFFF, value, 0) != HAL_OK) {
        return 1;
    }
    camera->isoEnabled = true;  // From here on the bus master switches transmission on again after each bus reset.
    std::fputs("transmitting; waiting for a bus reset\n", stderr);
    {
        std::unique_lock<std::mutex> lock(g_mutex);
        g_changed.wait(lock, [] { return g_wasReset; });
    }
    camera->ReadRegister(IsoEnable, 0xFFFFFFFF, &value);
    std::puts(value >> 31 != 0 ? "transmitting again" : "stopped");
}
