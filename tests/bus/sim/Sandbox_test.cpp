#include "Await.h"
#include "ProcessState.h"
#include "RawClient.h"

#include "ChildProcess.h"
#include "TempFolder.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>

namespace MavixTest {

namespace {

using MavixTools::ShellStatus;
using MavixTools::TCChildProcess;
using MavixTools::TCTempFolder;
using Arguments = std::vector<std::string>;

class Sandbox : public testing::Test {
protected:
    // The sandbox's files go into a folder of ours, so that left-overs show.
    TCChildProcess Start(const Arguments& arguments) const {
        MavixTools::ChildOptions options;
        options.program = MAVIX_TEST_SANDBOX;
        options.arguments = arguments;
        options.environment = {{"XDG_RUNTIME_DIR", m_temporary.Path()}, {"TMPDIR", m_temporary.Path()}};
        return TCChildProcess(options);
    }

    int Run(const Arguments& arguments) const { return ShellStatus(*Start(arguments).Wait()); }

    // What a command wrote to the file; it writes the last line in one go.
    std::string ReadNote() const {
        std::ifstream file(m_note);
        std::string line;
        return std::getline(file, line) && !file.eof() ? line : "";
    }

    // A sandbox whose command notes the bus address and waits.
    TCChildProcess StartWaiting(Arguments options = {}) const {
        for (const char* word : {"--", "sh", "-c", "echo $DBUS_SYSTEM_BUS_ADDRESS >$0; exec sleep 1000"})
            options.emplace_back(word);
        options.push_back(m_note);
        TCChildProcess sandbox = Start(options);
        EXPECT_TRUE(Await([&] { return !ReadNote().empty(); }));
        return sandbox;
    }

    bool NothingIsLeft() const { return std::filesystem::is_empty(m_temporary.Path()); }

