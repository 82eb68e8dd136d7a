#include "RecordingWriter.h"

#include "Body.h"
#include "Hex.h"

#include <cerrno>
#include <ctime>
#include <system_error>

namespace MavixTraffic {

namespace {

// Whatever bytes a peer put where texts belong, a line stays valid.
constexpr auto replaceInvalid = nlohmann::json::error_handler_t::replace;

std::string UtcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

} // namespace

TCRecordingWriter::TCRecordingWriter(const std::string& path, const std::string& program,
                                     std::uint64_t startUs)
    : m_file(std::fopen(path.c_str(), "we"), std::fclose), m_path(path), m_startUs(startUs) {
    if (!m_file)
        throw std::system_error(errno, std::generic_category(), "cannot write '" + path + "'");
    Json header;
    header["format"] = recordingFormat;
    header["version"] = recordingVersion;
    header["program"] = program;
    header["started"] = UtcNow();
    header["byteOrder"] = ByteOrder();
    m_Write(header);
    m_entries = 0;
}

TCRecordingWriter::Json TCRecordingWriter::m_NewLine(const Message& message, const char* kind) const {
    Json line;
    line["at"] = message.atUs > m_startUs ? message.atUs - m_startUs : 0;
    line["kind"] = kind;
    return line;
}

void TCRecordingWriter::AddCall(const Message& message, std::uint64_t number) {
    const MavixSim::Call& call = message.call;
    Json line = m_NewLine(message, "call");
    line["number"] = number;
    line["sender"] = message.sender;
    line["destination"] = message.destination;
    line["interface"] = message.interface;
    line["noReply"] = call.noReply;
    if (!message.deviation.empty()) {
        line["deviation"] = message.deviation;
        line["signature"] = message.signature;
    } else {
        line["header"] = *call.header;
        line["code"] = call.Code();
        line["pid"] = *call.pid;
        if (call.programName)
            line["programName"] = *call.programName;
        if (call.timestampSent)
            line["timestampSent"] = *call.timestampSent;
        line["size"] = message.payloadSize;
        line["payload"] = ToHex(message.payload, message.payloadSize);
    }
    m_Write(line);
}

void TCRecordingWriter::AddReply(sd_bus_message* raw, const Message& message, std::uint64_t callNumber) {
    Json line = m_NewLine(message, KindName(message.kind));
    line["call"] = callNumber;
    if (message.kind == Kind::Error)
        line["name"] = message.reply.errorName;
    line["signature"] = message.signature;
    line["arguments"] = ReadBody(raw);
    m_Write(line);
}

void TCRecordingWriter::AddEvent(sd_bus_message* raw, const Message& message) {
    Json line = m_NewLine(message, "event");
    line["sender"] = message.sender;
    line["destination"] = message.destination;
    line["path"] = message.path;
    line["interface"] = message.interface;
    line["member"] = message.member;
    line["signature"] = message.signature;
    line["arguments"] = ReadBody(raw);
    m_Write(line);
}

void TCRecordingWriter::AddOwner(const Message& message) {
    Json line = m_NewLine(message, "owner");
    line["name"] = message.owner.name;
    line["oldOwner"] = message.owner.oldOwner;
    line["newOwner"] = message.owner.newOwner;
    m_Write(line);
}

void TCRecordingWriter::Finish() {
    Json line;
    line["kind"] = "end";
    line["entries"] = m_entries;
    line["digest"] = m_digest.Text();
    m_Write(line);
    if (std::fclose(m_file.release()) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot write '" + m_path + "'");
}

void TCRecordingWriter::m_Write(const Json& line) {
    const std::string text = line.dump(-1, ' ', false, replaceInvalid) + "\n";
    m_digest.Add(text);
    ++m_entries;
    if (std::fwrite(text.data(), 1, text.size(), m_file.get()) != text.size())
        throw std::system_error(errno, std::generic_category(), "cannot write '" + m_path + "'");
}

} // namespace MavixTraffic
