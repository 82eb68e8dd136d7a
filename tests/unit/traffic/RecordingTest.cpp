#include "Recording.h"
#include "RecordingWriter.h"

#include "MessageMaker.h"
#include "TempFolder.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace MavixTraffic {

namespace {

using MavixTest::Envelope;
using MavixTest::TCMessageMaker;

class RecordingFile : public testing::Test {
protected:
    void Write(const std::string& text) const { std::ofstream(m_path, std::ios::binary) << text; }

    std::string Text() const {
        std::ifstream file(m_path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    // What is wrong, without the file's name in front.
    std::string Complaint(std::uint64_t largest = largestRecording) const {
        try {
            ReadRecording(m_path, largest);
            return "";
        } catch (const RecordingError& error) {
            const std::string text = error.what();
            EXPECT_EQ(text.rfind(m_path + ": ", 0), 0u) << text;
            return text.substr(m_path.size() + 2);
        }
    }

    MavixTools::TCTempFolder m_folder;
    const std::string m_path = m_folder.Path() + "/recording";
};

const std::string header =
    std::string(R"({"format":"mavix-recording","version":1,"program":"test","started":"now",)") +
    R"("byteOrder":")" + ByteOrder() + "\"}\n";
const char* const call =
    R"({"at":5,"kind":"call","number":1,"sender":":1.7","destination":"com.norvale.MavixAPI",)"
    R"("interface":"com.norvale.ITest","noReply":false,"header":66,"code":66,"pid":4711,"size":2,"payload":"6162"})"
    "\n";
const char* const reply = R"({"at":9,"kind":"reply","call":1,"signature":"yiay","arguments":[1,2,"6162"]})"
                          "\n";
const char* const event =
    R"({"at":12,"kind":"event","sender":":1.2","destination":"","path":"/com/norvale/Mavix/SignalObject",)"
    R"("interface":"com.norvale.Mavix.SignalIFace","member":"Data","signature":"ssay","arguments":["7","0","00"]})"
    "\n";

std::string End(int entries) {
    return R"({"kind":"end","entries":)" + std::to_string(entries) + "}\n";
}

std::string Replace(std::string text, const std::string& what, const std::string& with) {
    const std::size_t at = text.find(what);
    if (at == std::string::npos)
        throw std::invalid_argument("no " + what);
    return text.replace(at, what.size(), with);
}

TEST_F(RecordingFile, GivesBackWhatWasWritten) {
    TCMessageMaker maker;
    {
        TCRecordingWriter writer(m_path, "test", 1000);
        const auto madeCall = maker.Call({}, [](sd_bus_message* made) {
            TCMessageMaker::Append(made, "iiis", 2 << 16 | 66, 2, 4711, "to\"ur");
            TCMessageMaker::AppendBytes(made, {'a', 0xff});
        });
        writer.AddCall(Decode(madeCall.get(), 1500), 8);
        const auto broken = maker.Call({}, [](sd_bus_message*) {});
        writer.AddCall(Decode(broken.get(), 1550), 9);
        Envelope envelope;
        envelope.noReply = true;
        const auto async = maker.Call(envelope, [](sd_bus_message* made) {
            TCMessageMaker::Append(made, "iii", 1 << 16 | 1, 0, 4711);
        });
        writer.AddCall(Decode(async.get(), 1560), 10);
        const auto madeReply = maker.Return([](sd_bus_message* made) {
            TCMessageMaker::Append(made, "yi", 1, 1);
            TCMessageMaker::AppendBytes(made, {'b'});
        });
        writer.AddReply(madeReply.get(), Decode(madeReply.get(), 2000), 8);
        const auto error = maker.Error("com.norvale.Error.A",
                                       [](sd_bus_message* made) { TCMessageMaker::Append(made, "s", "no"); });
        writer.AddReply(error.get(), Decode(error.get(), 2000), 9);
        Envelope signal;
        signal.path = MavixSim::signalPath;
        signal.interface = MavixSim::signalInterface;
        signal.member = "Data";
        const auto madeEvent = maker.Signal(signal, [](sd_bus_message* made) {
            TCMessageMaker::Append(made, "ss", "7", "0");
            TCMessageMaker::AppendBytes(made, {});
        });
        writer.AddEvent(madeEvent.get(), Decode(madeEvent.get(), 2500));
        Message owner;
        owner.atUs = 2600;
        owner.owner = {"com.norvale.MavixAPI", "", ":1.9"};
        writer.AddOwner(owner);
        writer.Finish();
    }
    const Recording recording = ReadRecording(m_path);
    ASSERT_EQ(recording.calls.size(), 3u);
    const RecordedCall& first = recording.calls[0];
    EXPECT_EQ(first.atUs, 500u);
    EXPECT_EQ(first.sender, ":1.7");
    EXPECT_EQ(first.destination, "com.norvale.MavixAPI");
    EXPECT_EQ(first.interface, "com.norvale.ITest");
    EXPECT_EQ(first.code, 66);
    EXPECT_EQ(first.payload, (MavixTest::Bytes{'a', 0xff}));
    EXPECT_FALSE(first.noReply);
    ASSERT_TRUE(first.reply);
    EXPECT_EQ(first.reply->atUs, 1000u);
    EXPECT_EQ(first.reply->errorName, "");
    EXPECT_EQ(first.reply->signature, "yiay");
    EXPECT_EQ(first.reply->arguments, (nlohmann::json{1, 1, "62"}));
    EXPECT_EQ(recording.calls[1].deviation, "header word: expected type 'i', found the end");
    EXPECT_EQ(recording.calls[1].reply->errorName, "com.norvale.Error.A");
    EXPECT_TRUE(recording.calls[2].noReply);
    EXPECT_FALSE(recording.calls[2].reply);
    ASSERT_EQ(recording.events.size(), 1u);
    EXPECT_EQ(recording.events[0].callsBefore, 3u);
    EXPECT_EQ(recording.events[0].member, "Data");
    EXPECT_EQ(recording.events[0].arguments, (nlohmann::json{"7", "0", ""}));
}

TEST_F(RecordingFile, IsReadWithoutADigestWhenSomebodyHasEditedIt) {
    Write(header + call + reply + event + End(3));
    EXPECT_EQ(Complaint(), "");
    Write(header + End(0));
    EXPECT_EQ(Complaint(), "");
}

struct DamageRow {
    std::string text;
    std::string complaint;
};

TEST_F(RecordingFile, IsRefusedWithThePositionOfTheDamage) {
    const std::string good = header + call + reply;
    const DamageRow rows[] = {
        {"", "line 1: empty, not a recording of mavixctl monitor"},
        {"\n", "line 1: not JSON from byte 1 on"},
        {"{\"format\":\"mavix-", "line 1: cut in the middle of a line"},
        {"[]\n", "line 1: not a JSON object"},
        {"{}\n", "line 1: not a recording of mavixctl monitor"},
        {Replace(header, "mavix-recording", "other"), "line 1: not a recording of mavixctl monitor"},
        {Replace(header, "\"version\":1", "\"version\":2"),
         "line 1: format version 2; this program reads version 1"},
        {Replace(header, "\"version\":1", "\"version\":0"),
         "line 1: format version 0; this program reads version 1"},
        {Replace(header, "\"version\":1", "\"version\":\"1\""),
         "line 1: 'version' is not a number that fits"},
        {Replace(header, ByteOrder(), "mixed"), "line 1: byte order 'mixed'; this machine's is 'little'"},
        {Replace(header, "\"program\"", "\"programme\""), "line 1: 'program' is missing"},
        {Replace(header, "{", "{\"more\":1,"), "line 1: unknown member 'more'"},
        {header, "line 2: the recording has no last line: it was cut, or its monitor was killed"},
        {good, "line 4: the recording has no last line: it was cut, or its monitor was killed"},
        {good + "{\"at\":10,\"kind\":\"ev", "line 4: cut in the middle of a line"},
        {good + "{\"at\":10,\"kind\":\"ev\n", "line 4: not JSON from byte 20 on"},
        {good + End(2) + event, "line 5: a line after the end of the recording"},
        {good + End(3), "line 4: there should be 3 lines between the first and the last, and there are 2"},
        {good + Replace(End(2), "2", "2,\"digest\":\"0000000000000000\""),
         "line 4: the lines before are not those that were written: their digest is"},
        {good + Replace(End(2), "\"kind\":\"end\"", "\"at\":9,\"kind\":\"ending\""),
         "line 4: unknown kind 'ending'"},
        {good + Replace(event, "12", "8"), "line 4: 'at' goes back in time"},
        {good + Replace(event, "12", "-1"), "line 4: 'at' is not a number that fits"},
        {good + Replace(event, "\"at\":12,", ""), "line 4: 'at' is missing"},
        {good + Replace(event, "\"kind\":\"event\",", ""), "line 4: 'kind' is missing"},
        {good + Replace(event, "Data", "Da ta"), "line 4: 'member' is not what D-Bus allows"},
        {good + Replace(event, "/com/", "com/"), "line 4: 'path' is not what D-Bus allows"},
        {good + Replace(event, ".SignalIFace", "..SignalIFace"),
         "line 4: 'interface' is not what D-Bus allows"},
        {good + Replace(event, "\"destination\":\"\"", "\"destination\":\"1\""),
         "line 4: 'destination' is not what D-Bus allows"},
        {good + Replace(event, "ssay", "ssai"), "line 4: argument 2: not an array"},
        {good + Replace(event, "ssay", "ssh"), "line 4: 'ssh' is no signature that can be replayed"},
        {header + Replace(call, "6162", "616"), "line 2: 'payload' is not bytes in hexadecimal"},
        {header + Replace(call, "6162", "61"), "line 2: 'payload' has 1 bytes, not 2"},
        {header + Replace(call, "\"code\":66", "\"code\":67"),
         "line 2: 'header' holds another function code"},
        {header + Replace(call, "\"code\":66", "\"code\":70000"), "line 2: 'code' is not a number that fits"},
        {header + Replace(call, "\"noReply\":false", "\"noReply\":0"),
         "line 2: 'noReply' is not true or false"},
        {header + Replace(call, "\":1.7\"", "7"), "line 2: 'sender' is not a text"},
        {header + Replace(call, "\"pid\"", "\"pit\""), "line 2: 'pid' is missing"},
        {header + Replace(call, "\"pid\"", "\"pit\":1,\"pid\""), "line 2: unknown member 'pit'"},
        {header + call + call, "line 3: a second call of number 1"},
        {header + reply, "line 2: answers call 1, which does not precede it"},
        {good + reply, "line 4: answers call 1 a second time"},
        {header + Replace(call, "\"noReply\":false", "\"noReply\":true") + reply,
         "line 3: answers call 1, which wants no answer"},
        {header + call + Replace(reply, "[1,2,", "[1,"), "line 3: argument 1: not a number that fits"},
        {header + call + Replace(reply, "[1,2,", "[256,2,"), "line 3: argument 0: not a number that fits"},
        {header + call + Replace(reply, "\"kind\":\"reply\"", "\"kind\":\"error\",\"name\":\"no\""),
         "line 3: 'no' cannot be the name of an error"},
        {header + call + Replace(reply, "\"kind\":\"reply\"", "\"kind\":\"error\""),
         "line 3: 'name' is missing"},
        {header + call + Replace(reply, "[1,2,", "[1e999,2,"), "line 3: a number that is too large"},
        {header + Replace(call, "\"at\":5", "\"at\":-1e999"), "line 2: a number that is too large"},
        {header + Replace(call, "\"at\":5", "\"at\":99999999999999999999"),
         "line 2: 'at' is not a number that fits"},
        {header + call + Replace(reply, "[1,2,", std::string(100, '[')),
         "line 3: nested deeper than a message can be"},
        {header + call + Replace(Replace(reply, "yiay", std::string(256, 'y')), "[1,2,\"6162\"]", "[]"),
         "line 3: '" + std::string(256, 'y') + "' is no signature that can be replayed"},
        {header + call + Replace(reply, "6162", "\xff"), "line 3: not JSON from byte 70 on"},
    };
    for (const DamageRow& row : rows) {
        Write(row.text);
        const std::string complaint = Complaint();
        if (row.complaint.find("digest") != std::string::npos)
            EXPECT_EQ(complaint.rfind(row.complaint, 0), 0u) << complaint;
        else
            EXPECT_EQ(complaint, row.complaint) << row.text;
    }
}

TEST_F(RecordingFile, OfWhichOneByteHasChangedIsRefused) {
    Write(header + call + reply + event + End(3));
    TCDigest digest;
    digest.Add(header + call + reply + event);
    const std::string whole =
        header + call + reply + event + Replace(End(3), "3", "3,\"digest\":\"" + digest.Text() + "\"");
    Write(whole);
    ASSERT_EQ(Complaint(), "");
    for (std::size_t i = 0; i < whole.size(); ++i) {
        std::string damaged = whole;
        damaged[i] = damaged[i] == '0' ? '1' : '0';
        Write(damaged);
        EXPECT_NE(Complaint(), "") << "byte " << i;
    }
    for (std::size_t length = 0; length < whole.size(); ++length) {
        Write(whole.substr(0, length));
        EXPECT_NE(Complaint(), "") << "cut after " << length;
    }
}

TEST_F(RecordingFile, LargerThanMemoryShouldHoldIsRefusedAtTheLineThatIsTooMuch) {
    const std::string whole = header + call + reply + End(2);
    Write(whole);
    EXPECT_EQ(Complaint(whole.size()), "");
    EXPECT_EQ(Complaint(whole.size() - 1),
              "line 4: the recording is larger than " + std::to_string(whole.size() - 1) + " bytes");
    EXPECT_EQ(Complaint(header.size() + 3),
              "line 2: the recording is larger than " + std::to_string(header.size() + 3) + " bytes");
}

TEST_F(RecordingFile, WithMoreValuesThanMemoryShouldHoldIsRefusedAtTheLineThatIsTooMuch) {
    std::string values = "[";
    for (std::uint64_t i = 0; i < mostValues / 2; ++i)
        values += "0,";
    values.back() = ']';
    const std::string line = Replace(Replace(reply, "yiay", "ay"), "[1,2,\"6162\"]", values);
    Write(header + call + Replace(line, "ay", "an"));
    EXPECT_EQ(Complaint(), "line 3: argument 0: not an array");
    Write(header + call + Replace(Replace(line, "ay", "an"), values, "[" + values + "," + values + "]"));
    EXPECT_EQ(Complaint(), "line 3: the recording has more than 4194304 values");
}

TEST_F(RecordingFile, LeavesOutWhatItCannotHoldAndStaysWhole) {
    TCMessageMaker maker;
    TCRecordingWriter writer(m_path, "test", 0);
    Envelope signal;
    signal.path = MavixSim::signalPath;
    signal.interface = MavixSim::signalInterface;
    signal.member = "Data";
    const auto madeEvent =
        maker.Signal(signal, [](sd_bus_message* made) { TCMessageMaker::Append(made, "s", "text"); });
    const Message message = Decode(madeEvent.get(), 1);
    writer.AddEvent(madeEvent.get(), message);
    TCMessageMaker::SpoilText(madeEvent, "");
    EXPECT_THROW(writer.AddEvent(madeEvent.get(), message), std::invalid_argument);
    writer.Finish();
    ASSERT_EQ(ReadRecording(m_path).events.size(), 1u);
}

TEST_F(RecordingFile, ThatCannotBeReadIsRefused) {
    EXPECT_EQ(Complaint(), "No such file or directory");
    EXPECT_THROW(ReadRecording(m_folder.Path()), RecordingError);
    EXPECT_THROW(TCRecordingWriter(m_folder.Path(), "test", 0), std::system_error);
}

TEST_F(RecordingFile, ThatDoesNotFitOnTheDiskIsAFailure) {
    EXPECT_THROW(
        {
            TCRecordingWriter writer("/dev/full", "test", 0);
            writer.Finish();
        },
        std::system_error);
}

} // namespace

} // namespace MavixTraffic
