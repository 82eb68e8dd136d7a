#include "Await.h"
#include "ScenarioFixture.h"

#include <cstring>
#include <sys/wait.h>

namespace MavixTest {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* refused = "com.norvale.Error.Refused";
constexpr const char* sessionControl = "com.norvale.ISessionControl";

using ScenarioPlay = TCScenarioFixture;

template <class Body>
milliseconds TimeOf(const Body& body) {
    const auto start = steady_clock::now();
    body();
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

std::uint32_t NumberOf(const RawEvent& event) {
    std::uint32_t number = ~0U;
    if (event.payload.size() >= sizeof number) {
        std::memcpy(&number, event.payload.data(), sizeof number);
    }
    return number;
}

TEST_F(ScenarioPlay, TheFirstRuleWhoseConditionHoldsAnswers) {
    Play(R"({"format":1,"interfaces":{
        "*": [{"code":1,"reply":["c:9"]},{"code":"*","reply":["c:10"]}],
        "com.norvale.ITest": [{"code":1,"when":{"prefix":["c:1"]},"reply":["c:1"]},
                              {"code":1,"when":{"mask":["c:15"],"value":["c:2"]},"reply":["c:2"]},
                              {"code":1,"when":{"minSize":3},"reply":["c:3"]},
                              {"code":-2,"reply":[]},
                              {"code":2}]}})");
    const struct {
        int code;
        Bytes payload;
        const char* interface;
        Bytes answer;
    } rows[] = {
        {1, {1, 2}, "com.norvale.ITest", {1}},    {1, {0x72}, "com.norvale.ITest", {2}},
        {1, {3, 3, 3}, "com.norvale.ITest", {3}}, {1, {3}, "com.norvale.ITest", {9}},
        {-2, {5, 6}, "com.norvale.ITest", {}},    {2, {5, 6}, "com.norvale.ITest", {5, 6}},
        {3, {5, 6}, "com.norvale.ITest", {10}},   {1, {1}, "com.norvale.IOther", {9}},
        {0, {7}, "com.norvale.ISimTest", {7}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.answer, Answer(row.code, row.payload, row.interface))
            << row.interface << " " << row.code << " " << testing::PrintToString(row.payload);
    }
}

TEST_F(ScenarioPlay, SessionControlDoesWhatItIsAskedUnlessARuleNamesIt) {
    Play(R"({"format":1,"interfaces":{
        "*": [{"code":"*","reply":["c:10"]}],
        "com.norvale.ISessionControl": [{"code":0,"sequence":[{"fault":"refuse-session"},{},{}]}]}})");
    EXPECT_EQ(IntBytes(-1), Answer(0, {}, sessionControl));
    EXPECT_EQ(IntBytes(0), Answer(0, {}, sessionControl)) << "the refused one has not opened the session";
    EXPECT_EQ(IntBytes(1), Answer(0, {}, sessionControl));
    EXPECT_EQ(IntBytes(0), Answer(1, {}, sessionControl));
}

TEST_F(ScenarioPlay, ASequenceGoesOnStepByStepAndStaysAtTheLast) {
    PlayRules(
        R"({"code":1,"sequence":[{"fault":"error-reply","times":2},{"reply":["c:1"]},{"reply":["c:2"]}]},
                 {"code":2,"reply":["c:3"]})");
    const Bytes error = TextBytes(refused);
    for (const Bytes& expected : {error, error, Bytes{1}, Bytes{2}, Bytes{2}}) {
        EXPECT_EQ(expected, Answer(1));
        EXPECT_EQ(Bytes{3}, Answer(2)) << "every rule has a sequence of its own";
    }
}

TEST_F(ScenarioPlay, TheProgressOutlivesTheProcesses) {
    PlayRules(R"({"code":1,"sequence":[{"fault":"crash-in-call"},{"fault":"restart"},{"fault":"disconnect"},
                                      {"reply":["c:4"]}]})");
    const pid_t first = m_sim->DaemonPid();
    EXPECT_EQ(TextBytes("org.freedesktop.DBus.Error.NoReply"), Answer(1));
    ASSERT_TRUE(m_sim->WaitReady());
    const pid_t second = m_sim->DaemonPid();
    EXPECT_NE(first, second);
    EXPECT_EQ(Bytes{7}, Answer(1, {7})) << "a restart comes after the answer";
    ASSERT_TRUE(m_sim->WaitReady());
    const pid_t third = m_sim->DaemonPid();
    EXPECT_NE(second, third);
    EXPECT_EQ(TextBytes("org.freedesktop.DBus.Error.NoReply"), Answer(1));
    EXPECT_TRUE(Await([&] { return Answer(2, {8}) == Bytes{8}; }));
    EXPECT_EQ(third, TCSimDriver(m_bus).Stats()["pid"]) << "leaving the bus is not the process's end";
    EXPECT_EQ(Bytes{4}, Answer(1));
}

