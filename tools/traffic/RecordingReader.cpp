#include "Body.h"
#include "Hex.h"
#include "JsonNumber.h"
#include "Recording.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

namespace MavixTraffic {

namespace {

using Json = nlohmann::json;

// The members of one line; each is asked for once, and none may remain.
class TCLine final {
public:
    explicit TCLine(Json values) : m_values(std::move(values)) {}

    bool Has(const char* name) const { return m_values.contains(name); }

    template <class Number>
    Number TakeNumber(const char* name) {
        const Json value = m_Take(name);
        if (!IsNumber<Number>(value))
            m_Fail(name, "is not a number that fits");
        return value.get<Number>();
    }

    std::string TakeText(const char* name) {
        Json value = m_Take(name);
        if (!value.is_string())
            m_Fail(name, "is not a text");
        return std::move(value.get_ref<std::string&>());
    }

    bool TakeTruth(const char* name) {
        const Json value = m_Take(name);
        if (!value.is_boolean())
            m_Fail(name, "is not true or false");
        return value.get<bool>();
    }

    std::vector<std::uint8_t> TakeBytes(const char* name) {
        auto bytes = FromHex(TakeText(name));
        if (!bytes)
            m_Fail(name, "is not bytes in hexadecimal");
        return std::move(*bytes);
    }

    // Of the signature that was taken before.
    Json TakeArguments(const std::string& signature) {
        Json value = m_Take("arguments");
        CheckBody(signature, value);
        return value;
    }

    void ExpectEnd() const {
        if (!m_values.empty())
            throw std::invalid_argument("unknown member '" + m_values.begin().key() + "'");
    }

    [[noreturn]] static void m_Fail(const char* name, const char* what) {
        throw std::invalid_argument(std::string("'") + name + "' " + what);
    }

private:
    Json m_Take(const char* name) {
        const auto found = m_values.find(name);
        if (found == m_values.end())
            m_Fail(name, "is missing");
        Json value = std::move(*found);
        m_values.erase(found);
        return value;
    }

    Json m_values;
};

// Reads line after line; what is wrong is thrown as std::invalid_argument, without the position.
class TCRecordingReader final {
public:
    void AddLine(const std::string& text) {
        ++m_line;
        if (m_ended)
            throw std::invalid_argument("a line after the end of the recording");
        TCLine line(m_Parse(text));
        if (!m_started) {
            m_ReadHeader(line);
            m_started = true;
        } else {
            m_ReadEntry(line);
        }
        line.ExpectEnd();
        if (!m_ended)
            m_digest.Add(text + "\n");
    }

    bool Started() const { return m_started; }
    bool Ended() const { return m_ended; }
    Recording Take() { return std::move(m_recording); }

private:
    Json m_Parse(const std::string& text) {
        // The line's members and their arguments, and in these what messages can nest.
        constexpr int deepest = 2 + 64;
        const auto count = [this](int depth, Json::parse_event_t /*event*/, Json& /*value*/) {
            if (depth > deepest)
                throw std::invalid_argument("nested deeper than a message can be");
            if (depth > 1 && ++m_values > mostValues)
                throw std::invalid_argument("the recording has more than " + std::to_string(mostValues) +
                                            " values");
            return true;
        };
        Json values;
        try {
            values = Json::parse(text, count);
        } catch (const Json::parse_error& error) {
            throw std::invalid_argument("not JSON from byte " + std::to_string(error.byte) + " on");
        } catch (const Json::out_of_range&) {
            throw std::invalid_argument("a number that is too large");
        }
        if (!values.is_object())
            throw std::invalid_argument("not a JSON object");
        return values;
    }

