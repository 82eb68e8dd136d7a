#include "DbusConnection.h"
#include "DbusErrorWrapper.h"
#include "DbusMessage.h"
#include "DbusUtility.h"
#include "FlavourFixture.h"
#include "IPCUtility.h"
#include "LibdbusFaults.h"
#include "LogPriorities.h"
#include "PrivateBus.h"
#include "RecordingOwner.h"
#include "RecordingPlatform.h"
#include "VirtualClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// The connection over libdbus when something fails: attempts to connect, memory, the lost bus.

namespace MavixApiLite {

struct TestAccess {
    static DBusConnection* RawOf(TCDbusConnection& connection) { return connection.m_connection.get(); }
    static bool HandleMessage(TCDbusConnection& connection, DBusMessage* message) {
        return connection.m_HandleMessage(message);
    }
    static DBusHandlerResult Filter(DBusConnection* raw, DBusMessage* message, TCDbusConnection& connection) {
        return TCDbusConnection::m_MessageHandlerHelper(raw, message, &connection);
    }
    static void SetOwner(TCDbusConnection& connection, TIIpcConnectionOwner* owner) {
        connection.m_owner = owner;
    }
};

} // namespace MavixApiLite

// The one that gives null when memory has run out.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return MavixTest::TCLibdbusFault::Fails("operator new") ? nullptr : ::operator new(size);
}

namespace MavixTest {

namespace {

using MavixApiLite::DbusErrorWrapper;
using MavixApiLite::DbusMessageHandle;
using MavixApiLite::PendingCallHandle;
using MavixApiLite::TCDbusConnection;
using MavixApiLite::TCDbusMessage;
using MavixApiLite::TestAccess;
using MavixApiLite::TIIpcConnection;
using MavixApiLite::TIIpcMessage;
namespace DbusUtility = MavixApiLite::DbusUtility;

constexpr const char* attemptLine = "[API_LITE][START] Attempts, m_Connect";

// No bus is at the address that it leaves.
struct NoBus {
    NoBus() { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus", 1); }
};

TEST(LibdbusAttempts, EndAtTheMaximumWithTheLogLineOnly) {
    const NoBus noBus;
    const TCRecordingPlatform& log = TCRecordingPlatform::Get();
    const std::pair<int, std::size_t> rows[] = {{3, 3}, {1, 1}, {0, 1}, {-5, 1}, {59, 59}, {61, 61}};
    for (const auto& [maximum, attempts] : rows) {
        SCOPED_TRACE(maximum);
        TCRecordingPlatform::Get().Reset();
        const TCVirtualClock clock;
        TCDbusConnection connection(maximum, false);
        EXPECT_TRUE(connection.Connect("Attempts", nullptr));
        EXPECT_FALSE(connection.WaitConnected());
        EXPECT_EQ(attempts, log.Count(debugLine, attemptLine));
        EXPECT_EQ(attempts, log.CountStarting(errorLine, "[API_LITE] dbus_bus_get_private failed! "));
        EXPECT_EQ(1U, log.Count(errorLine, "Connection failed!"));
        EXPECT_EQ(static_cast<long long>(attempts - 1) * 1000, clock.ElapsedMs());
        EXPECT_EQ(0U, log.CountStarting(errorLine, "MAVIX Assertion failed"));
        EXPECT_EQ(1U, log.Count(infoLine, "[API_LITE][END] Wait for DBUS connection (nil)"));
    }
}

// The failed thread was joined by whoever waited; whoever comes later finds none.
TEST(LibdbusAttempts, MayBeginAnewAfterAFailure) {
    TCPrivateBus bus;
    bus.Kill();
    TCDbusConnection connection(1, false);
    connection.Connect("Attempts", nullptr);
    EXPECT_FALSE(connection.WaitConnected());
    EXPECT_FALSE(connection.AddMatch("type='signal'"));
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(errorLine, "No connection thread!"));
    bus.Restart();
    connection.Connect("Attempts", nullptr);
    EXPECT_TRUE(connection.WaitConnected());
}

TEST(LibdbusAttempts, GoOnUntilABusIsThere) {
    TCPrivateBus bus;
    bus.Kill();
    const TCVirtualClock clock;
    TCRecordingPlatform::Get().onLine = [&bus](const LogLine& line) {
        if (line.text == attemptLine && TCRecordingPlatform::Get().Count(attemptLine) == 3) {
            bus.Restart();
        }
    };
    TCDbusConnection connection(10, false);
    connection.Connect("Attempts", nullptr);
    EXPECT_TRUE(connection.WaitConnected());
    EXPECT_EQ(3U, TCRecordingPlatform::Get().Count(debugLine, attemptLine));
    EXPECT_EQ(2000, clock.ElapsedMs());
    EXPECT_EQ(0U, TCRecordingPlatform::Get().Count("Connection failed!"));
}

TEST(LibdbusAttempts, AnInitialiserThatFailsOrThrowsIsTriedAgain) {
    const TCPrivateBus bus;
    for (const bool throws : {false, true}) {
        SCOPED_TRACE(throws);
        TCRecordingPlatform::Get().Reset();
        const TCVirtualClock clock;
        TCRecordingOwner owner;
        std::vector<std::string> names;
        owner.onInitialize = [&](TIIpcConnection* connection) {
            names.push_back(connection->GetUniqueName());
            if (names.size() < 3 && throws) {
                throw std::runtime_error("not today");
            }
            return names.size() >= 3;
        };
        TCDbusConnection connection(5, false);
        connection.Connect("Attempts", &owner);
        EXPECT_TRUE(connection.WaitConnected());
        EXPECT_EQ(3U, owner.Initialisations());
        EXPECT_EQ(2000, clock.ElapsedMs());
        EXPECT_EQ(
            2U, TCRecordingPlatform::Get().Count(errorLine, "[API_LITE][END] Attempts, initializer failed"));
        EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(infoLine, "[API_LITE][END] Attempts, m_Connect"));
        EXPECT_EQ(names.back(), connection.GetUniqueName());
        bool hasOwner = true;
        EXPECT_TRUE(connection.BusHasOwner(names.front(), 5000, hasOwner));
        EXPECT_FALSE(hasOwner) << "each attempt closes what it opened";
    }
}

TEST(LibdbusAttempts, AnInitialiserThatAlwaysFailsLeavesNoConnection) {
    const TCPrivateBus bus;
    const TCVirtualClock clock;
    TCRecordingOwner owner;
    owner.onInitialize = [](TIIpcConnection*) { return false; };
    TCDbusConnection connection(3, false);
    connection.Connect("Attempts", &owner);
    EXPECT_FALSE(connection.WaitConnected());
    EXPECT_EQ(3U, owner.Initialisations());
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(errorLine, "Connection failed!"));
}

