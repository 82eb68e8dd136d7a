#ifndef MAVIX_TEST_EVENT_COLLECTOR_H
#define MAVIX_TEST_EVENT_COLLECTOR_H

#include "IpcTypes.h"

#include <ostream>
#include <string>
#include <vector>

namespace MavixTest {

// An event as its callback got it.
struct Event {
    int type = 0;
    int id = 0;
    std::string data;

    bool operator==(const Event& other) const {
        return type == other.type && id == other.id && data == other.data;
    }
};

inline std::ostream& operator<<(std::ostream& out, const Event& event) {
    return out << "type " << event.type << ", id " << event.id << ", " << event.data.size() << " bytes '"
               << event.data << "'";
}

// Callbacks, one a type, that keep what they get. One thread.
class EventCollector final {
public:
    static std::vector<Event>& Events() {
        static std::vector<Event> events;
        return events;
    }

    template <int type>
    static void Callback(int id, const char* data, int length) {
        Events().push_back({type, id, std::string(data, static_cast<std::size_t>(length))});
    }

    // The callback of each of the 14 types.
    static MavixEventCallback CallbackOf(int type) {
        static constexpr MavixEventCallback callbacks[] = {
            Callback<0>, Callback<1>, Callback<2>, Callback<3>,  Callback<4>,  Callback<5>,  Callback<6>,
            Callback<7>, Callback<8>, Callback<9>, Callback<10>, Callback<11>, Callback<12>, Callback<13>,
        };
        return callbacks[type];
    }
};

} // namespace MavixTest

#endif
