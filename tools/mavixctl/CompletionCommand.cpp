#include "CommandTree.h"
#include "Commands.h"
#include "Output.h"

#include <fmt/format.h>

namespace MavixControl {

namespace {

using Commands = std::vector<TSCommand>;

std::string Words(const std::vector<std::string>& words) {
    return fmt::format("{}", fmt::join(words, " "));
}

// Every word that can stand behind a command: its own commands, its options, what its arguments may be.
std::vector<std::string> WordsOf(const TSCommand& command) {
    std::vector<std::string> words = command.commands;
    for (const TSOption& argument : command.arguments)
        words.insert(words.end(), argument.choices.begin(), argument.choices.end());
    for (const TSOption& option : command.options)
        words.push_back(option.name);
    return words;
}

// The alternatives of a shell's case that are the commands below the program.
std::string Paths(const Commands& commands, const char* separator, char quote) {
    std::string paths;
    for (std::size_t i = 1; i < commands.size(); ++i)
        paths += fmt::format("{}{}{}{}", i == 1 ? "" : separator, quote, commands[i].path, quote);
    return paths;
}

// A branch for each option that takes a value: what can stand behind it.
template <class Print>
void ForEachValue(const Commands& commands, const Print& print) {
    for (const TSCommand& command : commands)
        for (const TSOption& option : command.options)
            if (!option.IsFlag())
                print(command, option);
}

void PrintBash(const Commands& commands) {
    PrintLine("# Completion of mavixctl for bash, made by \"mavixctl completion bash\".\n"
              "_mavixctl() {\n"
              "    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
              "    local command=mavixctl words= i\n"
              "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
              "        case \"$command ${COMP_WORDS[i]}\" in");
    PrintLine(fmt::format("        {}) command+=\" ${{COMP_WORDS[i]}}\" ;;", Paths(commands, " | ", '"')));
    PrintLine("        esac\n"
              "    done\n"
              "    case \"$command $previous\" in");
    ForEachValue(commands, [](const TSCommand& command, const TSOption& option) {
        PrintLine(
            fmt::format("    \"{} {}\") words=\"{}\" ;;", command.path, option.name, Words(option.choices)));
    });
    PrintLine("    *)\n"
              "        case $command in");
    for (const TSCommand& command : commands)
        PrintLine(fmt::format("        \"{}\") words=\"{}\" ;;", command.path, Words(WordsOf(command))));
    PrintLine("        esac\n"
              "        ;;\n"
              "    esac\n"
              "    mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
              "}\n"
              "complete -o default -F _mavixctl mavixctl");
}

// In single quotes; _describe takes what stands behind a colon as the description.
std::string ZshItem(const std::string& word, const std::string& description) {
    std::string item = "'";
    for (const char letter : word + ":" + description)
        item += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return item + "'";
}

void PrintZsh(const Commands& commands) {
    PrintLine("#compdef mavixctl\n"
              "# Completion of mavixctl for zsh, made by \"mavixctl completion zsh\".\n"
              "_mavixctl() {\n"
              "    local command=mavixctl previous=${words[CURRENT - 1]} i\n"
              "    local -a items\n"
              "    for ((i = 2; i < CURRENT; i++)); do\n"
              "        case \"$command ${words[i]}\" in");
    PrintLine(fmt::format("        ({}) command+=\" ${{words[i]}}\" ;;", Paths(commands, "|", '"')));
    PrintLine("        esac\n"
              "    done\n"
              "    case \"$command $previous\" in");
    ForEachValue(commands, [](const TSCommand& command, const TSOption& option) {
        PrintLine(
            fmt::format("    (\"{} {}\") items=({}) ;;", command.path, option.name, Words(option.choices)));
    });
    PrintLine("    (*)\n"
              "        case $command in");
    for (const TSCommand& command : commands) {
        std::string items;
        for (const TSCommand& own : commands)
            if (own.path.rfind(' ') != std::string::npos &&
                own.path.substr(0, own.path.rfind(' ')) == command.path)
                items += " " + ZshItem(own.path.substr(own.path.rfind(' ') + 1), own.description);
        for (const TSOption& argument : command.arguments)
            for (const std::string& choice : argument.choices)
                items += " " + choice;
        for (const TSOption& option : command.options)
            items += " " + ZshItem(option.name, option.description);
        PrintLine(
            fmt::format("        (\"{}\") items=({}) ;;", command.path, items.substr(items.empty() ? 0 : 1)));
    }
    PrintLine("        esac\n"
              "        ;;\n"
              "    esac\n"
              "    if (( ${#items} )); then\n"
              "        _describe mavixctl items || _files\n"
              "    else\n"
              "        _files\n"
              "    fi\n"
              "}\n"
              "if [ \"$funcstack[1]\" = _mavixctl ]; then\n"
              "    _mavixctl \"$@\"\n"
              "else\n"
              "    compdef _mavixctl mavixctl\n"
              "fi");
}

std::string FishQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char letter : text)
        quoted += letter == '\'' || letter == '\\' ? std::string("\\") + letter : std::string(1, letter);
    return quoted + "'";
}

void PrintFish(const Commands& commands) {
    PrintLine("# Completion of mavixctl for fish, made by \"mavixctl completion fish\".\n"
              "function __mavixctl_command\n"
              "    set -l command mavixctl\n"
              "    for word in (commandline -opc)[2..-1]\n"
              "        switch \"$command $word\"");
    PrintLine(fmt::format("            case {}", Paths(commands, " ", '\'')));
    PrintLine("                set command \"$command $word\"\n"
              "        end\n"
              "    end\n"
              "    echo $command\n"
              "end");
    for (const TSCommand& command : commands) {
        const std::string start =
            fmt::format("complete -c mavixctl -n 'test (__mavixctl_command) = \"{}\"'", command.path);
        for (const TSCommand& own : commands)
            if (own.path.rfind(' ') != std::string::npos &&
                own.path.substr(0, own.path.rfind(' ')) == command.path)
                PrintLine(fmt::format("{} -f -a {} -d {}", start, own.path.substr(own.path.rfind(' ') + 1),
                                      FishQuoted(own.description)));
        for (const TSOption& argument : command.arguments)
            if (!argument.choices.empty())
                PrintLine(fmt::format("{} -f -a {} -d {}", start, FishQuoted(Words(argument.choices)),
                                      argument.name));
        for (const TSOption& option : command.options)
            PrintLine(fmt::format("{} {} {}{}{} -d {}", start, option.name[1] == '-' ? "-l" : "-s",
                                  option.name.substr(option.name[1] == '-' ? 2 : 1),
                                  option.IsFlag() ? "" : " -r",
                                  option.choices.empty() ? "" : " -f -a " + FishQuoted(Words(option.choices)),
                                  FishQuoted(option.description)));
    }
}

} // namespace

void AddCompletionCommand(CLI::App& application, TSSettings& /*settings*/, int& /*exitCode*/) {
    CLI::App* command =
        application.add_subcommand("completion", "Print what makes a shell complete mavixctl's words");
    command->footer("Example:\n  source <(mavixctl completion bash)");
    const auto shell = std::make_shared<std::string>();
    SetChoices(command->add_option("SHELL", *shell, "The shell")->required(), {"bash", "zsh", "fish"});
    command->callback([&application, shell] {
        const Commands commands = AllCommands(application);
        if (*shell == "bash")
            PrintBash(commands);
        else if (*shell == "zsh")
            PrintZsh(commands);
        else
            PrintFish(commands);
    });
}

} // namespace MavixControl
