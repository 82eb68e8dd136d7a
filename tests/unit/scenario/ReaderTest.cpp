#include "SchemaValidator.h"

#include "Roles.h"
#include "scenario/ScenarioReader.h"
#include "scenario/Values.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <set>

using namespace MavixSim;
using MavixTest::TCSchemaValidator;
using nlohmann::json;
using testing::ElementsAre;

namespace {

Scenario Read(const std::string& text) {
    return ReadScenario(TCJsonTree::Parse("file", text));
}

// The complaint about a scenario, or nothing.
std::string Complaint(const std::string& text) {
    try {
        Read(text);
        return "";
    } catch (const JsonFault& fault) {
        return fault.what();
    }
}

std::string FileText(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

const TCSchemaValidator& Schema() {
    static const TCSchemaValidator schema(json::parse(FileText(MAVIX_TEST_SCHEMA)));
    return schema;
}

// With one rule, or one action of the timeline, or what is expected.
std::string WithRule(const std::string& rule) {
    return R"({"format":1,"interfaces":{"com.norvale.ITest":[)" + rule + "]}}";
}
std::string WithAction(const std::string& action) {
    return R"({"format":1,"timeline":[)" + action + "]}";
}
std::string WithExpectation(const std::string& expect) {
    return R"({"format":1,"expect":)" + expect + "}";
}

constexpr const char* inRule = R"($.interfaces["com.norvale.ITest"][0])";

struct BadRow {
    std::string text;
    std::string complaint;
    // What no schema can say: doubled members, names that refer to others, ranges of texts.
    bool beyondSchema = false;
};

std::vector<BadRow> BadRows() {
    const std::string rule = inRule;
    return {
        {"",
         "file:1:1: $: syntax error while parsing value - unexpected end of input; expected '[', '{', or a "
         "literal",
         true},
        {"{\"format\":1,\n \"seed\" 3}",
         "file:2:9: $: syntax error while parsing object separator - unexpected number literal; expected ':'",
         true},
        {"{\"format\":1",
         "file:1:12: $: syntax error while parsing object - unexpected end of input; expected '}'", true},
        {"{\"format\":1} x",
         "file:1:14: $: syntax error while parsing value - invalid literal; last read: '1} x'; "
         "expected end of input",
         true},
        {"[]", "file:1:1: $: expected an object, found an array"},
        {"{}", "file:1:1: $: missing member 'format'"},
        {R"({"format":"1"})", "file:1:11: $.format: expected a whole number, found a text"},
        {R"({"format":2,"new":[]})",
         "file:1:11: $.format: format version 2 is newer than 1, the newest one that is known here"},
        {R"({"format":0})", "file:1:11: $.format: expected a whole number from 1 to 1, found 0"},
        {R"({"format":1.5})", "file:1:11: $.format: expected a whole number, found a number"},
        {R"({"format":1,"seed":1,"seed":2})", "file:1:22: $: duplicate member 'seed'", true},
        {"{\n  \"format\": 1,\n  \"colour\": 3\n}", "file:3:3: $: unknown member 'colour'"},
        {R"({"format":1,"comment":7})", "file:1:23: $.comment: expected a text, found a whole number"},
        {R"({"format":1,"seed":-1})",
         "file:1:20: $.seed: expected a whole number from 0 to 9223372036854775807, found -1"},
        {R"({"format":1,"seed":18446744073709551615})",
         "file:1:20: $.seed: expected a whole number from 0 to 9223372036854775807, found a number"},
        {R"({"format":1,"interfaces":[]})", "file:1:26: $.interfaces: expected an object, found an array"},
        {R"({"format":1,"interfaces":{"nodots":[]}})",
         "file:1:27: $.interfaces: expected the name of an interface or '*', found 'nodots'"},
        {R"({"format":1,"interfaces":{"com.norvale.ITest":{}}})",
         R"(file:1:47: $.interfaces["com.norvale.ITest"]: expected an array, found an object)"},
        {R"({"format":1,"start":{"fault":"hang"}})",
         "file:1:30: $.start.fault: expected one of 'slow-start', 'never-start', found 'hang'"},
        {R"({"format":1,"start":{}})", "file:1:21: $.start: missing member 'fault'"},
        {R"({"format":1,"start":{"fault":"never-start","with":{"milliseconds":1}}})",
         "file:1:52: $.start.with: 'never-start' has no parameter 'milliseconds' here"},
        {WithRule("{}"), "file:1:48: " + rule + ": missing member 'code'"},
        {WithRule("7"), "file:1:48: " + rule + ": expected an object, found a whole number"},
        {WithRule(R"({"code":32768})"),
         "file:1:56: " + rule + ".code: expected a whole number from -32768 to 32767, found 32768"},
        {WithRule(R"({"code":"all"})"),
         "file:1:56: " + rule + ".code: expected a function code or '*', found 'all'"},
        {WithRule(R"({"code":1,"reply":"i:1"})"),
         "file:1:66: " + rule + ".reply: expected an array, found a text"},
        {WithRule(R"({"code":1,"reply":["i:1",2]})"),
         "file:1:73: " + rule + ".reply[1]: expected a text, found a whole number"},
        {WithRule(R"({"code":1,"reply":["1"]})"),
         "file:1:67: " + rule +
             ".reply[0]: expected a value that begins with c:, s:, i:, l:, str:, strz: or hex:, found '1'"},
        {WithRule(R"({"code":1,"reply":["c:256"]})"),
         "file:1:67: " + rule + ".reply[0]: expected a whole number from -128 to 255, found '256'", true},
        {WithRule(R"({"code":1,"reply":["i: 1"]})"),
         "file:1:67: " + rule +
             ".reply[0]: expected a whole number from -2147483648 to 4294967295, found ' 1'"},
        {WithRule(R"({"code":1,"reply":["s:"]})"),
         "file:1:67: " + rule + ".reply[0]: expected a whole number from -32768 to 65535, found ''"},
        {WithRule(R"({"code":1,"reply":["hex:abc"]})"),
         "file:1:67: " + rule + ".reply[0]: expected two hexadecimal digits a byte, found 'abc'"},
        {WithRule(R"({"code":1,"reply":["hex:0g"]})"),
         "file:1:67: " + rule + ".reply[0]: expected two hexadecimal digits a byte, found '0g'"},
        {WithRule(R"({"code":1,"delay":3600001})"),
         "file:1:66: " + rule + ".delay: expected a whole number from 0 to 3600000, found 3600001"},
        {WithRule(R"({"code":1,"delay":1e3})"),
         "file:1:66: " + rule + ".delay: expected a whole number from 0 to 3600000, found a number"},
        {WithRule(R"({"code":1,"times":2})"), "file:1:58: " + rule + ": unknown member 'times'"},
        {WithRule(R"({"code":1,"with":{}})"), "file:1:58: " + rule + ": 'with' is for a 'fault'"},
        {WithRule(R"({"code":1,"fault":"no-answer"})"),
         "file:1:66: " + rule +
             ".fault: expected one of 'no-reply', 'late-reply', 'error-reply', 'broken-reply-byte', "
             "'wrong-types', 'truncated-aux', 'huge-reply', 'drop-name', 'restart', 'crash-in-call', 'hang', "
             "'disconnect', 'owner-flap', 'refuse-session', 'reorder', found 'no-answer'"},
        {WithRule(R"({"code":1,"fault":"flood-events"})"),
         "file:1:66: " + rule +
             ".fault: expected one of 'no-reply', 'late-reply', 'error-reply', 'broken-reply-byte', "
             "'wrong-types', 'truncated-aux', 'huge-reply', 'drop-name', 'restart', 'crash-in-call', 'hang', "
             "'disconnect', 'owner-flap', 'refuse-session', 'reorder', found 'flood-events'"},
        {WithRule(R"({"code":1,"fault":"refuse-session"})"),
         "file:1:66: " + rule +
             ".fault: 'refuse-session' is for the interface 'com.norvale.ISessionControl' alone",
         true},
        {WithRule(R"({"code":1,"fault":"late-reply","with":{"milliseconds":"1"}})"),
         "file:1:102: " + rule +
             ".with.milliseconds: expected a whole number from 0 to 3600000, found a text"},
        {WithRule(R"({"code":1,"fault":"drop-name","with":{"busName":"com.norvale.MavixAPI"}})"),
         "file:1:86: " + rule + ".with: 'drop-name' has no parameter 'busName' here"},
        {WithRule(R"({"code":1,"fault":"error-reply","with":{"name":"x"}})"),
         "file:1:95: " + rule + ".with.name: expected the name of a D-Bus error, found 'x'"},
        {WithRule(R"({"code":1,"fault":"error-reply","with":{"name":"a.b\u0000"}})"),
         "file:1:95: " + rule + ".with.name: a text on the bus has no zero character"},
        {WithRule(R"({"code":1,"fault":"error-reply","with":{"text":"a\u0000b"}})"),
         "file:1:95: " + rule + ".with.text: a text on the bus has no zero character", true},
        {R"({"format":1,"interfaces":{"a.b\u0000":[]}})",
         "file:1:27: $.interfaces: expected the name of an interface or '*', found 'a.b"},
        {WithRule(R"({"code":1,"fault":"no-reply","reply":[]})"),
         "file:1:77: " + rule + ": 'reply' has no effect with 'no-reply'"},
        {WithRule(R"({"code":1,"sequence":[]})"),
         "file:1:69: " + rule + ".sequence: a sequence has at least one step"},
        {WithRule(R"({"code":1,"sequence":[{}],"reply":[]})"),
         "file:1:74: " + rule + ": 'reply' cannot stand beside 'sequence'"},
        {WithRule(R"({"code":1,"sequence":[{"times":0}]})"),
         "file:1:79: " + rule + ".sequence[0].times: expected a whole number from 1 to 4294967295, found 0"},
        {WithRule(R"({"code":1,"when":{"mask":["hex:ff"]}})"),
         "file:1:65: " + rule + ".when: 'mask' and 'value' have to be of the same size, found 1 and 0 bytes"},
        {WithRule(R"({"code":1,"when":{"minSize":3,"maxSize":2}})"),
         "file:1:65: " + rule + ".when: 'minSize' is larger than 'maxSize'", true},
        {WithRule(R"({"code":1,"when":{"payload":[]}})"),
         "file:1:66: " + rule + ".when: unknown member 'payload'"},
        {WithRule(R"({"code":1,"then":[{}]})"),
         "file:1:66: " + rule + ".then[0]: expected an 'event', a 'fault' or both"},
        {WithRule(R"({"code":1,"then":[{"fault":"hang","with":{"process":"lite"}}]})"),
         "file:1:100: " + rule +
             ".then[0].with.process: 'lite' is not of the process that was called, 'daemon'",
         true},
        {R"({"format":1,"interfaces":{"com.norvale.ISessionControl":[)"
         R"({"code":0,"then":[{"fault":"drop-name","with":{"busName":"com.norvale.MavixAPI"}}]}]}})",
         R"(file:1:115: $.interfaces["com.norvale.ISessionControl"][0].then[0].with.busName: )"
         "'com.norvale.MavixAPI' is not of the process that was called, 'lite'",
         true},
        {WithAction("{}"), "file:1:25: $.timeline[0]: expected an 'event', a 'fault' or both"},
        {WithAction(R"({"fault":"restart","count":2})"), "file:1:44: $.timeline[0]: 'count' is for 'every'"},
        {WithAction(R"({"fault":"restart","every":0})"),
         "file:1:52: $.timeline[0].every: expected a whole number from 1 to 3600000, found 0"},
        {WithAction(R"({"fault":"no-reply"})"),
         "file:1:34: $.timeline[0].fault: expected one of 'drop-name', 'restart', 'hang', 'disconnect', "
         "'owner-flap', found 'no-reply'"},
        {WithAction(R"({"fault":"reorder"})"),
         "file:1:34: $.timeline[0].fault: expected one of 'drop-name', 'restart', 'hang', 'disconnect', "
         "'owner-flap', found 'reorder'"},
        {WithAction(R"({"event":{"type":2,"id":1},"fault":"restart"})"),
         "file:1:60: $.timeline[0].fault: expected one of 'flood-events', 'malformed-event', "
         "'duplicate-event', 'reorder', found 'restart'"},
        {WithAction(R"({"event":{"id":1}})"), "file:1:34: $.timeline[0].event: missing member 'type'"},
        {WithAction(R"({"event":{"type":14,"id":1}})"),
         "file:1:42: $.timeline[0].event.type: expected a whole number from 0 to 13, found 14"},
        {WithAction(R"({"event":{"type":"Date","id":1}})"),
         "file:1:42: $.timeline[0].event.type: expected one of 'Signal', 'PipelineSignal', 'Data', "
         "'Program', 'Section', 'TextData', 'Dsm', 'CopyProtectionInfo', 'PESData', 'ExPESData', 'Ht', "
         "'ATSC3Signalling', 'ATSC3Mpd', 'ATSC3Linkage', found 'Date'"},
        {WithAction(R"({"event":{"type":2,"id":2147483648}})"),
         "file:1:49: $.timeline[0].event.id: expected a whole number from -2147483648 to 2147483647, found "
         "2147483648"},
        {WithAction(R"({"event":{"type":2,"id":1,"handle":[1]}})"),
         "file:1:60: $.timeline[0].event.handle: expected the handle's two numbers"},
        {WithAction(R"({"event":{"type":2,"id":1,"to":"caller"}})"),
         "file:1:56: $.timeline[0].event.to: the timeline has no caller", true},
        {WithAction(R"({"event":{"type":2,"id":1},"fault":"malformed-event","with":{"kind":"odd"}})"),
         "file:1:93: $.timeline[0].with.kind: expected one of 'id-only', 'int-id', 'ints-payload', "
         "'more-arguments', 'no-arguments', 'no-payload', 'other-interface', 'text-id', 'text-payload', "
         "'texts-payload', 'unknown-member', 'variant-payload', found 'odd'"},
        {WithExpectation("[]"), "file:1:22: $.expect: expected an object, found an array"},
        {WithExpectation(R"({"nothingElse":1})"),
         "file:1:37: $.expect.nothingElse: expected a truth value, found a whole number"},
        {WithExpectation(R"({"calls":[{"name":"a","interface":"x","code":1}]})"),
         "file:1:56: $.expect.calls[0].interface: expected the name of an interface or '*', found 'x'"},
        {WithExpectation(R"({"calls":[{"interface":"*","code":1}]})"),
         "file:1:32: $.expect.calls[0]: missing member 'name'"},
        {WithExpectation(R"({"calls":[{"name":"a","interface":"*","code":1,"exactly":1,"atMost":1}]})"),
         "file:1:69: $.expect.calls[0]: 'exactly' cannot stand beside 'atLeast' and 'atMost'"},
        {WithExpectation(R"({"calls":[{"name":"a","interface":"*","code":1,"atLeast":2,"atMost":1}]})"),
         "file:1:32: $.expect.calls[0]: 'atLeast' is larger than 'atMost'", true},
        {WithExpectation(
             R"({"calls":[{"name":"a","interface":"*","code":1},{"name":"a","interface":"*","code":2}]})"),
         "file:1:78: $.expect.calls[1].name: a second expected call of the name 'a'", true},
        {WithExpectation(R"({"order":["a"]})"),
         "file:1:32: $.expect.order[0]: no expected call has the name 'a'", true},
        {WithExpectation(R"({"order":["a","a"],"calls":[{"name":"a","interface":"*","code":1}]})"),
         "file:1:36: $.expect.order[1]: 'a' stands twice in the order"},
    };
}

TEST(ScenarioReader, RefusesEveryBadFileAtItsPlace) {
    for (const BadRow& row : BadRows()) {
        EXPECT_EQ(row.complaint, Complaint(row.text)) << row.text;
    }
}

TEST(ScenarioReader, RefusesWhatIsLargerThanMemoryShouldHold) {
    const std::string format = R"({"format":1,"comment":")";
    const std::string most = std::to_string(TCJsonTree::largestFile);
    const std::string full = format + std::string(TCJsonTree::largestFile - format.size() - 2, 'x') + "\"}";
    EXPECT_EQ("", Complaint(full));
    EXPECT_EQ("file:2:" + most + ": $: larger than " + most + " bytes", Complaint("\n" + full));

    std::string values = R"({"format":1,"order":[)";
    for (std::size_t at = 0; at < TCJsonTree::mostValues; ++at) {
        values += "1,";
    }
    EXPECT_EQ("file:1:2000016: $.order[999997]: more than 1000000 values", Complaint(values + "1]}"));
    const std::string half = "\"str:" + std::string(12 * 1024 * 1024 - 4, 'x') + "\"";
    EXPECT_EQ("", Complaint(WithRule(R"({"code":1,"reply":[)" + half + "," + half + "]}")));
    EXPECT_EQ("file:1:25165897: " + std::string(inRule) + ".reply[2]: more than 25165824 bytes altogether",
              Complaint(WithRule(R"({"code":1,"reply":[)" + half + "," + half + R"(,"c:1"]})")));
    EXPECT_EQ(
        "file:1:33: $[0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0][0]"
        "[0][0][0][0]: nested more than 32 levels deep",
        Complaint(std::string(100000, '[')));
}

TEST(ScenarioReader, SaysWhyAFileCannotBeRead) {
    const auto complaint = [](const char* path) -> std::string {
        try {
            TCJsonTree::Load(path);
            return "";
        } catch (const JsonFault& fault) {
            return fault.what();
        }
    };
    EXPECT_EQ("/no/such: cannot be read: No such file or directory", complaint("/no/such"));
    EXPECT_EQ("/dev: cannot be read: Is a directory", complaint("/dev"));
    EXPECT_EQ(
        "/dev/null:1:1: $: syntax error while parsing value - unexpected end of input; expected '[', '{', "
        "or a literal",
        complaint("/dev/null"));
    EXPECT_EQ("/dev/zero:1:67108865: $: larger than 67108864 bytes", complaint("/dev/zero"));
}

using Required = std::map<std::string, bool>;

Required MembersOf(const json& object) {
    Required members;
    for (const auto& [name, ignored] : object.at("properties").items()) {
        const json required = object.value("required", json::array());
        members[name] = std::find(required.begin(), required.end(), name) != required.end();
    }
    return members;
}

TEST(ScenarioReader, KnowsTheMembersOfTheSchemaAndNoOthers) {
    const json schema = json::parse(FileText(MAVIX_TEST_SCHEMA));
    std::size_t objects = 0;
    for (const ScenarioObject& object : ScenarioObjects()) {
        Required members;
        for (const ScenarioObject::Member& member : object.members) {
            members[member.name] = member.required;
        }
        EXPECT_EQ(object.name == "scenario" ? MembersOf(schema) : MembersOf(schema["$defs"][object.name]),
                  members)
            << object.name;
        ++objects;
    }
    const json& definitions = schema["$defs"];
    EXPECT_EQ(objects, 1 + std::count_if(definitions.begin(), definitions.end(),
                                         [](const json& each) { return each.contains("properties"); }));
}

json Resolved(const json& schema, const json& part) {
    return part.contains("$ref") ? schema.at(json::json_pointer(part["$ref"].get<std::string>().substr(1)))
                                 : part;
}

// What the schema says about a parameter, in the reader's terms.
void ExpectSame(const FaultParameter& parameter, const json& part) {
    if (!parameter.IsText()) {
        EXPECT_EQ(parameter.least, part.at("minimum"));
        EXPECT_EQ(parameter.most, part.at("maximum"));
        EXPECT_EQ(parameter.number, part.at("default"));
        return;
    }
    EXPECT_EQ(parameter.text, part.at("default"));
    EXPECT_EQ(json(parameter.choices), part.value("enum", json::array()));
}

TEST(ScenarioReader, KnowsTheFaultsOfTheSchemaAndNoOthers) {
    const json schema = json::parse(FileText(MAVIX_TEST_SCHEMA));
    const json& definitions = schema["$defs"];
    const struct {
        unsigned places;
        const char* object;
        const char* faults;
    } rows[] = {{inStep, "step", "stepFaults"},
                {inStep, "rule", "stepFaults"},
                {inAction | inEvent, "action", "actionFaults"},
                {inStart, "start", "startFaults"}};
    for (const auto& row : rows) {
        std::set<std::string> names;
        for (const FaultRow& fault : FaultTable()) {
            if ((fault.places & row.places) == 0) {
                continue;
            }
            SCOPED_TRACE(std::string(row.object) + " " + fault.name);
            names.insert(fault.name);
            const json& all = definitions[row.faults]["allOf"];
            const auto found = std::find_if(all.begin(), all.end(), [&](const json& each) {
                return each["if"]["properties"]["fault"].value("const", "") == fault.name;
            });
            ASSERT_NE(all.end(), found);
            const json& with = (*found)["then"]["properties"]["with"];
            std::size_t parameters = 0;
            for (const FaultParameter& parameter : fault.parameters) {
                if ((parameter.places & row.places) != 0) {
                    SCOPED_TRACE(parameter.name);
                    ExpectSame(parameter, Resolved(schema, with["properties"].at(parameter.name)));
                    ++parameters;
                }
            }
            EXPECT_EQ(parameters, with.value("properties", json::object()).size());
        }
        const json& listed = definitions[row.object]["properties"]["fault"]["enum"];
        EXPECT_EQ(names, std::set<std::string>(listed.begin(), listed.end())) << row.object;
    }
}

TEST(ScenarioReader, AndTheSchemaRefuseTheSameFiles) {
    for (const BadRow& row : BadRows()) {
        const json value = json::parse(row.text, nullptr, false);
        if (!row.beyondSchema) {
            EXPECT_FALSE(Schema().Accepts(value)) << row.text;
        }
    }
}

// A scenario with every member.
constexpr const char* fullScenario = R"({
    "$schema": "scenario.schema.json", "format": 1, "comment": "All.", "seed": 7,
    "start": {"comment": "", "fault": "slow-start", "with": {"milliseconds": 5, "process": "lite"}},
    "interfaces": {
        "*": [{"code": "*", "fault": "no-reply"}],
        "com.norvale.ITest": [
            {"code": -2, "comment": "", "delay": 3, "spread": 4, "reply": ["c:-1", "s:0x10", "i:-2", "l:3"],
             "when": {"comment": "", "equals": ["hex:61"], "prefix": [], "mask": ["hex:F0"], "value": ["hex:60"],
                      "minSize": 1, "maxSize": 2},
             "then": [{"comment": "", "after": 1, "every": 2, "count": 3,
                       "event": {"comment": "", "type": "Data", "id": -7, "handle": [1, 2],
                                 "payload": ["strz:b"], "to": "caller"},
                       "fault": "flood-events", "with": {"count": 9, "size": 8}}]},
            {"code": 4, "sequence": [{"comment": "", "times": 2, "fault": "error-reply", "with": {"text": "T"}}, {}]}
        ]
    },
    "timeline": [{"fault": "drop-name", "with": {"busName": "com.norvale.MavixAPI.Pipeline"}}],
    "expect": {"comment": "", "nothingElse": true, "order": ["b", "a"],
               "calls": [{"comment": "", "name": "a", "interface": "*", "code": "*", "atMost": 4},
                         {"name": "b", "interface": "com.norvale.ITest", "code": 1, "atLeast": 2, "atMost": 3,
                          "when": {}},
                         {"name": "c", "interface": "com.norvale.ITest", "code": 1, "exactly": 5},
                         {"name": "d", "interface": "com.norvale.ITest", "code": 1}]}
})";

