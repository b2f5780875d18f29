// SPDX-License-Identifier: Apache-2.0
// Which datagrams are the acknowledge of a command, and what they come to.
#include <gtest/gtest.h>

#include <vector>

#include "hal/HAL.h"
#include "platform/linux/gige/Reply.h"

namespace Nimbrel2::Platform::GigE {
namespace {

using namespace std::chrono_literals;
using Gvcp::MessageId;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t Id = 0x1234;
const TimePoint Now = TimePoint() + 1h;

Bytes BytesOf(const Gvcp::Packet& packet) { return Bytes(packet.GetData(), packet.GetData() + packet.GetSize()); }

Bytes ReadAck(std::uint16_t id, std::uint32_t value) { return BytesOf(Gvcp::EncodeReadRegAck(id, {&value, 1})); }

class ReplyTest : public ::testing::Test {
protected:
    void Take(const Bytes& bytes) { m_reply.Take(bytes, Now); }

    Reply m_reply{Id, MessageId::ReadRegAck, Now + 1s};
};

TEST_F(ReplyTest, TimesOutWithoutAnything) {
    EXPECT_FALSE(m_reply.IsAnswered());
    EXPECT_EQ(m_reply.GetStatus(), HAL_TIMED_OUT);
    EXPECT_EQ(m_reply.GetPendingUntil(), TimePoint());
}

TEST_F(ReplyTest, IsTheFirstAcknowledgeWithItsId) {
    Take(ReadAck(Id + 1, 1));
    Take(ReadAck(0, 2));
    EXPECT_FALSE(m_reply.IsAnswered());
    Take(ReadAck(Id, 3));
    EXPECT_TRUE(m_reply.IsAnswered());
    Take(ReadAck(Id, 4));
    EXPECT_EQ(m_reply.GetStatus(), HAL_OK);
    EXPECT_EQ(m_reply.GetValue(), 3u);
}

TEST_F(ReplyTest, IsNoAcknowledgeOfAnotherCommandAndNoCommand) {
    Take(BytesOf(Gvcp::EncodeWriteRegAck(Id, 1)));
    Take(BytesOf(Gvcp::EncodeForceIpAck(Id)));
    const std::uint32_t address = 0x24;
    Take(BytesOf(Gvcp::EncodeReadRegCommand(Id, {&address, 1})));
    Take({});
    Take(Bytes(7, 0));
    EXPECT_FALSE(m_reply.IsAnswered());
    EXPECT_EQ(m_reply.GetStatus(), HAL_TIMED_OUT);
}

TEST_F(ReplyTest, IsABadAnswerWhenAllThatCameCouldNotBeRead) {
    Bytes cut = ReadAck(Id, 3);
    cut.pop_back();
    Take(cut);
    EXPECT_FALSE(m_reply.IsAnswered()) << "the right one may still come";
    EXPECT_EQ(m_reply.GetStatus(), HAL_BAD_ANSWER);
    Take(ReadAck(Id, 3));
    EXPECT_EQ(m_reply.GetStatus(), HAL_OK);
}

TEST_F(ReplyTest, HasOneValueAndNotTwo) {
    const std::vector<std::uint32_t> values{1, 2};
    Take(BytesOf(Gvcp::EncodeReadRegAck(Id, values)));
    EXPECT_EQ(m_reply.GetStatus(), HAL_BAD_ANSWER);
}

TEST_F(ReplyTest, HasTheCamerasStatus) {
    Take(BytesOf(Gvcp::EncodeErrorAck(MessageId::ReadRegAck, Id, Gvcp::Status::AccessDenied)));
    EXPECT_TRUE(m_reply.IsAnswered());
    EXPECT_EQ(m_reply.GetStatus(), HAL_ACCESS_DENIED);
}

TEST_F(ReplyTest, WaitsAsLongAsTheCameraAsksForUpToItsLimit) {
    Take(BytesOf(Gvcp::EncodePendingAck(Id + 1, 500)));
    EXPECT_EQ(m_reply.GetPendingUntil(), TimePoint());
    Take(BytesOf(Gvcp::EncodePendingAck(Id, 500)));
    EXPECT_EQ(m_reply.GetPendingUntil(), Now + 500ms);
    Take(BytesOf(Gvcp::EncodePendingAck(Id, 60000)));
    EXPECT_EQ(m_reply.GetPendingUntil(), Now + 1s);
    EXPECT_FALSE(m_reply.IsAnswered());
    EXPECT_EQ(m_reply.GetStatus(), HAL_TIMED_OUT);
}

TEST(ReplyToAForceIp, IsItsAcknowledge) {
    Reply reply(Id, MessageId::ForceIpAck, Now);
    reply.Take(BytesOf(Gvcp::EncodeForceIpAck(Id)), Now);
    EXPECT_EQ(reply.GetStatus(), HAL_OK);
}

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
