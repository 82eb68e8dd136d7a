#include "CommandHelp.h"

#include <gtest/gtest.h>
#include <regex>

namespace MavixTest {

Words Listed(const std::string& text, const char* pattern) {
    Words found;
    const std::regex line(pattern);
    for (std::sregex_iterator at(text.begin(), text.end(), line), end; at != end; ++at)
        found.push_back((*at)[1]);
    return found;
}

Words CommandsIn(const std::string& help) {
    const std::size_t at = help.find("Subcommands:");
    return at == std::string::npos ? Words() : Listed(help.substr(at), "\n  ([a-z]+) ");
}

Words OptionsIn(const std::string& help) {
    return Listed(help, "\n  (?:-[a-z],)?(--[a-z-]+)");
}

void ForEachCommand(const Words& command,
                    const std::function<void(const Words&, const std::string&)>& visit) {
    Words words = command;
    words.emplace_back("--help");
    const ControlResult help = RunControl(words);
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.errors, "");
    visit(command, help.output);
    for (const std::string& own : CommandsIn(help.output)) {
        Words below = command;
        below.push_back(own);
        ForEachCommand(below, visit);
    }
}

std::string Join(const Words& words) {
    std::string text = "mavixctl";
    for (const std::string& word : words)
        text += " " + word;
    return text;
}

} // namespace MavixTest
