#ifndef MAVIX_TEST_RANDOM_BODY_H
#define MAVIX_TEST_RANDOM_BODY_H

#include "sim/Handles.h"

#include <random>
#include <string>

namespace MavixTest {

// Arguments of random types and values, the same ones for the same seed. One thread.
class TCRandomBody final {
public:
    explicit TCRandomBody(unsigned int seed) : m_random(seed) {}

    // Appends up to six of them.
    void AppendTo(sd_bus_message* message);
    unsigned int Below(unsigned int limit) {
        return std::uniform_int_distribution<unsigned int>(0, limit - 1)(m_random);
    }

private:
    std::string m_Type(int depth);
    void m_Append(sd_bus_message* message, const std::string& type, int depth);
    void m_AppendAll(sd_bus_message* message, const std::string& types, int depth);
    void m_AppendBasic(sd_bus_message* message, char type);
    void m_AppendArray(sd_bus_message* message, const std::string& type, int depth);

    std::mt19937 m_random;
};

} // namespace MavixTest

#endif