TEST(ScenarioReader, ReadsEveryMember) {
    const Scenario scenario = Read(fullScenario);
    EXPECT_EQ(7U, scenario.seed);
    EXPECT_TRUE(scenario.start.Is(Fault::SlowStart));
    EXPECT_EQ(5U, scenario.start.Milliseconds());
    EXPECT_EQ("lite", scenario.start.texts.at("process"));

    ASSERT_EQ(3U, scenario.rules.size());
    const Rule& first = scenario.rules[0];
    EXPECT_EQ("com.norvale.ITest", first.calls.interface);
    EXPECT_EQ(-2, first.calls.code);
    ASSERT_EQ(1U, first.steps.size());
    EXPECT_EQ(3U, first.steps[0].delayMs);
    EXPECT_EQ(4U, first.steps[0].spreadMs);
    EXPECT_THAT(*first.steps[0].reply, ElementsAre(255, 16, 0, 254, 255, 255, 255, 3, 0, 0, 0, 0, 0, 0, 0));
    ASSERT_EQ(1U, first.steps[0].then.size());
    const Action& action = first.steps[0].then[0];
    EXPECT_EQ(1U, action.afterMs);
    EXPECT_EQ(2U, action.everyMs);
    EXPECT_EQ(3U, action.count);
    EXPECT_EQ("-7", action.event->idText);
    EXPECT_EQ("65538", HandleText(*action.event));
    EXPECT_STREQ("Data", action.event->type->member);
    EXPECT_THAT(action.event->payload, ElementsAre('b', 0));
    EXPECT_TRUE(action.toCaller);
    EXPECT_TRUE(action.fault.Is(Fault::FloodEvents));
    EXPECT_EQ(8, action.fault.Number("size"));

    const Rule& second = scenario.rules[1];
    ASSERT_EQ(2U, second.steps.size());
    EXPECT_EQ(2U, second.steps[0].times);
    EXPECT_EQ(Behaviour::Error, second.steps[0].behaviour);
    EXPECT_EQ("com.norvale.Error.Refused\nT",
              std::string(second.steps[0].parameter.begin(), second.steps[0].parameter.end()));
    EXPECT_FALSE(second.steps[1].reply);
    EXPECT_EQ("*", scenario.rules[2].calls.interface) << "general rules come last";
    EXPECT_FALSE(scenario.rules[2].calls.code);

    ASSERT_EQ(1U, scenario.timeline.size());
    EXPECT_EQ(1U, scenario.timeline[0].count);
    EXPECT_EQ("com.norvale.MavixAPI.Pipeline", scenario.timeline[0].fault.texts.at("busName"));

    ASSERT_EQ(4U, scenario.expectations.size());
    const auto range = [&](std::size_t at) {
        return std::pair(scenario.expectations[at].atLeast, scenario.expectations[at].atMost);
    };
    using Range = std::pair<std::uint64_t, std::optional<std::uint64_t>>;
    EXPECT_EQ(Range(0, 4), range(0));
    EXPECT_EQ(Range(2, 3), range(1));
    EXPECT_EQ(Range(5, 5), range(2));
    EXPECT_EQ(Range(1, std::nullopt), range(3));
    EXPECT_EQ("file:20:26", scenario.expectations[1].place);
    EXPECT_THAT(scenario.order, ElementsAre(1, 0));
    EXPECT_TRUE(scenario.nothingElse);
}

