#include "ChildProcess.h"
#include "Platform.h"
#include "Sockets.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using testing::HasSubstr;

// What happens between the look whether there is room and the write.
static std::function<void()> afterPoll;
extern "C" __attribute__((visibility("default"))) int poll(pollfd* files, nfds_t count, int timeoutMs) {
    const auto real = reinterpret_cast<decltype(&poll)>(dlsym(RTLD_NEXT, "poll"));
    const int result = real(files, count, timeoutMs);
    if (afterPoll) {
        afterPoll();
    }
    return result;
}

namespace {

constexpr const char* Tag = "MAVIX_API";
constexpr auto Already = 0ms;

// A journal of our own, and what makes a child log to it. Lines are sent before the child ends, so that
// nothing has to be waited for after that.
class HostLog : public testing::Test {
protected:
    Environment t_With(Environment extra = {}) const {
        Environment all{{"MAVIX_JOURNAL_SOCKET", t_path}, {"MAVIX_LOG", ""}, {"MAVIX_LOG_LEVEL", ""}};
        for (const auto& [name, value] : extra) {
            all[name] = value;
        }
        return all;
    }

    std::optional<JournalFields> t_Next(std::chrono::milliseconds limit = Already) {
        const std::optional<std::string> datagram = t_journal.Receive(limit);
        return datagram ? std::optional<JournalFields>(ParseJournalEntry(*datagram)) : std::nullopt;
    }

    // The message of the one line that a child with this body logs.
    std::string t_OneMessage(const std::function<void()>& body, const Environment& extra = {}) {
        EXPECT_EQ(RunChild(t_With(extra),
                           [&body] {
                               body();
                               return 0;
                           })
                      .status,
                  0);
        const std::optional<JournalFields> entry = t_Next();
        EXPECT_TRUE(entry.has_value());
        EXPECT_FALSE(t_Next().has_value());
        return entry ? entry->at("MESSAGE") : "";
    }

