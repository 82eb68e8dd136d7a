#include "ClientFixture.h"

#include "FlatCallBuffers.h"
#include "FlavourFixture.h"
#include "LiteUtility.h"

#include <cerrno>
#include <optional>

// What Call and CallAsync hand to the connection, and what they say when that fails.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* wellFormed = "(byte 1, 0, @ay [])";
constexpr const char* prepareFailed = "IpcClient|[API_LITE] m_PrepareCall failed.";

class CallRequest : public ClientTest {
protected:
    CallRequest() {
        AnswerWith(wellFormed);
        Connection().ClearCalls();
    }
};

TEST_F(CallRequest, GoesToTheBusOfTheInterfaceAndFunction) {
    const struct {
        const char* interface;
        short code;
        const char* busName;
    } rows[] = {
        {"com.norvale.ITest", 0, "com.norvale.MavixAPI"},
        {"com.norvale.IAVControl", 8, "com.norvale.MavixAPI.Pipeline"},
        {"com.norvale.IAVControl", 7, "com.norvale.MavixAPI"},
        {"com.norvale.IAVControl", 66, "com.norvale.MavixAPI.HyperFast"},
        {"com.norvale.IService", 0, "com.norvale.MavixAPI.ServiceDb"},
        {"com.norvale.ISessionControl", 3, "com.norvale.ISessionControl"},
        {"com.norvale.IAVControl", -8, "com.norvale.MavixAPI"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.interface << ' ' << row.code);
        ASSERT_TRUE(Call(row.interface, row.code));
        const Request& request = Requests().back();
        EXPECT_EQ(row.busName, request.destination);
        EXPECT_EQ("/com/norvale/Object", request.path);
        EXPECT_EQ(row.interface, request.interface);
        EXPECT_EQ("MethodCall", request.member);
    }
}

TEST_F(CallRequest, IsSentWithTheBusLibrarysOwnTimeLimit) {
    ASSERT_TRUE(Call());
    EXPECT_THAT(Connection().Calls(),
                ElementsAre("BusHasOwner(com.norvale.MavixAPI, 250)",
                            "AddMatch(path='/org/freedesktop/DBus', type='signal', "
                            "interface='org.freedesktop.DBus', member='NameOwnerChanged', "
                            "arg0='com.norvale.MavixAPI')",
                            "SendWithReply(-1)"));
    Connection().ClearCalls();
    ASSERT_TRUE(Call());
    EXPECT_THAT(Connection().Calls(), ElementsAre("SendWithReply(-1)"));
}

TEST_F(CallRequest, EveryCallLeavesAnInfoLine) {
    Call("com.norvale.ITest", 17);
    CallAsync("com.norvale.ISessionControl", -1);
    EXPECT_THAT(LogFrom(4), ElementsAre("4|IpcClient|[IPC][CALL] 17 0 com.norvale.ITest",
                                        "4|IpcClient|[IPC][CALL] -1 1 com.norvale.ISessionControl"));
}

TEST_F(CallRequest, TheFirstCallOfABusCarriesTheProgramName) {
    ASSERT_TRUE(Call());
    ASSERT_TRUE(Call());
    ASSERT_TRUE(CallAsync());
    ASSERT_TRUE(CallAsync("com.norvale.ISessionControl"));
    ASSERT_TRUE(Call("com.norvale.ISessionControl"));
    ASSERT_EQ(5U, Requests().size());
    EXPECT_EQ(0x00020000U, Requests()[0].header);
    EXPECT_EQ(program_invocation_short_name, Requests()[0].programName);
    EXPECT_EQ(0x00000000U, Requests()[1].header);
    EXPECT_EQ(0x00010000U, Requests()[2].header);
    EXPECT_EQ(0x00030000U, Requests()[3].header);
    EXPECT_EQ(program_invocation_short_name, Requests()[3].programName);
    EXPECT_EQ(0x00000000U, Requests()[4].header);
    EXPECT_FALSE(Requests()[4].programName);
}

TEST_F(CallRequest, AnAsynchronousCallWantsNoReply) {
    ASSERT_TRUE(CallAsync("com.norvale.ITest", 5, {1, 2}));
    EXPECT_EQ("Send", Connection().Calls().back());
    const Request& request = Requests().back();
    EXPECT_TRUE(request.noReply);
    EXPECT_EQ(0x00030005U, request.header);
    EXPECT_EQ((Bytes{1, 2}), request.payload);
    ASSERT_TRUE(Call());
    EXPECT_FALSE(Requests().back().noReply);
}

