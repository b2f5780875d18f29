// SPDX-License-Identifier: Apache-2.0
// GenCP packets. Pure functions: any thread, no lock, no I/O.
#include "platform/linux/usb/GenCp.h"

#include "hal/HAL.h"

namespace Nimbrel2::Platform::Usb::GenCp {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t Quadlet = 4;

template <class Word>
void Append(std::vector<std::uint8_t>* bytes, Word word) {
    for (std::size_t i = 0; i < sizeof word; ++i) {
        bytes->push_back(static_cast<std::uint8_t>(word >> 8 * i & 0xFF));
    }
}

template <class Word>
Word Load(Bytes bytes, std::size_t offset) {
    Word word = 0;
    for (std::size_t i = 0; i < sizeof word; ++i) {
        word = static_cast<Word>(word | Word{bytes[offset + i]} << 8 * i);
    }
    return word;
}

std::vector<std::uint8_t> Encode(Command command, std::uint16_t id, std::uint16_t payloadBytes) {
    std::vector<std::uint8_t> packet;
    packet.reserve(HeaderBytes + payloadBytes);
    Append(&packet, Prefix);
    Append(&packet, RequestAcknowledge);
    Append(&packet, static_cast<std::uint16_t>(command));
    Append(&packet, payloadBytes);
    Append(&packet, id);
    return packet;
}

}  // namespace

std::uint32_t ToHalStatus(std::uint16_t status) {
    switch (static_cast<Status>(status)) {
        case Status::Success:
            return HAL_OK;
        case Status::NotImplemented:
            return HAL_NOT_SUPPORTED;
        case Status::InvalidParameter:
        case Status::BadAlignment:
            return HAL_INVALID_ARGUMENT;
        case Status::InvalidAddress:
            return HAL_NO_SUCH_REGISTER;
        case Status::WriteProtect:
            return HAL_WRITE_PROTECTED;
        case Status::AccessDenied:
            return HAL_ACCESS_DENIED;
        case Status::Busy:
            return HAL_BUSY;
    }
    return HAL_REFUSED;
}

std::vector<std::uint8_t> EncodeRead(std::uint16_t id, std::uint64_t address, std::uint16_t size) {
    std::vector<std::uint8_t> packet = Encode(Command::ReadMemory, id, 12);
    Append(&packet, address);
    Append(&packet, std::uint16_t{0});  // reserved
    Append(&packet, size);
    return packet;
}

std::vector<std::uint8_t> EncodeWrite(std::uint16_t id, std::uint64_t address, std::uint32_t value) {
    std::vector<std::uint8_t> packet = Encode(Command::WriteMemory, id, 8 + Quadlet);
    Append(&packet, address);
    Append(&packet, value);
    return packet;
}

std::optional<Acknowledge> DecodeAcknowledge(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < HeaderBytes || Load<std::uint32_t>(bytes, 0) != Prefix) {
        return std::nullopt;
    }
    if (bytes.size() - HeaderBytes != Load<std::uint16_t>(bytes, 8)) {
        return std::nullopt;
    }
    return Acknowledge{Load<std::uint16_t>(bytes, 4), Load<std::uint16_t>(bytes, 6), Load<std::uint16_t>(bytes, 10),
                       bytes.subspan(HeaderBytes)};
}

std::optional<std::uint32_t> DecodeQuadlet(const Acknowledge& acknowledge) {
    if (acknowledge.payload.size() != Quadlet) {
        return std::nullopt;
    }
    return Load<std::uint32_t>(acknowledge.payload, 0);
}

bool HasWrittenQuadlet(const Acknowledge& acknowledge) {
    if (acknowledge.payload.empty()) {
        return true;
    }
    return acknowledge.payload.size() == 4 && Load<std::uint16_t>(acknowledge.payload, 2) == Quadlet;
}

std::optional<std::uint16_t> DecodePending(const Acknowledge& acknowledge) {
    if (acknowledge.payload.size() != 4) {
        return std::nullopt;
    }
    return Load<std::uint16_t>(acknowledge.payload, 2);
}

}  // namespace Nimbrel2::Platform::Usb::GenCp