TEST(ScenarioReader, TakesTheCalledProcessForAFaultAfterACall) {
    const struct {
        const char* interface;
        const char* process;
        const char* busName;
    } rows[] = {{"com.norvale.ITest", "daemon", "com.norvale.MavixAPI"},
                {"*", "daemon", "com.norvale.MavixAPI"},
                {sessionInterface, "lite", sessionInterface}};
    for (const auto& row : rows) {
        const Scenario scenario =
            Read(R"({"format":1,"interfaces":{")" + std::string(row.interface) +
                 R"(":[{"code":1,"then":[{"fault":"restart"},{"fault":"owner-flap"}]}]}})");
        const std::vector<Action>& then = scenario.rules.at(0).steps.at(0).then;
        EXPECT_EQ(row.process, then.at(0).fault.texts.at("process")) << row.interface;
        EXPECT_EQ(row.busName, then.at(1).fault.texts.at("busName")) << row.interface;
    }
}

TEST(ScenarioPage, NamesEveryMemberFaultAndParameter) {
    const std::string page = FileText(MAVIX_TEST_SCENARIO_PAGE);
    for (const ScenarioObject& object : ScenarioObjects()) {
        for (const ScenarioObject::Member& member : object.members) {
            EXPECT_NE(std::string::npos, page.find("`" + member.name + "`"))
                << object.name << " " << member.name;
        }
    }
    for (const FaultRow& fault : FaultTable()) {
        // A row for each place where it may stand.
        std::string text;
        const std::string start = "| `" + std::string(fault.name) + "` | ";
        for (std::size_t row = 0; (row = page.find(start, row)) != std::string::npos; ++row) {
            text += page.substr(row, page.find('\n', row) - row);
        }
        ASSERT_NE("", text) << fault.name;
        for (const FaultParameter& parameter : fault.parameters) {
            // What only actions have stands in a table of its own.
            if (parameter.places == inAction) {
                continue;
            }
            const std::string name = "`" + std::string(parameter.name) + "`";
            EXPECT_NE(std::string::npos, text.find(name)) << fault.name << " " << name;
            if (!parameter.IsText()) {
                EXPECT_NE(std::string::npos, text.find(name + ": " + std::to_string(parameter.number)))
                    << fault.name << " " << name;
            }
        }
    }
}

