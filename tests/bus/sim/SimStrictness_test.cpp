#include "SimFixture.h"

#include "ChildProcess.h"

namespace MavixTest {

namespace {

class SimStrictness : public TCSimFixture {};

RawCall With(const std::function<void(RawCall&)>& change) {
    RawCall call;
    call.header = Header(7);
    call.payload = {1, 2, 3};
    change(call);
    return call;
}

// Arguments given as a signature and values.
template <class... Values>
RawCall Body(const char* types, Values... values) {
    return With([=](RawCall& call) {
        call.body = [=](sd_bus_message* message) {
            MavixSim::Check(sd_bus_message_append(message, types, values...), "append");
        };
    });
}

RawCall Aux(unsigned flags, const Bytes& block) {
    return With([&](RawCall& call) {
        call.header = Header(7, flags);
        if ((flags & 2) != 0)
            call.programName = "program";
        call.aux = block;
    });
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct Row {
    const char* name;
    RawCall call;
    std::string reason;
};

constexpr int plainHeader = 7;

std::vector<Row> BadRows() {
    const int pid = ::getpid();
    const std::uint64_t now = NowMs();
    std::vector<Row> rows{
        {"other path", With([](RawCall& c) { c.path = "/com/norvale/Other"; }), "unexpected object path"},
        {"other member", With([](RawCall& c) { c.member = "methodCall"; }), "unexpected member"},
        {"no interface", With([](RawCall& c) { c.interface.reset(); }), "no interface"},
        {"session interface on the default bus",
         With([](RawCall& c) { c.interface = "com.norvale.ISessionControl"; }), "is not served on"},
        {"no arguments", Body(""), "header word: expected type 'i', found the end"},
        {"header is unsigned", Body("uii", 7u, 0, pid), "header word: expected type 'i', found 'u'"},
        {"header is int64", Body("xii", std::int64_t{7}, 0, pid),
         "header word: expected type 'i', found 'x'"},
        {"header only", Body("i", plainHeader), "payload size: expected type 'i', found the end"},
        {"size is unsigned", Body("iui", plainHeader, 0u, pid), "payload size: expected type 'i', found 'u'"},
        {"no process id", Body("ii", plainHeader, 0), "process id: expected type 'i', found the end"},
        {"process id is unsigned", Body("iiu", plainHeader, 0, unsigned(pid)),
         "process id: expected type 'i', found 'u'"},
        {"size before header", Body("iii", 0, 7, pid), "payload: expected type 'ay', found the end"},
        {"payload before process id", Body("iiayi", plainHeader, 1, 1, 9, pid),
         "process id: expected type 'i', found 'ay'"},
        {"name after payload", Body("iiiays", 7 | 2 << 16, 1, pid, 1, 9, "program"),
         "program name: announced by the flags, but absent"},
        {"payload is a text", Body("iiis", plainHeader, 3, pid, "one"),
         "program name: present, but not announced"},
        {"payload is an array of int32", Body("iiiai", plainHeader, 4, pid, 1, 9),
         "payload: expected type 'ay', found 'ai'"},
        {"payload is a variant", Body("iiiv", plainHeader, 4, pid, "i", 9),
         "payload: expected type 'ay', found 'v'"},
        {"arguments in a structure", Body("(iii)", plainHeader, 0, pid),
         "header word: expected type 'i', found '(iii)'"},
        {"foreign process id", With([](RawCall& c) { c.pid = ::getppid(); }), "but the sender is process"},
        {"process id 0", With([](RawCall& c) { c.pid = 0; }), "process id 0"},
        {"negative process id", With([](RawCall& c) { c.pid = -1; }), "process id -1"},
        {"size too small", With([](RawCall& c) { c.size = 2; }), "payload: size 2 announced, 3 bytes found"},
        {"size too large", With([](RawCall& c) { c.size = 4; }), "payload: size 4 announced, 3 bytes found"},
        {"size 0 with payload", With([](RawCall& c) { c.size = 0; }), "payload: present with size 0"},
        {"size 0 with empty array", With([](RawCall& c) {
             c.payload.clear();
             c.emptyPayloadArray = true;
         }),
         "payload: present with size 0"},
        {"negative size", With([](RawCall& c) { c.size = -1; }), "payload size -1 is out of range"},
        {"size over the limit", With([](RawCall& c) { c.payload.assign(0x1000001, 5); }),
         "payload size 16777217 is out of range"},
        {"name without flag", With([](RawCall& c) { c.programName = "program"; }),
         "program name: present, but not announced"},
        {"flag without name", With([](RawCall& c) { c.header = Header(7, 2); }),
         "program name: announced by the flags, but absent"},
        {"flag 1 on a call that wants a reply", With([](RawCall& c) { c.header = Header(7, 1); }),
         "the flags want no reply, the message wants one"},
        {"unknown flag", With([](RawCall& c) { c.header = Header(7, 8); }), "unknown flags 8"},
        {"highest flag", With([](RawCall& c) { c.header = Header(7, 0x8000); }), "unknown flags 32768"},
        {"negative code without its sign", With([](RawCall& c) { c.header = 0xfff9; }),
         "a negative function code has to fill the flags"},
        {"timestamp flag without block", With([](RawCall& c) { c.header = Header(7, 4); }),
         "send timestamp announced by the flags, but absent"},
        {"block without flag", Aux(0, AuxTimestamp(4, now)), "send timestamp not announced"},
        {"empty block", Aux(4, {}), "present, but empty"},
        {"block shorter than a record", Aux(4, {4, 0, 0, 0}), "4 stray bytes"},
        {"stray bytes after a record", Aux(4, AuxTimestamp(4, now) + Bytes{1, 2, 3}), "3 stray bytes"},
        {"value of 4 bytes", Aux(4, AuxRecord(4, {1, 2, 3, 4})), "value of 4 bytes"},
        {"value of no bytes", Aux(4, AuxRecord(4, {})), "value of 0 bytes"},
        {"value beyond the block", Aux(4, {4, 0, 0, 0, 8, 0, 0, 0, 1, 2}), "value of 8 bytes"},
        {"unknown tag", Aux(4, AuxTimestamp(8, now)), "unknown tag 8"},
        {"tag 2 without its flag", Aux(4, AuxTimestamp(2, now) + AuxTimestamp(4, now)),
         "tag 2 not announced"},
        {"tags in descending order", Aux(6, AuxTimestamp(4, now) + AuxTimestamp(2, now)),
         "tag 2 out of order"},
        {"tag twice", Aux(4, AuxTimestamp(4, now) + AuxTimestamp(4, now)), "tag 4 out of order"},
        {"timestamp 0", Aux(4, AuxTimestamp(4, 0)), "implausible timestamp 0"},
        {"timestamp of the future", Aux(4, AuxTimestamp(4, now + 3600000)), "implausible timestamp"},
        {"block with a wrong length", With([&](RawCall& c) {
             c.header = Header(7, 4);
             c.aux = AuxTimestamp(4, now);
             c.auxLength = 15;
         }),
         "length 15 announced, 16 bytes found"},
        {"block without its length", Body("iiiayay", 7 | 4 << 16, 1, pid, 1, 9, 1, 4),
         "auxiliary length: expected type 'i', found 'ay'"},
        {"length without its block", Body("iiiayi", plainHeader, 1, pid, 1, 9, 16),
         "auxiliary block: expected type 'ay', found the end"},
        {"block is a text", Body("iiiayis", plainHeader, 1, pid, 1, 9, 4, "text"),
         "auxiliary block: expected type 'ay', found 's'"},
        {"trailing text", With([](RawCall& c) { c.trailingText = true; }),
         "auxiliary length: expected type 'i', found 's'"},
        {"trailing text after the block", With([&](RawCall& c) {
             c.header = Header(7, 4);
             c.aux = AuxTimestamp(4, now);
             c.trailingText = true;
         }),
         "trailing argument of type 's'"},
        {"negative code, trailing text", With([](RawCall& c) {
             c.header = 0xffffffff;
             c.trailingText = true;
         }),
         "auxiliary length: expected type 'i', found 's'"},
    };
    return rows;
}

std::vector<Row> GoodRows() {
    const std::uint64_t now = NowMs();
    return {
        {"plain", With([](RawCall&) {}), ""},
        {"empty payload", With([](RawCall& c) { c.payload.clear(); }), ""},
        {"one byte", With([](RawCall& c) { c.payload = {0}; }), ""},
        {"largest payload", With([](RawCall& c) { c.payload.assign(0x1000000, 5); }), ""},
        {"code 0", With([](RawCall& c) { c.header = 0; }), ""},
        {"largest code", With([](RawCall& c) { c.header = Header(0x7fff); }), ""},
        {"first call", With([](RawCall& c) {
             c.header = Header(7, 2);
             c.programName = "program";
         }),
         ""},
        {"first call with an empty payload", With([](RawCall& c) {
             c.header = Header(7, 2);
             c.programName = "program";
             c.payload.clear();
         }),
         ""},
        {"send timestamp", Aux(4, AuxTimestamp(4, now)), ""},
        {"send timestamp with an empty payload", With([&](RawCall& c) {
             c.header = Header(7, 4);
             c.payload.clear();
             c.aux = AuxTimestamp(4, now);
         }),
         ""},
        {"send timestamp on a first call", Aux(6, AuxTimestamp(4, now)), ""},
        {"both timestamps, whose mask asks for the name", Aux(6, AuxTimestamp(2, now) + AuxTimestamp(4, now)),
         ""},
        {"code -1", With([](RawCall& c) { c.header = 0xffffffff; }), ""},
        {"code -1 with a name", With([](RawCall& c) {
             c.header = 0xffffffff;
             c.programName = "program";
         }),
         ""},
        {"lowest code with name and timestamp", With([&](RawCall& c) {
             c.header = 0xffff8000;
             c.programName = "program";
             c.aux = AuxTimestamp(4, now);
         }),
         ""},
    };
}

TEST_F(SimStrictness, AcceptsEveryRowOfTheLayoutAndEchoesThePayload) {
    for (const Row& row : GoodRows()) {
        SCOPED_TRACE(row.name);
        m_driver.ClearRecords();
        const RawReply reply = m_client.Call(row.call);
        ASSERT_FALSE(reply.IsError()) << reply.errorText;
        ASSERT_EQ(reply.Signature(), "yiay");
        EXPECT_EQ(reply.TakeByte(), 1);
        EXPECT_EQ(static_cast<std::size_t>(reply.TakeInt()), row.call.payload.size());
        EXPECT_TRUE(reply.TakeBytes() == row.call.payload);

        const auto records = m_driver.Records();
        ASSERT_EQ(records.size(), 1u);
        const nlohmann::json& record = records[0];
        EXPECT_EQ(record["ok"], true);
        EXPECT_EQ(record["reason"], nullptr);
        EXPECT_EQ(record["header"], row.call.header);
        EXPECT_EQ(record["code"], static_cast<std::int16_t>(row.call.header));
        EXPECT_EQ(record["size"], row.call.payload.size());
        EXPECT_EQ(record["programName"].is_string(), row.call.programName.has_value());
        EXPECT_EQ(record["timestampSent"].is_number(), row.call.aux.has_value());
        EXPECT_EQ(record["noReply"], false);
    }
}

TEST_F(SimStrictness, RefusesEveryDeviationWithItsReason) {
    for (const Row& row : BadRows()) {
        SCOPED_TRACE(row.name);
        m_driver.ClearRecords();
        const RawReply reply = m_client.Call(row.call);
        EXPECT_EQ(reply.errorName, "com.norvale.Error.BadCall");
        EXPECT_NE(reply.errorText.find(row.reason), std::string::npos) << reply.errorText;

        const auto records = m_driver.Records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]["ok"], false);
        EXPECT_EQ(records[0]["reason"], reply.errorText);
    }
}

TEST_F(SimStrictness, RefusesAProgramNameThatCannotBeRead) {
    // U+FFFE, which the bus passes on.
    MavixTools::ChildOptions sender;
    sender.program = "sh";
    sender.arguments = {
        "-c",
        "exec dbus-send --bus=$0 --type=method_call --print-reply --dest=com.norvale.MavixAPI "
        "/com/norvale/Object com.norvale.ITest.MethodCall int32:$1 int32:0 int32:$$ string:$2",
        m_bus.Address(), std::to_string(Header(7, 2)), "a\xEF\xBF\xBE"};
    const std::string reason = "program name: a text that cannot be read";
    testing::internal::CaptureStderr();
    const int status = MavixTools::ShellStatus(*MavixTools::TCChildProcess(sender).Wait());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error com.norvale.Error.BadCall: " + reason + "\n");
    EXPECT_EQ(status, 1);
    const auto records = m_driver.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["ok"], false);
    EXPECT_EQ(records[0]["reason"], reason);
    EXPECT_EQ(records[0]["programName"], nullptr);
}

