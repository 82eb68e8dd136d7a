#include "Await.h"
#include "DbusConnection.h"
#include "GlibLog.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"
#include "IteratedConnection.h"
#include "MessageBuffer.h"
#include "PrivateBus.h"
#include "RecordingPlatform.h"
#include "SimDriver.h"
#include "SimProcess.h"
#include "TestScale.h"
#include "sim/Behaviours.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

// A client over libdbus under load, while the service restarts.

namespace MavixTest {

namespace {

using MavixApiLite::IpcConfigurationMavix;
using MavixApiLite::TCDbusConnection;
using MavixApiLite::TCIpcClient;
using MavixApiLite::TCMessageBuffer;
using MavixApiLite::TIIpcConnection;
using MavixSim::Behaviour;

constexpr unsigned int runs = 20;
constexpr unsigned int threads = 64;
constexpr unsigned int callsOfOne = 1000;

std::unique_ptr<TCIpcClient> NewClient(std::unique_ptr<TIIpcConnection> connection) {
    auto configuration = std::make_unique<IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                 "/com/norvale/Mavix/SignalObject");
    return std::make_unique<TCIpcClient>(std::move(configuration), g_main_context_default(),
                                         std::move(connection));
}

// Whether the service's answer is the number again.
bool Echo(TCIpcClient& client, std::uint32_t number) {
    TCMessageBuffer input;
    TCMessageBuffer output;
    input.PushConcatenated(sizeof number, &number);
    if (!client.Call(MavixSim::testInterface, static_cast<short>(Behaviour::Echo), input, output)) {
        return false;
    }
    std::uint32_t answer = 0;
    EXPECT_EQ(sizeof answer, output.PayloadSize());
    if (output.PayloadSize() == sizeof answer) {
        std::memcpy(&answer, output.GetAsCStr(0), sizeof answer);
        EXPECT_EQ(number, answer);
    }
    return true;
}

class LibdbusStress : public testing::Test {
protected:
    // One client's life under load; every call returns, and those that no restart disturbed succeed.
    void Run(std::unique_ptr<TIIpcConnection> connection) {
        const std::unique_ptr<TCIpcClient> client = NewClient(std::move(connection));
        ASSERT_TRUE(Echo(*client, 1));
        const unsigned int count = Scaled(callsOfOne);
        std::atomic<unsigned int> successes{0};
        std::atomic<unsigned int> returned{0};
        std::vector<std::thread> callers;
        for (unsigned int caller = 0; caller < threads; ++caller) {
            callers.emplace_back([&, caller] {
                for (unsigned int at = 0; at < count; ++at) {
                    successes += Echo(*client, caller << 16U | at) ? 1U : 0U;
                    ++returned;
                }
            });
        }
        for (const unsigned int quarter : {1U, 3U}) {
            EXPECT_TRUE(
                Await([&] { return returned >= threads * count / 4 * quarter; }, std::chrono::seconds(120)));
            m_service.KillDaemon();
            EXPECT_TRUE(m_service.WaitReady());
        }
        for (std::thread& caller : callers) {
            caller.join();
        }
        // What is in flight when the service dies fails, and what comes before its death is noticed.
        EXPECT_GT(successes, threads * count / 2);
        EXPECT_EQ(threads * count, returned);
        EXPECT_TRUE(Await([&] { return Echo(*client, 2); }));
        m_log.Reset();
    }

    TCGlibLog m_complaints;
    TCRecordingPlatform& m_log = TCRecordingPlatform::Get();
    TCPrivateBus m_bus;
    TCSimProcess m_service{m_bus, {"--respawn"}, true};
};

TEST_F(LibdbusStress, ThousandCallsOfEachOf64ThreadsReturnThoughTheServiceRestarts) {
    for (unsigned int run = 0; run < runs && !HasFailure(); ++run) {
        SCOPED_TRACE(run);
        Run(std::make_unique<TCDbusConnection>(1, false));
    }
}

TEST_F(LibdbusStress, SoTheyDoOnTheDefaultContext) {
    for (unsigned int run = 0; run < runs / 10 && !HasFailure(); ++run) {
        SCOPED_TRACE(run);
        Run(std::make_unique<TCIteratedDbusConnection>());
    }
}

// Senders, subscribers, callers with short time limits and a flood of incoming messages at once: everything
// that changes what the connection watches.
TEST_F(LibdbusStress, EverythingThatChangesTheWatchesAtOnceIsSafe) {
    TCDbusConnection connection(1, false);
    connection.Connect("Stress", nullptr);
    ASSERT_TRUE(connection.WaitConnected());
    const unsigned int count = Scaled(2000);
    const std::string self = connection.GetUniqueName();
    const std::vector<std::uint8_t> bulk(64U << 10U);
    const auto signal = [&](bool large) {
        const auto message = connection.NewMessage(nullptr);
        EXPECT_TRUE(message->Initialize(MavixApiLite::TIIpcMessage::Signal, self.c_str(), "/com/norvale/Sim",
                                        "com.norvale.Sim.Peer", "Stress"));
        EXPECT_TRUE(!large || message->PushBytes(bulk));
        EXPECT_TRUE(connection.Send(*message));
    };
    const std::function<void()> works[] = {
        [&] { signal(true); },
        [&] { signal(false); },
        [&] { EXPECT_TRUE(connection.AddMatch("type='signal',member='Stress'")); },
        [&] {
            bool hasOwner = false;
            EXPECT_TRUE(connection.BusHasOwner("org.freedesktop.DBus", 60000, hasOwner));
        },
        [&] {
            bool hasOwner = false;
            connection.BusHasOwner("org.freedesktop.DBus", 1, hasOwner);
        },
        [&] {
            connection.AddMatch("type='signal',member='Other'");
            EXPECT_TRUE(connection.RemoveMatch("type='signal',member='Other'"));
        },
        [&] { EXPECT_TRUE(connection.ReleaseName("com.norvale.Sim.Own")); },
    };
    std::vector<std::thread> workers;
    for (const auto& work : works) {
        for (int copy = 0; copy < 2; ++copy) {
            workers.emplace_back([&work, count] {
                for (unsigned int at = 0; at < count / 10; ++at) {
                    work();
                }
            });
        }
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    bool hasOwner = false;
    EXPECT_TRUE(connection.BusHasOwner("org.freedesktop.DBus", 60000, hasOwner));
}

} // namespace

} // namespace MavixTest
