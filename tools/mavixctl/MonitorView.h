#ifndef MAVIX_CONTROL_MONITOR_VIEW_H
#define MAVIX_CONTROL_MONITOR_VIEW_H

#include "Output.h"
#include "ProcessInfo.h"

#include "Pairing.h"

#include <cstdint>
#include <string>

namespace MavixControl {

// Prints messages, as text or as JSON. Owner: the monitor; one thread.
class TCMonitorView final {
public:
    // What is printed beside the message itself.
    struct Context {
        std::uint64_t number = 0;
        const TSProcess* sender = nullptr;
    };

    TCMonitorView(bool asJson, bool wholePayloads);

    void PrintCall(const MavixTraffic::Message& call, const Context& context);
    void PrintReply(const MavixTraffic::Message& reply, const MavixTraffic::WaitingCall& call,
                    const Context& context);
    void PrintEvent(const MavixTraffic::Message& event, const Context& context);
    void PrintOwner(const MavixTraffic::Message& owner, const Context& context);
    void PrintTimeOut(const MavixTraffic::WaitingCall& call, std::uint64_t nowUs, const Context& context);

private:
    std::string m_Time(std::uint64_t atUs);
    Json m_NewObject(const char* kind, std::uint64_t atUs, const Context& context);
    void m_AddMessage(Json& object, const MavixTraffic::Message& message) const;
    void m_AddPayload(Json& object, const MavixTraffic::Message& message) const;
    std::string m_Head(const char* kind, std::uint64_t atUs, const Context& context);
    void m_AppendEnd(std::string& text, const MavixTraffic::Message& message) const;

    const bool m_asJson;
    const bool m_wholePayloads;
    // From the monotonic clock to the calendar's.
    const std::int64_t m_offsetUs;
    // Printing a date takes longer than everything else, so it is kept as long as it holds.
    std::int64_t m_second = -1;
    std::string m_secondText;
};

} // namespace MavixControl

#endif
