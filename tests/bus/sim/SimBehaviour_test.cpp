#include "SimFixture.h"

#include <map>

namespace MavixTest {

namespace {

using MavixSim::AuxVariant;
using MavixSim::Behaviour;
using MavixSim::WrongTypesVariant;
using std::chrono::milliseconds;

class SimBehaviour : public TCSimFixture {};

Bytes Variant(std::uint8_t variant) {
    return {variant};
}

TEST_F(SimBehaviour, EchoAnswersWithThePayload) {
    const RawReply reply = m_client.Call(TestCall(Behaviour::Echo, {9, 8, 7}));
    ASSERT_EQ(reply.Signature(), "yiay");
    EXPECT_EQ(reply.TakeByte(), 1);
    EXPECT_EQ(reply.TakeInt(), 3);
    EXPECT_EQ(reply.TakeBytes(), (Bytes{9, 8, 7}));
}

TEST_F(SimBehaviour, DelayHoldsUpNoOtherCall) {
    using Clock = std::chrono::steady_clock;
    TCRawClient other(m_bus.Address());
    const Clock::time_point start = Clock::now();
    const MavixSim::MessageHandle slow = m_client.MakeCall(TestCall(Behaviour::Delay, IntBytes(1000)));
    bool answered = false;
    const auto onReply = [](sd_bus_message*, void* flag, sd_bus_error*) {
        *static_cast<bool*>(flag) = true;
        return 0;
    };
    sd_bus_slot* created = nullptr;
    ASSERT_GE(sd_bus_call_async(m_client.Bus(), &created, slow.get(), onReply, &answered, 0), 0);
    const MavixSim::SlotHandle slot(created);
    ASSERT_GE(sd_bus_flush(m_client.Bus()), 0);
    ASSERT_EQ(m_driver.WaitForRecords(1).size(), 1u);

    EXPECT_FALSE(other.Call(TestCall(Behaviour::Echo)).IsError());
    EXPECT_LT(Clock::now() - start, milliseconds(1000));
    EXPECT_EQ(m_driver.Stats()["waiting"], 1);
    while (!answered)
        if (sd_bus_process(m_client.Bus(), nullptr) == 0)
            sd_bus_wait(m_client.Bus(), UINT64_MAX);
    EXPECT_GE(Clock::now() - start, milliseconds(1000));
}

TEST_F(SimBehaviour, ErrorCarriesNameAndText) {
    RawReply reply = m_client.Call(TestCall(Behaviour::Error));
    EXPECT_EQ(reply.errorName, "com.norvale.Error.Refused");
    EXPECT_EQ(reply.errorText, "Refused on request.");

    reply = m_client.Call(TestCall(Behaviour::Error, TextBytes("com.example.Failed\nNo such channel")));
    EXPECT_EQ(reply.errorName, "com.example.Failed");
    EXPECT_EQ(reply.errorText, "No such channel");
}

TEST_F(SimBehaviour, ErrorsComeWithoutTextOrWithANumber) {
    RawReply reply = m_client.Call(TestCall(Behaviour::ErrorNoText));
    EXPECT_EQ(reply.errorName, "com.norvale.Error.Refused");
    EXPECT_EQ(reply.errorText, "");
    reply = m_client.Call(TestCall(Behaviour::ErrorIntText));
    EXPECT_EQ(reply.errorName, "com.norvale.Error.Refused");
    EXPECT_EQ(reply.errorText, "");
}

TEST_F(SimBehaviour, RefusesAnErrorNameThatDBusDoesNotAllow) {
    const RawReply reply = m_client.Call(TestCall(Behaviour::Error, TextBytes("no name")));
    EXPECT_EQ(reply.errorName, "com.norvale.Error.BadCall");
    EXPECT_EQ(reply.errorText, "'no name' cannot be the name of an error");
}

TEST_F(SimBehaviour, RefusesErrorsWhoseNameOrTextIsNoText) {
    const Bytes noText{0xff, 0x01};
    RawReply reply = m_client.Call(TestCall(Behaviour::Error, noText));
    EXPECT_EQ(reply.errorName, "com.norvale.Error.BadCall");
    EXPECT_EQ(reply.errorText, "'..' cannot be the name of an error");
    Bytes named = TextBytes("com.example.Failed\n");
    named.insert(named.end(), noText.begin(), noText.end());
    reply = m_client.Call(TestCall(Behaviour::Error, named));
    EXPECT_EQ(reply.errorName, "com.norvale.Error.BadCall");
    EXPECT_EQ(reply.errorText, "'..' cannot be the text of an error");
}

TEST_F(SimBehaviour, BrokenByteHasBitZeroClear) {
    RawReply reply = m_client.Call(TestCall(Behaviour::BrokenByte));
    ASSERT_EQ(reply.Signature(), "y");
    EXPECT_EQ(reply.TakeByte(), 0);

    reply = m_client.Call(TestCall(Behaviour::BrokenByte, Variant(1)));
    ASSERT_EQ(reply.Signature(), "yiay");
    EXPECT_EQ(reply.TakeByte(), 6);
    EXPECT_EQ(reply.TakeInt(), 32);
    EXPECT_EQ(reply.TakeBytes().size(), 32u);
}

struct AuxRow {
    AuxVariant variant;
    std::uint8_t replyByte;
    std::size_t blockSize;
};

TEST_F(SimBehaviour, AuxFollowsThePayload) {
    const std::vector<AuxRow> rows{
        {AuxVariant::Both, 7, 32},       {AuxVariant::ReceivedOnly, 3, 16}, {AuxVariant::SentOnly, 5, 16},
        {AuxVariant::EmptyValue, 7, 24}, {AuxVariant::Truncated, 7, 29},    {AuxVariant::UnknownTag, 7, 43},
        {AuxVariant::ShortValue, 7, 28},
    };
    for (const AuxRow& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.variant));
        const Bytes payload = Variant(static_cast<std::uint8_t>(row.variant));
        const RawReply reply = m_client.Call(TestCall(Behaviour::Aux, payload));
        ASSERT_EQ(reply.Signature(), "yiayiay");
        EXPECT_EQ(reply.TakeByte(), row.replyByte);
        EXPECT_EQ(reply.TakeInt(), 1);
        EXPECT_EQ(reply.TakeBytes(), payload);
        EXPECT_EQ(static_cast<std::size_t>(reply.TakeInt()), row.blockSize);
        EXPECT_EQ(reply.TakeBytes().size(), row.blockSize);
    }
    const RawReply text =
        m_client.Call(TestCall(Behaviour::Aux, Variant(static_cast<std::uint8_t>(AuxVariant::WrongType))));
    EXPECT_EQ(text.Signature(), "yiayis");
}

