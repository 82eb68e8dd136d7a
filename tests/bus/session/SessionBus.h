#ifndef MAVIX_TEST_SESSION_BUS_H
#define MAVIX_TEST_SESSION_BUS_H

#include "tests/bus/client/ClientBus.h"
#include "tests/unit/proxy/ProxyAccess.h"

#include <string>
#include <vector>

namespace MavixTest {

// Tests of the process-wide session over a real bus. Each begins and ends without a session.
class SessionBusTest : public ClientBusTest {
protected:
    SessionBusTest();
    ~SessionBusTest() override;

    // Has the service refuse calls of a function, answer them with these bytes, or serve everything again.
    void Refuse(short code) { m_bus.lite.SetReply(sessionBus, code, MavixSim::Behaviour::Error); }
    void AnswerWith(short code, const Bytes& payload);
    void Serve() { m_bus.lite.ClearReplies(); }

    // The codes of the calls that the service was sent since the start of the test, in order.
    std::vector<short> Codes();
    // One counter of the service.
    int Counter(const std::string& name);
    // Whether the service has a session of this process.
    bool ServiceHasSession() { return Counter("open") == 1; }

    // The line of the log about the last open or close that asked the service.
    std::string LastLine() const;

    static void Close(int times) {
        for (int at = 0; at < times; ++at) {
            SessionControl__Close();
        }
    }
    // Closes until nothing is open; the service serves everything.
    static void CloseAll();
};

} // namespace MavixTest

#endif