    TCTempFolder m_temporary;
    TCTempFolder m_notes;
    const std::string m_note = m_notes.Path() + "/note";
};

bool AnyRuns(const std::vector<pid_t>& pids) {
    return std::any_of(pids.begin(), pids.end(), IsRunning);
}

struct StatusRow {
    const char* name;
    Arguments arguments;
    int status;
};

TEST_F(Sandbox, ReturnsTheCommandsStatus) {
    const std::vector<StatusRow> rows{
        {"success", {"--", "true"}, 0},
        {"failure", {"--", "sh", "-c", "exit 7"}, 7},
        {"signal", {"--", "sh", "-c", "kill -USR1 $$"}, 128 + SIGUSR1},
        {"without the dashes", {"sh", "-c", "exit 8"}, 8},
        {"options of the command", {"sh", "-c", "exit $#", "x", "--no-sim", "--help"}, 2},
        {"command not found", {"--", "mavix-no-such-command"}, 127},
        {"command cannot be run", {"--", "/dev/null"}, 126},
        {"no command", {"--"}, 125},
        {"unknown option", {"--nonsense", "--", "true"}, 125},
        {"stand-in service that fails", {"--sim-option=--nonsense", "--", "true"}, 125},
        {"help", {"--help"}, 0},
        {"version", {"--version"}, 0},
    };
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::vector<int> statuses;
    for (const StatusRow& row : rows)
        statuses.push_back(Run(row.arguments));
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    for (std::size_t i = 0; i < rows.size(); ++i)
        EXPECT_EQ(statuses[i], rows[i].status) << rows[i].name;
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(Sandbox, GivesTheCommandTheServiceOnABusOfItsOwn) {
    TCChildProcess sandbox = StartWaiting();
    EXPECT_EQ(ReadNote().rfind("unix:path=" + m_temporary.Path() + "/", 0), 0u) << ReadNote();
    TCRawClient client(ReadNote());
    for (const char* name : {"com.norvale.MavixAPI", "com.norvale.MavixAPI.Pipeline",
                             "com.norvale.MavixAPI.ServiceDb", "com.norvale.MavixAPI.HyperFast"}) {
        RawCall call;
        call.destination = name;
        EXPECT_FALSE(client.Call(call).IsError()) << name;
    }
    RawCall session;
    session.destination = session.interface.emplace("com.norvale.ISessionControl");
    EXPECT_FALSE(client.Call(session).IsError());
}

TEST_F(Sandbox, EndsEverythingAfterASignal) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(::strsignal(signal));
        std::filesystem::remove(m_note);
        TCChildProcess sandbox = StartWaiting();
        const std::vector<pid_t> all = Descendants(sandbox.Pid());
        EXPECT_EQ(all.size(), 5u);
        sandbox.Signal(signal);
        EXPECT_EQ(ShellStatus(*sandbox.Wait()), 128 + signal);
        EXPECT_FALSE(AnyRuns(all));
        EXPECT_TRUE(NothingIsLeft());
    }
}

TEST_F(Sandbox, KillsACommandThatIgnoresTheSignal) {
    TCChildProcess sandbox =
        Start({"--no-sim", "sh", "-c", "trap '' TERM; echo ready >$0; while :; do sleep 1; done", m_note});
    ASSERT_TRUE(Await([&] { return ReadNote() == "ready"; }));
    const std::vector<pid_t> all = Descendants(sandbox.Pid());
    sandbox.Signal(SIGTERM);
    EXPECT_EQ(ShellStatus(*sandbox.Wait()), 128 + SIGKILL);
    EXPECT_FALSE(AnyRuns(all));
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(Sandbox, EndsTheCommandsLeftOvers) {
    EXPECT_EQ(
        Run({"sh", "-c", "sleep 1000 & (trap '' TERM; while :; do sleep 1; done) & echo $! >$0", m_note}), 0);
    EXPECT_FALSE(IsRunning(std::stoi(ReadNote())));
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(Sandbox, ItsProcessesDieWithIt) {
    TCChildProcess sandbox = StartWaiting();
    const std::vector<pid_t> all = Descendants(sandbox.Pid());
    ASSERT_EQ(all.size(), 5u);
    sandbox.Signal(SIGKILL);
    sandbox.Wait();
    EXPECT_TRUE(Await([&] { return !AnyRuns(all); }));
}

// As if nothing had changed in the folder for an hour.
void Age(const std::string& folder) {
    std::filesystem::last_write_time(folder,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
}

TEST_F(Sandbox, RemovesWhatAKilledOneHasLeftAndNothingOfALivingOne) {
    const auto folderOf = [](const std::string& address) {
        return std::filesystem::path(address.substr(address.find('=') + 1)).parent_path().string();
    };
    TCChildProcess killed = StartWaiting();
    const std::string killedFolder = folderOf(ReadNote());
    const std::vector<pid_t> all = Descendants(killed.Pid());
    std::filesystem::remove(m_note);
    TCChildProcess living = StartWaiting();
    const std::string livingFolder = folderOf(ReadNote());

    killed.Signal(SIGKILL);
    killed.Wait();
    ASSERT_TRUE(Await([&] { return !AnyRuns(all); }));
    EXPECT_EQ(Run({"--no-sim", "true"}), 0);
    EXPECT_TRUE(std::filesystem::exists(killedFolder)) << "too young to be known as left over";
    Age(killedFolder);
    Age(livingFolder);
    EXPECT_EQ(Run({"--no-sim", "true"}), 0);
    EXPECT_FALSE(std::filesystem::exists(killedFolder));
    EXPECT_TRUE(std::filesystem::exists(livingFolder));
}

TEST_F(Sandbox, RunsTheBusAloneOnRequest) {
    TCChildProcess sandbox = StartWaiting({"--no-sim"});
    EXPECT_EQ(Descendants(sandbox.Pid()).size(), 2u);
    EXPECT_EQ(TCRawClient(ReadNote()).Call(RawCall{}).errorName, "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST_F(Sandbox, HandsOptionsToTheService) {
    TCChildProcess sandbox = StartWaiting({"--sim-option=--respawn"});
    std::vector<pid_t> all = Descendants(sandbox.Pid());
    const auto daemon =
        std::find_if(all.begin(), all.end(), [](pid_t pid) { return NameOf(pid) == "mavix-daemon"; });
    ASSERT_NE(daemon, all.end());
    ::kill(*daemon, SIGKILL);
    TCRawClient client(ReadNote());
    EXPECT_TRUE(Await([&] { return !client.Call(RawCall{}).IsError(); }));
}

TEST_F(Sandbox, LeavesTheTerminalsInterruptToTheCommand) {
    const std::string script = "trap 'exit 9' INT; echo ready >" + m_note + "; while :; do sleep 0.05; done";
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::setenv("XDG_RUNTIME_DIR", m_temporary.Path().c_str(), 1);
        ::execl(MAVIX_TEST_SANDBOX, "mavix-sandbox", "sh", "-c", script.c_str(), nullptr);
        ::_exit(1);
    }
    const MavixTools::TCDescriptor owned(terminal);
    EXPECT_TRUE(Await([&] { return ReadNote() == "ready"; }));
    EXPECT_EQ(::write(terminal, "\x03", 1), 1);
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(ShellStatus(status), 9);
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(Sandbox, TwoRunSideBySide) {
    TCChildProcess first = StartWaiting();
    const std::string address = ReadNote();
    std::filesystem::remove(m_note);
    TCChildProcess second = StartWaiting();
    EXPECT_NE(ReadNote(), address);
    second.End();
    EXPECT_FALSE(TCRawClient(address).Call(RawCall{}).IsError());
}

TEST_F(Sandbox, PrintsNothingOfItsOwn) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = Run({"--", "sh", "-c", "echo out; echo err >&2"});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "out\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "err\n");
    EXPECT_EQ(status, 0);
}

} // namespace

} // namespace MavixTest
