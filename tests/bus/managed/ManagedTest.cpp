#include "plain.h"

#include "ClientBus.h"
#include "MessageBuffer.h"
#include "ReceivedEvent.h"
#include "TestScale.h"

#include <cstddef>
#include <malloc.h>
#include <thread>

// The managed binding over a real bus.

using namespace MavixTest;
using MavixApiLite::TCMessageBuffer;
using MavixSim::Behaviour;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int data = IPC_MESSAGE_DATA;
constexpr int relayedTypes = 11;

std::vector<Event> events;

template <int type>
void Keep(int id, MavixMessageBuffer* payload) {
    const char* bytes = payload->GetAsCStr(0);
    events.push_back({type, id, Bytes(bytes, bytes + payload->PayloadSize())});
}

constexpr MavixManagedCallback keepers[] = {Keep<0>,  Keep<1>,  Keep<2>,  Keep<3>, Keep<4>,
                                            Keep<5>,  Keep<6>,  Keep<7>,  Keep<8>, Keep<9>,
                                            Keep<10>, Keep<11>, Keep<12>, Keep<13>};

class ManagedBus : public ClientBusTest {
protected:
    ManagedBus() { events.clear(); }
    ~ManagedBus() override {
        for (const auto& [type, id] : m_rules) {
            TCIPCConnection_RemoveMatchRule(m_handle, type, id, 0, 0);
        }
        TCIPCConnection_Destroy(m_handle);
    }

    // Until the end of the test, about the handle 0.
    void AddRule(int type, int id) {
        EXPECT_TRUE(TCIPCConnection_AddMatchRule(m_handle, type, id, 0, 0));
        EXPECT_TRUE(Settle());
        m_rules.emplace_back(type, id);
    }
    static bool WaitForEvents(std::size_t count) {
        return IterateUntil([count] { return events.size() >= count; });
    }
    // Everything that was emitted before has been delivered or dropped. Of a type that no test uses.
    void Drain() {
        constexpr int type = IPC_MESSAGE_ATSC3_LINKAGE;
        static bool arrived;
        arrived = false;
        IPCConnection__SetCallbackFunction(static_cast<EIPCMessageType>(type),
                                           [](int, const char*, int) { arrived = true; });
        m_bus.daemon.Emit(type, 1, {}, {0, 0, m_clientName});
        EXPECT_TRUE(IterateUntil([] { return arrived; }));
    }
    std::size_t CalledLines() const { return m_platform.CountStarting(3, "called, type = "); }

    void* m_handle = TCIPCConnection_Create("test", "", false);

private:
    std::vector<std::pair<int, int>> m_rules;
};

TEST_F(ManagedBus, CallAppendsTheResultToTheOutput) {
    TCMessageBuffer in;
    TCMessageBuffer out;
    in.PushConcatenated(3, "abc");
    out.PushChar('x');
    EXPECT_TRUE(TCIPCConnection_Call(m_handle, "com.norvale.ITest", 1, &in, &out));
    EXPECT_EQ("xabc", std::string(out.GetAsCStr(0), out.PayloadSize()));
    EXPECT_FALSE(TCIPCConnection_Call(m_handle, MavixSim::testInterface, static_cast<short>(Behaviour::Error),
                                      &in, &out));
    EXPECT_EQ(4U, out.PayloadSize());
}

TEST_F(ManagedBus, CallAsyncReachesTheService) {
    TCMessageBuffer in;
    in.PushConcatenated(3, "abc");
    ASSERT_TRUE(Settle());
    m_bus.daemon.ClearRecords();
    EXPECT_TRUE(TCIPCConnection_CallAsync(m_handle, "com.norvale.ITest", -7, &in));
    const std::vector<nlohmann::json> records = Records(1);
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(-7, records[0].at("code"));
    EXPECT_EQ("616263", records[0].at("payload"));
    EXPECT_EQ(true, records[0].at("ok"));
}

TEST_F(ManagedBus, WaitForCreateInterfaceIsTrueWhenItsBusHasAnOwner) {
    EXPECT_TRUE(TCIPCConnection_WaitForCreateInterface(m_handle, "com.norvale.IAVControl"));
}

TEST_F(ManagedBus, APlainProgramInCCallsAndReceives) {
    EXPECT_EQ(0, plain_call());
    EXPECT_EQ(0, plain_register(m_handle));
    ASSERT_TRUE(Settle());
    m_bus.daemon.Emit(data, 7, {0x34, 0x12, 0, 0});
    EXPECT_TRUE(IterateUntil([] { return plain_event_id != 0; }));
    EXPECT_EQ(7, plain_event_id);
    EXPECT_EQ(0x1234, plain_event_value);
    EXPECT_TRUE(TCIPCConnection_RemoveMatchRule(m_handle, data, 7, 0, 0));
}

TEST_F(ManagedBus, EventsOfTheElevenTypesArriveAndOfTheThreeOthersNever) {
    std::vector<Event> expected;
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        AddRule(type, 100 + type);
        TCPIConnection_SetCallbackFunction(m_handle, type, keepers[type]);
        const Bytes payload{static_cast<std::uint8_t>(type), 0, 255};
        m_bus.daemon.Emit(type, 100 + type, payload);
        if (type < relayedTypes) {
            expected.push_back({type, 100 + type, payload});
        }
    }
    EXPECT_TRUE(WaitForEvents(expected.size()));
    Drain();
    EXPECT_EQ(expected, events);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ManagedBus, AnEventOfSizeZeroArrivesWithAnEmptyBuffer) {
    AddRule(data, 1);
    TCPIConnection_SetCallbackFunction(m_handle, data, keepers[data]);
    m_bus.daemon.Emit(data, 1, {});
    EXPECT_TRUE(WaitForEvents(1));
    EXPECT_THAT(events, ElementsAre(Event{data, 1, {}}));
}