TEST_F(SimBehaviour, AuxTimestampsLieBetweenCallAndReply) {
    const std::uint64_t before = NowMs();
    const RawReply reply = m_client.Call(TestCall(Behaviour::Aux));
    const std::uint64_t after = NowMs();
    ASSERT_EQ(reply.Signature(), "yiayiay");
    reply.TakeByte();
    reply.TakeInt();
    reply.TakeBytes();
    reply.TakeInt();
    const Bytes block = reply.TakeBytes();
    bool found = false;
    for (std::uint64_t received = before; received <= after; ++received)
        for (std::uint64_t sent = received; sent <= after; ++sent) {
            Bytes expected = AuxTimestamp(2, received);
            const Bytes second = AuxTimestamp(4, sent);
            expected.insert(expected.end(), second.begin(), second.end());
            found = found || expected == block;
        }
    EXPECT_TRUE(found);
}

TEST_F(SimBehaviour, AuxAbsentAnnouncesABlockAndHasNone) {
    const RawReply reply = m_client.Call(TestCall(Behaviour::AuxAbsent, {1, 2}));
    ASSERT_EQ(reply.Signature(), "yiay");
    EXPECT_EQ(reply.TakeByte(), 5);
}

TEST_F(SimBehaviour, NeverAnswers) {
    const RawReply reply = m_client.Call(TestCall(Behaviour::Never), milliseconds(200));
    EXPECT_EQ(reply.errorName, "org.freedesktop.DBus.Error.Timeout");
    EXPECT_EQ(m_driver.Records().size(), 1u);
}

