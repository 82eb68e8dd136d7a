#include "TracedChild.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace MavixTest {

namespace {

constexpr long markCall = SYS_getppid;

user_regs_struct Registers(pid_t process) {
    user_regs_struct registers{};
    if (ptrace(PTRACE_GETREGS, process, nullptr, &registers) != 0) {
        throw std::runtime_error("PTRACE_GETREGS failed");
    }
    return registers;
}

} // namespace

void Mark() {
    syscall(markCall);
}

bool IsMark(const TCTracedChild::SystemCall& call) {
    return call.number == markCall;
}

TCTracedChild::TCTracedChild(const std::function<void()>& body) : m_process(fork()) {
    if (m_process == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        body();
        _exit(0);
    }
    int status = 0;
    if (m_process < 0 || waitpid(m_process, &status, 0) != m_process || !WIFSTOPPED(status) ||
        ptrace(PTRACE_SETOPTIONS, m_process, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
        throw std::runtime_error("the child cannot be traced");
    }
}

TCTracedChild::~TCTracedChild() {
    Kill();
}

void TCTracedChild::Kill() {
    if (!m_hasEnded) {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        m_hasEnded = true;
    }
}

bool TCTracedChild::m_Resume(int request) {
    int status = 0;
    if (m_hasEnded || ptrace(static_cast<__ptrace_request>(request), m_process, nullptr, nullptr) != 0) {
        return false;
    }
    while (waitpid(m_process, &status, 0) < 0 && errno == EINTR) {
    }
    m_hasEnded = !WIFSTOPPED(status);
    return !m_hasEnded;
}

bool TCTracedChild::RunToSystemCall(SystemCall& call) {
    if (!m_Resume(PTRACE_SYSCALL)) {
        return false;
    }
    const user_regs_struct registers = Registers(m_process);
    call.number = static_cast<long>(registers.orig_rax);
    call.arguments[0] = registers.rdi;
    call.arguments[1] = registers.rsi;
    call.arguments[2] = registers.rdx;
    return true;
}

bool TCTracedChild::RunToItsEnd(SystemCall& call) {
    if (!m_Resume(PTRACE_SYSCALL)) {
        return false;
    }
    call.result = static_cast<long>(Registers(m_process).rax);
    return true;
}

bool TCTracedChild::Step() {
    return m_Resume(PTRACE_SINGLESTEP);
}

bool TCTracedChild::RunTo(std::uint64_t address) {
    constexpr long byteMask = 0xFF;
    constexpr long breakpoint = 0xCC;
    const auto place = reinterpret_cast<void*>(address);
    const long code = ptrace(PTRACE_PEEKTEXT, m_process, place, nullptr);
    ptrace(PTRACE_POKETEXT, m_process, place, reinterpret_cast<void*>((code & ~byteMask) | breakpoint));
    const bool stopped = m_Resume(PTRACE_CONT);
    if (!stopped) {
        return false;
    }
    ptrace(PTRACE_POKETEXT, m_process, place, reinterpret_cast<void*>(code));
    user_regs_struct registers = Registers(m_process);
    if (registers.rip != address + 1) {
        return false;
    }
    registers.rip = address;
    return ptrace(PTRACE_SETREGS, m_process, nullptr, &registers) == 0;
}

bool TCTracedChild::IsBeforeSystemCall(SystemCall& call) const {
    constexpr long instructionMask = 0xFFFF;
    constexpr long systemCall = 0x050F;
    const user_regs_struct registers = Registers(m_process);
    const long code = ptrace(PTRACE_PEEKTEXT, m_process, reinterpret_cast<void*>(registers.rip), nullptr);
    call = {static_cast<long>(registers.rax), {registers.rdi, registers.rsi, registers.rdx}, 0};
    return (code & instructionMask) == systemCall;
}

std::uint64_t TCTracedChild::Address() const {
    return Registers(m_process).rip;
}

} // namespace MavixTest
