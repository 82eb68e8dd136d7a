#include "IPCConnection_C.h"

#include "FlatCallBuffers.h"

#include "FakeRegistry.h"
#include "FlavourFixture.h"
#include "MockClient.h"
#include "RecordingPlatform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <new>
#include <stdexcept>

// The flat functions over a client that is told what to do.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::_;
using testing::Field;
using testing::Return;
using testing::StrictMock;

namespace {

constexpr const char* interfaceName = "com.norvale.ITest";

void IgnoreEvent(int, const char*, int) {}

class CApi : public testing::Test {
protected:
    CApi() { FakeRegistry::client = m_client; }
    ~CApi() override {
        // A call holds its share no longer than it lasts.
        EXPECT_EQ(2, m_client.use_count());
        FakeRegistry::client.reset();
    }

    std::string Pointer(const void* pointer) {
        char text[32];
        std::snprintf(text, sizeof text, "%p", pointer);
        return text;
    }
    // The only line, an error of the flat functions.
    void ExpectError(const std::string& function, const std::string& arguments) {
        const std::vector<LogLine> lines = m_platform.Lines();
        ASSERT_EQ(1U, lines.size());
        EXPECT_EQ(6, lines[0].priority);
        EXPECT_EQ("MAVIX_API", lines[0].tag);
        EXPECT_EQ("IPCConnection_C", lines[0].source);
        EXPECT_EQ(function, lines[0].function);
        EXPECT_EQ("[API_LITE][" + function + "] Error: instance(" +
                      Pointer(static_cast<TIIpcClient*>(m_client.get())) + "), " + arguments,
                  lines[0].text);
    }

    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    std::shared_ptr<StrictMock<MockClient>> m_client = std::make_shared<StrictMock<MockClient>>();
    void* m_output = this;
    unsigned int m_length = 77;
};

TEST_F(CApi, CreateIsTrueWhenThereIsAClient) {
    EXPECT_TRUE(IPCConnection__Create());
}

TEST_F(CApi, DestroyLeavesTheClientAlone) {
    IPCConnection__Destroy();
    EXPECT_TRUE(IPCConnection__Create());
}

TEST_F(CApi, CallHandsBytesInAndOut) {
    for (const bool result : {true, false}) {
        EXPECT_CALL(*m_client, Call(interfaceName, -3, _, _))
            .WillOnce([&](const std::string&, short, TCMessageBuffer& input, TCMessageBuffer& output) {
                EXPECT_EQ(std::string("in\0put", 6), TextOf(input));
                EXPECT_EQ(0U, output.PayloadSize());
                output.PushConcatenated(7, "out\0put");
                return result;
            });
        EXPECT_EQ(result, IPCConnection__Call(interfaceName, -3, "in\0put", 6, &m_output, &m_length));
        ASSERT_NE(nullptr, m_output);
        EXPECT_EQ(std::string("out\0put", 7), std::string(static_cast<char*>(m_output), m_length));
        IPCConnection__CallDisposeOutputBuffer(m_output);
    }
}

void AppendText(TCMessageBuffer& output, const std::string& text) {
    TCFlatCallBuffers::Append(output, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

TEST_F(CApi, CallHandsOutEverythingThatTheClientAppendsInItsOrder) {
    const struct {
        const char* name;
        std::function<void(TCMessageBuffer&)> append;
        std::string expected;
    } rows[] = {
        {"once", [](TCMessageBuffer& output) { AppendText(output, "one"); }, "one"},
        {"twice",
         [](TCMessageBuffer& output) {
             AppendText(output, "one");
             AppendText(output, "two");
         },
         "onetwo"},
        {"three times",
         [](TCMessageBuffer& output) {
             AppendText(output, "one");
             AppendText(output, "two");
             AppendText(output, "three");
         },
         "onetwothree"},
        {"after a push",
         [](TCMessageBuffer& output) {
             output.PushChar('-');
             AppendText(output, "one");
         },
         "-one"},
        {"nothing", [](TCMessageBuffer& output) { AppendText(output, ""); }, ""},
        {"nothing and then something",
         [](TCMessageBuffer& output) {
             TCFlatCallBuffers::Append(output, nullptr, 3);
             AppendText(output, "one");
         },
         "one"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_CALL(*m_client, Call)
            .WillOnce([&row](const std::string&, short, TCMessageBuffer&, TCMessageBuffer& output) {
                row.append(output);
                return true;
            });
        EXPECT_TRUE(IPCConnection__Call(interfaceName, 0, "a", 1, &m_output, &m_length));
        EXPECT_EQ(row.expected.empty(), m_output == nullptr);
        EXPECT_EQ(row.expected, std::string(static_cast<char*>(m_output), m_length));
        IPCConnection__CallDisposeOutputBuffer(m_output);
    }
}

TEST_F(CApi, ACallWithinACallLeavesTheOuterOnesBuffersAlone) {
    EXPECT_CALL(*m_client, Call)
        .WillOnce([this](const std::string&, short, TCMessageBuffer& outerInput, TCMessageBuffer& outer) {
            AppendText(outer, "outer");
            EXPECT_CALL(*m_client, Call)
                .WillOnce([&](const std::string&, short, TCMessageBuffer&, TCMessageBuffer& inner) {
                    std::vector<char> taken;
                    EXPECT_FALSE(TCFlatCallBuffers::TakeInput(outerInput, taken));
                    AppendText(inner, "inner");
                    TCMessageBuffer ordinary;
                    AppendText(ordinary, "ordinary");
                    EXPECT_EQ("ordinary", TextOf(ordinary));
                    return true;
                });
            void* inner = nullptr;
            unsigned int length = 0;
            EXPECT_TRUE(IPCConnection__Call(interfaceName, 0, "b", 1, &inner, &length));
            EXPECT_EQ("inner", std::string(static_cast<char*>(inner), length));
            IPCConnection__CallDisposeOutputBuffer(inner);
            std::vector<char> taken;
            EXPECT_TRUE(TCFlatCallBuffers::TakeInput(outerInput, taken));
            EXPECT_EQ("a", std::string(taken.data(), taken.size()));
            return true;
        });
    EXPECT_TRUE(IPCConnection__Call(interfaceName, 0, "a", 1, &m_output, &m_length));
    EXPECT_EQ("outer", std::string(static_cast<char*>(m_output), m_length));
    IPCConnection__CallDisposeOutputBuffer(m_output);
}

TEST_F(CApi, CallWithoutPayloadInTheReplyGivesNullAndZero) {
    for (const bool result : {true, false}) {
        m_output = this;
        m_length = 77;
        EXPECT_CALL(*m_client, Call).WillOnce(Return(result));
        EXPECT_EQ(result, IPCConnection__Call(interfaceName, 0, "a", 1, &m_output, &m_length));
        EXPECT_EQ(nullptr, m_output);
        EXPECT_EQ(0U, m_length);
    }
}

TEST_F(CApi, CallWithNullArgumentsFailsAndTouchesNothing) {
    const struct {
        const char* interface;
        bool output;
        bool length;
    } rows[] = {{nullptr, true, true},
                {interfaceName, false, true},
                {interfaceName, true, false},
                {nullptr, false, false}};
    for (const auto& row : rows) {
        m_platform.Reset();
        void** output = row.output ? &m_output : nullptr;
        unsigned int* length = row.length ? &m_length : nullptr;
        EXPECT_FALSE(IPCConnection__Call(row.interface, 1, "a", 1, output, length));
        ExpectError("IPCConnection__Call", "interfaceName(" + Pointer(row.interface) + "), outputBuffer(" +
                                               Pointer(output) + "), outputBufferSize(" + Pointer(length) +
                                               ")");
        EXPECT_EQ(this, m_output);
        EXPECT_EQ(77U, m_length);
    }
}

TEST_F(CApi, ANegativeLengthWithDataFailsAndWithoutDataIsNoPayload) {
    EXPECT_FALSE(IPCConnection__Call(interfaceName, 0, "a", -1, &m_output, &m_length));
    EXPECT_EQ(nullptr, m_output);
    EXPECT_EQ(0U, m_length);
    EXPECT_FALSE(IPCConnection__CallAsync(interfaceName, 0, "a", -2147483647 - 1));
    EXPECT_EQ(2U, m_platform.CountStarting(6, "[API_LITE] exception: "));

    const auto hasNoInput = [](const std::string&, short, TCMessageBuffer& input, auto&...) {
        return input.PayloadSize() == 0;
    };
    EXPECT_CALL(*m_client, Call).Times(2).WillRepeatedly(hasNoInput);
    EXPECT_TRUE(IPCConnection__Call(interfaceName, 0, nullptr, -1, &m_output, &m_length));
    EXPECT_TRUE(IPCConnection__Call(interfaceName, 0, nullptr, 5, &m_output, &m_length));
    EXPECT_CALL(*m_client, CallAsync).WillOnce(hasNoInput);
    EXPECT_TRUE(IPCConnection__CallAsync(interfaceName, 0, "a", 0));
}

TEST_F(CApi, AnExceptionGivesTheFailureResult) {
    EXPECT_CALL(*m_client, Call)
        .WillOnce([](const std::string&, short, TCMessageBuffer&, TCMessageBuffer& output) {
            output.PushChar('x');
            throw std::runtime_error("lock");
            return true;
        });
    EXPECT_FALSE(IPCConnection__Call(interfaceName, 0, "a", 1, &m_output, &m_length));
    EXPECT_EQ(nullptr, m_output);
    EXPECT_EQ(0U, m_length);
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE] exception: lock"));

    EXPECT_CALL(*m_client, CallAsync).WillOnce(testing::Throw(std::bad_alloc()));
    EXPECT_FALSE(IPCConnection__CallAsync(interfaceName, 0, "a", 1));
    EXPECT_CALL(*m_client, AddMatchRule).WillOnce(testing::Throw(5));
    EXPECT_FALSE(IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, 1, 0, 0));
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE] exception of unknown type"));
    EXPECT_CALL(*m_client, RemoveMatchRule).WillOnce(testing::Throw(std::logic_error("null")));
    EXPECT_FALSE(IPCConnection__RemoveMatchRule(IPC_MESSAGE_DATA, 1, 0, 0));
    EXPECT_CALL(*m_client, UseBoostingInheritance).WillOnce(testing::Throw(std::logic_error("null")));
    EXPECT_FALSE(IPCConnection__UseBoostingInheritance(1));
    EXPECT_CALL(*m_client, SetCallbackFunction).WillOnce(testing::Throw(std::logic_error("null")));
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, IgnoreEvent);
    EXPECT_CALL(*m_client, UnsetCallbackFunction).WillOnce(testing::Throw(std::logic_error("null")));
    IPCConnection__UnsetCallbackFunction(IPC_MESSAGE_DATA);
    EXPECT_EQ(7U, m_platform.CountStarting(6, "[API_LITE] exception"));
}

