#ifndef MAVIX_SESSION_CONTROL_PROXY_H
#define MAVIX_SESSION_CONTROL_PROXY_H

#include "Export.h"
#include "IpcClientInterface.h"
#include "SessionControl_C.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>

namespace MavixApiLite {
struct TestAccess;
}

// Counts the opens and closes of the session in this process and asks the service for the first and the last
// of them. The process-wide one is created on first use and never destroyed. Any thread may call; opening and
// closing take m_sessionLock, and hold it exclusively while the service is asked. A lock may throw
// std::system_error.
class MAVIX_API_EXPORT SessionControlProxy {
public:
    // The process-wide proxy. Null in a child that was forked after the client was created, and without a
    // proxy in a process that has begun to exit, with one error line.
    static SessionControlProxy* Instance();

    // Without a client: assertion; on a release build every operation then gives -1.
    explicit SessionControlProxy(std::shared_ptr<MavixApiLite::TIIpcClient> ipcConnection);
    SessionControlProxy(const SessionControlProxy&) = delete;
    SessionControlProxy& operator=(const SessionControlProxy&) = delete;

    // What these do and give stands with the functions of SessionControl_C.h.
    int IncreaseSessionCount();
    int DecreaseSessionCount();
    int OpenDebugTrace(long long traceId, SessionControlDebugInfo* info);
    int CloseDebugTrace(long long traceId);
    int GetSessionsDebugInfo(char** text);
    int IsMavixTerminated(int* isTerminated);

private:
    friend struct MavixApiLite::TestAccess;

    enum ESessionState : std::int32_t { Undefined = 0, Opened = 1, Closed = 2 };

    int m_Open();
    int m_Close();
    bool m_SubtractUnlessLast();
    bool m_HasClient(const char* function) const;
    bool m_Call(short functionCode, MavixApiLite::TCMessageBuffer& reply);
    int m_CallForResult(short functionCode);
    bool m_CallAsync(short functionCode, MavixApiLite::TCMessageBuffer& request);
    std::string m_getStackTrace();
    const char* m_ToString(ESessionState state) const;

    std::string m_interfaceName;
    std::shared_ptr<MavixApiLite::TIIpcClient> m_ipcConnection;
    std::shared_mutex m_sessionLock; // shared: changes of the counter alone; exclusively: of the state, too
    std::atomic<int> m_sessionCounter;
    std::atomic<ESessionState> m_sessionState;

    static std::shared_mutex m_instanceLock; // guards the creation of the proxy
    static SessionControlProxy* m_pSessionControlProxy;
};

#endif
