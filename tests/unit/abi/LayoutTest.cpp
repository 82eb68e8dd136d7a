#include "DbusBusWrapper.h"
#include "DbusConnection.h"
#include "DbusErrorWrapper.h"
#include "DbusMessage.h"
#include "FakeConnection.h"
#include "GMainLoopHandler.h"
#include "GSourceHandler.h"
#include "GdbusConnection.h"
#include "GdbusError.h"
#include "GdbusMessage.h"
#include "IPCCachePrivate.h"
#include "IpcAuxData.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"
#include "MessageBuffer.h"
#include "MessageFilterContext.h"
#include "PerformanceLogger.h"
#include "RobustRWLock.h"
#include "SessionControlProxy.h"
#include "WatchdogHandler.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

using namespace MavixApiLite;

namespace {

// A field as it lies in an object.
struct Field {
    const char* name;
    std::size_t offset;
    std::size_t size;
    std::size_t alignment;
};

#define FIELD(field)                                                                                         \
    Field {                                                                                                  \
#field,                                                                                              \
            static_cast < std::size_t>                                                                       \
                (reinterpret_cast <const char*>(&object.field) - reinterpret_cast <const char*>(&object)),   \
            sizeof(object.field), alignof(decltype(object.field))                                            \
    }

template <class T, class Expected>
constexpr bool isA = std::is_same_v<std::remove_const_t<T>, Expected>;

// Handles and atomics stand for plain pointers and numbers.
template <class T>
constexpr bool isPointerSized = sizeof(T) == sizeof(void*) && alignof(T) == alignof(void*);

constexpr std::size_t UpTo(std::size_t position, std::size_t alignment) {
    return (position + alignment - 1) / alignment * alignment;
}

// Each field lies right behind the one before, as its alignment allows, and nothing follows the last.
template <class T>
void ExpectFieldsInOrder(const std::vector<Field>& fields, std::size_t start) {
    std::size_t position = start;
    for (const Field& field : fields) {
        EXPECT_EQ(UpTo(position, field.alignment), field.offset) << field.name;
        position = field.offset + field.size;
    }
    EXPECT_EQ(UpTo(position, alignof(T)), sizeof(T));
}

constexpr std::size_t noTable = 0;
constexpr std::size_t oneTable = sizeof(void*);
constexpr std::size_t twoTables = 2 * sizeof(void*);

using Fields = std::vector<Field>;

} // namespace

namespace MavixApiLite {

// The fields of each class in the order in which they are defined to stand.
struct TestAccess {
    static Fields Of(const TCMessageBuffer& object) {
        static_assert(isA<decltype(object.m_bufferData), std::vector<char>>);
        static_assert(isA<decltype(object.m_nonPayloadSize), unsigned long long>);
        static_assert(isA<decltype(object.m_reserved), unsigned long long>);
        static_assert(isA<decltype(object.m_sender), std::string>);
        static_assert(isA<decltype(object.m_senderAppName), std::string>);
        return {FIELD(m_bufferData), FIELD(m_nonPayloadSize), FIELD(m_reserved), FIELD(m_sender),
                FIELD(m_senderAppName)};
    }

    static Fields Of(const PerformanceLogger& object) {
        static_assert(isA<decltype(object.m_message), char[128]>);
        static_assert(isA<decltype(object.m_startSeconds), std::int64_t>);
        static_assert(isA<decltype(object.m_file), std::string>);
        static_assert(isA<decltype(object.m_line), std::int32_t>);
        return {FIELD(m_message), FIELD(m_startSeconds), FIELD(m_file), FIELD(m_line)};
    }

    static Fields Of(const IpcConfiguration& object) {
        static_assert(isA<decltype(object.m_signalInterfaceName), std::string>);
        static_assert(isA<decltype(object.m_signalObjectName), std::string>);
        return {FIELD(m_signalInterfaceName), FIELD(m_signalObjectName)};
    }

    static Fields Of(const IpcConfigurationMavix& object) {
        static_assert(isA<decltype(object.m_defaultBusName), std::string>);
        static_assert(isA<decltype(object.m_pipelineBusName), std::string>);
        static_assert(isA<decltype(object.m_serviceDbBusName), std::string>);
        static_assert(isA<decltype(object.m_hyperFastBusName), std::string>);
        static_assert(isA<decltype(object.m_interfaceBusNames),
                          std::unordered_map<std::string, std::list<std::string>>>);
        return {FIELD(m_defaultBusName),   FIELD(m_pipelineBusName),   FIELD(m_serviceDbBusName),
                FIELD(m_hyperFastBusName), FIELD(m_interfaceBusNames), FIELD(m_specialisedBusNameMapping)};
    }

