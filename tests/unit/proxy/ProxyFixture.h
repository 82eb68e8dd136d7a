#ifndef MAVIX_TEST_PROXY_FIXTURE_H
#define MAVIX_TEST_PROXY_FIXTURE_H

#include "FakeClient.h"
#include "RecordingPlatform.h"
#include "SessionControlProxy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace MavixApiLite {

// The proxy's private parts.
struct TestAccess {
    enum States { undefined = 0, opened = 1, closed = 2 };

    static void Set(SessionControlProxy& proxy, States state, int counter) {
        proxy.m_sessionState = static_cast<SessionControlProxy::ESessionState>(state);
        proxy.m_sessionCounter = counter;
    }
    static int State(const SessionControlProxy& proxy) { return proxy.m_sessionState; }
    static int Counter(const SessionControlProxy& proxy) { return proxy.m_sessionCounter; }
    static const std::string& InterfaceName(const SessionControlProxy& proxy) {
        return proxy.m_interfaceName;
    }
    static std::string Text(const SessionControlProxy& proxy, int state) {
        return proxy.m_ToString(static_cast<SessionControlProxy::ESessionState>(state));
    }
    static int Open(SessionControlProxy& proxy) { return proxy.m_Open(); }
    static int Close(SessionControlProxy& proxy) { return proxy.m_Close(); }
    // The process-wide proxy; with null the next use creates another.
    static SessionControlProxy*& TheProxy() { return SessionControlProxy::m_pSessionControlProxy; }
};

} // namespace MavixApiLite

namespace MavixTest {

using MavixApiLite::TestAccess;

constexpr short openCode = 0;
constexpr short closeCode = 1;
constexpr short debugInfoCode = 2;
constexpr short openTraceCode = 3;
constexpr short closeTraceCode = 4;
constexpr short terminatedCode = 5;

// A proxy over a client without a bus.
class ProxyTest : public testing::Test {
protected:
    // The only line of the log, an error of a member.
    void ExpectError(const std::string& function, const std::string& text) {
        const std::vector<LogLine> lines = m_platform.Lines();
        ASSERT_EQ(1U, lines.size());
        EXPECT_EQ(6, lines[0].priority);
        EXPECT_EQ("MAVIX_API", lines[0].tag);
        EXPECT_EQ("SessionControlProxy", lines[0].source);
        EXPECT_EQ(function, lines[0].function);
        EXPECT_EQ(text, lines[0].text);
    }

    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    std::shared_ptr<FakeClient> m_client = std::make_shared<FakeClient>();
    SessionControlProxy m_proxy{m_client};
};

} // namespace MavixTest

#endif
