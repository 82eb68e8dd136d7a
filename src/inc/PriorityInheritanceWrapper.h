#ifndef MAVIX_PRIORITY_INHERITANCE_WRAPPER_H
#define MAVIX_PRIORITY_INHERITANCE_WRAPPER_H

#include "Log.h"
#include "Platform.h"

#include <string>

namespace MavixApiLite {

// Lends the calling thread's CPU priority to a process for the lifetime of a scope. A failure to lend never
// fails what the scope does.
class TCPriorityInheritanceWrapper final {
public:
    TCPriorityInheritanceWrapper(const std::string& processName, bool enabled) : m_processName(processName) {
        constexpr int callingThread = 0;
        constexpr int timeLimit = 1999;
        if (m_processName.empty()) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, m_source, m_function,
                         "Process name not set. Disabling inheritance.");
            return;
        }
        if (!enabled) {
            return;
        }
        const int result = resource_set_cpu_inheritance(callingThread, m_processName.c_str(), timeLimit);
        if (result != 0) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, m_source, m_function, "Inheritance failed: %d", result);
            return;
        }
        m_lent = true;
    }

    ~TCPriorityInheritanceWrapper() {
        if (m_lent) {
            resource_clear_cpu_inheritance(0, m_processName.c_str());
        }
    }

    TCPriorityInheritanceWrapper(const TCPriorityInheritanceWrapper&) = delete;
    TCPriorityInheritanceWrapper& operator=(const TCPriorityInheritanceWrapper&) = delete;

private:
    static constexpr const char* m_source = "PriorityInheritanceWrapper";
    static constexpr const char* m_function = "TCPriorityInheritanceWrapper";

    const std::string m_processName;
    bool m_lent = false;
};

} // namespace MavixApiLite

#endif
