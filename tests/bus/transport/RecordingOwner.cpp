#include "RecordingOwner.h"

#include <cstring>
#include <pthread.h>

namespace MavixTest {

using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcMessage;

namespace {

// Of the bus itself, or of the bus library.
bool IsSignalOfTheBus(TIIpcMessage& message) {
    const char* interface = message.GetInterface();
    return interface != nullptr && (std::strcmp(interface, "org.freedesktop.DBus") == 0 ||
                                    std::strcmp(interface, "org.freedesktop.DBus.Local") == 0);
}

} // namespace

bool TCRecordingOwner::InitializeIpcConnection(TIIpcConnection* connection) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_initialisations;
    }
    return !onInitialize || onInitialize(connection);
}

bool TCRecordingOwner::FilterIpcMessage(TIIpcMessage& message) {
    if (IsSignalOfTheBus(message)) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_busSignals.emplace_back(message.GetMember());
        return false;
    }
    const char* member = message.GetMember();
    if (member == nullptr) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_replies;
        m_changed.notify_all();
        return false;
    }
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_threadName = name;
        m_messages.emplace_back(member);
        m_changed.notify_all();
    }
    return onMessage && onMessage(message);
}

std::size_t TCRecordingOwner::Initialisations() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_initialisations;
}

std::vector<std::string> TCRecordingOwner::Messages() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

std::vector<std::string> TCRecordingOwner::BusSignals() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_busSignals;
}

std::size_t TCRecordingOwner::Replies() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_replies;
}

std::string TCRecordingOwner::ThreadName() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_threadName;
}

bool TCRecordingOwner::WaitForMessages(std::size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] { return m_messages.size() >= count; });
}

} // namespace MavixTest
