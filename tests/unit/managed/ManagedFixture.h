#ifndef MAVIX_TEST_MANAGED_FIXTURE_H
#define MAVIX_TEST_MANAGED_FIXTURE_H

#include "../client/FakeRegistry.h"
#include "../client/MockClient.h"
#include "CSharp_IPCConnection.h"
#include "FlavourFixture.h"
#include "RecordingPlatform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace MavixTest {

// What the managed callbacks below got. One thread.
struct Relayed {
    int id;
    std::string payload;

    bool operator==(const Relayed& other) const { return id == other.id && payload == other.payload; }
};

inline void PrintTo(const Relayed& relayed, std::ostream* out) {
    *out << "id " << relayed.id << ", " << relayed.payload.size() << " bytes '" << relayed.payload << "'";
}

inline std::vector<Relayed>& RelayedEvents() {
    static std::vector<Relayed> events;
    return events;
}

inline void KeepPayload(int id, MavixMessageBuffer* payload) {
    RelayedEvents().push_back({id, TextOf(*payload)});
}

// Lines of the library's own log, as "<priority>|<source>|<function>|<text>".
inline std::vector<std::string> ManagedLines() {
    std::vector<std::string> lines;
    for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
        lines.push_back(std::to_string(line.priority) + '|' + line.source + '|' + line.function + '|' +
                        line.text);
    }
    return lines;
}

inline std::string Pointer(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

// One handle over a client that is told what to do.
class ManagedTest : public testing::Test {
protected:
    ManagedTest() {
        FakeRegistry::client = m_client;
        m_handle = TCIPCConnection_Create("", "", false);
        RelayedEvents().clear();
        m_platform.Reset();
    }
    ~ManagedTest() override {
        TCIPCConnection_Destroy(m_handle);
        FakeRegistry::client.reset();
        FakeRegistry::fails = false;
        FakeRegistry::isGone = false;
        FakeRegistry::isForkedChild = false;
        // No call holds its share longer than it lasts.
        EXPECT_EQ(1, m_client.use_count());
    }

    static std::vector<std::string> Lines() { return ManagedLines(); }

    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    std::shared_ptr<testing::StrictMock<MockClient>> m_client =
        std::make_shared<testing::StrictMock<MockClient>>();
    void* m_handle = nullptr;
};

} // namespace MavixTest

#endif