TEST(ScenarioPage, ShowsAScenarioThatIsOne) {
    const std::string page = FileText(MAVIX_TEST_SCENARIO_PAGE);
    const std::string mark = "```json\n";
    const std::size_t start = page.find(mark) + mark.size();
    const std::string scenario = page.substr(start, page.find("```", start) - start);
    EXPECT_EQ("", Complaint(scenario));
    EXPECT_TRUE(Schema().Accepts(json::parse(scenario)));
}

TEST(ScenarioReader, AndTheSchemaTakeTheReadyScenarios) {
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(MAVIX_TEST_SCENARIOS)) {
        if (entry.path().extension() == ".json") {
            EXPECT_EQ("", Complaint(FileText(entry.path()))) << entry.path();
            const json scenario = json::parse(FileText(entry.path()));
            EXPECT_TRUE(Schema().Accepts(scenario)) << entry.path();
            const auto schema = entry.path().parent_path() / scenario.at("$schema").get<std::string>();
            EXPECT_EQ(FileText(MAVIX_TEST_SCHEMA), FileText(schema)) << "an editor does not find " << schema;
            ++files;
        }
    }
    EXPECT_GE(files, 6U);
}

TEST(ScenarioReader, AndTheSchemaTakeAScenarioWithEveryMember) {
    EXPECT_TRUE(Schema().Accepts(json::parse(fullScenario)));
    EXPECT_EQ("", Complaint(fullScenario));
}