    TestFolder t_folder;
    const std::string t_path = t_folder / "journal";
    DatagramService t_journal{t_path};
};

int Print(int priority, const char* text) {
    return __dlog_print(MAVIX_LOG_ID_MAIN, priority, Tag, "%s", text);
}

unsigned DroppedLines(const std::string& report) {
    const std::size_t number = report.rfind(": ");
    return number == std::string::npos ? 0U : static_cast<unsigned>(std::stoul(report.substr(number + 2)));
}

TEST_F(HostLog, LinesCarryTagPriorityPositionAndThread) {
    struct Row {
        int priority;
        const char* syslogPriority;
    };
    for (const Row& row : {Row{MAVIX_LOG_DEBUG, "7"}, Row{MAVIX_LOG_INFO, "6"}, Row{MAVIX_LOG_WARNING, "4"},
                           Row{MAVIX_LOG_ERROR, "3"}, Row{2, ""}, Row{7, "3"}}) {
        SCOPED_TRACE(testing::Message() << "priority " << row.priority);
        ChildProcess child(t_With({{"MAVIX_LOG_LEVEL", "debug"}}), [&row] {
            return __dlog_print(MAVIX_LOG_ID_MAIN, row.priority, Tag,
                                "%s: %s(%d) > "
                                "answer %d",
                                "IpcClient", "Call", 321, 42);
        });
        const std::string thread = std::to_string(child.Pid());
        EXPECT_EQ(child.Wait().status, 0);
        const std::optional<JournalFields> entry = t_Next();
        if (*row.syslogPriority == '\0') {
            EXPECT_FALSE(entry.has_value());
            continue;
        }
        const JournalFields expected{{"MESSAGE", "IpcClient: Call(321) > answer 42"},
                                     {"PRIORITY", row.syslogPriority},
                                     {"SYSLOG_IDENTIFIER", Tag},
                                     {"TID", thread},
                                     {"CODE_FILE", "IpcClient"},
                                     {"CODE_FUNC", "Call"},
                                     {"CODE_LINE", "321"}};
        ASSERT_TRUE(entry.has_value());
        EXPECT_EQ(*entry, expected);
    }
}

TEST_F(HostLog, PositionFieldsComeFromTheBeginningOfTheText) {
    struct Row {
        const char* text;
        const char* file;
        const char* function;
        const char* line;
    };
    const Row rows[] = {
        {"A: f(1) > text", "A", "f", "1"},
        {"A: operator()(12) > text", "A", "operator()", "12"},
        {"A: ~A(7) > x: y(2) > z", "A", "~A", "7"},
        {"A: f(1) > ", "A", "f", "1"},
        {"no prefix at all", nullptr, nullptr, nullptr},
        {"two words: f(1) > text", nullptr, nullptr, nullptr},
        {"A: f() > text", nullptr, nullptr, nullptr},
        {"A: f(x) > text", nullptr, nullptr, nullptr},
        {"A: (1) > text", nullptr, nullptr, nullptr},
        {": f(1) > text", nullptr, nullptr, nullptr},
        {"f(1) > A: text", nullptr, nullptr, nullptr},
        {"A: f1) > text", nullptr, nullptr, nullptr},
        {"A: f(1)", nullptr, nullptr, nullptr},
        {"", nullptr, nullptr, nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "text \"" << row.text << '"');
        ASSERT_EQ(RunChild(t_With(), [&row] { return Print(MAVIX_LOG_ERROR, row.text); }).status, 0);
        const std::optional<JournalFields> entry = t_Next();
        ASSERT_TRUE(entry.has_value());
        EXPECT_EQ(entry->at("MESSAGE"), row.text);
        JournalFields position;
        for (const char* name : {"CODE_FILE", "CODE_FUNC", "CODE_LINE"}) {
            if (entry->count(name) != 0) {
                position[name] = entry->at(name);
            }
        }
        EXPECT_EQ(position, row.file == nullptr ? JournalFields{}
                                                : (JournalFields{{"CODE_FILE", row.file},
                                                                 {"CODE_FUNC", row.function},
                                                                 {"CODE_LINE", row.line}}));
    }
}

TEST_F(HostLog, JournalThresholdIsWarningUnlessTheEnvironmentSaysOtherwise) {
    struct Row {
        const char* level;
        int lowest;
    };
    for (const Row& row :
         {Row{"", MAVIX_LOG_WARNING}, Row{"debug", MAVIX_LOG_DEBUG}, Row{"info", MAVIX_LOG_INFO},
          Row{"warning", MAVIX_LOG_WARNING}, Row{"error", MAVIX_LOG_ERROR}, Row{"Debug", MAVIX_LOG_WARNING},
          Row{"nonsense", MAVIX_LOG_WARNING}}) {
        for (int priority = MAVIX_LOG_DEBUG; priority <= MAVIX_LOG_ERROR; ++priority) {
            SCOPED_TRACE(testing::Message() << "MAVIX_LOG_LEVEL=" << row.level << " priority " << priority);
            EXPECT_EQ(RunChild(t_With({{"MAVIX_LOG_LEVEL", row.level}}),
                               [priority] { return Print(priority, "text"); })
                          .status,
                      0);
            EXPECT_EQ(t_Next().has_value(), priority >= row.lowest);
        }
    }
}

TEST_F(HostLog, TerminalGetsWhatMavixLogAsksForAndNothingElse) {
    struct Row {
        const char* level;
        const char* expected;
    };
    const Row rows[] = {
        {"", ""},
        {"debug", "D MAVIX_API: one\nI MAVIX_API: two\nW MAVIX_API: three\nE MAVIX_API: four\n"},
        {"info", "I MAVIX_API: two\nW MAVIX_API: three\nE MAVIX_API: four\n"},
        {"warning", "W MAVIX_API: three\nE MAVIX_API: four\n"},
        {"error", "E MAVIX_API: four\n"},
        {"verbose", ""},
        {"1", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "MAVIX_LOG=" << row.level);
        const ChildResult result = RunChild(t_With({{"MAVIX_LOG", row.level}}), [] {
            Print(MAVIX_LOG_DEBUG, "one");
            Print(MAVIX_LOG_INFO, "two");
            Print(MAVIX_LOG_WARNING, "three");
            Print(MAVIX_LOG_ERROR, "four");
            return 0;
        });
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.standardError, row.expected);
        while (t_Next().has_value()) {
        }
    }
}

