#include "ProxyFaults.h"
#include "ProxyFixture.h"

#include <climits>
#include <cstdlib>
#include <cstring>

// The two questions to the service.

using namespace MavixTest;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class SessionText : public ProxyTest {
protected:
    char m_untouched = 'u';
    char* m_text = &m_untouched;
};

TEST_F(SessionText, IsACopyOfExactlyItsBytesWithATerminator) {
    const std::string texts[] = {"", "one line\n", std::string("a\0b", 3), std::string(100000, 'x')};
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.size());
        m_client->Forget();
        m_client->AnswerWith(Int(0) + Int(static_cast<int>(text.size())) + text);
        m_text = nullptr;
        ASSERT_EQ(0, m_proxy.GetSessionsDebugInfo(&m_text));
        ASSERT_NE(nullptr, m_text);
        EXPECT_EQ(0, std::memcmp(text.c_str(), m_text, text.size() + 1));
        std::free(m_text);
        ASSERT_THAT(m_client->Sent(), SizeIs(1));
        EXPECT_EQ(debugInfoCode, m_client->Sent()[0].code);
        EXPECT_EQ("com.norvale.ISessionControl", m_client->Sent()[0].interfaceName);
        EXPECT_FALSE(m_client->Sent()[0].async);
        EXPECT_EQ("", m_client->Sent()[0].input);
        EXPECT_THAT(m_platform.Lines(), IsEmpty());
    }
}

TEST_F(SessionText, EndsAtItsLengthWhateverFollows) {
    m_client->AnswerWith(Int(0) + Int(3) + "abcdef");
    ASSERT_EQ(0, m_proxy.GetSessionsDebugInfo(&m_text));
    EXPECT_STREQ("abc", m_text);
    std::free(m_text);
}

TEST_F(SessionText, IsNotWrittenWhenTheServiceAnswersWithAnError) {
    for (const int result : {1, -1, -2, INT_MIN, INT_MAX}) {
        m_client->AnswerWith(Int(result) + Int(3) + "abc");
        EXPECT_EQ(result, m_proxy.GetSessionsDebugInfo(&m_text));
        EXPECT_EQ(&m_untouched, m_text);
    }
    EXPECT_THAT(m_platform.Lines(), IsEmpty());
}

TEST_F(SessionText, WithABadLengthFailsWithOneLine) {
    const struct {
        const char* name;
        std::string reply;
        int length;
    } rows[] = {
        {"no result", "", -1},
        {"half a result", "ab", -1},
        {"no length", Int(0), -1},
        {"half a length", Int(0) + "ab", -1},
        {"one byte too few", Int(0) + Int(4) + "abc", 4},
        {"no bytes", Int(0) + Int(1), 1},
        {"negative", Int(0) + Int(-1) + "abc", -1},
        {"most negative", Int(0) + Int(INT_MIN) + "abc", INT_MIN},
        {"huge", Int(0) + Int(INT_MAX) + "abc", INT_MAX},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_platform.Reset();
        m_client->AnswerWith(row.reply);
        EXPECT_EQ(-1, m_proxy.GetSessionsDebugInfo(&m_text));
        EXPECT_EQ(&m_untouched, m_text);
        ExpectError("GetSessionsDebugInfo", "[API_LITE] bad text length " + std::to_string(row.length) +
                                                " in a reply of " + std::to_string(row.reply.size()) +
                                                " bytes");
    }
}

TEST_F(SessionText, WithoutMemoryFailsWithOneLine) {
    m_client->onCall = [](short, std::string& reply) {
        reply = Int(0) + Int(3) + "abc";
        ProxyFaults::noMemory = true;
        return true;
    };
    const int result = m_proxy.GetSessionsDebugInfo(&m_text);
    ProxyFaults::noMemory = false;
    EXPECT_EQ(-1, result);
    EXPECT_EQ(&m_untouched, m_text);
    ExpectError("GetSessionsDebugInfo", "[API_LITE] no memory for a text of 3 bytes");
}

TEST_F(SessionText, OfAFailedCallIsNotWritten) {
    m_client->FailCalls();
    EXPECT_EQ(-1, m_proxy.GetSessionsDebugInfo(&m_text));
    EXPECT_EQ(&m_untouched, m_text);
}

TEST_F(SessionText, NeedsAPlace) {
    EXPECT_EQ(-2, m_proxy.GetSessionsDebugInfo(nullptr));
    ExpectError("GetSessionsDebugInfo", "[API_LITE] no place for the text");
    EXPECT_THAT(m_client->Sent(), IsEmpty());
}

class TerminatedFlag : public ProxyTest {
protected:
    int m_flag = 77;
};

TEST_F(TerminatedFlag, IsHandedOutAsItIs) {
    for (const int flag : {0, 1, 2, -1, INT_MIN, INT_MAX}) {
        m_client->Forget();
        m_client->AnswerWith(Int(0) + Int(flag));
        m_flag = 77;
        EXPECT_EQ(0, m_proxy.IsMavixTerminated(&m_flag));
        EXPECT_EQ(flag, m_flag);
        ASSERT_THAT(m_client->Sent(), SizeIs(1));
        EXPECT_EQ(terminatedCode, m_client->Sent()[0].code);
        EXPECT_EQ("com.norvale.ISessionControl", m_client->Sent()[0].interfaceName);
        EXPECT_FALSE(m_client->Sent()[0].async);
        EXPECT_EQ("", m_client->Sent()[0].input);
    }
    EXPECT_THAT(m_platform.Lines(), IsEmpty());
}

TEST_F(TerminatedFlag, Is1WhenTheReplyIsTooShort) {
    for (const std::string& reply : {std::string(), std::string("ab"), Int(0), Int(0) + "abc"}) {
        SCOPED_TRACE(reply.size());
        m_client->AnswerWith(reply);
        m_flag = 77;
        EXPECT_EQ(0, m_proxy.IsMavixTerminated(&m_flag));
        EXPECT_EQ(1, m_flag);
    }
}

TEST_F(TerminatedFlag, IsNotWrittenWhenTheServiceAnswersWithAnError) {
    for (const int result : {1, 5, -2, -1, INT_MIN}) {
        m_platform.Reset();
        m_client->AnswerWith(Int(result) + Int(0));
        EXPECT_EQ(-1, m_proxy.IsMavixTerminated(&m_flag)) << result;
        EXPECT_EQ(77, m_flag);
        ExpectError("IsMavixTerminated", "[API_LITE] the service answered " + std::to_string(result));
    }
}

TEST_F(TerminatedFlag, OfAFailedCallIsNotWritten) {
    m_client->FailCalls();
    EXPECT_EQ(-1, m_proxy.IsMavixTerminated(&m_flag));
    EXPECT_EQ(77, m_flag);
}

TEST_F(TerminatedFlag, NeedsAPlace) {
    EXPECT_EQ(-2, m_proxy.IsMavixTerminated(nullptr));
    ExpectError("IsMavixTerminated", "[API_LITE] no place for the flag");
    EXPECT_THAT(m_client->Sent(), IsEmpty());
}

} // namespace
