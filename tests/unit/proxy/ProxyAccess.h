#ifndef MAVIX_TEST_PROXY_ACCESS_H
#define MAVIX_TEST_PROXY_ACCESS_H

#include "SessionControlProxy.h"

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

// The service's functions.
constexpr short openCode = 0;
constexpr short closeCode = 1;
constexpr short debugInfoCode = 2;
constexpr short openTraceCode = 3;
constexpr short closeTraceCode = 4;
constexpr short terminatedCode = 5;

} // namespace MavixTest

#endif
