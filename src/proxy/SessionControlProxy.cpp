#include "SessionControlProxy.h"

#include "ForkedLock.h"
#include "Guard.h"
#include "Handles.h"
#include "IpcClientInstance.h"
#include "IpcConfigurationMavix.h"
#include "Log.h"
#include "MavixAssert.h"
#include "MessageBuffer.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

using MavixApiLite::Handle;
using MavixApiLite::TCIpcClientInstance;
using MavixApiLite::TCMessageBuffer;
using MavixApiLite::TIIpcClient;

namespace {

// The service's functions.
enum FunctionCode : short {
    openSession = 0,
    closeSession = 1,
    sessionsDebugInfo = 2,
    openDebugTrace = 3,
    closeDebugTrace = 4,
    isTerminatedFunction = 5
};

constexpr int success = 0;
constexpr int failure = -1;
constexpr int invalidArgument = -2;
// The record's size where pointers have 64 bits, demanded everywhere.
constexpr std::int32_t debugInfoSize = 24;
constexpr int mostFrames = 100;

// Where a reply's values stand.
constexpr unsigned int resultOffset = 0;
constexpr unsigned int valueOffset = 4;
constexpr unsigned int textOffset = 8;

// A peer's reply may be shorter than it should be, so its size is looked at first.
bool ReadInt(TCMessageBuffer& buffer, unsigned int offset, int& value) {
    if (buffer.PayloadSize() < offset + sizeof value) {
        return false;
    }
    buffer.ReadInt(&value, offset);
    return true;
}

// 0 when the reply has none.
int ResultOf(TCMessageBuffer& reply) {
    int result = success;
    ReadInt(reply, resultOffset, result);
    return result;
}

} // namespace

// The exit of the process destroys neither this lock nor the proxy, because callers may still come.
static_assert(std::is_trivially_destructible_v<std::shared_mutex>);
std::shared_mutex SessionControlProxy::m_instanceLock;
SessionControlProxy* SessionControlProxy::m_pSessionControlProxy = nullptr;

SessionControlProxy* SessionControlProxy::Instance() {
    MavixApiLite::FreeInForkedChildren<m_instanceLock>();
    // A child that was forked after the client was created may have inherited other taken locks.
    const bool forkedChild = TCIpcClientInstance::IsForkedChild();
    if (!forkedChild) {
        const std::shared_lock<std::shared_mutex> lock(m_instanceLock);
        if (m_pSessionControlProxy != nullptr) {
            return m_pSessionControlProxy;
        }
    }
    // Not under the lock: this may create the client.
    std::shared_ptr<TIIpcClient> client = TCIpcClientInstance::GetInstance();
    if (forkedChild) {
        return nullptr;
    }
    const std::unique_lock<std::shared_mutex> lock(m_instanceLock);
    if (m_pSessionControlProxy == nullptr && (client || !TCIpcClientInstance::IsGone())) {
        m_pSessionControlProxy = new (std::nothrow) SessionControlProxy(std::move(client));
        MAVIX_ASSERT_MESSAGE(m_pSessionControlProxy, "Failed to create proxy object");
    }
    return m_pSessionControlProxy;
}

SessionControlProxy::SessionControlProxy(std::shared_ptr<TIIpcClient> ipcConnection)
    : m_interfaceName(MavixApiLite::MavixLiteInterfaceName), m_ipcConnection(std::move(ipcConnection)),
      m_sessionCounter(0), m_sessionState(Closed) {
    MAVIX_ASSERT_MESSAGE(m_ipcConnection, "Failed to create IPC object");
}

int SessionControlProxy::IncreaseSessionCount() {
    {
        const std::shared_lock<std::shared_mutex> lock(m_sessionLock);
        if (m_sessionState == Opened) {
            ++m_sessionCounter;
            return success;
        }
    }
    const std::unique_lock<std::shared_mutex> lock(m_sessionLock);
    if (m_sessionState == Opened) {
        ++m_sessionCounter;
        return success;
    }
    const int result = m_Open();
    m_sessionState = result != failure ? Opened : Undefined;
    // A failed open counts, so that the matching close balances it.
    ++m_sessionCounter;
    MAVIX_LOGE("Open Session, retCode(%d), refCount(%d), m_sessionState(%s)", result, m_sessionCounter.load(),
               m_ToString(m_sessionState));
    return result;
}

int SessionControlProxy::DecreaseSessionCount() {
    if (!m_HasClient(__FUNCTION__)) {
        return failure;
    }
    {
        const std::shared_lock<std::shared_mutex> lock(m_sessionLock);
        if (m_SubtractUnlessLast()) {
            return success;
        }
    }
    const std::unique_lock<std::shared_mutex> lock(m_sessionLock);
    if (m_SubtractUnlessLast()) {
        return success;
    }
    if (m_sessionState == Closed) {
        MAVIX_LOGE("m_sessionCounter:%d", m_sessionCounter.load());
        m_sessionCounter = 0;
        return invalidArgument;
    }
    m_sessionCounter = 0;
    const int result = m_Close();
    m_sessionState = result != failure ? Closed : Undefined;
    MAVIX_LOGE("Close Session, retCode(%d), refCount(%d), m_sessionState(%s)", result,
               m_sessionCounter.load(), m_ToString(m_sessionState));
    return result;
}

