#include "RecordingPlatform.h"

#include "Platform.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <pthread.h>
#include <unistd.h>

namespace MavixTest {

namespace {

bool StartsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

// "source: function(line) > text"
LogLine Parse(int priority, const char* tag, const std::string& text) {
    LogLine line;
    line.priority = priority;
    line.tag = tag;
    const std::size_t colon = text.find(": ");
    const std::size_t end = text.find(") > ");
    const std::size_t bracket = end != std::string::npos ? text.rfind('(', end) : std::string::npos;
    if (colon == std::string::npos || bracket == std::string::npos || bracket < colon) {
        line.text = "NO PREFIX: " + text;
        return line;
    }
    line.source = text.substr(0, colon);
    line.function = text.substr(colon + 2, bracket - colon - 2);
    line.line = std::atoi(text.c_str() + bracket + 1);
    line.text = text.substr(end + 4);
    return line;
}

} // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << line.priority << '|' << line.tag << '|' << line.source << ": " << line.function << '|'
               << line.text;
}

// Never destroyed: the library logs while the process exits.
TCRecordingPlatform& TCRecordingPlatform::Get() {
    static TCRecordingPlatform& platform = *[] {
        // A child that is forked while other threads log must be able to log.
        pthread_atfork([] { Get().m_mutex.lock(); }, [] { Get().m_mutex.unlock(); },
                       [] { Get().m_mutex.unlock(); });
        return new TCRecordingPlatform;
    }();
    return platform;
}

std::vector<LogLine> TCRecordingPlatform::Lines() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

std::vector<LogLine> TCRecordingPlatform::LinesWith(const std::string& text) const {
    std::vector<LogLine> found;
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(found),
                 [&](const LogLine& line) { return line.text == text; });
    return found;
}

std::size_t TCRecordingPlatform::Count(int priority, const std::string& text) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<std::size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const LogLine& line) {
        return line.priority == priority && line.tag == "MAVIX_API" && line.text == text;
    }));
}

std::size_t TCRecordingPlatform::CountStarting(int priority, const std::string& text) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<std::size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const LogLine& line) {
        return line.priority == priority && line.tag == "MAVIX_API" && StartsWith(line.text, text);
    }));
}

template <class Predicate>
bool TCRecordingPlatform::m_Await(std::chrono::milliseconds limit, const Predicate& predicate) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, limit, predicate);
}

bool TCRecordingPlatform::WaitFor(const std::string& textStart, std::size_t count,
                                  std::chrono::milliseconds limit) const {
    return m_Await(limit, [&] {
        return static_cast<std::size_t>(
                   std::count_if(m_lines.begin(), m_lines.end(), [&](const LogLine& line) {
                       return StartsWith(line.text, textStart);
                   })) >= count;
    });
}

std::vector<std::string> TCRecordingPlatform::Calls() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
}

std::size_t TCRecordingPlatform::CountCalls(const std::string& call) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<std::size_t>(std::count(m_calls.begin(), m_calls.end(), call));
}

bool TCRecordingPlatform::WaitForCalls(const std::string& call, std::size_t count,
                                       std::chrono::milliseconds limit) const {
    return m_Await(limit, [&] {
        return static_cast<std::size_t>(std::count(m_calls.begin(), m_calls.end(), call)) >= count;
    });
}

void TCRecordingPlatform::Reset() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
    m_calls.clear();
    systemInfo = nullptr;
    setInheritance = nullptr;
    waitEvent = nullptr;
    onLine = nullptr;
}

void TCRecordingPlatform::EchoToStandardError() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_echo = true;
}

void TCRecordingPlatform::Print(std::ostream& out) const {
    for (const LogLine& line : Lines()) {
        out << "log: " << line << '\n';
    }
}

void TCRecordingPlatform::AddLine(int logId, int priority, const char* tag, const char* text) {
    LogLine line = Parse(priority, tag, text);
    if (logId != MAVIX_LOG_ID_MAIN) {
        line.text = "NOT THE MAIN LOG: " + line.text;
    }
    std::function<void(const LogLine&)> hook;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_echo) {
            const std::string echoed = std::to_string(line.priority) + '|' + line.tag + '|' + line.source +
                                       ": " + line.function + '|' + line.text + '\n';
            static_cast<void>(!write(STDERR_FILENO, echoed.data(), echoed.size()));
        }
        hook = onLine;
        m_lines.push_back(line);
        m_changed.notify_all();
    }
    if (hook) {
        hook(line);
    }
}

void TCRecordingPlatform::AddCall(const std::string& call) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(call);
    m_changed.notify_all();
}

} // namespace MavixTest

using MavixTest::TCRecordingPlatform;

extern "C" {

int __dlog_print(int logId, int priority, const char* tag, const char* format, ...) {
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    TCRecordingPlatform::Get().AddLine(logId, priority, tag, text);
    return length;
}

int system_info_get_custom_bool(const char* key, bool* value) {
    TCRecordingPlatform& platform = TCRecordingPlatform::Get();
    platform.AddCall(std::string("system_info_get_custom_bool(") + key + ")");
    return platform.systemInfo ? platform.systemInfo(key, value) : -1;
}

int resource_set_cpu_inheritance(int thread, const char* process, int timeLimit) {
    TCRecordingPlatform& platform = TCRecordingPlatform::Get();
    platform.AddCall("resource_set_cpu_inheritance(" + std::to_string(thread) + ", " + process + ", " +
                     std::to_string(timeLimit) + ")");
    return platform.setInheritance ? platform.setInheritance(process) : 0;
}

int resource_clear_cpu_inheritance(int thread, const char* process) {
    TCRecordingPlatform::Get().AddCall("resource_clear_cpu_inheritance(" + std::to_string(thread) + ", " +
                                       process + ")");
    return 0;
}

int smart_deadlock_register_watchdog_service(int periodSeconds) {
    TCRecordingPlatform::Get().AddCall("smart_deadlock_register_watchdog_service(" +
                                       std::to_string(periodSeconds) + ")");
    return 0;
}

int smart_deadlock_watchdog_notify(void) {
    TCRecordingPlatform::Get().AddCall("smart_deadlock_watchdog_notify()");
    return 0;
}

int smart_deadlock_unregister_watchdog_service(void) {
    TCRecordingPlatform::Get().AddCall("smart_deadlock_unregister_watchdog_service()");
    return 0;
}

int LwipcWaitEvent(const char* path, int timeoutMs) {
    TCRecordingPlatform& platform = TCRecordingPlatform::Get();
    platform.AddCall(std::string("LwipcWaitEvent(") + path + ", " + std::to_string(timeoutMs) + ")");
    return platform.waitEvent ? platform.waitEvent(path, timeoutMs) : 0;
}

} // extern "C"
