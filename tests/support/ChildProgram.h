#ifndef MAVIX_TEST_CHILD_PROGRAM_H
#define MAVIX_TEST_CHILD_PROGRAM_H

#include <chrono>
#include <string>
#include <vector>

namespace MavixTest {

// What a device's marker files make of a process. They are looked at once per process, so every flavour is
// tested in a process of its own, which has a private /etc.
enum Flavour : unsigned int { plainFlavour = 0, debugFlavour = 1, releaseFlavour = 2, perfFlavour = 4 };

struct ChildResult {
    int exitCode = -1; // when it exited by itself
    int signal = 0;    // the signal that ended it
    bool timedOut = false;
    std::string output; // standard output
    std::string errors; // standard error, which has the log lines
    std::chrono::milliseconds duration{0};

    // Whether a log line "<priority>|MAVIX_API|<anything>|<text>" was written.
    bool HasLine(int priority, const std::string& text) const;
    std::size_t CountLines(int priority, const std::string& text) const;
};

// Whether this machine lets a test give its child a private /etc. Tests that need it skip with this text.
bool CanChooseFlavour();
constexpr const char* noFlavourReason = "the kernel allows no private mounts here";

// Runs the child body that was registered under `name` in a new process of this program.
ChildResult RunChildProgram(const std::string& name, unsigned int flavour = plainFlavour,
                            const std::vector<std::string>& arguments = {},
                            std::chrono::milliseconds limit = std::chrono::seconds(60));

using ChildBody = int (*)(const std::vector<std::string>& arguments);
struct ChildRegistration {
    ChildRegistration(const char* name, ChildBody body);
};

// Defines the body of a child program: MAVIX_CHILD(Name) { ... return 0; }, with `arguments` at hand.
#define MAVIX_CHILD(name)                                                                                    \
    static int name##Child(const std::vector<std::string>& arguments);                                       \
    static const MavixTest::ChildRegistration name##Registration(#name, name##Child);                        \
    static int name##Child([[maybe_unused]] const std::vector<std::string>& arguments)

// For the tests' main function: runs the body that the command line asks for; false when it asks for none.
bool RunAsChild(int argc, char** argv, int& exitCode);

} // namespace MavixTest

#endif
