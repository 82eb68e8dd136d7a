#include "Faults.h"

#include "Event.h"
#include "Roles.h"

namespace MavixSim {

namespace {

constexpr std::int64_t longest = 3600000;
constexpr std::int64_t largestNumber = 0x7fffffff;

FaultParameter Milliseconds(std::int64_t number) {
    return {"milliseconds", 0, longest, number};
}

FaultParameter Variant(std::int64_t most, std::int64_t number) {
    return {"variant", 0, most, number};
}

// In a step it is the name that was called.
FaultParameter BusName() {
    FaultParameter parameter{"busName"};
    parameter.text = "com.norvale.MavixAPI";
    parameter.places = inAction;
    for (const Role& role : Roles())
        for (const std::string& name : role.busNames)
            parameter.choices.push_back(name);
    return parameter;
}

// In a step it is the process that was called.
FaultParameter Process() {
    return {"process", 0, 0, 0, "daemon", {"daemon", "lite"}, inAction};
}

FaultParameter StartingProcess() {
    return {"process", 0, 0, 0, "both", {"both", "daemon", "lite"}};
}

} // namespace

const std::vector<FaultRow>& FaultTable() {
    static const std::vector<FaultRow> rows{
        {"no-reply", Fault::NoReply, inStep, {}},
        {"late-reply", Fault::LateReply, inStep, {Milliseconds(1000)}},
        {"error-reply",
         Fault::ErrorReply,
         inStep,
         {{"name", 0, 0, 0, "com.norvale.Error.Refused"}, {"text", 0, 0, 0, "Refused on request."}}},
        {"broken-reply-byte", Fault::BrokenReplyByte, inStep, {Variant(1, 0)}},
        {"wrong-types", Fault::WrongTypes, inStep, {Variant(10, 4)}},
        {"truncated-aux", Fault::TruncatedAux, inStep, {Variant(7, 4)}},
        {"huge-reply", Fault::HugeReply, inStep, {{"bytes", 0, 25165824, 25165824}}},
        {"drop-name", Fault::DropName, inStep | inAction, {Milliseconds(1000), BusName()}},
        {"restart", Fault::Restart, inStep | inAction, {Milliseconds(0), Process()}},
        {"crash-in-call", Fault::CrashInCall, inStep, {Milliseconds(0), {"exitCode", 0, 255, 1}}},
        {"hang", Fault::Hang, inStep | inAction, {Milliseconds(0), Process()}},
        {"disconnect", Fault::Disconnect, inStep | inAction, {Milliseconds(0), Process()}},
        {"owner-flap",
         Fault::OwnerFlap,
         inStep | inAction,
         {Milliseconds(10), {"times", 1, 10000, 3}, BusName()}},
        {"refuse-session",
         Fault::RefuseSession,
         inStep | forSession,
         {{"result", -largestNumber - 1, largestNumber, -1}}},
        {"flood-events",
         Fault::FloodEvents,
         inEvent,
         {{"count", 1, 10000000, 10000}, {"size", 4, 16777216, 4}}},
        {"malformed-event",
         Fault::MalformedEvent,
         inEvent,
         {{"kind", 0, 0, 0, "no-payload", RawEventKinds()}, {"id", 0, 0, 0, ""}}},
        {"duplicate-event", Fault::DuplicateEvent, inEvent, {{"times", 2, 10000, 2}}},
        {"reorder",
         Fault::Reorder,
         inStep | inEvent,
         {{"milliseconds", 0, longest, 1000, nullptr, {}, inStep},
          {"count", 2, 10000, 2, nullptr, {}, inEvent}}},
        {"slow-start", Fault::SlowStart, inStart, {Milliseconds(1000), StartingProcess()}},
        {"never-start", Fault::NeverStart, inStart, {StartingProcess()}},
    };
    return rows;
}

const FaultRow* FindFault(const std::string& name) {
    for (const FaultRow& row : FaultTable())
        if (name == row.name)
            return &row;
    return nullptr;
}

} // namespace MavixSim
