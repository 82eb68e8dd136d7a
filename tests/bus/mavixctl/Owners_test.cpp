#include "ControlBus.h"

#include <ctime>
#include <gmock/gmock.h>

namespace MavixTest {

namespace {

using nlohmann::json;
using testing::HasSubstr;

class ControlOwners : public ControlBus {};

TEST_F(ControlOwners, TellsWhoOwnsTheServicesNamesAndSinceWhen) {
    const ControlResult result = RunControl({"owners", "--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    const std::vector<json> owners = result.Objects();
    ASSERT_EQ(owners.size(), 5u);
    const char* const names[] = {"com.norvale.MavixAPI", "com.norvale.MavixAPI.Pipeline",
                                 "com.norvale.MavixAPI.ServiceDb", "com.norvale.MavixAPI.HyperFast",
                                 "com.norvale.ISessionControl"};
    for (std::size_t i = 0; i < owners.size(); ++i) {
        const bool isLite = i == 4;
        EXPECT_EQ(owners[i].at("name"), names[i]);
        EXPECT_EQ(owners[i].at("owner").get<std::string>().rfind(":1.", 0), 0u);
        EXPECT_EQ(owners[i].at("pid"), isLite ? m_service.LitePid() : m_service.DaemonPid());
        EXPECT_EQ(owners[i].at("process"), isLite ? "mavix-lite" : "mavix-daemon");
        EXPECT_EQ(owners[i].at("user"), ::geteuid());
        EXPECT_TRUE(owners[i].contains("unit"));
        std::tm since{};
        ASSERT_NE(::strptime(owners[i].at("since").get<std::string>().c_str(), "%Y-%m-%dT%H:%M:%SZ", &since),
                  nullptr);
        EXPECT_NEAR(static_cast<double>(::timegm(&since)), static_cast<double>(std::time(nullptr)), 60);
    }
    const ControlResult text = RunControl({"owners"});
    EXPECT_EQ(text.status, 0);
    EXPECT_THAT(text.output, HasSubstr("com.norvale.ISessionControl        :1."));
    EXPECT_THAT(text.output, HasSubstr(" mavix-lite[" + std::to_string(m_service.LitePid()) + "]"));
    EXPECT_THAT(text.output, HasSubstr(" since 20"));
}

TEST_F(ControlOwners, ANameWithoutAnOwnerIsTold) {
    m_daemon.DropName("com.norvale.MavixAPI.Pipeline");
    const ControlResult result = RunControl({"owners", "--json"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.Objects().at(1), (json{{"name", "com.norvale.MavixAPI.Pipeline"}, {"owner", nullptr}}));
    const ControlResult text = RunControl({"owners"});
    EXPECT_EQ(text.status, 3);
    EXPECT_THAT(text.output, HasSubstr("com.norvale.MavixAPI.Pipeline      no owner\n"));
}

TEST_F(ControlOwners, WithoutABusThereIsNobodyToAsk) {
    m_bus.Stop();
    const ControlResult result = RunControl({"owners"});
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.errors, HasSubstr("mavixctl: no bus at "));
}

} // namespace

} // namespace MavixTest
