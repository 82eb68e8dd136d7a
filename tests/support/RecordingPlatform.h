#ifndef MAVIX_TEST_RECORDING_PLATFORM_H
#define MAVIX_TEST_RECORDING_PLATFORM_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

namespace MavixTest {

// One line of the platform's log, taken apart.
struct LogLine {
    int priority = 0; // 3 debug, 4 info, 5 warning, 6 error
    std::string tag;
    std::string source;   // "IpcClient"
    std::string function; // "Call"
    int line = 0;
    std::string text; // what follows the prefix
};

std::ostream& operator<<(std::ostream& out, const LogLine& line);

// The platform of every test program: it defines the eight platform functions, keeps what they were told and
// answers as told. One per process; any thread. Lines are printed when a test has failed. In a child process
// of ChildProgram.h every line also goes to standard error as "<priority>|<tag>|<source>: <function>|<text>".
class TCRecordingPlatform final {
public:
    static TCRecordingPlatform& Get();

    std::vector<LogLine> Lines() const;
    // Lines whose text is exactly this.
    std::vector<LogLine> LinesWith(const std::string& text) const;
    std::size_t Count(const std::string& text) const { return LinesWith(text).size(); }
    // With this text, this priority and the library's own tag.
    std::size_t Count(int priority, const std::string& text) const;
    // Lines whose text starts so.
    std::size_t CountStarting(int priority, const std::string& text) const;
    // Waits until there are `count` lines that start so; false when the time is over.
    bool WaitFor(const std::string& textStart, std::size_t count = 1,
                 std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
    // Every call of another platform function, as text such as "resource_set_cpu_inheritance(0, mavix-daemon,
    // 1999)".
    std::vector<std::string> Calls() const;
    std::size_t CountCalls(const std::string& call) const;
    bool WaitForCalls(const std::string& call, std::size_t count,
                      std::chrono::milliseconds limit = std::chrono::seconds(20)) const;
    // Forgets lines and calls; the answers below go back to their defaults.
    void Reset();
    void EchoToStandardError();
    void Print(std::ostream& out) const;

    // The answers. Set them before the library's threads ask.
    std::function<int(const char* key, bool* value)> systemInfo;   // default: fails with -1
    std::function<int(const char* process)> setInheritance;        // default: 0
    std::function<int(const char* path, int timeoutMs)> waitEvent; // default: 0
    std::function<void(const LogLine&)> onLine;                    // called outside the lock

    // What the platform functions report; not for tests.
    void AddLine(int logId, int priority, const char* tag, const char* text);
    void AddCall(const std::string& call);

private:
    TCRecordingPlatform() = default;
    template <class Predicate>
    bool m_Await(std::chrono::milliseconds limit, const Predicate& predicate) const;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<LogLine> m_lines;
    std::vector<std::string> m_calls;
    bool m_echo = false;
};

} // namespace MavixTest

#endif
