#include "ManagedFixture.h"

#include "../client/ClientFixture.h"
#include "TestScale.h"

#include <atomic>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <thread>

// From the client's callbacks through the trampolines to the managed ones.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrictMock;

namespace {

constexpr int relayedTypes = 11;
constexpr int data = IPC_MESSAGE_DATA;

constexpr MavixEventCallback trampolines[relayedTypes] = {
    TCPIConnection_Callback_SIGNAL,  TCPIConnection_Callback_PIPELINE_EVENT,
    TCPIConnection_Callback_DATA,    TCPIConnection_Callback_PROGRAM,
    TCPIConnection_Callback_SECTION, TCPIConnection_Callback_TEXTDATA,
    TCPIConnection_Callback_DSM,     TCPIConnection_Callback_COPY_PROTECTION,
    TCPIConnection_Callback_PESDATA, TCPIConnection_Callback_EXPESDATA,
    TCPIConnection_Callback_HT,
};

EIPCMessageType Type(int type) {
    return static_cast<EIPCMessageType>(type);
}

template <int type>
void KeepType(int id, MavixMessageBuffer* payload) {
    RelayedEvents().push_back({type * 1000 + id, TextOf(*payload)});
}

constexpr MavixManagedCallback keepers[IPC_MESSAGE_MAX] = {
    KeepType<0>, KeepType<1>, KeepType<2>, KeepType<3>,  KeepType<4>,  KeepType<5>,  KeepType<6>,
    KeepType<7>, KeepType<8>, KeepType<9>, KeepType<10>, KeepType<11>, KeepType<12>, KeepType<13>};

class Relay : public ManagedTest {
protected:
    Relay() {
        EXPECT_CALL(*m_client, SetCallbackFunction).Times(testing::AnyNumber());
        EXPECT_CALL(*m_client, UnsetCallbackFunction).Times(testing::AnyNumber());
    }
    void Set(int type, MavixManagedCallback callback = KeepPayload) {
        TCPIConnection_SetCallbackFunction(m_handle, type, callback);
    }
};

TEST_F(Relay, EachTypeHasItsTrampolineAndItsCallback) {
    for (int type = 0; type < relayedTypes; ++type) {
        EXPECT_CALL(*m_client, SetCallbackFunction(Type(type), trampolines[type]));
        Set(type, keepers[type]);
    }
    for (int type = 0; type < relayedTypes; ++type) {
        RelayedEvents().clear();
        trampolines[type](7, "a\0b", 3);
        EXPECT_THAT(RelayedEvents(), ElementsAre(Relayed{type * 1000 + 7, std::string("a\0b", 3)})) << type;
    }
}

TEST_F(Relay, TheTypesAboveTheElevenRegisterANullCallback) {
    for (const int type : {11, 12, 13}) {
        EXPECT_CALL(*m_client, SetCallbackFunction(Type(type), nullptr));
        Set(type);
    }
    EXPECT_THAT(RelayedEvents(), IsEmpty());
}

TEST_F(Relay, TypesThatDoNotExistReachTheClientAndTouchNoMemory) {
    for (const int type : {14, 15, 20, 1000000, 2147483647, -1, -2147483647 - 1}) {
        SCOPED_TRACE(type);
        EXPECT_CALL(*m_client, SetCallbackFunction(Type(type), nullptr));
        Set(type);
        EXPECT_CALL(*m_client, UnsetCallbackFunction(Type(type)));
        TCPIConnection_UnsetCallbackFunction(m_handle, type);
        m_platform.Reset();
        TCPIConnection_Callback(Type(type), 1, "a", 1);
        EXPECT_THAT(Lines(),
                    ElementsAre("3|CSharp_IPCConnection|TCPIConnection_Callback|called, type = " +
                                std::to_string(type) + " messageId = 1 g_csharpfunctioncb[] = (nil)\n"));
    }
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        TCPIConnection_Callback(Type(type), 1, "a", 1);
    }
    EXPECT_THAT(RelayedEvents(), IsEmpty());
}

TEST_F(Relay, SettingUnsettingAndDeliveryAreLogged) {
    const std::string callback = Pointer(reinterpret_cast<void*>(KeepPayload));
    const std::string prefix = "3|CSharp_IPCConnection|";
    Set(data);
    TCPIConnection_Callback(Type(data), -5, nullptr, 0);
    TCPIConnection_UnsetCallbackFunction(m_handle, data);
    EXPECT_THAT(Lines(), ElementsAre(prefix + "TCPIConnection_SetCallbackFunction|0x" + Pointer(m_handle) +
                                         " type = 2 CSharpCallbackFunction =" + callback + "\n",
                                     prefix +
                                         "TCPIConnection_Callback|called, type = 2 messageId = -5 "
                                         "g_csharpfunctioncb[] = " +
                                         callback + "\n",
                                     prefix + "TCPIConnection_UnsetCallbackFunction|0x" + Pointer(m_handle) +
                                         " type = 2\n"));
}