TEST_F(ScenarioPlay, AProcessStaysAwayAsLongAsItIsTold) {
    PlayRules(R"({"code":1,"fault":"restart","with":{"milliseconds":700}},
                 {"code":2,"fault":"disconnect","with":{"milliseconds":700}})");
    for (const int code : {1, 2}) {
        const milliseconds away = TimeOf([&] {
            Answer(code);
            EXPECT_TRUE(Await([&] { return Answer(3, {8}) == Bytes{8}; }));
        });
        EXPECT_GE(away, milliseconds(700)) << code;
    }
}

TEST_F(ScenarioPlay, DelaysAreAtLeastWhatTheySayAndTheSpreadIsTheSameEveryTime) {
    const char* scenario = R"({"format":1,"seed":42,"interfaces":{"com.norvale.ITest":[
        {"code":1,"delay":200},{"code":2,"spread":400},{"code":3,"fault":"late-reply","with":{"milliseconds":150},
         "delay":50,"reply":["c:1"]}]}})";
    std::vector<milliseconds> first;
    for (int time = 1; time <= 2; ++time) {
        Play(scenario);
        EXPECT_GE(TimeOf([&] { EXPECT_EQ(Bytes{5}, Answer(1, {5})); }), milliseconds(200));
        EXPECT_GE(TimeOf([&] { EXPECT_EQ(Bytes{1}, Answer(3)); }), milliseconds(200));
        std::vector<milliseconds> spread;
        for (int call = 0; call < 5; ++call) {
            spread.push_back(TimeOf([&] { Answer(2); }));
        }
        m_sim->Stop();
        if (time == 1) {
            first = spread;
            // Five equal ones of 401 are no chance.
            EXPECT_GT(*std::max_element(first.begin(), first.end()) -
                          *std::min_element(first.begin(), first.end()),
                      milliseconds(20));
            continue;
        }
        for (std::size_t call = 0; call < first.size(); ++call) {
            EXPECT_NEAR(static_cast<double>(first[call].count()), static_cast<double>(spread[call].count()),
                        150)
                << call;
        }
    }
}

TEST_F(ScenarioPlay, AHungProcessAnswersNobodyAndEndsAtOnceWhenAsked) {
    PlayRules(R"({"code":1,"fault":"hang","with":{"milliseconds":400}},{"code":2,"fault":"hang"})");
    RawCall hanging;
    hanging.header = Header(1, 1);
    hanging.noReply = true;
    m_client.Send(hanging);
    EXPECT_GE(TimeOf([&] { EXPECT_EQ(Bytes{5}, Answer(3, {5})); }), milliseconds(300));

    hanging.header = Header(2, 1);
    m_client.Send(hanging);
    RawCall other;
    EXPECT_TRUE(m_client.Call(other, milliseconds(300)).IsError());
    EXPECT_LT(TimeOf([&] { m_sim->Stop(); }), milliseconds(1900));
}

// Keeps the first bytes of the answers in the order of their arrival.
int KeepAnswer(sd_bus_message* message, void* order, sd_bus_error*) {
    RawReply reply;
    reply.message.reset(sd_bus_message_ref(message));
    reply.TakeByte();
    reply.TakeInt();
    static_cast<Bytes*>(order)->push_back(reply.TakeBytes().at(0));
    return 0;
}

