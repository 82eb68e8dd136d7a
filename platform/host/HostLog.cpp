#include "HostJournal.h"
#include "HostLogText.h"
#include "HostSupport.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string_view>
#include <sys/stat.h>

namespace MavixPlatformHost {

namespace {

constexpr const char* HostTag = "MAVIX_PLATFORM";
constexpr const char* DefaultJournal = "/run/systemd/journal/socket";
constexpr int Silent = INT_MAX;

struct Level {
    const char* name;
    int priority;
    char letter;
    const char* syslogPriority;
};
constexpr Level Levels[] = {
    {"debug", MAVIX_LOG_DEBUG, 'D', "7"},
    {"info", MAVIX_LOG_INFO, 'I', "6"},
    {"warning", MAVIX_LOG_WARNING, 'W', "4"},
    {"error", MAVIX_LOG_ERROR, 'E', "3"},
};

const Level& LevelOf(int priority) {
    return Levels[std::clamp<int>(priority, MAVIX_LOG_DEBUG, MAVIX_LOG_ERROR) - MAVIX_LOG_DEBUG];
}

int Threshold(const char* variable, int otherwise) {
    const char* wanted = ::secure_getenv(variable);
    for (const Level& level : Levels) {
        if (wanted != nullptr && std::strcmp(wanted, level.name) == 0) {
            return level.priority;
        }
    }
    return otherwise;
}

struct Settings {
    int journalThreshold = MAVIX_LOG_WARNING;
    int terminalThreshold = Silent;
    sockaddr_un journal{};
};

void ReadSettings(Settings& settings) {
    settings.journalThreshold = Threshold("MAVIX_LOG_LEVEL", MAVIX_LOG_WARNING);
    settings.terminalThreshold = Threshold("MAVIX_LOG", Silent);
    const char* journal = ::secure_getenv("MAVIX_JOURNAL_SOCKET");
    if (journal == nullptr || *journal == '\0') {
        journal = DefaultJournal;
    }
    settings.journal.sun_family = AF_UNIX;
    std::strncpy(settings.journal.sun_path, journal, sizeof(settings.journal.sun_path) - 1);
}

// Read once and never released. A lock-free hand-over instead of a function-local static: a fork in the
// middle of that one's initialisation would leave its lock taken in the child for ever.
std::atomic<const Settings*> s_settings{nullptr};

const Settings* CurrentSettings() {
    const Settings* known = s_settings.load(std::memory_order_acquire);
    if (known != nullptr) {
        return known;
    }
    std::unique_ptr<Settings> read(new (std::nothrow) Settings);
    if (!read) {
        return nullptr;
    }
    ReadSettings(*read);
    if (s_settings.compare_exchange_strong(known, read.get(), std::memory_order_acq_rel)) {
        return read.release();
    }
    return known;
}

EJournalResult WriteJournal(const Settings& settings, int priority, const char* tag, std::string_view text) {
    char thread[16];
    std::snprintf(thread, sizeof(thread), "%d", ::gettid());
    TCJournalEntry entry;
    entry.Add("MESSAGE", text.data(), text.size());
    entry.Add("PRIORITY", LevelOf(priority).syslogPriority);
    entry.Add("SYSLOG_IDENTIFIER", tag);
    entry.Add("TID", thread);
    const SourcePosition position = FindPosition(text);
    if (!position.file.empty()) {
        entry.Add("CODE_FILE", position.file.data(), position.file.size());
        entry.Add("CODE_FUNC", position.function.data(), position.function.size());
        entry.Add("CODE_LINE", position.line.data(), position.line.size());
    }
    return SendToJournal(entry, settings.journal);
}

// Others may take the room that poll saw. Standard error itself cannot be made non-blocking, because it is
// theirs too: a pipe is opened anew, a socket is told not to wait.
ssize_t WriteAtOnce(const char* line, std::size_t size) {
    struct stat status {};
    static_cast<void>(::fstat(STDERR_FILENO, &status));
    if (S_ISSOCK(status.st_mode)) {
        return ::send(STDERR_FILENO, line, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    if (S_ISFIFO(status.st_mode)) {
        const TCDescriptor pipe(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        if (pipe) {
            return ::write(pipe.Get(), line, size);
        }
    }
    return ::write(STDERR_FILENO, line, size);
}

// One line is one write of at most PIPE_BUF bytes, so that lines of several processes do not mix, and only
// when there is room: neither a full nor a broken pipe may stop the caller. False: no room.
bool WriteTerminal(int priority, const char* tag, std::string_view text) {
    pollfd terminal{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&terminal, 1, 0) != 1) {
        return false;
    }
    if ((terminal.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        return true;
    }
    char line[PIPE_BUF];
    const int length = std::snprintf(line, sizeof(line), "%c %s: %.*s\n", LevelOf(priority).letter, tag,
                                     static_cast<int>(text.size()), text.data());
    if (length < 0) {
        return true;
    }
    std::size_t size = static_cast<std::size_t>(length);
    if (size >= sizeof(line)) {
        constexpr std::string_view mark = "...\n";
        mark.copy(line + sizeof(line) - mark.size(), mark.size());
        size = sizeof(line);
    }
    // Texts may hold what a peer sent: it shall not steer the terminal, nor look like a line of ours.
    std::replace_if(
        line, line + size - 1, [](char c) { return (c >= 0 && c < ' ' && c != '\t') || c == '\x7f'; }, '?');
    return WriteAtOnce(line, size) >= 0 || errno != EAGAIN;
}

std::atomic<unsigned> s_droppedByJournal{0};
std::atomic<unsigned> s_droppedByTerminal{0};

// Counts a line that found no room, and reports the number as soon as there is room again.
template <class Write>
void WriteCounted(std::atomic<unsigned>& dropped, const char* reader, const char* tag, int priority,
                  std::string_view text, Write&& write) {
    if (!write(priority, tag, text)) {
        dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (dropped.load(std::memory_order_relaxed) == 0) {
        return;
    }
    const unsigned lines = dropped.exchange(0, std::memory_order_relaxed);
    if (lines == 0) {
        return;
    }
    char report[128];
    std::snprintf(report, sizeof(report), "HostLog: %s(%d) > %s was not read in time: %u lines dropped",
                  __func__, __LINE__, reader, lines);
    if (!write(MAVIX_LOG_WARNING, HostTag, std::string_view(report))) {
        dropped.fetch_add(lines, std::memory_order_relaxed);
    }
}

__attribute__((format(printf, 3, 0))) void Print(int priority, const char* tag, const char* format,
                                                 va_list arguments) {
    const int savedErrno = errno;
    static constexpr Settings withoutMemory{};
    const Settings* known = CurrentSettings();
    const Settings& settings = known != nullptr ? *known : withoutMemory;
    const bool toJournal = priority >= settings.journalThreshold;
    const bool toTerminal = priority >= settings.terminalThreshold;
    if (!toJournal && !toTerminal) {
        errno = savedErrno;
        return;
    }
    tag = tag != nullptr ? tag : "";
    errno = savedErrno;
    const TCLineText line(format != nullptr ? format : "", arguments);
    const std::string_view text = line.Get();
    if (toTerminal) {
        WriteCounted(s_droppedByTerminal, "standard error", tag, priority, text, WriteTerminal);
    }
    if (toJournal) {
        WriteCounted(s_droppedByJournal, "the journal", tag, priority, text,
                     [&settings](int level, const char* name, std::string_view what) {
                         return WriteJournal(settings, level, name, what) != EJournalResult::Full;
                     });
    }
    errno = savedErrno;
}

} // namespace

void LogAs(int priority, const char* source, const char* function, int line, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    __dlog_print(MAVIX_LOG_ID_MAIN, priority, HostTag, "%s: %s(%d) > %s", source, function, line, text);
}

} // namespace MavixPlatformHost

int __dlog_print(int /*logId*/, int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    MavixPlatformHost::Print(priority, tag, format, arguments);
    va_end(arguments);
    return 0;
}
