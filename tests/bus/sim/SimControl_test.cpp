#include "SimFixture.h"

namespace MavixTest {

namespace {

using MavixSim::Behaviour;

class SimControl : public TCSimFixture {};

std::string OwnProgramName() {
    return program_invocation_short_name;
}

TEST_F(SimControl, RecordsTellEverythingAboutACall) {
    RawCall call;
    call.destination = "com.norvale.MavixAPI.HyperFast";
    call.interface = "com.norvale.IAVControl";
    call.header = Header(66, 6);
    call.programName = OwnProgramName();
    call.payload = {0xab, 0x01};
    const std::uint64_t sent = NowMs();
    call.aux = AuxTimestamp(4, sent);
    ASSERT_FALSE(m_client.Call(call).IsError());

    const auto records = m_driver.Records();
    ASSERT_EQ(records.size(), 1u);
    const nlohmann::json expected{
        {"sequence", 1},
        {"process", "mavix-daemon"},
        {"ok", true},
        {"reason", nullptr},
        {"interface", "com.norvale.IAVControl"},
        {"code", 66},
        {"flags", 6},
        {"header", Header(66, 6)},
        {"pid", ::getpid()},
        {"pidVerified", true},
        {"programName", OwnProgramName()},
        {"size", 2},
        {"payload", "ab01"},
        {"digest", "09975f07b61a9d71"},
        {"timestampReceived", nullptr},
        {"timestampSent", sent},
        {"noReply", false},
        {"destination", "com.norvale.MavixAPI.HyperFast"},
        {"sender", m_client.UniqueName()},
        {"path", "/com/norvale/Object"},
        {"member", "MethodCall"},
        {"signature", "iiisayiay"},
    };
    EXPECT_EQ(records[0], expected);
}

TEST_F(SimControl, RecordsKeepTheFirst64BytesOfAPayload) {
    RawCall call;
    call.payload.assign(100, 0x11);
    m_client.Call(call);
    const auto records = m_driver.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["payload"].get<std::string>().size(), 128u);
    EXPECT_EQ(records[0]["size"], 100);
}

TEST_F(SimControl, RecordsNameTheBusNameThatWasAddressed) {
    for (const char* name : {"com.norvale.MavixAPI", "com.norvale.MavixAPI.Pipeline",
                             "com.norvale.MavixAPI.ServiceDb", "com.norvale.MavixAPI.HyperFast"}) {
        RawCall call;
        call.destination = name;
        ASSERT_FALSE(m_client.Call(call).IsError());
        EXPECT_EQ(m_driver.Records().back()["destination"], name);
    }
}

TEST_F(SimControl, OldRecordsAreForgottenAndCounted) {
    constexpr unsigned kept = 16384;
    constexpr unsigned more = 10;
    RawCall call;
    call.header = Header(7, 1);
    call.noReply = true;
    for (unsigned i = 0; i < kept + more; ++i)
        ASSERT_GE(sd_bus_send(m_client.Bus(), m_client.MakeCall(call).get(), nullptr), 0);
    ASSERT_FALSE(m_client.Call(RawCall{}).IsError());

    const nlohmann::json stats = m_driver.Stats();
    EXPECT_EQ(stats["calls"], kept + more + 1);
    EXPECT_EQ(stats["noReply"], kept + more);
    EXPECT_EQ(stats["kept"], kept);
    EXPECT_EQ(stats["forgotten"], more + 1);
    const auto latest = m_driver.Records(kept + more);
    ASSERT_EQ(latest.size(), 2u);
    EXPECT_EQ(latest[0]["sequence"], kept + more);
    EXPECT_EQ(m_driver.Records().size(), kept);
}

TEST_F(SimControl, ClearRecordsStartsAnew) {
    m_client.Call(RawCall{});
    m_driver.ClearRecords();
    EXPECT_TRUE(m_driver.Records().empty());
    EXPECT_EQ(m_driver.Stats()["calls"], 0);
    m_client.Call(RawCall{});
    EXPECT_EQ(m_driver.Records().at(0)["sequence"], 1);
}

TEST_F(SimControl, NamesAreDroppedAndTaken) {
    m_driver.DropName("com.norvale.MavixAPI");
    EXPECT_EQ(m_client.Call(RawCall{}).errorName, "org.freedesktop.DBus.Error.ServiceUnknown");
    EXPECT_THROW(m_driver.DropName("com.norvale.MavixAPI"), std::runtime_error);
    m_driver.TakeName("com.norvale.MavixAPI");
    EXPECT_FALSE(m_client.Call(RawCall{}).IsError());
}

TEST_F(SimControl, SetDelayHoldsUpEveryAnswer) {
    m_driver.SetDelay(std::chrono::milliseconds(100));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_client.Call(RawCall{}).IsError());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(SimControl, DelaysAddUpBeyondWhatEachCanBe) {
    m_driver.SetDelay(std::chrono::milliseconds(0xffffffff));
    const RawReply reply =
        m_client.Call(TestCall(Behaviour::Delay, IntBytes(1)), std::chrono::milliseconds(300));
    EXPECT_TRUE(reply.IsError()) << "by the client itself, for the time is over";
    EXPECT_EQ(m_driver.Stats().at("waiting"), 1);
}

TEST_F(SimControl, SetReplyAnswersOneFunctionOrAllOthers) {
    m_driver.SetReply("com.norvale.ITest", 5, Behaviour::Echo, {1, 2, 3, 4});
    m_driver.SetReply("", 0, Behaviour::Error, TextBytes("com.example.All\ntext"));
    RawCall call;
    call.header = Header(5);
    RawReply reply = m_client.Call(call);
    ASSERT_EQ(reply.Signature(), "yiay");
    reply.TakeByte();
    reply.TakeInt();
    EXPECT_EQ(reply.TakeBytes(), (Bytes{1, 2, 3, 4}));

    call.header = Header(6);
    EXPECT_EQ(m_client.Call(call).errorName, "com.example.All");
    m_driver.ClearReplies();
    EXPECT_FALSE(m_client.Call(call).IsError());
}

TEST_F(SimControl, FailuresAreToldToTheCaller) {
    EXPECT_THROW(m_driver.SetReply("com.norvale.ITest", 5, static_cast<Behaviour>(99)), std::runtime_error);
    EXPECT_THROW(m_driver.Emit(14, 0, {}), std::runtime_error);
    EXPECT_THROW(m_driver.EmitRaw("no such kind", 2, "0", {}), std::runtime_error);
    EXPECT_THROW(m_driver.TakeName("com.example.NotAllowed"), std::runtime_error);
}

} // namespace

} // namespace MavixTest
