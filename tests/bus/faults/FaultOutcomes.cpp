#include "FaultOutcomes.h"

#include <algorithm>

namespace MavixTest {

namespace {

using Texts = std::vector<std::string>;

const std::string answered = "succeeds with 3 bytes";
const std::string gone = "4|[API_LITE] Owner of bus name: com.norvale.MavixAPI has been removed";

// A scenario with one rule, for the function that is called.
std::string Rule(const std::string& members) {
    return R"("interfaces":{"com.norvale.ITest":[{"code":1,)" + members + "}]}";
}

std::string Always(const std::string& fault) {
    return Rule(R"("fault":")" + fault + "\"");
}

std::string Once(const std::string& fault) {
    return Rule(R"("sequence":[{"fault":")" + fault + R"("},{}])");
}

// After the answer, an event with some members more than type and id.
std::string AfterCall(const std::string& fault, const std::string& eventMembers = "") {
    return Rule(R"("then":[{"event":{"type":"Data","id":7)" + eventMembers + R"(},"fault":")" + fault +
                "\"}]");
}

FaultOutcome Row(const char* fault, const char* variant, const std::string& scenario, const Texts& calls,
                 const Texts& lines = {}, const std::string& events = "") {
    FaultOutcome row{};
    row.fault = fault;
    row.variant = variant;
    row.scenario = scenario;
    row.calls = calls;
    row.lines = lines;
    row.events = events;
    return row;
}

FaultOutcome Slow(FaultOutcome row) {
    row.isSlow = true;
    return row;
}

// The owner of the bus name changes between the calls.
FaultOutcome Changing(FaultOutcome row) {
    row.awaited = gone;
    row.lines.push_back(gone);
    return row;
}

// What mavixctl says when it does not get the answer.
FaultOutcome Refusing(FaultOutcome row, const std::string& reason) {
    row.controlAnswer = "com.norvale.ITest 1 failed: " + reason;
    row.controlStatus = 1;
    return row;
}

FaultOutcome WithoutOwner(FaultOutcome row) {
    row.controlAnswer = "com.norvale.MavixAPI has no owner: the service does not run";
    row.controlStatus = 3;
    return row;
}

FaultOutcome Answering(FaultOutcome row, const char* answer) {
    row.controlAnswer = answer;
    return row;
}

FaultOutcome Opening(FaultOutcome row) {
    row.opensSession = true;
    return row;
}

FaultOutcome Stopping(FaultOutcome row) {
    row.stopsTheProcess = true;
    return row;
}

FaultOutcome OnRelease(FaultOutcome row) {
    row.isRelease = true;
    return row;
}

