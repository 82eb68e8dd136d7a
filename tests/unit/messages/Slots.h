#ifndef MAVIX_TEST_SLOTS_H
#define MAVIX_TEST_SLOTS_H

#include <cstddef>
#include <cstdint>

namespace MavixTest {

// Calls a virtual function by its place in the table, as a program does that was compiled against the class.
template <class Result, class... Arguments>
Result CallSlot(void* object, std::size_t slot, Arguments... arguments) {
    void* const* table = *static_cast<void* const**>(object);
    return reinterpret_cast<Result (*)(void*, Arguments...)>(table[slot])(object, arguments...);
}

// Where a field stands in its object.
template <class Object, class Field>
std::size_t OffsetOf(const Object& object, const Field& field) {
    return reinterpret_cast<std::uintptr_t>(&field) - reinterpret_cast<std::uintptr_t>(&object);
}

} // namespace MavixTest

#endif