// The pointers to all values of a document.
std::vector<json::json_pointer> PointersIn(const json& value) {
    std::vector<json::json_pointer> pointers;
    const std::function<void(const json&, const json::json_pointer&)> visit =
        [&](const json& part, const json::json_pointer& pointer) {
            pointers.push_back(pointer);
            if (part.is_structured()) {
                for (const auto& item : part.items()) {
                    visit(item.value(),
                          part.is_array() ? pointer / std::stoul(item.key()) : pointer / item.key());
                }
            }
        };
    visit(value, json::json_pointer());
    return pointers;
}

// What a schema cannot say, or this one does not.
bool IsBeyondSchema(const std::string& complaint) {
    static const char* const texts[] = {
        "have to be of the same size", "is larger than",       "no expected call has the name",
        "a second expected call",      "is for the interface", "the timeline has no caller",
        "is not of the process",
    };
    return std::any_of(std::begin(texts), std::end(texts),
                       [&complaint](const char* text) { return complaint.find(text) != std::string::npos; });
}

TEST(ScenarioReader, AndTheSchemaAgreeOnEverySmallChange) {
    const json original = json::parse(fullScenario);
    const json values[] = {nullptr,
                           true,
                           -1,
                           0,
                           1,
                           7,
                           70000,
                           1.5,
                           "",
                           "*",
                           "x",
                           "both",
                           "i:1",
                           "reorder",
                           "slow-start",
                           "hang",
                           "com.norvale.ITest",
                           json::array(),
                           json::object()};
    std::size_t taken = 0;
    std::size_t refused = 0;
    const auto compare = [&](const json& changed, const json::json_pointer& pointer, const json& value) {
        const std::string complaint = Complaint(changed.dump());
        const bool schemaTakes = Schema().Accepts(changed);
        ++(complaint.empty() ? taken : refused);
        EXPECT_TRUE(schemaTakes == complaint.empty() || (schemaTakes && IsBeyondSchema(complaint)))
            << pointer << " " << value << " " << complaint;
    };
    for (const json::json_pointer& pointer : PointersIn(original)) {
        for (const json& value : values) {
            json changed = original;
            changed[pointer] = value;
            compare(changed, pointer, value);
        }
        if (original[pointer].is_object()) {
            json changed = original;
            changed[pointer]["added"] = 1;
            compare(changed, pointer, "added");
            for (const auto& member : original[pointer].items()) {
                changed = original;
                changed[pointer].erase(member.key());
                compare(changed, pointer / member.key(), "erased");
            }
        }
    }
    EXPECT_GT(taken, 100U);
    EXPECT_GT(refused, 1000U);
}

