#include "ManagedFixture.h"

#include <csignal>
#include <new>
#include <stdexcept>
#include <thread>

// Handles, calls and match rules of the managed binding over a client that is told what to do.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::_;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* interfaceName = "com.norvale.ITest";

class Managed : public ManagedTest {
protected:
    TCMessageBuffer m_in;
    TCMessageBuffer m_out;
};

TEST_F(Managed, CreateWritesItsTextsAndItsFlagToTheLogWithALineFeed) {
    const struct {
        const char* first;
        const char* second;
        bool flag;
        const char* text;
    } rows[] = {
        {"one", "two", true, "one two 1\n"},
        {"", "", false, "  0\n"},
        {nullptr, nullptr, false, "(null) (null) 0\n"},
        {"%s", "%n", true, "%s %n 1\n"},
    };
    for (const auto& row : rows) {
        m_platform.Reset();
        void* handle = TCIPCConnection_Create(row.first, row.second, row.flag);
        EXPECT_NE(nullptr, handle);
        EXPECT_THAT(Lines(),
                    ElementsAre(std::string("4|CSharp_IPCConnection|TCIPCConnection_Create|") + row.text));
        TCIPCConnection_Destroy(handle);
    }
}

TEST_F(Managed, TwoHandlesShareTheOneClientAndEndByThemselves) {
    void* first = TCIPCConnection_Create("", "", false);
    void* second = TCIPCConnection_Create("", "", false);
    EXPECT_NE(first, second);
    // The test, the registry, the fixture's handle and these two.
    EXPECT_EQ(5, m_client.use_count());
    EXPECT_CALL(*m_client, CallAsync("com.norvale.ITest", 1, _)).Times(2).WillRepeatedly(Return(true));
    EXPECT_TRUE(TCIPCConnection_CallAsync(first, interfaceName, 1, &m_in));
    TCIPCConnection_Destroy(first);
    EXPECT_EQ(4, m_client.use_count());
    EXPECT_TRUE(TCIPCConnection_CallAsync(second, interfaceName, 1, &m_in));
    TCIPCConnection_Destroy(second);
    EXPECT_EQ(3, m_client.use_count());
}

TEST_F(Managed, DestroyWritesTheHandleWithTwoPrefixes) {
    void* handle = TCIPCConnection_Create("", "", false);
    m_platform.Reset();
    const std::string address = Pointer(handle);
    TCIPCConnection_Destroy(handle);
    TCIPCConnection_Destroy(nullptr);
    EXPECT_EQ("0x", address.substr(0, 2));
    EXPECT_THAT(Lines(), ElementsAre("4|CSharp_IPCConnection|TCIPCConnection_Destroy|0x" + address + "\n",
                                     "4|CSharp_IPCConnection|TCIPCConnection_Destroy|0x(nil)\n"));
}

TEST_F(Managed, AHandleKeepsTheClientThatTheRegistryHasLeft) {
    FakeRegistry::client.reset();
    EXPECT_EQ(2, m_client.use_count());
    EXPECT_CALL(*m_client, CallAsync).WillOnce(Return(true));
    EXPECT_TRUE(TCIPCConnection_CallAsync(m_handle, interfaceName, 1, &m_in));
}