TEST_F(HostLog, FilteredLinesAreNotFormatted) {
    // Formatting this argument would end the child with a signal.
    const auto* unreadable = reinterpret_cast<const char*>(1);
    EXPECT_EQ(RunChild(t_With({{"MAVIX_LOG", "warning"}}),
                       [unreadable] { return Print(MAVIX_LOG_INFO, unreadable); })
                  .status,
              0);
    EXPECT_NE(
        RunChild(t_With({{"MAVIX_LOG", "info"}}), [unreadable] { return Print(MAVIX_LOG_INFO, unreadable); })
            .status,
        0);
}

TEST_F(HostLog, FullJournalDropsLinesCountsThemAndNeverBlocks) {
    constexpr unsigned lines = 5000;
    Signal full;
    Signal drained;
    ChildProcess child(t_With(), [&full, &drained] {
        for (unsigned line = 0; line < lines; ++line) {
            __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, Tag, "line %u", line);
        }
        full.Give();
        drained.Await();
        return Print(MAVIX_LOG_ERROR, "after");
    });
    full.Await();
    unsigned received = 0;
    while (const std::optional<JournalFields> entry = t_Next()) {
        EXPECT_EQ(entry->at("MESSAGE"), "line " + std::to_string(received));
        ++received;
    }
    EXPECT_GT(received, 0U);
    ASSERT_LT(received, lines);
    drained.Give();
    EXPECT_EQ(child.Wait().status, 0);
    const std::optional<JournalFields> after = t_Next();
    ASSERT_TRUE(after.has_value());
    EXPECT_EQ(after->at("MESSAGE"), "after");
    const std::optional<JournalFields> report = t_Next();
    ASSERT_TRUE(report.has_value());
    EXPECT_THAT(report->at("MESSAGE"), HasSubstr("the journal was not read in time: "));
    EXPECT_EQ(DroppedLines(report->at("MESSAGE")), lines - received);
    EXPECT_EQ(report->at("PRIORITY"), "4");
    EXPECT_EQ(report->at("SYSLOG_IDENTIFIER"), "MAVIX_PLATFORM");
    EXPECT_FALSE(t_Next().has_value());
}

TEST_F(HostLog, LinesOfManyThreadsArriveWholeOrAreCounted) {
    constexpr unsigned threads = 8;
    constexpr unsigned linesOfEach = 500;
    Signal done;
    ChildProcess child(t_With(), [&done] {
        std::vector<std::thread> loggers;
        for (unsigned thread = 0; thread < threads; ++thread) {
            loggers.emplace_back([thread] {
                for (unsigned line = 0; line < linesOfEach; ++line) {
                    __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, Tag, "T: f(%u) > %u", thread, line);
                }
            });
        }
        for (std::thread& logger : loggers) {
            logger.join();
        }
        done.Await();
        return Print(MAVIX_LOG_ERROR, "last");
    });
    unsigned accounted = 0;
    const auto account = [&accounted](const JournalFields& entry) {
        const std::string& message = entry.at("MESSAGE");
        const bool isReport = entry.at("SYSLOG_IDENTIFIER") == "MAVIX_PLATFORM";
        accounted += isReport ? DroppedLines(message) : 1;
        if (!isReport && message != "last") {
            EXPECT_EQ(message.find("T: f(" + entry.at("CODE_LINE") + ") > "), 0U) << message;
        }
    };
    // The last lines may only be counted, and are reported with the next one.
    while (const std::optional<JournalFields> entry = t_Next(200ms)) {
        account(*entry);
    }
    done.Give();
    EXPECT_EQ(child.Wait().status, 0);
    while (const std::optional<JournalFields> entry = t_Next()) {
        account(*entry);
    }
    EXPECT_EQ(accounted, threads * linesOfEach + 1);
}