TEST_F(SimStrictness, RefusesACallAddressedToItsUniqueName) {
    const RawReply owner = m_client.CallMessage([&] {
        RawCall call;
        call.destination = call.interface.emplace("org.freedesktop.DBus");
        call.path = "/org/freedesktop/DBus";
        call.member = "GetNameOwner";
        call.body = [](sd_bus_message* message) {
            MavixSim::Check(sd_bus_message_append(message, "s", "com.norvale.MavixAPI"), "append");
        };
        return m_client.MakeCall(call);
    }());
    ASSERT_FALSE(owner.IsError()) << owner.errorText;
    const char* unique = nullptr;
    ASSERT_GT(sd_bus_message_read_basic(owner.message.get(), 's', &unique), 0);
    const RawReply reply = m_client.Call(With([&](RawCall& c) { c.destination = unique; }));
    EXPECT_NE(reply.errorText.find("not to one of the service's names"), std::string::npos)
        << reply.errorText;
}

TEST_F(SimStrictness, SessionNameServesTheSessionInterfaceOnly) {
    TCSimDriver lite(m_bus, TCSimDriver::Process::Lite);
    RawCall call;
    call.destination = "com.norvale.ISessionControl";
    EXPECT_NE(m_client.Call(call).errorText.find("is not served on"), std::string::npos);
    call.interface = "com.norvale.ISessionControl";
    EXPECT_FALSE(m_client.Call(call).IsError());
    const auto records = lite.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1]["process"], "mavix-lite");
}

