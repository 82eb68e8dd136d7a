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

// A rule's own parameter, else the call's payload.
Parameter ParameterOf(const Call& call, const std::vector<std::uint8_t>& ruled) {
    return ruled.empty() ? Parameter{call.payload, call.payloadSize} : Parameter{ruled.data(), ruled.size()};
}

// Whether the session interface does what is asked; otherwise it only answers as it was told.
bool DoesSessionCall(const Call& call, Behaviour behaviour, bool hasOwnParameter) {
    return call.interface == sessionInterface &&
           ((behaviour == Behaviour::Echo && !hasOwnParameter) || behaviour == Behaviour::Delay ||
            behaviour == Behaviour::DropName);
}

} // namespace

void TCResponder::SetReply(const std::string& interface, std::int16_t code, Behaviour behaviour,
                           std::vector<std::uint8_t> parameter) {
    m_rules[{interface, interface.empty() ? std::int16_t{0} : code}] = Rule{behaviour, std::move(parameter)};
}

std::optional<TCResponder::Rule> TCResponder::m_RuleFor(const Call& call) const {
    if (call.interface == testInterface) {
        if (call.Code() >= behaviourCount)
            return std::nullopt;
        return Rule{call.Code() < 0 ? Behaviour::Echo : static_cast<Behaviour>(call.Code()), {}};
    }
    auto found = m_rules.find({call.interface, call.Code()});
    if (found == m_rules.end())
        found = m_rules.find({"", 0});
    return found == m_rules.end() ? Rule{Behaviour::Echo, {}} : found->second;
}

void TCResponder::Respond(sd_bus_message* request, const Call& call) {
    const std::optional<Rule> rule = m_RuleFor(call);
    if (!rule) {
        Refuse(request, call, "the test interface has no function " + std::to_string(call.Code()));
        return;
    }
    std::uint32_t delayMs = m_delayMs;
    if (rule->behaviour == Behaviour::Delay)
        delayMs += Milliseconds(ParameterOf(call, rule->parameter));
    if (delayMs == 0) {
        m_AnswerOrRefuse(request, call, *rule);
        return;
    }
    // Actions are copied, so the message is held through a shared handle.
    const std::shared_ptr<sd_bus_message> held(sd_bus_message_ref(request), sd_bus_message_unref);
    m_timers.After(delayMs, [this, held, call, rule] { m_AnswerOrRefuse(held.get(), call, *rule); });
}

void TCResponder::Refuse(sd_bus_message* request, const Call& call, const std::string& reason) {
    Complain("refused a call of " + call.sender + ": " + reason);
    if (!call.noReply)
        SendError(request, refusalErrorName, reason);
}

void TCResponder::m_AnswerOrRefuse(sd_bus_message* request, const Call& call, const Rule& rule) {
    try {
        m_Answer(request, call, rule);
    } catch (const Refusal& refusal) {
        Refuse(request, call, refusal.what());
    }
}

void TCResponder::m_Answer(sd_bus_message* request, const Call& call, const Rule& rule) {
    const Parameter parameter = ParameterOf(call, rule.parameter);
    if (rule.behaviour == Behaviour::Exit) {
        Check(sd_event_exit(m_event, parameter.Number()), "exit");
        return;
    }
    std::vector<std::uint8_t> answer;
    Parameter echoed = parameter;
    if (DoesSessionCall(call, rule.behaviour, !rule.parameter.empty())) {
        answer = m_sessions.Answer(call);
        echoed = Parameter{answer.data(), answer.size()};
    }
    if (!call.noReply)
        if (MessageHandle reply = MakeReply(request, rule.behaviour, echoed, call.takenUpMs))
            SendReply(std::move(reply));
    if (rule.behaviour == Behaviour::DropName)
        m_names.DropFor(call.destination, Milliseconds(parameter));
}

} // namespace MavixSim
