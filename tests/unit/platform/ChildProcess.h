#ifndef MAVIX_TESTS_PLATFORM_CHILD_PROCESS_H
#define MAVIX_TESTS_PLATFORM_CHILD_PROCESS_H

#include <functional>
#include <map>
#include <string>
#include <sys/types.h>

// The platform reads its environment once in a process, so each setting is tested in a process of its own. A
// variable with an empty value is removed.
using Environment = std::map<std::string, std::string>;

struct ChildResult {
    int status = -1;           // the body's result; the negative signal number if a signal ended the child
    std::string standardError; // all that the child wrote there
};

// A forked child that runs a body and exits with its result. It dies with the test, whatever happens.
class ChildProcess final {
public:
    ChildProcess(const Environment& environment, const std::function<int()>& body);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    pid_t Pid() const { return m_pid; }

    // Waits for the end.
    ChildResult Wait();

private:
    pid_t m_pid;
    int m_standardError;
};

ChildResult RunChild(const Environment& environment, const std::function<int()>& body);

// A pipe for telling another process or thread to go on.
class Signal final {
public:
    Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    ~Signal();

    // `value` may tell something.
    void Give(int value = 0);
    // Throws when it does not come for half a minute.
    int Await();

private:
    int m_ends[2];
};

#endif
