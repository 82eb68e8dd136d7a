#include "RawClient.h"
#include "SandboxFixture.h"
#include "TestScale.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <pty.h>
#include <sys/wait.h>

namespace MavixTest {

namespace {

using MavixTools::ShellStatus;
using MavixTools::TCChildProcess;

using Sandbox = SandboxFixture;

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
        {"options of the command", {"sh", "-c", "exit $#", "x", "--no-service", "--help"}, 2},
        {"command not found", {"--", "mavix-no-such-command"}, 127},
        {"command cannot be run", {"--", "/dev/null"}, 126},
        {"no command", {"--"}, 125},
        {"unknown option", {"--nonsense", "--", "true"}, 125},
        {"a shell and a command", {"--shell", "--", "true"}, 125},
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

struct ComplaintRow {
    Arguments options;
    const char* complaint;
};

TEST_F(Sandbox, SaysWhatIsWrongWithItsOptions) {
    for (const ComplaintRow& row : std::vector<ComplaintRow>{
             {{"--scenario="}, "--scenario takes the name of a file, not ''"},
             {{"--replay="}, "--replay takes the name of a file, not ''"},
             {{"--replay-speed=slow"}, "--replay-speed is recorded or fast, not 'slow'"},
             {{"--replay-speed=fast"}, "--replay-speed is for --replay"},
             {{"--scenario=a", "--replay=b"}, "a scenario and a recording cannot be played at once"},
             {{"--scenario=a", "--no-service"}, "a scenario needs the stand-in service"},
             {{"--replay=a", "--no-service"}, "a recording needs the stand-in service"},
             {{"--sim-option=--respawn", "--no-service"}, "--sim-option needs the stand-in service"},
             {{"--shell"}, "--shell takes no command; see --help"},
         }) {
        Arguments arguments = row.options;
        arguments.insert(arguments.end(), {"--", "touch", m_note});
        testing::internal::CaptureStderr();
        EXPECT_EQ(Run(arguments), 125) << row.complaint;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("mavix-sandbox: ") + row.complaint + "\n");
        EXPECT_FALSE(std::filesystem::exists(m_note)) << row.complaint;
    }
}

TEST_F(Sandbox, SaysHowToSeeWhyTheServiceDidNotStart) {
    for (const bool isVerbose : {false, true}) {
        Arguments arguments{"--sim-option=--nonsense", "--", "true"};
        if (isVerbose)
            arguments.insert(arguments.begin(), "--verbose");
        testing::internal::CaptureStderr();
        EXPECT_EQ(Run(arguments), 125);
        const std::string errors = testing::internal::GetCapturedStderr();
        const bool hasHint =
            errors.find("mavix-sim did not start; --verbose shows what it says\n") != std::string::npos;
        EXPECT_EQ(hasHint, !isVerbose) << errors;
        EXPECT_EQ(errors.find("mavix-sim: unrecognized option '--nonsense'\n") != std::string::npos,
                  isVerbose)
            << errors;
    }
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
        EXPECT_EQ(all.size(), 6u);
        sandbox.Signal(signal);
        EXPECT_EQ(ShellStatus(*sandbox.Wait()), 128 + signal);
        EXPECT_FALSE(AnyRuns(all));
        EXPECT_TRUE(NothingIsLeft());
    }
}

TEST_F(Sandbox, KillsACommandThatIgnoresTheSignal) {
    TCChildProcess sandbox = Start(
        {"--no-service", "sh", "-c", "trap '' TERM; echo ready >$0; while :; do sleep 1; done", m_note});
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
    ASSERT_EQ(all.size(), 6u);
    sandbox.Signal(SIGKILL);
    sandbox.Wait();
    EXPECT_TRUE(Await([&] { return !AnyRuns(all) && NothingIsLeft(); }));
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

    // Both at once, so that neither clears up after the other. It is the keeper that goes first: a stopped
    // one would be continued by the kernel when its parent ends, as its process group is an orphan then.
    killed.Signal(SIGSTOP);
    ::kill(all.front(), SIGKILL);
    killed.Signal(SIGKILL);
    killed.Wait();
    ASSERT_TRUE(Await([&] { return !AnyRuns(all); }));
    EXPECT_TRUE(std::filesystem::exists(killedFolder));
    EXPECT_EQ(Run({"--no-service", "true"}), 0);
    EXPECT_FALSE(std::filesystem::exists(killedFolder));
    EXPECT_TRUE(std::filesystem::exists(livingFolder));
}

