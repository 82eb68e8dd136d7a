#include "CacheFixture.h"
#include "ChildProgram.h"
#include "IPCCache_C.h"

#include <cstring>

using namespace MavixTest;

namespace {

enum Priority { debug = 3, info = 4, warning = 5, error = 6 };

constexpr unsigned long nameAlone = ~0UL;

class Flat : public CacheFixture {
protected:
    // The value of a key as the class sees it.
    std::string Stored(const std::string& key) const {
        IPCCache cache(Name(), IPCCache::AccessType::Read);
        return Get(cache, key);
    }

    static std::string Read(void* cache, const char* name, unsigned long id) {
        char* data = nullptr;
        std::size_t size = 0;
        if (!IPCCache_GetData(cache, name, id, &data, &size)) {
            return none;
        }
        const std::string value(data, size);
        TCFreeMemory(data);
        return value;
    }
};

} // namespace

TEST_F(Flat, WritesReadsAndResetsAValue) {
    void* writer = IPCCache_CreateWriter(Name().c_str());
    void* reader = IPCCache_CreateReader(Name().c_str());
    IPCCache_SetData(writer, "name", 5, "value", 5);
    EXPECT_EQ("value", Read(reader, "name", 5));
    EXPECT_EQ("value", Read(writer, "name", 5));
    EXPECT_EQ(none, Read(reader, "name", 6));
    EXPECT_TRUE(IPCCache_ResetData(writer, "name", 5));
    EXPECT_FALSE(IPCCache_ResetData(writer, "name", 5));
    EXPECT_EQ(none, Read(reader, "name", 5));
    EXPECT_TRUE(IPCCache_Destroy(reader));
    EXPECT_TRUE(IPCCache_Destroy(writer));
}

TEST_F(Flat, KeyIsTheNameAndTheTwoHalvesOfTheId) {
    struct Row {
        const char* name;
        unsigned long id;
        const char* key;
    };
    void* writer = IPCCache_CreateWriter(Name().c_str());
    for (const Row& row : {Row{"A", 0x30005UL, "A3:5"},
                           {"A", 0UL, "A0:0"},
                           {"A", nameAlone, "A"},
                           {"A", 0xFFFFFFFFUL, "A65535:65535"},
                           {"A", 0x10000UL, "A1:0"},
                           {"A", 0xFFFFUL, "A0:65535"},
                           {"A", 0xFFFFFFFF00010002UL, "A1:2"},
                           {"A", nameAlone - 1, "A65535:65534"},
                           {"", 7UL, "0:7"},
                           {"", nameAlone, ""}}) {
        const std::string value = std::string("value of ") + row.key;
        IPCCache_SetData(writer, row.name, row.id, value.data(), value.size());
        EXPECT_EQ(value, Stored(row.key)) << row.key;
        EXPECT_EQ(value, Read(writer, row.name, row.id)) << row.key;
        EXPECT_TRUE(IPCCache_ResetData(writer, row.name, row.id)) << row.key;
        EXPECT_EQ(none, Stored(row.key)) << row.key;
    }
    EXPECT_TRUE(IPCCache_Destroy(writer));
}

TEST_F(Flat, GetWithoutASizePointerReturnsTheBuffer) {
    void* writer = IPCCache_CreateWriter(Name().c_str());
    IPCCache_SetData(writer, "name", nameAlone, "value", 6);
    char* data = nullptr;
    EXPECT_TRUE(IPCCache_GetData(writer, "name", nameAlone, &data, nullptr));
    EXPECT_STREQ("value", data);
    TCFreeMemory(data);
    EXPECT_TRUE(IPCCache_Destroy(writer));
}

TEST_F(Flat, AFailedGetLeavesItsOutputsAlone) {
    void* reader = IPCCache_CreateReader(Name().c_str());
    char byte = 0;
    char* data = &byte;
    std::size_t size = 7;
    EXPECT_FALSE(IPCCache_GetData(reader, "name", 0, &data, &size));
    EXPECT_EQ(&byte, data);
    EXPECT_EQ(7U, size);
    EXPECT_TRUE(IPCCache_Destroy(reader));
}

