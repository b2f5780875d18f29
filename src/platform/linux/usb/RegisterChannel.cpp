// SPDX-License-Identifier: Apache-2.0
// Registers of USB cameras. Runs on the thread that accesses the camera, with the channel's mutex held and no other.
#include "platform/linux/usb/RegisterChannel.h"

#include <libusb.h>

#include <algorithm>
#include <array>

#include "hal/HAL.h"

namespace Nimbrel2::Platform::Usb {

namespace {

// A whole number of packets of any speed. A longer acknowledge that another program has left behind comes in pieces,
// none of which but the first is one.
constexpr std::size_t AnswerBytes = 4096;
constexpr std::size_t Quadlet = 4;

// In front of a register that was given by its low 32 bits.
constexpr std::uint64_t InitialRegisterSpace = 0xFFFF00000000;

// IIDC over USB: one request for each part of the address space.
constexpr std::uint8_t ReadRequest = 0xC0;
constexpr std::uint8_t WriteRequest = 0x40;
struct AddressPart {
    std::uint64_t prefix;  // bits 47..32
    std::uint8_t request;
};
constexpr AddressPart AddressParts[] = {{0xFFFF, 0x7F}, {0xD000, 0x80}};

std::uint64_t VisionAddress(std::uint64_t address) {
    return address >= InitialRegisterSpace ? address - InitialRegisterSpace : address;
}

// As libusb takes it: 0 would mean for ever.
unsigned int InMilliseconds(Milliseconds time) {
    return static_cast<unsigned int>(std::max<std::int64_t>(1, time.count()));
}

Milliseconds TimeUntil(TimePoint deadline) { return std::chrono::ceil<Milliseconds>(deadline - Clock::now()); }

}  // namespace

RegisterChannel::RegisterChannel(const Timings& timings, const std::atomic<bool>& stopping)
    : m_timings(timings),
      m_stopping(stopping),
      // Not where the last program began: its late acknowledges may still wait in the camera.
      m_lastId(static_cast<std::uint16_t>(Clock::now().time_since_epoch() / std::chrono::microseconds(1))),
      m_answer(AnswerBytes) {}

std::uint16_t RegisterChannel::NextId() {
    if (++m_lastId == 0) {
        ++m_lastId;
    }
    return m_lastId;
}

std::uint32_t RegisterChannel::Read(OpenDevice& device, const DeviceRecord& camera, std::uint64_t address,
                                    std::uint32_t* value) {
    if (camera.protocol == Protocol::VendorRequests) {
        std::array<std::uint8_t, Quadlet> bytes{};
        const std::uint32_t status = Request(device, camera, true, address, bytes.data());
        *value = static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
                 static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
        return status;
    }
    const std::uint16_t id = NextId();
    std::vector<std::uint8_t> command = GenCp::EncodeRead(id, VisionAddress(address), Quadlet);
    GenCp::Acknowledge acknowledge;
    const std::uint32_t status =
        Exchange(device, *camera.FindControl(), command, GenCp::Command::ReadMemoryAcknowledge, id, &acknowledge);
    if (status != HAL_OK) {
        return status;
    }
    const auto quadlet = GenCp::DecodeQuadlet(acknowledge);
    if (!quadlet) {
        return HAL_BAD_ANSWER;
    }
    *value = *quadlet;
    return HAL_OK;
}

std::uint32_t RegisterChannel::Write(OpenDevice& device, const DeviceRecord& camera, std::uint64_t address,
                                     std::uint32_t value) {
    if (camera.protocol == Protocol::VendorRequests) {
        std::array<std::uint8_t, Quadlet> bytes;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<std::uint8_t>(value >> 8 * i);
        }
        return Request(device, camera, false, address, bytes.data());
    }
    const std::uint16_t id = NextId();
    std::vector<std::uint8_t> command = GenCp::EncodeWrite(id, VisionAddress(address), value);
    GenCp::Acknowledge acknowledge;
    const std::uint32_t status =
        Exchange(device, *camera.FindControl(), command, GenCp::Command::WriteMemoryAcknowledge, id, &acknowledge);
    if (status != HAL_OK) {
        return status;
    }
    return GenCp::HasWrittenQuadlet(acknowledge) ? HAL_OK : HAL_BAD_ANSWER;
}

std::uint32_t RegisterChannel::Exchange(OpenDevice& device, const InterfaceDescriptor& control,
                                        std::span<std::uint8_t> command, GenCp::Command expected, std::uint16_t id,
                                        GenCp::Acknowledge* acknowledge) {
    if (control.bulkIn == 0 || control.bulkOut == 0) {
        return HAL_NOT_SUPPORTED;
    }
    if (const std::uint32_t status = device.Claim(control.number); status != HAL_OK) {
        return status;
    }
    const TimePoint limit = Clock::now() + m_timings.pendingLimit;
    Outcome outcome;
    for (int i = 0; i < m_timings.registerTries; ++i) {
        if (m_stopping) {
            return HAL_CLOSED;
        }
        // Always with the same id: an acknowledge of a former try that comes late is as good.
        outcome = Send(device, control.bulkOut, command);
        if (outcome.status == HAL_OK) {
            outcome = Await(device, control.bulkIn, expected, id, limit, acknowledge);
        }
        if (!outcome.again) {
            break;
        }
    }
    return outcome.status;
}

