#ifndef MAVIX_SIM_SERVER_H
#define MAVIX_SIM_SERVER_H

#include "Control.h"
#include "PidCache.h"

namespace MavixSim {

// One serving process: its bus connection, its event loop and the parts on it. Owner: main. One thread.
class TCServer final {
public:
    TCServer(const Role& role, bool keepRecords);
    TCServer(const TCServer&) = delete;
    TCServer& operator=(const TCServer&) = delete;

    // Owns the names when it returns; they are taken last, so that whoever sees them is served.
    void TakeNames() { m_names.TakeAll(m_role); }
    // Serves until a signal, an order to exit or the end of the bus. The process's exit code.
    int Run();

private:
    static int m_OnMessage(sd_bus_message* message, void* self, sd_bus_error* error);
    void m_HandleCall(sd_bus_message* message);

    const Role& m_role;
    const bool m_keepRecords;
    EventHandle m_event;
    BusHandle m_bus;
    TCTimers m_timers;
    TCBusNames m_names;
    TCPidCache m_pids;
    TCSessions m_sessions;
    TCCallRecorder m_recorder;
    TCBurstEmitter m_emitter;
    TCResponder m_responder;
    TCControl m_control;
    SlotHandle m_filter;
};

} // namespace MavixSim

#endif