// Only a flat function's own buffers are given to messages and arrays, and only by its own call.
TEST_F(CallRequest, LeavesTheBuffersOfOtherCallersToThem) {
    AnswerWith("(byte 1, 0, [byte 0x78])");
    const auto textOf = [](const TCMessageBuffer& buffer) {
        const char* data = buffer.GetAsCStr(0);
        return data != nullptr ? std::string(data, buffer.PayloadSize()) : "";
    };
    for (const bool isWithinAFlatCall : {false, true}) {
        SCOPED_TRACE(isWithinAFlatCall);
        std::optional<TCFlatCallBuffers> flat;
        if (isWithinAFlatCall) {
            flat.emplace().Input().PushConcatenated(4, "flat");
        }
        TCMessageBuffer input;
        TCMessageBuffer output;
        input.PushConcatenated(3, "abc");
        ASSERT_TRUE(Client().Call("com.norvale.ITest", 0, input, output));
        EXPECT_EQ((Bytes{'a', 'b', 'c'}), Requests().back().payload);
        ASSERT_TRUE(Client().CallAsync("com.norvale.ITest", 0, input));
        EXPECT_EQ((Bytes{'a', 'b', 'c'}), Requests().back().payload);
        EXPECT_EQ("abc", textOf(input));
        EXPECT_EQ("x", textOf(output));
        if (isWithinAFlatCall) {
            EXPECT_EQ("flat", textOf(flat->Input()));
            std::size_t size = 0;
            EXPECT_EQ(nullptr, flat->ReleaseResult(size));
        }
    }
}

TEST_F(CallRequest, FiveFunctionsCarryTheTimeOfSending) {
    const struct {
        const char* interface;
        short code;
        bool timestamp;
    } rows[] = {
        {"com.norvale.IAVControl", 66, true},    {"com.norvale.IAVControl", 73, true},
        {"com.norvale.IVideoControl", 46, true}, {"com.norvale.IVideoControl", 60, true},
        {"com.norvale.IVideoControl", 81, true}, {"com.norvale.IAVControl", 67, false},
        {"com.norvale.IAVControl", 46, false},   {"com.norvale.IVideoControl", 66, false},
        {"com.norvale.ITest", 66, false},
    };
    for (const auto& row : rows) {
        for (const bool async : {false, true}) {
            SCOPED_TRACE(testing::Message() << row.interface << ' ' << row.code << " async " << async);
            const auto before = LiteUtility::TimestampInMiliseconds(LiteUtility::GetTimestamp());
            ASSERT_TRUE(async ? CallAsync(row.interface, row.code) : Call(row.interface, row.code));
            const Request& request = Requests().back();
            EXPECT_EQ(row.timestamp, (request.header & 0x00040000U) != 0);
            EXPECT_EQ(row.timestamp, request.aux.has_value());
            if (row.timestamp && request.aux) {
                EXPECT_EQ(TimestampRecord(4, TimestampOf(*request.aux)), *request.aux);
                EXPECT_GE(TimestampOf(*request.aux), before);
                EXPECT_LE(TimestampOf(*request.aux),
                          LiteUtility::TimestampInMiliseconds(LiteUtility::GetTimestamp()));
            }
        }
    }
}

TEST_F(CallRequest, OfOneByteTooMuchLeavesTheBusAlone) {
    ASSERT_TRUE(Call());
    Connection().ClearCalls();
    const Bytes input(16777217);
    const char* refused = "IpcClient|[API_LITE] Message exceeds allowed limit for message size "
                          "(size: 16777217, limit: 16777216)";
    EXPECT_FALSE(Call("com.norvale.ITest", 0, input));
    EXPECT_FALSE(CallAsync("com.norvale.ITest", 0, input));
    EXPECT_THAT(Connection().Calls(), IsEmpty());
    EXPECT_THAT(Errors(), ElementsAre(refused, prepareFailed, refused, prepareFailed));
}

TEST_F(CallRequest, ARefusedFirstCallUsesUpTheGreeting) {
    EXPECT_FALSE(Call("com.norvale.ITest", 0, Bytes(16777217)));
    EXPECT_THAT(Requests(), IsEmpty());
    ASSERT_TRUE(Call());
    EXPECT_FALSE(Requests().back().programName);
}

