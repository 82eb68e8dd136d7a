#include "ClientBus.h"

#include "FlavourFixture.h"
#include "ReceivedEvent.h"
#include "TestScale.h"

#include <cstring>
#include <thread>

// Events of the service, from the bus's evaluation of match rules to the callbacks.

using namespace MavixTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<Event> events;
std::function<void()> insideCallback;

template <int type>
void Keep(int id, const char* data, int length) {
    events.push_back({type, id, Bytes(data, data + length)});
    if (insideCallback) {
        insideCallback();
    }
}

constexpr MavixEventCallback keepers[] = {Keep<0>, Keep<1>, Keep<2>, Keep<3>,  Keep<4>,  Keep<5>,  Keep<6>,
                                          Keep<7>, Keep<8>, Keep<9>, Keep<10>, Keep<11>, Keep<12>, Keep<13>};

EIPCMessageType Type(int type) {
    return static_cast<EIPCMessageType>(type);
}

constexpr int data = IPC_MESSAGE_DATA;

class BusEvent : public ClientBusTest {
protected:
    BusEvent() {
        events.clear();
        insideCallback = nullptr;
        for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
            IPCConnection__SetCallbackFunction(Type(type), keepers[type]);
        }
    }
    ~BusEvent() override {
        insideCallback = nullptr;
        for (const auto& [type, id, handle] : m_rules) {
            IPCConnection__RemoveMatchRule(Type(type), id, handle.first, handle.second);
        }
    }

    // Until the end of the test.
    void AddRule(int type, int id, unsigned int high = 0, unsigned int low = 0) {
        EXPECT_TRUE(IPCConnection__AddMatchRule(Type(type), id, high, low));
        EXPECT_TRUE(Settle());
        m_rules.emplace_back(type, id, std::make_pair(high, low));
    }
    static bool WaitForEvents(std::size_t count) {
        return IterateUntil([count] { return events.size() >= count; });
    }

private:
    std::vector<std::tuple<int, int, std::pair<unsigned int, unsigned int>>> m_rules;
};

TEST_F(BusEvent, OfEachTypeArrivesThroughItsRule) {
    std::vector<Event> expected;
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        AddRule(type, 100 + type, 1, static_cast<unsigned int>(type));
        const Bytes payload{static_cast<std::uint8_t>(type), 0, 255};
        m_bus.daemon.Emit(type, 100 + type, payload, {1, static_cast<std::uint32_t>(type), ""});
        expected.push_back({type, 100 + type, payload});
    }
    EXPECT_TRUE(WaitForEvents(expected.size()));
    EXPECT_EQ(expected, events);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(BusEvent, ThatMatchesNoRuleDoesNotArrive) {
    AddRule(data, 7, 1, 2);
    m_bus.daemon.Emit(data, 8, {1}, {1, 2, ""});
    m_bus.daemon.Emit(data, 7, {2}, {1, 3, ""});
    m_bus.daemon.Emit(data, 7, {3}, {0, 2, ""});
    m_bus.daemon.Emit(IPC_MESSAGE_PROGRAM, 7, {4}, {1, 2, ""});
    m_bus.daemon.Emit(data, -7, {5}, {1, 2, ""});
    m_bus.daemon.Emit(data, 7, {6}, {1, 2, ""});
    EXPECT_TRUE(WaitForEvents(1));
    EXPECT_THAT(events, ElementsAre(Event{data, 7, {6}}));
}

TEST_F(BusEvent, HandlePartsThatOverlapMatchTheSameEvents) {
    AddRule(data, 7, 1, 0x10002);
    m_bus.daemon.Emit(data, 7, {1}, {0, 0x10002, ""});
    m_bus.daemon.Emit(data, 7, {2}, {1, 2, ""});
    EXPECT_TRUE(WaitForEvents(2));
    EXPECT_THAT(events, ElementsAre(Event{data, 7, {1}}, Event{data, 7, {2}}));
}

TEST_F(BusEvent, ARemovedRuleEndsItsEvents) {
    AddRule(data, 1);
    AddRule(data, 2);
    m_bus.daemon.Emit(data, 1, {1});
    ASSERT_TRUE(WaitForEvents(1));
    EXPECT_TRUE(IPCConnection__RemoveMatchRule(Type(data), 1, 0, 0));
    ASSERT_TRUE(Settle());
    m_bus.daemon.Emit(data, 1, {2});
    m_bus.daemon.Emit(data, 2, {3});
    EXPECT_TRUE(WaitForEvents(2));
    EXPECT_THAT(events, ElementsAre(Event{data, 1, {1}}, Event{data, 2, {3}}));
}

