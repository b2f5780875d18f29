// SPDX-License-Identifier: Apache-2.0
// One register of one camera at a time: over the control channel of USB3 Vision, or by requests to the device.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_REGISTERCHANNEL_H
#define NIMBREL2_PLATFORM_LINUX_USB_REGISTERCHANNEL_H

#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

#include "hal/HAL.h"
#include "platform/base/Mutex.h"
#include "platform/linux/usb/DeviceRecord.h"
#include "platform/linux/usb/GenCp.h"
#include "platform/linux/usb/OpenDevice.h"
#include "platform/linux/usb/Timings.h"

namespace Nimbrel2::Platform::Usb {

/// Kept for as long as the driver lives, so that a camera never sees a request id again soon. The functions want the
/// mutex held: two accesses at once would take the interface from one another. They may block as Timings says.
class RegisterChannel {
public:
    /// @param stopping  Ends an access that runs, at its next step.
    RegisterChannel(const Timings& timings, const std::atomic<bool>& stopping);

    /// Held from the opening of the device to its closing.
    Mutex mutex;

    /// One quadlet. An interface of the camera is claimed meanwhile, and given back with the device.
    /// @param address  As the seam hands it on: of the 48-bit space of IEEE 1394, where its low 32 bits alone mean the
    ///                 initial register space. That prefix means nothing to a USB3 Vision camera and is taken off.
    std::uint32_t Read(OpenDevice& device, const DeviceRecord& camera, std::uint64_t address, std::uint32_t* value)
        NIMBREL2_REQUIRES(mutex);
    std::uint32_t Write(OpenDevice& device, const DeviceRecord& camera, std::uint64_t address, std::uint32_t value)
        NIMBREL2_REQUIRES(mutex);

private:
    /// What one try has come to.
    struct Outcome {
        std::uint32_t status = HAL_OK;
        bool again = false;  ///< another try may do better
    };

    /// Sends a command until its acknowledge has come. *acknowledge lies in m_answer.
    std::uint32_t Exchange(OpenDevice& device, const InterfaceDescriptor& control, std::span<std::uint8_t> command,
                           GenCp::Command expected, std::uint16_t id, GenCp::Acknowledge* acknowledge)
        NIMBREL2_REQUIRES(mutex);
    Outcome Send(OpenDevice& device, std::uint8_t endpoint, std::span<std::uint8_t> command) NIMBREL2_REQUIRES(mutex);
    /// @param limit  Of the whole access, whatever time the camera asks for.
    Outcome Await(OpenDevice& device, std::uint8_t endpoint, GenCp::Command expected, std::uint16_t id, TimePoint limit,
                  GenCp::Acknowledge* acknowledge) NIMBREL2_REQUIRES(mutex);
    /// IIDC over USB: four bytes by a request to the device, of which an interface is claimed for good manners.
    std::uint32_t Request(OpenDevice& device, const DeviceRecord& camera, bool read, std::uint64_t address,
                          std::uint8_t* bytes) NIMBREL2_REQUIRES(mutex);
    std::uint16_t NextId() NIMBREL2_REQUIRES(mutex);

    const Timings m_timings;
    const std::atomic<bool>& m_stopping;
    std::uint16_t m_lastId NIMBREL2_GUARDED_BY(mutex);
    std::vector<std::uint8_t> m_answer NIMBREL2_GUARDED_BY(mutex);
};

}  // namespace Nimbrel2::Platform::Usb

#endif
