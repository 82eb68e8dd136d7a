#include "BodyTap.h"
#include "MonitorFixture.h"

#include "Recording.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <gmock/gmock.h>

namespace MavixTest {

namespace {

using MavixSim::Behaviour;
using MavixTraffic::RecordedCall;
using MavixTraffic::Recording;
using testing::HasSubstr;
using Clock = std::chrono::steady_clock;

const char* const unknownCall = "com.norvale.Error.NotRecorded";
const char* const lastInterface = "com.norvale.ILast"; // of the call that ends a recording

// Sends what was recorded, from a process with another id.
RawCall Again(const RecordedCall& recorded) {
    RawCall call;
    call.destination = recorded.destination;
    call.interface = recorded.interface;
    call.header = Header(recorded.code, recorded.code < 0 ? 0xffff : recorded.noReply ? 1 : 0);
    call.noReply = recorded.noReply;
    call.payload = recorded.payload;
    return call;
}

// What passed over one bus when it was recorded, and over another when it was replayed.
void ExpectSameAnswers(const std::vector<TappedCall>& recorded, const std::vector<TappedCall>& replayed) {
    ASSERT_EQ(recorded.size(), replayed.size());
    for (std::size_t i = 0; i < recorded.size(); ++i) {
        SCOPED_TRACE("call " + std::to_string(i) + " of " + recorded[i].interface);
        EXPECT_EQ(recorded[i].interface, replayed[i].interface);
        EXPECT_EQ(recorded[i].answerType, replayed[i].answerType);
        EXPECT_EQ(recorded[i].errorName, replayed[i].errorName);
        EXPECT_EQ(recorded[i].signature, replayed[i].signature);
        EXPECT_TRUE(recorded[i].answer == replayed[i].answer) << "other bytes";
    }
}

class ControlReplay : public ControlMonitor {
protected:
    // What a monitor records meanwhile.
    template <class Action>
    void Record(const Action& action) {
        const auto monitor = Monitor({"--record", m_path, "--json"});
        action();
        // What the bus copies to the monitor stands in its order: after this, it has the rest.
        RawCall last;
        last.interface = lastInterface;
        m_client.Call(last);
        EXPECT_TRUE(monitor->AwaitOutput(lastInterface + std::string("\",\"code\":0,\"value\":1")))
            << monitor->Output();
        monitor->Signal(SIGTERM);
        EXPECT_EQ(monitor->Wait().status, 0);
        m_recording = MavixTraffic::ReadRecording(m_path);
    }

    void WriteLines(const std::string& lines, int count) const {
        std::ofstream(m_path)
            << R"({"format":"mavix-recording","version":1,"program":"test","started":"now",)"
            << R"("byteOrder":")" << MavixTraffic::ByteOrder() << "\"}\n"
            << lines << R"({"kind":"end","entries":)" << count << "}\n";
    }

    static TCControlProgram::Options InSandbox(Words options) {
        options.insert(options.begin(), MAVIX_TEST_SANDBOX);
        options.emplace_back("--");
        TCControlProgram::Options all;
        all.launcher = std::move(options);
        return all;
    }

    // The service on another bus, replaying what was recorded.
    struct Replaying {
        explicit Replaying(const std::string& path, const std::string& speed = "fast",
                           std::vector<std::string> options = {})
            : sim(bus, Options(path, speed, std::move(options)), true) {}

        static std::vector<std::string> Options(const std::string& path, const std::string& speed,
                                                std::vector<std::string> options) {
            options.push_back("--replay=" + path);
            options.push_back("--replay-speed=" + speed);
            return options;
        }

        int End() {
            sim.Stop();
            return MavixTools::ShellStatus(sim.WaitForEnd(std::chrono::seconds(20)).value_or(-1));
        }

        TCPrivateBus bus;
        TCSimProcess sim;
        TCRawClient client{bus.Address()};
    };

    // Makes all recorded calls anew. What passed over the bus of the replay.
    std::vector<TappedCall> ReplayAll(const std::string& speed) const {
        Replaying replaying(m_path, speed);
        TCBodyTap tap(replaying.bus.Address());
        for (const RecordedCall& call : m_recording.calls) {
            if (call.noReply)
                replaying.client.Send(Again(call));
            else
                replaying.client.Call(Again(call));
        }
        return tap.CallsUpTo(lastInterface);
    }