// A sandbox that finds another one's folder at the moment between its making and its locking takes it for
// left over.
TEST_F(Sandbox, ManyThatStartAtOnceLeaveEachOtherTheirFolders) {
    const std::string script = "i=0; while [ $i -lt 20 ]; do $0 --no-service -- true & all=\"$all $!\"; "
                               "i=$((i+1)); done; for each in $all; do wait $each || exit; done";
    for (unsigned int time = 0; time < Scaled(5); ++time)
        ASSERT_EQ(Run({"-c", script, MAVIX_TEST_SANDBOX}, "sh"), 0);
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(Sandbox, PassesOverFoldersThatABusAddressCannotName) {
    for (const char* name : {"a b", "a,b", "a;b", "a%b", "a<&b", "a\xc3\xa4"}) {
        const std::string folder = m_notes.Path() + "/" + name;
        std::filesystem::create_directory(folder);
        std::filesystem::remove(m_note);
        EXPECT_EQ(Run({"XDG_RUNTIME_DIR=" + folder, MAVIX_TEST_SANDBOX, "--no-service", "sh", "-c",
                       "echo $DBUS_SYSTEM_BUS_ADDRESS >$0", m_note},
                      "env"),
                  0)
            << name;
        EXPECT_EQ(ReadNote().rfind("unix:path=" + m_temporary.Path() + "/", 0), 0u) << name << ReadNote();
    }
}

TEST_F(Sandbox, RunsTheBusAloneOnRequest) {
    TCChildProcess sandbox = StartWaiting({"--no-service"});
    EXPECT_EQ(Descendants(sandbox.Pid()).size(), 3u);
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

// Whether it ends the sandbox before it blocks signals, before there is a command, or the command.
TEST_F(Sandbox, AnInterruptFromTheTerminalIsNotLostWheneverItComes) {
    constexpr unsigned int longestMs = 60;
    for (unsigned int number = 0; number < Scaled(120); ++number) {
        int terminal = -1;
        const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid == 0) {
            ::setenv("XDG_RUNTIME_DIR", m_temporary.Path().c_str(), 1);
            ::execl(MAVIX_TEST_SANDBOX, "mavix-sandbox", "sleep", "1000", nullptr);
            ::_exit(1);
        }
        const MavixTools::TCDescriptor owned(terminal);
        // It has the terminal then.
        EXPECT_TRUE(Await([&] { return NameOf(pid) == "mavix-sandbox"; }));
        // Any moment will do.
        const std::chrono::milliseconds moment(number % longestMs);
        std::this_thread::sleep_for(moment);
        EXPECT_EQ(::write(terminal, "\x03", 1), 1);
        int status = 0;
        if (!Await([&] { return ::waitpid(pid, &status, WNOHANG) == pid; })) {
            ADD_FAILURE() << "goes on after an interrupt after " << moment.count() << " ms";
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            break;
        }
        EXPECT_EQ(ShellStatus(status), 128 + SIGINT) << "after " << moment.count() << " ms";
    }
    EXPECT_TRUE(Await([&] { return NothingIsLeft(); }));
}

// A shell that reads its orders from a pipe.
TEST_F(Sandbox, RunsTheUsersShellOnRequest) {
    struct Row {
        const char* shell; // SHELL; null for none
        const char* expected;
    };
    for (const Row& row :
         {Row{"/bin/bash", "bash"}, Row{"/bin/sh", "sh"}, Row{"", "sh"}, Row{nullptr, "sh"}}) {
        SCOPED_TRACE(row.shell == nullptr ? "none" : row.shell);
        std::filesystem::remove(m_note);
        const std::string setting =
            row.shell == nullptr ? "unset SHELL" : std::string("export SHELL=") + row.shell;
        const std::string orders = "case $- in *i*) echo \"$(basename $0) $DBUS_SYSTEM_BUS_ADDRESS $PS1\" >" +
                                   m_note + ";; esac; exit 5";
        testing::internal::CaptureStderr();
        const int status = Run(
            {"-c", setting + "; printf '%s\n' \"$0\" | \"$@\"", orders, MAVIX_TEST_SANDBOX, "--shell"}, "sh");
        const std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(status, 5) << errors;
        EXPECT_EQ(
            errors.rfind(
                "mavix-sandbox: a shell on a bus of its own, with the stand-in service; `exit` ends it\n", 0),
            0u)
            << errors;
        EXPECT_EQ(ReadNote().rfind(std::string(row.expected) + " unix:path=" + m_temporary.Path() + "/", 0),
                  0u)
            << ReadNote();
        EXPECT_NE(ReadNote().find("(mavix-sandbox) "), std::string::npos) << ReadNote();
        EXPECT_TRUE(NothingIsLeft());
    }
}

// What is typed, and what shows, until the other side hangs up.
std::string TypeInto(int terminal, const std::string& orders) {
    std::string shown;
    std::array<char, 512> chunk{};
    EXPECT_EQ(::write(terminal, orders.data(), orders.size()), static_cast<ssize_t>(orders.size()));
    for (ssize_t count = 0; (count = ::read(terminal, chunk.data(), chunk.size())) > 0;)
        shown.append(chunk.data(), static_cast<std::size_t>(count));
    return shown;
}

TEST_F(Sandbox, TheShellHasTheTerminalAndTellsWhereItIs) {
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        ::setenv("XDG_RUNTIME_DIR", m_temporary.Path().c_str(), 1);
        ::setenv("HOME", m_notes.Path().c_str(), 1);
        ::setenv("SHELL", "/bin/bash", 1);
        ::execl(MAVIX_TEST_SANDBOX, "mavix-sandbox", "--shell", "--no-service", nullptr);
        ::_exit(1);
    }
    const MavixTools::TCDescriptor owned(terminal);
    // A job in the foreground, and one in the background that is left behind.
    const std::string shown =
        TypeInto(terminal, "sleep 1000 &\ntest -t 0 && (echo on a $((40 + 2)) terminal)\nexit 3\nexit 3\n");
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(ShellStatus(status), 3);
    EXPECT_NE(shown.find("a shell on a bus of its own, without the stand-in service"), std::string::npos)
        << shown;
    EXPECT_NE(shown.find("(mavix-sandbox) "), std::string::npos) << shown;
    EXPECT_NE(shown.find("on a 42 terminal"), std::string::npos) << shown;
    EXPECT_EQ(shown.find("no job control"), std::string::npos) << shown;
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

struct ScenarioRow {
    const char* name;
    const char* expect; // calls: none are made
    std::string command;
    int status;
    const char* report; // without the file's name in front
};

TEST_F(Sandbox, FailsWhenAScenarioIsNotMet) {
    const char* anyCall = R"({"calls":[{"name":"a","interface":"*","code":"*"}]})";
    const char* unmet = ":1:32: 'a' (any interface of any code): expected at least 1 call, came none\n";
    const std::vector<ScenarioRow> rows{
        {"met", R"({"nothingElse":true})", "true", 0, nullptr},
        {"not met", anyCall, "true", 124, unmet},
        {"not met after a failure", anyCall, "exit 7", 7, unmet},
        {"met after a failure", R"({"nothingElse":true})", "exit 7", 7, nullptr},
    };
    const std::string file = m_notes.Path() + "/scenario.json";
    for (const ScenarioRow& row : rows) {
        SCOPED_TRACE(row.name);
        std::ofstream(file) << R"({"format":1,"expect":)" << row.expect << "}";
        testing::internal::CaptureStderr();
        const int status = Run({"--scenario", file, "--", "sh", "-c", row.command});
        const std::string report =
            row.report == nullptr
                ? ""
                : "mavix-sandbox: the scenario's expectations were not met:\n" + file + row.report;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), report);
        EXPECT_EQ(status, row.status);
    }
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(Sandbox, CannotJudgeAScenarioWhoseServiceWasKilled) {
    const std::string file = m_notes.Path() + "/scenario.json";
    std::ofstream(file) << R"({"format":1})";
    testing::internal::CaptureStderr();
    TCChildProcess sandbox = StartWaiting({"--scenario=" + file});
    for (const pid_t pid : Descendants(sandbox.Pid())) {
        const std::string name = NameOf(pid);
        if (name == "mavix-sim" || name == "sleep")
            ::kill(pid, name == "sleep" ? SIGTERM : SIGKILL);
    }
    EXPECT_EQ(ShellStatus(*sandbox.Wait()), 128 + SIGTERM);
    EXPECT_NE(
        testing::internal::GetCapturedStderr().find("mavix-sandbox: mavix-sim has ended with status 137\n"),
        std::string::npos);
}

TEST_F(Sandbox, RunsNothingWithABadScenario) {
    const std::string file = m_notes.Path() + "/scenario.json";
    std::ofstream(file) << "{\n  \"format\": 1,\n  \"expects\": {}\n}";
    testing::internal::CaptureStderr();
    EXPECT_EQ(Run({"--scenario", file, "--", "touch", m_note}), 125);
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("mavix-sandbox: " + file +
                                                          ":3:3: $: unknown member 'expects'\n"),
              0u);
    EXPECT_FALSE(std::filesystem::exists(m_note));
    EXPECT_EQ(Run({"--no-service", "--scenario", file, "--", "true"}), 125);
    EXPECT_TRUE(NothingIsLeft());
}

} // namespace

} // namespace MavixTest
