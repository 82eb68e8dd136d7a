#include "ControlBus.h"

#include <fstream>
#include <gmock/gmock.h>
#include <map>

namespace MavixTest {

namespace {

using nlohmann::json;
using testing::HasSubstr;

class ControlDoctor : public ControlBus {
protected:
    // The findings by what was looked at.
    static std::map<std::string, json> Findings(const ControlResult& result) {
        std::map<std::string, json> findings;
        for (const json& finding : result.Objects())
            EXPECT_TRUE(findings.emplace(finding.at("check"), finding).second) << finding;
        return findings;
    }

    // In mounts of its own, with an empty /run and /dev/shm in which a shell runs `prepare` first.
    static ControlResult RunWithFolders(const std::string& prepare, const Words& arguments) {
        TCControlProgram::Options options;
        options.launcher = {"unshare",
                            "--mount",
                            "sh",
                            "-c",
                            "mount -t tmpfs none /run && mount -t tmpfs none /dev/shm && { " + prepare +
                                "; } && exec \"$@\"",
                            "sh"};
        return RunControl(arguments, options);
    }
};

TEST_F(ControlDoctor, FindsNothingWrongWithAWholeMachine) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root has a /run of its own";
    const ControlResult result = RunWithFolders("true", {"doctor", "--json"});
    EXPECT_EQ(result.status, 0) << result.output;
    auto findings = Findings(result);
    for (const char* check :
         {"library", "boost", "feature", "/etc/debug", "/etc/perf", "/etc/release", "caches", "bus",
          "com.norvale.MavixAPI", "com.norvale.MavixAPI.Pipeline", "com.norvale.MavixAPI.ServiceDb",
          "com.norvale.MavixAPI.HyperFast", "com.norvale.ISessionControl", "match rules", "pending replies"})
        EXPECT_EQ(findings[check].value("state", "missing"), "ok") << check << findings[check];
    EXPECT_EQ(findings.size(), 15u);
    EXPECT_THAT(findings["library"].at("text"), HasSubstr("libmavix-api.so."));
    EXPECT_THAT(findings["boost"].at("text"), HasSubstr("Boost 1."));
    EXPECT_EQ(findings["bus"].at("text"), m_bus.Address() + " answers");
    EXPECT_EQ(findings["match rules"].at("text"), "the bus allows 512 a connection");
    EXPECT_EQ(findings["pending replies"].at("text"), "the bus allows 128 a connection");
    EXPECT_THAT(findings["pending replies"].at("advice"), HasSubstr("LimitsExceeded"));
    EXPECT_EQ(findings["com.norvale.MavixAPI"].at("text"),
              "belongs to mavix-daemon[" + std::to_string(m_service.DaemonPid()) + "]");
}

TEST_F(ControlDoctor, TellsWhatToDoAboutEachFailedCheck) {
    m_daemon.DropName("com.norvale.MavixAPI");
    const std::string settings = m_bus.Folder() + "/system-info";
    std::ofstream(settings) << "[features]\ncom.norvale/featureconf/broadcasting.mavix_supported=false\n";
    TCControlProgram::Options options;
    options.environment = {{"MAVIX_SYSTEM_INFO", settings}};
    const ControlResult result = RunControl({"doctor", "--json"}, options);
    EXPECT_EQ(result.status, 1);
    auto findings = Findings(result);
    EXPECT_EQ(findings["feature"].at("state"), "failed");
    EXPECT_EQ(findings["com.norvale.MavixAPI"].at("state"), "failed");
    EXPECT_EQ(findings["com.norvale.MavixAPI"].at("advice"),
              "Start mavix-daemon. mavix-sandbox gives a command a stand-in for it.");
    const ControlResult text = RunControl({"doctor"}, options);
    EXPECT_EQ(text.status, 1);
    EXPECT_THAT(text.output,
                HasSubstr("failed com.norvale.MavixAPI: has no owner: calls wait for one, for 25 s "
                          "each\n       Start mavix-daemon. "));
    EXPECT_THAT(text.output, HasSubstr("ok     match rules: the bus allows 512 a connection\n"));
}

TEST_F(ControlDoctor, LooksAtEverythingElseWithoutABus) {
    m_bus.Stop();
    const ControlResult result = RunControl({"doctor", "--json"});
    EXPECT_EQ(result.status, 1);
    auto findings = Findings(result);
    EXPECT_EQ(findings["bus"].at("state"), "failed");
    EXPECT_THAT(findings["bus"].at("text"), HasSubstr("no bus at "));
    EXPECT_EQ(findings["library"].at("state"), "ok");
    EXPECT_EQ(findings.count("match rules"), 0u);
}

TEST_F(ControlDoctor, LooksAtTheFilesOfCaches) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root has a /run of its own";
    const ControlResult result = RunWithFolders(
        "for n in good mode owner small open alone; do "
        "  touch /run/${n}_cache_lock; chmod 0777 /run/${n}_cache_lock; chown 5001:100 /run/${n}_cache_lock; "
        "  truncate -s 4096 /dev/shm/$n; chmod 0644 /dev/shm/$n; done; "
        "chmod 0755 /run/mode_cache_lock; chown 0:0 /run/owner_cache_lock; truncate -s 4095 /dev/shm/small; "
        "chmod 0600 /dev/shm/open; rm /dev/shm/alone",
        {"doctor", "--json"});
    EXPECT_EQ(result.status, 1);
    auto findings = Findings(result);
    const std::map<std::string, const char*> expected{
        {"cache good, lock file", "ok"},         {"cache good, shared memory", "ok"},
        {"cache mode, lock file", "failed"},     {"cache owner, lock file", "failed"},
        {"cache small, lock file", "ok"},        {"cache small, shared memory", "failed"},
        {"cache open, shared memory", "failed"}, {"cache alone, shared memory", "note"},
    };
    for (const auto& [check, state] : expected)
        EXPECT_EQ(findings[check].value("state", "missing"), state) << check << findings[check];
    EXPECT_EQ(
        findings["cache mode, lock file"].at("text"),
        "/run/mode_cache_lock has mode 0755 and owner 5001:100, not 0777 and 5001:100: who is not its owner "
        "cannot use the cache");
    EXPECT_EQ(findings["cache owner, lock file"].at("advice"),
              "As root: chmod 0777 /run/owner_cache_lock && chown 5001:100 /run/owner_cache_lock");
}

} // namespace

} // namespace MavixTest