    static Fields Of(const IpcAuxData& object) {
        static_assert(isA<decltype(object.m_values), std::map<std::int32_t, std::vector<char>>>);
        return {FIELD(m_values)};
    }

    static Fields Of(const TCWatchdogHandler& object) {
        static_assert(isA<decltype(object.m_notificationCounter), std::int32_t>);
        return {FIELD(m_notificationCounter)};
    }

    static Fields Of(const TCGdbusMessage& object) {
        static_assert(isPointerSized<decltype(object.m_rawMessage)>);
        static_assert(isA<decltype(object.m_bodyBuilder), GVariantBuilder>);
        static_assert(isA<decltype(object.m_body), GVariant*>);
        static_assert(isA<decltype(object.m_childIndex), std::uint32_t>);
        static_assert(isA<std::underlying_type_t<TCGdbusMessage::IteratorStatus>, std::int32_t>);
        static_assert(TCGdbusMessage::None == 0 && TCGdbusMessage::Reading == 1 &&
                      TCGdbusMessage::Writing == 2);
        return {FIELD(m_rawMessage), FIELD(m_bodyBuilder), FIELD(m_body), FIELD(m_childIndex),
                FIELD(m_iteratorStatus)};
    }

    static Fields Of(const TCGdbusConnection& object) {
        static_assert(isPointerSized<decltype(object.m_connection)>);
        static_assert(sizeof(object.m_connected) == sizeof(bool));
        static_assert(isA<decltype(object.m_connectingThread), std::thread>);
        static_assert(sizeof(object.m_connectingThreadId) == sizeof(pthread_t));
        static_assert(isA<decltype(object.m_mutex), std::mutex>);
        static_assert(isA<decltype(object.m_mainLoopHandler), std::unique_ptr<TCGMainLoopHandler>>);
        static_assert(isA<decltype(object.m_sourceHandler), std::unique_ptr<TCGSourceHandler>>);
        static_assert(isA<decltype(object.m_filterId), std::uint32_t>);
        static_assert(isA<decltype(object.m_owner), TIIpcConnectionOwner*>);
        return {FIELD(m_connection),         FIELD(m_connected), FIELD(m_connectingThread),
                FIELD(m_connectingThreadId), FIELD(m_mutex),     FIELD(m_mainLoopHandler),
                FIELD(m_sourceHandler),      FIELD(m_filterId),  FIELD(m_owner)};
    }

    static Fields Of(const TCDbusMessage& object) {
        static_assert(isPointerSized<decltype(object.m_rawMessage)>);
        static_assert(isA<decltype(object.m_iterator), DBusMessageIter>);
        static_assert(isA<std::underlying_type_t<TCDbusMessage::IteratorStatus>, std::int32_t>);
        static_assert(TCDbusMessage::None == 0 && TCDbusMessage::Reading == 1 && TCDbusMessage::Writing == 2);
        return {FIELD(m_rawMessage), FIELD(m_iterator), FIELD(m_iteratorStatus)};
    }

    static Fields Of(const TCDbusConnection& object) {
        static_assert(isA<decltype(object.m_maxAttempts), std::int32_t>);
        static_assert(isA<decltype(object.m_mutex), std::mutex>);
        static_assert(isA<decltype(object.m_connectingThread), std::thread>);
        static_assert(sizeof(object.m_connectingThreadId) == sizeof(pthread_t));
        static_assert(sizeof(object.m_connected) == sizeof(bool));
        static_assert(isPointerSized<decltype(object.m_connection)>);
        static_assert(isA<decltype(object.m_mainLoopHandler), std::unique_ptr<TCGMainLoopHandler>>);
        static_assert(isA<decltype(object.m_useDefaultContext), bool>);
        static_assert(isPointerSized<decltype(object.m_owner)>);
        return {
            FIELD(m_maxAttempts), FIELD(m_mutex),      FIELD(m_connectingThread), FIELD(m_connectingThreadId),
            FIELD(m_connected),   FIELD(m_connection), FIELD(m_mainLoopHandler),  FIELD(m_useDefaultContext),
            FIELD(m_owner)};
    }

