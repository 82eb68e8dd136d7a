#ifndef MAVIX_TEST_LIBDBUS_FAULTS_H
#define MAVIX_TEST_LIBDBUS_FAULTS_H

#include <atomic>
#include <cstring>

namespace MavixTest {

// In a test program that has LibdbusFaults.cpp: while one lives, a function of libdbus fails as it does when
// memory has run out, each time the library calls it. One at a time.
class TCLibdbusFault final {
public:
    explicit TCLibdbusFault(const char* function) { m_failing = function; }
    ~TCLibdbusFault() { m_failing = nullptr; }
    TCLibdbusFault(const TCLibdbusFault&) = delete;
    TCLibdbusFault& operator=(const TCLibdbusFault&) = delete;

    static bool Fails(const char* function) {
        const char* failing = m_failing;
        return failing != nullptr && std::strcmp(failing, function) == 0;
    }

private:
    static std::atomic<const char*> m_failing;
};

} // namespace MavixTest

#endif