TEST_F(HostLog, MissingJournalIsNoFailure) {
    const ChildResult result =
        RunChild(t_With({{"MAVIX_JOURNAL_SOCKET", t_folder / "absent"}, {"MAVIX_LOG", "error"}}),
                 [] { return Print(MAVIX_LOG_ERROR, "text"); });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.standardError, "E MAVIX_API: text\n");
}

TEST_F(HostLog, ErrnoIsKept) {
    struct Row {
        const char* name;
        const char* journal;
        int priority;
    };
    for (const Row& row :
         {Row{"filtered", "journal", MAVIX_LOG_DEBUG}, Row{"sent", "journal", MAVIX_LOG_ERROR},
          Row{"absent", "absent", MAVIX_LOG_ERROR}, Row{"full", "journal", MAVIX_LOG_ERROR}}) {
        SCOPED_TRACE(row.name);
        const bool isFull = std::strcmp(row.name, "full") == 0;
        const ChildResult result =
            RunChild(t_With({{"MAVIX_LOG", "error"}, {"MAVIX_JOURNAL_SOCKET", t_folder / row.journal}}),
                     [&row, isFull] {
                         for (int line = 0; line < (isFull ? 2000 : 1); ++line) {
                             errno = ENOTTY;
                             Print(row.priority, "text");
                             if (errno != ENOTTY) {
                                 return 1;
                             }
                         }
                         return 0;
                     });
        EXPECT_EQ(result.status, 0);
    }
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat" // %m is no ISO C++
TEST_F(HostLog, TextOfErrnoIsTheCallersOne) {
    EXPECT_EQ(t_OneMessage([] {
                  errno = ENOTTY;
                  __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, Tag, "%m");
              }),
              std::strerror(ENOTTY));
    const std::string padding(2000, ' ');
    EXPECT_EQ(t_OneMessage([&padding] {
                  errno = ENOTTY;
                  __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, Tag, "%s%m", padding.c_str());
              }),
              padding + std::strerror(ENOTTY));
}
#pragma GCC diagnostic pop

TEST_F(HostLog, LineBreaksStayInTheJournalAndDoNotReachTheTerminal) {
    const ChildResult result = RunChild(t_With({{"MAVIX_LOG", "error"}}), [] {
        return Print(MAVIX_LOG_ERROR, "one\nPRIORITY=0\n\x1b[31mtwo\tthree\x7f\xc3\xa4");
    });
    const std::optional<JournalFields> entry = t_Next();
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->at("MESSAGE"), "one\nPRIORITY=0\n\x1b[31mtwo\tthree\x7f\xc3\xa4");
    EXPECT_EQ(entry->at("PRIORITY"), "3");
    EXPECT_EQ(result.standardError, "E MAVIX_API: one?PRIORITY=0??[31mtwo\tthree?\xc3\xa4\n");
}

TEST_F(HostLog, LongTextsAreWholeUpTo64KiBAndThenCutBetweenCharacters) {
    const auto logged = [this](const std::string& text) {
        return t_OneMessage([&text] { Print(MAVIX_LOG_ERROR, text.c_str()); });
    };
    constexpr std::size_t limit = 65535;
    for (const std::size_t length : {1022UL, 1023UL, 1024UL, 1025UL, limit - 1, limit}) {
        SCOPED_TRACE(testing::Message() << "length " << length);
        EXPECT_EQ(logged(std::string(length, 'x')), std::string(length, 'x'));
    }
    EXPECT_EQ(logged(std::string(limit + 1, 'x')), std::string(limit - 3, 'x') + "...");
    // The third byte from the end is the second one of a character here.
    std::string umlauts = "x";
    while (umlauts.size() < 2 * limit) {
        umlauts += "\xc3\xa4";
    }
    const std::string cut = logged(umlauts);
    ASSERT_GT(cut.size(), limit - 8);
    EXPECT_EQ(cut.substr(cut.size() - 5), "\xc3\xa4...");
}