TEST_F(CApi, DisposingNullIsIgnored) {
    IPCConnection__CallDisposeOutputBuffer(nullptr);
}

TEST_F(CApi, CallAsyncHandsTheBytesIn) {
    for (const bool result : {true, false}) {
        EXPECT_CALL(*m_client, CallAsync(interfaceName, 32767, _))
            .WillOnce([result](const std::string&, short, TCMessageBuffer& input) {
                EXPECT_EQ("abc", TextOf(input));
                return result;
            });
        EXPECT_EQ(result, IPCConnection__CallAsync(interfaceName, 32767, "abcdef", 3));
    }
}

TEST_F(CApi, CallAsyncWithoutAnInterfaceNameFails) {
    EXPECT_FALSE(IPCConnection__CallAsync(nullptr, 1, "a", 1));
    ExpectError("IPCConnection__CallAsync", "interfaceName((nil))");
}

TEST_F(CApi, WaitForCreateInterfaceIsTrueAtOnceAndAsksNobody) {
    EXPECT_TRUE(IPCConnection__WaitForCreateInterface(interfaceName));
    EXPECT_TRUE(IPCConnection__WaitForCreateInterface(""));
    EXPECT_TRUE(m_platform.Lines().empty());
}

TEST_F(CApi, WaitForCreateInterfaceOfNullFails) {
    EXPECT_FALSE(IPCConnection__WaitForCreateInterface(nullptr));
    ExpectError("IPCConnection__WaitForCreateInterface", "interfaceName((nil))");
}