TEST_F(Managed, CallHandsTheBuffersOnAndItsResultBack) {
    for (const bool result : {true, false}) {
        EXPECT_CALL(*m_client, Call(interfaceName, -3, testing::Ref(m_in), testing::Ref(m_out)))
            .WillOnce(Return(result));
        EXPECT_EQ(result, TCIPCConnection_Call(m_handle, interfaceName, -3, &m_in, &m_out));
    }
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(Managed, CallAsyncHandsTheBufferOnAndItsResultBack) {
    for (const bool result : {true, false}) {
        EXPECT_CALL(*m_client, CallAsync(interfaceName, 32767, testing::Ref(m_in))).WillOnce(Return(result));
        EXPECT_EQ(result, TCIPCConnection_CallAsync(m_handle, interfaceName, 32767, &m_in));
    }
    EXPECT_THAT(Lines(), IsEmpty());
}

// Unlike the wait of the connection API, this one waits.
TEST_F(Managed, WaitForCreateInterfaceAsksTheClient) {
    for (const bool result : {true, false}) {
        EXPECT_CALL(*m_client, WaitForCreateInterface(testing::StrEq(interfaceName)))
            .WillOnce(Return(result));
        EXPECT_EQ(result, TCIPCConnection_WaitForCreateInterface(m_handle, interfaceName));
    }
    EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(Managed, ANullInterfaceNameThrowsALogicError) {
    EXPECT_THROW(TCIPCConnection_Call(m_handle, nullptr, 1, &m_in, &m_out), std::logic_error);
    EXPECT_THROW(TCIPCConnection_CallAsync(m_handle, nullptr, 1, &m_in), std::logic_error);
    EXPECT_CALL(*m_client, WaitForCreateInterface(nullptr))
        .WillOnce(testing::Throw(std::logic_error("null")));
    EXPECT_THROW(TCIPCConnection_WaitForCreateInterface(m_handle, nullptr), std::logic_error);
    EXPECT_EQ(3, m_client.use_count());
}

TEST_F(Managed, AWaitThatDoesNotLookAtTheNameIsTrueForNull) {
    EXPECT_CALL(*m_client, WaitForCreateInterface(nullptr)).WillOnce(Return(true));
    EXPECT_TRUE(TCIPCConnection_WaitForCreateInterface(m_handle, nullptr));
}

TEST_F(Managed, OtherExceptionsGiveTheFailureResultAndOneLine) {
    EXPECT_CALL(*m_client, Call).WillOnce(testing::Throw(std::logic_error("inside")));
    EXPECT_FALSE(TCIPCConnection_Call(m_handle, interfaceName, 1, &m_in, &m_out));
    EXPECT_CALL(*m_client, CallAsync).WillOnce(testing::Throw(std::bad_alloc()));
    EXPECT_FALSE(TCIPCConnection_CallAsync(m_handle, interfaceName, 1, &m_in));
    EXPECT_CALL(*m_client, WaitForCreateInterface).WillOnce(testing::Throw(std::logic_error("inside")));
    EXPECT_FALSE(TCIPCConnection_WaitForCreateInterface(m_handle, interfaceName));
    EXPECT_CALL(*m_client, AddMatchRule).WillOnce(testing::Throw(5));
    EXPECT_FALSE(TCIPCConnection_AddMatchRule(m_handle, 2, 1, 0, 0));
    EXPECT_CALL(*m_client, RemoveMatchRule).WillOnce(testing::Throw(std::runtime_error("lock")));
    EXPECT_FALSE(TCIPCConnection_RemoveMatchRule(m_handle, 2, 1, 0, 0));
    EXPECT_CALL(*m_client, SetCallbackFunction).WillOnce(testing::Throw(std::runtime_error("lock")));
    TCPIConnection_SetCallbackFunction(m_handle, 2, KeepPayload);
    EXPECT_CALL(*m_client, UnsetCallbackFunction).WillOnce(testing::Throw(std::runtime_error("lock")));
    TCPIConnection_UnsetCallbackFunction(m_handle, 2);
    EXPECT_EQ(7U, m_platform.CountStarting(6, "[API_LITE] exception"));
}

TEST_F(Managed, ARegistryThatThrowsGivesNoHandle) {
    FakeRegistry::fails = true;
    EXPECT_EQ(nullptr, TCIPCConnection_Create("", "", false));
    EXPECT_EQ(1U, m_platform.CountStarting(6, "[API_LITE] exception: "));
}

TEST_F(Managed, MatchRulesGoOnWithTheSignOfTheSecondPartInTheFirst) {
    const struct {
        int first;
        short second;
        std::uint32_t high;
        std::uint32_t low;
    } rows[] = {
        {0, 0, 0, 0},
        {1, 2, 1, 2},
        {0, -1, 0, 0xFFFFFFFF},
        {-1, 1, 0xFFFFFFFF, 1},
        {-2147483647 - 1, -32768, 0x80000000, 0xFFFF8000},
        {2147483647, 32767, 0x7FFFFFFF, 0x7FFF},
    };
    for (const int type : {0, 13, 14, 20, -1}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(testing::Message() << type << ' ' << row.first << ' ' << row.second);
            const auto messageType = static_cast<EIPCMessageType>(type);
            const auto handle = AllOf(Field(&MAVIXHandle::high, row.high), Field(&MAVIXHandle::low, row.low));
            for (const bool result : {true, false}) {
                EXPECT_CALL(*m_client, AddMatchRule(messageType, -7, handle)).WillOnce(Return(result));
                EXPECT_EQ(result, TCIPCConnection_AddMatchRule(m_handle, type, -7, row.first, row.second));
                EXPECT_CALL(*m_client, RemoveMatchRule(messageType, -7, handle)).WillOnce(Return(result));
                EXPECT_EQ(result, TCIPCConnection_RemoveMatchRule(m_handle, type, -7, row.first, row.second));
            }
        }
    }
}

TEST_F(Managed, RemovingAMatchRuleIsLoggedAndAddingOneIsNot) {
    EXPECT_CALL(*m_client, AddMatchRule).WillOnce(Return(true));
    EXPECT_CALL(*m_client, RemoveMatchRule).WillOnce(Return(true));
    TCIPCConnection_AddMatchRule(m_handle, 2, 7, 0, 0);
    EXPECT_THAT(Lines(), IsEmpty());
    TCIPCConnection_RemoveMatchRule(m_handle, 2, 7, 0, 0);
    EXPECT_THAT(Lines(), ElementsAre("3|CSharp_IPCConnection|TCIPCConnection_RemoveMatchRule|0x" +
                                     Pointer(m_handle) + " type = 2, messageId = 7\n"));
}

TEST_F(Managed, ACallHoldsTheClientThoughItsHandleIsDestroyedMeanwhile) {
    void* handle = TCIPCConnection_Create("", "", false);
    EXPECT_CALL(*m_client, Call).WillOnce([&] {
        // The test, the registry, two handles and the call.
        EXPECT_EQ(5, m_client.use_count());
        std::thread([handle] { TCIPCConnection_Destroy(handle); }).join();
        EXPECT_EQ(4, m_client.use_count());
        return true;
    });
    EXPECT_TRUE(TCIPCConnection_Call(handle, interfaceName, 1, &m_in, &m_out));
    EXPECT_EQ(3, m_client.use_count());
}

TEST_F(Managed, FreeMemoryOfNullDoesNothing) {
    TCFreeMemory(nullptr);
}

TEST_F(Managed, FreeMemoryReleasesWhatTheCAllocatorGave) {
    TCFreeMemory(std::malloc(100));
}

TEST_F(Managed, AHandleFromBeforeAForkFailsInTheChildAndSaysSoOnce) {
    FakeRegistry::isForkedChild = true;
    EXPECT_FALSE(TCIPCConnection_Call(m_handle, interfaceName, 1, &m_in, &m_out));
    EXPECT_FALSE(TCIPCConnection_CallAsync(m_handle, interfaceName, 1, &m_in));
    EXPECT_FALSE(TCIPCConnection_WaitForCreateInterface(m_handle, interfaceName));
    EXPECT_FALSE(TCIPCConnection_AddMatchRule(m_handle, 2, 1, 0, 0));
    EXPECT_FALSE(TCIPCConnection_RemoveMatchRule(m_handle, 2, 1, 0, 0));
    TCPIConnection_SetCallbackFunction(m_handle, 2, KeepPayload);
    TCPIConnection_UnsetCallbackFunction(m_handle, 2);
    EXPECT_EQ(7U, m_platform.Count(
                      6, "[API_LITE] no client: this process was forked after the client was created"));
}

TEST_F(Managed, ARegistryThatIsGoneGivesNoHandleAndOldOnesGoOn) {
    FakeRegistry::isGone = true;
    FakeRegistry::client.reset();
    EXPECT_EQ(nullptr, TCIPCConnection_Create("", "", false));
    EXPECT_CALL(*m_client, CallAsync).WillOnce(Return(true));
    EXPECT_TRUE(TCIPCConnection_CallAsync(m_handle, interfaceName, 1, &m_in));
}

MAVIX_CHILD(CreateManagedWithEmptyRegistry) {
    return TCIPCConnection_Create("", "", false) == nullptr ? 0 : 1;
}

constexpr const char* source = "../../../src/ipc/CSharp_IPCConnection";

using ManagedFlavour = FlavourFixture;

TEST_F(ManagedFlavour, AnEmptyRegistryStopsTheProcess) {
    const ChildResult result = RunChildProgram("CreateManagedWithEmptyRegistry", plainFlavour);
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_TRUE(HasAssertion(result, source, "instance")) << result.errors;
}

TEST_F(ManagedFlavour, AnEmptyRegistryGivesNoHandleOnARelease) {
    const ChildResult result = RunChildProgram("CreateManagedWithEmptyRegistry", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_TRUE(HasAssertion(result, source, "instance")) << result.errors;
}

} // namespace