TEST_F(ScenarioPlay, TheAnswersOfEachTwoCallsChangePlaces) {
    PlayRules(
        R"({"code":1,"fault":"reorder","with":{"milliseconds":200},"then":[{"event":{"type":2,"id":1}}]})");
    SubscribeToEvents();
    Bytes order;
    for (std::uint8_t number = 0; number < 5; ++number) {
        RawCall call;
        call.header = Header(1);
        call.payload = {number};
        MavixSim::Check(
            sd_bus_call_async(m_client.Bus(), nullptr, m_client.MakeCall(call).get(), KeepAnswer, &order, 0),
            "call");
    }
    for (int event = 0; event < 5; ++event) {
        EXPECT_TRUE(m_client.NextEvent()) << "each call is followed by what follows it";
    }
    EXPECT_EQ((Bytes{1, 0, 3, 2, 4}), order);
    EXPECT_GE(TimeOf([&] { EXPECT_EQ(Bytes{9}, Answer(1, {9})); }), milliseconds(200)) << "none follows it";
}

TEST_F(ScenarioPlay, EventsComeAfterTheAnswer) {
    PlayRules(R"({"code":1,"then":[
        {"event":{"type":"Data","id":7,"handle":[1,2],"payload":["c:5"]}},
        {"after":50,"every":10,"count":3,"event":{"type":0,"id":8,"to":"caller"}}]})");
    SubscribeToEvents();
    EXPECT_EQ(Bytes{1}, Answer(1, {1}));
    std::vector<std::string> members;
    for (int at = 0; at < 4; ++at) {
        const std::optional<RawEvent> event = m_client.NextEvent();
        ASSERT_TRUE(event);
        members.push_back(event->member);
        if (at == 0) {
            EXPECT_EQ((std::vector<std::string>{"7", "65538"}), event->texts);
            EXPECT_EQ(Bytes{5}, event->payload);
        }
    }
    EXPECT_EQ((std::vector<std::string>{"Data", "Signal", "Signal", "Signal"}), members);
    EXPECT_FALSE(m_client.NextEvent(milliseconds(100)));
}

TEST_F(ScenarioPlay, EventsMisbehaveByName) {
    PlayRules(R"({"code":1,"then":[{"event":{"type":2,"id":1},"fault":"duplicate-event","with":{"times":3}}]},
                 {"code":2,"then":[{"event":{"type":2,"id":2,"payload":["hex:0000000000ff"]},"fault":"reorder",
                                    "with":{"count":5}}]},
                 {"code":3,"then":[{"event":{"type":2,"id":3},"fault":"flood-events",
                                    "with":{"count":3000,"size":9}}]},
                 {"code":4,"then":[{"event":{"type":2,"id":4,"payload":["c:1"]},"fault":"malformed-event",
                                    "with":{"kind":"text-id","id":"four"}},
                                   {"event":{"type":2,"id":4,"payload":["c:1"]},"fault":"malformed-event"}]})");
    SubscribeToEvents();
    Answer(1);
    for (int at = 0; at < 3; ++at) {
        EXPECT_EQ("1", m_client.NextEvent().value().texts.at(0));
    }
    Answer(2);
    std::vector<std::uint32_t> numbers;
    for (int at = 0; at < 5; ++at) {
        const RawEvent event = m_client.NextEvent().value();
        EXPECT_EQ("2", event.texts.at(0));
        EXPECT_EQ(6U, event.payload.size());
        numbers.push_back(NumberOf(event));
    }
    EXPECT_EQ((std::vector<std::uint32_t>{1, 0, 3, 2, 4}), numbers);
    Answer(3);
    for (std::uint32_t at = 0; at < 3000; ++at) {
        const RawEvent event = m_client.NextEvent().value();
        ASSERT_EQ(at, NumberOf(event));
        ASSERT_EQ(9U, event.payload.size());
    }
    Answer(4);
    EXPECT_EQ("four", m_client.NextEvent().value().texts.at(0));
    EXPECT_EQ("ss", m_client.NextEvent().value().signature);
}

TEST_F(ScenarioPlay, TheTimelineRunsOnceThroughEveryRestart) {
    SubscribeToEvents();
    Play(R"({"format":1,"timeline":[
        {"event":{"type":2,"id":1}},
        {"after":100,"fault":"restart"},
        {"after":200,"fault":"drop-name","with":{"milliseconds":50}},
        {"after":400,"fault":"owner-flap","with":{"busName":"com.norvale.ISessionControl","times":2}},
        {"after":500,"fault":"disconnect","with":{"process":"lite"}},
        {"every":20,"count":40,"event":{"type":2,"id":2}},
        {"after":900,"event":{"type":2,"id":3}}]})");
    std::map<std::string, int> events;
    for (std::optional<RawEvent> event; events["3"] == 0 && (event = m_client.NextEvent());) {
        ++events[event->texts.at(0)];
    }
    EXPECT_EQ(1, events["1"]);
    EXPECT_EQ(1, events["3"]);
    EXPECT_GT(events["2"], 1);
    EXPECT_LE(events["2"], 40) << "those of the time of the restart are left out";
    ASSERT_TRUE(m_sim->WaitReady());
    EXPECT_FALSE(m_sim->WaitReady(milliseconds(300))) << "a second restart";
    EXPECT_TRUE(Await([&] { return Answer(0, {}, sessionControl) == IntBytes(0); }));
}

