#include "DbusBusWrapper.h"

#include "LiteUtility.h"
#include "Log.h"
#include "MavixAssert.h"

#include <chrono>
#include <utility>

namespace MavixApiLite {

DbusBusWrapper::DbusBusWrapper(const std::string& busName, std::shared_ptr<TIIpcConnection> connection)
    : m_helloSent(false), m_busName(busName), m_ipcConnection(std::move(connection)), m_subscribed(false) {}

DbusBusWrapper::~DbusBusWrapper() {
    if (m_subscribed) {
        m_ipcConnection->RemoveMatch(m_OwnerChangedRule(m_busName).c_str());
    }
}

bool DbusBusWrapper::CheckAndMarkHelloSent() {
    return m_helloSent.exchange(true);
}

bool DbusBusWrapper::SubscribeForOwnerChanged() {
    if (m_subscribed) {
        return false;
    }
    m_subscribed = m_ipcConnection->AddMatch(m_OwnerChangedRule(m_busName).c_str());
    return m_subscribed;
}

bool DbusBusWrapper::WaitForCreate() {
    using Clock = std::chrono::steady_clock;
    constexpr int firstQueryTimeoutMs = 250;
    constexpr unsigned long pollIntervalMs = 100;
    constexpr std::chrono::nanoseconds progressInterval(999999999);

    MAVIX_ASSERT(m_ipcConnection->WaitConnected());
    const int limitMs = LiteUtility::IsDebug() ? 50000 : 25000;
    int queryTimeoutMs = firstQueryTimeoutMs;
    const Clock::time_point start = Clock::now();
    Clock::time_point lastProgress = start - std::chrono::seconds(1);
    for (;;) {
        bool hasOwner = false;
        const bool answered = m_ipcConnection->BusHasOwner(m_busName, queryTimeoutMs, hasOwner);
        if (answered && hasOwner) {
            return true;
        }
        const Clock::time_point now = Clock::now();
        const long long elapsedMs =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - start).count();
        if (elapsedMs >= limitMs) {
            break;
        }
        if (!answered && limitMs > queryTimeoutMs) {
            queryTimeoutMs *= 2;
        }
        if (now - lastProgress > progressInterval) {
            MAVIX_LOGD("[API_LITE] Waiting for connection, duration: %lldms, busName: %s", elapsedMs,
                       m_busName.c_str());
            lastProgress = now;
        }
        LiteUtility::SleepMs(pollIntervalMs);
    }
    MAVIX_LOGE("[API_LITE][END] TIMEOUT, Cannot connect to the %s bus name", m_busName.c_str());
    return false;
}

std::int32_t DbusBusWrapper::IsBusMessage(TIIpcMessage& message) {
    TIIpcMessage::IpcMessageType type = TIIpcMessage::Signal;
    if (message.IsOfType(&type, "org.freedesktop.DBus", "NameOwnerChanged")) {
        return OwnerChanged;
    }
    type = TIIpcMessage::MethodCall;
    if (message.IsOfType(&type, "org.freedesktop.DBus.Introspectable", "Introspect")) {
        return IntrospectionRequest;
    }
    return NotABusMessage;
}

std::string DbusBusWrapper::m_OwnerChangedRule(const std::string& busName) {
    return "path='/org/freedesktop/DBus', type='signal', interface='org.freedesktop.DBus', "
           "member='NameOwnerChanged', arg0='" +
           busName + "'";
}

} // namespace MavixApiLite
