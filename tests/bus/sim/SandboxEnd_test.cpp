#include "SandboxFixture.h"
#include "TestScale.h"

#include <array>
#include <csignal>
#include <random>

namespace MavixTest {

namespace {

using MavixTools::TCChildProcess;
using std::chrono::milliseconds;

std::string LinesWith(const char* path, const std::string& text) {
    std::ifstream file(path);
    std::string found;
    for (std::string line; std::getline(file, line);)
        if (line.find(text) != std::string::npos)
            found.append(line).append("\n");
    return found;
}

std::string NamesWith(const std::string& folder, const std::string& text) {
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().filename().string().find(text) != std::string::npos)
            found.append(entry.path()).append("\n");
    return found;
}

class SandboxEnd : public SandboxFixture {
protected:
    // What there is of our sandboxes, one line each.
    std::string LeftOvers() const {
        std::string found;
        for (const pid_t pid : ProcessesWithEnvironment(m_temporary.Path()))
            found += "process " + std::to_string(pid) + " " + NameOf(pid) + "\n";
        for (const auto& entry : std::filesystem::directory_iterator(m_temporary.Path()))
            found += "file " + entry.path().string() + "\n";
        found += LinesWith("/proc/net/unix", m_temporary.Path());
        found += LinesWith("/proc/self/mountinfo", m_temporary.Path());
        found += NamesWith("/dev/shm", m_mark) + NamesWith("/run", m_mark);
        return found;
    }

    std::string MountsOfCacheFolders() const {
        return LinesWith("/proc/self/mountinfo", " /run ") + LinesWith("/proc/self/mountinfo", " /dev/shm ");
    }

    // The command leaves processes behind, one of them in a session of its own, and in folders of its own
    // files, too.
    Arguments Options(bool isPrivate, const char* last) const {
        const std::string script =
            "case $0 in ?*) touch /run/$0 /dev/shm/$0;; esac; sleep 1000 & setsid sleep 1000 & ";
        Arguments arguments{"--", "sh", "-c", script + last, isPrivate ? m_mark : ""};
        if (isPrivate)
            arguments.insert(arguments.begin(), "--private-run");
        return arguments;
    }

    // As root, or as somebody whom the kernel allows a user namespace, a sandbox has folders of its own.
    bool MayBePrivate() const {
        testing::internal::CaptureStderr();
        const int status = Run({"--private-run", "--no-service", "true"});
        return testing::internal::GetCapturedStderr().find("are the machine's") == std::string::npos &&
               status == 0;
    }

    const std::string m_mark = std::filesystem::path(m_temporary.Path()).filename();
};

TEST_F(SandboxEnd, TwoHundredInARowLeaveNothingAndStartInWellUnderASecond) {
    const bool mayBePrivate = MayBePrivate();
    const std::string mounts = MountsOfCacheFolders();
    const auto start = std::chrono::steady_clock::now();
    const unsigned int count = Scaled(200);
    for (unsigned int number = 0; number < count; ++number)
        ASSERT_EQ(Run(Options(mayBePrivate && number % 2 == 0, "exit 7")), 7) << "sandbox " << number;
    const auto each =
        std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start) / count;
    std::printf("%ld ms from the start of a sandbox to its end\n", static_cast<long>(each.count()));
    EXPECT_LT(each, milliseconds(1000) * (MAVIX_TEST_SCALE_DIVISOR == 1 ? 1 : 10));
    EXPECT_EQ(LeftOvers(), "");
    EXPECT_EQ(MountsOfCacheFolders(), mounts);
}

enum class Victim { Sandbox, Group, Keeper };

struct KillRow {
    const char* name;
    Victim victim;
};

constexpr std::array<KillRow, 3> killRows{KillRow{"the sandbox", Victim::Sandbox},
                                          KillRow{"its process group", Victim::Group},
                                          KillRow{"its keeper", Victim::Keeper}};

// None when there is none yet.
pid_t KeeperOf(const TCChildProcess& sandbox) {
    const std::vector<pid_t> all = Descendants(sandbox.Pid());
    return !all.empty() && NameOf(all.front()) == "mavix-keeper" ? all.front() : 0;
}