TEST_F(HostLog, TerminalLinesEndAtOnePipeBuffer) {
    const ChildResult result = RunChild(t_With({{"MAVIX_LOG", "error"}}), [] {
        return Print(MAVIX_LOG_ERROR, std::string(10000, 'x').c_str());
    });
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(result.standardError.size(), 4096U);
    EXPECT_EQ(result.standardError.substr(0, 15), "E MAVIX_API: xx");
    EXPECT_EQ(result.standardError.substr(4090), "xx...\n");
}

TEST_F(HostLog, EmptyAndMissingTagsAndFormatsAreNoFailure) {
    const ChildResult result = RunChild(t_With({{"MAVIX_LOG", "error"}}), [] {
        const char* none = nullptr;
        __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, none, "%s", "text");
        __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, "", "%s", "");
        return 0;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.standardError, "E : text\nE : \n");
}

TEST_F(HostLog, FullTerminalPipeDropsLinesCountsThemAndNeverBlocks) {
    constexpr unsigned lines = 5000;
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    Signal full;
    Signal drained;
    ChildProcess child(t_With({{"MAVIX_LOG", "error"}}), [&pipe, &full, &drained] {
        ::dup2(pipe[1], STDERR_FILENO);
        for (unsigned line = 0; line < lines; ++line) {
            __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, Tag, "a line of some length, number %u", line);
        }
        full.Give();
        drained.Await();
        return Print(MAVIX_LOG_ERROR, "after");
    });
    ::close(pipe[1]);
    full.Await();
    std::string text(1024 * 1024, '\0');
    ssize_t length = ::read(pipe[0], text.data(), text.size());
    ASSERT_GT(length, 0);
    const auto received = static_cast<unsigned>(std::count(text.begin(), text.begin() + length, '\n'));
    ASSERT_LT(received, lines);
    drained.Give();
    EXPECT_EQ(child.Wait().status, 0);
    std::string rest;
    while ((length = ::read(pipe[0], text.data(), text.size())) > 0) {
        rest.append(text, 0, static_cast<std::size_t>(length));
    }
    ::close(pipe[0]);
    EXPECT_EQ(rest.find("E MAVIX_API: after\nW MAVIX_PLATFORM: "), 0U) << rest;
    EXPECT_THAT(rest, HasSubstr("standard error was not read in time: "));
    EXPECT_EQ(DroppedLines(rest), lines - received);
}

// Another thread or process takes the room that was there a moment ago.
TEST_F(HostLog, RoomThatOthersTakeDropsLinesAndNeverBlocks) {
    const auto pipe = [](int* ends) { return ::pipe(ends); };
    const auto sockets = [](int* ends) { return ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends); };
    const std::pair<const char*, std::function<int(int*)>> rows[] = {{"pipe", pipe}, {"socket", sockets}};
    for (const auto& [name, make] : rows) {
        const ChildResult result = RunChild(t_With({{"MAVIX_LOG", "error"}}), [&make = make] {
            int ends[2];
            if (make(ends) != 0) {
                return 1;
            }
            ::dup2(ends[1], STDERR_FILENO);
            afterPoll = [] {
                ::fcntl(STDERR_FILENO, F_SETFL, ::fcntl(STDERR_FILENO, F_GETFL) | O_NONBLOCK);
                const std::vector<char> page(4096, 'x');
                while (::write(STDERR_FILENO, page.data(), page.size()) > 0) {
                }
                ::fcntl(STDERR_FILENO, F_SETFL, ::fcntl(STDERR_FILENO, F_GETFL) & ~O_NONBLOCK);
            };
            ::alarm(10);
            return Print(MAVIX_LOG_ERROR, "text");
        });
        EXPECT_EQ(result.status, 0) << name;
    }
}