// The connecting thread is the last one that the system has.
TEST(LibdbusAttempts, OneThatGetsNoDispatchThreadLeavesNoConnection) {
    const TCPrivateBus bus;
    const TCRecordingPlatform& log = TCRecordingPlatform::Get();
    std::optional<TCLibdbusFault> fault;
    TCRecordingPlatform::Get().onLine = [&fault](const LogLine& line) {
        if (line.text == attemptLine) {
            fault.emplace("pthread_create");
        }
    };
    TCDbusConnection connection(1, false);
    connection.Connect("Attempts", nullptr);
    EXPECT_FALSE(connection.WaitConnected());
    fault.reset();
    EXPECT_EQ(1U, log.CountStarting(errorLine, "[API_LITE] exception: "));
    EXPECT_EQ(1U, log.Count(errorLine, "Connection failed!"));
    EXPECT_EQ(1U, log.Count(infoLine, "[API_LITE][END] Wait for DBUS connection (nil)"));
    // It may be tried again.
    connection.Connect("Again", nullptr);
    EXPECT_TRUE(connection.WaitConnected());
    bool hasOwner = false;
    EXPECT_TRUE(connection.BusHasOwner("org.freedesktop.DBus", 5000, hasOwner));
}

// Argument: the maximum. Its output says what the connection gave.
MAVIX_CHILD(AttemptWithoutABus) {
    const NoBus noBus;
    const TCVirtualClock clock;
    TCDbusConnection connection(std::stoi(arguments.at(0)), false);
    connection.Connect("Attempts", nullptr);
    const bool connected = connection.WaitConnected();
    std::printf("connected %d after %lld\n", connected ? 1 : 0, clock.ElapsedMs());
    std::fflush(stdout);
    return 0;
}

