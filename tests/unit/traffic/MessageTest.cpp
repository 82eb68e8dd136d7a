#include "Message.h"

#include "MessageMaker.h"

#include "sim/AuxBlock.h"

#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

namespace MavixTraffic {

namespace {

using MavixTest::Bytes;
using MavixTest::Envelope;
using MavixTest::TCMessageMaker;

std::string Payload(const Message& message) {
    return {reinterpret_cast<const char*>(message.payload), message.payloadSize};
}

Bytes BytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes Aux(std::initializer_list<std::pair<std::uint32_t, std::uint64_t>> timestamps) {
    Bytes block;
    for (const auto& [tag, value] : timestamps)
        MavixSim::AppendAuxTimestamp(block, tag, value);
    return block;
}

struct CallRow {
    const char* name;
    std::int16_t code;
    unsigned flags;
    bool noReply;
    std::optional<std::string> programName;
    std::string payload;
    std::optional<std::uint64_t> timestampSent;
    const char* signature;
};

TEST(Message, DecodesCallsInAllForms) {
    const std::optional<std::string> noName;
    const std::optional<std::uint64_t> noTime;
    const CallRow rows[] = {
        {"empty", 1, 0, false, noName, "", noTime, "iii"},
        {"payload", 66, 0, false, noName, "ab", noTime, "iiiay"},
        {"program name", 1, 2, false, "tour", "", noTime, "iiis"},
        {"program name and payload", 1, 2, false, "tour", "ab", noTime, "iiisay"},
        {"timestamp", 1, 4, false, noName, "", 12, "iiiiay"},
        {"timestamp and payload", 1, 4, false, noName, "ab", 12, "iiiayiay"},
        {"all", 32767, 7, true, "tour", "ab", 12, "iiisayiay"},
        {"no reply", 1, 1, true, noName, "ab", noTime, "iiiay"},
        {"no reply, program name", 1, 3, true, "tour", "", noTime, "iiis"},
        {"negative code", -1, 0xffff, false, "tour", "ab", 12, "iiisayiay"},
    };
    TCMessageMaker maker;
    for (const CallRow& row : rows) {
        Envelope envelope;
        envelope.noReply = row.noReply;
        const auto message = maker.Call(envelope, [&](sd_bus_message* made) {
            const std::uint32_t header = row.flags << 16 | static_cast<std::uint16_t>(row.code);
            TCMessageMaker::Append(made, "iii", static_cast<int>(header),
                                   static_cast<int>(row.payload.size()), 4711);
            if (row.programName)
                TCMessageMaker::Append(made, "s", row.programName->c_str());
            if (!row.payload.empty())
                TCMessageMaker::AppendBytes(made, BytesOf(row.payload));
            if (row.timestampSent) {
                TCMessageMaker::Append(made, "i", 16);
                TCMessageMaker::AppendBytes(made, Aux({{4, *row.timestampSent}}));
            }
        });
        const Message decoded = Decode(message.get(), 77);
        EXPECT_EQ(decoded.kind, Kind::Call) << row.name;
        EXPECT_EQ(decoded.deviation, "") << row.name;
        EXPECT_EQ(decoded.atUs, 77u) << row.name;
        EXPECT_EQ(decoded.sender, ":1.7") << row.name;
        EXPECT_EQ(decoded.destination, "com.norvale.MavixAPI") << row.name;
        EXPECT_EQ(decoded.interface, "com.norvale.ITest") << row.name;
        EXPECT_EQ(decoded.serial, 9u) << row.name;
        EXPECT_EQ(decoded.signature, row.signature) << row.name;
        EXPECT_EQ(decoded.call.Code(), row.code) << row.name;
        EXPECT_EQ(decoded.call.Flags(), row.flags) << row.name;
        EXPECT_EQ(decoded.call.FlagsKnown(), row.code >= 0) << row.name;
        EXPECT_EQ(decoded.call.noReply, row.noReply) << row.name;
        EXPECT_EQ(decoded.call.pid, 4711) << row.name;
        EXPECT_EQ(decoded.call.programName, row.programName) << row.name;
        EXPECT_EQ(Payload(decoded), row.payload) << row.name;
        EXPECT_EQ(decoded.call.timestampSent, row.timestampSent) << row.name;
    }
}

struct DeviationRow {
    const char* name;
    Envelope envelope;
    TCMessageMaker::Fill fill;
    const char* deviation;
    const char* payload = ""; // as far as it was decoded
};

TEST(Message, SaysInWhatACallDeviates) {
    Envelope wrongPath;
    wrongPath.path = "/elsewhere";
    Envelope wrongMember;
    wrongMember.member = "Other";
    Envelope elsewhere;
    elsewhere.destination = "com.example.Other";
    Envelope session;
    session.interface = "com.norvale.ISessionControl";
    const auto nothing = [](sd_bus_message*) {};
    const DeviationRow rows[] = {
        {"no arguments", {}, nothing, "header word: expected type 'i', found the end"},
        {"wrong path", wrongPath, nothing, "unexpected object path '/elsewhere'"},
        {"wrong member", wrongMember, nothing, "unexpected member 'Other'"},
        {"wrong destination", elsewhere, nothing,
         "addressed to 'com.example.Other', not to one of the service's names"},
        {"session interface elsewhere", session, nothing,
         "interface 'com.norvale.ISessionControl' is not served on 'com.norvale.MavixAPI'"},
        {"size",
         {},
         [](sd_bus_message* made) {
             TCMessageMaker::Append(made, "iii", 1, 3, 4711);
             TCMessageMaker::AppendBytes(made, {'a', 'b'});
         },
         "payload: size 3 announced, 2 bytes found",
         "ab"},
        {"end",
         {},
         [](sd_bus_message* made) {
             TCMessageMaker::Append(made, "iii", 1, 2, 4711);
             TCMessageMaker::AppendBytes(made, {'a', 'b'});
             TCMessageMaker::Append(made, "iayd", 16, 0, 1.0);
         },
         "auxiliary block: length 16 announced, 0 bytes found",
         "ab"},
    };
    TCMessageMaker maker;
    for (const DeviationRow& row : rows) {
        const auto message = maker.Call(row.envelope, row.fill);
        const Message decoded = Decode(message.get(), 0);
        EXPECT_EQ(decoded.kind, Kind::Call) << row.name;
        EXPECT_EQ(decoded.deviation, row.deviation) << row.name;
        EXPECT_EQ(Payload(decoded), row.payload) << row.name;
    }
}

TEST(Message, LeavesCallsThatAreNotForTheServiceAlone) {
    TCMessageMaker maker;
    Envelope control;
    control.path = "/com/norvale/Sim";
    control.interface = "com.norvale.Sim";
    Envelope introspection;
    introspection.path = "/";
    introspection.interface = "org.freedesktop.DBus.Introspectable";
    Envelope other;
    other.destination = "com.example.Other";
    other.path = "/com/example";
    for (const Envelope& envelope : {control, introspection, other})
        EXPECT_EQ(Decode(maker.Call(envelope, [](sd_bus_message*) {}).get(), 0).kind, Kind::Other)
            << envelope.interface;
}

struct ReplyRow {
    const char* name;
    TCMessageMaker::Fill fill;
    std::optional<std::uint8_t> value;
    const char* payload;
    std::optional<std::uint64_t> received;
    std::optional<std::uint64_t> sent;
    const char* deviation;
};

TEST(Message, DecodesRepliesInAllForms) {
    const auto reply = [](std::uint8_t value, int length, const std::optional<Bytes>& aux) {
        return [=](sd_bus_message* made) {
            TCMessageMaker::Append(made, "yi", value, length);
            TCMessageMaker::AppendBytes(made, {'a', 'b'});
            if (aux) {
                TCMessageMaker::Append(made, "i", static_cast<int>(aux->size()));
                TCMessageMaker::AppendBytes(made, *aux);
            }
        };
    };
    const std::optional<std::uint64_t> none;
    Bytes cut = Aux({{2, 5}, {4, 6}});
    cut.resize(cut.size() - 3);
    const ReplyRow rows[] = {
        {"plain", reply(1, 2, std::nullopt), 1, "ab", none, none, ""},
        {"both timestamps", reply(7, 2, Aux({{2, 5}, {4, 6}})), 7, "ab", 5, 6, ""},
        {"receive timestamp", reply(3, 2, Aux({{2, 5}})), 3, "ab", 5, none, ""},
        {"send timestamp", reply(5, 2, Aux({{4, 6}})), 5, "ab", none, 6, ""},
        {"announced, but absent", reply(5, 2, std::nullopt), 5, "ab", none, none,
         "auxiliary length: expected type 'i', found the end"},
        {"cut block", reply(7, 2, cut), 7, "ab", 5, none, "auxiliary block: value of 8 bytes"},
        {"length lies", reply(1, 1002, std::nullopt), 1, "ab", none, none,
         "payload: length 1002 announced, 2 bytes found"},
        {"more", reply(1, 2, Bytes()), 1, "ab", none, none, "trailing argument of type 'i'"},
        {"broken byte", [](sd_bus_message* made) { TCMessageMaker::Append(made, "y", 0); }, 0, "", none, none,
         "reply byte 0 says that the reply is broken"},
        {"broken byte with block",
         [](sd_bus_message* made) {
             TCMessageMaker::Append(made, "yi", 6, 32);
             TCMessageMaker::AppendBytes(made, Aux({{2, 5}, {4, 6}}));
         },
         6, "", 5, 6, "reply byte 6 says that the reply is broken"},
        {"empty", [](sd_bus_message*) {}, std::nullopt, "", none, none,
         "reply byte: expected type 'y', found the end"},
        {"text for byte", [](sd_bus_message* made) { TCMessageMaker::Append(made, "s", "1"); }, std::nullopt,
         "", none, none, "reply byte: expected type 'y', found 's'"},
        {"text for payload", [](sd_bus_message* made) { TCMessageMaker::Append(made, "yis", 1, 3, "one"); },
         1, "", none, none, "payload: expected type 'ay', found 's'"},
    };
    TCMessageMaker maker;
    for (const ReplyRow& row : rows) {
        const auto message = maker.Return(row.fill);
        const Message decoded = Decode(message.get(), 100000);
        EXPECT_EQ(decoded.kind, Kind::Reply) << row.name;
        EXPECT_EQ(decoded.destination, ":1.7") << row.name;
        EXPECT_EQ(decoded.replySerial, 5u) << row.name;
        EXPECT_EQ(decoded.reply.value, row.value) << row.name;
        EXPECT_EQ(Payload(decoded), row.payload) << row.name;
        EXPECT_EQ(decoded.reply.timestampReceived, row.received) << row.name;
        EXPECT_EQ(decoded.reply.timestampSent, row.sent) << row.name;
        EXPECT_EQ(decoded.deviation, row.deviation) << row.name;
    }
}

TEST(Message, DecodesErrorsWithAndWithoutAText) {
    TCMessageMaker maker;
    const auto text = maker.Error("com.norvale.Error.A",
                                  [](sd_bus_message* made) { TCMessageMaker::Append(made, "s", "no"); });
    const Message withText = Decode(text.get(), 0);
    EXPECT_EQ(withText.kind, Kind::Error);
    EXPECT_EQ(withText.reply.errorName, "com.norvale.Error.A");
    EXPECT_EQ(withText.reply.errorText, "no");
    const auto number = maker.Error("com.norvale.Error.B",
                                    [](sd_bus_message* made) { TCMessageMaker::Append(made, "i", 7); });
    EXPECT_EQ(Decode(number.get(), 0).reply.errorText, std::nullopt);
    const auto empty = maker.Error("com.norvale.Error.C", [](sd_bus_message*) {});
    EXPECT_EQ(Decode(empty.get(), 0).reply.errorText, std::nullopt);
    EXPECT_EQ(Decode(empty.get(), 0).deviation, "");
}

Envelope EventEnvelope(const char* member) {
    Envelope envelope;
    envelope.path = MavixSim::signalPath;
    envelope.interface = MavixSim::signalInterface;
    envelope.member = member;
    return envelope;
}

TEST(Message, DecodesEventsOfAllTypes) {
    TCMessageMaker maker;
    for (const MavixSim::EventType& type : MavixSim::eventTypes) {
        const auto message = maker.Signal(EventEnvelope(type.member), [&](sd_bus_message* made) {
            TCMessageMaker::Append(made, "s", "11");
            if (type.hasFurther)
                TCMessageMaker::Append(made, "s", "more");
            TCMessageMaker::Append(made, "s", "65578");
            TCMessageMaker::AppendBytes(made, {'a', 'b'});
        });
        const Message decoded = Decode(message.get(), 0);
        EXPECT_EQ(decoded.kind, Kind::Event) << type.member;
        EXPECT_EQ(decoded.deviation, "") << type.member;
        ASSERT_EQ(decoded.event.type, &type);
        EXPECT_EQ(decoded.event.idText, "11") << type.member;
        EXPECT_EQ(decoded.event.furtherText.value_or("none"), type.hasFurther ? "more" : "none")
            << type.member;
        EXPECT_EQ(decoded.event.handleText, "65578") << type.member;
        EXPECT_EQ(Payload(decoded), "ab") << type.member;
    }
}

TEST(Message, SaysInWhatAnEventDeviates) {
    const auto whole = [](sd_bus_message* made) {
        TCMessageMaker::Append(made, "ss", "11", "5");
        TCMessageMaker::AppendBytes(made, {'a'});
    };
    Envelope elsewhere = EventEnvelope("Data");
    elsewhere.interface = "com.norvale.Mavix.OtherIFace";
    Envelope otherPath = EventEnvelope("Data");
    otherPath.path = "/elsewhere";
    const DeviationRow rows[] = {
        {"unknown member", EventEnvelope("NoSuchEvent"), whole, "no type of event 'NoSuchEvent'", "a"},
        {"other interface", elsewhere, whole, "unexpected interface 'com.norvale.Mavix.OtherIFace'", "a"},
        {"other path", otherPath, whole, "unexpected object path '/elsewhere'", "a"},
        {"no arguments", EventEnvelope("Data"), [](sd_bus_message*) {},
         "event id: expected type 's', found the end"},
        {"no payload", EventEnvelope("Data"),
         [](sd_bus_message* made) { TCMessageMaker::Append(made, "ss", "11", "5"); },
         "payload: expected type 'ay', found the end"},
        {"more", EventEnvelope("Data"),
         [&](sd_bus_message* made) {
             whole(made);
             TCMessageMaker::Append(made, "s", "more");
         },
         "trailing argument of type 's'", "a"},
    };
    TCMessageMaker maker;
    for (const DeviationRow& row : rows) {
        const auto message = maker.Signal(row.envelope, row.fill);
        const Message decoded = Decode(message.get(), 0);
        EXPECT_EQ(decoded.kind, Kind::Event) << row.name;
        EXPECT_EQ(decoded.deviation, row.deviation) << row.name;
        EXPECT_EQ(Payload(decoded), row.payload) << row.name;
    }
}

TEST(Message, WhoseTextTheBusLibraryDoesNotHandOutDeviates) {
    TCMessageMaker maker;
    const auto event = maker.Signal(EventEnvelope("Data"), [](sd_bus_message* made) {
        TCMessageMaker::Append(made, "ss", "11", "handle");
    });
    TCMessageMaker::SpoilText(event, "s");
    const Message decodedEvent = Decode(event.get(), 0);
    EXPECT_EQ(decodedEvent.kind, Kind::Event);
    EXPECT_EQ(decodedEvent.event.idText, "11");
    EXPECT_EQ(decodedEvent.deviation, "handle: a text that cannot be read");
    const auto call = maker.Call({}, [](sd_bus_message* made) {
        TCMessageMaker::Append(made, "iiis", 2 << 16 | 66, 0, 4711, "tour");
    });
    TCMessageMaker::SpoilText(call, "iii");
    const Message decodedCall = Decode(call.get(), 0);
    EXPECT_EQ(decodedCall.kind, Kind::Call);
    EXPECT_EQ(decodedCall.call.pid, 4711);
    EXPECT_EQ(decodedCall.deviation, "program name: a text that cannot be read");
    const auto error = maker.Error("com.norvale.Error.A",
                                   [](sd_bus_message* made) { TCMessageMaker::Append(made, "s", "text"); });
    TCMessageMaker::SpoilText(error, "");
    const Message decodedError = Decode(error.get(), 0);
    EXPECT_EQ(decodedError.kind, Kind::Error);
    EXPECT_EQ(decodedError.reply.errorName, "com.norvale.Error.A");
    EXPECT_EQ(decodedError.deviation, "error text: a text that cannot be read");
}

TEST(Message, DecodesOwnerChanges) {
    TCMessageMaker maker;
    Envelope envelope;
    envelope.path = "/org/freedesktop/DBus";
    envelope.interface = "org.freedesktop.DBus";
    envelope.member = "NameOwnerChanged";
    const auto message = maker.Signal(envelope, [](sd_bus_message* made) {
        TCMessageMaker::Append(made, "sss", "com.norvale.MavixAPI", "", ":1.9");
    });
    const Message decoded = Decode(message.get(), 0);
    EXPECT_EQ(decoded.kind, Kind::Owner);
    EXPECT_EQ(decoded.owner.name, "com.norvale.MavixAPI");
    EXPECT_EQ(decoded.owner.oldOwner, "");
    EXPECT_EQ(decoded.owner.newOwner, ":1.9");
}

} // namespace

} // namespace MavixTraffic
