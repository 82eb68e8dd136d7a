#include "CommandHelp.h"

#include "TempFolder.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <sstream>
#include <sys/resource.h>

namespace MavixTest {

namespace {

// What a program prints that gets the text as a file, "$0"; its exit status goes to `status`.
std::string RunWithFile(const std::string& text, const std::string& script, int& status) {
    const MavixTools::TCTempFolder folder;
    const std::string path = folder.Path() + "/text";
    std::ofstream(path) << text;
    MavixTools::ChildOptions options;
    options.program = "bash";
    options.arguments = {"-c", "exec >\"$0.out\" 2>&1\n" + script, path};
    status = MavixTools::ShellStatus(*MavixTools::TCChildProcess(options).Wait());
    std::ifstream file(path + ".out");
    return {std::istreambuf_iterator<char>(file), {}};
}

bool IsInstalled(const char* program) {
    int status = 0;
    RunWithFile("", std::string("command -v ") + program, status);
    return status == 0;
}

Words Split(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

TEST(Help, EveryCommandHasAnExampleOfItself) {
    int commands = 0;
    ForEachCommand({}, [&](const Words& command, const std::string& help) {
        if (!CommandsIn(help).empty())
            return;
        ++commands;
        EXPECT_NE(help.find("Example:\n  "), std::string::npos) << Join(command);
        EXPECT_NE(help.find(Join(command), help.find("Example:\n")), std::string::npos) << Join(command);
        EXPECT_NE(help.find("--json "), std::string::npos) << Join(command);
    });
    EXPECT_GE(commands, 16);
}

// What bash offers for the last word.
Words Complete(const std::string& completion, const Words& words, int& status) {
    std::string script = "source \"$0\"; COMP_WORDS=(mavixctl";
    for (const std::string& word : words)
        script += " '" + word + "'";
    script += "); COMP_CWORD=" + std::to_string(words.size()) + "; _mavixctl; echo \"${COMPREPLY[@]}\"";
    return Split(RunWithFile(completion, script, status));
}

TEST(Completion, BashOffersWhatTheHelpLists) {
    const std::string completion = RunControl({"completion", "bash"}).output;
    ForEachCommand({}, [&](const Words& command, const std::string& help) {
        Words expected = CommandsIn(help);
        const Words options = OptionsIn(help);
        EXPECT_FALSE(options.empty());
        expected.insert(expected.end(), options.begin(), options.end());
        Words words = command;
        words.emplace_back("");
        int status = -1;
        Words offered = Complete(completion, words, status);
        EXPECT_EQ(status, 0);
        std::sort(offered.begin(), offered.end());
        for (const std::string& word : expected)
            EXPECT_TRUE(std::binary_search(offered.begin(), offered.end(), word))
                << Join(command) << " " << word;
    });
}

struct CompletionRow {
    Words words;
    Words offered;
};

TEST(Completion, BashCompletesTheWordAtTheCursor) {
    const std::string completion = RunControl({"completion", "bash"}).output;
    const CompletionRow rows[] = {
        {{"ro"}, {"route"}},
        {{"session", "t"}, {"terminated", "trace"}},
        {{"session", "open", "--h"}, {"--help", "--hold"}},
        {{"session", "open", "--hold", ""}, {}},
        {{"listen", "PES"}, {"PESData"}},
        {{"listen", "Data", "--json", "Te"}, {"TextData"}},
        {{"listen", "Data", "--id", ""}, {}},
        {{"completion", ""}, {"bash", "zsh", "fish", "--help", "--json"}},
        {{"call", "com.norvale.IAVControl", "1", "--as"}, {"--async"}},
        {{"nonsense", "--x"}, {}},
    };
    for (const CompletionRow& row : rows) {
        int status = -1;
        EXPECT_EQ(Complete(completion, row.words, status), row.offered) << Join(row.words);
        EXPECT_EQ(status, 0) << Join(row.words);
    }
}

double ChildrensCpuMs() {
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    const auto milliseconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
}

TEST(Help, AndRouteTakeLessThan30MillisecondsOfCpu) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers take their own time to start";
#endif
    for (const Words& words : {Words{"--help"}, Words{"route", "com.norvale.IAVControl", "66"}}) {
        // What else the machine does may cost a run time, but never gives it any.
        double least = 1e9;
        for (int run = 0; run < 10; ++run) {
            const double before = ChildrensCpuMs();
            EXPECT_EQ(RunControl(words).status, 0);
            least = std::min(least, ChildrensCpuMs() - before);
        }
        EXPECT_LT(least, 30) << words[0];
        RecordProperty(words[0] == "route" ? "routeCpuMs" : "helpCpuMs", std::to_string(least));
    }
}

TEST(Completion, IsTheSameAsAnObject) {
    for (const char* shell : {"bash", "zsh", "fish"}) {
        const nlohmann::json object = RunControl({"completion", shell, "--json"}).Object();
        EXPECT_EQ(object,
                  (nlohmann::json{{"shell", shell}, {"script", RunControl({"completion", shell}).output}}));
    }
}

class CompletionOf : public testing::TestWithParam<const char*> {};

TEST_P(CompletionOf, IsAcceptedByTheShell) {
    const std::string shell = GetParam();
    const ControlResult completion = RunControl({"completion", shell});
    EXPECT_EQ(completion.status, 0);
    EXPECT_NE(completion.output.find("mavixctl session open"), std::string::npos);
    if (!IsInstalled(shell.c_str()))
        GTEST_SKIP() << shell << " is not installed";
    int status = -1;
    EXPECT_EQ(RunWithFile(completion.output, shell + " -n \"$0\"", status), "");
    EXPECT_EQ(status, 0);
}

INSTANTIATE_TEST_SUITE_P(Shells, CompletionOf, testing::Values("bash", "zsh", "fish"),
                         [](const auto& shell) { return std::string(shell.param); });

TEST(Manual, TellsEveryCommandAndOption) {
    const ControlResult manual = RunControl({"--generate-man"});
    ASSERT_EQ(manual.status, 0) << manual.errors;
    ForEachCommand({}, [&](const Words& command, const std::string& help) {
        if (command.empty())
            return;
        const std::size_t at = manual.output.find(".SS " + Join(command) + "\n");
        ASSERT_NE(at, std::string::npos) << Join(command);
        const std::string section = manual.output.substr(at, manual.output.find("\n.S", at + 1) - at);
        if (!CommandsIn(help).empty())
            return;
        for (const std::string& option : OptionsIn(help)) {
            const std::string troff = std::regex_replace(option, std::regex("-"), "\\-");
            EXPECT_NE(section.find("\\fB" + troff + "\\fR"), std::string::npos)
                << Join(command) << " " << option;
        }
    });
    for (const char* heading : {"NAME", "SYNOPSIS", "EXIT STATUS", "ENVIRONMENT"})
        EXPECT_NE(manual.output.find(std::string("\n.SH ") + heading + "\n"), std::string::npos) << heading;
}

TEST(Page, TellsEveryCommandAndNoOptionThatIsNotThere) {
    std::ifstream file(MAVIX_TEST_PAGE);
    const std::string page{std::istreambuf_iterator<char>(file), {}};
    Words options{"--"};
    Words headings;
    for (const std::string& heading : Listed(page, "\n## ([^\n]+)"))
        for (const std::string& word : Split(heading))
            headings.push_back(word.substr(0, word.find(',')));
    ForEachCommand({}, [&](const Words& command, const std::string& help) {
        if (command.size() == 1) {
            EXPECT_EQ(std::count(headings.begin(), headings.end(), command[0]), 1) << command[0];
        }
        for (const std::string& option : OptionsIn(help))
            options.push_back(option);
    });
    for (const std::string& option : Listed(page, "[`\\[ ](--[a-z-]*)"))
        EXPECT_NE(std::find(options.begin(), options.end(), option), options.end()) << option;
}

TEST(Manual, IsSoundTroff) {
    if (!IsInstalled("groff"))
        GTEST_SKIP() << "groff is not installed";
    int status = -1;
    EXPECT_EQ(RunWithFile(RunControl({"--generate-man"}).output, "groff -man -Tutf8 -ww -z \"$0\"", status),
              "");
    EXPECT_EQ(status, 0);
}

} // namespace

} // namespace MavixTest