TEST_F(Relay, AnEventOfSizeZeroReachesTheCallbackWithAnEmptyBuffer) {
    Set(data);
    TCPIConnection_Callback_DATA(1, "abc", 0);
    TCPIConnection_Callback_DATA(2, nullptr, 3);
    TCPIConnection_Callback_DATA(3, nullptr, -3);
    EXPECT_THAT(RelayedEvents(), ElementsAre(Relayed{1, ""}, Relayed{2, ""}, Relayed{3, ""}));
}

TEST_F(Relay, ANegativeSizeWithBytesIsDroppedWithOneLine) {
    Set(data);
    TCPIConnection_Callback_DATA(1, "abc", -1);
    EXPECT_THAT(RelayedEvents(), IsEmpty());
    EXPECT_EQ(1U, m_platform.CountStarting(6, "[API_LITE] exception: "));
}

TEST_F(Relay, WithoutAManagedCallbackAnEventIsLoggedAndDropped) {
    TCPIConnection_Callback_DATA(1, "abc", 3);
    EXPECT_THAT(Lines(), ElementsAre("3|CSharp_IPCConnection|TCPIConnection_Callback|called, type = 2 "
                                     "messageId = 1 g_csharpfunctioncb[] = (nil)\n"));
}

TEST_F(Relay, AReplacedCallbackIsNeverCalledAgain) {
    Set(data, KeepType<1>);
    Set(data, KeepType<2>);
    TCPIConnection_Callback_DATA(1, nullptr, 0);
    EXPECT_THAT(RelayedEvents(), ElementsAre(Relayed{2001, ""}));
}

TEST_F(Relay, ANullCallbackTakesTheManagedOneAway) {
    Set(data);
    EXPECT_CALL(*m_client, SetCallbackFunction(Type(data), TCPIConnection_Callback_DATA));
    Set(data, nullptr);
    TCPIConnection_Callback_DATA(1, nullptr, 0);
    EXPECT_THAT(RelayedEvents(), IsEmpty());
}

TEST_F(Relay, UnsettingOneTypeLeavesTheOthers) {
    Set(data);
    Set(IPC_MESSAGE_HT);
    EXPECT_CALL(*m_client, UnsetCallbackFunction(Type(data)));
    TCPIConnection_UnsetCallbackFunction(m_handle, data);
    TCPIConnection_Callback_DATA(1, nullptr, 0);
    TCPIConnection_Callback_HT(2, nullptr, 0);
    EXPECT_THAT(RelayedEvents(), ElementsAre(Relayed{2, ""}));
}

TEST_F(Relay, ASecondCreateClearsTheCallbacksThatWereSetThroughTheFirst) {
    for (int type = 0; type < relayedTypes; ++type) {
        Set(type);
    }
    void* second = TCIPCConnection_Create("", "", false);
    for (const MavixEventCallback trampoline : trampolines) {
        trampoline(1, nullptr, 0);
    }
    EXPECT_THAT(RelayedEvents(), IsEmpty());
    EXPECT_EQ(11U, m_platform.CountStarting(3, "called, type = "));
    Set(data);
    TCPIConnection_Callback_DATA(1, nullptr, 0);
    EXPECT_THAT(RelayedEvents(), ElementsAre(Relayed{1, ""}));
    TCIPCConnection_Destroy(second);
}

// Nothing calls them for an event, but they are kept, cleared and called like the others.
TEST_F(Relay, TheTypesAboveTheElevenHaveCallbacksAllTheSame) {
    const std::pair<const char*, std::function<void()>> ends[] = {
        {"a second create", [] { TCIPCConnection_Destroy(TCIPCConnection_Create("", "", false)); }},
        {"unsetting", [this] {
             for (const int type : {11, 12, 13}) {
                 TCPIConnection_UnsetCallbackFunction(m_handle, type);
             }
         }}};
    for (const auto& [name, end] : ends) {
        SCOPED_TRACE(name);
        RelayedEvents().clear();
        for (const int type : {11, 12, 13}) {
            Set(type, keepers[type]);
            TCPIConnection_Callback(Type(type), 5, "a", 1);
        }
        EXPECT_THAT(RelayedEvents(),
                    ElementsAre(Relayed{11005, "a"}, Relayed{12005, "a"}, Relayed{13005, "a"}));
        RelayedEvents().clear();
        end();
        for (const int type : {11, 12, 13}) {
            TCPIConnection_Callback(Type(type), 5, "a", 1);
        }
        EXPECT_THAT(RelayedEvents(), IsEmpty());
    }
}

