#ifndef MAVIX_TEST_FAILING_CONNECTION_H
#define MAVIX_TEST_FAILING_CONNECTION_H

#include "GdbusConnection.h"

#include <atomic>
#include <thread>
#include <utility>

namespace MavixTest {

// A connection that counts its failures instead of stopping the process.
class FailingConnection final : public MavixApiLite::TCGdbusConnection {
public:
    ~FailingConnection() override { t_CleanupConnection(); }

    std::atomic<int> failures{0};
    std::atomic<int> threads{0};
    std::atomic<pthread_t> failedOn{};

protected:
    void t_SetConnectingThread(std::thread thread) override {
        ++threads;
        TCGdbusConnection::t_SetConnectingThread(std::move(thread));
    }
    void t_ConnectErrorHandler() override {
        failedOn = pthread_self();
        ++failures;
    }
};

} // namespace MavixTest

#endif
