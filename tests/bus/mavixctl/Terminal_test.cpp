#include "ControlBus.h"

#include <pty.h>
#include <regex>
#include <sys/wait.h>
#include <unistd.h>

namespace MavixTest {

namespace {

// What a person sees who runs the program in a terminal.
std::string RunInTerminal(const Words& arguments, const char* noColor = nullptr) {
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) {
        std::vector<const char*> words{MAVIX_TEST_CONTROL};
        for (const std::string& word : arguments)
            words.push_back(word.c_str());
        words.push_back(nullptr);
        if (noColor != nullptr)
            ::setenv("NO_COLOR", noColor, 1);
        else
            ::unsetenv("NO_COLOR");
        ::execv(words[0], const_cast<char**>(words.data()));
        ::_exit(127);
    }
    const MavixTools::TCDescriptor owned(terminal);
    std::string seen;
    char chunk[4096];
    for (ssize_t count = 0; (count = ::read(terminal, chunk, sizeof chunk)) > 0;)
        seen.append(chunk, static_cast<std::size_t>(count));
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0) << seen;
    return seen;
}

class ControlTerminal : public ControlBus {};

TEST_F(ControlTerminal, ColoursAreForTerminalsAndNotForThoseWhoDoNotWantThem) {
    const Words words{"route", "com.norvale.IAVControl"};
    const std::string coloured = "interface  \033[1mcom.norvale.IAVControl\033[0m\r\n";
    const std::string plain = "interface  com.norvale.IAVControl\r\n";
    EXPECT_EQ(RunInTerminal(words).substr(0, coloured.size()), coloured);
    EXPECT_EQ(RunInTerminal(words, "").substr(0, coloured.size()), coloured);
    EXPECT_EQ(RunInTerminal(words, "1").substr(0, plain.size()), plain);
    EXPECT_EQ(RunControl(words).output.find('\033'), std::string::npos);
}

TEST_F(ControlTerminal, ObjectsHaveNoColours) {
    EXPECT_EQ(RunInTerminal({"call", "com.norvale.IAVControl", "1", "--json"}).find('\033'),
              std::string::npos);
}

TEST_F(ControlTerminal, ABenchShowsHowFarItIs) {
    const Words words{"bench", "com.norvale.IAVControl", "1", "--seconds", "1"};
    const std::string seen = RunInTerminal(words);
    EXPECT_TRUE(std::regex_search(seen, std::regex("^\r\\[=* *\\] \\d\\.\\d of 1\\.0 s, \\d+ calls\r")))
        << seen;
    EXPECT_TRUE(std::regex_search(seen, std::regex("\r\\[=+ *\\] \\d\\.\\d of 1\\.0 s, [1-9]\\d* calls\r")))
        << seen;
    EXPECT_NE(seen.find("\r\033[Kcom.norvale.IAVControl 1 at "), std::string::npos) << seen;
    EXPECT_EQ(RunControl(words).errors, "");
    Words asJson = words;
    asJson.emplace_back("--json");
    EXPECT_EQ(RunInTerminal(asJson).find("[="), std::string::npos);
}

} // namespace

} // namespace MavixTest