    static Fields Of(const DbusErrorWrapper& object) {
        static_assert(isA<decltype(object.m_error), DBusError>);
        static_assert(isA<decltype(object.m_operationName), std::string>);
        return {FIELD(m_error), FIELD(m_operationName)};
    }

    static Fields Of(const TCGdbusError& object) {
        static_assert(isA<decltype(object.m_error), GError*>);
        static_assert(isA<decltype(object.m_operationName), std::string>);
        return {FIELD(m_error), FIELD(m_operationName)};
    }

    static Fields Of(const DbusBusWrapper& object) {
        static_assert(sizeof(object.m_helloSent) == sizeof(bool));
        static_assert(isA<decltype(object.m_busName), std::string>);
        static_assert(isA<decltype(object.m_ipcConnection), std::shared_ptr<TIIpcConnection>>);
        static_assert(isA<decltype(object.m_subscribed), bool>);
        return {FIELD(m_helloSent), FIELD(m_busName), FIELD(m_ipcConnection), FIELD(m_subscribed)};
    }

    static Fields Of(const TCGSourceHandler& object) {
        static_assert(isA<decltype(object.m_pAllocator), TIIpcMessageAllocator*>);
        static_assert(isPointerSized<decltype(object.m_pGSource)>);
        static_assert(isPointerSized<decltype(object.m_pAsyncQueue)>);
        static_assert(isA<decltype(object.m_pDispatchMutex), std::shared_ptr<std::mutex>>);
        static_assert(sizeof(object.m_dispatchThread) == sizeof(pthread_t));
        static_assert(isA<decltype(object.m_pSemaphore), std::shared_ptr<SignalSemaphore>>);
        static_assert(isA<decltype(object.m_messageHandler), std::function<void(TIIpcMessage&)>>);
        static_assert(isPointerSized<decltype(object.m_pGMainContext)>);
        return {FIELD(m_pAllocator),     FIELD(m_pGSource),       FIELD(m_pAsyncQueue),
                FIELD(m_pDispatchMutex), FIELD(m_dispatchThread), FIELD(m_pSemaphore),
                FIELD(m_messageHandler), FIELD(m_pGMainContext)};
    }

    static Fields Of(const TCGMainLoopHandler& object) {
        static_assert(isPointerSized<decltype(object.m_pGMainContext)>);
        static_assert(isPointerSized<decltype(object.m_pGMainLoop)>);
        static_assert(isA<decltype(object.m_threadName), std::string>);
        static_assert(isA<decltype(object.m_thread), std::thread>);
        static_assert(isA<decltype(object.m_pWatchdogHandler), std::unique_ptr<TCWatchdogHandler>>);
        return {FIELD(m_pGMainContext), FIELD(m_pGMainLoop), FIELD(m_threadName), FIELD(m_thread),
                FIELD(m_pWatchdogHandler)};
    }

    using WatchdogNotification = TCGMainLoopHandler::WatchdogNotification;
    static Fields Of(const WatchdogNotification& object) {
        static_assert(isA<decltype(object.pThreadName), const std::string*>);
        static_assert(isA<decltype(object.pWatchdogHandler), TCWatchdogHandler*>);
        return {FIELD(pThreadName), FIELD(pWatchdogHandler)};
    }

