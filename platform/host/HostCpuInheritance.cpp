#include "HostPerProcess.h"
#include "HostProcess.h"
#include "HostScheduling.h"
#include "HostSupport.h"

#include <algorithm>
#include <string>
#include <utility>

// A thread that waits for a process lends it its scheduling. A process that several threads lend to runs with
// the strongest of what it is lent, and gets its own back with the last one's end. Other processes that lend
// to the same one are not known here: the one that ends last leaves the process as it should be.

namespace MavixPlatformHost {

namespace {

struct Lending {
    pid_t lender;
    Scheduling lent;
    TimePoint until;
};

struct BorrowingThread {
    pid_t thread;
    Scheduling own;
    Scheduling given;
};

bool IsSame(const ProcessId& left, const ProcessId& right) {
    return left.pid == right.pid && left.startTicks == right.startTicks;
}

bool IsWeaker(const Lending& left, const Lending& right) {
    return left.lent.Rank() < right.lent.Rank();
}

// A process that is lent to: who lends, and what its threads had of their own. Guarded by its owner's lock.
class TCBorrower final {
public:
    TCBorrower(std::string name, const ProcessId& process) : m_name(std::move(name)), m_process(process) {}

    const std::string& Name() const { return m_name; }
    const ProcessId& Process() const { return m_process; }
    bool IsIdle() const { return m_lendings.empty(); }

    // The process ended and was started anew: what is known of its threads went with the old one.
    void Restarted(const ProcessId& process) {
        m_process = process;
        m_threads.clear();
    }

    int Add(const Lending& lending) {
        m_lendings.push_back(lending);
        try {
            return m_Apply();
        } catch (const std::bad_alloc&) {
            m_lendings.pop_back();
            throw;
        }
    }

    // Ends the latest lending of that thread; true if there was one.
    bool Remove(pid_t lender, int& result) {
        const auto latest = std::find_if(m_lendings.rbegin(), m_lendings.rend(),
                                         [lender](const Lending& each) { return each.lender == lender; });
        if (latest == m_lendings.rend()) {
            return false;
        }
        m_lendings.erase(std::next(latest).base());
        result = m_Apply();
        return true;
    }

    void RemoveExpired(TimePoint now) {
        const auto kept = std::remove_if(m_lendings.begin(), m_lendings.end(),
                                         [now](const Lending& each) { return each.until <= now; });
        if (kept != m_lendings.end()) {
            m_lendings.erase(kept, m_lendings.end());
            static_cast<void>(m_Apply());
        }
    }

    TimePoint NextExpiry() const {
        TimePoint next = Never;
        for (const Lending& lending : m_lendings) {
            next = std::min(next, lending.until);
        }
        return next;
    }

private:
    // Gives every thread of the process what the present lendings ask for. The first failure is the result.
    int m_Apply() {
        const auto strongest = std::max_element(m_lendings.begin(), m_lendings.end(), IsWeaker);
        const std::vector<pid_t> running = ThreadsOf(m_process.pid);
        std::vector<BorrowingThread> threads;
        threads.reserve(running.size()); // from here on nothing throws, so that no thread stays half raised
        int result = 0;
        for (const pid_t thread : running) {
            BorrowingThread borrowing{thread, {}, {}};
            if (!m_Recall(borrowing)) {
                continue;
            }
            Scheduling wanted = borrowing.own;
            if (strongest != m_lendings.end() && strongest->lent.Rank() > wanted.Rank()) {
                wanted = wanted.RaisedTo(strongest->lent);
            }
            const int written = wanted.IsLike(borrowing.given) ? 0 : WriteScheduling(thread, wanted);
            if (written == 0) {
                borrowing.given = wanted;
            } else if (written != -ESRCH && result == 0) {
                result = written;
            }
            threads.push_back(borrowing);
        }
        m_threads = std::move(threads);
        return result;
    }

    // Fills in what the thread has and what it had of its own; false if it is gone.
    bool m_Recall(BorrowingThread& borrowing) const {
        if (ReadScheduling(borrowing.thread, borrowing.given) != 0) {
            return false;
        }
        borrowing.own = borrowing.given;
        const auto same = std::find_if(m_threads.begin(), m_threads.end(), [&borrowing](const auto& each) {
            return each.thread == borrowing.thread;
        });
        if (same != m_threads.end()) {
            // A thread that was set back by somebody else since keeps what it was given there.
            if (borrowing.given.Rank() >= same->given.Rank()) {
                borrowing.own = same->own;
            }
            return true;
        }
        // A new thread inherits what its creator was lent at the time.
        const auto creator = std::find_if(m_threads.begin(), m_threads.end(), [&borrowing](const auto& each) {
            return !each.own.IsLike(each.given) && each.given.IsLike(borrowing.given);
        });
        if (creator != m_threads.end()) {
            borrowing.own = creator->own;
        }
        return true;
    }

    const std::string m_name;
    ProcessId m_process;
    std::vector<Lending> m_lendings;
    std::vector<BorrowingThread> m_threads;
};

// All lendings of this process. Its worker ends those whose time is over.
class TCInheritance final {
public:
    int Set(pid_t lender, const Scheduling& lent, const std::string& name, TimePoint until) {
        const std::lock_guard<std::mutex> lock(m_worker.Mutex());
        const ProcessId process = m_ProcessOf(name);
        if (process.IsNone()) {
            m_Forget(name);
            return 0;
        }
        if (until != Never && !m_worker.StartLocked()) {
            return -EAGAIN;
        }
        TCBorrower& borrower = m_BorrowerOf(name, process);
        int result = borrower.Add({lender, lent, until});
        if (result != 0) {
            int undone = 0;
            borrower.Remove(lender, undone);
        }
        if (borrower.IsIdle()) {
            m_Forget(name);
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
        if (!IsRunning((*borrower)->Process())) {
            m_borrowers.erase(borrower);
            return 0;
        }
        int result = 0;
        (*borrower)->Remove(lender, result);
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
            if (!IsRunning((*borrower)->Process())) {
                borrower = borrowers.erase(borrower);
                continue;
            }
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

    void m_Forget(const std::string& name) {
        const auto known = m_Find(name);
        if (known != m_borrowers.end()) {
            m_borrowers.erase(known);
        }
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
