#ifndef MAVIX_TOOLS_DESCRIPTOR_H
#define MAVIX_TOOLS_DESCRIPTOR_H

#include <unistd.h>
#include <utility>

namespace MavixTools {

// Owns a file descriptor; negative is empty.
class TCDescriptor final {
public:
    TCDescriptor() = default;
    explicit TCDescriptor(int descriptor) : m_descriptor(descriptor) {}
    TCDescriptor(TCDescriptor&& other) noexcept : m_descriptor(other.Release()) {}
    TCDescriptor& operator=(TCDescriptor&& other) noexcept {
        if (this != &other) {
            Close();
            m_descriptor = other.Release();
        }
        return *this;
    }
    TCDescriptor(const TCDescriptor&) = delete;
    TCDescriptor& operator=(const TCDescriptor&) = delete;
    ~TCDescriptor() { Close(); }

    int Get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }
    int Release() { return std::exchange(m_descriptor, -1); }
    void Close() {
        if (m_descriptor >= 0)
            ::close(std::exchange(m_descriptor, -1));
    }

private:
    int m_descriptor = -1;
};

struct Pipe {
    TCDescriptor reader;
    TCDescriptor writer;
};

// Both ends are closed on exec. Throws std::system_error.
Pipe MakePipe();

// Blocks the signals that ask a process to end and ignores a reader that has gone; what comes of the former
// is read from the result. `flags` of signalfd, to which closing on exec is added. Throws std::system_error.
TCDescriptor WatchEndingSignals(int flags = 0);

} // namespace MavixTools

#endif