TEST_F(ManagedBus, ARuleWithANegativeSecondPartMatchesTheHandleOfAllBits) {
    TCPIConnection_SetCallbackFunction(m_handle, data, keepers[data]);
    EXPECT_TRUE(TCIPCConnection_AddMatchRule(m_handle, data, 1, 0, -1));
    ASSERT_TRUE(Settle());
    m_bus.daemon.Emit(data, 1, {1}, {0, 0xFFFF, ""});
    m_bus.daemon.Emit(data, 1, {2}, {0, 0xFFFFFFFF, ""});
    EXPECT_TRUE(WaitForEvents(1));
    EXPECT_THAT(events, ElementsAre(Event{data, 1, {2}}));
    EXPECT_TRUE(TCIPCConnection_RemoveMatchRule(m_handle, data, 1, 0, -1));
}

TEST_F(ManagedBus, AnUnsetCallbackIsNeverCalledAgain) {
    AddRule(data, 1);
    TCPIConnection_SetCallbackFunction(m_handle, data, keepers[data]);
    m_bus.daemon.Emit(data, 1, {1});
    ASSERT_TRUE(WaitForEvents(1));
    TCPIConnection_UnsetCallbackFunction(m_handle, data);
    m_platform.Reset();
    m_bus.daemon.Emit(data, 1, {2});
    Drain();
    EXPECT_EQ(1U, events.size());
    EXPECT_EQ(0U, CalledLines());
}

TEST_F(ManagedBus, AReplacedCallbackIsNeverCalledAgain) {
    AddRule(data, 1);
    TCPIConnection_SetCallbackFunction(m_handle, data, keepers[3]);
    TCPIConnection_SetCallbackFunction(m_handle, data, keepers[4]);
    m_bus.daemon.Emit(data, 1, {1});
    EXPECT_TRUE(WaitForEvents(1));
    EXPECT_THAT(events, ElementsAre(Event{4, 1, {1}}));
}

TEST_F(ManagedBus, ASecondCreateClearsTheCallbacksOfTheFirst) {
    AddRule(data, 1);
    TCPIConnection_SetCallbackFunction(m_handle, data, keepers[data]);
    void* second = TCIPCConnection_Create("second", "", false);
    m_platform.Reset();
    m_bus.daemon.Emit(data, 1, {1});
    Drain();
    EXPECT_THAT(events, IsEmpty());
    EXPECT_EQ(1U, m_platform.Count(3, "called, type = 2 messageId = 1 g_csharpfunctioncb[] = (nil)\n"));
    TCPIConnection_SetCallbackFunction(second, data, keepers[data]);
    m_bus.daemon.Emit(data, 1, {2});
    EXPECT_TRUE(WaitForEvents(1));
    TCIPCConnection_Destroy(second);
    m_bus.daemon.Emit(data, 1, {3});
    EXPECT_TRUE(WaitForEvents(2));
    EXPECT_THAT(events, ElementsAre(Event{data, 1, {2}}, Event{data, 1, {3}}));
}

TEST_F(ManagedBus, AHandleMayBeDestroyedWhileItsCallWaits) {
    void* handle = TCIPCConnection_Create("", "", false);
    m_bus.daemon.ClearRecords();
    bool called = false;
    std::thread caller([&] {
        TCMessageBuffer in;
        TCMessageBuffer out;
        in.PushInt(200);
        called = TCIPCConnection_Call(handle, MavixSim::testInterface, static_cast<short>(Behaviour::Delay),
                                      &in, &out);
    });
    EXPECT_EQ(1U, Records(1).size());
    TCIPCConnection_Destroy(handle);
    caller.join();
    EXPECT_TRUE(called);
}

// Bytes that are allocated and not freed. It tells nothing with a sanitizer, whose leak check looks instead.
std::ptrdiff_t AllocatedBytes() {
    return static_cast<std::ptrdiff_t>(mallinfo2().uordblks);
}

TEST_F(ManagedBus, TenThousandHandlesComeAndGo) {
    constexpr std::ptrdiff_t tolerated = 65536; // less than the smallest leak of every handle would be
    const auto comeAndGo = [this](unsigned int count) {
        for (unsigned int at = 0; at < count; ++at) {
            void* handle = TCIPCConnection_Create("", "", false);
            ASSERT_NE(nullptr, handle);
            TCPIConnection_SetCallbackFunction(handle, data, keepers[data]);
            TCIPCConnection_Destroy(handle);
            if (at % 100 == 0) {
                m_platform.Reset();
            }
        }
        m_platform.Reset();
    };
    comeAndGo(Scaled(1000));
    const std::ptrdiff_t before = AllocatedBytes();
    comeAndGo(Scaled(10000));
    EXPECT_LT(AllocatedBytes() - before, tolerated);
    TCMessageBuffer in;
    TCMessageBuffer out;
    EXPECT_TRUE(TCIPCConnection_Call(m_handle, "com.norvale.ITest", 1, &in, &out));
}

} // namespace