RegisterChannel::Outcome RegisterChannel::Send(OpenDevice& device, std::uint8_t endpoint,
                                               std::span<std::uint8_t> command) {
    int sent = 0;
    const int result = libusb_bulk_transfer(device.Get(), endpoint, command.data(), static_cast<int>(command.size()),
                                            &sent, InMilliseconds(m_timings.registerTry));
    if (result == LIBUSB_ERROR_PIPE) {
        libusb_clear_halt(device.Get(), endpoint);
        return {HAL_REFUSED, true};
    }
    if (result != LIBUSB_SUCCESS) {
        return {StatusOfLibusb(result), result == LIBUSB_ERROR_TIMEOUT};
    }
    return {sent == static_cast<int>(command.size()) ? std::uint32_t{HAL_OK} : std::uint32_t{HAL_FAILED}, false};
}

RegisterChannel::Outcome RegisterChannel::Await(OpenDevice& device, std::uint8_t endpoint, GenCp::Command expected,
                                                std::uint16_t id, TimePoint limit, GenCp::Acknowledge* acknowledge) {
    TimePoint deadline = Clock::now() + m_timings.registerTry;
    bool pending = false;
    while (true) {
        // In steps, so that the end of the driver need not wait for a camera that has asked for much time.
        const Milliseconds left = std::min(TimeUntil(deadline), m_timings.registerTry);
        // A camera that has asked for time has the command: another one would only be in its way.
        if (left.count() <= 0) {
            return {HAL_TIMED_OUT, !pending};
        }
        if (m_stopping) {
            return {HAL_CLOSED, false};
        }
        int received = 0;
        const int result = libusb_bulk_transfer(device.Get(), endpoint, m_answer.data(),
                                                static_cast<int>(m_answer.size()), &received, InMilliseconds(left));
        // What has come while the transfer was being cancelled is there all the same, and the camera will not say it
        // again.
        if (result == LIBUSB_ERROR_TIMEOUT && received == 0) {
            continue;
        }
        if (result == LIBUSB_ERROR_PIPE) {
            libusb_clear_halt(device.Get(), endpoint);
            return {HAL_REFUSED, true};
        }
        if (result != LIBUSB_SUCCESS && result != LIBUSB_ERROR_TIMEOUT) {
            return {StatusOfLibusb(result), false};
        }
        const auto answer =
            GenCp::DecodeAcknowledge(std::span<const std::uint8_t>(m_answer).first(static_cast<std::size_t>(received)));
        // Late acknowledges of other commands, of another program's too, are taken off the camera and left.
        if (!answer || answer->id != id) {
            continue;
        }
        if (answer->command == static_cast<std::uint16_t>(GenCp::Command::PendingAcknowledge)) {
            const auto time = GenCp::DecodePending(*answer);
            if (!time) {
                return {HAL_BAD_ANSWER, false};
            }
            pending = true;
            deadline = std::min(Clock::now() + std::max(Milliseconds(*time), m_timings.registerTry), limit);
            continue;
        }
        if (answer->command != static_cast<std::uint16_t>(expected)) {
            return {HAL_BAD_ANSWER, false};
        }
        *acknowledge = *answer;
        return {GenCp::ToHalStatus(answer->status), false};
    }
}

std::uint32_t RegisterChannel::Request(OpenDevice& device, const DeviceRecord& camera, bool read, std::uint64_t address,
                                       std::uint8_t* bytes) {
    const auto part = std::find_if(std::begin(AddressParts), std::end(AddressParts),
                                   [&](const AddressPart& each) { return each.prefix == address >> 32; });
    if (part == std::end(AddressParts)) {
        return HAL_NO_SUCH_REGISTER;
    }
    const Configuration* configuration = camera.descriptors.FindConfiguration(camera.configuration);
    if (configuration != nullptr && !configuration->interfaces.empty()) {
        const std::uint32_t status = device.Claim(configuration->interfaces.front().number);
        if (status != HAL_OK) {
            return status;
        }
    }
    int result = LIBUSB_ERROR_TIMEOUT;
    for (int i = 0; i < m_timings.registerTries && result == LIBUSB_ERROR_TIMEOUT; ++i) {
        if (m_stopping) {
            return HAL_CLOSED;
        }
        result = libusb_control_transfer(device.Get(), read ? ReadRequest : WriteRequest, part->request,
                                         static_cast<std::uint16_t>(address & 0xFFFF),
                                         static_cast<std::uint16_t>(address >> 16 & 0xFFFF), bytes, Quadlet,
                                         InMilliseconds(m_timings.registerTry));
    }
    // A halt of the control endpoint is the device's "no", and ends by itself.
    if (result == LIBUSB_ERROR_PIPE) {
        return HAL_NO_SUCH_REGISTER;
    }
    if (result < 0) {
        return StatusOfLibusb(result);
    }
    return result == static_cast<int>(Quadlet) ? HAL_OK : HAL_BAD_ANSWER;
}

}  // namespace Nimbrel2::Platform::Usb
