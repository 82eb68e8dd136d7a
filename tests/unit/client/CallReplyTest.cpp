#include "ClientFixture.h"

// What Call makes of each kind of reply.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

class CallReply : public ClientTest {};

const std::string noByte = "IpcClient|[API_LITE] Expected DBUS_TYPE_BYTE.";
const std::string noParameter = "IpcClient|Expected parameter";
const std::string noArray = "IpcClient|[API_LITE] Expected bytes array";
const std::string noMore = "GdbusMessage|No more params";
const std::string notAnArray = "GdbusMessage|Expected array!";

std::string Broken(int value) {
    return "IpcClient|[API_LITE] Reply message is broken. Reply value: " + std::to_string(value);
}

// An auxiliary block with both timestamps, as an argument pair.
std::string Aux() {
    Bytes block = TimestampRecord(2, 20);
    const Bytes sent = TimestampRecord(4, 40);
    block.insert(block.end(), sent.begin(), sent.end());
    return ", 32, " + BytesText(block);
}

struct ReplyRow {
    std::string body;
    bool result;
    Bytes output;
    std::vector<std::string> errors;
};

class CallReplyTable : public CallReply {
protected:
    void ExpectResults(const std::vector<ReplyRow>& rows) {
        for (const ReplyRow& row : rows) {
            SCOPED_TRACE(row.body.empty() ? "no body" : row.body);
            m_platform.Reset();
            AnswerWith(row.body);
            Bytes output;
            EXPECT_EQ(row.result, Call("com.norvale.ITest", 1, {}, output));
            EXPECT_EQ(row.output, output);
            EXPECT_THAT(Errors(), ElementsAreArray(row.errors));
        }
    }
};

TEST_F(CallReplyTable, GoodOnesSucceedWhateverTheSkippedArgumentsAre) {
    ExpectResults({{"(byte 1, 3, [byte 1, 2, 3])", true, {1, 2, 3}, {}},
                   {"(byte 1, 0, @ay [])", true, {}, {}},
                   {"(byte 1, 3, [byte 9], 'more', 5)", true, {9}, {}},
                   {"(byte 0xF9, 1, [byte 9])", true, {9}, {}},
                   {"(byte 1, 1003, [byte 1, 2, 3])", true, {1, 2, 3}, {}},
                   {"(byte 1, 'a length', [byte 7])", true, {7}, {}},
                   {"(byte 1, @ay [], [byte 7])", true, {7}, {}},
                   {"(byte 1, 8, [1, 2])", true, {1, 0, 0, 0, 2, 0, 0, 0}, {}},
                   {"(byte 5, 1, [byte 9]" + Aux() + ")", true, {9}, {}},
                   {"(byte 3, 1, [byte 9]" + Aux() + ")", true, {9}, {}},
                   {"(byte 7, 1, [byte 9], 0, @ay [])", true, {9}, {}},
                   {"(byte 7, 1, [byte 9], 'any', [byte 1, 2])", true, {9}, {}}});
}

TEST_F(CallReplyTable, WithoutAByteInFrontItFails) {
    ExpectResults({{"", false, {}, {"GdbusMessage|No body!", noByte}},
                   {"('1', 0, @ay [])", false, {}, {"GdbusMessage|Expected byte!", noByte}},
                   {"(1, 0, @ay [])", false, {}, {"GdbusMessage|Expected byte!", noByte}},
                   {"([byte 1],)", false, {}, {"GdbusMessage|Expected byte!", noByte}}});
}

TEST_F(CallReplyTable, WithoutAPayloadItFails) {
    ExpectResults({{"(byte 1,)", false, {}, {noMore, noParameter}},
                   {"(byte 1, 3)", false, {}, {noMore, noArray}},
                   {"(byte 1, [byte 1])", false, {}, {noMore, noArray}},
                   {"(byte 1, 3, 'abc')", false, {}, {notAnArray, noArray}},
                   {"(byte 1, 3, ['a', 'b'])", false, {}, {notAnArray, noArray}},
                   {"(byte 1, 3, <byte 1>)", false, {}, {notAnArray, noArray}}});
}

TEST_F(CallReplyTable, ABrokenByteFailsAndTheAuxiliaryPartIsStillRead) {
    ExpectResults({{"(byte 0,)", false, {}, {Broken(0)}},
                   {"(byte 0, 3, [byte 1, 2, 3])", false, {}, {Broken(0)}},
                   {"(byte 0xF8,)", false, {}, {Broken(248)}},
                   {"(byte 6" + Aux() + ")", false, {}, {Broken(6)}},
                   {"(byte 4,)", false, {}, {Broken(4), noMore, noParameter}},
                   {"(byte 2, 0)", false, {}, {Broken(2), noMore, noArray}},
                   {"(byte 2, 0, 'x')", false, {}, {Broken(2), notAnArray, noArray}}});
}

