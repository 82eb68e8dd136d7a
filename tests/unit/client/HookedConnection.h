#ifndef MAVIX_TEST_HOOKED_CONNECTION_H
#define MAVIX_TEST_HOOKED_CONNECTION_H

#include "FakeConnection.h"

#include <atomic>

namespace MavixTest {

// A fake connection that also tells when it waits, changes match rules and ends. The hooks are set before
// other threads come.
class HookedConnection final : public FakeConnection {
public:
    ~HookedConnection() override {
        if (onDestroyed) {
            onDestroyed();
        }
    }

    std::function<void()> onWaitConnected;
    std::function<void()> onAddMatch;
    std::function<void()> onRemoveMatch;
    std::function<void()> onDestroyed;
    std::atomic<int> waits{0};

    bool WaitConnected() override {
        ++waits;
        Run(onWaitConnected);
        return FakeConnection::WaitConnected();
    }
    bool AddMatch(const char* rule) override {
        Run(onAddMatch);
        return FakeConnection::AddMatch(rule);
    }
    bool RemoveMatch(const char* rule) override {
        Run(onRemoveMatch);
        return FakeConnection::RemoveMatch(rule);
    }

private:
    static void Run(const std::function<void()>& hook) {
        if (hook) {
            hook();
        }
    }
};

} // namespace MavixTest

#endif
