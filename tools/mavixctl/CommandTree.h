#ifndef MAVIX_CONTROL_COMMAND_TREE_H
#define MAVIX_CONTROL_COMMAND_TREE_H

#include "Command.h"

#include <string>
#include <utility>
#include <vector>

namespace MavixControl {

struct TSOption {
    std::string name;  // with its dashes, or an argument's name
    std::string value; // what it takes; empty for a flag
    std::string description;
    std::vector<std::string> choices;
    bool isRequired = false;
    bool isRepeated = false;

    bool IsFlag() const { return value.empty(); }
};

// A command as its help tells it, for what is made from the help: completion and manual.
struct TSCommand {
    std::string path; // "mavixctl session open"
    std::string description;
    std::string footer;
    std::vector<TSOption> arguments;
    std::vector<TSOption> options;
    // Its own, by their names, with their descriptions.
    std::vector<std::pair<std::string, std::string>> commands;
};

// The program and all its commands, each before its own; hidden options are left out.
std::vector<TSCommand> AllCommands(CLI::App& application);

} // namespace MavixControl

#endif
