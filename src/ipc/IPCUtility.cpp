#include "IPCUtility.h"

#include "Guard.h"
#include "Handles.h"
#include "IPCUtility_C.h"
#include "Log.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr const char* elementPrefix = "mavix";
constexpr std::size_t elementPrefixLength = 5;

// Every element that holds a digit gets the prefix before its first one, letters in front or not.
std::string SubConnectionName(const char* uniqueName, unsigned int length) {
    std::string name = "com.norvale.Mavix.Signal.";
    bool segmentStart = true;
    for (unsigned int at = 0; at < length; ++at) {
        const char character = uniqueName[at];
        if (character == ':') {
            continue;
        }
        if (!segmentStart) {
            segmentStart = character == '.';
        } else if (character >= '0' && character <= '9') {
            name += elementPrefix;
            segmentStart = false;
        }
        name += character;
    }
    return name;
}

} // namespace

extern "C" MAVIX_API_EXPORT void IPCUtility_GenerateSubConnectionName(const char* uniqueName,
                                                                      unsigned int length, char* output,
                                                                      unsigned int* capacity) {
    if (uniqueName == nullptr || length == 0 || output == nullptr || capacity == nullptr) {
        return;
    }
    MavixApiLite::GuardedRun(MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __LINE__, [&] {
        const std::string name = SubConnectionName(uniqueName, length);
        if (name.size() >= *capacity) {
            name.copy(output, *capacity);
            return;
        }
        name.copy(output, name.size());
        *capacity = static_cast<unsigned int>(name.size());
    });
}

std::string get_current_process_name() {
    return program_invocation_name;
}

namespace MavixApiLite {

std::string TCIPCUtility::GetProcessName(int pid) {
    std::array<char, 4096> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "/proc/%d/cmdline", pid);
    const TCFileDescriptor file(open(buffer.data(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        MAVIX_LOGE("Failed to open %s[pid : %d]", buffer.data(), pid);
        return {};
    }
    const ssize_t count = read(file.Get(), buffer.data(), buffer.size() - 1);
    if (count == 0) {
        MAVIX_LOGE("Failed to read %s[pid : %d]", buffer.data(), pid);
        return {};
    }
    // After a read error the buffer still holds the path, and that is the answer.
    if (count > 0) {
        buffer[static_cast<std::size_t>(count)] = '\0';
    }
    return buffer.data();
}

std::string TCIPCUtility::ConnectionNameToSenderString(const std::string& name) {
    const std::size_t lastDot = name.rfind('.');
    if (lastDot == std::string::npos || lastDot == 0) {
        return {};
    }
    const std::string last = name.substr(lastDot + 1);
    const std::size_t middleDot = name.rfind('.', lastDot - 1);
    if (middleDot == std::string::npos || last.size() <= elementPrefixLength) {
        return {};
    }
    const std::string middle = name.substr(middleDot + 1, lastDot - middleDot - 1);
    if (middle.size() <= elementPrefixLength) {
        return {};
    }
    return ":" + middle.substr(elementPrefixLength) + "." + last.substr(elementPrefixLength);
}

std::string TCIPCUtility::GenerateSubConnectionName(const std::string& uniqueName) {
    std::array<char, 256> buffer{};
    unsigned int capacity = buffer.size() - 1;
    IPCUtility_GenerateSubConnectionName(uniqueName.data(), static_cast<unsigned int>(uniqueName.size()),
                                         buffer.data(), &capacity);
    return buffer.data();
}

bool TCIPCUtility::m_CheckArgumentType(DBusMessageIter& iterator, int expectedType, bool advance) {
    if (advance && dbus_message_iter_next(&iterator) == FALSE) {
        return false;
    }
    return dbus_message_iter_get_arg_type(&iterator) == expectedType;
}

} // namespace MavixApiLite
