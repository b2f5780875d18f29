// SPDX-License-Identifier: Apache-2.0
// A plug-in that uses the installed library, with its symbols hidden: asks for the bus master, starts it without any
// bus and hears of one bus reset.
#include <busmaster/BusMaster.h>
#include <platform/Platform.h>

#include <condition_variable>
#include <mutex>

namespace {
std::mutex g_mutex;
std::condition_variable g_changed;
unsigned int g_heard = 0;

void OnReset(void*, unsigned int) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    ++g_heard;
    g_changed.notify_one();
}
}  // namespace

// 0 when everything answered as it should.
extern "C" __attribute__((visibility("default"))) int UseBusMaster() {
    using namespace Nimbrel2;
    Platform::Options nothing;
    nothing.fireWire = nothing.usb = nothing.gigE = Platform::Driver::None;
    Platform::Configure(nothing);  // refused the second time, when the bus master is there
    BusMaster& busMaster = Singleton<BusMaster>::GetInstance();
    void* handle = nullptr;
    if (busMaster.Initialize() != ERROR_OK ||
        busMaster.RegisterCallback(&OnReset, BUS_RESET, nullptr, &handle) != ERROR_OK) {
        return 1;
    }
    // A rescan that finds the worker busy, with its start here, begins no enumeration.
    if (!busMaster.WaitUntilQuiet(20000)) {
        return 3;
    }
    busMaster.RescanBus();
    {
        std::unique_lock<std::mutex> lock(g_mutex);
        g_changed.wait(lock, [] { return g_heard > 0; });
    }
    if (busMaster.UnregisterCallback(handle) != ERROR_OK) {
        return 2;
    }
    return busMaster.WaitUntilQuiet(20000) ? 0 : 4;
}