TEST_F(HostLog, BrokenTerminalPipeDoesNotEndTheProcess) {
    EXPECT_EQ(RunChild(t_With({{"MAVIX_LOG", "error"}}),
                       [] {
                           int pipe[2];
                           if (::pipe2(pipe, O_CLOEXEC) != 0) {
                               return 1;
                           }
                           ::dup2(pipe[1], STDERR_FILENO);
                           ::close(pipe[0]);
                           return Print(MAVIX_LOG_ERROR, "text");
                       })
                  .status,
              0);
    EXPECT_TRUE(t_Next().has_value());
}

TEST_F(HostLog, ProcessThatClosesAllDescriptorsLogsOnAndItsFilesStayClean) {
    const std::string file = t_folder / "file";
    EXPECT_EQ(RunChild(t_With(),
                       [&file] {
                           Print(MAVIX_LOG_ERROR, "before");
                           constexpr int highest = 64;
                           for (int descriptor = 3; descriptor < highest; ++descriptor) {
                               ::close(descriptor);
                           }
                           for (int opened = 0; opened < highest - 8;) {
                               opened = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
                           }
                           Print(MAVIX_LOG_ERROR, "after");
                           struct stat status;
                           return ::stat(file.c_str(), &status) == 0 ? static_cast<int>(status.st_size) : -1;
                       })
                  .status,
              0);
    ASSERT_EQ(t_Next().value_or(JournalFields{})["MESSAGE"], "before");
    ASSERT_EQ(t_Next().value_or(JournalFields{})["MESSAGE"], "after");
}

TEST_F(HostLog, JournalSocketNeverTakesAStandardStreamsPlace) {
    EXPECT_EQ(RunChild(t_With(),
                       [] {
                           ::close(STDIN_FILENO);
                           ::close(STDOUT_FILENO);
                           ::close(STDERR_FILENO);
                           Print(MAVIX_LOG_ERROR, "text");
                           for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
                               if (::fcntl(stream, F_GETFD) >= 0) {
                                   return 1;
                               }
                           }
                           return 0;
                       })
                  .status,
              0);
    EXPECT_TRUE(t_Next().has_value());
}

TEST_F(HostLog, DescriptorsAreNotPassedOnToPrograms) {
    EXPECT_EQ(RunChild(t_With(),
                       [] {
                           ::close_range(3, ~0U, 0);
                           Print(MAVIX_LOG_ERROR, "text");
                           return ::fcntl(3, F_GETFD) == FD_CLOEXEC ? 0 : 1;
                       })
                  .status,
              0);
}

TEST_F(HostLog, ForkedChildLogsUnderItsOwnThread) {
    EXPECT_EQ(RunChild(t_With(),
                       [] {
                           Print(MAVIX_LOG_ERROR, "parent");
                           const pid_t child = ::fork();
                           if (child == 0) {
                               __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, Tag, "%d", ::gettid());
                               ::_exit(0);
                           }
                           int status = 1;
                           ::waitpid(child, &status, 0);
                           return WEXITSTATUS(status);
                       })
                  .status,
              0);
    EXPECT_EQ(t_Next().value_or(JournalFields{})["MESSAGE"], "parent");
    const JournalFields entry = t_Next().value_or(JournalFields{});
    ASSERT_EQ(entry.count("TID"), 1U);
    EXPECT_EQ(entry.at("TID"), entry.at("MESSAGE"));
}

TEST_F(HostLog, ThreadsMayLogWhileTheProcessExits) {
    ChildProcess child(t_With(), [] {
        std::atexit([] { Print(MAVIX_LOG_ERROR, "exit handler"); });
        for (int logger = 0; logger < 4; ++logger) {
            std::thread([] {
                for (;;) {
                    Print(MAVIX_LOG_ERROR, "line");
                }
            }).detach();
        }
        return 0;
    });
    while (t_Next(100ms).has_value()) {
    }
    EXPECT_EQ(child.Wait().status, 0);
}

} // namespace
