#include "ClientFixture.h"

#include "EventCollector.h"
#include "FlavourFixture.h"

// How an event is decoded, good ones and malformed ones.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char* members[] = {"Signal",   "PipelineSignal", "Data", "Program",
                                   "Section",  "TextData",       "Dsm",  "CopyProtectionInfo",
                                   "PESData",  "ExPESData",      "Ht",   "ATSC3Signalling",
                                   "ATSC3Mpd", "ATSC3Linkage"};

bool HasFurther(int type) {
    return type == 0 || type == 1 || type == 10;
}

void SetAllCallbacks(TCIpcClient& client) {
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        client.SetCallbackFunction(static_cast<EIPCMessageType>(type), EventCollector::CallbackOf(type));
    }
}

class EventDecoding : public ClientTest {
protected:
    EventDecoding() {
        EventCollector::Events().clear();
        SetAllCallbacks(Client());
    }
    std::vector<Event>& Events() { return EventCollector::Events(); }
};

TEST_F(EventDecoding, EachTypeReachesItsOwnCallback) {
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        SCOPED_TRACE(members[type]);
        Events().clear();
        Handle(Signal(members[type], std::string("('-5', ") + (HasFurther(type) ? "'further', " : "") +
                                         "'65538', [byte 0x61, 0x00, 0x62])"));
        EXPECT_THAT(Events(), ElementsAre(Event{type, -5, std::string("a\0b", 3)}));
    }
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