TEST_F(BusEvent, ARuleAddedTwiceDeliversOnceAndIsRemovedTwice) {
    AddRule(data, 1);
    AddRule(data, 1);
    AddRule(data, 2);
    m_bus.daemon.Emit(data, 1, {1});
    ASSERT_TRUE(WaitForEvents(1));
    IPCConnection__RemoveMatchRule(Type(data), 1, 0, 0);
    ASSERT_TRUE(Settle());
    m_bus.daemon.Emit(data, 1, {2});
    m_bus.daemon.Emit(data, 2, {3});
    EXPECT_TRUE(WaitForEvents(3));
    EXPECT_THAT(events, ElementsAre(Event{data, 1, {1}}, Event{data, 1, {2}}, Event{data, 2, {3}}));
}

TEST_F(BusEvent, OfAnUnknownTypeHasARuleThatNothingMatches) {
    EXPECT_TRUE(IPCConnection__AddMatchRule(Type(20), 1, 0, 0));
    EXPECT_TRUE(IPCConnection__RemoveMatchRule(Type(20), 1, 0, 0));
    EXPECT_TRUE(Settle());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(BusEvent, PayloadsOfEverySizeArrive) {
    AddRule(data, 1);
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{16777216}}) {
        m_bus.daemon.Emit(data, 1, Bytes(size, 0xA5));
        ASSERT_TRUE(WaitForEvents(1));
        EXPECT_EQ(size, events[0].payload.size());
        EXPECT_TRUE(events[0].payload == Bytes(size, 0xA5));
        events.clear();
    }
}

TEST_F(BusEvent, NothingArrivesWhileTheDefaultContextRestsAndEverythingAfterwards) {
    constexpr std::uint32_t count = 500;
    AddRule(data, 1);
    m_bus.daemon.EmitBurst(data, 1, count);
    // The answer comes after the events, on the same connection.
    ASSERT_TRUE(Settle());
    EXPECT_THAT(events, IsEmpty());
    EXPECT_TRUE(WaitForEvents(count));
    EXPECT_EQ(count, events.size());
}

TEST_F(BusEvent, ABurstArrivesWholeAndInOrder) {
    const std::uint32_t count = Scaled(100000);
    AddRule(data, 1);
    std::thread service([this, count] { m_bus.daemon.EmitBurst(data, 1, count); });
    EXPECT_TRUE(WaitForEvents(count));
    service.join();
    ASSERT_EQ(count, events.size());
    for (std::uint32_t at = 0; at < count; ++at) {
        std::uint32_t number = ~0U;
        ASSERT_EQ(sizeof number, events[at].payload.size());
        std::memcpy(&number, events[at].payload.data(), sizeof number);
        ASSERT_EQ(at, number);
    }
}

TEST_F(BusEvent, TypesKeepTheirOrderAmongEachOther) {
    constexpr int rounds = 20;
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        AddRule(type, 1);
    }
    std::vector<Event> expected;
    for (int round = 0; round < rounds; ++round) {
        for (int type = IPC_MESSAGE_MAX - 1; type >= 0; --type) {
            const Bytes payload{static_cast<std::uint8_t>(round)};
            m_bus.daemon.Emit(type, 1, payload);
            expected.push_back({type, 1, payload});
        }
    }
    EXPECT_TRUE(WaitForEvents(expected.size()));
    EXPECT_EQ(expected, events);
}

TEST_F(BusEvent, ACallbackMayCallTheServiceAndSetCallbacksAndRules) {
    AddRule(data, 1);
    bool worked = false;
    insideCallback = [this, &worked] {
        insideCallback = nullptr;
        const Bytes payload{4, 5};
        worked = Call(MavixSim::Behaviour::Echo, payload).output == payload && Call(sessionBus, 1).success &&
                 CallAsync("com.norvale.ITest", 1) && IPCConnection__AddMatchRule(Type(data), 2, 0, 0);
        IPCConnection__UnsetCallbackFunction(Type(data));
        IPCConnection__SetCallbackFunction(Type(data), Keep<IPC_MESSAGE_PROGRAM>);
    };
    m_bus.daemon.Emit(data, 1, {1});
    ASSERT_TRUE(WaitForEvents(1));
    EXPECT_TRUE(worked);
    ASSERT_TRUE(Settle());
    m_bus.daemon.Emit(data, 2, {2});
    EXPECT_TRUE(WaitForEvents(2));
    EXPECT_THAT(events, ElementsAre(Event{data, 1, {1}}, Event{IPC_MESSAGE_PROGRAM, 2, {2}}));
    IPCConnection__RemoveMatchRule(Type(data), 2, 0, 0);
}

