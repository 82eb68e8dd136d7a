#ifndef MAVIX_SIM_SERVER_H
#define MAVIX_SIM_SERVER_H

#include "Control.h"
#include "PidCache.h"
#include "replay/Replay.h"
#include "scenario/Player.h"

#include <vector>

namespace MavixSim {

// One serving process: its bus connection, its event loop and the parts on it. Owner: main. One thread.
class TCServer final {
public:
    // Plays nothing when `playback` is null, replays nothing when `replayed` is.
    TCServer(const Role& role, bool keepRecords, const Playback* playback, const Replayed* replayed);
    TCServer(const TCServer&) = delete;
    TCServer& operator=(const TCServer&) = delete;

    // Owns the names when it returns, unless a scenario has the service start in another way; they are taken
    // last, so that whoever sees them is served.
    void TakeNames(bool isFirstTime);
    // Serves until a signal, an order to exit or the end of the bus. The process's exit code.
    int Run();
    // How long to stay off the bus before another server takes this one's place, when that is why Run ended.
    std::optional<std::uint32_t> AwayMs() const { return m_player ? m_player->AwayMs() : std::nullopt; }

private:
    static int m_OnMessage(sd_bus_message* message, void* self, sd_bus_error* error);
    static int m_OnSignal(sd_event_source* source, const signalfd_siginfo* info, void* self);
    void m_HandleCall(sd_bus_message* message);
    void m_ServeTheRest();

    const Role& m_role;
    const bool m_keepRecords;
    bool m_wasAskedToEnd = false;
    bool m_hasEnded = false;
    std::uint64_t m_calls = 0;
    EventHandle m_event;
    std::vector<SourceHandle> m_signals;
    BusHandle m_bus;
    TCTimers m_timers;
    TCBusNames m_names;
    TCPidCache m_pids;
    TCSessions m_sessions;
    TCCallRecorder m_recorder;
    TCBurstEmitter m_emitter;
    TCResponder m_responder;
    TCControl m_control;
    std::optional<TCPlayer> m_player;
    std::optional<TCReplay> m_replay;
    SlotHandle m_filter;
};

} // namespace MavixSim

#endif
