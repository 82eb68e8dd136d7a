#ifndef MAVIX_CONTROL_COMMAND_H
#define MAVIX_CONTROL_COMMAND_H

#include <CLI/CLI.hpp>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace MavixControl {

enum EExitCode : int {
    Done = 0,
    Refused = 1,    // the service refused, or a check failed
    WrongUsage = 2, // an argument is missing, superfluous or malformed
    NoService = 3,  // no bus, or nobody owns the service's name there
};

// What every command can be told.
struct TSSettings {
    bool json = false;
};

// Ends a command: the text goes to standard error, the code is the process's.
class TCFailure : public std::runtime_error {
public:
    TCFailure(EExitCode code, const std::string& text) : std::runtime_error(text), m_code(code) {}

    EExitCode Code() const { return m_code; }

private:
    EExitCode m_code;
};

// A command or, under a command, one of its own; with --json and an example below its help.
CLI::App* AddCommand(CLI::App& parent, TSSettings& settings, const std::string& name,
                     const std::string& description, const std::string& example);

// Validators, which say what was expected. A number is decimal, or hexadecimal with 0x.
CLI::Validator Number(std::int64_t lowest, std::int64_t highest);
CLI::Validator Seconds();
CLI::Validator InterfaceName();
// One of the texts; completion offers them.
void SetChoices(CLI::Option* option, const std::vector<std::string>& choices);
// What completion offers, where other texts are taken, too.
void OfferChoices(CLI::Option* option, const std::vector<std::string>& choices);
std::vector<std::string> ChoicesOf(CLI::Option& option);

// The arguments that most commands have.
CLI::Option* AddInterface(CLI::App& command, std::string& interfaceName);
CLI::Option* AddCode(CLI::App& command, std::int16_t& code);

} // namespace MavixControl

#endif
