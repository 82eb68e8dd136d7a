#ifndef MAVIX_CONTROL_BUS_LINK_H
#define MAVIX_CONTROL_BUS_LINK_H

#include <memory>
#include <string>
#include <systemd/sd-bus.h>

namespace MavixControl {

// A connection of our own to the system bus, beside the library's: the library waits where we tell at once
// that there is no bus or no service. Owner: a command; one thread. Throws TCFailure when the bus cannot be
// reached or does not answer.
class TCBusLink final {
public:
    TCBusLink();

    bool HasOwner(const std::string& name) const;
    // Returns when the name has an owner; throws TCFailure when it has none by then.
    void RequireOwner(const std::string& name, double waitSeconds) const;
    // After something failed that nobody answered: throws TCFailure when the bus has gone, or the name's
    // owner.
    void RequireStill(const std::string& name) const;
    // Readable when something has come, and when the bus has gone.
    int Descriptor() const;
    // Takes what has come; false when the bus has gone.
    bool IsAlive() const;
    // Waits so long; false as soon as the bus has gone. Negative: without limit. A signal ends the wait.
    bool Wait(double seconds) const;

private:
    struct Close {
        void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    };
    std::unique_ptr<sd_bus, Close> m_bus;
};

// The line for a bus that has gone.
constexpr const char* busHasGone = "the bus has gone away";

} // namespace MavixControl

#endif