TEST(ScenarioReader, SurvivesEveryCutAndEveryWrongByte) {
    const std::string text = fullScenario;
    for (std::size_t at = 0; at < text.size(); ++at) {
        EXPECT_NE("", Complaint(text.substr(0, at))) << at;
        for (const char wrong : {'\0', '"', '}', ']', ',', '\xff'}) {
            std::string changed = text;
            changed[at] = wrong;
            const std::string complaint = Complaint(changed);
            EXPECT_TRUE(complaint.empty() || complaint.rfind("file:", 0) == 0) << complaint;
        }
    }
}

TEST(ScenarioValue, IsWhatCallsCarry) {
    const struct {
        const char* value;
        Bytes bytes;
    } rows[] = {
        {"c:-128", {128}},
        {"c:255", {255}},
        {"s:0xFFFE", {254, 255}},
        {"s:-0x2", {254, 255}},
        {"i:-2147483648", {0, 0, 0, 128}},
        {"i:4294967295", {255, 255, 255, 255}},
        {"l:18446744073709551615", {255, 255, 255, 255, 255, 255, 255, 255}},
        {"i:010", {10, 0, 0, 0}},
        {"str:", {0, 0, 0, 0}},
        {"str:a:b", {3, 0, 0, 0, 'a', ':', 'b'}},
        {"strz:", {0}},
        {"strz:ab", {'a', 'b', 0}},
        {"hex:", {}},
        {"hex:0aFf:10 20", {10, 255, 16, 32}},
    };
    for (const auto& row : rows) {
        Bytes bytes;
        AppendValue(bytes, row.value);
        EXPECT_EQ(row.bytes, bytes) << row.value;
    }
    for (const char* bad : {"", "i", "x:1", "i:", "i:-", "i:+1", "i:1 ", "i:0x", "i:4294967296",
                            "l:-9223372036854775809", "hex:a", "hex:a b", "hex:gg"}) {
        Bytes bytes;
        EXPECT_THROW(AppendValue(bytes, bad), std::invalid_argument) << bad;
    }
}

