#include "Player.h"

#include "Clock.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace MavixSim {

namespace {

// The step for the call with this number, counted from 0.
const Step& StepFor(const Rule& rule, std::uint64_t number) {
    for (const Step& step : rule.steps) {
        if (number < step.times)
            return step;
        number -= step.times;
    }
    return rule.steps.back();
}

void SetNumber(Event& event, std::uint32_t number) {
    event.payload.resize(std::max(event.payload.size(), sizeof number));
    std::memcpy(event.payload.data(), &number, sizeof number);
}

} // namespace

bool WaitWithoutServing(std::uint32_t milliseconds) {
    sigset_t ending;
    ::sigemptyset(&ending);
    ::sigaddset(&ending, SIGTERM);
    ::sigaddset(&ending, SIGINT);
    const std::uint64_t end = MonotonicMs() + milliseconds;
    for (;;) {
        const std::uint64_t now = MonotonicMs();
        if (milliseconds != 0 && now >= end)
            return true;
        const std::uint64_t left = milliseconds != 0 ? end - now : 1000;
        const timespec limit{static_cast<time_t>(left / 1000), static_cast<long>(left % 1000 * 1000000)};
        const int signal = ::sigtimedwait(&ending, nullptr, &limit);
        if (signal > 0) {
            ::raise(signal);
            return false;
        }
    }
}

void TCPlayer::TakeNames(bool isFirstTime) {
    const FaultUse& start = m_playback.scenario.start;
    const Role& role = m_parts.role;
    const bool isUsual = !isFirstTime || !start ||
                         (start.texts.at("process") != "both" && start.texts.at("process") != role.option);
    if (isUsual)
        m_parts.names.TakeServiceNames(role);
    m_parts.names.TakeControlName(role);
    if (!isUsual && start.Is(Fault::SlowStart))
        m_parts.timers.After(start.Milliseconds(), [this] { m_parts.names.TakeServiceNames(m_parts.role); });
}

void TCPlayer::Start() {
    const std::vector<Action>& timeline = m_playback.scenario.timeline;
    const std::uint64_t start = m_playback.progress.StartMs();
    const std::uint64_t now = MonotonicMs();
    for (std::size_t at = 0; at < timeline.size(); ++at) {
        const Action& action = timeline[at];
        TCProgress::Counter& kept = m_playback.progress.Done(at);
        std::uint64_t done = kept;
        std::uint64_t due = start + action.afterMs + done * action.everyMs;
        // What fell into the process's absence is left out.
        if (action.everyMs != 0 && due < now) {
            const std::uint64_t missed = (now - due + action.everyMs - 1) / action.everyMs;
            done += missed;
            due += missed * action.everyMs;
        }
        if (m_IsOurs(action) && (!action.count || done < *action.count))
            m_DoAt(due, action, "", done, &kept);
    }
}

bool TCPlayer::m_IsOurs(const Action& action) const {
    const Role& role = m_parts.role;
    if (action.event)
        return &role == &Roles().front();
    const auto process = action.fault.texts.find("process");
    if (process != action.fault.texts.end())
        return process->second == role.option;
    const std::string& busName = action.fault.texts.at("busName");
    return std::find(role.busNames.begin(), role.busNames.end(), busName) != role.busNames.end();
}

std::optional<Plan> TCPlayer::PlanFor(const Call& call) {
    const std::vector<Rule>& rules = m_playback.scenario.rules;
    for (std::size_t at = 0; at < rules.size(); ++at) {
        const Rule& rule = rules[at];
        if (!rule.calls.IsOf(call) || !rule.calls.condition.Holds(call))
            continue;
        const std::uint64_t number = m_playback.progress.Calls(at)++;
        return m_PlanFor(StepFor(rule, number), call, m_Chance(at, number));
    }
    return std::nullopt;
}

// The same for the same seed, rule and call, whatever else happens.
std::uint64_t TCPlayer::m_Chance(std::size_t rule, std::uint64_t number) const {
    std::uint64_t value = m_playback.scenario.seed;
    for (const std::uint64_t part : {std::uint64_t{rule}, number}) {
        value += part + 0x9e3779b97f4a7c15u;
        value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9u;
        value = (value ^ (value >> 27)) * 0x94d049bb133111ebu;
        value ^= value >> 31;
    }
    return value;
}

Plan TCPlayer::m_PlanFor(const Step& step, const Call& call, std::uint64_t chance) {
    Plan plan;
    plan.behaviour = step.behaviour;
    plan.parameter = step.parameter;
    plan.answer = step.reply;
    plan.delayMs = step.delayMs + static_cast<std::uint32_t>(chance % (std::uint64_t{step.spreadMs} + 1));
    const std::string caller = call.sender;
    const std::string busName = call.destination;
    if (step.fault.Is(Fault::Hang))
        plan.before = [this, &step] { m_Hang(step.fault.Milliseconds()); };
    else if (step.fault.Is(Fault::CrashInCall))
        plan.before = [this, &step] { m_playback.progress.AwayMs(m_parts.role) = step.fault.Milliseconds(); };
    else if (step.fault.Is(Fault::Reorder))
        plan.hold = [this, &step](std::function<void()> answer) { m_Swap(step, std::move(answer)); };
    plan.after = [this, &step, caller, busName] {
        for (const Action& action : step.then)
            m_DoAt(MonotonicMs() + action.afterMs, action, caller, 0, nullptr);
        if (step.fault && !step.fault.Is(Fault::Hang))
            m_Break(step.fault, busName);
    };
    return plan;
}

