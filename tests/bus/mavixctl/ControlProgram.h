#ifndef MAVIX_TEST_CONTROL_PROGRAM_H
#define MAVIX_TEST_CONTROL_PROGRAM_H

#include "ChildProcess.h"
#include "TempFolder.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace MavixTest {

using Words = std::vector<std::string>;

// What a program has printed, and how it ended: its exit code, or 128 and the signal.
struct ControlResult {
    int status = -1;
    std::string output;
    std::string errors;

    // The objects that it printed, one a line.
    std::vector<nlohmann::json> Objects() const;
    // The only one of them; throws when there is not exactly one.
    nlohmann::json Object() const;
};

// mavixctl with some arguments, as a process of its own. Owner: the test; one thread.
class TCControlProgram final {
public:
    struct Options {
        std::string input;
        std::vector<std::pair<std::string, std::string>> environment;
        // Put in front: a program that runs the rest of its arguments.
        Words launcher;

        // Runs it behind a shell's redirections or limits.
        static Options Behind(const std::string& script);
    };

    explicit TCControlProgram(const Words& arguments) : TCControlProgram(arguments, Options()) {}
    TCControlProgram(const Words& arguments, const Options& options);

    // What it has printed so far.
    std::string Output() const;
    std::string Errors() const;
    // Wait until it has printed a text; false when the time is over before.
    bool AwaitOutput(const std::string& text) const;
    bool AwaitErrors(const std::string& text) const;
    void Signal(int signal) const { m_process.Signal(signal); }
    // Waits for its end. Without one in time it is killed, and the status is that of SIGKILL.
    ControlResult Wait(std::chrono::milliseconds limit = std::chrono::seconds(50));

private:
    MavixTools::TCTempFolder m_folder;
    MavixTools::TCChildProcess m_process;
};

// Runs it to its end.
ControlResult RunControl(const Words& arguments, const TCControlProgram::Options& options = {});

} // namespace MavixTest

#endif
