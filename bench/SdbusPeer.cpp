#include "Peer.h"

#include "sim/Handles.h"

#include <unistd.h>

namespace MavixBench {

namespace {

using namespace MavixSim;

class TCSdbusPeer final : public TIPeer {
public:
    TCSdbusPeer() {
        sd_bus* bus = nullptr;
        Check(sd_bus_open_system(&bus), "connect");
        m_bus.reset(bus);
    }

    void Call(const std::vector<char>& payload) override {
        sd_bus_message* made = nullptr;
        Check(sd_bus_message_new_method_call(m_bus.get(), &made, calledBus, calledObject, calledInterface,
                                             calledMember),
              "message");
        const MessageHandle message(made);
        Check(sd_bus_message_append(made, "iii", static_cast<int>(echoCode), static_cast<int>(payload.size()),
                                    static_cast<int>(getpid())),
              "arguments");
        if (!payload.empty()) {
            Check(sd_bus_message_append_array(made, 'y', payload.data(), payload.size()), "payload");
        }
        sd_bus_message* answer = nullptr;
        Check(sd_bus_call(m_bus.get(), made, 0, nullptr, &answer), "call");
        const MessageHandle reply(answer);
        const void* bytes = nullptr;
        std::size_t size = 0;
        Check(sd_bus_message_skip(answer, "yi"), "answer");
        Check(sd_bus_message_read_array(answer, 'y', &bytes, &size), "answer");
        TakeAnswer(payload.size(), bytes, size);
    }

private:
    BusHandle m_bus;
};

} // namespace

std::unique_ptr<TIPeer> CreateSdbus() {
    return std::make_unique<TCSdbusPeer>();
}

} // namespace MavixBench
