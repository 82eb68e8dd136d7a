#include "Await.h"
#include "FailingConnection.h"
#include "FakeBus.h"
#include "GioFaults.h"
#include "LogPriorities.h"
#include "PrivateBus.h"
#include "RawClient.h"
#include "RecordingOwner.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// The one attempt to connect: its thread, its waits and its end.

namespace MavixTest {

namespace {

class GdbusConnecting : public testing::Test {
protected:
    TCRecordingPlatform& m_log = TCRecordingPlatform::Get();
    FailingConnection m_connection;
};

TEST_F(GdbusConnecting, WaitsForTheBusReadyEventOnceAndForTenSeconds) {
    std::atomic<pthread_t> connectingThread{};
    m_log.waitEvent = [&](const char*, int) {
        connectingThread = pthread_self();
        return -7;
    };
    m_connection.Connect("Connecting", nullptr);
    EXPECT_FALSE(m_connection.WaitConnected());
    EXPECT_EQ(std::vector<std::string>{"LwipcWaitEvent(/tmp/dbus_launch, 10000)"}, m_log.Calls());
    EXPECT_EQ(1U, m_log.Count(errorLine, "dbus not ready!"));
    EXPECT_EQ("m_Connect", m_log.LinesWith("dbus not ready!").at(0).function);
    EXPECT_EQ(1, m_connection.failures);
    EXPECT_EQ(connectingThread, m_connection.failedOn);
    EXPECT_EQ(0U, m_log.CountStarting(debugLine, "[API_LITE][END]"));
}

TEST_F(GdbusConnecting, AResultThatIsNotNegativeIsReadiness) {
    const TCPrivateBus bus;
    m_log.waitEvent = [](const char*, int) { return 3; };
    m_connection.Connect("Connecting", nullptr);
    EXPECT_TRUE(m_connection.WaitConnected());
    EXPECT_EQ(0, m_connection.failures);
    EXPECT_EQ(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
              GioFaults::usedFlags);
}

TEST_F(GdbusConnecting, OneThreadIsStartedForManyConnects) {
    std::atomic<bool> goOn{false};
    m_log.waitEvent = [&](const char*, int) {
        while (!goOn) {
            std::this_thread::yield();
        }
        return -1;
    };
    for (int at = 0; at < 5; ++at) {
        EXPECT_TRUE(m_connection.Connect("Connecting", nullptr));
    }
    EXPECT_EQ(1, m_connection.threads);
    goOn = true;
    EXPECT_FALSE(m_connection.WaitConnected());
    EXPECT_EQ(1, m_connection.failures);
    EXPECT_TRUE(m_connection.Connect("Connecting", nullptr));
    EXPECT_EQ(2, m_connection.threads);
    EXPECT_FALSE(m_connection.WaitConnected());
}

// The ids of threads are used again, so that of the connecting thread must not outlive it.
TEST_F(GdbusConnecting, NoLaterThreadIsTakenForTheConnectingOne) {
    m_log.waitEvent = [](const char*, int) { return -1; };
    std::size_t reused = 0;
    for (int round = 0; round < 20; ++round) {
        m_connection.Connect("Connecting", nullptr);
        EXPECT_FALSE(m_connection.WaitConnected());
        std::thread([&] {
            reused += pthread_equal(m_connection.failedOn, pthread_self()) != 0 ? 1U : 0U;
            EXPECT_EQ("", m_connection.GetUniqueName());
            bool hasOwner = false;
            EXPECT_FALSE(m_connection.BusHasOwner("com.norvale.Sim.Own", 100, hasOwner));
        }).join();
    }
    EXPECT_GT(reused, 0U) << "no id was used again, so this showed nothing";
    EXPECT_EQ(0U, m_log.Count("Called from initializer. Do not block here"));
    EXPECT_EQ(40U, m_log.Count(errorLine, "[API_LITE] not connected!"));
}

TEST_F(GdbusConnecting, AFailureThatNobodyWaitedForIsFoundByTheNextUser) {
    m_log.waitEvent = [](const char*, int) { return -1; };
    m_connection.Connect("Connecting", nullptr);
    EXPECT_TRUE(m_log.WaitFor("dbus not ready!"));
    EXPECT_FALSE(m_connection.AddMatch("type='signal'"));
    EXPECT_EQ(1U, m_log.Count(infoLine, "[API_LITE][END] Wait for DBUS connection (nil)"));
    EXPECT_EQ(1U, m_log.Count(errorLine, "[API_LITE] not connected!"));
}

TEST_F(GdbusConnecting, AMuteBusLetsEverybodyWaitUntilItHangsUp) {
    TCFakeBus bus(TCFakeBus::Manners::Mute);
    m_connection.Connect("Connecting", nullptr);
    ASSERT_TRUE(bus.WaitForConnections(1));
    std::atomic<int> returned{0};
    std::atomic<int> succeeded{0};
    std::vector<std::thread> users;
    const auto use = [&](const auto& request) {
        users.emplace_back([&, request] {
            succeeded += request() ? 1 : 0;
            ++returned;
        });
    };
    bool hasOwner = false;
    use([&] { return m_connection.WaitConnected(); });
    use([&] { return !m_connection.GetUniqueName().empty(); });
    use([&] { return m_connection.AddMatch("type='signal'"); });
    use([&] { return m_connection.BusHasOwner("org.freedesktop.DBus", 10, hasOwner); });
    ASSERT_TRUE(m_log.WaitFor("[API_LITE][START] Wait for DBUS connection"));
    // There is nothing to wait for: the point is that nothing happens.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(0, returned);
    bus.Close();
    for (std::thread& user : users) {
        user.join();
    }
    EXPECT_EQ(0, succeeded);
    EXPECT_EQ(1, m_connection.failures);
    EXPECT_EQ(1U, m_log.Count(errorLine, "[API_LITE] m_Connect failed!"));
}

// The bus stops reading while the owner's initialiser sends.
TEST_F(GdbusConnecting, ABusThatDoesNotReadDoesNotHoldUpAFailedInitialiser) {
    TCFakeBus bus(TCFakeBus::Manners::Serve);
    TCRecordingOwner owner;
    owner.onInitialize = [&bus](MavixApiLite::TIIpcConnection* connection) {
        bus.StopReading();
        // More than any socket holds.
        const std::string rule = "arg0='" + std::string(1U << 20U, 'x') + "'";
        for (int at = 0; at < 4; ++at) {
            EXPECT_TRUE(connection->AddMatch(rule.c_str()));
        }
        return false;
    };
    const auto start = std::chrono::steady_clock::now();
    m_connection.Connect("Connecting", &owner);
    EXPECT_FALSE(m_connection.WaitConnected());
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::milliseconds(1500 + 500 * MAVIX_TEST_SCALE_DIVISOR));
    EXPECT_EQ(1, m_connection.failures);
}

TEST_F(GdbusConnecting, WhatAFailedInitialiserSentLeavesAllTheSame) {
    const TCPrivateBus bus;
    TCRawClient receiver(bus.Address());
    receiver.KeepUnicast();
    const std::string name = receiver.UniqueName();
    TCRecordingOwner owner;
    owner.onInitialize = [&name](MavixApiLite::TIIpcConnection* connection) {
        for (int at = 0; at < 50; ++at) {
            const auto message = connection->GetMessageAllocatorInstance()->NewMessage(nullptr);
            EXPECT_TRUE(message->Initialize(MavixApiLite::TIIpcMessage::Signal, name.c_str(), peerPath,
                                            peerInterface, "Parting"));
            EXPECT_TRUE(connection->Send(*message));
        }
        return false;
    };
    m_connection.Connect("Connecting", &owner);
    EXPECT_FALSE(m_connection.WaitConnected());
    for (int count = 0; count < 50;) {
        const std::optional<RawEvent> event = receiver.NextEvent();
        ASSERT_TRUE(event) << "after " << count;
        count += event->member == "Parting" ? 1 : 0;
    }
}

// The first message may be dispatched before the connecting thread has said that it is done, and its answer
// waits for that.
TEST_F(GdbusConnecting, LeavingDoesNotWaitForADispatchThatWaitsForTheConnect) {
    const TCPrivateBus bus;
    TCRawClient peer(bus.Address());
    RawCall call;
    call.path = peerPath;
    call.interface = peerInterface;
    call.body = [](sd_bus_message*) {};
    TCRecordingOwner owner;
    owner.onInitialize = [&call](MavixApiLite::TIIpcConnection* connection) {
        call.destination = connection->GetUniqueName();
        return true;
    };
    std::atomic<bool> leaving{false};
    GioFaults::afterFilter = [&] {
        EXPECT_TRUE(Await([&] { return leaving.load(); }));
        peer.Send(call);
        EXPECT_TRUE(m_log.WaitFor("Unhandled method"));
        // Nobody tells that the dispatch thread has begun to wait.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    };
    auto connection = std::make_unique<MavixApiLite::TCGdbusConnection>();
    connection->Connect("Connecting", &owner);
    leaving = true;
    connection.reset();
    GioFaults::afterFilter = nullptr;
    EXPECT_EQ(1U, owner.Messages().size());
}

} // namespace

} // namespace MavixTest
