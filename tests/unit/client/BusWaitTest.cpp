#include "ClientFixture.h"

#include <condition_variable>
#include <future>
#include <thread>

// The table of known buses: who waits for a bus, who greets it, who watches its owner.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* defaultBus = "com.norvale.MavixAPI";

std::string OwnerRule(const std::string& busName) {
    return "path='/org/freedesktop/DBus', type='signal', interface='org.freedesktop.DBus', "
           "member='NameOwnerChanged', arg0='" +
           busName + "'";
}

// Holds callers until so many have come.
class Meeting final {
public:
    explicit Meeting(int expected) : m_missing(expected) {}

    void Arrive() {
        std::unique_lock<std::mutex> lock(m_mutex);
        --m_missing;
        m_changed.notify_all();
        m_changed.wait_for(lock, std::chrono::seconds(30), [this] { return m_missing <= 0; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_missing;
};

class BusWait : public ClientTest {
protected:
    BusWait() {
        AnswerWith("(byte 1, 0, @ay [])");
        Connection().ClearCalls();
    }

    void SupportIs(bool supported) {
        m_platform.systemInfo = [supported](const char*, bool* value) {
            *value = supported;
            return 0;
        };
    }
    std::size_t CallsStarting(const std::string& start) {
        std::size_t count = 0;
        for (const std::string& call : Connection().Calls()) {
            count += call.compare(0, start.size(), start) == 0 ? 1U : 0U;
        }
        return count;
    }
    bool WaitForBus(bool* helloSent) { return TestAccess::WaitForCreateBus(Client(), defaultBus, helloSent); }
};

TEST_F(BusWait, ANewBusIsWaitedForThenWatchedThenKnown) {
    bool helloSent = true;
    EXPECT_TRUE(WaitForBus(&helloSent));
    EXPECT_FALSE(helloSent);
    EXPECT_THAT(Connection().Calls(), ElementsAre("BusHasOwner(com.norvale.MavixAPI, 250)",
                                                  "AddMatch(" + OwnerRule(defaultBus) + ")"));
    Connection().ClearCalls();
    EXPECT_TRUE(WaitForBus(&helloSent));
    EXPECT_TRUE(helloSent);
    EXPECT_THAT(Connection().Calls(), IsEmpty());
}

TEST_F(BusWait, WithoutAskingForTheGreetingItIsNotUsedUp) {
    EXPECT_TRUE(WaitForBus(nullptr));
    EXPECT_TRUE(WaitForBus(nullptr));
    bool helloSent = true;
    EXPECT_TRUE(WaitForBus(&helloSent));
    EXPECT_FALSE(helloSent);
}

TEST_F(BusWait, ARefusedSubscriptionLeavesTheBusKnown) {
    Connection().addMatch = false;
    EXPECT_TRUE(WaitForBus(nullptr));
    EXPECT_TRUE(WaitForBus(nullptr));
    EXPECT_EQ(1U, CallsStarting("BusHasOwner"));
    DestroyClient();
    EXPECT_EQ(1U, m_platform.CountStarting(3, "[API_LITE] Closing connection"));
}

TEST_F(BusWait, WithoutTheFeatureACallIsRefusedAndTheInterfaceWaitIsNot) {
    SupportIs(false);
    EXPECT_FALSE(Call());
    EXPECT_FALSE(CallAsync());
    EXPECT_THAT(Errors(), ElementsAre("IpcClient|[API_LITE] IsMAVIXSupported() is false, just return false",
                                      "IpcClient|[API_LITE] Bus not owned",
                                      "IpcClient|[API_LITE] m_PrepareCall failed.",
                                      "IpcClient|[API_LITE] IsMAVIXSupported() is false, just return false",
                                      "IpcClient|[API_LITE] Bus not owned",
                                      "IpcClient|[API_LITE] m_PrepareCall failed."));
    EXPECT_TRUE(Client().WaitForCreateInterface("com.norvale.ITest"));
    const std::vector<LogLine> lines =
        m_platform.LinesWith("[API_LITE] IsMAVIXSupported() is false, just return true");
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ("MAVIX_API", lines[0].tag);
    EXPECT_EQ("WaitForCreateInterface", lines[0].function);
    EXPECT_THAT(Connection().Calls(), IsEmpty());
}

TEST_F(BusWait, TheFeatureIsNotAskedForWhenTheBusIsKnown) {
    ASSERT_TRUE(Call());
    SupportIs(false);
    m_platform.Reset();
    SupportIs(false);
    EXPECT_TRUE(Call());
    EXPECT_THAT(m_platform.Calls(), testing::Each(testing::HasSubstr("cpu_inheritance")));
    EXPECT_FALSE(Call("com.norvale.ISessionControl"));
}

TEST_F(BusWait, WithTheFeatureCallsGoThrough) {
    SupportIs(true);
    EXPECT_TRUE(Call());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(BusWait, AnInterfaceIsWaitedForBusByBus) {
    EXPECT_TRUE(Client().WaitForCreateInterface("com.norvale.ISOSpecControl"));
    EXPECT_THAT(Connection().Calls(),
                ElementsAre("BusHasOwner(com.norvale.MavixAPI, 250)",
                            "AddMatch(" + OwnerRule("com.norvale.MavixAPI") + ")",
                            "BusHasOwner(com.norvale.MavixAPI.Pipeline, 250)",
                            "AddMatch(" + OwnerRule("com.norvale.MavixAPI.Pipeline") + ")",
                            "BusHasOwner(com.norvale.MavixAPI.ServiceDb, 250)",
                            "AddMatch(" + OwnerRule("com.norvale.MavixAPI.ServiceDb") + ")"));
    // The greeting is left to the first call.
    ASSERT_TRUE(Call());
    EXPECT_TRUE(Requests().back().programName);
}

TEST_F(BusWait, ANullInterfaceNameThrows) {
    EXPECT_THROW(Client().WaitForCreateInterface(nullptr), std::logic_error);
}

// A naming in which an interface needs no bus.
class NoBuses final : public IpcConfiguration {
public:
    NoBuses() : IpcConfiguration("com.norvale.Other", "/com/norvale/Other") {}
    std::list<std::string> InterfaceBusNameList(const std::string&) const override { return {}; }
};

TEST(BusWaitNaming, AnInterfaceWithoutBusesNeedsNoWait) {
    FakedClient faked(std::make_unique<NoBuses>());
    faked.Connection().ClearCalls();
    EXPECT_TRUE(faked.Client().WaitForCreateInterface("com.norvale.IOther"));
    EXPECT_THAT(faked.Connection().Calls(), IsEmpty());
}

TEST_F(BusWait, OfTwoFirstCallersOneGreetsAndOneWatches) {
    Meeting meeting(2);
    Connection().onBusHasOwner = [&meeting](const std::string&, int, bool& hasOwner) {
        meeting.Arrive();
        hasOwner = true;
        return true;
    };
    Connection().onSendWithReply = nullptr;
    std::thread other([this] { CallAsync(); });
    CallAsync();
    other.join();
    ASSERT_EQ(2U, Requests().size());
    EXPECT_EQ(1, int{Requests()[0].programName.has_value()} + int{Requests()[1].programName.has_value()});
    EXPECT_EQ(2U, CallsStarting("BusHasOwner"));
    EXPECT_EQ(1U, CallsStarting("AddMatch"));
    EXPECT_EQ(0U, CallsStarting("RemoveMatch"));
    EXPECT_EQ(1U, TestAccess::BusWrappers(Client()).size());
}

TEST_F(BusWait, ManyFirstCallersGreetOnce) {
    constexpr int count = 16;
    Meeting meeting(count);
    std::vector<std::thread> threads;
    for (int at = 0; at < count; ++at) {
        threads.emplace_back([this, &meeting] {
            meeting.Arrive();
            EXPECT_TRUE(CallAsync());
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    int greetings = 0;
    for (const Request& request : Requests()) {
        greetings += request.programName ? 1 : 0;
    }
    EXPECT_EQ(1, greetings);
    EXPECT_EQ(1U, CallsStarting("AddMatch"));
    EXPECT_EQ(0U, CallsStarting("RemoveMatch"));
}

TEST_F(BusWait, WhileOneBusIsWaitedForCallsOfAnotherGoThrough) {
    ASSERT_TRUE(Call());
    std::promise<void> waiting;
    std::promise<void> release;
    Connection().onBusHasOwner = [&](const std::string&, int, bool& hasOwner) {
        waiting.set_value();
        release.get_future().wait();
        hasOwner = true;
        return true;
    };
    std::thread other([this] { EXPECT_TRUE(Call("com.norvale.ISessionControl")); });
    waiting.get_future().wait();
    EXPECT_TRUE(Call());
    EXPECT_EQ(defaultBus, Requests().back().destination);
    release.set_value();
    other.join();
    EXPECT_EQ("com.norvale.ISessionControl", Requests().back().destination);
}

} // namespace
