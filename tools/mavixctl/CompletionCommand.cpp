#include "CommandTree.h"
#include "Commands.h"
#include "Output.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace MavixControl {

namespace {

using Commands = std::vector<TSCommand>;

// What bash and zsh do not have in common.
struct Dialect {
    const char* head;
    const char* word; // the one that the loop has come to
    std::string (*item)(const std::string& word, const std::string& description);
    const char* tail;
};

std::string BashItem(const std::string& word, const std::string& /*description*/) {
    return word;
}

// In single quotes; _describe takes what stands behind a colon as the description.
std::string ZshItem(const std::string& word, const std::string& description) {
    const std::string text = description.empty() ? word : word + ":" + description;
    std::string item = "'";
    for (const char letter : text)
        item += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    return item + "'";
}

constexpr Dialect bash{R"(# Completion of mavixctl for bash, made by "mavixctl completion bash".
_mavixctl() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command=mavixctl items=() i
    for ((i = 1; i < COMP_CWORD; i++)); do
)",
                       "${COMP_WORDS[i]}", BashItem,
                       R"(    mapfile -t COMPREPLY < <(compgen -W "${items[*]}" -- "$word")
}
complete -o default -F _mavixctl mavixctl
)"};

constexpr Dialect zsh{R"(#compdef mavixctl
# Completion of mavixctl for zsh, made by "mavixctl completion zsh".
_mavixctl() {
    local command=mavixctl previous=${words[CURRENT - 1]} i
    local -a items
    for ((i = 2; i < CURRENT; i++)); do
)",
                      "${words[i]}", ZshItem,
                      R"(    if (( ${#items} )); then
        _describe mavixctl items || _files
    else
        _files
    fi
}
if [ "$funcstack[1]" = _mavixctl ]; then
    _mavixctl "$@"
else
    compdef _mavixctl mavixctl
fi
)"};

// The paths of the commands below the program.
std::vector<std::string> Paths(const Commands& commands) {
    std::vector<std::string> paths;
    for (auto command = commands.begin() + 1; command != commands.end(); ++command)
        paths.push_back(command->path);
    return paths;
}

// Every word that can stand behind a command: its own commands, what its arguments may be, its options.
std::string Items(const Dialect& dialect, const TSCommand& command) {
    std::vector<std::string> items;
    for (const auto& [name, description] : command.commands)
        items.push_back(dialect.item(name, description));
    for (const TSOption& argument : command.arguments)
        for (const std::string& choice : argument.choices)
            items.push_back(dialect.item(choice, ""));
    for (const TSOption& option : command.options)
        items.push_back(dialect.item(option.name, option.description));
    return fmt::format("{}", fmt::join(items, " "));
}

std::string Script(const Dialect& dialect, const Commands& commands) {
    std::string script = dialect.head;
    script += fmt::format("        case \"$command {0}\" in\n"
                          "        (\"{1}\") command+=\" {0}\" ;;\n"
                          "        esac\n"
                          "    done\n"
                          "    case \"$command $previous\" in\n",
                          dialect.word, fmt::join(Paths(commands), "\"|\""));
    for (const TSCommand& command : commands)
        for (const TSOption& option : command.options)
            if (!option.IsFlag())
                script += fmt::format("    (\"{} {}\") items=({}) ;;\n", command.path, option.name,
                                      fmt::join(option.choices, " "));
    script += "    (*)\n"
              "        case $command in\n";
    for (const TSCommand& command : commands)
        script += fmt::format("        (\"{}\") items=({}) ;;\n", command.path, Items(dialect, command));
    return script + "        esac\n        ;;\n    esac\n" + dialect.tail;
}

std::string FishQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char letter : text)
        quoted += letter == '\'' || letter == '\\' ? std::string("\\") + letter : std::string(1, letter);
    return quoted + "'";
}

std::string FishQuoted(const std::vector<std::string>& words) {
    return FishQuoted(fmt::format("{}", fmt::join(words, " ")));
}

// The lines that make fish complete behind a command.
std::string FishLines(const TSCommand& command) {
    const std::string start =
        fmt::format("complete -c mavixctl -n 'test (__mavixctl_command) = \"{}\"'", command.path);
    std::string lines;
    for (const auto& [name, description] : command.commands)
        lines += fmt::format("{} -f -a {} -d {}\n", start, name, FishQuoted(description));
    for (const TSOption& argument : command.arguments)
        if (!argument.choices.empty())
            lines += fmt::format("{} -f -a {} -d {}\n", start, FishQuoted(argument.choices), argument.name);
    for (const TSOption& option : command.options) {
        const bool isLong = option.name[1] == '-';
        lines += fmt::format("{} {} {}{}{} -d {}\n", start, isLong ? "-l" : "-s",
                             option.name.substr(isLong ? 2 : 1), option.IsFlag() ? "" : " -r",
                             option.choices.empty() ? "" : " -f -a " + FishQuoted(option.choices),
                             FishQuoted(option.description));
    }
    return lines;
}

std::string FishScript(const Commands& commands) {
    std::string script =
        fmt::format("# Completion of mavixctl for fish, made by \"mavixctl completion fish\".\n"
                    "function __mavixctl_command\n"
                    "    set -l command mavixctl\n"
                    "    for word in (commandline -opc)[2..-1]\n"
                    "        switch \"$command $word\"\n"
                    "            case '{}'\n"
                    "                set command \"$command $word\"\n"
                    "        end\n"
                    "    end\n"
                    "    echo $command\n"
                    "end\n",
                    fmt::join(Paths(commands), "' '"));
    for (const TSCommand& command : commands)
        script += FishLines(command);
    return script;
}

void Print(const std::string& script, const std::string& shell, bool asJson) {
    if (asJson)
        PrintJson({{"shell", shell}, {"script", script}});
    else
        PrintLine(std::string_view(script).substr(0, script.size() - 1));
}

} // namespace

void AddCompletionCommand(CLI::App& application, TSSettings& settings, int& /*exitCode*/) {
    CLI::App* command =
        AddCommand(application, settings, "completion", "Print what makes a shell complete mavixctl's words",
                   "source <(mavixctl completion bash)");
    const auto shell = std::make_shared<std::string>();
    SetChoices(command->add_option("SHELL", *shell, "The shell")->required(), {"bash", "zsh", "fish"});
    command->callback([&application, &settings, shell] {
        const Commands commands = AllCommands(application);
        const std::string script = *shell == "fish"   ? FishScript(commands)
                                   : *shell == "bash" ? Script(bash, commands)
                                                      : Script(zsh, commands);
        Print(script, *shell, settings.json);
    });
}

} // namespace MavixControl