// Looking and subtracting are one step: others do the same under the shared lock, and the last close must not
// be taken for one of several.
bool SessionControlProxy::m_SubtractUnlessLast() {
    int count = m_sessionCounter;
    while (count > 1) {
        if (m_sessionCounter.compare_exchange_weak(count, count - 1)) {
            return true;
        }
    }
    return false;
}

int SessionControlProxy::m_Open() {
    return m_CallForResult(openSession);
}

int SessionControlProxy::m_Close() {
    return m_CallForResult(closeSession);
}

int SessionControlProxy::m_CallForResult(short functionCode) {
    TCMessageBuffer reply;
    return m_ipcConnection && m_Call(functionCode, reply) ? ResultOf(reply) : failure;
}

// What a call throws is a failed call: the state and the counter must follow from it all the same.
bool SessionControlProxy::m_Call(short functionCode, TCMessageBuffer& reply) {
    return MavixApiLite::GuardedCall(MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __LINE__, false, [&] {
        TCMessageBuffer request;
        return m_ipcConnection->Call(m_interfaceName, functionCode, request, reply);
    });
}

bool SessionControlProxy::m_CallAsync(short functionCode, TCMessageBuffer& request) {
    return m_ipcConnection->CallAsync(m_interfaceName, functionCode, request);
}

bool SessionControlProxy::m_HasClient(const char* function) const {
    if (!m_ipcConnection) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "[API_LITE] no client");
    }
    return m_ipcConnection != nullptr;
}

int SessionControlProxy::OpenDebugTrace(long long traceId, SessionControlDebugInfo* info) {
    if (!m_HasClient(__FUNCTION__)) {
        return failure;
    }
    if (info == nullptr || info->structSize != debugInfoSize) {
        MAVIX_LOGE("[API_LITE] bad debug info %p, size %d", static_cast<void*>(info),
                   info != nullptr ? info->structSize : 0);
        return invalidArgument;
    }
    const std::string trace = info->callerInfo == nullptr ? m_getStackTrace() : std::string();
    const char* text = info->callerInfo != nullptr ? info->callerInfo : trace.c_str();
    const std::size_t length = std::strlen(text);
    TCMessageBuffer request;
    request.PushLongLong(traceId);
    request.PushInt(static_cast<int>(length));
    request.PushConcatenated(length, text);
    request.PushInt(info->traceParam);
    return m_CallAsync(openDebugTrace, request) ? success : failure;
}

int SessionControlProxy::CloseDebugTrace(long long traceId) {
    if (!m_HasClient(__FUNCTION__)) {
        return failure;
    }
    TCMessageBuffer request;
    request.PushLongLong(traceId);
    return m_CallAsync(closeDebugTrace, request) ? success : failure;
}

int SessionControlProxy::GetSessionsDebugInfo(char** text) {
    if (!m_HasClient(__FUNCTION__)) {
        return failure;
    }
    if (text == nullptr) {
        MAVIX_LOGE("[API_LITE] no place for the text");
        return invalidArgument;
    }
    TCMessageBuffer reply;
    if (!m_Call(sessionsDebugInfo, reply)) {
        return failure;
    }
    const int result = ResultOf(reply);
    if (result != success) {
        return result;
    }
    int length = -1;
    if (!ReadInt(reply, valueOffset, length) || length < 0 ||
        reply.PayloadSize() - textOffset < static_cast<std::size_t>(length)) {
        MAVIX_LOGE("[API_LITE] bad text length %d in a reply of %zu bytes", length, reply.PayloadSize());
        return failure;
    }
    const std::size_t size = static_cast<std::size_t>(length);
    Handle<char, std::free> copy(static_cast<char*>(std::calloc(size + 1, 1)));
    if (!copy) {
        MAVIX_LOGE("[API_LITE] no memory for a text of %d bytes", length);
        return failure;
    }
    reply.CopyData(copy.get(), static_cast<unsigned int>(length), textOffset);
    *text = copy.release();
    return success;
}

int SessionControlProxy::IsMavixTerminated(int* isTerminated) {
    if (!m_HasClient(__FUNCTION__)) {
        return failure;
    }
    if (isTerminated == nullptr) {
        MAVIX_LOGE("[API_LITE] no place for the flag");
        return invalidArgument;
    }
    TCMessageBuffer reply;
    if (!m_Call(isTerminatedFunction, reply)) {
        return failure;
    }
    if (const int result = ResultOf(reply); result != success) {
        MAVIX_LOGE("[API_LITE] the service answered %d", result);
        return failure;
    }
    int flag = 1;
    ReadInt(reply, valueOffset, flag);
    *isTerminated = flag;
    return success;
}

std::string SessionControlProxy::m_getStackTrace() {
    std::array<void*, mostFrames> frames;
    const int count = backtrace(frames.data(), mostFrames);
    const Handle<char*, std::free> symbols(backtrace_symbols(frames.data(), count));
    if (!symbols) {
        return "Error getting stack trace";
    }
    std::string trace;
    for (int at = 0; at < count; ++at) {
        trace += symbols.get()[at];
        trace += '\n';
    }
    return trace;
}

const char* SessionControlProxy::m_ToString(ESessionState state) const {
    switch (state) {
    case Opened:
        return "opened";
    case Closed:
        return "closed";
    default:
        return "undefined";
    }
}
