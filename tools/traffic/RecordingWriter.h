#ifndef MAVIX_TRAFFIC_RECORDING_WRITER_H
#define MAVIX_TRAFFIC_RECORDING_WRITER_H

#include "Message.h"
#include "Recording.h"

#include <cstdio>
#include <memory>

namespace MavixTraffic {

// Writes messages to a file, which is whole once it is finished. Owner: who reads the messages. One thread.
class TCRecordingWriter final {
public:
    // `program` is named in the header. Throws std::system_error when the file cannot be made.
    TCRecordingWriter(const std::string& path, const std::string& program, std::uint64_t startUs);

    // A call under its number, by which its reply names it. What a recording cannot hold is not written, and
    // thrown as std::invalid_argument.
    void AddCall(const Message& message, std::uint64_t number);
    void AddReply(sd_bus_message* raw, const Message& message, std::uint64_t callNumber);
    void AddEvent(sd_bus_message* raw, const Message& message);
    void AddOwner(const Message& message);

    // Writes the last line and closes the file. Throws std::system_error when not all could be written.
    void Finish();

private:
    using Json = nlohmann::ordered_json;

    Json m_NewLine(const Message& message, const char* kind) const;
    void m_Write(const Json& line);

    std::unique_ptr<std::FILE, int (*)(std::FILE*)> m_file;
    const std::string m_path;
    const std::uint64_t m_startUs;
    std::uint64_t m_entries = 0;
    TCDigest m_digest;
};

} // namespace MavixTraffic

#endif
