#include "Pairing.h"

#include <gtest/gtest.h>

namespace MavixTraffic {

namespace {

WaitingCall Call(std::uint64_t number, const std::string& sender, std::uint64_t serial, std::uint64_t atUs) {
    WaitingCall call;
    call.number = number;
    call.sender = sender;
    call.serial = serial;
    call.atUs = atUs;
    return call;
}

Message ReplyTo(const std::string& destination, std::uint64_t serial) {
    Message reply;
    reply.kind = Kind::Reply;
    reply.destination = destination;
    reply.replySerial = serial;
    return reply;
}

std::vector<std::uint64_t> Numbers(const std::vector<WaitingCall>& calls) {
    std::vector<std::uint64_t> numbers;
    for (const WaitingCall& call : calls)
        numbers.push_back(call.number);
    return numbers;
}

TEST(Pairing, FindsTheCallByItsSenderAndSerial) {
    TCPairing pairing;
    pairing.Add(Call(1, ":1.5", 7, 0));
    pairing.Add(Call(2, ":1.6", 7, 0));
    pairing.Add(Call(3, ":1.5", 8, 0));
    EXPECT_FALSE(pairing.Take(ReplyTo(":1.5", 9)));
    EXPECT_FALSE(pairing.Take(ReplyTo(":1.7", 7)));
    EXPECT_EQ(pairing.Take(ReplyTo(":1.6", 7))->number, 2u);
    EXPECT_EQ(pairing.Take(ReplyTo(":1.5", 8))->number, 3u);
    EXPECT_EQ(pairing.Take(ReplyTo(":1.5", 7))->number, 1u);
    EXPECT_FALSE(pairing.Take(ReplyTo(":1.5", 7))) << "a call is answered once";
    EXPECT_EQ(pairing.Size(), 0u);
}

TEST(Pairing, CallsWithoutAReplyTimeOutInTheirOrder) {
    TCPairing pairing({1000, 100});
    pairing.Add(Call(1, ":1.5", 1, 100));
    pairing.Add(Call(2, ":1.5", 2, 200));
    pairing.Add(Call(3, ":1.5", 3, 900));
    EXPECT_EQ(pairing.NextTimeOutUs(), 1100u);
    EXPECT_TRUE(pairing.TakeTimedOut(1099).empty());
    EXPECT_EQ(Numbers(pairing.TakeTimedOut(1200)), (std::vector<std::uint64_t>{1, 2}));
    EXPECT_FALSE(pairing.Take(ReplyTo(":1.5", 1))) << "too late";
    EXPECT_EQ(pairing.Take(ReplyTo(":1.5", 3))->number, 3u);
    EXPECT_EQ(pairing.NextTimeOutUs(), std::nullopt);
}

TEST(Pairing, TheOldestGiveWayWhereThereAreTooMany) {
    TCPairing pairing({1000000, 3});
    for (std::uint64_t i = 1; i <= 5; ++i)
        pairing.Add(Call(i, ":1.5", i, i));
    EXPECT_EQ(Numbers(pairing.TakeTimedOut(6)), (std::vector<std::uint64_t>{1, 2}));
    EXPECT_EQ(pairing.Size(), 3u);
}

TEST(Pairing, ASerialThatComesAgainIsTheLaterCall) {
    TCPairing pairing({1000, 100});
    pairing.Add(Call(1, ":1.5", 7, 0));
    pairing.Add(Call(2, ":1.5", 7, 500));
    EXPECT_TRUE(pairing.TakeTimedOut(1400).empty());
    EXPECT_EQ(pairing.Take(ReplyTo(":1.5", 7))->number, 2u);
}

TEST(Pairing, OneCallThatWaitsKeepsNoneOfThoseAnsweredAfterIt) {
    TCPairing pairing;
    pairing.Add(Call(1, ":1.5", 1, 0));
    for (std::uint64_t i = 2; i < 20000; ++i) {
        pairing.Add(Call(i, ":1.6", i, i));
        ASSERT_TRUE(pairing.Take(ReplyTo(":1.6", i)));
    }
    EXPECT_EQ(pairing.Size(), 1u);
    EXPECT_LT(pairing.Remembered(), 2000u);
    EXPECT_EQ(pairing.Take(ReplyTo(":1.5", 1))->number, 1u);
}

struct SplitRow {
    const char* name;
    std::optional<std::uint64_t> clientSentMs;
    std::optional<std::uint64_t> serviceReceivedMs;
    std::optional<std::uint64_t> serviceSentMs;
    std::uint64_t totalUs;
    std::optional<std::uint64_t> wayOutUs;
    std::optional<std::uint64_t> serviceUs;
    std::optional<std::uint64_t> wayBackUs;
};

// The call was seen at 10,500 us, its reply at 20,250 us.
TEST(Pairing, SplitsTheTimeByTheTimestampsOfBothSides) {
    const std::optional<std::uint64_t> none;
    const SplitRow rows[] = {
        {"no timestamps", none, none, none, 9750, none, none, none},
        {"client alone", 10, none, none, 10250, none, none, none},
        {"service alone", none, 12, 19, 9750, 1500, 7000, 1250},
        {"both", 10, 12, 19, 10250, 2000, 7000, 1250},
        {"half of the service's", 10, 12, none, 10250, none, none, none},
        {"cut to the millisecond before", none, 10, 20, 9750, 0, 10000, 250},
        {"service that answers before it was asked", 10, 19, 12, 10250, 9000, 0, 8250},
    };
    for (const SplitRow& row : rows) {
        WaitingCall call = Call(1, ":1.5", 1, 10500);
        call.timestampSent = row.clientSentMs;
        Message reply;
        reply.atUs = 20250;
        reply.reply.timestampReceived = row.serviceReceivedMs;
        reply.reply.timestampSent = row.serviceSentMs;
        const TimeSplit split = SplitTime(call, reply);
        EXPECT_EQ(split.totalUs, row.totalUs) << row.name;
        EXPECT_EQ(split.startsAtClient, row.clientSentMs.has_value()) << row.name;
        EXPECT_EQ(split.wayOutUs, row.wayOutUs) << row.name;
        EXPECT_EQ(split.serviceUs, row.serviceUs) << row.name;
        EXPECT_EQ(split.wayBackUs, row.wayBackUs) << row.name;
    }
}

} // namespace

} // namespace MavixTraffic
