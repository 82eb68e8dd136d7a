#include "ScenarioReader.h"

#include "Roles.h"
#include "Values.h"

#include <algorithm>
#include <cstring>
#include <set>

namespace MavixSim {

namespace {

using Node = TCJsonTree::Node;
using Kind = TCJsonTree::Kind;

constexpr std::int64_t longestMs = 3600000;
constexpr std::int64_t largestCount = 0xffffffff;
constexpr std::int64_t largestSize = 0x7fffffff;
// A bus disconnects who sends a message of more than 32 MiB.
constexpr std::size_t largestPayload = std::size_t{24} * 1024 * 1024;

// A rule is one step or has a sequence of them.
struct RuleDraft {
    Rule rule;
    Step step;
};

struct Range {
    std::optional<std::int64_t> exactly;
    std::optional<std::int64_t> atLeast;
    std::optional<std::int64_t> atMost;
};

struct ExpectationDraft {
    Expectation expectation;
    Range range;
};

struct ActionDraft {
    Action action;
    const Role* called = nullptr; // the process whose call it follows; null in the timeline
};

class TCReader;

// Owner: a static table.
template <class Target>
struct Member {
    const char* name;
    bool required;
    void (TCReader::*read)(const Node&, Target&);
};

template <class Target>
struct ObjectTable {
    const char* name; // as the schema has it
    std::vector<Member<Target>> members;
};

Bytes NumberBytes(std::int32_t value) {
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

// Of an interface, or an error.
bool IsName(const std::string& text) {
    return text.find('\0') == std::string::npos && sd_bus_interface_name_is_valid(text.c_str()) > 0;
}

std::string Quoted(const std::string& text) {
    return "'" + text + "'";
}

class TCReader final {
public:
    explicit TCReader(const TCJsonTree& tree) : m_tree(tree) {}

    Scenario Read() {
        const Node& root = m_tree.Root();
        m_Expect(root, Kind::Object);
        // Said first: whatever else is unknown is then no mistake.
        if (const Node* format = root.Find("format")) {
            m_Expect(*format, Kind::Integer);
            if (format->integer > scenarioFormat)
                m_tree.Fail(*format, "format version " + std::to_string(format->integer) + " is newer than " +
                                         std::to_string(scenarioFormat) +
                                         ", the newest one that is known here");
        }
        Scenario scenario;
        m_ReadObject(root, ScenarioTable(), scenario);
        m_ReadFault(root.Find("start"), inStart, scenario.start);
        return scenario;
    }

    static const ObjectTable<Scenario>& ScenarioTable() {
        static const ObjectTable<Scenario> table{"scenario",
                                                 {{"$schema", false, &TCReader::m_ReadRemark},
                                                  {"format", true, &TCReader::m_ReadFormat},
                                                  {"comment", false, &TCReader::m_ReadRemark},
                                                  {"seed", false, &TCReader::m_ReadSeed},
                                                  {"start", false, &TCReader::m_ReadStart},
                                                  {"interfaces", false, &TCReader::m_ReadInterfaces},
                                                  {"timeline", false, &TCReader::m_ReadTimeline},
                                                  {"expect", false, &TCReader::m_ReadExpect}}};
        return table;
    }
    static const ObjectTable<FaultUse>& StartTable() {
        static const ObjectTable<FaultUse> table{"start",
                                                 {{"comment", false, &TCReader::m_ReadRemark},
                                                  {"fault", true, &TCReader::m_ReadLater},
                                                  {"with", false, &TCReader::m_ReadLater}}};
        return table;
    }
    static const ObjectTable<Step>& StepTable() {
        static const ObjectTable<Step> table{"step",
                                             {{"comment", false, &TCReader::m_ReadRemark},
                                              {"fault", false, &TCReader::m_ReadLater},
                                              {"with", false, &TCReader::m_ReadLater},
                                              {"reply", false, &TCReader::m_ReadReply},
                                              {"delay", false, &TCReader::m_ReadDelay},
                                              {"spread", false, &TCReader::m_ReadSpread},
                                              {"times", false, &TCReader::m_ReadTimes},
                                              {"then", false, &TCReader::m_ReadThen}}};
        return table;
    }
    static const ObjectTable<RuleDraft>& RuleTable() {
        static const ObjectTable<RuleDraft> table = [] {
            ObjectTable<RuleDraft> made{"rule",
                                        {{"code", true, &TCReader::m_ReadCode},
                                         {"when", false, &TCReader::m_ReadWhen},
                                         {"sequence", false, &TCReader::m_ReadSequence}}};
            for (const Member<Step>& member : StepTable().members) {
                const auto is = [&member](const char* name) { return std::strcmp(member.name, name) == 0; };
                if (!is("times"))
                    made.members.push_back({member.name, member.required,
                                            is("comment") ? &TCReader::m_ReadRemark<RuleDraft>
                                                          : &TCReader::m_ReadLater<RuleDraft>});
            }
            return made;
        }();
        return table;
    }
    static const ObjectTable<Condition>& ConditionTable() {
        static const ObjectTable<Condition> table{"condition",
                                                  {{"comment", false, &TCReader::m_ReadRemark},
                                                   {"equals", false, &TCReader::m_ReadEquals},
                                                   {"prefix", false, &TCReader::m_ReadPrefix},
                                                   {"mask", false, &TCReader::m_ReadMask},
                                                   {"value", false, &TCReader::m_ReadMaskedValue},
                                                   {"minSize", false, &TCReader::m_ReadLeastSize},
                                                   {"maxSize", false, &TCReader::m_ReadLargestSize}}};
        return table;
    }
    static const ObjectTable<ActionDraft>& ActionTable() {
        static const ObjectTable<ActionDraft> table{"action",
                                                    {{"comment", false, &TCReader::m_ReadRemark},
                                                     {"after", false, &TCReader::m_ReadAfter},
                                                     {"every", false, &TCReader::m_ReadEvery},
                                                     {"count", false, &TCReader::m_ReadCount},
                                                     {"event", false, &TCReader::m_ReadEvent},
                                                     {"fault", false, &TCReader::m_ReadLater},
                                                     {"with", false, &TCReader::m_ReadLater}}};
        return table;
    }
    static const ObjectTable<ActionDraft>& EventTable() {
        static const ObjectTable<ActionDraft> table{"event",
                                                    {{"comment", false, &TCReader::m_ReadRemark},
                                                     {"type", true, &TCReader::m_ReadType},
                                                     {"id", true, &TCReader::m_ReadId},
                                                     {"handle", false, &TCReader::m_ReadHandle},
                                                     {"payload", false, &TCReader::m_ReadPayload},
                                                     {"to", false, &TCReader::m_ReadTo}}};
        return table;
    }
    static const ObjectTable<Scenario>& ExpectTable() {
        static const ObjectTable<Scenario> table{"expect",
                                                 {{"comment", false, &TCReader::m_ReadRemark},
                                                  {"calls", false, &TCReader::m_ReadCalls},
                                                  {"order", false, &TCReader::m_ReadLater},
                                                  {"nothingElse", false, &TCReader::m_ReadNothingElse}}};
        return table;
    }
    static const ObjectTable<ExpectationDraft>& CallTable() {
        static const ObjectTable<ExpectationDraft> table{"expectedCall",
                                                         {{"comment", false, &TCReader::m_ReadRemark},
                                                          {"name", true, &TCReader::m_ReadName},
                                                          {"interface", true, &TCReader::m_ReadInterface},
                                                          {"code", true, &TCReader::m_ReadExpectedCode},
                                                          {"when", false, &TCReader::m_ReadExpectedWhen},
                                                          {"exactly", false, &TCReader::m_ReadExactly},
                                                          {"atLeast", false, &TCReader::m_ReadAtLeast},
                                                          {"atMost", false, &TCReader::m_ReadAtMost}}};
        return table;
    }

private:
    void m_Expect(const Node& node, Kind kind) const {
        if (node.kind != kind)
            m_tree.Fail(node, std::string("expected ") + NameOf(kind) + ", found " + NameOf(node.kind));
    }

    template <class Target>
    void m_ReadObject(const Node& node, const ObjectTable<Target>& table, Target& target) {
        m_Expect(node, Kind::Object);
        for (const auto& child : node.children) {
            const auto known = std::find_if(table.members.begin(), table.members.end(),
                                            [&](const auto& member) { return child->name == member.name; });
            if (known == table.members.end())
                m_tree.FailAtName(*child, "unknown member " + Quoted(child->name));
            (this->*known->read)(*child, target);
        }
        for (const Member<Target>& member : table.members)
            if (member.required && node.Find(member.name) == nullptr)
                m_tree.Fail(node, "missing member " + Quoted(member.name));
    }

    std::int64_t m_Integer(const Node& node, std::int64_t least, std::int64_t most) const {
        if (node.kind != Kind::Integer || node.integer < least || node.integer > most)
            m_tree.Fail(node,
                        "expected a whole number from " + std::to_string(least) + " to " +
                            std::to_string(most) + ", found " +
                            (node.kind == Kind::Integer ? std::to_string(node.integer) : NameOf(node.kind)));
        return node.integer;
    }

    std::uint32_t m_Milliseconds(const Node& node) const {
        return static_cast<std::uint32_t>(m_Integer(node, 0, longestMs));
    }

    const std::string& m_Text(const Node& node) const {
        m_Expect(node, Kind::Text);
        return node.text;
    }

    const std::string& m_Choice(const Node& node, const std::vector<std::string>& choices) const {
        const std::string& text = m_Text(node);
        if (std::find(choices.begin(), choices.end(), text) != choices.end())
            return text;
        std::string all;
        for (const std::string& choice : choices)
            all += (all.empty() ? "" : ", ") + Quoted(choice);
        m_tree.Fail(node, "expected one of " + all + ", found " + Quoted(text));
    }

    Bytes m_Values(const Node& node) const {
        m_Expect(node, Kind::Array);
        Bytes bytes;
        for (const auto& child : node.children) {
            try {
                AppendValue(bytes, m_Text(*child));
            } catch (const std::invalid_argument& error) {
                m_tree.Fail(*child, error.what());
            }
            if (bytes.size() > largestPayload)
                m_tree.Fail(*child, "more than " + std::to_string(largestPayload) + " bytes altogether");
        }
        return bytes;
    }

    std::optional<std::int16_t> m_CodeOrAny(const Node& node) const {
        if (node.kind == Kind::Text && node.text == "*")
            return std::nullopt;
        if (node.kind == Kind::Text)
            m_tree.Fail(node, "expected a function code or '*', found " + Quoted(node.text));
        return static_cast<std::int16_t>(m_Integer(node, INT16_MIN, INT16_MAX));
    }

    // Also of a member's name.
    bool m_IsInterface(const std::string& text) const { return text == "*" || IsName(text); }

    // Without effect: remarks, and what is read when its whole object has been.
    template <class Target>
    void m_ReadLater(const Node&, Target&) {}

    template <class Target>
    void m_ReadRemark(const Node& node, Target&) {
        m_Text(node);
    }

    // The members `fault` and `with` of an object, which may be null.
    void m_ReadFault(const Node* object, unsigned place, FaultUse& use) {
        if (object == nullptr)
            return;
        const Node* fault = object->Find("fault");
        const Node* with = object->Find("with");
        if (fault == nullptr) {
            if (with != nullptr)
                m_tree.FailAtName(*with, "'with' is for a 'fault'");
            return;
        }
        std::vector<std::string> names;
        for (const FaultRow& row : FaultTable())
            if ((row.places & place) != 0)
                names.emplace_back(row.name);
        use.row = FindFault(m_Choice(*fault, names));
        m_ReadParameters(with, place, use);
    }

    void m_ReadParameters(const Node* with, unsigned place, FaultUse& use) {
        if (with != nullptr) {
            m_Expect(*with, Kind::Object);
            for (const auto& child : with->children) {
                const auto& known = use.row->parameters;
                if (std::none_of(known.begin(), known.end(), [&](const FaultParameter& parameter) {
                        return child->name == parameter.name && (parameter.places & place) != 0;
                    }))
                    m_tree.FailAtName(*child, Quoted(use.row->name) + " has no parameter " +
                                                  Quoted(child->name) + " here");
            }
        }
        for (const FaultParameter& parameter : use.row->parameters)
            m_ReadParameter(with == nullptr ? nullptr : with->Find(parameter.name), parameter, use);
    }

    void m_ReadParameter(const Node* given, const FaultParameter& parameter, FaultUse& use) {
        if (!parameter.IsText()) {
            use.numbers[parameter.name] =
                given == nullptr ? parameter.number : m_Integer(*given, parameter.least, parameter.most);
            return;
        }
        std::string& text = use.texts[parameter.name];
        if (given == nullptr)
            text = parameter.text;
        else
            text = parameter.choices.empty() ? m_Text(*given) : m_Choice(*given, parameter.choices);
        if (given != nullptr && text.find('\0') != std::string::npos)
            m_tree.Fail(*given, "a text on the bus has no zero character");
        if (given != nullptr && use.Is(Fault::ErrorReply) && std::strcmp(parameter.name, "name") == 0 &&
            !IsName(text))
            m_tree.Fail(*given, "expected the name of a D-Bus error, found " + Quoted(text));
    }

    void m_ReadFormat(const Node& node, Scenario&) { m_Integer(node, scenarioFormat, scenarioFormat); }
    void m_ReadSeed(const Node& node, Scenario& scenario) {
        scenario.seed = static_cast<std::uint64_t>(m_Integer(node, 0, INT64_MAX));
    }
    void m_ReadStart(const Node& node, Scenario& scenario) {
        m_ReadObject(node, StartTable(), scenario.start);
    }

    void m_ReadInterfaces(const Node& node, Scenario& scenario) {
        m_Expect(node, Kind::Object);
        std::vector<Rule> general;
        for (const auto& child : node.children) {
            if (!m_IsInterface(child->name))
                m_tree.FailAtName(*child,
                                  "expected the name of an interface or '*', found " + Quoted(child->name));
            m_Expect(*child, Kind::Array);
            for (const auto& rule : child->children)
                (child->name == "*" ? general : scenario.rules).push_back(m_ReadRule(*rule, child->name));
        }
        scenario.rules.insert(scenario.rules.end(), general.begin(), general.end());
    }

    Rule m_ReadRule(const Node& node, const std::string& interface) {
        RuleDraft draft;
        draft.rule.calls.interface = interface;
        m_called = FindRole(interface == sessionInterface ? "lite" : "daemon");
        m_ReadObject(node, RuleTable(), draft);
        const Node* sequence = node.Find("sequence");
        const std::set<std::string> ofRule{"code", "when", "comment", "sequence"};
        for (const auto& child : node.children)
            if (ofRule.count(child->name) == 0) {
                if (sequence != nullptr)
                    m_tree.FailAtName(*child, Quoted(child->name) + " cannot stand beside 'sequence'");
                m_ReadStepMember(*child, draft.step);
            }
        if (sequence == nullptr) {
            m_FinishStep(node, draft.step);
            draft.rule.steps.push_back(std::move(draft.step));
        }
        m_CheckSessionFaults(node, draft.rule);
        return std::move(draft.rule);
    }

    void m_CheckSessionFaults(const Node& node, const Rule& rule) {
        const Node* sequence = node.Find("sequence");
        for (std::size_t at = 0; at < rule.steps.size(); ++at) {
            const FaultRow* row = rule.steps[at].fault.row;
            const Node& step = sequence == nullptr ? node : *sequence->children[at];
            if (row != nullptr && (row->places & forSession) != 0 && rule.calls.interface != sessionInterface)
                m_tree.Fail(*step.Find("fault"), Quoted(row->name) + " is for the interface " +
                                                     Quoted(sessionInterface) + " alone");
        }
    }

    void m_ReadStepMember(const Node& node, Step& step) {
        for (const Member<Step>& member : StepTable().members)
            if (node.name == member.name)
                (this->*member.read)(node, step);
    }

    void m_ReadCode(const Node& node, RuleDraft& draft) { draft.rule.calls.code = m_CodeOrAny(node); }
    void m_ReadWhen(const Node& node, RuleDraft& draft) { m_ReadCondition(node, draft.rule.calls.condition); }
    void m_ReadSequence(const Node& node, RuleDraft& draft) {
        m_Expect(node, Kind::Array);
        if (node.children.empty())
            m_tree.Fail(node, "a sequence has at least one step");
        for (const auto& child : node.children) {
            Step& step = draft.rule.steps.emplace_back();
            m_ReadObject(*child, StepTable(), step);
            m_FinishStep(*child, step);
        }
    }

    void m_ReadReply(const Node& node, Step& step) { step.reply = m_Values(node); }
    void m_ReadDelay(const Node& node, Step& step) { step.delayMs = m_Milliseconds(node); }
    void m_ReadSpread(const Node& node, Step& step) { step.spreadMs = m_Milliseconds(node); }
    void m_ReadTimes(const Node& node, Step& step) {
        step.times = static_cast<std::uint32_t>(m_Integer(node, 1, largestCount));
    }
    void m_ReadThen(const Node& node, Step& step) { step.then = m_Actions(node, m_called); }
    void m_ReadTimeline(const Node& node, Scenario& scenario) {
        scenario.timeline = m_Actions(node, nullptr);
    }

    void m_FinishStep(const Node& node, Step& step) {
        m_ReadFault(&node, inStep, step.fault);
        if (!step.fault)
            return;
        m_Behave(step);
        const Node* reply = node.Find("reply");
        const bool answers = step.behaviour == Behaviour::Echo || step.behaviour == Behaviour::Aux ||
                             step.behaviour == Behaviour::WrongTypes;
        if (reply != nullptr && (!answers || step.fault.Is(Fault::RefuseSession)))
            m_tree.FailAtName(*reply, "'reply' has no effect with " + Quoted(step.fault.row->name));
        if (step.fault.Is(Fault::RefuseSession))
            step.reply = NumberBytes(step.fault.Number("result"));
    }

    // Turns a fault into the behaviour that it names.
    void m_Behave(Step& step) const {
        const FaultUse& fault = step.fault;
        const auto variant = [&fault] { return Bytes{static_cast<std::uint8_t>(fault.Number("variant"))}; };
        switch (fault.row->fault) {
        case Fault::NoReply:
        case Fault::Disconnect:
            step.behaviour = Behaviour::Never;
            break;
        case Fault::LateReply:
            step.delayMs += fault.Milliseconds();
            break;
        case Fault::ErrorReply: {
            const std::string text = fault.texts.at("name") + "\n" + fault.texts.at("text");
            step.behaviour = Behaviour::Error;
            step.parameter.assign(text.begin(), text.end());
            break;
        }
        case Fault::BrokenReplyByte:
            step.behaviour = Behaviour::BrokenByte;
            step.parameter = variant();
            break;
        case Fault::WrongTypes:
            step.behaviour = Behaviour::WrongTypes;
            step.parameter = variant();
            break;
        case Fault::TruncatedAux:
            step.behaviour = Behaviour::Aux;
            step.parameter = variant();
            break;
        case Fault::HugeReply:
            step.behaviour = Behaviour::BigReply;
            step.parameter = NumberBytes(fault.Number("bytes"));
            break;
        case Fault::CrashInCall:
            step.behaviour = Behaviour::Exit;
            step.parameter = NumberBytes(fault.Number("exitCode"));
            break;
        default:
            break;
        }
    }

    void m_ReadCondition(const Node& node, Condition& condition) {
        m_ReadObject(node, ConditionTable(), condition);
        if (condition.mask.size() != condition.value.size())
            m_tree.Fail(node, "'mask' and 'value' have to be of the same size, found " +
                                  std::to_string(condition.mask.size()) + " and " +
                                  std::to_string(condition.value.size()) + " bytes");
        if (condition.leastSize > condition.largestSize)
            m_tree.Fail(node, "'minSize' is larger than 'maxSize'");
    }
    void m_ReadEquals(const Node& node, Condition& condition) { condition.equals = m_Values(node); }
    void m_ReadPrefix(const Node& node, Condition& condition) { condition.prefix = m_Values(node); }
    void m_ReadMask(const Node& node, Condition& condition) { condition.mask = m_Values(node); }
    void m_ReadMaskedValue(const Node& node, Condition& condition) { condition.value = m_Values(node); }
    void m_ReadLeastSize(const Node& node, Condition& condition) {
        condition.leastSize = static_cast<std::size_t>(m_Integer(node, 0, largestSize));
    }
    void m_ReadLargestSize(const Node& node, Condition& condition) {
        condition.largestSize = static_cast<std::size_t>(m_Integer(node, 0, largestSize));
    }

    std::vector<Action> m_Actions(const Node& node, const Role* called) {
        m_Expect(node, Kind::Array);
        std::vector<Action> actions;
        for (const auto& child : node.children) {
            ActionDraft draft;
            draft.called = called;
            m_ReadObject(*child, ActionTable(), draft);
            m_FinishAction(*child, draft.action);
            if (called != nullptr && !draft.action.event)
                m_BindToCalled(*child, *called, draft.action.fault);
            actions.push_back(std::move(draft.action));
        }
        return actions;
    }
    // After a call it is the called process that fails: the other one knows nothing of the call.
    void m_BindToCalled(const Node& node, const Role& called, FaultUse& use) {
        const Node* with = node.Find("with");
        for (auto& [name, text] : use.texts) {
            const Node* given = with == nullptr ? nullptr : with->Find(name);
            const std::vector<std::string> own =
                name == "process" ? std::vector<std::string>{called.option} : called.busNames;
            if (given == nullptr)
                text = own.front();
            else if (std::find(own.begin(), own.end(), text) == own.end())
                m_tree.Fail(*given, Quoted(text) + " is not of the process that was called, " +
                                        Quoted(called.option));
        }
    }
    void m_FinishAction(const Node& node, Action& action) {
        const bool hasEvent = action.event.has_value();
        if (!hasEvent && node.Find("fault") == nullptr)
            m_tree.Fail(node, "expected an 'event', a 'fault' or both");
        m_ReadFault(&node, hasEvent ? inEvent : inAction, action.fault);
        const bool repeats = node.Find("every") != nullptr;
        if (const Node* count = node.Find("count"); count != nullptr && !repeats)
            m_tree.FailAtName(*count, "'count' is for 'every'");
        if (!repeats)
            action.count = 1;
    }
    void m_ReadAfter(const Node& node, ActionDraft& draft) { draft.action.afterMs = m_Milliseconds(node); }
    void m_ReadEvery(const Node& node, ActionDraft& draft) {
        draft.action.everyMs = static_cast<std::uint32_t>(m_Integer(node, 1, longestMs));
    }
    void m_ReadCount(const Node& node, ActionDraft& draft) {
        draft.action.count = static_cast<std::uint32_t>(m_Integer(node, 1, largestCount));
    }
    void m_ReadEvent(const Node& node, ActionDraft& draft) {
        draft.action.event.emplace();
        m_ReadObject(node, EventTable(), draft);
    }
    void m_ReadType(const Node& node, ActionDraft& draft) {
        const auto last = static_cast<std::int64_t>(eventTypes.size()) - 1;
        if (node.kind != Kind::Text) {
            draft.action.event->type = &eventTypes[static_cast<std::size_t>(m_Integer(node, 0, last))];
            return;
        }
        std::vector<std::string> names;
        names.reserve(eventTypes.size());
        for (const EventType& type : eventTypes)
            names.emplace_back(type.member);
        draft.action.event->type = FindEventType(m_Choice(node, names));
    }
    void m_ReadId(const Node& node, ActionDraft& draft) {
        draft.action.event->idText = std::to_string(m_Integer(node, INT32_MIN, INT32_MAX));
    }
    void m_ReadHandle(const Node& node, ActionDraft& draft) {
        m_Expect(node, Kind::Array);
        if (node.children.size() != 2)
            m_tree.Fail(node, "expected the handle's two numbers");
        Event& event = *draft.action.event;
        event.handleHigh = static_cast<std::uint32_t>(m_Integer(*node.children[0], 0, largestCount));
        event.handleLow = static_cast<std::uint32_t>(m_Integer(*node.children[1], 0, largestCount));
    }
    void m_ReadPayload(const Node& node, ActionDraft& draft) { draft.action.event->payload = m_Values(node); }
    void m_ReadTo(const Node& node, ActionDraft& draft) {
        draft.action.toCaller = m_Choice(node, {"all", "caller"}) == "caller";
        if (draft.action.toCaller && draft.called == nullptr)
            m_tree.Fail(node, "the timeline has no caller");
    }

    void m_ReadExpect(const Node& node, Scenario& scenario) {
        m_ReadObject(node, ExpectTable(), scenario);
        if (const Node* order = node.Find("order"))
            m_ReadOrder(*order, scenario);
    }
    void m_ReadNothingElse(const Node& node, Scenario& scenario) {
        m_Expect(node, Kind::Boolean);
        scenario.nothingElse = node.boolean;
        scenario.nothingElsePlace = m_tree.PlaceOf(node);
    }
    void m_ReadOrder(const Node& node, Scenario& scenario) {
        m_Expect(node, Kind::Array);
        scenario.orderPlace = m_tree.PlaceOf(node);
        for (const auto& child : node.children) {
            const std::string& name = m_Text(*child);
            const auto& all = scenario.expectations;
            const auto found = std::find_if(all.begin(), all.end(), [&](const Expectation& expectation) {
                return expectation.name == name;
            });
            if (found == all.end())
                m_tree.Fail(*child, "no expected call has the name " + Quoted(name));
            const auto number = static_cast<std::size_t>(found - all.begin());
            if (std::find(scenario.order.begin(), scenario.order.end(), number) != scenario.order.end())
                m_tree.Fail(*child, Quoted(name) + " stands twice in the order");
            scenario.order.push_back(number);
        }
    }
    void m_ReadCalls(const Node& node, Scenario& scenario) {
        m_Expect(node, Kind::Array);
        std::set<std::string> names;
        for (const auto& child : node.children) {
            ExpectationDraft draft;
            m_ReadObject(*child, CallTable(), draft);
            if (!names.insert(draft.expectation.name).second)
                m_tree.Fail(*child->Find("name"),
                            "a second expected call of the name " + Quoted(draft.expectation.name));
            m_FinishExpectation(*child, draft);
            scenario.expectations.push_back(std::move(draft.expectation));
        }
    }
    void m_FinishExpectation(const Node& node, ExpectationDraft& draft) {
        const Range& range = draft.range;
        if (range.exactly && (range.atLeast || range.atMost))
            m_tree.FailAtName(*node.Find("exactly"), "'exactly' cannot stand beside 'atLeast' and 'atMost'");
        if (range.atLeast && range.atMost && *range.atLeast > *range.atMost)
            m_tree.Fail(node, "'atLeast' is larger than 'atMost'");
        Expectation& expectation = draft.expectation;
        expectation.place = m_tree.PlaceOf(node);
        const std::int64_t least = range.exactly.value_or(range.atLeast.value_or(range.atMost ? 0 : 1));
        expectation.atLeast = static_cast<std::uint64_t>(least);
        if (const auto most = range.exactly ? range.exactly : range.atMost)
            expectation.atMost = static_cast<std::uint64_t>(*most);
    }
    void m_ReadName(const Node& node, ExpectationDraft& draft) { draft.expectation.name = m_Text(node); }
    void m_ReadInterface(const Node& node, ExpectationDraft& draft) {
        draft.expectation.calls.interface = m_Text(node);
        if (!m_IsInterface(node.text))
            m_tree.Fail(node, "expected the name of an interface or '*', found " + Quoted(node.text));
    }
    void m_ReadExpectedCode(const Node& node, ExpectationDraft& draft) {
        draft.expectation.calls.code = m_CodeOrAny(node);
    }
    void m_ReadExpectedWhen(const Node& node, ExpectationDraft& draft) {
        m_ReadCondition(node, draft.expectation.calls.condition);
    }
    void m_ReadExactly(const Node& node, ExpectationDraft& draft) {
        draft.range.exactly = m_Integer(node, 0, largestCount);
    }
    void m_ReadAtLeast(const Node& node, ExpectationDraft& draft) {
        draft.range.atLeast = m_Integer(node, 0, largestCount);
    }
    void m_ReadAtMost(const Node& node, ExpectationDraft& draft) {
        draft.range.atMost = m_Integer(node, 0, largestCount);
    }

    const TCJsonTree& m_tree;
    const Role* m_called = nullptr; // by the calls of the rule that is read
};

template <class Target>
void AddObject(std::vector<ScenarioObject>& objects, const ObjectTable<Target>& table) {
    ScenarioObject& object = objects.emplace_back();
    object.name = table.name;
    for (const Member<Target>& member : table.members)
        object.members.push_back({member.name, member.required});
}

} // namespace

Scenario ReadScenario(const TCJsonTree& tree) {
    return TCReader(tree).Read();
}

std::vector<ScenarioObject> ScenarioObjects() {
    std::vector<ScenarioObject> objects;
    AddObject(objects, TCReader::ScenarioTable());
    AddObject(objects, TCReader::StartTable());
    AddObject(objects, TCReader::RuleTable());
    AddObject(objects, TCReader::StepTable());
    AddObject(objects, TCReader::ConditionTable());
    AddObject(objects, TCReader::ActionTable());
    AddObject(objects, TCReader::EventTable());
    AddObject(objects, TCReader::ExpectTable());
    AddObject(objects, TCReader::CallTable());
    return objects;
}

} // namespace MavixSim