    static void m_ReadHeader(TCLine& line) {
        if (!line.Has("format") || line.TakeText("format") != recordingFormat)
            throw std::invalid_argument("not a recording of mavixctl monitor");
        const auto version = line.TakeNumber<std::uint32_t>("version");
        if (version != recordingVersion)
            throw std::invalid_argument("format version " + std::to_string(version) +
                                        "; this program reads version " + std::to_string(recordingVersion));
        const std::string byteOrder = line.TakeText("byteOrder");
        if (byteOrder != ByteOrder())
            throw std::invalid_argument("byte order '" + byteOrder + "'; this machine's is '" + ByteOrder() +
                                        "'");
        line.TakeText("program");
        line.TakeText("started");
    }

    void m_ReadEntry(TCLine& line) {
        const std::string kind = line.TakeText("kind");
        if (kind == "end")
            return m_ReadEnd(line);
        ++m_entries;
        const auto at = line.TakeNumber<std::uint64_t>("at");
        if (at < m_lastUs)
            throw std::invalid_argument("'at' goes back in time");
        m_lastUs = at;
        if (kind == "call")
            m_ReadCall(line, at);
        else if (kind == "reply" || kind == "error")
            m_ReadReply(line, at, kind == "error");
        else if (kind == "event")
            m_ReadEvent(line, at);
        else if (kind == "owner")
            m_ReadOwner(line);
        else
            throw std::invalid_argument("unknown kind '" + kind + "'");
    }

    void m_ReadEnd(TCLine& line) {
        m_ended = true;
        const auto entries = line.TakeNumber<std::uint64_t>("entries");
        if (entries != m_entries)
            throw std::invalid_argument("there should be " + std::to_string(entries) +
                                        " lines between the first and the last, and there are " +
                                        std::to_string(m_entries));
        // Who edits a recording leaves it out.
        if (line.Has("digest") && line.TakeText("digest") != m_digest.Text())
            throw std::invalid_argument("the lines before are not those that were written: their digest is " +
                                        m_digest.Text());
    }

    void m_ReadCall(TCLine& line, std::uint64_t at) {
        RecordedCall call;
        call.atUs = at;
        const auto number = line.TakeNumber<std::uint64_t>("number");
        if (!m_calls.emplace(number, m_recording.calls.size()).second)
            throw std::invalid_argument("a second call of number " + std::to_string(number));
        call.sender = line.TakeText("sender");
        call.destination = line.TakeText("destination");
        call.interface = line.TakeText("interface");
        call.noReply = line.TakeTruth("noReply");
        if (line.Has("deviation")) {
            call.deviation = line.TakeText("deviation");
            line.TakeText("signature");
        } else {
            m_ReadWellFormed(line, call);
        }
        m_recording.calls.push_back(std::move(call));
    }

    static void m_ReadWellFormed(TCLine& line, RecordedCall& call) {
        const auto header = line.TakeNumber<std::int32_t>("header");
        call.code = line.TakeNumber<std::int16_t>("code");
        if (static_cast<std::int16_t>(header & 0xffff) != call.code)
            throw std::invalid_argument("'header' holds another function code");
        line.TakeNumber<std::int32_t>("pid");
        if (line.Has("programName"))
            line.TakeText("programName");
        if (line.Has("timestampSent"))
            line.TakeNumber<std::uint64_t>("timestampSent");
        const auto size = line.TakeNumber<std::uint64_t>("size");
        call.payload = line.TakeBytes("payload");
        if (call.payload.size() != size)
            throw std::invalid_argument("'payload' has " + std::to_string(call.payload.size()) +
                                        " bytes, not " + std::to_string(size));
    }

    void m_ReadReply(TCLine& line, std::uint64_t at, bool isError) {
        const auto number = line.TakeNumber<std::uint64_t>("call");
        const auto found = m_calls.find(number);
        if (found == m_calls.end())
            throw std::invalid_argument("answers call " + std::to_string(number) +
                                        ", which does not precede it");
        RecordedCall& call = m_recording.calls[found->second];
        if (call.noReply || call.reply)
            throw std::invalid_argument("answers call " + std::to_string(number) +
                                        (call.reply ? " a second time" : ", which wants no answer"));
        RecordedReply reply;
        reply.atUs = at;
        reply.line = m_line;
        if (isError) {
            reply.errorName = line.TakeText("name");
            if (sd_bus_interface_name_is_valid(reply.errorName.c_str()) <= 0)
                throw std::invalid_argument("'" + reply.errorName + "' cannot be the name of an error");
        }
        reply.signature = line.TakeText("signature");
        reply.arguments = line.TakeArguments(reply.signature);
        call.reply = std::move(reply);
    }