void Kill(const TCChildProcess& sandbox, Victim victim) {
    switch (victim) {
    case Victim::Sandbox:
        sandbox.Signal(SIGKILL);
        break;
    case Victim::Group:
        ::kill(-sandbox.Pid(), SIGKILL);
        break;
    case Victim::Keeper:
        if (const pid_t keeper = KeeperOf(sandbox))
            ::kill(keeper, SIGKILL);
        else
            sandbox.Signal(SIGKILL);
        break;
    }
}

TEST_F(SandboxEnd, KilledAtRandomMomentsTheyLeaveNothing) {
    constexpr int longestLife = 150;
    const bool mayBePrivate = MayBePrivate();
    const std::string mounts = MountsOfCacheFolders();
    std::mt19937 random(20260101);
    std::uniform_int_distribution<int> life(0, longestLife);
    for (const KillRow& row : killRows) {
        for (unsigned int number = 0; number < Scaled(20); ++number) {
            TCChildProcess sandbox = Start(Options(mayBePrivate && number % 2 == 0, "exec sleep 1000"));
            // The moment is random, so there is nothing to wait for.
            const milliseconds moment(life(random));
            std::this_thread::sleep_for(moment);
            Kill(sandbox, row.victim);
            sandbox.Wait();
            EXPECT_TRUE(Await([&] { return LeftOvers().empty(); }))
                << row.name << " after " << moment.count() << " ms:\n"
                << LeftOvers();
        }
    }
    EXPECT_EQ(MountsOfCacheFolders(), mounts);
}

TEST_F(SandboxEnd, TheKillOfItsKeeperIsToldAndIsAFailure) {
    TCChildProcess sandbox = StartWaiting();
    std::filesystem::remove(m_note);
    testing::internal::CaptureStderr();
    TCChildProcess second = StartWaiting({"--no-service"});
    const pid_t keeper = KeeperOf(second);
    ASSERT_NE(keeper, 0);
    ::kill(keeper, SIGKILL);
    EXPECT_EQ(MavixTools::ShellStatus(*second.Wait()), 125);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "mavix-sandbox: its process " + std::to_string(keeper) + " was ended by a signal\n");
    EXPECT_TRUE(IsRunning(sandbox.Pid())) << "the other one goes on";
    sandbox.End();
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(SandboxEnd, ASandboxThatStoppedIsKilledWithAllItsProcesses) {
    TCChildProcess sandbox = StartWaiting();
    ::kill(-sandbox.Pid(), SIGSTOP);
    sandbox.Signal(SIGKILL);
    sandbox.Wait();
    EXPECT_TRUE(Await([&] { return LeftOvers().empty(); })) << LeftOvers();
}

// As an ordinary user's sandbox does with processes of another user, here without the right to signal them.
TEST_F(SandboxEnd, ProcessesThatItMayNotEndDoNotKeepIt) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root, to act as another user";
    const std::string other = "exec setpriv --reuid 65534 --clear-groups sleep 1000";
    const auto start = [&](const std::string& script) {
        std::filesystem::remove(m_note);
        return Start(
            {"--bounding-set", "-kill", MAVIX_TEST_SANDBOX, "--no-service", "sh", "-c", script, m_note},
            "setpriv");
    };
    const auto isAsleep = [&] { return !ReadNote().empty() && NameOf(std::stoi(ReadNote())) == "sleep"; };
    const auto endOther = [&] { EXPECT_EQ(::kill(std::stoi(ReadNote()), SIGKILL), 0); };

    TCChildProcess leaving = start("(" + other +
                                   ") & echo $! >$0; until read name </proc/$!/comm && "
                                   "[ $name = sleep ]; do :; done; exit 3");
    EXPECT_EQ(MavixTools::ShellStatus(leaving.Wait(std::chrono::seconds(30)).value_or(-1)), 3);
    endOther();

    TCChildProcess waiting = start("echo $$ >$0; " + other);
    EXPECT_TRUE(Await(isAsleep));
    waiting.Signal(SIGTERM);
    EXPECT_EQ(MavixTools::ShellStatus(waiting.Wait(std::chrono::seconds(30)).value_or(-1)), 128 + SIGKILL);
    endOther();
    EXPECT_TRUE(NothingIsLeft());
}

} // namespace

} // namespace MavixTest
