#include "SessionControl_C.h"

#include "Export.h"
#include "Guard.h"
#include "SessionControlProxy.h"

namespace {

constexpr int failure = -1;

// Runs `body` with the proxy; -1 without one and after an exception.
template <class Body>
int WithProxy(const char* function, const Body& body) {
    return MavixApiLite::GuardedCall(MAVIX_LOG_SOURCE_NAME, function, __LINE__, failure, [&body] {
        SessionControlProxy* proxy = SessionControlProxy::Instance();
        return proxy != nullptr ? body(*proxy) : failure;
    });
}

} // namespace

extern "C" {

MAVIX_API_EXPORT int SessionControl__Open(void) {
    return WithProxy(__FUNCTION__, [](SessionControlProxy& proxy) { return proxy.IncreaseSessionCount(); });
}

MAVIX_API_EXPORT int SessionControl__Close(void) {
    return WithProxy(__FUNCTION__, [](SessionControlProxy& proxy) { return proxy.DecreaseSessionCount(); });
}

MAVIX_API_EXPORT int SessionControl__OpenDebugTrace(long long traceId, SessionControlDebugInfo* info) {
    return WithProxy(__FUNCTION__,
                     [&](SessionControlProxy& proxy) { return proxy.OpenDebugTrace(traceId, info); });
}

MAVIX_API_EXPORT int SessionControl__CloseDebugTrace(long long traceId) {
    return WithProxy(__FUNCTION__,
                     [&](SessionControlProxy& proxy) { return proxy.CloseDebugTrace(traceId); });
}

MAVIX_API_EXPORT int SessionControl__GetSessionsDebugInfo(char** text) {
    return WithProxy(__FUNCTION__,
                     [&](SessionControlProxy& proxy) { return proxy.GetSessionsDebugInfo(text); });
}

MAVIX_API_EXPORT int SessionControl__IsMavixTerminated(int* isTerminated) {
    return WithProxy(__FUNCTION__,
                     [&](SessionControlProxy& proxy) { return proxy.IsMavixTerminated(isTerminated); });
}

} // extern "C"
