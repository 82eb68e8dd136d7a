#ifndef MAVIX_CONTROL_MONITOR_H
#define MAVIX_CONTROL_MONITOR_H

#include "MonitorFilter.h"
#include "MonitorView.h"
#include "PeerCache.h"

#include "Descriptor.h"
#include "RecordingWriter.h"

#include <deque>
#include <memory>

namespace MavixControl {

struct TSMonitorOptions {
    TCMonitorFilter filter;
    std::string recordPath;
    std::uint64_t count = 0; // 0: without limit
    std::optional<double> timeoutSeconds;
    double replySeconds = 30; // the bus libraries give up after 25 s
    bool wholePayloads = false;
};

// One run of the monitor: reads all of the service's traffic from the bus, which copies it to us, and prints
// it in its order. A message waits until its sender is known, which takes the bus an instant, and all that
// came after it waits with it; nothing else does. Owner: the command; one thread.
class TCMonitor final {
public:
    // Monitors when it returns. Throws TCFailure when there is no bus, or it refuses.
    TCMonitor(const TSSettings& settings, const TSMonitorOptions& options);

    // Until a signal, the count, the time limit or the end of the bus. The exit code.
    EExitCode Run();

private:
    struct Held {
        MavixSim::MessageHandle raw;
        MavixTraffic::Message message;
    };
    enum class State { Goes, Done, BusGone };

    void m_BecomeMonitor();
    State m_Step();
    State m_ReadSome(bool& more);
    void m_TakeUp(sd_bus_message* raw);
    void m_HandleHeld(bool all);
    bool m_MayHandle(const Held& held, std::uint64_t nowUs) const;
    void m_Handle(const Held& held);
    void m_HandleCall(const Held& held);
    void m_HandleReply(const Held& held);
    void m_HandleEvent(const Held& held);
    void m_HandleOwner(const Held& held);
    void m_HandleTimeOuts();
    // What a recording cannot hold is left out of it, and told.
    template <class Write>
    void m_Record(std::uint64_t number, const Write& write);
    void m_Wait();
    bool m_IsFull() const { return m_options.count != 0 && m_printed >= m_options.count; }
    // What has passed before the end was asked for is still printed.
    void m_BeginToEnd();
    bool m_HasEnded() const;
    bool m_IsSignalled() const;
    bool m_IsOver() const;
    EExitCode m_Finish(State state);

    const TSMonitorOptions& m_options;
    MavixTools::TCDescriptor m_signals;
    MavixSim::BusHandle m_bus;
    TCPeerCache m_peers;
    MavixTraffic::TCPairing m_pairing;
    TCMonitorView m_view;
    std::unique_ptr<MavixTraffic::TCRecordingWriter> m_recording;
    std::deque<Held> m_held;
    std::size_t m_heldBytes = 0;
    std::uint64_t m_lastNumber = 0;
    std::uint64_t m_printed = 0;
    std::optional<std::uint64_t> m_endUs;
    // Of the question whose answer, which the bus copies to us, too, is the last message.
    std::uint64_t m_markSerial = 0;
    bool m_markSeen = false;
    std::optional<std::uint64_t> m_latestEndUs;
};

} // namespace MavixControl

#endif
