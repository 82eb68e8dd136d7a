#include "ChildProcess.h"
#include "Platform.h"
#include "Sockets.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <gmock/gmock.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace {

constexpr int LongLimitMs = 30000;
constexpr auto Soon = 10s;

// Waits in a child, which finds the bus at the test's address only.
class HostBusReady : public testing::Test {
protected:
    Environment t_Environment() const { return {{"DBUS_SYSTEM_BUS_ADDRESS", t_address}}; }

    // 0 when the wait succeeds; the positive error number else.
    int t_Wait(int limitMs) {
        return RunChild(t_Environment(),
                        [this, limitMs] { return -LwipcWaitEvent(t_event.c_str(), limitMs); })
            .status;
    }

    TestFolder t_folder;
    std::string t_event = t_folder / "dbus_launch";
    std::string t_address = "unix:path=" + (t_folder / "bus");
};

// A child that waits in LwipcWaitEvent.
class Waiter final {
public:
    Waiter(const Environment& environment, const std::string& event)
        : m_child(environment, [this, &event] {
              const int result = -LwipcWaitEvent(event.c_str(), LongLimitMs);
              m_returned.Give(result);
              return result;
          }) {}

    // Returns when the child has looked once and begins to wait.
    void WaitUntilBlocked() const {
        const std::string path = "/proc/" + std::to_string(m_child.Pid()) + "/fd";
        while (!m_HasInotify(path)) {
            std::this_thread::yield();
        }
    }

    // How long the wait goes on from now on; it must succeed.
    steady_clock::duration Rest() {
        const auto begin = steady_clock::now();
        EXPECT_EQ(m_returned.Await(), 0);
        const auto rest = steady_clock::now() - begin;
        EXPECT_EQ(m_child.Wait().status, 0);
        return rest;
    }

private:
    static bool m_HasInotify(const std::string& path) {
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
            if (std::filesystem::read_symlink(entry, error) == "anon_inode:inotify") {
                return true;
            }
        }
        return false;
    }

    Signal m_returned;
    ChildProcess m_child;
};

// The shortest of some waits, from the moment when `makeReady` ran, which is right after the first look.
steady_clock::duration ShortestRest(const Environment& environment, const std::string& event,
                                    const std::function<void()>& makeReady) {
    auto shortest = steady_clock::duration::max();
    for (int times = 0; times < 11; ++times) {
        ::unlink(event.c_str());
        Waiter waiter(environment, event);
        waiter.WaitUntilBlocked();
        makeReady();
        shortest = std::min(shortest, waiter.Rest());
    }
    return shortest;
}

TEST_F(HostBusReady, EventFileThatExistsIsReady) {
    WriteFile(t_event, "");
    EXPECT_EQ(t_Wait(0), 0);
}

TEST_F(HostBusReady, BusThatAcceptsIsReady) {
    BusSocket bus(t_folder / "bus");
    bus.Listen();
    EXPECT_EQ(t_Wait(0), 0);
}

TEST_F(HostBusReady, NothingThereIsATimeout) {
    for (const int limitMs : {0, 1, 50, 250}) {
        SCOPED_TRACE(testing::Message() << "limit " << limitMs << " ms");
        const auto begin = steady_clock::now();
        EXPECT_EQ(t_Wait(limitMs), ETIMEDOUT);
        EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(limitMs));
        EXPECT_LT(steady_clock::now() - begin, std::chrono::milliseconds(limitMs) + 5s);
    }
}

TEST_F(HostBusReady, SocketThatNobodyListensOnIsNotReady) {
    BusSocket bus(t_folder / "bus");
    EXPECT_EQ(t_Wait(0), ETIMEDOUT);
}

TEST_F(HostBusReady, SocketFileLeftByADeadBusIsNotReady) {
    {
        BusSocket bus(t_folder / "bus");
        bus.Listen();
    }
    EXPECT_EQ(t_Wait(0), ETIMEDOUT);
}

// The second look comes after 100 ms; a wait that is woken by the file ends long before.
constexpr auto WokenByTheFile = 50ms;

TEST_F(HostBusReady, EventFileThatAppearsLateEndsTheWaitAtOnce) {
    EXPECT_LT(ShortestRest(t_Environment(), t_event, [this] { WriteFile(t_event, ""); }), WokenByTheFile);
}

TEST_F(HostBusReady, EventFileThatIsMovedIntoPlaceEndsTheWaitAtOnce) {
    const std::string draft = t_folder / "draft";
    const auto moveIntoPlace = [this, &draft] {
        WriteFile(draft, "");
        ASSERT_EQ(std::rename(draft.c_str(), t_event.c_str()), 0);
    };
    EXPECT_LT(ShortestRest(t_Environment(), t_event, moveIntoPlace), WokenByTheFile);
}

TEST_F(HostBusReady, BusThatBeginsToListenLateEndsTheWaitSoon) {
    BusSocket bus(t_folder / "bus");
    Waiter waiter(t_Environment(), t_event);
    waiter.WaitUntilBlocked();
    bus.Listen();
    EXPECT_LT(waiter.Rest(), Soon);
}

