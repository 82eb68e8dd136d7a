#ifndef MAVIX_SIM_RESPONDER_H
#define MAVIX_SIM_RESPONDER_H

#include "BusNames.h"
#include "Plan.h"
#include "Replies.h"
#include "Sessions.h"

#include <map>
#include <utility>

namespace MavixSim {

// Decides what happens to an accepted call, and does it. Owner: the server. One thread.
class TCResponder final {
public:
    TCResponder(sd_event* event, TCTimers& timers, TCBusNames& names, TCSessions& sessions)
        : m_event(event), m_timers(timers), m_names(names), m_sessions(sessions) {}

    // `call` borrows from `request`.
    void Respond(sd_bus_message* request, const Call& call);
    // Tells on standard error and, where an answer is wanted, by a D-Bus error.
    void Refuse(sd_bus_message* request, const Call& call, const std::string& reason);

    // Every later answer waits this long.
    void SetDelay(std::uint32_t milliseconds) { m_delayMs = milliseconds; }
    // Later calls are treated as calls of the test interface with `parameter` as payload, or with their own
    // when it is empty. An empty interface stands for all calls that have no rule of their own. Where the
    // session interface would echo its call, it does what is asked and answers with that.
    void SetReply(const std::string& interface, std::int16_t code, Behaviour behaviour,
                  std::vector<std::uint8_t> parameter);
    void ClearReplies() { m_rules.clear(); }
    // Asked for calls without such a rule; it may know none either.
    using PlanSource = std::function<std::optional<Plan>(const Call&)>;
    void SetPlans(PlanSource plans) { m_plans = std::move(plans); }

private:
    struct Rule {
        Behaviour behaviour;
        std::vector<std::uint8_t> parameter;
    };
    using Key = std::pair<std::string, std::int16_t>;

    std::optional<Plan> m_RuledPlan(const Call& call) const;
    // None when the test interface has no such function.
    std::optional<Plan> m_PlanFor(const Call& call) const;
    void m_AnswerOrRefuse(sd_bus_message* request, const Call& call, const Plan& plan);
    void m_Answer(sd_bus_message* request, const Call& call, const Plan& plan);

    sd_event* const m_event;
    TCTimers& m_timers;
    TCBusNames& m_names;
    TCSessions& m_sessions;
    std::uint32_t m_delayMs = 0;
    std::map<Key, Rule> m_rules;
    PlanSource m_plans;
};

} // namespace MavixSim

#endif