constexpr const char* assertingSource = "../../../src/ipc/DbusConnection";
constexpr const char* assertionText = "attempts != MAX_DBUS_CONNECTION_ATTEMPTS";

TEST(LibdbusAttempts, SixtyThatFailRaiseTheAssertion) {
    const ChildResult result = RunChildProgram("AttemptWithoutABus", plainFlavour, {"60"});
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ(60U, result.CountLines(debugLine, attemptLine));
    EXPECT_EQ(1U, result.CountLines(errorLine, "Connection failed!"));
    EXPECT_EQ(1U, CountAssertions(result, assertingSource, assertionText)) << result.errors;
    EXPECT_EQ("", result.output);
}

using LibdbusAttemptsOnARelease = FlavourFixture;

TEST_F(LibdbusAttemptsOnARelease, SixtyThatFailEndTheThread) {
    const ChildResult result = RunChildProgram("AttemptWithoutABus", releaseFlavour, {"60"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    // The assertion takes its 100 ms.
    EXPECT_EQ("connected 0 after 59100\n", result.output);
    EXPECT_EQ(1U, CountAssertions(result, assertingSource, assertionText)) << result.errors;
}

TEST(LibdbusError, WithoutErrorItIsFalseAndSilent) {
    {
        DbusErrorWrapper error("operation");
        EXPECT_FALSE(dbus_error_is_set(error.GetDbusHandle()));
        EXPECT_FALSE(error.CheckErrorAndReset());
    }
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(LibdbusError, AnErrorIsLoggedInOneLineAndForgotten) {
    DbusErrorWrapper error("100%s");
    for (std::size_t round = 1; round <= 3; ++round) {
        dbus_set_error_const(error.GetDbusHandle(), DBUS_ERROR_FAILED, "%n%s");
        EXPECT_TRUE(error.CheckErrorAndReset());
        EXPECT_FALSE(error.CheckErrorAndReset());
        EXPECT_EQ(round, TCRecordingPlatform::Get().Count(errorLine, "[API_LITE] 100%s failed! %n%s"));
        EXPECT_EQ(round, TCRecordingPlatform::Get().Lines().size());
    }
    EXPECT_EQ("DbusErrorWrapper", TCRecordingPlatform::Get().Lines().at(0).source);
}

TEST(LibdbusError, AnErrorThatNobodyLookedAtIsLoggedOnDestruction) {
    {
        DbusErrorWrapper error("operation");
        dbus_set_error_const(error.GetDbusHandle(), DBUS_ERROR_FAILED, "unseen");
    }
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(errorLine, "[API_LITE] operation failed! unseen"));
}

TEST(LibdbusArgumentType, IsComparedAfterAnAdvanceIfAsked) {
    using MavixApiLite::TCIPCUtility;
    TCDbusMessage message;
    ASSERT_TRUE(message.Initialize(TIIpcMessage::Signal, nullptr, "/p", "a.b", "M"));
    ASSERT_TRUE(message.PushInt(1) && message.PushString("two") && message.PushBytes({3}));
    DBusMessageIter iterator;
    ASSERT_TRUE(dbus_message_iter_init(static_cast<DBusMessage*>(message.GetRawMessage(false)), &iterator));
    EXPECT_TRUE(TCIPCUtility::m_CheckArgumentType(iterator, DBUS_TYPE_INT32, false));
    EXPECT_FALSE(TCIPCUtility::m_CheckArgumentType(iterator, DBUS_TYPE_STRING, false));
    EXPECT_TRUE(TCIPCUtility::m_CheckArgumentType(iterator, DBUS_TYPE_STRING, true));
    EXPECT_FALSE(TCIPCUtility::m_CheckArgumentType(iterator, DBUS_TYPE_INT32, true)) << "a step all the same";
    EXPECT_TRUE(TCIPCUtility::m_CheckArgumentType(iterator, DBUS_TYPE_ARRAY, false));
    for (int round = 0; round < 3; ++round) {
        EXPECT_FALSE(TCIPCUtility::m_CheckArgumentType(iterator, DBUS_TYPE_ARRAY, true));
        EXPECT_FALSE(TCIPCUtility::m_CheckArgumentType(iterator, DBUS_TYPE_INVALID, true));
    }
    EXPECT_TRUE(TCIPCUtility::m_CheckArgumentType(iterator, DBUS_TYPE_INVALID, false)) << "nothing is there";
}

class LibdbusFailure : public testing::Test {
protected:
    void SetUp() override {
        m_connection.Connect("Failure", nullptr);
        ASSERT_TRUE(m_connection.WaitConnected());
        Forget();
    }
    void Forget() { m_log.Reset(); }
    DBusConnection* Raw() { return TestAccess::RawOf(m_connection); }

    static TCDbusMessage& Initialized(TCDbusMessage& message, const char* member = "GetId") {
        EXPECT_TRUE(message.Initialize(TIIpcMessage::MethodCall, DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                       DBUS_INTERFACE_DBUS, member));
        return message;
    }

    TCRecordingPlatform& m_log = TCRecordingPlatform::Get();
    TCPrivateBus m_bus;
    TCDbusConnection m_connection{1, false};
};

TEST_F(LibdbusFailure, EachFunctionOfLibdbusThatFailsLeavesItsLines) {
    bool hasOwner = true;
    TCDbusMessage message;
    const auto call = [&] { return m_connection.SendWithReply(Initialized(message), 5000); };
    const auto ask = [&] { return m_connection.BusHasOwner("a.b", 5000, hasOwner); };
    const auto request = [&] { return m_connection.RequestName("com.norvale.Sim.Own"); };
    const auto pushBytes = [&] { return Initialized(message).PushBytes({1, 2}); };
    constexpr const char* noReply = "[API_LITE] Cannot create reply message. Out of memory.";
    constexpr const char* noCall = "[API_LITE] dbus_message_new_method_call failed";
    constexpr const char* noArguments = "[API_LITE] dbus_message_append_args failed";
    constexpr const char* notSent = "[API_LITE] Cannot send call message. Out of memory.";
    constexpr const char* noNotify = "[API_LITE] Cannot set notify callback. Out of memory.";
    struct Line {
        const char* source;
        const char* function;
        const char* text;
    };
    const struct {
        const char* failing;
        std::function<bool()> operation;
        std::vector<Line> lines;
    } rows[] = {
        {"dbus_connection_send_with_reply", call, {{"DbusUtility", "SendWithReply", notSent}}},
        {"dbus_pending_call_set_notify", call, {{"DbusUtility", "SendWithReply", noNotify}}},
        {"dbus_message_new_method_call", ask, {{"DbusUtility", "BusHasOwner", noCall}}},
        {"dbus_message_iter_append_basic", ask, {{"DbusUtility", "BusHasOwner", noArguments}}},
        {"dbus_connection_send_with_reply",
         ask,
         {{"DbusUtility", "SendWithReply", notSent}, {"DbusUtility", "BusHasOwner", noReply}}},
        {"dbus_pending_call_set_notify",
         ask,
         {{"DbusUtility", "SendWithReply", noNotify}, {"DbusUtility", "BusHasOwner", noReply}}},
        {"dbus_message_new_method_call", request, {{"DbusUtility", "RequestNameAsync", noCall}}},
        {"dbus_message_iter_append_basic", request, {{"DbusUtility", "RequestNameAsync", noArguments}}},
        {"dbus_connection_send", request, {}},
        {"dbus_connection_send", [&] { return m_connection.Send(Initialized(message)); }, {}},
        {"dbus_bus_release_name",
         [&] { return m_connection.ReleaseName("a.b"); },
         {{"DbusConnection", "ReleaseName", "[API_LITE] request failed!"}}},
        {"dbus_message_iter_open_container",
         pushBytes,
         {{"DbusMessage", "PushBytes", "dbus_message_iter_open_container failed"}}},
        {"dbus_message_iter_append_fixed_array",
         pushBytes,
         {{"DbusMessage", "PushBytes", "dbus_message_iter_append_fixed_array failed"}}},
        {"dbus_message_iter_append_basic", [&] { return Initialized(message).PushInt(1); }, {}},
        {"dbus_message_new_signal",
         [&] { return message.Initialize(TIIpcMessage::Signal, nullptr, "/p", "a.b", "M"); },
         {}},
        {"dbus_message_set_destination",
         [&] { return message.Initialize(TIIpcMessage::Signal, "a.b", "/p", "a.b", "M"); },
         {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.failing);
        Initialized(message);
        Forget();
        {
            const TCLibdbusFault fault(row.failing);
            EXPECT_FALSE(row.operation());
        }
        std::vector<LogLine> errors;
        for (const LogLine& line : m_log.Lines()) {
            if (line.priority != debugLine && line.source != "GMainLoopHandler") {
                errors.push_back(line);
            }
        }
        ASSERT_EQ(row.lines.size(), errors.size());
        for (std::size_t at = 0; at < errors.size(); ++at) {
            EXPECT_EQ(errorLine, errors[at].priority);
            EXPECT_EQ(row.lines[at].source, errors[at].source);
            EXPECT_EQ(row.lines[at].function, errors[at].function);
            EXPECT_EQ(row.lines[at].text, errors[at].text);
        }
        EXPECT_TRUE(hasOwner);
        // It works again afterwards.
        EXPECT_TRUE(m_connection.SendWithReply(Initialized(message), 5000));
    }
}

TEST_F(LibdbusFailure, AFailedCallEmptiesTheMessage) {
    for (const char* function : {"dbus_connection_send_with_reply", "dbus_pending_call_set_notify"}) {
        TCDbusMessage message;
        const TCLibdbusFault fault(function);
        EXPECT_FALSE(m_connection.SendWithReply(Initialized(message), 5000));
        EXPECT_EQ(nullptr, message.GetRawMessage(false)) << function;
    }
}

TEST_F(LibdbusFailure, ADestinationThatCannotBeSetEmptiesTheMessage) {
    TCDbusMessage message;
    const TCLibdbusFault fault("dbus_message_set_destination");
    EXPECT_FALSE(message.Initialize(TIIpcMessage::Signal, "a.b", "/p", "a.b", "M"));
    EXPECT_EQ(nullptr, message.GetRawMessage(false));
}

TEST_F(LibdbusFailure, AReplyThatCannotBeBuiltKeepsTheOldContent) {
    TCDbusMessage request;
    ASSERT_TRUE(m_connection.SendWithReply(Initialized(request), 5000));
    TCDbusMessage message;
    Initialized(message);
    {
        const TCLibdbusFault fault("dbus_message_new_error");
        EXPECT_FALSE(message.InitializeErrorReply(request, "a.b", "text"));
    }
    const TCLibdbusFault fault("dbus_message_new_method_return");
    EXPECT_FALSE(message.InitializeReply(request));
    EXPECT_STREQ("GetId", message.GetMember());
}

TEST_F(LibdbusFailure, BytesThatAreTooManyAreRefusedAndTheMessageGoesOn) {
    TCDbusMessage message;
    Initialized(message);
    const std::vector<std::uint8_t> most(DBUS_MAXIMUM_ARRAY_LENGTH + 1);
    EXPECT_FALSE(message.PushBytes(most));
    EXPECT_EQ(1U, m_log.Count(errorLine, "dbus_message_iter_append_fixed_array failed"));
    EXPECT_TRUE(message.PushByteRange(most.data(), most.size() - 1));
    EXPECT_TRUE(message.PushInt(5));
    EXPECT_TRUE(message.PushEnd());
    std::vector<std::uint8_t> bytes;
    std::int32_t number = 0;
    EXPECT_TRUE(message.PopBytes(bytes));
    EXPECT_EQ(most.size() - 1, bytes.size());
    EXPECT_TRUE(message.PopInt(number));
    EXPECT_EQ(5, number);
}

TEST_F(LibdbusFailure, AMissingUniqueNameIsALogicError) {
    const TCLibdbusFault fault("dbus_bus_get_unique_name");
    EXPECT_THROW(m_connection.GetUniqueName(), std::logic_error);
}

TEST_F(LibdbusFailure, AnAttemptFailsWithEachOfItsFunctions) {
    for (const char* function :
         {"dbus_bus_get_private", "dbus_connection_set_data", "dbus_connection_add_filter"}) {
        SCOPED_TRACE(function);
        Forget();
        TCRecordingOwner owner;
        TCDbusConnection connection(1, false);
        const TCLibdbusFault fault(function);
        connection.Connect("Failing", &owner);
        EXPECT_FALSE(connection.WaitConnected());
        EXPECT_EQ(1U, m_log.Count(errorLine, "Connection failed!"));
        EXPECT_EQ(function == std::string("dbus_bus_get_private") ? 1U : 0U,
                  m_log.Count(errorLine, "[API_LITE][END] Failing, dbus_bus_get_private failed"));
    }
}

TEST_F(LibdbusFailure, ABrokenConnectionIsSaidToBeOne) {
    m_bus.Kill();
    bool hasOwner = true;
    m_connection.BusHasOwner("a.b", 5000, hasOwner);
    Forget();
    EXPECT_FALSE(m_connection.BusHasOwner("a.b", 5000, hasOwner));
    EXPECT_TRUE(hasOwner);
    EXPECT_EQ(1U, m_log.Count(errorLine, "[API_LITE] Pending call error. Probably connection is broken."));
    EXPECT_EQ(1U, m_log.Count(errorLine, "[API_LITE] Cannot create reply message. Out of memory."));
    EXPECT_FALSE(m_connection.ReleaseName("a.b"));
    EXPECT_EQ(1U, m_log.CountStarting(errorLine, "[API_LITE] dbus_bus_release_name failed! "));
    EXPECT_FALSE(m_connection.RemoveMatch("type='signal'"));
    EXPECT_EQ(1U, m_log.CountStarting(errorLine, "[API_LITE] dbus_bus_remove_match failed! "));
    EXPECT_TRUE(m_connection.AddMatch("type='signal'"));
}

TEST_F(LibdbusFailure, ANotificationOfAnUnfinishedCallIsSaidToBeOne) {
    TCDbusMessage message;
    DBusPendingCall* created = nullptr;
    // To a name that never answers: our own, without owner.
    ASSERT_TRUE(message.Initialize(TIIpcMessage::MethodCall, m_connection.GetUniqueName().c_str(), "/",
                                   nullptr, "Never"));
    Forget();
    // Never sent, so never completed.
    const TCPrivateBus other;
    DBusConnection* raw = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    ASSERT_NE(nullptr, raw);
    ASSERT_TRUE(dbus_connection_send_with_reply(raw, static_cast<DBusMessage*>(message.GetRawMessage(false)),
                                                &created, INT_MAX));
    {
        const PendingCallHandle pending(created);
        DbusUtility::m_PendingCallCallback(created, nullptr);
        dbus_pending_call_cancel(created);
    }
    dbus_connection_close(raw);
    dbus_connection_unref(raw);
    EXPECT_EQ(1U, m_log.Count(errorLine, "[API_LITE] Pending not completed!"));
}

TEST_F(LibdbusFailure, AMessageWithoutAnOwnerIsLeftToLibdbus) {
    TCDbusConnection other(1, false);
    const DbusMessageHandle message(dbus_message_new_signal("/p", "a.b", "M"));
    EXPECT_EQ(DBUS_HANDLER_RESULT_NOT_YET_HANDLED, [&] {
        DBusConnection* raw = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        const DBusHandlerResult result = TestAccess::Filter(raw, message.get(), other);
        dbus_connection_close(raw);
        dbus_connection_unref(raw);
        return result;
    }());
    EXPECT_EQ(1U, m_log.Count(errorLine, "No owner!"));
    EXPECT_EQ("m_MessageHandlerHelper", m_log.LinesWith("No owner!").at(0).function);
}

TEST_F(LibdbusFailure, AMessageThatCannotBeWrappedIsLeftToLibdbus) {
    TCRecordingOwner owner;
    TCDbusConnection connection(1, false);
    TestAccess::SetOwner(connection, &owner);
    const DbusMessageHandle message(dbus_message_new_signal("/p", "a.b", "M"));
    {
        const TCLibdbusFault fault("operator new");
        EXPECT_FALSE(TestAccess::HandleMessage(connection, message.get()));
        EXPECT_EQ(nullptr, connection.NewMessage(nullptr));
    }
    EXPECT_EQ(1U, m_log.Count(errorLine, "No message!"));
    EXPECT_TRUE(owner.Messages().empty());
}

} // namespace

} // namespace MavixTest