// The owners of a name, one after the other, as the bus tells them.
TEST_F(ScenarioPlay, NamesComeAndGoByName) {
    PlayRules(R"({"code":1,"fault":"owner-flap","with":{"times":3,"milliseconds":5}},
                 {"code":2,"fault":"drop-name","with":{"milliseconds":5}})");
    m_client.Subscribe("type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',"
                       "arg0='com.norvale.MavixAPI'");
    for (const auto& [code, changes] : {std::pair(1, 6), std::pair(2, 2)}) {
        EXPECT_EQ(Bytes{1}, Answer(code, {1}));
        for (int change = 0; change < changes; ++change) {
            const RawEvent event = m_client.NextEvent().value();
            EXPECT_EQ(change % 2 != 0, event.texts.at(1).empty()) << code << " " << change;
        }
        EXPECT_FALSE(m_client.NextEvent(milliseconds(100)));
    }
}

TEST_F(ScenarioPlay, AFaultAfterACallIsOfTheProcessThatWasCalled) {
    Play(R"({"format":1,"interfaces":{"com.norvale.ISessionControl":[
        {"code":0,"then":[{"fault":"drop-name","with":{"milliseconds":300}}]}]}})");
    EXPECT_EQ(IntBytes(0), Answer(0, {}, sessionControl));
    EXPECT_TRUE(Await([&] { return Call(5, {}, sessionControl).IsError(); }));
    EXPECT_EQ(Bytes{7}, Answer(1, {7})) << "of the other process";
    EXPECT_TRUE(Await([&] { return !Call(5, {}, sessionControl).IsError(); }));
}

// The second of two calls finds the name dropped.
TEST_F(ScenarioPlay, WhatFollowsACallIsDoneAlsoWhenItsFaultCannotBe) {
    PlayRules(R"({"code":1,"fault":"drop-name","with":{"milliseconds":300},
                  "then":[{"event":{"type":2,"id":1}}]},
                 {"code":2,"fault":"hang","with":{"milliseconds":300}})");
    SubscribeToEvents();
    RawCall call;
    call.noReply = true;
    for (const int code : {2, 1, 1}) {
        call.header = Header(code, 1);
        m_client.Send(call);
    }
    EXPECT_TRUE(m_client.NextEvent());
    EXPECT_TRUE(m_client.NextEvent());
}

TEST_F(ScenarioPlay, TheServiceStartsLateOrNever) {
    Play(R"({"format":1,"start":{"fault":"slow-start","with":{"milliseconds":400,"process":"lite"}}})");
    EXPECT_EQ(Bytes{1}, Answer(1, {1}));
    EXPECT_TRUE(Call(0, {}, sessionControl).IsError());
    EXPECT_TRUE(Await([&] { return Answer(0, {}, sessionControl) == IntBytes(0); }));
    m_sim->Stop();

    Play(R"({"format":1,"start":{"fault":"never-start"}})");
    EXPECT_TRUE(Call(1).IsError());
    EXPECT_TRUE(Call(0, {}, sessionControl).IsError());
    EXPECT_EQ(0U, TCSimDriver(m_bus).Stats()["calls"]) << "the control interface is there";
}

TEST_F(ScenarioPlay, RulesOfTheControlInterfaceWin) {
    PlayRules(R"({"code":1,"reply":["c:1"]})");
    TCSimDriver driver(m_bus);
    driver.SetReply("com.norvale.ITest", 1, MavixSim::Behaviour::Echo, {2});
    EXPECT_EQ(Bytes{2}, Answer(1));
    driver.ClearReplies();
    EXPECT_EQ(Bytes{1}, Answer(1));
}

