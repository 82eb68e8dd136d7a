#include "Shell.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace MavixTools {

namespace {

const char* const note = "(mavix-sandbox) ";

// The user's own start file may set the prompt, so the note follows it.
std::string WriteStartFile(const std::string& folder) {
    std::string path = folder + "/bashrc";
    std::ofstream file(path);
    file << "[ ! -r ~/.bashrc ] || . ~/.bashrc\nPS1='" << note << "'$PS1\n" << std::flush;
    if (!file)
        throw std::runtime_error("cannot write " + path);
    return path;
}

} // namespace

ChildOptions InteractiveShell(const std::string& folder) {
    const char* const shell = ::getenv("SHELL");
    ChildOptions options;
    options.program = shell != nullptr && shell[0] != '\0' ? shell : "/bin/sh";
    if (std::filesystem::path(options.program).filename() == "bash")
        options.arguments = {"--rcfile", WriteStartFile(folder)};
    options.arguments.emplace_back("-i");
    options.environment = {{"PS1", std::string(note) + "$ "}};
    return options;
}

} // namespace MavixTools
