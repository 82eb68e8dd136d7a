#include "IPCConnection_C.h"

#include "Export.h"
#include "FlatCallBuffers.h"
#include "Guard.h"
#include "IpcClientInstance.h"
#include "Log.h"
#include "MavixAssert.h"
#include "MessageBuffer.h"

#include <cstring>
#include <memory>

namespace {

using MavixApiLite::MAVIXHandle;
using MavixApiLite::TCFlatCallBuffers;
using MavixApiLite::TCIpcClientInstance;
using MavixApiLite::TCMessageBuffer;
using MavixApiLite::TIIpcClient;

constexpr std::uint32_t lastMessageType = IPC_MESSAGE_MAX - 1;

// Runs `body` with the client; `failure` is the result without one and after an exception.
template <class Result, class Body>
Result WithClient(const char* function, Result failure, const Body& body) {
    return MavixApiLite::GuardedCall(MAVIX_LOG_SOURCE_NAME, function, __LINE__, failure, [&] {
        const std::shared_ptr<TIIpcClient> instance = TCIpcClientInstance::GetInstance();
        if (!instance) {
            MAVIX_ASSERT_TEXT(TCIpcClientInstance::IsGone(), "instance");
            return failure;
        }
        return body(*instance);
    });
}

template <class Body>
void RunWithClient(const char* function, const Body& body) {
    WithClient(function, false, [&body](TIIpcClient& instance) {
        body(instance);
        return true;
    });
}

const void* Address(const TIIpcClient& instance) {
    return &instance;
}

bool CallIntoArray(TIIpcClient& instance, const char* interfaceName, short functionCode, const void* input,
                   int inputLength, void** outputBuffer, unsigned int* outputLength) {
    TCFlatCallBuffers buffers;
    buffers.Input().PushConcatenated(static_cast<unsigned long>(inputLength), input);
    const bool result = instance.Call(interfaceName, functionCode, buffers.Input(), buffers.Output());
    std::size_t size = 0;
    *outputBuffer = buffers.ReleaseResult(size).release();
    *outputLength = static_cast<unsigned int>(size);
    return result;
}

} // namespace

extern "C" {

MAVIX_API_EXPORT bool IPCConnection__Create(void) {
    return WithClient(__FUNCTION__, false, [](TIIpcClient&) { return true; });
}

MAVIX_API_EXPORT void IPCConnection__Destroy(void) {}

MAVIX_API_EXPORT bool IPCConnection__Call(const char* interfaceName, short functionCode, const void* input,
                                          int inputLength, void** outputBuffer, unsigned int* outputLength) {
    constexpr const char* function = "IPCConnection__Call";
    const bool complete = outputBuffer != nullptr && outputLength != nullptr && interfaceName != nullptr;
    if (complete) {
        *outputBuffer = nullptr;
        *outputLength = 0;
    }
    return WithClient(function, false, [&](TIIpcClient& instance) {
        if (!complete) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                         "[API_LITE][IPCConnection__Call] Error: instance(%p), interfaceName(%p), "
                         "outputBuffer(%p), outputBufferSize(%p)",
                         Address(instance), static_cast<const void*>(interfaceName),
                         static_cast<void*>(outputBuffer), static_cast<void*>(outputLength));
            return false;
        }
        return CallIntoArray(instance, interfaceName, functionCode, input, inputLength, outputBuffer,
                             outputLength);
    });
}

MAVIX_API_EXPORT void IPCConnection__CallDisposeOutputBuffer(void* buffer) {
    delete[] static_cast<char*>(buffer);
}

MAVIX_API_EXPORT bool IPCConnection__CallAsync(const char* interfaceName, short functionCode,
                                               const void* input, int inputLength) {
    constexpr const char* function = "IPCConnection__CallAsync";
    return WithClient(function, false, [&](TIIpcClient& instance) {
        if (interfaceName == nullptr) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                         "[API_LITE][IPCConnection__CallAsync] Error: instance(%p), interfaceName(%p)",
                         Address(instance), static_cast<const void*>(interfaceName));
            return false;
        }
        TCFlatCallBuffers buffers;
        buffers.Input().PushConcatenated(static_cast<unsigned long>(inputLength), input);
        return instance.CallAsync(interfaceName, functionCode, buffers.Input());
    });
}

MAVIX_API_EXPORT bool IPCConnection__WaitForCreateInterface(const char* interfaceName) {
    constexpr const char* function = "IPCConnection__WaitForCreateInterface";
    return WithClient(function, false, [&](TIIpcClient& instance) {
        if (interfaceName == nullptr) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                         "[API_LITE][IPCConnection__WaitForCreateInterface] Error: instance(%p), "
                         "interfaceName(%p)",
                         Address(instance), static_cast<const void*>(interfaceName));
            return false;
        }
        // Deliberately no wait: every call waits for its bus by itself.
        return true;
    });
}

MAVIX_API_EXPORT bool IPCConnection__AddMatchRule(EIPCMessageType type, int id, unsigned int handleFirst,
                                                  unsigned int handleSecond) {
    return WithClient(__FUNCTION__, false, [&](TIIpcClient& instance) {
        return instance.AddMatchRule(type, id, MAVIXHandle{handleFirst, handleSecond});
    });
}

MAVIX_API_EXPORT bool IPCConnection__RemoveMatchRule(EIPCMessageType type, int id, unsigned int handleFirst,
                                                     unsigned int handleSecond) {
    return WithClient(__FUNCTION__, false, [&](TIIpcClient& instance) {
        return instance.RemoveMatchRule(type, id, MAVIXHandle{handleFirst, handleSecond});
    });
}

MAVIX_API_EXPORT void IPCConnection__SetCallbackFunction(EIPCMessageType type, MavixEventCallback callback) {
    constexpr const char* function = "IPCConnection__SetCallbackFunction";
    RunWithClient(function, [&](TIIpcClient& instance) {
        if (callback == nullptr || static_cast<std::uint32_t>(type) > lastMessageType) {
            MAVIX_LOG_AS(
                MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                "[API_LITE][IPCConnection__SetCallbackFunction] Error: instance(%p), functionCB(%p), "
                "type(%d)",
                Address(instance), reinterpret_cast<void*>(callback), static_cast<int>(type));
            return;
        }
        instance.SetCallbackFunction(type, callback);
    });
}

MAVIX_API_EXPORT void IPCConnection__UnsetCallbackFunction(EIPCMessageType type) {
    constexpr const char* function = "IPCConnection__UnsetCallbackFunction";
    RunWithClient(function, [&](TIIpcClient& instance) {
        if (static_cast<std::uint32_t>(type) > lastMessageType) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                         "[API_LITE][IPCConnection__UnsetCallbackFunction] Error: instance(%p), type(%d)",
                         Address(instance), static_cast<int>(type));
            return;
        }
        instance.UnsetCallbackFunction(type);
    });
}

MAVIX_API_EXPORT bool IPCConnection__UseBoostingInheritance(int enable) {
    return WithClient(__FUNCTION__, false, [&](TIIpcClient& instance) {
        return instance.UseBoostingInheritance((static_cast<unsigned int>(enable) & 0xFFU) != 0);
    });
}

} // extern "C"
