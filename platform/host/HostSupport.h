#ifndef MAVIX_HOST_SUPPORT_H
#define MAVIX_HOST_SUPPORT_H

#include "Platform.h"

#include <cerrno>
#include <exception>
#include <new>
#include <unistd.h>

// What the platform's functions share. This is the lowest floor of the house, so nothing of the library is
// used here.

// Logs a line of the platform itself, in the same form as the library's lines.
#define MAVIX_HOST_LOG(priority, source, ...)                                                                \
    ::MavixPlatformHost::LogAs(priority, source, __func__, __LINE__, __VA_ARGS__)

namespace MavixPlatformHost {

void LogAs(int priority, const char* source, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// Runs the body of an exported function: no C++ exception may reach the caller's C frame. Thread cancellation
// is no std::exception and passes.
template <class Body>
int Guarded(Body&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    } catch (const std::exception&) {
        return -EIO;
    }
}

// Owns a file descriptor; negative is empty.
class TCDescriptor final {
public:
    explicit TCDescriptor(int descriptor) : m_descriptor(descriptor) {}
    TCDescriptor(const TCDescriptor&) = delete;
    TCDescriptor& operator=(const TCDescriptor&) = delete;
    ~TCDescriptor() {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
        }
    }

    int Get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }

private:
    const int m_descriptor;
};

} // namespace MavixPlatformHost

#endif