TEST_F(BusEvent, EventsWaitWhileACallbackCallsAndComeAfterIt) {
    AddRule(data, 1);
    insideCallback = [this] {
        if (events.size() == 1) {
            m_bus.daemon.Emit(data, 1, {2});
            EXPECT_TRUE(Settle());
            EXPECT_EQ(1U, events.size());
        }
    };
    m_bus.daemon.Emit(data, 1, {1});
    EXPECT_TRUE(WaitForEvents(2));
}

TEST_F(BusEvent, WithoutACallbackIsDroppedSilently) {
    AddRule(data, 1);
    AddRule(IPC_MESSAGE_PROGRAM, 1);
    IPCConnection__UnsetCallbackFunction(Type(data));
    m_bus.daemon.Emit(data, 1, {1});
    m_bus.daemon.Emit(IPC_MESSAGE_PROGRAM, 1, {2});
    EXPECT_TRUE(WaitForEvents(1));
    EXPECT_THAT(events, ElementsAre(Event{IPC_MESSAGE_PROGRAM, 1, {2}}));
    EXPECT_THAT(Errors(), IsEmpty());
}

// The service may address a client alone; no rule is needed then, nor looked at.
TEST_F(BusEvent, AddressedToTheClientNeedsNoRule) {
    m_bus.daemon.EmitRaw("other-interface", data, "12abc", {9}, {0, 0, m_clientName});
    EXPECT_TRUE(WaitForEvents(1));
    EXPECT_THAT(events, ElementsAre(Event{data, 12, {9}}));
    m_bus.daemon.EmitRaw("unknown-member", data, "1", {9}, {0, 0, m_clientName});
    EXPECT_TRUE(
        IterateUntil([this] { return m_platform.Count(6, "[API_LITE] No such type. 'NoSuchEvent'") == 1; }));
}

// On a release every malformed event is survived. Prints what is delivered.
MAVIX_CHILD(ReceiveMalformedEvents) {
    ServiceBus bus;
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        IPCConnection__SetCallbackFunction(Type(type), keepers[type]);
    }
    const std::string client = bus.FindClient();
    for (const int type : {data, int{IPC_MESSAGE_SIGNAL}}) {
        for (const std::string& kind : bus.daemon.RawKinds()) {
            bus.daemon.EmitRaw(kind, type, "5", {1}, {0, 0, client});
            if (kind == "text-id") {
                bus.daemon.EmitRaw(kind, type, "five", {1}, {0, 0, client});
            }
        }
    }
    bus.daemon.Emit(IPC_MESSAGE_ATSC3_LINKAGE, 99, {7}, {0, 0, client});
    const bool last = IterateUntil([] { return !events.empty() && events.back().id == 99; });
    for (const Event& event : events) {
        std::printf("delivered type %d id %d size %zu\n", event.type, event.id, event.payload.size());
    }
    return last && Settle() ? 0 : 1;
}

using BusEventFlavour = FlavourFixture;

TEST_F(BusEventFlavour, AReleaseSurvivesEveryMalformedEvent) {
    const ChildResult result = RunChildProgram("ReceiveMalformedEvents", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.output << result.errors;
    EXPECT_EQ(2U, result.CountLines(6, "[API_LITE] No such type. 'NoSuchEvent'"));
    EXPECT_EQ(2U, result.CountLines(6, "[API_LITE] Invalid message id 'five'"));
    EXPECT_EQ(4U, result.CountLines(6, "[API_LITE] Expected DBUS_TYPE_STRING."));
    EXPECT_EQ(2U, result.CountLines(6, "[API_LITE] Expected parameter"));
    EXPECT_EQ(10U, result.CountLines(6, "[API_LITE] Expected bytes array."));
    // Whole: with more arguments, of another interface, with a good id text; with ints; and without payload.
    const std::string ofInts = ClientRow().wideArraysAreWhole ? "8" : "2";
    for (const std::string& size : {std::string("1"), ofInts, std::string("0")}) {
        for (const char* type : {"2", "0"}) {
            const std::string event = std::string("delivered type ") + type + " id 5 size " + size + "\n";
            EXPECT_NE(std::string::npos, result.output.find(event)) << event;
        }
    }
}

} // namespace