TEST_F(CApi, MatchRulesGoOnWithWhateverType) {
    for (const int type : {0, 13, 14, 20, -1}) {
        for (const bool result : {true, false}) {
            const auto messageType = static_cast<EIPCMessageType>(type);
            const auto handle = testing::AllOf(Field(&MAVIXHandle::high, 1U), Field(&MAVIXHandle::low, ~0U));
            EXPECT_CALL(*m_client, AddMatchRule(messageType, -7, handle)).WillOnce(Return(result));
            EXPECT_EQ(result, IPCConnection__AddMatchRule(messageType, -7, 1, ~0U));
            EXPECT_CALL(*m_client, RemoveMatchRule(messageType, -7, handle)).WillOnce(Return(result));
            EXPECT_EQ(result, IPCConnection__RemoveMatchRule(messageType, -7, 1, ~0U));
        }
    }
}

TEST_F(CApi, CallbacksOfKnownTypesGoOn) {
    for (const EIPCMessageType type : {IPC_MESSAGE_SIGNAL, IPC_MESSAGE_ATSC3_LINKAGE}) {
        EXPECT_CALL(*m_client, SetCallbackFunction(type, IgnoreEvent));
        IPCConnection__SetCallbackFunction(type, IgnoreEvent);
        EXPECT_CALL(*m_client, UnsetCallbackFunction(type));
        IPCConnection__UnsetCallbackFunction(type);
    }
}