TEST_F(Flat, KeyOfTheGuardIsRefused) {
    void* writer = IPCCache_CreateWriter(Name().c_str());
    IPCCache_SetData(writer, "name", 0, "value", 5);
    IPCCache_SetData(writer, "write_guard", nameAlone, "\1\1\1\1", 4);
    EXPECT_FALSE(IPCCache_ResetData(writer, "write_guard", nameAlone));
    EXPECT_EQ(none, Read(writer, "write_guard", nameAlone));
    EXPECT_EQ("value", Read(writer, "name", 0));
    IPCCache_SetData(writer, "write_guard", 0, "thing", 5);
    EXPECT_EQ("thing", Read(writer, "write_guard", 0));
    EXPECT_TRUE(IPCCache_Destroy(writer));
}

TEST_F(Flat, DestroyingNothingFails) {
    EXPECT_FALSE(IPCCache_Destroy(nullptr));
}

TEST_F(Flat, FreeingNothingDoesNothing) {
    TCFreeMemory(nullptr);
}

MAVIX_CHILD(UseCacheWrongly) {
    const std::string& what = arguments.at(0);
    const char* const null = nullptr;
    char* data = nullptr;
    if (what == "CreateReader") {
        IPCCache_CreateReader(null);
    } else if (what == "CreateWriter") {
        IPCCache_CreateWriter(null);
    }
    void* writer = IPCCache_CreateWriter("wrong-use");
    void* reader = IPCCache_CreateReader("wrong-use");
    if (what == "GetData") {
        IPCCache_GetData(reader, null, 0, &data, nullptr);
    } else if (what == "SetData") {
        IPCCache_SetData(writer, null, 0, "value", 5);
    } else if (what == "ResetData") {
        IPCCache_ResetData(writer, null, 0);
    } else if (what == "SetData of a reader") {
        IPCCache_SetData(reader, "name", 0, "value", 5);
    } else if (what == "ResetData of a reader") {
        IPCCache_ResetData(reader, "name", 0);
    } else if (what == "SetData of a reader, reserved") {
        IPCCache_SetData(reader, "write_guard", nameAlone, "value", 5);
    }
    IPCCache_Destroy(reader);
    IPCCache_Destroy(writer);
    return 0;
}

TEST_F(Flat, WrongUseStopsTheProcessInEveryBuildAndFlavour) {
    if (!CanChooseFlavour()) {
        GTEST_SKIP() << noFlavourReason;
    }
    struct Row {
        const char* what;
        const char* expression;
    };
    const char* const readOnly =
        "d->accessType() == AccessType::Write && \"Calling setData on readonly cache\"";
    for (const unsigned int flavour : {plainFlavour, releaseFlavour}) {
        for (const Row& row : {Row{"CreateReader", "cacheName && \"null string argument\""},
                               {"CreateWriter", "cacheName && \"null string argument\""},
                               {"GetData", "name && \"null string argument\""},
                               {"SetData", "name && \"null string argument\""},
                               {"ResetData", "pName && \"null string argument\""},
                               {"SetData of a reader", readOnly},
                               {"ResetData of a reader", readOnly},
                               {"SetData of a reader, reserved", readOnly}}) {
            const ChildResult result = RunChildProgram("UseCacheWrongly", flavour, {row.what});
            EXPECT_EQ(SIGABRT, result.signal) << row.what << ", flavour " << flavour << '\n' << result.errors;
            EXPECT_NE(std::string::npos,
                      result.errors.find("Assertion `" + std::string(row.expression) + "' failed."))
                << row.what << '\n'
                << result.errors;
        }
        EXPECT_EQ(0, RunChildProgram("UseCacheWrongly", flavour, {"nothing"}).exitCode);
    }
}

TEST_F(Flat, AReaderThatIsToWriteSaysSoFirst) {
    if (!CanChooseFlavour()) {
        GTEST_SKIP() << noFlavourReason;
    }
    const std::string line = "3|IPCCache|IPCCache: setData|setData():";
    EXPECT_NE(std::string::npos,
              RunChildProgram("UseCacheWrongly", plainFlavour, {"SetData of a reader"}).errors.find(line));
}