    void m_ReadEvent(TCLine& line, std::uint64_t at) {
        RecordedEvent event;
        event.atUs = at;
        event.line = m_line;
        event.callsBefore = m_recording.calls.size();
        line.TakeText("sender");
        event.destination = line.TakeText("destination");
        event.path = line.TakeText("path");
        event.interface = line.TakeText("interface");
        event.member = line.TakeText("member");
        m_ExpectValid(event.destination.empty() ||
                          sd_bus_service_name_is_valid(event.destination.c_str()) > 0,
                      "destination");
        m_ExpectValid(sd_bus_object_path_is_valid(event.path.c_str()) > 0, "path");
        m_ExpectValid(sd_bus_interface_name_is_valid(event.interface.c_str()) > 0, "interface");
        m_ExpectValid(sd_bus_member_name_is_valid(event.member.c_str()) > 0, "member");
        event.signature = line.TakeText("signature");
        event.arguments = line.TakeArguments(event.signature);
        m_recording.events.push_back(std::move(event));
    }

    static void m_ReadOwner(TCLine& line) {
        for (const char* name : {"name", "oldOwner", "newOwner"})
            line.TakeText(name);
    }

    static void m_ExpectValid(bool isValid, const char* name) {
        if (!isValid)
            TCLine::m_Fail(name, "is not what D-Bus allows");
    }

    Recording m_recording;
    std::map<std::uint64_t, std::size_t> m_calls; // by number
    TCDigest m_digest;
    std::uint64_t m_entries = 0;
    std::uint64_t m_values = 0;
    std::size_t m_line = 0;
    std::uint64_t m_lastUs = 0;
    bool m_started = false;
    bool m_ended = false;
};

} // namespace

std::string ReadRecordingText(const std::string& path, std::uint64_t largest) {
    errno = 0;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    std::string text;
    std::size_t count = 1;
    while (file && count > 0 && text.size() <= largest) {
        char chunk[65536];
        count = std::fread(chunk, 1, std::min<std::uint64_t>(sizeof chunk, largest + 1 - text.size()),
                           file.get());
        text.append(chunk, count);
    }
    if (!file || std::ferror(file.get()) != 0)
        throw RecordingError(path + ": " + std::strerror(errno));
    return text;
}

Recording ParseRecording(const std::string& path, const std::string& text, std::uint64_t largest) {
    TCRecordingReader reader;
    std::size_t number = 0;
    const auto fail = [&](const std::string& what) {
        throw RecordingError(path + ": line " + std::to_string(number) + ": " + what);
    };
    for (std::size_t start = 0; start < text.size();) {
        ++number;
        const std::size_t end = text.find('\n', start);
        if (end >= largest)
            fail(text.size() > largest ? "the recording is larger than " + std::to_string(largest) + " bytes"
                                       : "cut in the middle of a line");
        try {
            reader.AddLine(text.substr(start, end - start));
        } catch (const std::invalid_argument& error) {
            fail(error.what());
        }
        start = end + 1;
    }
    ++number;
    if (!reader.Started())
        fail("empty, not a recording of mavixctl monitor");
    if (!reader.Ended())
        fail("the recording has no last line: it was cut, or its monitor was killed");
    return reader.Take();
}

Recording ReadRecording(const std::string& path, std::uint64_t largest) {
    return ParseRecording(path, ReadRecordingText(path, largest), largest);
}

} // namespace MavixTraffic
