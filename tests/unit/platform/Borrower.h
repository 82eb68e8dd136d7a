#ifndef MAVIX_TESTS_PLATFORM_BORROWER_H
#define MAVIX_TESTS_PLATFORM_BORROWER_H

#include "ChildProcess.h"

#include <iosfwd>
#include <memory>
#include <sched.h>
#include <string>
#include <sys/types.h>
#include <vector>

// The scheduling of one thread; 0 is the calling one.
struct Sched {
    int policy = SCHED_OTHER;
    int nice = 0;
    int priority = 0;

    bool operator==(const Sched& other) const {
        return policy == other.policy && nice == other.nice && priority == other.priority;
    }
};
std::ostream& operator<<(std::ostream& out, const Sched& sched);

inline Sched Nice(int nice) {
    return {SCHED_OTHER, nice, 0};
}
inline Sched Fifo(int priority) {
    return {SCHED_FIFO, 0, priority};
}

// Sets the calling thread's scheduling; false where it is not permitted.
bool BecomeSched(const Sched& sched);
Sched SchedOf(pid_t thread);

// A process name that no other test uses, also not one that runs at the same time.
std::string UniqueName();

// A process that can be lent to: one thread for each scheduling, the first one being the main thread.
class Borrower final {
public:
    Borrower(const std::string& name, const std::vector<Sched>& threads);

    pid_t Pid() const { return m_process->Pid(); }

    // The schedulings in the order of the threads' creation.
    std::vector<Sched> Scheds() const;

    // Lets the main thread create one more thread, which inherits its scheduling.
    void AddThread();

    // Ends the process; it stays a zombie until Reap.
    void Kill();
    void Reap() { m_process.reset(); }

private:
    Signal m_born; // given by each thread with its number
    Signal m_more;
    std::vector<pid_t> m_threads;
    std::unique_ptr<ChildProcess> m_process;
};

#endif
