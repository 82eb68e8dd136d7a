#ifndef MAVIX_TEST_RECEIVED_EVENT_H
#define MAVIX_TEST_RECEIVED_EVENT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <vector>

namespace MavixTest {

// What a callback was told.
struct Event {
    int type = 0;
    int id = 0;
    std::vector<std::uint8_t> payload;

    bool operator==(const Event& other) const {
        return type == other.type && id == other.id && payload == other.payload;
    }
};

inline void PrintTo(const Event& event, std::ostream* out) {
    *out << "type " << event.type << ", id " << event.id << ", payload "
         << testing::PrintToString(event.payload);
}

} // namespace MavixTest

#endif
