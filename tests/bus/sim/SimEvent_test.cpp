#include "SimFixture.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>

namespace MavixTest {

namespace {

class SimEvent : public TCSimFixture {
protected:
    void SubscribeAll() { m_client.Subscribe("type='signal',path='/com/norvale/Mavix/SignalObject'"); }
};

const std::vector<std::string> members{"Signal",   "PipelineSignal", "Data", "Program",
                                       "Section",  "TextData",       "Dsm",  "CopyProtectionInfo",
                                       "PESData",  "ExPESData",      "Ht",   "ATSC3Signalling",
                                       "ATSC3Mpd", "ATSC3Linkage"};

// The rule text that clients add.
std::string ClientRule(const std::string& member, int id, unsigned handle) {
    return "path='/com/norvale/Mavix/SignalObject', type='signal', "
           "interface='com.norvale.Mavix.SignalIFace', member='" +
           member + "', arg0='" + std::to_string(id) + "', arg1='" + std::to_string(handle) + "'";
}

TEST_F(SimEvent, EveryTypeArrivesThroughAClientsRule) {
    for (std::size_t type = 0; type < members.size(); ++type) {
        SCOPED_TRACE(members[type]);
        m_client.Subscribe(ClientRule(members[type], -5, 65538));
        const Bytes payload{static_cast<std::uint8_t>(type), 0, 255};
        m_driver.Emit(static_cast<int>(type), -5, payload, {1, 2, ""});

        const std::optional<RawEvent> event = m_client.NextEvent();
        ASSERT_TRUE(event);
        const bool hasFurther = type == 0 || type == 1 || type == 10;
        EXPECT_EQ(event->path, "/com/norvale/Mavix/SignalObject");
        EXPECT_EQ(event->interface, "com.norvale.Mavix.SignalIFace");
        EXPECT_EQ(event->member, members[type]);
        EXPECT_EQ(event->signature, hasFurther ? "sssay" : "ssay");
        EXPECT_EQ(event->texts, hasFurther ? (std::vector<std::string>{"-5", "65538", "65538"})
                                           : (std::vector<std::string>{"-5", "65538"}));
        EXPECT_EQ(event->payload, payload);
    }
}

TEST_F(SimEvent, LowHandlePartIsNotMasked) {
    SubscribeAll();
    m_driver.Emit(2, 0, {}, {1, 0xffffffff, ""});
    const std::optional<RawEvent> event = m_client.NextEvent();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->texts[1], "4294967295");
}

TEST_F(SimEvent, ADestinationAloneGetsTheEvent) {
    TCRawClient other(m_bus.Address());
    other.Subscribe("type='signal',path='/com/norvale/Mavix/SignalObject'");
    m_client.KeepUnicast();
    m_driver.Emit(2, 7, {1}, {0, 0, m_client.UniqueName()});
    EXPECT_TRUE(m_client.NextEvent());
    EXPECT_FALSE(other.NextEvent(std::chrono::milliseconds(100)));
}

TEST_F(SimEvent, MalformedEventsHaveTheBodiesOfTheirKinds) {
    const std::map<std::string, std::string> signatures{
        {"text-id", "ssay"},        {"no-arguments", ""},
        {"id-only", "s"},           {"int-id", "isay"},
        {"no-payload", "ss"},       {"text-payload", "sss"},
        {"ints-payload", "ssai"},   {"texts-payload", "ssas"},
        {"variant-payload", "ssv"}, {"more-arguments", "ssaysa{sv}"},
        {"unknown-member", "ssay"}, {"other-interface", "ssay"},
    };
    SubscribeAll();
    ASSERT_EQ(m_driver.RawKinds().size(), signatures.size());
    for (const std::string& kind : m_driver.RawKinds()) {
        SCOPED_TRACE(kind);
        m_driver.EmitRaw(kind, 5, "12abc", {1, 2});
        const std::optional<RawEvent> event = m_client.NextEvent();
        ASSERT_TRUE(event);
        EXPECT_EQ(event->signature, signatures.at(kind));
        EXPECT_EQ(event->member, kind == "unknown-member" ? "NoSuchEvent" : "TextData");
        EXPECT_EQ(event->interface, kind == "other-interface" ? "com.norvale.Mavix.OtherIFace"
                                                              : "com.norvale.Mavix.SignalIFace");
        if (kind == "text-id") {
            EXPECT_EQ(event->texts[0], "12abc");
        }
    }
}

TEST_F(SimEvent, ABurstOf100000ArrivesInOrderAndWhole) {
    constexpr std::uint32_t count = 100000;
    SubscribeAll();
    m_driver.EmitBurst(2, 9, count, 64, 5);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::optional<RawEvent> event = m_client.NextEvent(std::chrono::seconds(30));
        ASSERT_TRUE(event) << "after " << i << " events";
        ASSERT_EQ(event->payload.size(), 64u);
        std::uint32_t number = 0;
        std::memcpy(&number, event->payload.data(), sizeof number);
        ASSERT_EQ(number, i + 5);
    }
    EXPECT_EQ(m_driver.Stats()["eventsEmitted"], count);
}

TEST_F(SimEvent, CallsAreServedDuringABurst) {
    constexpr std::uint32_t count = 200000;
    RawCall burst;
    burst.destination = "com.norvale.Sim.Daemon";
    burst.path = "/com/norvale/Sim";
    burst.interface = "com.norvale.Sim";
    burst.member = "EmitBurst";
    burst.noReply = true;
    burst.body = [](sd_bus_message* message) {
        MavixSim::Check(sd_bus_message_append(message, "siuuuuus", "Data", 1, 0, 0, 0, count, 4, ""),
                        "append");
    };
    m_client.Send(burst);
    ASSERT_FALSE(m_client.Call(RawCall{}).IsError());
    EXPECT_LT(m_driver.Stats()["eventsEmitted"], count);
}

TEST_F(SimEvent, ABurstThatCannotBeIsRefused) {
    EXPECT_THROW(m_driver.EmitBurst(2, 1, 10, 4, 0, {0, 0, "no bus name"}), std::runtime_error);
    m_driver.EmitBurst(2, 1, 10);
    EXPECT_EQ(m_driver.Stats()["eventsEmitted"], 10);
}

TEST_F(SimEvent, ABurstOfLargeEventsIsNotKeptInMemory) {
    if (MAVIX_TEST_SCALE_DIVISOR != 1)
        GTEST_SKIP() << "sanitizers keep memory of their own";
    constexpr std::uint32_t size = 4 * 1024 * 1024;
    m_driver.EmitBurst(2, 1, 100, size);
    std::ifstream file("/proc/" + m_driver.Stats()["pid"].dump() + "/status");
    long mostKib = 0;
    for (std::string line; mostKib == 0 && std::getline(file, line);)
        std::sscanf(line.c_str(), "VmHWM: %ld kB", &mostKib);
    EXPECT_GT(mostKib, 0);
    EXPECT_LT(mostKib, 16 * size / 1024);
}

} // namespace

} // namespace MavixTest