TEST_F(ScenarioPlay, ARefusedScenarioEndsTheServiceBeforeItIsSeen) {
    const std::string file = m_bus.Folder() + "/scenario.json";
    const std::string report = m_bus.Folder() + "/report";
    const struct {
        std::string text;
        std::string complaint;
    } rows[] = {
        {R"({"format":1,"timeline":[{}]})",
         file + ":1:25: $.timeline[0]: expected an 'event', a 'fault' or both\n"},
        {R"({"format":9})",
         file + ":1:11: $.format: format version 9 is newer than 1, the newest one that is known here\n"},
        {"", file +
                 ":1:1: $: syntax error while parsing value - unexpected end of input; expected '[', '{', or "
                 "a literal\n"},
    };
    for (const auto& row : rows) {
        std::ofstream(file) << row.text;
        MavixTools::ChildOptions options;
        options.program = MAVIX_TEST_SIM;
        options.arguments = {"--scenario=" + file, "--report=" + report};
        options.discardOutput = true;
        MavixTools::TCChildProcess sim(options);
        EXPECT_EQ(2, MavixTools::ShellStatus(*sim.Wait())) << row.text;
        std::ifstream told(report);
        EXPECT_EQ(row.complaint, std::string(std::istreambuf_iterator<char>(told), {}));
    }
}

TEST_F(ScenarioPlay, AReportThatCannotBeWrittenIsToldOnStandardError) {
    const std::string file = m_bus.Folder() + "/scenario.json";
    std::ofstream(file) << "{}";
    MavixTools::ChildOptions options;
    options.program = MAVIX_TEST_SIM;
    options.arguments = {"--scenario=" + file, "--report=" + m_bus.Folder() + "/none/report"};
    testing::internal::CaptureStderr();
    MavixTools::TCChildProcess sim(options);
    EXPECT_EQ(2, MavixTools::ShellStatus(*sim.Wait()));
    EXPECT_EQ("mavix-sim: " + file + ":1:1: $: missing member 'format'\n",
              testing::internal::GetCapturedStderr());
}

struct JudgementRow {
    const char* name;
    const char* expect;
    const char* report; // without the first line; the file's name is "@"
};

// The calls that are made are: 1 with 01, 2 with 02 and 3, then, after a crash, 1 with 01 again.
const std::vector<JudgementRow>& JudgementRows() {
    static const std::vector<JudgementRow> rows{
        {"nothing", R"({})", ""},
        {"all of it",
         R"({"calls":[{"name":"a","interface":"com.norvale.ITest","code":1,"when":{"equals":["c:1"]},"exactly":2},
                      {"name":"b","interface":"com.norvale.ITest","code":2,"atMost":1},
                      {"name":"c","interface":"*","code":"*","atLeast":4,"atMost":4}],
             "order":["a","b"],"nothingElse":true})",
         ""},
        {"too few", R"({"calls":[{"name":"a","interface":"*","code":1,"atLeast":3}]})",
         "@:2:20: 'a' (any interface 1): expected at least 3 calls, came 2\n"},
        {"too many", R"({"calls":[{"name":"a","interface":"com.norvale.ITest","code":1,"atMost":1}]})",
         "@:2:20: 'a' (com.norvale.ITest 1): expected at most 1 call, came 2\n"},
        {"not exactly", R"({"calls":[{"name":"a","interface":"com.norvale.ITest","code":"*","exactly":1}]})",
         "@:2:20: 'a' (com.norvale.ITest of any code): expected exactly 1 call, came 4\n"},
        {"out of range",
         R"({"calls":[{"name":"a","interface":"com.norvale.ITest","code":9,"atLeast":2,"atMost":3}]})",
         "@:2:20: 'a' (com.norvale.ITest 9): expected 2 to 3 calls, came none\n"},
        {"another payload",
         R"({"calls":[{"name":"a","interface":"com.norvale.ITest","code":1,"when":{"prefix":["c:2"]}}]})",
         "@:2:20: 'a' (com.norvale.ITest 1): expected at least 1 call with the payload of 'when', came none, "
         "and 2 "
         "calls with another payload\n"},
        {"another order",
         R"({"calls":[{"name":"a","interface":"*","code":3},{"name":"b","interface":"*","code":1},
                      {"name":"d","interface":"*","code":4,"atLeast":0}],"order":["a","b","d"]})",
         "@:3:82: order: expected 'b' after 'a', it came before\n"
         "@:3:82: order: expected 'd' after 'b', it did not come\n"},
        {"something else", R"({"calls":[{"name":"a","interface":"*","code":1}],"nothingElse":true})",
         "@:2:73: not expected: a call of com.norvale.ITest 2 with 1 bytes hex:02\n"
         "@:2:73: not expected: a call of com.norvale.ITest 3 with 0 bytes\n"},
    };
    return rows;
}