TEST_F(SimBehaviour, WrongTypesComeInEveryVariant) {
    const std::map<WrongTypesVariant, std::string> signatures{
        {WrongTypesVariant::TextForByte, "siay"},     {WrongTypesVariant::IntForByte, "iiay"},
        {WrongTypesVariant::ByteOnly, "y"},           {WrongTypesVariant::NoPayload, "yi"},
        {WrongTypesVariant::TextPayload, "yis"},      {WrongTypesVariant::TextsPayload, "yias"},
        {WrongTypesVariant::IntsPayload, "yiai"},     {WrongTypesVariant::VariantPayload, "yiv"},
        {WrongTypesVariant::PayloadForLength, "yay"}, {WrongTypesVariant::TextForLength, "ysay"},
        {WrongTypesVariant::MoreArguments, "yiays"},
    };
    for (const auto& [variant, signature] : signatures) {
        SCOPED_TRACE(signature);
        const RawReply reply =
            m_client.Call(TestCall(Behaviour::WrongTypes, Variant(static_cast<std::uint8_t>(variant))));
        ASSERT_FALSE(reply.IsError()) << reply.errorText;
        EXPECT_EQ(reply.Signature(), signature);
    }
    EXPECT_EQ(m_client.Call(TestCall(Behaviour::WrongTypes, Variant(200))).errorName,
              "com.norvale.Error.BadCall");
}

TEST_F(SimBehaviour, DropNameGivesTheAddressedNameUpForAWhile) {
    m_client.Subscribe("type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',"
                       "arg0='com.norvale.MavixAPI'");
    EXPECT_FALSE(m_client.Call(TestCall(Behaviour::DropName, IntBytes(50))).IsError());
    const std::optional<RawEvent> dropped = m_client.NextEvent();
    const std::optional<RawEvent> taken = m_client.NextEvent();
    ASSERT_TRUE(dropped && taken);
    EXPECT_EQ(dropped->texts[2], "");
    EXPECT_NE(taken->texts[2], "");
    EXPECT_FALSE(m_client.Call(TestCall(Behaviour::Echo)).IsError());
}

TEST_F(SimBehaviour, BigReplyGrowsFromASmallRequest) {
    const RawReply reply = m_client.Call(TestCall(Behaviour::BigReply, IntBytes(16 * 1024 * 1024)));
    ASSERT_EQ(reply.Signature(), "yiay");
    EXPECT_EQ(reply.TakeByte(), 1);
    EXPECT_EQ(reply.TakeInt(), 16 * 1024 * 1024);
    const Bytes payload = reply.TakeBytes();
    ASSERT_EQ(payload.size(), 16u * 1024 * 1024);
    EXPECT_EQ(payload[300], 300 % 256);
    EXPECT_EQ(m_client.Call(TestCall(Behaviour::BigReply, IntBytes(-1))).errorName,
              "com.norvale.Error.BadCall");
}

TEST_F(SimBehaviour, LengthLiesAboutThePayload) {
    const RawReply reply = m_client.Call(TestCall(Behaviour::LengthLies, {1, 2}));
    ASSERT_EQ(reply.Signature(), "yiay");
    reply.TakeByte();
    EXPECT_EQ(reply.TakeInt(), 1002);
    EXPECT_EQ(reply.TakeBytes(), (Bytes{1, 2}));
}

TEST_F(SimBehaviour, EmptyReturnHasNoArguments) {
    const RawReply reply = m_client.Call(TestCall(Behaviour::EmptyReturn));
    EXPECT_FALSE(reply.IsError());
    EXPECT_EQ(reply.Signature(), "");
}

TEST_F(SimBehaviour, NegativeCodesEchoAndUnknownOnesAreRefused) {
    RawCall call = TestCall(Behaviour::Echo, {4});
    call.header = 0xfffffffe;
    EXPECT_FALSE(m_client.Call(call).IsError());
    call.header = Header(MavixSim::behaviourCount);
    EXPECT_EQ(m_client.Call(call).errorText, "the test interface has no function 15");
}

TEST_F(SimBehaviour, CodesOfOtherInterfacesAreNoBehaviours) {
    RawCall call;
    call.header = Header(static_cast<int>(Behaviour::Error));
    EXPECT_FALSE(m_client.Call(call).IsError());
}

} // namespace

} // namespace MavixTest