TEST_F(Relay, DestroyingTheHandleLeavesItsCallbacks) {
    void* second = TCIPCConnection_Create("", "", false);
    TCPIConnection_SetCallbackFunction(second, data, KeepPayload);
    TCIPCConnection_Destroy(second);
    TCPIConnection_Callback_DATA(1, nullptr, 0);
    EXPECT_THAT(RelayedEvents(), ElementsAre(Relayed{1, ""}));
}

TEST_F(Relay, WhatACallbackThrowsIsLoggedAndGoesNoFurther) {
    Set(data, [](int, MavixMessageBuffer*) { throw std::runtime_error("from managed code"); });
    TCPIConnection_Callback_DATA(1, nullptr, 0);
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE] exception: from managed code"));
}

TEST_F(Relay, TheBufferIsTheCallbacksOwnToChange) {
    Set(data, [](int id, MavixMessageBuffer* payload) {
        TCMessageBuffer_PushInt(payload, 1);
        RelayedEvents().push_back({id, std::to_string(TCMessageBuffer_PayloadSize(payload))});
    });
    TCPIConnection_Callback_DATA(1, "abc", 3);
    TCPIConnection_Callback_DATA(2, "abc", 3);
    EXPECT_THAT(RelayedEvents(), ElementsAre(Relayed{1, "7"}, Relayed{2, "7"}));
}

std::atomic<unsigned int> firstCalls{0};
std::atomic<unsigned int> secondCalls{0};

TEST_F(Relay, ChangingACallbackDuringDeliveryShowsTheOldOrTheNewOne) {
    firstCalls = secondCalls = 0;
    std::atomic<bool> done{false};
    Set(data, [](int, MavixMessageBuffer*) { ++firstCalls; });
    const unsigned int count = Scaled(20000);
    std::thread delivery([&] {
        for (unsigned int at = 0; at < count; ++at) {
            TCPIConnection_Callback_DATA(static_cast<int>(at), "abc", 3);
        }
        done = true;
    });
    while (!done) {
        Set(data, [](int, MavixMessageBuffer*) { ++secondCalls; });
        Set(data, [](int, MavixMessageBuffer*) { ++firstCalls; });
        m_platform.Reset();
    }
    delivery.join();
    EXPECT_EQ(count, firstCalls + secondCalls);
}

// The binding over the real client, whose events a test handles as the default context would.
class RelayFromClient : public ClientTest {
protected:
    RelayFromClient() {
        FakeRegistry::client = std::shared_ptr<TIIpcClient>(&Client(), [](TIIpcClient*) {});
        m_handle = TCIPCConnection_Create("", "", false);
        RelayedEvents().clear();
        Connection().ClearCalls();
        m_platform.Reset();
    }
    ~RelayFromClient() override {
        TCIPCConnection_Destroy(m_handle);
        FakeRegistry::client.reset();
    }

    void Emit(int type, int id, const std::string& payload = "@ay []") {
        const std::string further = type == 0 || type == 1 || type == 10 ? "'0', " : "";
        Handle(Signal(TestAccess::ConvertMsgTypeToString(Client(), Type(type)).c_str(),
                      "('" + std::to_string(id) + "', " + further + "'0', " + payload + ")"));
    }
    std::size_t CalledLines() const { return m_platform.CountStarting(3, "called, type = "); }

    void* m_handle = nullptr;
};

TEST_F(RelayFromClient, EventsOfTheElevenTypesArriveAndOfTheThreeOthersNever) {
    std::vector<Relayed> expected;
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        TCPIConnection_SetCallbackFunction(m_handle, type, keepers[type]);
        Emit(type, 5, "[byte 0x61, 0x00]");
        if (type < relayedTypes) {
            expected.push_back({type * 1000 + 5, std::string("a\0", 2)});
        }
    }
    EXPECT_EQ(expected, RelayedEvents());
    EXPECT_EQ(11U, CalledLines());
}

TEST_F(RelayFromClient, AnEventWithoutPayloadArrivesEmpty) {
    TCPIConnection_SetCallbackFunction(m_handle, data, KeepPayload);
    Emit(data, 1);
    EXPECT_THAT(RelayedEvents(), ElementsAre(Relayed{1, ""}));
}

