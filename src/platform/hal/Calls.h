// SPDX-License-Identifier: Apache-2.0
// What every HAL function does around its own work: find the session, check, look the entry up, let nothing be thrown.
// Any thread. No lock is held while the work runs.
#ifndef NIMBREL2_PLATFORM_HAL_CALLS_H
#define NIMBREL2_PLATFORM_HAL_CALLS_H

#include <cstdint>
#include <memory>
#include <new>

#include "hal/HAL.h"
#include "platform/hal/Process.h"

namespace Nimbrel2::Platform {

/// Nothing is thrown through a C function.
template <class Work>
std::uint32_t Guarded(const Work& work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return HAL_OUT_OF_MEMORY;
    } catch (...) {
        return HAL_FAILED;
    }
}

/// Closed is told before any argument is looked at, and a wrong argument before the call counts as one.
/// @param function  The name of the function that the application has called.
template <class Work>
std::uint32_t InSession(const char* function, bool argumentsAreGood, const Work& work) noexcept {
    return Guarded([&]() -> std::uint32_t {
        const std::shared_ptr<Session> session = Process::Get().CurrentSession();
        if (!session) {
            return HAL_CLOSED;
        }
        if (!argumentsAreGood) {
            return HAL_INVALID_ARGUMENT;
        }
        const std::uint32_t status = session->Enter(function);
        return status == HAL_OK ? work(*session) : status;
    });
}

/// @param work  Takes the device, and the position that it had in its listing.
template <class Device, class Work>
std::uint32_t OnDevice(const char* function, const void* entry, bool argumentsAreGood, const Work& work) noexcept {
    return InSession(function, entry != nullptr && argumentsAreGood, [&](Session& session) -> std::uint32_t {
        std::shared_ptr<Device> device;
        std::uint32_t position = 0;
        const std::uint32_t status = session.Entries().Find(entry, &device, &position);
        return status == HAL_OK ? work(*device, position) : status;
    });
}

// ---- Arguments that the register functions of IEEE 1394 and USB share ----

/// The only selector: the device of the entry itself.
inline constexpr std::uint32_t DeviceOfEntry = 0xFFFFFFFF;

/// A quadlet of the 48-bit address space (IEEE 1212), given whole or by its low 32 bits.
constexpr bool IsRegisterAddress(std::uint64_t address) { return address < std::uint64_t{1} << 48 && address % 4 == 0; }

/// The low 32 bits alone mean the initial register space, where configuration ROM and camera registers are.
constexpr std::uint64_t WholeRegisterAddress(std::uint64_t address) {
    return address <= 0xFFFFFFFF ? address + 0xFFFF00000000 : address;
}

}  // namespace Nimbrel2::Platform

#endif