void TCPlayer::m_Swap(const Step& step, std::function<void()> answer) {
    const auto earlier = m_held.find(&step);
    if (earlier != m_held.end()) {
        // In a turn of its own, so that one that fails does not take the other one along.
        m_parts.timers.After(0, std::move(earlier->second.answer));
        m_held.erase(earlier);
        answer();
        return;
    }
    const std::uint64_t number = ++m_lastHeld;
    m_held[&step] = {number, std::move(answer)};
    m_parts.timers.After(step.fault.Milliseconds(), [this, &step, number] {
        const auto held = m_held.find(&step);
        if (held == m_held.end() || held->second.number != number)
            return;
        const std::function<void()> alone = std::move(held->second.answer);
        m_held.erase(held);
        alone();
    });
}

void TCPlayer::m_DoAt(std::uint64_t dueMs, const Action& action, const std::string& caller,
                      std::uint64_t done, TCProgress::Counter* kept) {
    const std::uint64_t now = MonotonicMs();
    const std::uint64_t delay = dueMs > now ? dueMs - now : 0;
    m_parts.timers.After(delay, [this, dueMs, &action, caller, done, kept] {
        // Kept and continued before, as the action may end the process, or fail.
        if (kept != nullptr)
            *kept = done + 1;
        if (!action.count || done + 1 < *action.count)
            m_DoAt(dueMs + action.everyMs, action, caller, done + 1, kept);
        m_Do(action, caller);
    });
}

void TCPlayer::m_Do(const Action& action, const std::string& caller) {
    if (!action.event) {
        const auto busName = action.fault.texts.find("busName");
        m_Break(action.fault, busName == action.fault.texts.end() ? "" : busName->second);
        return;
    }
    Event event = *action.event;
    if (action.toCaller)
        event.destination = caller;
    m_Emit(std::move(event), action.fault);
}

void TCPlayer::m_Emit(Event event, const FaultUse& fault) {
    const auto emit = [this, &event] { m_parts.emitter.EmitOne(MakeEvent(m_parts.bus, event).get()); };
    if (!fault) {
        emit();
        return;
    }
    switch (fault.row->fault) {
    case Fault::FloodEvents:
        event.payload.resize(static_cast<std::size_t>(fault.Number("size")));
        m_parts.emitter.Start(event, 0, static_cast<std::uint32_t>(fault.Number("count")), [] {});
        break;
    case Fault::DuplicateEvent:
        for (std::int32_t time = 0; time < fault.Number("times"); ++time)
            emit();
        break;
    case Fault::Reorder: {
        const auto count = static_cast<std::uint32_t>(fault.Number("count"));
        for (std::uint32_t at = 0; at < count; ++at) {
            SetNumber(event, (at ^ 1u) < count ? at ^ 1u : at);
            emit();
        }
        break;
    }
    case Fault::MalformedEvent:
        if (!fault.texts.at("id").empty())
            event.idText = fault.texts.at("id");
        m_parts.emitter.EmitOne(MakeRawEvent(m_parts.bus, fault.texts.at("kind"), event).get());
        break;
    default:
        break;
    }
}

void TCPlayer::m_Break(const FaultUse& fault, const std::string& busName) {
    switch (fault.row->fault) {
    case Fault::DropName:
        m_parts.names.DropFor(busName, fault.Milliseconds());
        break;
    case Fault::OwnerFlap:
        m_Flap(busName, fault.Milliseconds(), static_cast<std::uint32_t>(fault.Number("times")));
        break;
    case Fault::Hang:
        m_Hang(fault.Milliseconds());
        break;
    case Fault::Restart:
        m_playback.progress.AwayMs(m_parts.role) = fault.Milliseconds();
        Check(sd_event_exit(m_parts.event, 0), "exit");
        break;
    case Fault::Disconnect:
        m_awayMs = fault.Milliseconds();
        Check(sd_event_exit(m_parts.event, 0), "exit");
        break;
    default:
        break;
    }
}

void TCPlayer::m_Hang(std::uint32_t milliseconds) {
    WaitWithoutServing(milliseconds);
}

void TCPlayer::m_Flap(const std::string& busName, std::uint32_t milliseconds, std::uint32_t times) {
    m_parts.names.Drop(busName);
    m_parts.timers.After(milliseconds, [this, busName, milliseconds, times] {
        m_parts.names.Take(busName);
        if (times > 1)
            m_parts.timers.After(milliseconds, [this, busName, milliseconds, times] {
                m_Flap(busName, milliseconds, times - 1);
            });
    });
}

} // namespace MavixSim