// The client no longer calls: there is nothing to log.
TEST_F(RelayFromClient, AfterUnsettingAnEventDoesNotEvenReachTheTrampoline) {
    TCPIConnection_SetCallbackFunction(m_handle, data, KeepPayload);
    TCPIConnection_UnsetCallbackFunction(m_handle, data);
    Emit(data, 1);
    EXPECT_THAT(RelayedEvents(), IsEmpty());
    EXPECT_EQ(0U, CalledLines());
    TCPIConnection_Callback_DATA(2, nullptr, 0);
    EXPECT_THAT(RelayedEvents(), IsEmpty());
    EXPECT_EQ(1U, CalledLines());
}

// The client still calls, for only the managed callbacks are gone.
TEST_F(RelayFromClient, AfterASecondCreateAnEventIsLoggedAndDropped) {
    TCPIConnection_SetCallbackFunction(m_handle, data, KeepPayload);
    void* second = TCIPCConnection_Create("", "", false);
    Emit(data, 1);
    EXPECT_THAT(RelayedEvents(), IsEmpty());
    EXPECT_EQ(1U, m_platform.Count(3, "called, type = 2 messageId = 1 g_csharpfunctioncb[] = (nil)\n"));
    TCIPCConnection_Destroy(second);
}

TEST_F(RelayFromClient, ARuleWithANegativeSecondPartHasAllBitsOfTheHandle) {
    EXPECT_TRUE(TCIPCConnection_AddMatchRule(m_handle, data, 7, 0, -1));
    EXPECT_TRUE(TCIPCConnection_RemoveMatchRule(m_handle, data, 7, 1, 2));
    const std::string rule = "(path='/com/norvale/Mavix/SignalObject', type='signal', "
                             "interface='com.norvale.Mavix.SignalIFace', member='Data', arg0='7', arg1='";
    EXPECT_THAT(Connection().Calls(),
                ElementsAre("AddMatch" + rule + "4294967295')", "RemoveMatch" + rule + "65538')"));
}

TEST_F(RelayFromClient, AWaitForNullIsTrueWhereTheServiceIsNotSupportedAndThrowsElsewhere) {
    EXPECT_THROW(TCIPCConnection_WaitForCreateInterface(m_handle, nullptr), std::logic_error);
    m_platform.systemInfo = [](const char*, bool* value) {
        *value = false;
        return 0;
    };
    EXPECT_TRUE(TCIPCConnection_WaitForCreateInterface(m_handle, nullptr));
    TCMessageBuffer buffer;
    EXPECT_THROW(TCIPCConnection_CallAsync(m_handle, nullptr, 1, &buffer), std::logic_error);
}

// Arguments: "set" or "unset", the type.
MAVIX_CHILD(ManagedCallbackOfUnknownType) {
    FakedClient faked;
    FakeRegistry::client = std::shared_ptr<TIIpcClient>(&faked.Client(), [](TIIpcClient*) {});
    void* handle = TCIPCConnection_Create("", "", false);
    const int type = std::stoi(arguments.at(1));
    if (arguments.at(0) == "set") {
        TCPIConnection_SetCallbackFunction(handle, type, KeepPayload);
    } else {
        TCPIConnection_UnsetCallbackFunction(handle, type);
    }
    TCIPCConnection_Destroy(handle);
    FakeRegistry::client.reset();
    return 0;
}

using RelayFlavour = FlavourFixture;

TEST_F(RelayFlavour, AnUnknownTypeIsTheClientsAssertion) {
    const char* const source = "../../../src/ipc/IpcClient";
    for (const char* operation : {"set", "unset"}) {
        for (const char* type : {"14", "-1"}) {
            SCOPED_TRACE(testing::Message() << operation << ' ' << type);
            const ChildResult stopped =
                RunChildProgram("ManagedCallbackOfUnknownType", plainFlavour, {operation, type});
            EXPECT_EQ(SIGABRT, stopped.signal);
            EXPECT_TRUE(HasAssertion(stopped, source, "type < IPC_MESSAGE_MAX")) << stopped.errors;
            const ChildResult released =
                RunChildProgram("ManagedCallbackOfUnknownType", releaseFlavour, {operation, type});
            EXPECT_EQ(0, released.exitCode) << released.errors;
            EXPECT_TRUE(HasAssertion(released, source, "type < IPC_MESSAGE_MAX")) << released.errors;
        }
    }
}

} // namespace