TEST_F(SimStrictness, AcceptsCallsWithoutReplyAndAnswersNothing) {
    for (const std::uint32_t header : {Header(7, 1), 0xffffffffu}) {
        m_driver.ClearRecords();
        m_client.Send(With([&](RawCall& c) {
            c.header = header;
            c.noReply = true;
        }));
        const auto records = m_driver.WaitForRecords(1);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]["ok"], true) << records[0];
        EXPECT_EQ(records[0]["noReply"], true);
    }
}

TEST_F(SimStrictness, RecordsARefusedCallThatWantsNoReply) {
    m_client.Send(With([](RawCall& c) { c.noReply = true; }));
    const auto records = m_driver.WaitForRecords(1);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["reason"], "the message wants no reply, its flags want one");
}

TEST(SimComplaints, TellARefusalOnStandardError) {
    testing::internal::CaptureStderr();
    {
        const TCPrivateBus bus;
        TCSimProcess sim(bus);
        TCRawClient client(bus.Address());
        client.Call(With([](RawCall& c) { c.size = 2; }));
    }
    const std::string output = testing::internal::GetCapturedStderr();
    EXPECT_NE(output.find("mavix-daemon: refused a call of :1."), std::string::npos) << output;
    EXPECT_NE(output.find("payload: size 2 announced, 3 bytes found\n"), std::string::npos) << output;
}

} // namespace

} // namespace MavixTest
