#ifndef MAVIX_HOST_BORROWER_H
#define MAVIX_HOST_BORROWER_H

#include "HostProcess.h"
#include "HostScheduling.h"

#include <string>
#include <utility>
#include <vector>

namespace MavixPlatformHost {

// One thread's loan to a process.
struct Lending {
    pid_t lender;
    Scheduling lent;
    TimePoint until;
};

// A process that is lent to: who lends, and what its threads had of their own. Owner: the inheritance state,
// whose lock guards it.
class TCBorrower final {
public:
    TCBorrower(std::string name, const ProcessId& process) : m_name(std::move(name)), m_process(process) {}

    const std::string& Name() const { return m_name; }
    const ProcessId& Process() const { return m_process; }
    bool IsIdle() const { return m_lendings.empty(); }

    // The process ended and was started anew: what is known of its threads went with the old one.
    void Restarted(const ProcessId& process);

    // The first thread that could not be raised gives the result, a negative errno value.
    int Add(const Lending& lending);

    // Ends the latest lending of that thread, if there is one.
    int Remove(pid_t lender);

    void RemoveExpired(TimePoint now);
    TimePoint NextExpiry() const;

private:
    struct Thread {
        pid_t thread;
        Scheduling own;
        Scheduling given;
    };

    int m_Apply();
    bool m_Recall(Thread& borrowing) const;

    const std::string m_name;
    ProcessId m_process;
    std::vector<Lending> m_lendings;
    std::vector<Thread> m_threads;
};

} // namespace MavixPlatformHost

#endif