TEST_F(CApi, CallbacksOfUnknownTypesAreRefused) {
    for (const int type : {14, -1, 20, -2147483647 - 1}) {
        m_platform.Reset();
        IPCConnection__SetCallbackFunction(static_cast<EIPCMessageType>(type), IgnoreEvent);
        ExpectError("IPCConnection__SetCallbackFunction", "functionCB(" +
                                                              Pointer(reinterpret_cast<void*>(IgnoreEvent)) +
                                                              "), type(" + std::to_string(type) + ")");
        m_platform.Reset();
        IPCConnection__UnsetCallbackFunction(static_cast<EIPCMessageType>(type));
        ExpectError("IPCConnection__UnsetCallbackFunction", "type(" + std::to_string(type) + ")");
    }
}

TEST_F(CApi, ANullCallbackIsRefused) {
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, nullptr);
    ExpectError("IPCConnection__SetCallbackFunction", "functionCB((nil)), type(2)");
}

TEST_F(CApi, OnlyTheLowByteSwitchesTheInheritance) {
    const std::pair<int, bool> rows[] = {
        {0, false}, {1, true},     {2, true},      {255, true},         {256, false},      {257, true},
        {-1, true}, {-256, false}, {0x100, false}, {0x7FFFFF00, false}, {0x7FFFFFFF, true}};
    for (const auto& [enable, expected] : rows) {
        EXPECT_CALL(*m_client, UseBoostingInheritance(expected)).WillOnce(Return(true));
        EXPECT_TRUE(IPCConnection__UseBoostingInheritance(enable)) << enable;
    }
}

// Argument: whether the registry says that it is gone for good.
MAVIX_CHILD(EmptyRegistry) {
    FakeRegistry::isGone = arguments.at(0) == "gone";
    void* output = &output;
    unsigned int length = 7;
    const bool failed =
        !IPCConnection__Create() && !IPCConnection__Call(interfaceName, 0, "a", 1, &output, &length) &&
        output == nullptr && length == 0 && !IPCConnection__CallAsync(interfaceName, 0, "a", 1) &&
        !IPCConnection__WaitForCreateInterface(interfaceName) &&
        !IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, 1, 0, 0) &&
        !IPCConnection__RemoveMatchRule(IPC_MESSAGE_DATA, 1, 0, 0) &&
        !IPCConnection__UseBoostingInheritance(1);
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, IgnoreEvent);
    IPCConnection__UnsetCallbackFunction(IPC_MESSAGE_DATA);
    return failed ? 0 : 1;
}

constexpr const char* source = "../../../src/ipc/IPCConnection_C";

using CApiFlavour = FlavourFixture;

TEST_F(CApiFlavour, AnEmptyRegistryStopsTheProcess) {
    const ChildResult result = RunChildProgram("EmptyRegistry", plainFlavour, {"empty"});
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_TRUE(HasAssertion(result, source, "instance")) << result.errors;
}

TEST_F(CApiFlavour, AnEmptyRegistryFailsEveryFunctionOnARelease) {
    const ChildResult result = RunChildProgram("EmptyRegistry", releaseFlavour, {"empty"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ(9U, CountAssertions(result, source, "instance")) << result.errors;
    EXPECT_EQ("", result.output);
}

TEST_F(CApiFlavour, ARegistryThatIsGoneFailsEveryFunctionWithoutAnAssertion) {
    const ChildResult result = RunChildProgram("EmptyRegistry", plainFlavour, {"gone"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("", result.errors);
}

} // namespace
