#include "CSharp_IPCConnection.h"

#include "Export.h"
#include "Guard.h"
#include "IpcClientInstance.h"
#include "Log.h"
#include "MavixAssert.h"
#include "MessageBuffer.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

using MavixApiLite::MAVIXHandle;
using MavixApiLite::TCIpcClientInstance;
using MavixApiLite::TCMessageBuffer;
using MavixApiLite::TIIpcClient;

// What a handle points to.
using ClientShare = std::shared_ptr<TIIpcClient>;

// Set by callers of any thread while events are delivered: a reader sees the old or the new pointer.
std::atomic<MavixManagedCallback> g_csharpfunctioncb[IPC_MESSAGE_MAX];
std::atomic<MavixEventCallback> g_TCPIConnection_Callback[IPC_MESSAGE_MAX];

constexpr MavixEventCallback trampolines[] = {
    TCPIConnection_Callback_SIGNAL,  TCPIConnection_Callback_PIPELINE_EVENT,
    TCPIConnection_Callback_DATA,    TCPIConnection_Callback_PROGRAM,
    TCPIConnection_Callback_SECTION, TCPIConnection_Callback_TEXTDATA,
    TCPIConnection_Callback_DSM,     TCPIConnection_Callback_COPY_PROTECTION,
    TCPIConnection_Callback_PESDATA, TCPIConnection_Callback_EXPESDATA,
    TCPIConnection_Callback_HT,
};

// The types are not checked here: the client judges them. These two only keep its callers inside the tables.
template <class Callback>
Callback Load(const std::atomic<Callback> (&table)[IPC_MESSAGE_MAX], int type) {
    const auto slot = static_cast<std::size_t>(static_cast<unsigned int>(type));
    return slot < IPC_MESSAGE_MAX ? table[slot].load(std::memory_order_relaxed) : nullptr;
}

template <class Callback>
void Store(std::atomic<Callback> (&table)[IPC_MESSAGE_MAX], int type, Callback callback) {
    const auto slot = static_cast<std::size_t>(static_cast<unsigned int>(type));
    if (slot < IPC_MESSAGE_MAX) {
        table[slot].store(callback, std::memory_order_relaxed);
    }
}

template <class Result, class Body>
Result Guarded(const char* function, Result failure, const Body& body) {
    return MavixApiLite::GuardedCall(MAVIX_LOG_SOURCE_NAME, function, __LINE__, failure, body);
}

// Runs `body` with a share of the handle's client, which its end in another thread cannot take away. In a
// forked child the client of a handle from before has lost its threads.
template <class Result, class Body>
Result WithClient(const char* function, void* handle, Result failure, const Body& body) {
    const ClientShare client = *static_cast<const ClientShare*>(handle);
    if (TCIpcClientInstance::IsForkedChild()) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                     "[API_LITE] no client: this process was forked after the client was created");
        return failure;
    }
    return body(*client);
}

template <class Result, class Body>
Result GuardedWithClient(const char* function, void* handle, Result failure, const Body& body) {
    return Guarded(function, failure, [&] { return WithClient(function, handle, failure, body); });
}

template <class Body>
void GuardedRunWithClient(const char* function, void* handle, const Body& body) {
    GuardedWithClient(function, handle, false, [&body](TIIpcClient& client) {
        body(client);
        return true;
    });
}

// The sign of the second part extends into 32 bits.
MAVIXHandle HandleOf(int first, short second) {
    return {static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(std::int32_t{second})};
}

const char* Printable(const char* text) {
    return text != nullptr ? text : "(null)";
}

} // namespace

