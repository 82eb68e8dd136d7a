#ifndef MAVIX_TRAFFIC_RECORDING_H
#define MAVIX_TRAFFIC_RECORDING_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace MavixTraffic {

// The file format: lines of JSON. The first is the header with the names below, the last tells how many lines
// stand between them. docs/monitor.md describes all of it.
inline constexpr const char* recordingFormat = "mavix-recording";
inline constexpr int recordingVersion = 1;
inline constexpr std::uint64_t largestRecording = std::uint64_t{256} * 1024 * 1024;
// In all arguments together: each takes many times the memory of its text.
inline constexpr std::uint64_t mostValues = std::uint64_t{4} * 1024 * 1024;

// The byte order of numbers inside payloads.
const char* ByteOrder();

// What a call was answered with. nlohmann::json is moved without exceptions; only what it asserts in debug
// builds could throw. NOLINTNEXTLINE(bugprone-exception-escape)
struct RecordedReply {
    std::uint64_t atUs = 0;
    std::size_t line = 0;  // in the file
    std::string errorName; // empty for a method return
    std::string signature;
    nlohmann::json arguments;
};

struct RecordedCall {
    std::uint64_t atUs = 0;
    std::string sender;
    std::string destination;
    std::string interface;
    std::int16_t code = 0;
    bool noReply = false;
    std::vector<std::uint8_t> payload;
    // In what it deviated from the layout; what it holds beyond the interface is then not known.
    std::string deviation;
    std::optional<RecordedReply> reply;
};

// NOLINTNEXTLINE(bugprone-exception-escape)
struct RecordedEvent {
    std::uint64_t atUs = 0;
    std::size_t line = 0; // in the file
    // How many calls precede it.
    std::size_t callsBefore = 0;
    std::string destination; // empty for everybody
    std::string path;
    std::string interface;
    std::string member;
    std::string signature;
    nlohmann::json arguments;
};

// Calls in the order of their arrival, events in the order of theirs. Times are microseconds from the
// beginning.
struct Recording {
    std::vector<RecordedCall> calls;
    std::vector<RecordedEvent> events;
};

// Says which file, which line and what is wrong with it.
class RecordingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads all of a recording and checks all of it. Throws RecordingError.
Recording ReadRecording(const std::string& path, std::uint64_t largest = largestRecording);
// The same in two steps, for who needs the text, too. The text may end early when it is too large, and is
// refused then.
std::string ReadRecordingText(const std::string& path, std::uint64_t largest = largestRecording);
Recording ParseRecording(const std::string& path, const std::string& text,
                         std::uint64_t largest = largestRecording);

// FNV-1a, 64 bits, over the bytes of all lines before the last one.
class TCDigest final {
public:
    void Add(const std::string& bytes);
    std::string Text() const;

private:
    std::uint64_t m_value = 0xcbf29ce484222325u;
};

} // namespace MavixTraffic

#endif