TEST_F(CallRequest, OfTheLargestPayloadIsSent) {
    Connection().onSendWithReply = [](TIIpcMessage& message) {
        EXPECT_EQ(16777216U, TakeApart(message).payload.value_or(Bytes()).size());
        Adopt(message, Reply(wellFormed));
        return true;
    };
    EXPECT_TRUE(Call("com.norvale.ITest", 0, Bytes(16777216)));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(CallRequest, AnInterfaceNameThatDBusDoesNotAllowFails) {
    for (const char* name : {"", "foo bar", "nodots", "a..b", ".a.b", "a.b.", "a.1b", "com.norvale.I\xff",
                             "com.norvale.\xc3\xa4", "com/norvale", "com.norvale.ITest\n"}) {
        for (const bool async : {false, true}) {
            SCOPED_TRACE(testing::Message() << '"' << name << "\" async " << async);
            m_platform.Reset();
            EXPECT_FALSE(async ? CallAsync(name) : Call(name));
            EXPECT_THAT(Errors(), ElementsAre("GdbusMessage|No message initialized",
                                              "IpcClient|[API_LITE] Cannot create call message. Out of "
                                              "memory.",
                                              prepareFailed));
        }
    }
    EXPECT_THAT(Requests(), IsEmpty());
}

TEST_F(CallRequest, AnInterfaceNameOf255CharactersPassesAndALongerOneFails) {
    const std::string longest = "a." + std::string(253, 'b');
    EXPECT_TRUE(Call(longest));
    EXPECT_EQ(longest, Requests().back().interface);
    EXPECT_FALSE(Call(longest + "b"));
}

TEST_F(CallRequest, WithoutANewMessageItFails) {
    Connection().onNewMessage = [](void*) { return nullptr; };
    EXPECT_FALSE(Call());
    EXPECT_FALSE(CallAsync());
    EXPECT_THAT(LogFrom(0), ElementsAre("6|IpcClient|[API_LITE] new message failed.",
                                        "6|IpcClient|[API_LITE] new message failed."));
    EXPECT_THAT(Connection().Calls(), IsEmpty());
}

TEST_F(CallRequest, AFailedSendFails) {
    Connection().onSendWithReply = nullptr;
    Connection().onSend = [](TIIpcMessage&) { return false; };
    Bytes output{9};
    EXPECT_FALSE(Call("com.norvale.ITest", 3, {}, output));
    EXPECT_EQ(Bytes{9}, output);
    EXPECT_FALSE(CallAsync("com.norvale.ITest", -7));
    EXPECT_THAT(
        Errors(),
        ElementsAre("IpcClient|[API_LITE] Cannot create reply message. Out of memory.",
                    "IpcClient|[API_LITE] Cannot send call message. Out of memory. functionCode[-7]"));
}

TEST_F(CallRequest, NeverFinishesItsMessageTwice) {
    ASSERT_TRUE(Call("com.norvale.ITest", 1, {1}));
    ASSERT_TRUE(CallAsync("com.norvale.ITest", 1, {1}));
    EXPECT_EQ(0U, m_platform.Count("Pushing not started!"));
}

MAVIX_CHILD(CallWithoutAllocator) {
    FakedClient faked;
    faked.Connection().hasAllocator = false;
    const bool result = arguments.at(0) == "async" ? faked.CallAsync() : faked.Call();
    return !result && faked.Requests().empty() ? 0 : 1;
}

using CallFlavour = FlavourFixture;

TEST_F(CallFlavour, WithoutAnAllocatorTheProcessStops) {
    for (const char* kind : {"sync", "async"}) {
        SCOPED_TRACE(kind);
        const ChildResult result = RunChildProgram("CallWithoutAllocator", plainFlavour, {kind});
        EXPECT_EQ(SIGABRT, result.signal);
        EXPECT_TRUE(HasAssertion(result, "../../../src/ipc/IpcClient", "messageAllocator")) << result.errors;
    }
}

TEST_F(CallFlavour, WithoutAnAllocatorItFailsOnARelease) {
    const std::pair<const char*, const char*> kinds[] = {{"sync", "Call"}, {"async", "CallAsync"}};
    for (const auto& [kind, function] : kinds) {
        SCOPED_TRACE(kind);
        const ChildResult result = RunChildProgram("CallWithoutAllocator", releaseFlavour, {kind});
        EXPECT_EQ(0, result.exitCode) << result.errors;
        EXPECT_TRUE(HasAssertion(result, "../../../src/ipc/IpcClient", "messageAllocator")) << result.errors;
        EXPECT_TRUE(HasAssertLine(result, function)) << result.output;
    }
}

} // namespace