std::vector<FaultOutcome> MakeTable() {
    const Texts timeout{"6|[API_LITE] send_message_with_reply failed!", "6|[API_LITE] 'Timeout was reached'",
                        "6|[API_LITE] Cannot create reply message. Out of memory."};
    const std::string function = "6|[IPC][com.norvale.MavixAPI:com.norvale.ITest:1]";
    const std::string noReply = "org.freedesktop.DBus.Error.NoReply";
    const std::string leftText = "Message recipient disconnected from message bus without replying";
    const Texts left{function, "6|[IPC][Error name: " + noReply + "]", "6|[IPC]'" + leftText + "'"};
    const std::string disconnected = noReply + ": " + leftText;
    const Texts noBytes{"6|No more params", "6|[API_LITE] Expected bytes array."};
    return {
        Refusing(Slow(Row("no-reply", "", Always("no-reply"), {"fails after 25 s"}, timeout)),
                 "Timeout was reached"),
        Row("late-reply", "", Always("late-reply"), {answered + " after 1 s"}),
        Refusing(
            Row("error-reply", "", Always("error-reply"), {"fails"},
                {function, "6|[IPC][Error name: com.norvale.Error.Refused]", "6|[IPC]'Refused on request.'"}),
            "com.norvale.Error.Refused: Refused on request."),
        Refusing(Row("broken-reply-byte", "", Always("broken-reply-byte"), {"fails"},
                     {"6|[API_LITE] Reply message is broken. Reply value: 0"}),
                 "Reply message is broken. Reply value: 0"),
        Refusing(Row("wrong-types", "", Always("wrong-types"), {"fails"},
                     {"6|Expected array!", "6|[API_LITE] Expected bytes array"}),
                 "Expected bytes array"),
        Row("truncated-aux", "", Always("truncated-aux"), {answered},
            {"6|[IpcAuxData] invalid data -> tag:4, paramLength:8, position:24, length:29"}),
        Answering(Row("huge-reply", "", Always("huge-reply"), {"succeeds with 25165824 bytes"}),
                  "25165824 bytes"),
        Changing(Row("drop-name", "", Once("drop-name"), {answered, answered + " after 1 s"})),
        Changing(Row("restart", "", Once("restart"), {answered, answered})),
        Refusing(Changing(Row("crash-in-call", "", Once("crash-in-call"), {"fails", answered}, left)),
                 disconnected),
        Refusing(Slow(Row("hang", "", Always("hang"), {"fails after 25 s"}, timeout)), "Timeout was reached"),
        Row("hang", "for a second", Rule(R"("fault":"hang","with":{"milliseconds":1000})"),
            {answered + " after 1 s"}),
        Refusing(Changing(Row("disconnect", "", Once("disconnect"), {"fails", answered}, left)),
                 disconnected),
        Changing(Row("owner-flap", "twice, half a second each",
                     Rule(R"("sequence":[{"fault":"owner-flap","with":{"times":2,"milliseconds":500}},{}])"),
                     {answered, answered, answered})),
        Answering(
            Opening(
                Row("refuse-session", "",
                    R"("interfaces":{"com.norvale.ISessionControl":[{"code":0,"fault":"refuse-session"}]})",
                    {"returns -1"}, {"6|Open Session, retCode(-1), refCount(1), m_sessionState(undefined)"})),
            "4 bytes"),
        Row("flood-events", "", AfterCall("flood-events"), {answered}, {}, "0 to 9999"),
        Stopping(Row("malformed-event", "", AfterCall("malformed-event"), {answered}, noBytes)),
        OnRelease(Row("malformed-event", "on a release build", AfterCall("malformed-event"), {answered},
                      noBytes, "empty")),
        Row("duplicate-event", "", AfterCall("duplicate-event", R"(,"payload":["i:5"])"), {answered}, {},
            "5 5"),
        Row("reorder", "", AfterCall("reorder"), {answered}, {}, "1 0"),
        Row("reorder", "of an answer that no other one follows", Always("reorder"),
            {answered + " after 1 s"}),
        WithoutOwner(Row("slow-start", "", R"("start":{"fault":"slow-start"})", {answered + " after 1 s"})),
        WithoutOwner(
            Slow(Row("never-start", "", R"("start":{"fault":"never-start"})", {"fails after 25 s"},
                     {"6|[API_LITE][END] TIMEOUT, Cannot connect to the com.norvale.MavixAPI bus name",
                      "6|[API_LITE] Bus not owned", "6|[API_LITE] m_PrepareCall failed."}))),
    };
}

} // namespace

const std::vector<FaultOutcome>& FaultOutcomes() {
    static const std::vector<FaultOutcome> table = MakeTable();
    return table;
}

std::vector<std::size_t> FaultRows(bool slow) {
    std::vector<std::size_t> rows;
    for (std::size_t at = 0; at < FaultOutcomes().size(); ++at) {
        if (FaultOutcomes()[at].isSlow == slow) {
            rows.push_back(at);
        }
    }
    return rows;
}

std::string FaultRowName(std::size_t number) {
    const FaultOutcome& row = FaultOutcomes()[number];
    std::string name = std::string(row.fault) + (*row.variant == '\0' ? "" : " ") + row.variant;
    name.erase(std::remove(name.begin(), name.end(), ','), name.end());
    std::replace_if(
        name.begin(), name.end(), [](char letter) { return letter == '-' || letter == ' '; }, '_');
    return name;
}

} // namespace MavixTest
