#include "Responder.h"

#include "CallDecoder.h"
#include "Complaint.h"

#include <algorithm>
#include <memory>

namespace MavixSim {

namespace {

std::uint32_t Milliseconds(const Parameter& parameter) {
    return static_cast<std::uint32_t>(std::max(parameter.Number(), 0));
}

// A plan's own parameter, else the call's payload.
Parameter ParameterOf(const Call& call, const Plan& plan) {
    return plan.parameter.empty() ? Parameter{call.payload, call.payloadSize}
                                  : Parameter{plan.parameter.data(), plan.parameter.size()};
}

// Whether the session interface does what is asked; otherwise it only answers as it was told.
bool DoesSessionCall(const Call& call, const Plan& plan) {
    return call.interface == sessionInterface && !plan.answer &&
           (plan.behaviour == Behaviour::Echo || plan.behaviour == Behaviour::Delay ||
            plan.behaviour == Behaviour::DropName);
}

} // namespace

void TCResponder::SetReply(const std::string& interface, std::int16_t code, Behaviour behaviour,
                           std::vector<std::uint8_t> parameter) {
    m_rules[{interface, interface.empty() ? std::int16_t{0} : code}] = Rule{behaviour, std::move(parameter)};
}

std::optional<Plan> TCResponder::m_RuledPlan(const Call& call) const {
    auto found = m_rules.find({call.interface, call.Code()});
    if (found == m_rules.end())
        found = m_rules.find({"", 0});
    if (found == m_rules.end() || call.interface == testInterface)
        return std::nullopt;
    Plan plan;
    plan.behaviour = found->second.behaviour;
    plan.parameter = found->second.parameter;
    const bool onlyWaits = plan.behaviour == Behaviour::Delay || plan.behaviour == Behaviour::DropName;
    if (!plan.parameter.empty() && !(onlyWaits && call.interface == sessionInterface))
        plan.answer = plan.parameter;
    return plan;
}

std::optional<Plan> TCResponder::m_PlanFor(const Call& call) const {
    if (std::optional<Plan> plan = m_RuledPlan(call))
        return plan;
    if (m_plans)
        if (std::optional<Plan> plan = m_plans(call))
            return plan;
    Plan plan;
    if (call.interface == testInterface && call.Code() >= 0) {
        if (call.Code() >= behaviourCount)
            return std::nullopt;
        plan.behaviour = static_cast<Behaviour>(call.Code());
    }
    return plan;
}

void TCResponder::Respond(sd_bus_message* request, const Call& call) {
    const std::optional<Plan> plan = m_PlanFor(call);
    if (!plan) {
        Refuse(request, call, "the test interface has no function " + std::to_string(call.Code()));
        return;
    }
    std::uint64_t delayMs = std::uint64_t{m_delayMs} + plan->delayMs;
    if (plan->behaviour == Behaviour::Delay)
        delayMs += Milliseconds(ParameterOf(call, *plan));
    if (delayMs == 0 && !plan->hold) {
        m_AnswerOrRefuse(request, call, *plan);
        return;
    }
    // Actions are copied, so the message is held through a shared handle.
    const std::shared_ptr<sd_bus_message> held(sd_bus_message_ref(request), sd_bus_message_unref);
    std::function<void()> answer = [this, held, call, plan] { m_AnswerOrRefuse(held.get(), call, *plan); };
    if (plan->hold)
        answer = [plan, answer] { plan->hold(answer); };
    if (delayMs == 0)
        answer();
    else
        m_timers.After(delayMs, std::move(answer));
}

void TCResponder::Refuse(sd_bus_message* request, const Call& call, const std::string& reason) {
    Complain("refused a call of " + call.sender + ": " + reason);
    if (!call.noReply)
        SendError(request, refusalErrorName, reason);
}

void TCResponder::m_AnswerOrRefuse(sd_bus_message* request, const Call& call, const Plan& plan) {
    try {
        m_Answer(request, call, plan);
    } catch (const Refusal& refusal) {
        Refuse(request, call, refusal.what());
    }
}

void TCResponder::m_Answer(sd_bus_message* request, const Call& call, const Plan& plan) {
    if (plan.before)
        plan.before();
    const Parameter parameter = ParameterOf(call, plan);
    if (plan.behaviour == Behaviour::Exit) {
        Check(sd_event_exit(m_event, parameter.Number()), "exit");
        return;
    }
    std::vector<std::uint8_t> answer;
    Parameter echoed{call.payload, call.payloadSize};
    if (DoesSessionCall(call, plan)) {
        answer = m_sessions.Answer(call);
        echoed = Parameter{answer.data(), answer.size()};
    }
    if (plan.answer)
        echoed = Parameter{plan.answer->data(), plan.answer->size()};
    if (!call.noReply)
        if (MessageHandle reply = MakeReply(request, plan.behaviour, parameter, echoed, call.takenUpMs))
            SendReply(std::move(reply));
    if (plan.behaviour == Behaviour::DropName)
        m_names.DropFor(call.destination, Milliseconds(parameter));
    if (plan.after)
        plan.after();
}

} // namespace MavixSim
