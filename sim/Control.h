#ifndef MAVIX_SIM_CONTROL_H
#define MAVIX_SIM_CONTROL_H

#include "BurstEmitter.h"
#include "CallRecorder.h"
#include "Responder.h"

namespace MavixSim {

inline constexpr const char* controlPath = "/com/norvale/Sim";
inline constexpr const char* controlInterface = "com.norvale.Sim";

// The interface by which tests and tools steer the process. Owner: the server. One thread.
class TCControl final {
public:
    struct Parts {
        sd_event* event;
        sd_bus* bus;
        TCBusNames& names;
        TCResponder& responder;
        TCCallRecorder& recorder;
        TCBurstEmitter& emitter;
        TCTimers& timers;
        TCSessions& sessions;
    };

    explicit TCControl(const Parts& parts);

private:
    template <void (TCControl::*Method)(sd_bus_message*)>
    static int m_Handle(sd_bus_message* message, void* self, sd_bus_error* error);
    static const sd_bus_vtable* m_Methods();

    void m_Emit(sd_bus_message* message);
    void m_EmitBurst(sd_bus_message* message);
    void m_EmitRaw(sd_bus_message* message);
    void m_RawKinds(sd_bus_message* message);
    void m_Records(sd_bus_message* message);
    void m_RecordsFrom(sd_bus_message* message);
    void m_ClearRecords(sd_bus_message* message);
    void m_Stats(sd_bus_message* message);
    void m_DropName(sd_bus_message* message);
    void m_TakeName(sd_bus_message* message);
    void m_SetDelay(sd_bus_message* message);
    void m_SetReply(sd_bus_message* message);
    void m_ClearReplies(sd_bus_message* message);
    void m_Exit(sd_bus_message* message);

    Parts m_parts;
    SlotHandle m_slot;
};

} // namespace MavixSim

#endif