    const std::string m_path = m_bus.Folder() + "/recording";
    Recording m_recording;
};

TEST_F(ControlReplay, ARecordedTourReplaysWithIdenticalBytesForEveryCall) {
    TCBodyTap tap(m_bus.Address());
    Record([] {
        MavixTools::ChildOptions tour;
        tour.program = MAVIX_TEST_TOUR;
        tour.discardOutput = true;
        EXPECT_EQ(MavixTools::ShellStatus(*MavixTools::TCChildProcess(tour).Wait()), 0);
    });
    EXPECT_EQ(m_recording.calls.size(), 11u);
    EXPECT_EQ(m_recording.events.size(), 3u);
    const std::vector<TappedCall> tour = tap.CallsUpTo(lastInterface);
    EXPECT_EQ(
        std::count_if(tour.begin(), tour.end(), [](const TappedCall& call) { return !call.answer.empty(); }),
        10);
    for (const char* speed : {"fast", "recorded"}) {
        SCOPED_TRACE(speed);
        ExpectSameAnswers(tour, ReplayAll(speed));
    }
}

TEST_F(ControlReplay, AnswersOfAllFormsAreTheSameBytes) {
    TCBodyTap tap(m_bus.Address());
    Record([this] {
        for (std::uint8_t variant = 0; variant <= 10; ++variant)
            m_client.Call(TestCall(Behaviour::WrongTypes, {variant}));
        for (std::uint8_t variant = 0; variant <= 7; ++variant)
            m_client.Call(TestCall(Behaviour::Aux, {variant}));
        for (std::uint8_t variant = 0; variant <= 1; ++variant)
            m_client.Call(TestCall(Behaviour::BrokenByte, {variant}));
        for (const Behaviour behaviour :
             {Behaviour::Echo, Behaviour::Error, Behaviour::AuxAbsent, Behaviour::LengthLies,
              Behaviour::EmptyReturn, Behaviour::ErrorNoText, Behaviour::ErrorIntText})
            m_client.Call(TestCall(behaviour));
        m_client.Call(TestCall(Behaviour::BigReply, IntBytes(1000000)));
        RawCall negative = TestCall(Behaviour::Echo, {'n'});
        negative.header = Header(-7, 0xffff);
        m_client.Call(negative);
    });
    EXPECT_EQ(m_recording.calls.size(), 31u);
    ExpectSameAnswers(tap.CallsUpTo(lastInterface), ReplayAll("fast"));
}

TEST_F(ControlReplay, TheSameCallGetsItsAnswersInTheirOrderAndThenTheLastAgain) {
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    Record([&] {
        for (std::uint8_t answer = 1; answer <= 3; ++answer) {
            m_daemon.SetReply(*call.interface, 0, Behaviour::Echo, {answer});
            m_client.Call(call);
        }
    });
    Replaying replaying(m_path, "fast", {"--respawn"});
    const auto answer = [&] {
        const RawReply reply = replaying.client.Call(call);
        reply.TakeByte();
        reply.TakeInt();
        return reply.TakeBytes();
    };
    EXPECT_EQ(answer(), Bytes{1});
    // How far it has come outlives the process.
    replaying.sim.KillDaemon();
    ASSERT_TRUE(replaying.sim.WaitReady());
    EXPECT_EQ(answer(), Bytes{2});
    EXPECT_EQ(answer(), Bytes{3});
    EXPECT_EQ(answer(), Bytes{3});
}

TEST_F(ControlReplay, EventsFollowTheCallsThatTheyFollowed) {
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    Record([&] {
        m_daemon.Emit(2, 1, {'b'});
        m_client.Call(call);
        m_daemon.Emit(0, 2, {'x'}, {1, 2, ""});
        m_daemon.Emit(3, 3, {'y'}, {0, 5, m_client.UniqueName()});
        call.header = Header(7);
        m_client.Call(call);
        m_daemon.EmitRaw("more-arguments", 4, "4", {'z'});
    });
    ASSERT_EQ(m_recording.events.size(), 4u);
    for (const char* speed : {"fast", "recorded"}) {
        SCOPED_TRACE(speed);
        const TCPrivateBus bus;
        const auto monitor = Monitor({"--json", "--type", "event"});
        TCSimProcess sim(bus, Replaying::Options(m_path, speed, {}), true);
        EXPECT_TRUE(monitor->AwaitOutput("\"idText\":\"1\"")) << "before any call";
        TCRawClient client(bus.Address());
        client.Subscribe("type='signal',interface='com.norvale.Mavix.SignalIFace'");
        call.header = Header(0);
        client.Call(call);
        for (const int id : {2, 3}) {
            const auto event = client.NextEvent();
            ASSERT_TRUE(event);
            EXPECT_EQ(event->texts.at(0), std::to_string(id));
        }
        call.header = Header(7);
        client.Call(call);
        const auto last = client.NextEvent();
        ASSERT_TRUE(last);
        EXPECT_EQ(last->member, "Section");
        EXPECT_EQ(last->signature, "ssaysa{sv}");
        EXPECT_EQ(last->payload, Bytes{'z'});
        // A call that is made once more has had its events.
        client.Call(call);
        EXPECT_FALSE(client.NextEvent(std::chrono::milliseconds(50)));
        const std::string name = client.UniqueName();
        EXPECT_THAT(monitor->Output(), HasSubstr("\"destination\":\"" + name + "\""));
    }
}

std::string CallLine(std::uint64_t atUs, int number, int code, const char* more = "") {
    return R"({"at":)" + std::to_string(atUs) + R"(,"kind":"call","number":)" + std::to_string(number) +
           R"(,"sender":":1.9","destination":"com.norvale.MavixAPI","interface":"com.norvale.IAVControl",)" +
           R"("noReply":false,"header":)" + std::to_string(code) + R"(,"code":)" + std::to_string(code) +
           R"(,"pid":1,"size":0,"payload":""})" + "\n" + more;
}

std::string ReplyLine(std::uint64_t atUs, int number) {
    return R"({"at":)" + std::to_string(atUs) + R"(,"kind":"reply","call":)" + std::to_string(number) +
           R"(,"signature":"yiay","arguments":[1,0,""]})" + "\n";
}

TEST_F(ControlReplay, TheTimingIsTheRecordedOneOrNone) {
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    const auto seconds = [&](const char* speed) {
        Replaying replaying(m_path, speed);
        const auto start = Clock::now();
        EXPECT_FALSE(replaying.client.Call(call).IsError());
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    WriteLines(CallLine(1000, 1, 0) + ReplyLine(301000, 1), 2);
    EXPECT_GE(seconds("recorded"), 0.299);
    WriteLines(CallLine(1000, 1, 0) + ReplyLine(15001000, 1), 2);
    EXPECT_LT(seconds("fast"), 14);
}

TEST_F(ControlReplay, AnAnswerThatTookMonthsOrForEverDoesNotComeAtOnce) {
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    for (const std::uint64_t at : {std::uint64_t{0x100000001} * 1000, ~std::uint64_t{0}}) {
        WriteLines(CallLine(0, 1, 0) + ReplyLine(at, 1), 2);
        Replaying replaying(m_path, "recorded");
        EXPECT_TRUE(replaying.client.Call(call, std::chrono::milliseconds(300)).IsError()) << at << " us";
        EXPECT_EQ(TCSimDriver(replaying.bus).Stats().at("waiting"), 1) << at << " us";
    }
}

TEST_F(ControlReplay, ACallThatWasNotAnsweredIsNotAnsweredAgain) {
    WriteLines(CallLine(1000, 1, 0), 1);
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    Replaying replaying(m_path);
    const RawReply reply = replaying.client.Call(call, std::chrono::milliseconds(200));
    EXPECT_NE(reply.errorName, unknownCall);
    EXPECT_TRUE(reply.IsError()) << "by the client itself, for the time is over";
    EXPECT_EQ(replaying.End(), 0);
}

TEST_F(ControlReplay, TheProcessIdOfACallDoesNotCount) {
    WriteLines(CallLine(1000, 1, 0) + ReplyLine(1001, 1), 2);
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    call.pid = 1;
    Replaying replaying(m_path);
    EXPECT_EQ(replaying.client.Call(call).errorName, "");
    EXPECT_EQ(replaying.End(), 0);
}

TEST_F(ControlReplay, CallsThatDeviateGetTheirRefusalAgain) {
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    call.payload = {'a'};
    call.trailingText = true;
    Record([&] { m_client.Call(call); });
    ASSERT_EQ(m_recording.calls.at(0).deviation, "auxiliary length: expected type 'i', found 's'");
    Replaying replaying(m_path);
    EXPECT_EQ(replaying.client.Call(call).errorName, "com.norvale.Error.BadCall");
    EXPECT_EQ(replaying.End(), 0);
}

struct UnknownRow {
    const char* name;
    const char* interface;
    int code;
    Bytes payload;
};

TEST_F(ControlReplay, CallsThatTheRecordingDoesNotKnowAreRefusedAndCounted) {
    RawCall known;
    known.interface = "com.norvale.IAVControl";
    known.payload = {'a'};
    Record([&] { m_client.Call(known); });
    Replaying replaying(m_path);
    const UnknownRow rows[] = {
        {"another interface", "com.norvale.IOther", 0, {'a'}},
        {"another code", "com.norvale.IAVControl", 1, {'a'}},
        {"another payload", "com.norvale.IAVControl", 0, {'b'}},
        {"no payload", "com.norvale.IAVControl", 0, {}},
    };
    for (const UnknownRow& row : rows) {
        RawCall call;
        call.interface = row.interface;
        call.header = Header(row.code);
        call.payload = row.payload;
        const RawReply reply = replaying.client.Call(call);
        EXPECT_EQ(reply.errorName, unknownCall) << row.name;
        EXPECT_EQ(reply.errorText, "the recording does not know a call of " + std::string(row.interface) +
                                       " " + std::to_string(row.code) + " with " +
                                       std::to_string(row.payload.size()) + " bytes")
            << row.name;
    }
    EXPECT_FALSE(replaying.client.Call(known).IsError());
    EXPECT_EQ(replaying.End(), 123);
}

TEST_F(ControlReplay, TheSandboxFailsWhenACommandAsksWhatWasNotRecorded) {
    Record([this] {
        RawCall call;
        call.interface = "com.norvale.IAVControl";
        call.payload = {'a', 'b'};
        m_client.Call(call);
    });
    const std::string replay = "--replay=" + m_path;
    const ControlResult known =
        RunControl({"call", "com.norvale.IAVControl", "0", "hex:6162", "--hex"}, InSandbox({replay}));
    EXPECT_EQ(known.status, 0) << known.errors;
    EXPECT_THAT(known.output, HasSubstr("\n6162\n"));
    EXPECT_EQ(known.errors, "");
    // The command's own failure stands above the sandbox's.
    const ControlResult failing = RunControl({"call", "com.norvale.IAVControl", "9", "hex:00"},
                                             InSandbox({replay, "--replay-speed=fast"}));
    EXPECT_EQ(failing.status, 1);
    EXPECT_THAT(failing.errors, HasSubstr("mavix-sandbox: calls that the recording does not know, 1:\n"
                                          "a call of com.norvale.IAVControl 9 with 1 bytes hex:00\n"));
    // One that wants no answer fails nowhere else.
    const ControlResult async =
        RunControl({"call", "--async", "com.norvale.IAVControl", "9"}, InSandbox({replay}));
    EXPECT_EQ(async.status, 123) << async.errors;
    EXPECT_EQ(async.errors, "mavix-sandbox: calls that the recording does not know, 1:\n"
                            "a call of com.norvale.IAVControl 9 with 0 bytes\n");
}

struct RefusedRow {
    Words options;
    std::string message;
};

TEST_F(ControlReplay, NothingHalfPlays) {
    const std::string damaged = m_bus.Folder() + "/damaged";
    WriteLines(CallLine(1000, 1, 0) + ReplyLine(2000, 2), 2);
    std::ofstream(damaged) << "{\"format\":\"mavix-recording\",\"version\":2}\n";
    const RefusedRow rows[] = {
        {{"--replay=" + m_path}, m_path + ": line 3: answers call 2, which does not precede it\n"},
        {{"--replay=" + damaged}, damaged + ": line 1: format version 2; this program reads version 1\n"},
        {{"--replay=/nonexistent"}, "/nonexistent: No such file or directory\n"},
        {{"--replay=" + m_path, "--scenario=x"}, "a scenario and a recording cannot be played at once\n"},
        {{"--replay=" + m_path, "--no-service"}, "a recording needs the stand-in service\n"},
        {{"--replay=" + m_path, "--replay-speed=slow"}, "--replay-speed is recorded or fast, not 'slow'\n"},
        {{"--replay="}, "--replay takes the name of a file, not ''\n"},
        {{"--replay-speed=fast"}, "--replay-speed is for --replay\n"},
    };
    for (const RefusedRow& row : rows) {
        const ControlResult result = RunControl({"--version"}, InSandbox(row.options));
        EXPECT_EQ(result.status, 125) << row.message;
        EXPECT_EQ(result.errors.rfind("mavix-sandbox: " + row.message, 0), 0u) << result.errors;
        EXPECT_EQ(result.output, "") << "the command must not run";
    }
}

} // namespace

} // namespace MavixTest
