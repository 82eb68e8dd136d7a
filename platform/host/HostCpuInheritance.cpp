#include "HostBorrower.h"
#include "HostPerProcess.h"
#include "HostSupport.h"

#include <algorithm>
#include <string>
#include <utility>

// A thread that waits for a process lends it its scheduling. A process that several threads lend to runs with
// the strongest of what it is lent, and gets its own back with the last one's end. Other processes that lend
// to the same one are not known here: the one that ends last leaves the process as it should be.

namespace MavixPlatformHost {

namespace {

bool IsSame(const ProcessId& left, const ProcessId& right) {
    return left.pid == right.pid && left.startTicks == right.startTicks;
}

// All lendings of this process. Its worker ends those whose time is over.
class TCInheritance final {
public:
    int Set(pid_t lender, const Scheduling& lent, const std::string& name, TimePoint until) {
        const std::lock_guard<std::mutex> lock(m_worker.Mutex());
        const ProcessId process = m_ProcessOf(name);
        if (process.IsNone()) {
            return 0;
        }
        if (until != Never && !m_worker.StartLocked()) {
            return -EAGAIN;
        }
        TCBorrower& borrower = m_BorrowerOf(name, process);
        const int result = borrower.Add({lender, lent, until});
        if (result != 0) {
            static_cast<void>(borrower.Remove(lender));
        }
        if (borrower.IsIdle()) {
            m_borrowers.erase(m_Find(name));
        } else if (result == 0) {
            m_worker.WakeByLocked(until);
        }
        return result;
    }

    int Clear(pid_t lender, const std::string& name) {
        const std::lock_guard<std::mutex> lock(m_worker.Mutex());
        const auto borrower = m_Find(name);
        if (borrower == m_borrowers.end()) {
            return 0;
        }
        const int result = (*borrower)->Remove(lender);
        if ((*borrower)->IsIdle()) {
            m_borrowers.erase(borrower);
        }
        return result;
    }

private:
    using Borrowers = std::vector<std::unique_ptr<TCBorrower>>;

    static TimePoint m_EndExpired(void* self, std::unique_lock<std::mutex>& /*lock*/) {
        Borrowers& borrowers = static_cast<TCInheritance*>(self)->m_borrowers;
        const TimePoint now = std::chrono::steady_clock::now();
        TimePoint next = Never;
        for (auto borrower = borrowers.begin(); borrower != borrowers.end();) {
            (*borrower)->RemoveExpired(now);
            next = std::min(next, (*borrower)->NextExpiry());
            borrower = (*borrower)->IsIdle() ? borrowers.erase(borrower) : std::next(borrower);
        }
        return next;
    }

    Borrowers::iterator m_Find(const std::string& name) {
        return std::find_if(m_borrowers.begin(), m_borrowers.end(),
                            [&name](const auto& each) { return each->Name() == name; });
    }

    // A process that borrows already stays the one that is meant by its name for as long as it runs.
    ProcessId m_ProcessOf(const std::string& name) {
        const auto known = m_Find(name);
        return known != m_borrowers.end() && IsRunning((*known)->Process()) ? (*known)->Process()
                                                                            : m_finder.Find(name);
    }

    TCBorrower& m_BorrowerOf(const std::string& name, const ProcessId& process) {
        const auto known = m_Find(name);
        if (known == m_borrowers.end()) {
            return *m_borrowers.emplace_back(std::make_unique<TCBorrower>(name, process));
        }
        if (!IsSame((*known)->Process(), process)) {
            (*known)->Restarted(process);
        }
        return **known;
    }

    TCHostWorker m_worker{"mavix-lend", &TCInheritance::m_EndExpired, this};
    TCProcessFinder m_finder;
    Borrowers m_borrowers;
};

TCPerProcess<TCInheritance> s_inheritance;

} // namespace

} // namespace MavixPlatformHost

int resource_set_cpu_inheritance(int thread, const char* process, int timeLimit) {
    using namespace MavixPlatformHost;
    if (process == nullptr || *process == '\0' || thread < 0) {
        return -EINVAL;
    }
    Scheduling lent;
    const int read = ReadScheduling(thread, lent);
    if (read != 0 || lent.IsDefault()) {
        return read;
    }
    return Guarded([thread, process, timeLimit, &lent] {
        const TimePoint until =
            timeLimit > 0 ? std::chrono::steady_clock::now() + std::chrono::milliseconds(timeLimit) : Never;
        return s_inheritance.Get().Set(thread != 0 ? thread : ::gettid(), lent, process, until);
    });
}

int resource_clear_cpu_inheritance(int thread, const char* process) {
    using namespace MavixPlatformHost;
    if (process == nullptr || *process == '\0' || thread < 0) {
        return -EINVAL;
    }
    return Guarded([thread, process] {
        TCInheritance* inheritance = s_inheritance.Peek();
        return inheritance != nullptr ? inheritance->Clear(thread != 0 ? thread : ::gettid(), process) : 0;
    });
}
