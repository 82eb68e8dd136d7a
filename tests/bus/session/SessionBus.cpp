#include "SessionBus.h"

namespace MavixTest {

using MavixSim::Behaviour;

SessionBusTest::SessionBusTest() {
    m_bus.lite.ClearReplies();
    m_bus.lite.ClearRecords();
}

SessionBusTest::~SessionBusTest() {
    Serve();
    CloseAll();
    // Left there by an answer of the test's own.
    if (ServiceHasSession()) {
        SessionControl__Open();
        CloseAll();
    }
}

void SessionBusTest::CloseAll() {
    while (SessionControl__Close() != -2) {
    }
}

void SessionBusTest::AnswerWith(short code, const Bytes& payload) {
    // An empty parameter would stand for what the service does by itself.
    if (payload.empty()) {
        m_bus.lite.SetReply(sessionBus, code, Behaviour::BigReply, IntBytes(0));
    } else {
        m_bus.lite.SetReply(sessionBus, code, Behaviour::Echo, payload);
    }
}

std::vector<short> SessionBusTest::Codes() {
    std::vector<short> codes;
    for (const nlohmann::json& record : m_bus.lite.Records()) {
        EXPECT_TRUE(record.at("ok")) << record;
        EXPECT_EQ(sessionBus, record.at("interface"));
        codes.push_back(record.at("code"));
    }
    return codes;
}

int SessionBusTest::Counter(const std::string& name) {
    return m_bus.lite.Stats().at("sessions").at(name);
}

std::string SessionBusTest::LastLine() const {
    std::string last;
    for (const LogLine& line : m_platform.Lines()) {
        if (line.source == "SessionControlProxy") {
            EXPECT_EQ(6, line.priority) << line;
            EXPECT_EQ("MAVIX_API", line.tag) << line;
            last = line.text;
        }
    }
    return last;
}

} // namespace MavixTest