TEST_F(HostBusReady, BusThatIsStartedLateEndsTheWaitSoon) {
    Waiter waiter(t_Environment(), t_event);
    waiter.WaitUntilBlocked();
    BusSocket bus(t_folder / "bus");
    bus.Listen();
    EXPECT_LT(waiter.Rest(), Soon);
}

TEST_F(HostBusReady, FolderThatIsMadeLateIsFoundSoon) {
    t_event = t_folder / "later/dbus_launch";
    Waiter waiter(t_Environment(), t_event);
    waiter.WaitUntilBlocked();
    std::filesystem::create_directory(t_folder / "later");
    WriteFile(t_event, "");
    EXPECT_LT(waiter.Rest(), Soon);
}

TEST_F(HostBusReady, OtherFilesInTheFolderNeitherEndNorLengthenTheWait) {
    const auto begin = steady_clock::now();
    ChildProcess child(t_Environment(), [this] { return -LwipcWaitEvent(t_event.c_str(), 500); });
    for (int file = 0; file < 2000; ++file) {
        WriteFile(t_folder / ("other" + std::to_string(file)), "");
    }
    EXPECT_EQ(child.Wait().status, ETIMEDOUT);
    EXPECT_GE(steady_clock::now() - begin, 500ms);
}

TEST_F(HostBusReady, AddressListsAreReadLikeABusLibraryDoes) {
    BusSocket plain(t_folder / "plain");
    plain.Listen();
    BusSocket spaced(t_folder / "with space");
    spaced.Listen();
    const std::string abstractName = (t_folder / "abstract").substr(1);
    BusSocket abstract("@" + abstractName);
    abstract.Listen();
    struct Row {
        std::string address;
        int result;
    };
    const std::string absent = "unix:path=" + (t_folder / "absent");
    const Row rows[] = {
        {"unix:path=" + (t_folder / "plain"), 0},
        {"unix:guid=0123,path=" + (t_folder / "plain"), 0},
        {"unix:path=" + (t_folder / "plain") + ",guid=0123", 0},
        {absent + ";unix:path=" + (t_folder / "plain"), 0},
        {"unix:path=" + (t_folder / "plain") + ";" + absent, 0},
        {"unix:path=" + (t_folder / "with%20space"), 0},
        {"unix:path=" + (t_folder / "with space"), 0},
        {"unix:path=" + (t_folder / "plai%6e"), 0},
        {"unix:path=" + (t_folder / "plai%6E"), 0},
        {"unix:abstract=" + abstractName, 0},
        {"tcp:host=localhost,port=1", 0},
        {absent + ";tcp:host=localhost,port=1", 0},
        {absent, ETIMEDOUT},
        {"unix:abstract=" + abstractName + "x", ETIMEDOUT},
        {"unix:path=" + (t_folder / "plain%"), ETIMEDOUT},
        {"unix:path=" + (t_folder / "plai%6g"), ETIMEDOUT},
        {"unix:path=", ETIMEDOUT},
        {"unix:guid=0123", ETIMEDOUT},
        {"unix:", ETIMEDOUT},
        {"unix", ETIMEDOUT},
        {";", ETIMEDOUT},
        {":", ETIMEDOUT},
        {"unix:path=" + std::string(107, 'x'), ETIMEDOUT},
        {"unix:path=" + std::string(108, 'x'), ETIMEDOUT},
        {"unix:path=" + std::string(5000, 'x'), ETIMEDOUT},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.address);
        t_address = row.address;
        EXPECT_EQ(t_Wait(0), row.result);
    }
}

TEST_F(HostBusReady, BadArgumentsAreRefused) {
    EXPECT_EQ(LwipcWaitEvent(nullptr, 0), -EINVAL);
    EXPECT_EQ(LwipcWaitEvent("", 0), -EINVAL);
    EXPECT_EQ(LwipcWaitEvent(t_event.c_str(), -1), -EINVAL);
}

TEST_F(HostBusReady, LeavesNoDescriptorBehind) {
    const int leaked = RunChild(t_Environment(), [this] {
                           const int before = ::dup(0);
                           ::close(before);
                           LwipcWaitEvent(t_event.c_str(), 10);
                           const int after = ::dup(0);
                           return after - before;
                       }).status;
    EXPECT_EQ(leaked, 0);
}

TEST_F(HostBusReady, ManyThreadsWaitAtOnce) {
    ChildProcess child(t_Environment(), [this] {
        std::vector<std::thread> threads;
        std::vector<int> results(8, -1);
        for (int& result : results) {
            threads.emplace_back([this, &result] { result = LwipcWaitEvent(t_event.c_str(), LongLimitMs); });
        }
        int failed = 0;
        for (std::size_t thread = 0; thread < threads.size(); ++thread) {
            threads[thread].join();
            failed += results[thread] != 0 ? 1 : 0;
        }
        return failed;
    });
    WriteFile(t_event, "");
    EXPECT_EQ(child.Wait().status, 0);
}

} // namespace
