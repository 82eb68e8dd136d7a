#include "ProxyFaults.h"
#include "ProxyFixture.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <regex>
#include <sstream>

// Debug traces and the stack trace that they carry.

using namespace MavixTest;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::string LongLong(long long value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

class DebugTrace : public ProxyTest {
protected:
    // The text of the only request, whose other parts are checked.
    std::string SentText(long long traceId, int traceParam) {
        const std::vector<SentCall> sent = m_client->Sent();
        EXPECT_THAT(sent, SizeIs(1));
        EXPECT_EQ("com.norvale.ISessionControl", sent[0].interfaceName);
        EXPECT_EQ(openTraceCode, sent[0].code);
        EXPECT_TRUE(sent[0].async);
        const std::string& input = sent[0].input;
        constexpr std::size_t around = sizeof(long long) + 2 * sizeof(int);
        if (input.size() < around) {
            ADD_FAILURE() << "only " << input.size() << " bytes";
            return "";
        }
        const std::string text = input.substr(12, input.size() - around);
        EXPECT_EQ(LongLong(traceId) + Int(static_cast<int>(text.size())) + text + Int(traceParam), input);
        return text;
    }

    SessionControlDebugInfo m_info{24, "who calls", 5};
};

TEST_F(DebugTrace, OpensWithItsNumberTextAndParameter) {
    const struct {
        long long id;
        const char* text;
        int parameter;
    } rows[] = {
        {1, "player", 2}, {-1, "", -1}, {LLONG_MIN, "\xc3\xa4\n", INT_MIN}, {LLONG_MAX, "x", INT_MAX}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.id);
        m_client->Forget();
        m_info.callerInfo = row.text;
        m_info.traceParam = row.parameter;
        EXPECT_EQ(0, m_proxy.OpenDebugTrace(row.id, &m_info));
        EXPECT_EQ(row.text, SentText(row.id, row.parameter));
    }
    EXPECT_THAT(m_platform.Lines(), IsEmpty());
}

TEST_F(DebugTrace, ClosesWithItsNumber) {
    for (const long long id : {0LL, -7LL, LLONG_MAX}) {
        m_client->Forget();
        EXPECT_EQ(0, m_proxy.CloseDebugTrace(id));
        ASSERT_THAT(m_client->Sent(), SizeIs(1));
        EXPECT_EQ("com.norvale.ISessionControl", m_client->Sent()[0].interfaceName);
        EXPECT_EQ(closeTraceCode, m_client->Sent()[0].code);
        EXPECT_TRUE(m_client->Sent()[0].async);
        EXPECT_EQ(LongLong(id), m_client->Sent()[0].input);
    }
}

TEST_F(DebugTrace, NeedsARecordOfExactly24Bytes) {
    for (const int size : {0, 1, 12, 16, 20, 23, 25, 32, -24, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(size);
        m_platform.Reset();
        m_info.structSize = size;
        EXPECT_EQ(-2, m_proxy.OpenDebugTrace(1, &m_info));
        ASSERT_THAT(m_platform.Lines(), SizeIs(1));
        EXPECT_EQ(1U, m_platform.CountStarting(6, "[API_LITE] bad debug info 0x"));
    }
    m_platform.Reset();
    EXPECT_EQ(-2, m_proxy.OpenDebugTrace(1, nullptr));
    ExpectError("OpenDebugTrace", "[API_LITE] bad debug info (nil), size 0");
    EXPECT_THAT(m_client->Sent(), IsEmpty());
}

TEST_F(DebugTrace, ThatCannotBeSentFails) {
    m_client->sendsAsync = false;
    EXPECT_EQ(-1, m_proxy.OpenDebugTrace(1, &m_info));
    EXPECT_EQ(-1, m_proxy.CloseDebugTrace(1));
}

TEST_F(DebugTrace, TellsTheServiceNothingAboutTheSession) {
    EXPECT_EQ(0, m_proxy.OpenDebugTrace(1, &m_info));
    EXPECT_EQ(TestAccess::closed, TestAccess::State(m_proxy));
    EXPECT_EQ(0, TestAccess::Counter(m_proxy));
}

} // namespace

// Exported, so that their names are in a stack trace.
extern "C" __attribute__((visibility("default"), noinline)) int TraceFromHere(SessionControlProxy& proxy,
                                                                              SessionControlDebugInfo& info) {
    const int result = proxy.OpenDebugTrace(9, &info);
    asm volatile("" ::: "memory"); // keeps this frame
    return result;
}

extern "C" __attribute__((visibility("default"), noinline)) int
TraceFromDepth(SessionControlProxy& proxy, SessionControlDebugInfo& info, int depth) {
    const int result = depth == 0 ? TraceFromHere(proxy, info) : TraceFromDepth(proxy, info, depth - 1);
    asm volatile("" ::: "memory");
    return result;
}

namespace {

class StackTrace : public DebugTrace {
protected:
    StackTrace() { m_info.callerInfo = nullptr; }
    ~StackTrace() override { ProxyFaults::noSymbols = false; }

    std::vector<std::string> Lines() {
        const std::string text = SentText(9, 5);
        EXPECT_FALSE(text.empty());
        EXPECT_EQ('\n', text.back());
        std::istringstream stream(text);
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        EXPECT_EQ(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')), lines.size());
        return lines;
    }
};

TEST_F(StackTrace, StandsInForTheCallerOneFrameALine) {
    ASSERT_EQ(0, TraceFromHere(m_proxy, m_info));
    const std::vector<std::string> lines = Lines();
    EXPECT_GE(lines.size(), 4U);
    const std::regex frame(R"(.+\(.*\) ?\[0x[0-9a-f]+\])");
    for (const std::string& line : lines) {
        EXPECT_TRUE(std::regex_match(line, frame)) << line;
    }
    EXPECT_THAT(lines, Contains(HasSubstr("TraceFromHere")).Times(1));
    EXPECT_THAT(lines, Contains(HasSubstr("main")));
}

TEST_F(StackTrace, ShowsEveryFrameOfARecursionOnce) {
    ASSERT_EQ(0, TraceFromDepth(m_proxy, m_info, 19));
    EXPECT_THAT(Lines(), Contains(HasSubstr("TraceFromDepth")).Times(20));
}

TEST_F(StackTrace, EndsAfter100Frames) {
    ASSERT_EQ(0, TraceFromDepth(m_proxy, m_info, 500));
    EXPECT_THAT(Lines(), SizeIs(100));
}

TEST_F(StackTrace, SaysSoWhenThereAreNoSymbols) {
    ProxyFaults::noSymbols = true;
    ASSERT_EQ(0, TraceFromHere(m_proxy, m_info));
    EXPECT_EQ("Error getting stack trace", SentText(9, 5));
}

} // namespace
