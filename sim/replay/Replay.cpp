#include "Replay.h"

#include "Complaint.h"
#include "Replies.h"
#include "scenario/Judgement.h"

#include "Body.h"

namespace MavixSim {

using MavixTraffic::RecordedEvent;
using MavixTraffic::RecordedReply;

namespace {

std::string CallText(const Call& call) {
    std::string text = "a call of " + call.interface;
    if (call.header)
        text += " " + std::to_string(call.Code());
    return text + " with " + std::to_string(call.payloadSize) + " bytes";
}

} // namespace

void TCReplay::Start() {
    if (m_replayed.progress.Done(0)++ == 0)
        m_Play(m_replayed.calls.FirstSteps(), nullptr);
}

void TCReplay::Respond(sd_bus_message* request, const Call& call, const std::string& refusal) {
    const std::optional<std::size_t> number = m_replayed.calls.Find(call, refusal);
    if (!number) {
        m_TellUnknown(request, call, refusal);
        return;
    }
    const std::uint64_t n = m_replayed.progress.Calls(*number)++;
    m_clients[m_replayed.calls.CallAt(*number, n).sender] = call.sender;
    m_Play(m_replayed.calls.StepsAt(*number, n), Request(sd_bus_message_ref(request), sd_bus_message_unref));
}

void TCReplay::m_Play(const std::vector<RecordedStep>& steps, const Request& request) {
    for (const RecordedStep& step : steps) {
        const std::uint64_t delayMs = m_replayed.isFast ? 0 : step.afterUs / 1000;
        // Those of the same time keep their order.
        if (delayMs == 0)
            m_Do(step, request);
        else
            m_timers.After(delayMs, [this, step, request] { m_Do(step, request); });
    }
}

void TCReplay::m_Do(const RecordedStep& step, const Request& request) {
    if (step.reply != nullptr)
        m_Answer(request.get(), *step.reply);
    else
        m_Emit(*step.event);
}

void TCReplay::m_Answer(sd_bus_message* request, const RecordedReply& recorded) {
    sd_bus_message* made = nullptr;
    MessageHandle reply;
    if (recorded.errorName.empty()) {
        Check(sd_bus_message_new_method_return(request, &made), "new reply");
        reply.reset(made);
    } else {
        reply = NewError(request, recorded.errorName);
    }
    MavixTraffic::AppendBody(reply.get(), recorded.signature, recorded.arguments);
    SendReply(std::move(reply));
}

void TCReplay::m_Emit(const RecordedEvent& event) {
    sd_bus_message* made = nullptr;
    Check(sd_bus_message_new_signal(m_bus, &made, event.path.c_str(), event.interface.c_str(),
                                    event.member.c_str()),
          "new signal");
    const MessageHandle signal(made);
    if (!event.destination.empty()) {
        const auto client = m_clients.find(event.destination);
        if (client == m_clients.end() && event.destination.front() == ':') {
            Complain("an event for " + event.destination +
                     " alone, which has made no call so far, is left out");
            return;
        }
        const std::string& destination = client != m_clients.end() ? client->second : event.destination;
        Check(sd_bus_message_set_destination(made, destination.c_str()), "set a destination");
    }
    MavixTraffic::AppendBody(made, event.signature, event.arguments);
    m_emitter.EmitOne(made);
}

void TCReplay::m_TellUnknown(sd_bus_message* request, const Call& call, const std::string& refusal) {
    m_replayed.progress.Count(m_replayed.calls.Counted(), call, refusal);
    const std::string text =
        "the recording does not know " + CallText(call) + (refusal.empty() ? "" : ", refused: " + refusal);
    Complain(text);
    if (!call.noReply)
        SendError(request, unknownCallErrorName, text);
}

std::string TellUnknownCalls(const TCProgress& progress) {
    std::uint64_t all = 0;
    const auto strangers = progress.Strangers(all);
    if (all == 0)
        return "";
    std::string text = "calls that the recording does not know, " + std::to_string(all) + ":";
    for (const TCProgress::Stranger* stranger : strangers)
        text += "\n" + StrangerText(*stranger);
    return all > strangers.size() ? text + "\nand more" : text;
}

} // namespace MavixSim
