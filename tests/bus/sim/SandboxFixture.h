#ifndef MAVIX_TEST_SANDBOX_FIXTURE_H
#define MAVIX_TEST_SANDBOX_FIXTURE_H

#include "Await.h"
#include "ProcessState.h"

#include "ChildProcess.h"
#include "TempFolder.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace MavixTest {

using Arguments = std::vector<std::string>;

// Runs sandboxes. Their files go into a folder of ours, and their processes carry its name in their
// environment, so that left-overs show.
class SandboxFixture : public testing::Test {
protected:
    MavixTools::TCChildProcess Start(const Arguments& arguments,
                                     const std::string& program = MAVIX_TEST_SANDBOX) const {
        MavixTools::ChildOptions options;
        options.program = program;
        options.arguments = arguments;
        options.environment = {{"XDG_RUNTIME_DIR", m_temporary.Path()}, {"TMPDIR", m_temporary.Path()}};
        return MavixTools::TCChildProcess(options);
    }

    int Run(const Arguments& arguments, const std::string& program = MAVIX_TEST_SANDBOX) const {
        return MavixTools::ShellStatus(*Start(arguments, program).Wait());
    }

    // What a command wrote to the file; it writes the last line in one go.
    std::string ReadNote() const {
        std::ifstream file(m_note);
        std::string line;
        return std::getline(file, line) && !file.eof() ? line : "";
    }

    // A sandbox whose command notes the bus address and waits.
    MavixTools::TCChildProcess StartWaiting(Arguments options = {}) const {
        for (const char* word : {"--", "sh", "-c", "echo $DBUS_SYSTEM_BUS_ADDRESS >$0; exec sleep 1000"})
            options.emplace_back(word);
        options.push_back(m_note);
        MavixTools::TCChildProcess sandbox = Start(options);
        EXPECT_TRUE(Await([&] {
            const std::vector<pid_t> all = Descendants(sandbox.Pid());
            return std::any_of(all.begin(), all.end(), [](pid_t pid) { return NameOf(pid) == "sleep"; });
        }));
        return sandbox;
    }

    bool NothingIsLeft() const { return std::filesystem::is_empty(m_temporary.Path()); }

    MavixTools::TCTempFolder m_temporary;
    MavixTools::TCTempFolder m_notes;
    const std::string m_note = m_notes.Path() + "/note";
};

} // namespace MavixTest

#endif
