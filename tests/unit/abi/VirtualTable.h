#ifndef MAVIX_TEST_VIRTUAL_TABLE_H
#define MAVIX_TEST_VIRTUAL_TABLE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <memory>
#include <new>
#include <utility>

namespace MavixTest {

// Programs that were built against an older library call a virtual function by its number, whatever its name
// is by now. So do these helpers: the Itanium C++ ABI puts the pointer to the table first in the object, the
// table's functions behind that address and the distance to the whole object two words before it. A virtual
// destructor has two functions: one that destroys, and one that frees the storage too.

template <class Signature>
struct SlotFunction;
template <class Result, class... Arguments>
struct SlotFunction<Result(Arguments...)> {
    using Pointer = Result (*)(const void*, Arguments...);
};

inline void* const* TableOf(const void* object) {
    void* const* table = nullptr;
    std::memcpy(&table, object, sizeof table);
    return table;
}

// CallSlot<bool(int)>(object, 2, 7) calls the function of the third slot.
template <class Signature, class... Arguments>
decltype(auto) CallSlot(const void* object, std::size_t slot, Arguments&&... arguments) {
    const auto function = reinterpret_cast<typename SlotFunction<Signature>::Pointer>(TableOf(object)[slot]);
    return function(object, std::forward<Arguments>(arguments)...);
}

inline std::ptrdiff_t OffsetToWholeObject(const void* object) {
    std::ptrdiff_t offset = 0;
    std::memcpy(&offset, TableOf(object) - 2, sizeof offset);
    return offset;
}

// How many words the tables of the object's class have, by the size of their symbol: for each table two words
// in front, and the slots.
inline std::size_t TableWords(const void* object) {
    Dl_info info{};
    void* symbol = nullptr;
    if (dladdr1(TableOf(object), &info, &symbol, RTLD_DL_SYMENT) == 0 || symbol == nullptr) {
        return 0;
    }
    return static_cast<const ElfW(Sym)*>(symbol)->st_size / sizeof(void*);
}

// For a class with one table.
inline std::size_t SlotCount(const void* object) {
    return TableWords(object) - 2;
}

// Tells what became of an object.
template <class Base>
class Mortal final : public Base {
public:
    ~Mortal() override { ++destroyed; }
    static void* operator new(std::size_t size) { return ::operator new(size); }
    static void* operator new(std::size_t /*size*/, void* place) { return place; }
    static void operator delete(void* object) {
        ++freed;
        ::operator delete(object);
    }

    static inline int destroyed = 0;
    static inline int freed = 0;
};

template <class Base>
void ExpectDestructorInTheFirstTwoSlots() {
    using Object = Mortal<Base>;
    alignas(Object) unsigned char storage[sizeof(Object)];
    CallSlot<void()>(new (storage) Object, 0);
    EXPECT_EQ(1, Object::destroyed);
    EXPECT_EQ(0, Object::freed);
    CallSlot<void()>(new Object, 1);
    EXPECT_EQ(2, Object::destroyed);
    EXPECT_EQ(1, Object::freed);
}

// One virtual function of an interface: what a recording implementation says of a call that went through the
// slot. The rows of a table stand in slot order.
struct SlotUse {
    const char* recorded;
    void (*call)(void* object, std::size_t slot);
};

template <class Object, std::size_t Count>
void ExpectSlots(Object& object, std::size_t firstSlot, const SlotUse (&uses)[Count]) {
    for (std::size_t at = 0; at < Count; ++at) {
        object.last.clear();
        uses[at].call(&object, firstSlot + at);
        EXPECT_EQ(uses[at].recorded, object.last) << "slot " << firstSlot + at;
    }
}

} // namespace MavixTest

#endif
