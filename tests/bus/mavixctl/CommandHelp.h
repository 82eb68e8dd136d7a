#ifndef MAVIX_TEST_COMMAND_HELP_H
#define MAVIX_TEST_COMMAND_HELP_H

#include "ControlProgram.h"

#include <functional>

namespace MavixTest {

// The first group of all that a pattern finds.
Words Listed(const std::string& text, const char* pattern);

// The commands of a help text, and its long options.
Words CommandsIn(const std::string& help);
Words OptionsIn(const std::string& help);

// Calls `visit` with every command, as the words behind the program's name, and its help. A command comes
// before its own.
void ForEachCommand(const Words& command, const std::function<void(const Words&, const std::string&)>& visit);

// With the program's name in front.
std::string Join(const Words& words);

} // namespace MavixTest

#endif