    static Fields Of(const TCIpcClient& object) {
        static_assert(sizeof(object.m_callbackMutexes) == 14 * sizeof(std::recursive_mutex));
        static_assert(sizeof(object.m_callbacks) == 14 * sizeof(void (*)(int, const char*, int)));
        static_assert(isA<decltype(object.m_connection), std::shared_ptr<TIIpcConnection>>);
        static_assert(isA<decltype(object.m_configuration), std::unique_ptr<IpcConfiguration>>);
        static_assert(
            isA<decltype(object.m_busWrappers), std::map<std::string, std::shared_ptr<DbusBusWrapper>>>);
        static_assert(isA<decltype(object.m_busWrappersLock), std::shared_mutex>);
        static_assert(sizeof(object.m_useBoostingInheritance) == sizeof(bool));
        static_assert(isA<decltype(object.m_methodSourceHandler), std::unique_ptr<TCGSourceHandler>>);
        static_assert(isA<decltype(object.m_signalsLoopHandler), std::unique_ptr<TCGMainLoopHandler>>);
        static_assert(isA<decltype(object.m_busSourceHandler), std::unique_ptr<TCGSourceHandler>>);
        static_assert(isA<decltype(object.m_sourceHandlersMutex), std::mutex>);
        static_assert(sizeof(object.m_mavixSupported) == sizeof(std::int32_t));
        static_assert(isA<decltype(object.m_defaultContext), GMainContext*>);
        static_assert(
            isA<decltype(object.m_messageTypeByName), std::unordered_map<std::string, EIPCMessageType>>);
        static_assert(
            isA<decltype(object.m_messageNameByType), std::unordered_map<EIPCMessageType, std::string>>);
        return {FIELD(m_callbackMutexes),        FIELD(m_callbacks),           FIELD(m_connection),
                FIELD(m_configuration),          FIELD(m_busWrappers),         FIELD(m_busWrappersLock),
                FIELD(m_useBoostingInheritance), FIELD(m_methodSourceHandler), FIELD(m_signalsLoopHandler),
                FIELD(m_busSourceHandler),       FIELD(m_sourceHandlersMutex), FIELD(m_mavixSupported),
                FIELD(m_defaultContext),         FIELD(m_messageTypeByName),   FIELD(m_messageNameByType)};
    }

    static Fields Of(const SessionControlProxy& object) {
        static_assert(isA<decltype(object.m_interfaceName), std::string>);
        static_assert(isA<decltype(object.m_ipcConnection), std::shared_ptr<TIIpcClient>>);
        static_assert(isA<decltype(object.m_sessionLock), std::shared_mutex>);
        static_assert(isA<decltype(object.m_sessionCounter), std::atomic<int>>);
        static_assert(isA<decltype(object.m_sessionState), std::atomic<SessionControlProxy::ESessionState>>);
        static_assert(isA<std::underlying_type_t<SessionControlProxy::ESessionState>, std::int32_t>);
        static_assert(SessionControlProxy::Undefined == 0 && SessionControlProxy::Opened == 1 &&
                      SessionControlProxy::Closed == 2);
        static_assert(isA<decltype(SessionControlProxy::m_instanceLock), std::shared_mutex>);
        static_assert(isA<decltype(SessionControlProxy::m_pSessionControlProxy), SessionControlProxy*>);
        return {FIELD(m_interfaceName), FIELD(m_ipcConnection), FIELD(m_sessionLock), FIELD(m_sessionCounter),
                FIELD(m_sessionState)};
    }

    static Fields Of(const RobustRWLock& object) {
        static_assert(isA<decltype(object.m_fd), int>);
        static_assert(isA<decltype(object.m_path), std::string>);
        return {FIELD(m_fd), FIELD(m_path)};
    }

    static Fields Of(const IPCCache& object) {
        static_assert(isPointerSized<decltype(object.d)>);
        return {FIELD(d)};
    }

    static Fields Of(const IPCCachePrivate& object) {
        static_assert(isA<decltype(object.m_accessType), IPCCache::AccessType>);
        static_assert(isA<decltype(object.m_lock), RobustRWLock>);
        static_assert(isA<decltype(object.m_mutex), std::mutex>);
        static_assert(isPointerSized<decltype(object.m_shm)>);
        static_assert(isPointerSized<decltype(object.m_region)>);
        static_assert(isPointerSized<decltype(object.m_manager)>);
        static_assert(isA<decltype(object.m_name), std::string>);
        static_assert(isA<decltype(object.m_size), unsigned long>);
        return {FIELD(m_accessType), FIELD(m_lock),    FIELD(m_mutex), FIELD(m_shm),
                FIELD(m_region),     FIELD(m_manager), FIELD(m_name),  FIELD(m_size)};
    }

    // What a started handler shares with the record that GLib keeps of its source.
    static const GSource* Source(const TCGSourceHandler& handler) { return handler.m_pGSource.get(); }
    static const GAsyncQueue* Queue(const TCGSourceHandler& handler) { return handler.m_pAsyncQueue.get(); }
    static const std::mutex* DispatchMutex(const TCGSourceHandler& handler) {
        return handler.m_pDispatchMutex.get();
    }
    static const SignalSemaphore* Semaphore(const TCGSourceHandler& handler) {
        return handler.m_pSemaphore.get();
    }
    static bool HasFunctionsInOrder(const GSourceFuncs& functions) {
        return functions.prepare == TCGSourceHandler::m_GSourceHandlerPrepare &&
               functions.check == TCGSourceHandler::m_GSourceHandlerCheck &&
               functions.dispatch == TCGSourceHandler::m_GSourceHandlerDispatch &&
               functions.finalize == TCGSourceHandler::m_GSourceHandlerFinalize;
    }
};

} // namespace MavixApiLite

