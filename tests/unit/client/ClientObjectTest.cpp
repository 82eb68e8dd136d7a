#include "ClientFixture.h"

#include <map>
#include <thread>

// The client as an object: what it is after construction, the feature flag, its end.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* supportKey = "com.norvale/featureconf/broadcasting.mavix_supported";
const std::string supportQuery = std::string("system_info_get_custom_bool(") + supportKey + ")";

class ClientObject : public ClientTest {};

const std::map<int, std::string> typeNames{
    {0, "Signal"},    {1, "PipelineSignal"}, {2, "Data"}, {3, "Program"},
    {4, "Section"},   {5, "TextData"},       {6, "Dsm"},  {7, "CopyProtectionInfo"},
    {8, "PESData"},   {9, "ExPESData"},      {10, "Ht"},  {11, "ATSC3Signalling"},
    {12, "ATSC3Mpd"}, {13, "ATSC3Linkage"},
};

TEST_F(ClientObject, ConnectsAsDbusThreadAndIsItselfTheOwner) {
    auto connection = std::make_unique<HookedConnection>();
    TIIpcConnectionOwner* owner = nullptr;
    std::vector<std::string> calls;
    HookedConnection& observed = *connection;
    connection->onConnect = [&owner](TIIpcConnectionOwner* given) {
        owner = given;
        return true;
    };
    TCIpcClient client(MavixConfiguration(), Context(), std::move(connection));
    EXPECT_EQ(static_cast<TIIpcConnectionOwner*>(&client), owner);
    EXPECT_THAT(observed.Calls(), ElementsAre("Connect(DbusThread)"));
}

TEST_F(ClientObject, IsConstructedWithoutWaitingAndWhateverConnectSays) {
    auto connection = std::make_unique<HookedConnection>();
    HookedConnection& observed = *connection;
    connection->onConnect = [](TIIpcConnectionOwner*) { return false; };
    TCIpcClient client(MavixConfiguration(), Context(), std::move(connection));
    EXPECT_EQ(0, observed.waits);
    EXPECT_THAT(LogFrom(0), IsEmpty());
    EXPECT_EQ(&observed, TestAccess::Connection(client).get());
}

TEST_F(ClientObject, StartsEmpty) {
    for (const auto& callback : TestAccess::Callbacks(Client())) {
        EXPECT_EQ(nullptr, callback);
    }
    EXPECT_EQ(14U, TestAccess::Callbacks(Client()).size());
    EXPECT_EQ(14U, TestAccess::CallbackMutexes(Client()).size());
    EXPECT_TRUE(TestAccess::UseBoostingInheritance(Client()));
    EXPECT_EQ(-1, TestAccess::MavixSupported(Client()));
    EXPECT_THAT(TestAccess::BusWrappers(Client()), IsEmpty());
    EXPECT_EQ(nullptr, TestAccess::MethodSourceHandler(Client()));
    EXPECT_EQ(nullptr, TestAccess::SignalsLoopHandler(Client()));
    EXPECT_EQ(nullptr, TestAccess::BusSourceHandler(Client()));
    EXPECT_EQ(Context(), TestAccess::DefaultContext(Client()));
}

TEST_F(ClientObject, KnowsTheFourteenTypesByNameAndTheInverse) {
    std::map<int, std::string> nameByType;
    for (const auto& [type, name] : TestAccess::MessageNameByType(Client())) {
        nameByType.emplace(type, name);
    }
    std::map<int, std::string> typeByName;
    for (const auto& [name, type] : TestAccess::MessageTypeByName(Client())) {
        EXPECT_TRUE(typeByName.emplace(type, name).second) << name;
    }
    EXPECT_EQ(typeNames, nameByType);
    EXPECT_EQ(typeNames, typeByName);
    for (const auto& [type, name] : typeNames) {
        EXPECT_EQ(type, TestAccess::GetMessageType(Client(), name)) << name;
        EXPECT_EQ(name, TestAccess::ConvertMsgTypeToString(Client(), static_cast<EIPCMessageType>(type)));
    }
}

TEST_F(ClientObject, AnswersUnknownNamesAndTypes) {
    for (const char* name : {"", "signal", "SIGNAL", "Signal ", "Unknown", "NameAcquired"}) {
        EXPECT_EQ(IPC_MESSAGE_MAX, TestAccess::GetMessageType(Client(), name)) << name;
    }
    for (const int type : {-1, 14, 20, 0x10000}) {
        EXPECT_EQ("Unknown", TestAccess::ConvertMsgTypeToString(Client(), static_cast<EIPCMessageType>(type)))
            << type;
    }
}

TEST_F(ClientObject, AFailingFeatureQueryCountsAsSupportedAndIsAskedAgain) {
    m_platform.systemInfo = [](const char*, bool* value) {
        *value = false;
        return -1;
    };
    for (int time = 1; time <= 3; ++time) {
        EXPECT_TRUE(TestAccess::IsMAVIXSupported(Client()));
        EXPECT_EQ(static_cast<std::size_t>(time), m_platform.CountCalls(supportQuery));
    }
    EXPECT_EQ(-1, TestAccess::MavixSupported(Client()));
}

