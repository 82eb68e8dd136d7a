#ifndef MAVIX_SIM_SESSION_CALL_H
#define MAVIX_SIM_SESSION_CALL_H

#include "Call.h"

namespace MavixSim {

// The functions of the session interface.
enum class SessionFunction : std::int16_t {
    Open = 0,
    Close = 1,
    DebugInfo = 2,
    OpenTrace = 3,  // wants no answer
    CloseTrace = 4, // wants no answer
    IsTerminated = 5
};

// What opening and closing a trace carry; closing has the id alone.
struct TraceRequest {
    std::int64_t id = 0;
    std::string text;
    std::int32_t parameter = 0;
};

// Throws Refusal for a call whose code, payload or wish for an answer is not one of the session interface.
void CheckSessionCall(const Call& call);

// Of a call that was checked.
TraceRequest DecodeTraceRequest(const Call& call);

} // namespace MavixSim

#endif
