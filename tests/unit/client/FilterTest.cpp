#include "ClientFixture.h"

#include <future>
#include <thread>

// Which messages the client takes, and which thread handles them.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Filtering : public ClientTest {
protected:
    Filtering() {
        EXPECT_TRUE(Initialize());
        // The signals thread's own line, so that it does not come among those of a test.
        EXPECT_TRUE(m_platform.WaitFor("Started main loop: "));
    }

    // Whether the handlers' lock is free, asked on another thread.
    bool LockIsFree() {
        return std::async(std::launch::async,
                          [this] {
                              const std::unique_lock<std::mutex> lock(
                                  TestAccess::SourceHandlersMutex(Client()), std::try_to_lock);
                              return lock.owns_lock();
                          })
            .get();
    }
};

WireMessage AnyOwnerChange() {
    return OwnerChange("('com.norvale.MavixAPI', ':1.5', '')");
}

WireMessage AnyIntrospection() {
    return MethodCall("org.freedesktop.DBus.Introspectable", "Introspect");
}

TEST_F(Filtering, AMethodReturnIsDeclinedWithoutALine) {
    m_platform.Reset();
    EXPECT_FALSE(Filter(Reply("(byte 1,)")));
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

TEST_F(Filtering, AnErrorIsDeclinedAndLoggedByItsName) {
    EXPECT_FALSE(Filter(ErrorReply("com.norvale.Error.Refused", "('text',)")));
    EXPECT_EQ(1U, m_platform.Count(6, "[API_LITE] Error message: com.norvale.Error.Refused"));
}

TEST_F(Filtering, BusMessagesAreHandledWhileTheDefaultContextRests) {
    EXPECT_TRUE(Filter(AnyIntrospection()));
    EXPECT_TRUE(m_platform.WaitFor("Handling Introspection request"));
    AnswerWith("(byte 1, 0, @ay [])");
    ASSERT_TRUE(Call());
    EXPECT_TRUE(Filter(AnyOwnerChange()));
    EXPECT_TRUE(m_platform.WaitFor("[API_LITE] Owner of bus name: com.norvale.MavixAPI has been removed"));
}

TEST_F(Filtering, EverythingElseWaitsForTheDefaultContext) {
    const auto messages = [] {
        std::vector<WireMessage> all;
        all.push_back(Signal("First", ""));
        all.push_back(MethodCall("com.norvale.ITest", "Second"));
        // Neither is one of the two kinds of bus message.
        all.push_back(Signal("NameOwnerChanged", "", "com.norvale.Other"));
        all.push_back(Signal("NameAcquired", "(':1.42',)", "org.freedesktop.DBus", "/org/freedesktop/DBus"));
        all.push_back(Signal("Introspect", "", "org.freedesktop.DBus.Introspectable"));
        all.push_back(MethodCall("org.freedesktop.DBus", "NameOwnerChanged"));
        all.push_back(MethodCall("org.freedesktop.DBus.Peer", "Ping"));
        return all;
    };
    std::vector<std::string> expected;
    for (WireMessage& message : messages()) {
        expected.push_back(std::string("IpcClient|[API_LITE] No such type. '") +
                           g_dbus_message_get_member(message.get()) + "'");
        EXPECT_TRUE(Filter(std::move(message)));
    }
    m_platform.Reset();
    DeliverEvents();
    EXPECT_EQ(expected, Errors());
}

TEST_F(Filtering, EventsKeepTheirOrder) {
    static std::vector<int> ids;
    ids.clear();
    Client().SetCallbackFunction(IPC_MESSAGE_DATA, [](int id, const char*, int) { ids.push_back(id); });
    constexpr int count = 1000;
    for (int at = 0; at < count; ++at) {
        ASSERT_TRUE(Filter(Signal("Data", "('" + std::to_string(at) + "', '0', @ay [])")));
    }
    EXPECT_THAT(ids, IsEmpty());
    DeliverEvents();
    ASSERT_EQ(static_cast<std::size_t>(count), ids.size());
    for (int at = 0; at < count; ++at) {
        EXPECT_EQ(at, ids[static_cast<std::size_t>(at)]);
    }
}

// Legal on a bus, and comparing its interface throws: the connection's dispatching catches that.
TEST_F(Filtering, ACallWithoutAnInterfaceThrowsAndLeavesNoLockBehind) {
    EXPECT_THROW(Filter(MethodCall(nullptr, "Anything")), std::logic_error);
    EXPECT_TRUE(LockIsFree());
    EXPECT_TRUE(Filter(AnyIntrospection()));
    EXPECT_TRUE(m_platform.WaitFor("Handling Introspection request"));
}

TEST_F(Filtering, TheLockIsFreeAfterEveryKindOfMessage) {
    Filter(Reply(""));
    EXPECT_TRUE(LockIsFree());
    Filter(ErrorReply("a.b", ""));
    EXPECT_TRUE(LockIsFree());
    Filter(Signal("Data", ""));
    EXPECT_TRUE(LockIsFree());
    Filter(AnyOwnerChange());
    EXPECT_TRUE(LockIsFree());
}

using FilteringBefore = ClientTest;

TEST_F(FilteringBefore, TheSetUpEverythingIsDeclined) {
    EXPECT_FALSE(Filter(Signal("Data", "('1', '0', @ay [])")));
    EXPECT_FALSE(Filter(MethodCall("com.norvale.ITest", "Any")));
    EXPECT_FALSE(Filter(AnyOwnerChange()));
    EXPECT_FALSE(Filter(AnyIntrospection()));
    EXPECT_THAT(LogFrom(0), IsEmpty());
}

} // namespace