namespace {

template <class T>
void ExpectLayout(const T& object, std::size_t start) {
    ExpectFieldsInOrder<T>(TestAccess::Of(object), start);
}

} // namespace

TEST(Layout, OfTheMessageBuffer) {
    ExpectLayout(TCMessageBuffer(), noTable);
}

TEST(Layout, OfThePerformanceLogger) {
    ExpectLayout(PerformanceLogger("file", 1, "message"), noTable);
}

TEST(Layout, OfTheNeutralConfiguration) {
    ExpectLayout(IpcConfiguration("a.b", "/a"), oneTable);
}

TEST(Layout, OfTheMavixConfiguration) {
    ExpectLayout(IpcConfigurationMavix("a.b", "/a"), sizeof(IpcConfiguration));
}

TEST(Layout, OfAuxiliaryData) {
    const IpcNativeAuxData native;
    ExpectLayout<IpcAuxData>(native, oneTable);
    EXPECT_EQ(sizeof(IpcAuxData), sizeof(IpcNativeAuxData));
    EXPECT_EQ(sizeof(IpcAuxData), sizeof(IpcProxyAuxData));
}

TEST(Layout, OfTheWatchdogHandler) {
    ExpectLayout(TCWatchdogHandler(), oneTable);
}

TEST(Layout, OfTheGioMessage) {
    ExpectLayout(TCGdbusMessage(), oneTable);
}

TEST(Layout, OfTheGioConnection) {
    ExpectLayout(TCGdbusConnection(), twoTables);
}

TEST(Layout, OfTheLibdbusMessage) {
    ExpectLayout(TCDbusMessage(), oneTable);
}

TEST(Layout, OfTheLibdbusConnection) {
    ExpectLayout(TCDbusConnection(1, false), twoTables);
}

TEST(Layout, OfTheLibdbusError) {
    ExpectLayout(DbusErrorWrapper("operation"), noTable);
}

TEST(Layout, OfTheGioError) {
    ExpectLayout(TCGdbusError("operation"), noTable);
}

TEST(Layout, OfTheBusWrapper) {
    ExpectLayout(DbusBusWrapper("a.b", nullptr), noTable);
}

TEST(Layout, OfTheSourceHandler) {
    ExpectLayout(TCGSourceHandler(nullptr), noTable);
}

TEST(Layout, OfTheMainLoopHandler) {
    ExpectLayout(TCGMainLoopHandler(std::make_unique<TCWatchdogHandler>()), noTable);
}

TEST(Layout, OfTheWatchdogNotification) {
    ExpectLayout(TestAccess::WatchdogNotification{}, noTable);
}

TEST(Layout, OfTheFileLock) {
    ExpectLayout(RobustRWLock("name"), noTable);
}

// A name that is refused: no file is made.
TEST(Layout, OfTheCache) {
    ExpectLayout(IPCCache("..", IPCCache::AccessType::Read), noTable);
    ExpectLayout(IPCCachePrivate("..", IPCCache::AccessType::Read, 4096), noTable);
}

TEST(Layout, OfTheClient) {
    ExpectLayout(TCIpcClient(std::make_unique<IpcConfigurationMavix>("a.b", "/a"), g_main_context_default(),
                             std::make_unique<MavixTest::FakeConnection>()),
                 twoTables);
}

TEST(Layout, OfTheSessionProxy) {
    class : public TIIpcClient {
        bool AddMatchRule(EIPCMessageType, int, const MAVIXHandle&) override { return false; }
        bool RemoveMatchRule(EIPCMessageType, int, const MAVIXHandle&) override { return false; }
        bool Call(const std::string&, short, TCMessageBuffer&, TCMessageBuffer&) override { return false; }
        bool CallAsync(const std::string&, short, TCMessageBuffer&) override { return false; }
        bool WaitForCreateInterface(const char*) override { return false; }
        void SetCallbackFunction(EIPCMessageType, void (*)(int, const char*, int)) override {}
        void UnsetCallbackFunction(EIPCMessageType) override {}
        bool UseBoostingInheritance(bool) override { return false; }
    } client;
    ExpectLayout(SessionControlProxy(std::shared_ptr<TIIpcClient>(std::shared_ptr<void>(), &client)),
                 noTable);
}

