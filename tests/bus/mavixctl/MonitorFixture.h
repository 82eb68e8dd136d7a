#ifndef MAVIX_TEST_MONITOR_FIXTURE_H
#define MAVIX_TEST_MONITOR_FIXTURE_H

#include "ControlBus.h"
#include "tests/bus/sim/RawClient.h"

#include <memory>

namespace MavixTest {

// The service on a private bus, a client whose messages are made by hand, and monitors.
class ControlMonitor : public ControlBus {
protected:
    using Program = std::unique_ptr<TCControlProgram>;

    // Returns when it monitors.
    static Program Monitor(Words arguments) {
        arguments.insert(arguments.begin(), "monitor");
        auto program = std::make_unique<TCControlProgram>(arguments);
        EXPECT_TRUE(program->AwaitErrors("monitoring")) << program->Errors();
        return program;
    }

    // The objects that a program printed which has ended by itself.
    static std::vector<nlohmann::json> Objects(const Program& program) {
        const ControlResult result = program->Wait();
        EXPECT_EQ(result.status, 0) << result.errors;
        return result.Objects();
    }

    // Sends a call that is never answered.
    void CallInVain() {
        const MavixSim::MessageHandle call = m_client.MakeCall(TestCall(MavixSim::Behaviour::Never));
        const auto ignore = [](sd_bus_message*, void*, sd_bus_error*) { return 0; };
        MavixSim::Check(sd_bus_call_async(m_client.Bus(), nullptr, call.get(), ignore, nullptr, 0), "call");
        MavixSim::Check(sd_bus_flush(m_client.Bus()), "flush");
    }

    TCRawClient m_client{m_bus.Address()};
};

} // namespace MavixTest

#endif
