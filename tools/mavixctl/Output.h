#ifndef MAVIX_CONTROL_OUTPUT_H
#define MAVIX_CONTROL_OUTPUT_H

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <string_view>

namespace MavixControl {

// Members stand in the order in which they were set.
using Json = nlohmann::ordered_json;

// The results go to standard output, everything else to standard error.
void PrintLine(std::string_view line);
// One object a line; bytes that are no UTF-8 are replaced, and what steers a terminal is escaped.
void PrintJson(const Json& value);
void PrintError(std::string_view text);

// Whether a person watches: colours, and lines that are written over.
bool IsTerminal(std::FILE* stream);

// A colour of the terminal; the text as it is where standard output is none, or the environment sets
// NO_COLOR.
enum class EColour { Name, Good, Bad, Faint };
std::string Paint(EColour colour, std::string_view text);

std::string Faint(std::string_view text);

// What a peer sent, made fit for a terminal: everything that steers one, and what is no UTF-8, is shown as an
// escape.
std::string Printable(std::string_view text);

// Writes what is left; false when not all of it could be written.
bool FlushOutput();

} // namespace MavixControl

#endif