TEST(Layout, OfTheDebugInfo) {
    const SessionControlDebugInfo object{};
    static_assert(isA<decltype(object.structSize), std::int32_t>);
    static_assert(isA<decltype(object.callerInfo), const char*>);
    static_assert(isA<decltype(object.traceParam), std::int32_t>);
    ExpectFieldsInOrder<SessionControlDebugInfo>({FIELD(structSize), FIELD(callerInfo), FIELD(traceParam)},
                                                 noTable);
    if (sizeof(void*) == 8) {
        EXPECT_EQ(24U, sizeof object);
    }
}

TEST(Layout, OfTheSemaphore) {
    const SignalSemaphore object;
    static_assert(isA<decltype(object.mutex), std::mutex>);
    static_assert(isA<decltype(object.condition), std::condition_variable>);
    static_assert(isA<decltype(object.signalled), bool>);
    ExpectFieldsInOrder<SignalSemaphore>({FIELD(mutex), FIELD(condition), FIELD(signalled)}, noTable);
    EXPECT_FALSE(object.signalled);
}

TEST(Layout, OfTheFilterContext) {
    const MessageFilterContext object{};
    static_assert(isA<decltype(object.context), GMainContext*>);
    static_assert(isA<decltype(object.queue), GAsyncQueue*>);
    ExpectFieldsInOrder<MessageFilterContext>({FIELD(context), FIELD(queue)}, noTable);
}

TEST(Layout, OfTheEventHandle) {
    const MAVIXHandle object{};
    static_assert(isA<decltype(object.high), std::uint32_t>);
    static_assert(isA<decltype(object.low), std::uint32_t>);
    ExpectFieldsInOrder<MAVIXHandle>({FIELD(high), FIELD(low)}, noTable);
    EXPECT_EQ(8u, sizeof object);
}

TEST(Layout, OfTheInterfacesIsTheirTableAlone) {
    EXPECT_EQ(oneTable, sizeof(TIIpcMessage));
    EXPECT_EQ(oneTable, sizeof(TIIpcMessageAllocator));
    EXPECT_EQ(oneTable, sizeof(TIIpcConnection));
    EXPECT_EQ(oneTable, sizeof(TIIpcConnectionOwner));
    EXPECT_EQ(oneTable, sizeof(TIIpcClient));
}

TEST(Layout, OfTheSourceRecordIsTheSourceThenQueueMutexAndSemaphore) {
    MavixTest::FakeConnection allocator;
    const MainContextHandle context(g_main_context_new());
    TCGSourceHandler handler(&allocator);
    handler.Start(context.get(), [](TIIpcMessage&) {});
    struct {
        const void* queue;
        // A shared handle is the pointer to what is shared, then the one to its count.
        const void* mutex;
        const void* mutexCount;
        const void* semaphore;
        const void* semaphoreCount;
    } record{};
    std::memcpy(&record, reinterpret_cast<const char*>(TestAccess::Source(handler)) + sizeof(GSource),
                sizeof record);
    EXPECT_EQ(TestAccess::Queue(handler), record.queue);
    EXPECT_EQ(TestAccess::DispatchMutex(handler), record.mutex);
    EXPECT_EQ(TestAccess::Semaphore(handler), record.semaphore);
}

TEST(Layout, OfTheSourcesFunctionsIsPrepareCheckDispatchAndFinalize) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer's build puts functions of its own before those of every source";
#endif
    MavixTest::FakeConnection allocator;
    const MainContextHandle context(g_main_context_new());
    TCGSourceHandler handler(&allocator);
    handler.Start(context.get(), [](TIIpcMessage&) {});
    const GSourceFuncs& functions = *TestAccess::Source(handler)->source_funcs;
    EXPECT_TRUE(TestAccess::HasFunctionsInOrder(functions));
    EXPECT_EQ(nullptr, functions.closure_callback);
    EXPECT_EQ(nullptr, functions.closure_marshal);
}
