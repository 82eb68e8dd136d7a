#include "HostBorrower.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>

namespace MavixPlatformHost {

namespace {

bool IsWeaker(const Lending& left, const Lending& right) {
    return left.lent.Rank() < right.lent.Rank();
}

} // namespace

void TCBorrower::Restarted(const ProcessId& process) {
    m_process = process;
    m_threads.clear();
}

int TCBorrower::Add(const Lending& lending) {
    m_lendings.push_back(lending);
    try {
        return m_Apply();
    } catch (const std::bad_alloc&) {
        m_lendings.pop_back();
        throw;
    }
}

int TCBorrower::Remove(pid_t lender) {
    const auto latest = std::find_if(m_lendings.rbegin(), m_lendings.rend(),
                                     [lender](const Lending& each) { return each.lender == lender; });
    if (latest == m_lendings.rend()) {
        return 0;
    }
    m_lendings.erase(std::next(latest).base());
    return m_Apply();
}

void TCBorrower::RemoveExpired(TimePoint now) {
    const auto kept = std::remove_if(m_lendings.begin(), m_lendings.end(),
                                     [now](const Lending& each) { return each.until <= now; });
    if (kept != m_lendings.end()) {
        m_lendings.erase(kept, m_lendings.end());
        static_cast<void>(m_Apply());
    }
}

TimePoint TCBorrower::NextExpiry() const {
    TimePoint next = Never;
    for (const Lending& lending : m_lendings) {
        next = std::min(next, lending.until);
    }
    return next;
}

// Gives every thread of the process what the present lendings ask for. They outlive the process: it may be
// started anew while its lenders wait.
int TCBorrower::m_Apply() {
    if (!IsRunning(m_process)) {
        m_threads.clear();
        return 0;
    }
    const auto strongest = std::max_element(m_lendings.begin(), m_lendings.end(), IsWeaker);
    const std::vector<pid_t> running = ThreadsOf(m_process.pid);
    std::vector<Thread> threads;
    threads.reserve(running.size()); // from here on nothing throws, so that no thread stays half raised
    int result = 0;
    for (const pid_t thread : running) {
        Thread borrowing{thread, {}, {}};
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
bool TCBorrower::m_Recall(Thread& borrowing) const {
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

} // namespace MavixPlatformHost
