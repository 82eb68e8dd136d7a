#ifndef MAVIX_TEST_AUX_DATA_HELPERS_H
#define MAVIX_TEST_AUX_DATA_HELPERS_H

#include "IpcAuxData.h"
#include "RecordingPlatform.h"

#include <string>
#include <vector>

namespace MavixTest {

constexpr unsigned long long someTime = 0x1122334455667788;
inline const std::string someTimeBytes = "\x88\x77\x66\x55\x44\x33\x22\x11";
// The headers of records of 8 bytes.
inline const std::string received("\2\0\0\0\10\0\0\0", 8);
inline const std::string sent("\4\0\0\0\10\0\0\0", 8);

// The encoded form; "failed" when there is none.
inline std::string Stored(const MavixApiLite::IpcAuxData& aux) {
    std::vector<char> out{'o', 'l', 'd'};
    if (!aux.Store(out)) {
        return out.empty() ? "failed" : "failed, with bytes left in the output";
    }
    return std::string(out.begin(), out.end());
}

inline std::string LogLines() {
    std::string lines;
    for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
        lines += std::to_string(line.priority) + " " + line.tag + " " + line.source + " " + line.text + "\n";
    }
    return lines;
}

} // namespace MavixTest

#endif
