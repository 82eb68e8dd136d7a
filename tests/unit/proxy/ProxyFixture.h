#ifndef MAVIX_TEST_PROXY_FIXTURE_H
#define MAVIX_TEST_PROXY_FIXTURE_H

#include "FakeClient.h"
#include "ProxyAccess.h"
#include "RecordingPlatform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace MavixTest {

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