extern "C" {

MAVIX_API_EXPORT void* TCIPCConnection_Create(const char* first, const char* second, bool flag) {
    MAVIX_LOGI("%s %s %d\n", Printable(first), Printable(second), flag ? 1 : 0);
    for (auto& callback : g_csharpfunctioncb) {
        callback.store(nullptr, std::memory_order_relaxed);
    }
    std::size_t slot = 0;
    for (const MavixEventCallback trampoline : trampolines) {
        g_TCPIConnection_Callback[slot++].store(trampoline, std::memory_order_relaxed);
    }
    return Guarded(__FUNCTION__, static_cast<void*>(nullptr), []() -> void* {
        auto share = std::make_unique<ClientShare>(TCIpcClientInstance::GetInstance());
        if (!*share) {
            MAVIX_ASSERT_TEXT(TCIpcClientInstance::IsGone(), "instance");
            return nullptr;
        }
        return share.release();
    });
}

MAVIX_API_EXPORT void TCIPCConnection_Destroy(void* handle) {
    MAVIX_LOGI("0x%p\n", handle);
    delete static_cast<ClientShare*>(handle);
}

// The text is made outside the guard: a null name is the caller's error, and the one exception that passes.
MAVIX_API_EXPORT bool TCIPCConnection_Call(void* handle, const char* interfaceName, short functionCode,
                                           TCMessageBuffer* in, TCMessageBuffer* out) {
    const std::string name(interfaceName);
    return GuardedWithClient(__FUNCTION__, handle, false,
                             [&](TIIpcClient& client) { return client.Call(name, functionCode, *in, *out); });
}

MAVIX_API_EXPORT bool TCIPCConnection_CallAsync(void* handle, const char* interfaceName, short functionCode,
                                                TCMessageBuffer* in) {
    const std::string name(interfaceName);
    return GuardedWithClient(__FUNCTION__, handle, false,
                             [&](TIIpcClient& client) { return client.CallAsync(name, functionCode, *in); });
}

MAVIX_API_EXPORT bool TCIPCConnection_WaitForCreateInterface(void* handle, const char* interfaceName) {
    const auto wait = [&](TIIpcClient& client) { return client.WaitForCreateInterface(interfaceName); };
    if (interfaceName == nullptr) {
        // Only the client knows whether it looks at the name.
        return WithClient(__FUNCTION__, handle, false, wait);
    }
    return GuardedWithClient(__FUNCTION__, handle, false, wait);
}

MAVIX_API_EXPORT bool TCIPCConnection_AddMatchRule(void* handle, int type, int messageId, int handleFirst,
                                                   short handleSecond) {
    return GuardedWithClient(__FUNCTION__, handle, false, [&](TIIpcClient& client) {
        return client.AddMatchRule(static_cast<EIPCMessageType>(type), messageId,
                                   HandleOf(handleFirst, handleSecond));
    });
}

MAVIX_API_EXPORT bool TCIPCConnection_RemoveMatchRule(void* handle, int type, int messageId, int handleFirst,
                                                      short handleSecond) {
    MAVIX_LOGD("0x%p type = %d, messageId = %d\n", handle, type, messageId);
    return GuardedWithClient(__FUNCTION__, handle, false, [&](TIIpcClient& client) {
        return client.RemoveMatchRule(static_cast<EIPCMessageType>(type), messageId,
                                      HandleOf(handleFirst, handleSecond));
    });
}

MAVIX_API_EXPORT void TCPIConnection_SetCallbackFunction(void* handle, int type,
                                                         MavixManagedCallback callback) {
    MAVIX_LOGD("0x%p type = %d CSharpCallbackFunction =%p\n", handle, type,
               reinterpret_cast<void*>(callback));
    Store(g_csharpfunctioncb, type, callback);
    GuardedRunWithClient(__FUNCTION__, handle, [type](TIIpcClient& client) {
        client.SetCallbackFunction(static_cast<EIPCMessageType>(type), Load(g_TCPIConnection_Callback, type));
    });
}

MAVIX_API_EXPORT void TCPIConnection_UnsetCallbackFunction(void* handle, int type) {
    MAVIX_LOGD("0x%p type = %d\n", handle, type);
    Store(g_csharpfunctioncb, type, MavixManagedCallback{nullptr});
    GuardedRunWithClient(__FUNCTION__, handle, [type](TIIpcClient& client) {
        client.UnsetCallbackFunction(static_cast<EIPCMessageType>(type));
    });
}

MAVIX_API_EXPORT void TCPIConnection_Callback(EIPCMessageType type, int messageId, const char* data,
                                              int size) {
    const MavixManagedCallback callback = Load(g_csharpfunctioncb, static_cast<int>(type));
    MAVIX_LOGD("called, type = %d messageId = %d g_csharpfunctioncb[] = %p\n", static_cast<int>(type),
               messageId, reinterpret_cast<void*>(callback));
    if (callback == nullptr) {
        return;
    }
    MavixApiLite::GuardedRun(MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __LINE__, [&] {
        TCMessageBuffer payload;
        payload.PushConcatenated(static_cast<unsigned long>(size), data);
        callback(messageId, &payload);
    });
}

#define MAVIX_TRAMPOLINE(name)                                                                               \
    MAVIX_API_EXPORT void TCPIConnection_Callback_##name(int messageId, const char* data, int size) {        \
        TCPIConnection_Callback(IPC_MESSAGE_##name, messageId, data, size);                                  \
    }

MAVIX_TRAMPOLINE(SIGNAL)
MAVIX_TRAMPOLINE(PIPELINE_EVENT)
MAVIX_TRAMPOLINE(DATA)
MAVIX_TRAMPOLINE(PROGRAM)
MAVIX_TRAMPOLINE(SECTION)
MAVIX_TRAMPOLINE(TEXTDATA)
MAVIX_TRAMPOLINE(DSM)
MAVIX_TRAMPOLINE(COPY_PROTECTION)
MAVIX_TRAMPOLINE(PESDATA)
MAVIX_TRAMPOLINE(EXPESDATA)
MAVIX_TRAMPOLINE(HT)

MAVIX_API_EXPORT void TCFreeMemory(void* memory) {
    std::free(memory);
}

} // extern "C"