TEST(ScenarioCondition, HoldsForWhatItSays) {
    const struct {
        const char* condition;
        Bytes payload;
        bool holds;
    } rows[] = {
        {R"({})", {}, true},
        {R"({"equals":[]})", {}, true},
        {R"({"equals":[]})", {1}, false},
        {R"({"equals":["hex:0102"]})", {1, 2}, true},
        {R"({"equals":["hex:0102"]})", {1, 2, 3}, false},
        {R"({"equals":["hex:0102"]})", {1, 3}, false},
        {R"({"prefix":["hex:0102"]})", {1, 2, 3}, true},
        {R"({"prefix":["hex:0102"]})", {1}, false},
        {R"({"prefix":["hex:0102"]})", {2, 2, 3}, false},
        {R"({"mask":["hex:000f"],"value":["hex:0003"]})", {9, 0x53}, true},
        {R"({"mask":["hex:000f"],"value":["hex:0003"]})", {9, 0x54}, false},
        {R"({"mask":["hex:000f"],"value":["hex:0003"]})", {9}, false},
        {R"({"minSize":2})", {1}, false},
        {R"({"minSize":2,"maxSize":3})", {1, 2}, true},
        {R"({"maxSize":3})", {1, 2, 3, 4}, false},
        {R"({"prefix":["c:1"],"maxSize":1})", {1, 2}, false},
    };
    for (const auto& row : rows) {
        const std::string rule = std::string(R"({"code":1,"when":)") + row.condition + "}";
        const Scenario scenario = Read(WithRule(rule));
        Call call;
        call.payload = row.payload.data();
        call.payloadSize = row.payload.size();
        EXPECT_EQ(row.holds, scenario.rules[0].calls.condition.Holds(call))
            << row.condition << " " << testing::PrintToString(row.payload);
    }
}

TEST(ScenarioSelection, WithoutANameLeavesOutSessionControlAndTheTestInterface) {
    const struct {
        const char* interface;
        bool general;
    } rows[] = {{"com.norvale.ITest", true}, {sessionInterface, false}, {testInterface, false}};
    for (const auto& row : rows) {
        Call call;
        call.interface = row.interface;
        call.header = 7;
        EXPECT_EQ(row.general, (Selection{"*", 7, {}}).IsOf(call)) << row.interface;
        EXPECT_TRUE((Selection{row.interface, std::nullopt, {}}).IsOf(call)) << row.interface;
        EXPECT_FALSE((Selection{row.interface, 8, {}}).IsOf(call)) << row.interface;
    }
}

} // namespace