TEST_F(EventDecoding, TheSkippedArgumentsMayBeOfAnyType) {
    Handle(Signal("Data", "('1', 7, [byte 0x61])"));
    Handle(Signal("Data", "('2', @ay [], [byte 0x61])"));
    Handle(Signal("Ht", "('3', {'a': <1>}, (1, 2), [byte 0x61])"));
    Handle(Signal("Data", "('4', '0', [byte 0x61], 'more', 5)"));
    EXPECT_THAT(Events(),
                ElementsAre(Event{2, 1, "a"}, Event{2, 2, "a"}, Event{10, 3, "a"}, Event{2, 4, "a"}));
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

TEST_F(EventDecoding, AnEmptyPayloadHasLengthZero) {
    Handle(Signal("Data", "('1', '0', @ay [])"));
    EXPECT_THAT(Events(), ElementsAre(Event{2, 1, ""}));
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

TEST_F(EventDecoding, TheDataOfAnEmptyPayloadIsNull) {
    static const char* given;
    given = "untouched";
    Client().SetCallbackFunction(IPC_MESSAGE_DATA, [](int, const char* data, int) { given = data; });
    Handle(Signal("Data", "('1', '0', @ay [])"));
    EXPECT_EQ(nullptr, given);
}

TEST_F(EventDecoding, PathInterfaceAndSenderAreNotLookedAt) {
    Handle(Signal("Data", "('1', '0', [byte 0x61])", "com.norvale.Other", "/some/where"));
    Handle(MethodCall(nullptr, "Data", "('2', '0', [byte 0x61])"));
    EXPECT_THAT(Events(), ElementsAre(Event{2, 1, "a"}, Event{2, 2, "a"}));
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

TEST_F(EventDecoding, TheIdIsReadAsADecimalWithTrailingTextIgnored) {
    const std::pair<const char*, int> rows[] = {
        {"0", 0},         {"12", 12},
        {"-12", -12},     {"+12", 12},
        {"12abc", 12},    {"  7", 7},
        {"\t\n-7 x", -7}, {"007", 7},
        {"0x10", 0},      {"2147483647", 2147483647},
        {"3.9", 3},       {"-2147483648", -2147483647 - 1},
        {"1 2", 1},       {"12\xc3\xa4", 12},
    };
    for (const auto& [text, id] : rows) {
        SCOPED_TRACE(text);
        Events().clear();
        Handle(Signal("Data", std::string("(\"") + text + "\", '0', [byte 0x61])"));
        EXPECT_THAT(Events(), ElementsAre(Event{2, id, "a"}));
    }
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

TEST_F(EventDecoding, AnUnknownMemberIsLoggedAndDropped) {
    for (const char* member : {"NoSuchEvent", "signal", "Unknown", "NameAcquired"}) {
        m_platform.Reset();
        Handle(Signal(member, "('1', '0', [byte 0x61])"));
        EXPECT_THAT(LogFrom(0),
                    ElementsAre(std::string("6|IpcClient|[API_LITE] No such type. '") + member + "'"));
    }
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(EventDecoding, AMessageWithoutAMemberIsLoggedAndDropped) {
    Handle(Reply("('1', '0', [byte 0x61])"));
    EXPECT_THAT(LogFrom(0), ElementsAre("6|IpcClient|[API_LITE] No member"));
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(EventDecoding, WithoutACallbackAnEventIsDroppedSilently) {
    Client().UnsetCallbackFunction(IPC_MESSAGE_DATA);
    m_platform.Reset();
    Handle(Signal("Data", "('1', '0', [byte 0x61])"));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

// Malformed events, what is logged before the first assertion, and what a release build delivers.
struct MalformedRow {
    const char* name;
    const char* member;
    const char* body;
    std::vector<std::string> errors; // without the assertions' lines
    std::size_t assertions;          // on a release build
    const char* delivered;           // "<type>:<id>:<bytes>" or nothing
};

const char* const noString = "IpcClient|[API_LITE] Expected DBUS_TYPE_STRING.";
const char* const noParameter = "IpcClient|[API_LITE] Expected parameter";
const char* const noArray = "IpcClient|[API_LITE] Expected bytes array.";
const char* const noMore = "GdbusMessage|No more params";
const char* const notAnArray = "GdbusMessage|Expected array!";

const MalformedRow malformedRows[] = {
    {"no arguments", "Data", "", {"GdbusMessage|No body!", noString}, 1, ""},
    {"int id", "Data", "(7, '0', [byte 0x61])", {"GdbusMessage|Expected string!", noString}, 1, ""},
    {"bytes id", "Ht", "([byte 0x31],)", {"GdbusMessage|Expected string!", noString}, 1, ""},
    {"empty id", "Data", "('', '0', [byte 0x61])", {"IpcClient|[API_LITE] Invalid message id ''"}, 1, ""},
    {"word", "Data", "('abc', '0', [byte 0x61])", {"IpcClient|[API_LITE] Invalid message id 'abc'"}, 1, ""},
    {"sign", "Data", "('-', '0', [byte 0x61])", {"IpcClient|[API_LITE] Invalid message id '-'"}, 1, ""},
    {"spaces", "Data", "('  ', '0', [byte 0x61])", {"IpcClient|[API_LITE] Invalid message id '  '"}, 1, ""},
    {"two signs",
     "Data",
     "('--1', '0', [byte 0x61])",
     {"IpcClient|[API_LITE] Invalid message id '--1'"},
     1,
     ""},
    {"above 32 bits",
     "Data",
     "('2147483648', '0', [byte 0x61])",
     {"IpcClient|[API_LITE] Invalid message id '2147483648'"},
     1,
     ""},
    {"below 32 bits",
     "Data",
     "('-2147483649', '0', [byte 0x61])",
     {"IpcClient|[API_LITE] Invalid message id '-2147483649'"},
     1,
     ""},
    {"eleven digits",
     "Data",
     "('99999999999', '0', [byte 0x61])",
     {"IpcClient|[API_LITE] Invalid message id '99999999999'"},
     1,
     ""},
    {"above 64 bits",
     "Data",
     "('99999999999999999999', '0', [byte 0x61])",
     {"IpcClient|[API_LITE] Invalid message id '99999999999999999999'"},
     1,
     ""},
    {"id alone", "Data", "('5',)", {noMore, noParameter, noMore, noArray}, 2, "2:5:"},
    {"id alone of a type with a further argument",
     "Signal",
     "('5',)",
     {noMore, noMore, noParameter, noMore, noArray},
     2,
     "0:5:"},
    {"further argument, nothing else",
     "Signal",
     "('5', 'f')",
     {noMore, noParameter, noMore, noArray},
     2,
     "0:5:"},
    {"no payload", "TextData", "('5', '0')", {noMore, noArray}, 1, "5:5:"},
    {"text payload", "TextData", "('5', '0', 'text')", {notAnArray, noArray}, 1, "5:5:"},
    {"texts payload", "TextData", "('5', '0', ['a', 'b'])", {notAnArray, noArray}, 1, "5:5:"},
    {"variant payload", "TextData", "('5', '0', <[byte 0x61]>)", {notAnArray, noArray}, 1, "5:5:"},
    {"payload in the handle's place", "TextData", "('5', [byte 0x61])", {noMore, noArray}, 1, "5:5:"},
    {"ints payload", "TextData", "('5', '0', [0x61626364])", {}, 0, "5:5:dcba"},
};

// Argument: the row. Exits with 0 after having handled the event.
MAVIX_CHILD(HandleMalformedEvent) {
    const MalformedRow& row = malformedRows[std::stoul(arguments.at(0))];
    FakedClient faked;
    SetAllCallbacks(faked.Client());
    faked.Handle(Signal(row.member, row.body));
    for (const Event& event : EventCollector::Events()) {
        std::printf("delivered %d:%d:%s\n", event.type, event.id, event.data.c_str());
    }
    return 0;
}

// Errors that a child program has logged, assertions apart, as "<source>|<text>".
std::vector<std::string> ErrorsOf(const ChildResult& result) {
    std::vector<std::string> errors;
    std::istringstream lines(result.errors);
    const std::string start = "6|MAVIX_API|";
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, start.size(), start) == 0 && line.find("|MavixAssert: ") == std::string::npos) {
            const std::string rest = line.substr(start.size());
            errors.push_back(rest.substr(0, rest.find(':')) + rest.substr(rest.find('|')));
        }
    }
    return errors;
}

std::size_t AssertionsOf(const ChildResult& result) {
    return CountAssertions(result, "../../../src/ipc/IpcClient", "false");
}

using EventFlavour = FlavourFixture;

TEST_F(EventFlavour, AMalformedEventStopsTheProcessAtItsFirstFault) {
    for (std::size_t at = 0; at < std::size(malformedRows); ++at) {
        const MalformedRow& row = malformedRows[at];
        SCOPED_TRACE(row.name);
        const ChildResult result =
            RunChildProgram("HandleMalformedEvent", plainFlavour, {std::to_string(at)});
        if (row.assertions == 0) {
            EXPECT_EQ(0, result.exitCode) << result.errors;
            continue;
        }
        EXPECT_EQ(SIGABRT, result.signal) << result.errors;
        EXPECT_EQ(1U, AssertionsOf(result)) << result.errors;
        EXPECT_EQ("", result.output);
        // With two faults it does not come to the second.
        std::vector<std::string> expected = row.errors;
        expected.resize(row.assertions == 2 ? expected.size() - 2 : expected.size());
        EXPECT_EQ(expected, ErrorsOf(result));
    }
}

TEST_F(EventFlavour, AReleaseLogsMalformedEventsAndDeliversWhatItHas) {
    for (std::size_t at = 0; at < std::size(malformedRows); ++at) {
        const MalformedRow& row = malformedRows[at];
        SCOPED_TRACE(row.name);
        const ChildResult result =
            RunChildProgram("HandleMalformedEvent", releaseFlavour, {std::to_string(at)});
        EXPECT_EQ(0, result.exitCode) << result.errors;
        EXPECT_EQ(row.errors, ErrorsOf(result));
        EXPECT_EQ(row.assertions, AssertionsOf(result)) << result.errors;
        std::string expected;
        for (std::size_t line = 0; line < row.assertions; ++line) {
            expected += "ASSERT!!! - function t_MessageHandler, line N\n";
        }
        if (*row.delivered != '\0') {
            expected += std::string("delivered ") + row.delivered + "\n";
        }
        EXPECT_EQ(expected, WithoutLineNumbers(result.output));
    }
}

} // namespace