TEST_F(ScenarioPlay, WhatWasExpectedIsComparedWithWhatCame) {
    for (const JudgementRow& row : JudgementRows()) {
        SCOPED_TRACE(row.name);
        Play(std::string(
                 R"({"format":1,"interfaces":{"com.norvale.ITest":[{"code":3,"fault":"crash-in-call"}]},
"expect":)") +
             row.expect + "}");
        Answer(1, {1});
        Answer(2, {2});
        Answer(3);
        ASSERT_TRUE(m_sim->WaitReady());
        Answer(1, {1});
        std::string expected = row.report;
        for (std::size_t at = 0; (at = expected.find('@')) != std::string::npos;) {
            expected.replace(at, 1, m_bus.Folder() + "/scenario.json");
        }
        if (!expected.empty()) {
            expected.insert(0, "the scenario's expectations were not met:\n");
        }
        EXPECT_EQ(expected, EndAndReport());
        const std::optional<int> status = m_sim->WaitForEnd(milliseconds(0));
        ASSERT_TRUE(status);
        EXPECT_EQ(expected.empty() ? 0 : 124, MavixTools::ShellStatus(*status));
        std::remove(m_report.c_str());
    }
}

TEST_F(ScenarioPlay, RefusedCallsAndThoseBeyondTheReportAreToldToo) {
    Play(R"({"format":1,"expect":{"nothingElse":true}})");
    RawCall wrong;
    wrong.path = "/other";
    EXPECT_TRUE(m_client.Call(wrong).IsError());
    for (int call = 0; call < 20; ++call) {
        Answer(call, Bytes(17, 0xab));
    }
    const std::string report = EndAndReport();
    EXPECT_NE(
        std::string::npos,
        report.find("not expected: a call of com.norvale.ITest with 0 bytes, refused: unexpected object path "
                    "'/other'\n"))
        << report;
    EXPECT_NE(std::string::npos, report.find("a call of com.norvale.ITest 14 with 17 bytes "
                                             "hex:abababababababababababababababab...\n"))
        << report;
    EXPECT_NE(std::string::npos, report.find(": and 5 calls more\n")) << report;
}

// Although the client does not wait for an answer, and the service is told to end right afterwards.
TEST_F(ScenarioPlay, CallsOfAClientThatHasLeftAreCountedAtTheEnd) {
    constexpr int count = 500;
    Play(R"({"format":1,"expect":{"calls":[{"name":"a","interface":"com.norvale.ITest","code":1,"exactly":)" +
         std::to_string(count) + R"(},{"name":"b","interface":"com.norvale.ITest","code":2,"exactly":1}]}})");
    {
        TCRawClient client(m_bus.Address());
        RawCall call;
        call.header = Header(1, 1);
        call.noReply = true;
        for (int at = 0; at < count; ++at) {
            client.Send(call);
        }
        call.header = Header(2, 1);
        call.payload.resize(1000000);
        client.Send(call);
    }
    EXPECT_EQ("", EndAndReport());
}

TEST_F(ScenarioPlay, CallsBehindAHangThatLastsAreCountedAtTheEnd) {
    Play(R"({"format":1,"interfaces":{"com.norvale.ITest":[{"code":1,"fault":"hang"}]},"expect":{"calls":[
        {"name":"a","interface":"com.norvale.ITest","code":1,"exactly":3},
        {"name":"b","interface":"com.norvale.ITest","code":2,"exactly":1}],"order":["a","b"]}})");
    RawCall call;
    call.noReply = true;
    for (const int code : {1, 1, 1, 2}) {
        call.header = Header(code, 1);
        m_client.Send(call);
    }
    EXPECT_LT(TimeOf([&] { EXPECT_EQ("", EndAndReport()); }), milliseconds(1900));
}

} // namespace

} // namespace MavixTest