TEST_F(ClientObject, AnAnsweredFeatureQueryIsAskedOnce) {
    for (const bool supported : {true, false}) {
        SCOPED_TRACE(supported);
        m_platform.Reset();
        FakedClient faked;
        m_platform.systemInfo = [supported](const char*, bool* value) {
            *value = supported;
            return 0;
        };
        EXPECT_EQ(supported, TestAccess::IsMAVIXSupported(faked.Client()));
        EXPECT_EQ(supported, TestAccess::IsMAVIXSupported(faked.Client()));
        EXPECT_EQ(supported ? 1 : 0, TestAccess::MavixSupported(faked.Client()));
        EXPECT_THAT(m_platform.Calls(), ElementsAre(supportQuery));
    }
}

TEST_F(ClientObject, SwitchingTheInheritanceAnswersTrue) {
    for (const bool enable : {false, false, true, true}) {
        EXPECT_TRUE(Client().UseBoostingInheritance(enable));
        EXPECT_EQ(enable, TestAccess::UseBoostingInheritance(Client()));
    }
}

TEST_F(ClientObject, EndsInOrder) {
    AnswerWith("(byte 1, 0, @ay [])");
    ASSERT_TRUE(Initialize());
    ASSERT_TRUE(Call());
    TCIpcClient& client = Client();
    HookedConnection& connection = Connection();
    const auto unregistered = [this] {
        return m_platform.CountCalls("smart_deadlock_unregister_watchdog_service()");
    };
    std::vector<std::string> steps;
    connection.onWaitConnected = [&] {
        EXPECT_EQ(0U, unregistered());
        EXPECT_NE(nullptr, TestAccess::MethodSourceHandler(client));
        steps.emplace_back("wait for the connect");
    };
    connection.onRemoveMatch = [&] {
        EXPECT_EQ(1U, unregistered());
        EXPECT_EQ(nullptr, TestAccess::SignalsLoopHandler(client));
        EXPECT_EQ(nullptr, TestAccess::BusSourceHandler(client));
        EXPECT_EQ(nullptr, TestAccess::MethodSourceHandler(client));
        // Asked on another thread: a mutex must not be tried by its owner.
        std::thread([&client] {
            EXPECT_TRUE(TestAccess::BusWrappersLock(client).try_lock());
            TestAccess::BusWrappersLock(client).unlock();
            EXPECT_TRUE(TestAccess::SourceHandlersMutex(client).try_lock());
            TestAccess::SourceHandlersMutex(client).unlock();
        }).join();
        steps.emplace_back("drop the buses");
    };
    connection.onDestroyed = [&] {
        EXPECT_EQ(14U, TestAccess::MessageNameByType(client).size());
        EXPECT_NE(nullptr, TestAccess::Configuration(client));
        steps.emplace_back("release the connection");
    };
    DestroyClient();
    EXPECT_THAT(steps, ElementsAre("wait for the connect", "drop the buses", "release the connection"));
    EXPECT_EQ(1U, m_platform.Count(3, "[API_LITE] Closing connection for "
                                      "interfaceName:com.norvale.Mavix.SignalIFace, "
                                      "objectName:/com/norvale/Mavix/SignalObject"));
}

TEST_F(ClientObject, EndsWithoutHavingBeenInitialised) {
    DestroyClient();
    EXPECT_EQ(1U, m_platform.CountStarting(3, "[API_LITE] Closing connection for "));
    EXPECT_THAT(LogFrom(4), IsEmpty());
}

// The dispatch thread may still filter messages meanwhile.
TEST_F(ClientObject, StopsItsSourcesUnderTheirMutex) {
    ASSERT_TRUE(Initialize());
    ASSERT_TRUE(Filter(Signal("Data", "('1', '0', [byte 1])")));
    TCIpcClient& client = Client();
    bool free = true;
    Connection().onDeleteRawMessage = [&client, &free] {
        // Asked on another thread: a mutex must not be tried by its owner.
        std::thread([&client, &free] {
            const std::unique_lock<std::mutex> lock(TestAccess::SourceHandlersMutex(client),
                                                    std::try_to_lock);
            free = lock.owns_lock();
        }).join();
    };
    DestroyClient();
    EXPECT_FALSE(free);
}

TEST_F(ClientObject, QueuedEventsDieWithTheClient) {
    static int calls;
    calls = 0;
    ASSERT_TRUE(Initialize());
    Client().SetCallbackFunction(IPC_MESSAGE_DATA, [](int, const char*, int) { ++calls; });
    for (int at = 0; at < 100; ++at) {
        ASSERT_TRUE(Filter(Signal("Data", "('1', '0', [byte 1])")));
    }
    DestroyClient();
    DeliverEvents();
    EXPECT_EQ(0, calls);
}

} // namespace