TEST_F(CallReplyTable, ABrokenAuxiliaryPartFailsAndThePayloadIsHandedOut) {
    ExpectResults({{"(byte 5, 2, [byte 8, 9])", false, {8, 9}, {noMore, noParameter}},
                   {"(byte 3, 2, [byte 8, 9])", false, {8, 9}, {noMore, noParameter}},
                   {"(byte 5, 2, [byte 8, 9], 16)", false, {8, 9}, {noMore, noArray}},
                   {"(byte 5, 2, [byte 8, 9], 16, 'x')", false, {8, 9}, {notAnArray, noArray}}});
}

TEST_F(CallReplyTable, AnUnreadableBlockIsNoFailure) {
    ExpectResults({{"(byte 5, 1, [byte 9], 8, [byte 4, 0, 0, 0, 8, 0, 0, 0])",
                    true,
                    {9},
                    {"IpcAuxData|[IpcAuxData] invalid data -> tag:4, paramLength:8, position:8, "
                     "length:8"}},
                   {"(byte 5, 1, [byte 9], 9, [byte 4, 0, 0, 0, 1, 0, 0, 0, 5])",
                    true,
                    {9},
                    {"IpcAuxData|[IpcAuxData] tag:4 -> size:1 != expected:8"}}});
}

TEST_F(CallReply, ThePayloadIsAppendedToTheOutput) {
    AnswerWith("(byte 1, 2, [byte 3, 4])");
    Bytes output{1, 2};
    EXPECT_TRUE(Call("com.norvale.ITest", 1, {}, output));
    EXPECT_EQ((Bytes{1, 2, 3, 4}), output);
}

TEST_F(CallReply, AFailedCallLeavesTheOutputAsItWas) {
    for (const char* body : {"", "(byte 1,)", "(byte 1, 3)", "(byte 0, 1, [byte 7])"}) {
        AnswerWith(body);
        Bytes output{1, 2};
        EXPECT_FALSE(Call("com.norvale.ITest", 1, {}, output)) << body;
        EXPECT_EQ((Bytes{1, 2}), output) << body;
    }
}

TEST_F(CallReply, APayloadOf16MiBArrives) {
    Bytes payload(16777216);
    for (std::size_t at = 0; at < payload.size(); ++at) {
        payload[at] = static_cast<std::uint8_t>(at * 7);
    }
    AnswerWith([&payload] {
        const WireMessage reply(g_dbus_message_new());
        g_dbus_message_set_message_type(reply.get(), G_DBUS_MESSAGE_TYPE_METHOD_RETURN);
        g_dbus_message_set_body(
            reply.get(),
            g_variant_new("(yi@ay)", 1, 0,
                          g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload.data(), payload.size(), 1)));
        return RefObject(reply.get());
    });
    Bytes output;
    EXPECT_TRUE(Call("com.norvale.ITest", 1, {}, output));
    EXPECT_TRUE(payload == output);
}

// The lines name the bus that was asked, not the client to whom the reply is addressed.
TEST_F(CallReply, AnErrorIsLoggedWithBusInterfaceCodeNameAndText) {
    AnswerWith([] { return ErrorReply("com.norvale.Error.Refused", "('Not today.', 5)"); });
    EXPECT_FALSE(Call("com.norvale.IAVControl", 66));
    EXPECT_THAT(Errors(),
                ElementsAre("IpcClient|[IPC][com.norvale.MavixAPI.HyperFast:com.norvale.IAVControl:66]",
                            "IpcClient|[IPC][Error name: com.norvale.Error.Refused]",
                            "IpcClient|[IPC]'Not today.'"));
}

TEST_F(CallReply, AnErrorWithoutATextHasNoTextLine) {
    const std::pair<const char*, const char*> rows[] = {
        {"", "GdbusMessage|No body!"},
        {"(7,)", "GdbusMessage|Expected string!"},
        {"([byte 1], 'late')", "GdbusMessage|Expected string!"},
    };
    for (const auto& [body, complaint] : rows) {
        SCOPED_TRACE(body);
        m_platform.Reset();
        AnswerWith([body = body] { return ErrorReply("org.freedesktop.DBus.Error.NoReply", body); });
        Bytes output{1};
        EXPECT_FALSE(Call("com.norvale.ITest", -3, {}, output));
        EXPECT_EQ(Bytes{1}, output);
        EXPECT_THAT(Errors(), ElementsAre("IpcClient|[IPC][com.norvale.MavixAPI:com.norvale.ITest:-3]",
                                          "IpcClient|[IPC][Error name: org.freedesktop.DBus.Error.NoReply]",
                                          complaint));
    }
}

TEST_F(CallReply, AnEmptyErrorTextIsStillALine) {
    AnswerWith([] { return ErrorReply("com.norvale.Error.Refused", "('',)"); });
    EXPECT_FALSE(Call());
    EXPECT_EQ("IpcClient|[IPC]''", Errors().back());
}

} // namespace
