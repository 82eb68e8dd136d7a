#ifndef MAVIX_TEST_TRACED_CHILD_H
#define MAVIX_TEST_TRACED_CHILD_H

#include <cstdint>
#include <functional>
#include <sys/types.h>

namespace MavixTest {

// A forked child that runs a body under ptrace, as far as it is told to. It is killed with its handle.
class TCTracedChild final {
public:
    explicit TCTracedChild(const std::function<void()>& body);
    ~TCTracedChild();
    TCTracedChild(const TCTracedChild&) = delete;
    TCTracedChild& operator=(const TCTracedChild&) = delete;

    struct SystemCall {
        long number = -1;
        std::uint64_t arguments[3] = {};
        long result = 0; // after its end only
    };

    // Run to the beginning or the end of the next system call, or one instruction on. False when the child
    // has ended.
    bool RunToSystemCall(SystemCall& call);
    bool RunToItsEnd(SystemCall& call);
    bool Step();
    // Runs to an instruction, by a breakpoint.
    bool RunTo(std::uint64_t address);

    std::uint64_t Address() const;
    // Whether the next instruction is a system call, and which.
    bool IsBeforeSystemCall(SystemCall& call) const;
    pid_t Process() const { return m_process; }
    // Kills and waits.
    void Kill();

private:
    bool m_Resume(int request);

    pid_t m_process;
    bool m_hasEnded = false;
};

// What a child does at the places that its tracer is to find: a system call that nothing else makes.
void Mark();
bool IsMark(const TCTracedChild::SystemCall& call);

} // namespace MavixTest

#endif
