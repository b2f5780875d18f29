// SPDX-License-Identifier: Apache-2.0
// Datagrams that come for one command, each after an octet with its length: at most one of them answers it, nothing
// that comes later changes what it said, and no camera is given more time than the limit.
#include "fuzz/Require.h"
#include "platform/linux/gige/Reply.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2::Platform;
    const TimePoint start;
    const TimePoint limit = start + std::chrono::milliseconds(1000);
    GigE::Reply reply(0x0102, Gvcp::MessageId::ReadRegAck, limit);
    TimePoint now = start + std::chrono::milliseconds(1);
    while (size > 0) {
        const std::size_t length = std::min<std::size_t>(data[0], size - 1);
        const bool answered = reply.IsAnswered();
        const std::uint32_t status = reply.GetStatus();
        const std::uint32_t value = reply.GetValue();
        reply.Take({data + 1, length}, now);
        NIMBREL2_REQUIRE(!answered || (reply.IsAnswered() && reply.GetStatus() == status && reply.GetValue() == value));
        NIMBREL2_REQUIRE(reply.GetPendingUntil() <= limit);
        NIMBREL2_REQUIRE(reply.IsAnswered() || reply.GetStatus() != HAL_OK);
        data += 1 + length;
        size -= 1 + length;
        now += std::chrono::milliseconds(1);
    }
    return 0;
}
