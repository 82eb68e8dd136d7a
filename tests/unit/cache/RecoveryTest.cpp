#include "CacheAccess.h"
#include "CacheFixture.h"
#include "SegmentCheck.h"
#include "SegmentLayout.h"

#include <cstring>
#include <fcntl.h>
#include <random>
#include <unistd.h>

// What interrupted writes and damaged pages come to.

using namespace MavixTest;
namespace Layout = MavixApiLite::SegmentLayout;
using AccessType = IPCCache::AccessType;
using MavixApiLite::IsSoundSegment;
using MavixApiLite::TestAccess;

namespace {

enum Priority { debug = 3, info = 4, warning = 5, error = 6 };

class Recovery : public CacheFixture {
protected:
    void ForgetLines() const { TCRecordingPlatform::Get().Reset(); }

    std::string WriterWarning(const std::string& function) const {
        return function + ": Last write operation left data in corrupted state, all data saved in " + Shm() +
               " will be removed";
    }
    std::string ReaderWarning() const { return "getDataNew: Last write op failed to complete on " + Shm(); }
};

std::size_t& Word(char* page, std::size_t offset) {
    return *reinterpret_cast<std::size_t*>(page + offset);
}

// Where the node of an object's block lies in the page.
std::size_t NodeOf(IPCCache& cache, const char* key) {
    const char* const value = TestAccess::Segment(cache).find<char>(key).first;
    return static_cast<std::size_t>(value - TestAccess::Page(cache)) - Layout::value;
}

} // namespace

TEST_F(Recovery, AnInterruptedWriteIsServedToNobodyAndTheNextWriteWipes) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    Set(writer, "key", "value");
    TestAccess::Guard(writer) = 1;
    for (IPCCache* cache : {&reader, &writer}) {
        ForgetLines();
        EXPECT_EQ(none, Get(*cache, "key"));
        EXPECT_EQ(none, Get(*cache, "missing"));
        EXPECT_EQ((std::vector<std::string>{ReaderWarning(), ReaderWarning()}), CacheLines(warning));
    }
    ForgetLines();
    EXPECT_FALSE(writer.resetData("key"));
    EXPECT_EQ(std::vector<std::string>{WriterWarning("resetData")}, CacheLines(warning));
    EXPECT_EQ((std::vector<std::string>{"destroyAllObjects: Delete object:key from " + Shm(),
                                        "destroyAllObjects: Delete object:write_guard from " + Shm(),
                                        "resetData: " + Name() + ".resetData(key) OK"}),
              CacheLines(info));
    EXPECT_EQ(0, TestAccess::Guard(writer));
    Set(writer, "key", "again");
    EXPECT_EQ("again", Get(reader, "key"));
}

TEST_F(Recovery, AnyOtherGuardThanZeroCounts) {
    IPCCache writer(Name(), AccessType::Write);
    for (const int guard : {1, -1, 2, 0x01000000}) {
        Set(writer, "key", "value");
        TestAccess::Guard(writer) = guard;
        EXPECT_EQ(none, Get(writer, "key")) << guard;
        Set(writer, "other", "thing");
        EXPECT_EQ(none, Get(writer, "key")) << guard;
        EXPECT_EQ("thing", Get(writer, "other")) << guard;
    }
}

TEST_F(Recovery, ValuesWithoutAGuardAreWiped) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    Set(writer, "a key longer than the guard's name", "value");
    TestAccess::Segment(writer).destroy<TestAccess::WriteGuard>("write_guard");
    ForgetLines();
    EXPECT_EQ(none, Get(reader, "a key longer than the guard's name"));
    Set(writer, "key", "value");
    EXPECT_EQ((std::vector<std::string>{ReaderWarning(), WriterWarning("setData")}), CacheLines(warning));
    EXPECT_EQ(none, Get(reader, "a key longer than the guard's name"));
    EXPECT_EQ("value", Get(reader, "key"));
}

TEST_F(Recovery, AGuardOfAnotherShapeCountsAsDamage) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    for (const std::size_t size : {std::size_t{0}, std::size_t{3}, std::size_t{4}, std::size_t{8}}) {
        Set(writer, "key", "value");
        TestAccess::Segment(writer).destroy<TestAccess::WriteGuard>("write_guard");
        ASSERT_NE(nullptr, TestAccess::Segment(writer).construct<char>("write_guard", std::nothrow)[size]());
        ForgetLines();
        if (size != sizeof(TestAccess::WriteGuard)) {
            EXPECT_EQ(none, Get(reader, "key")) << size;
        }
        Set(writer, "other", "thing");
        EXPECT_EQ(WriterWarning("setData"), CacheLines(warning).back()) << size;
        EXPECT_EQ("thing", Get(reader, "other")) << size;
    }
}

TEST_F(Recovery, DestroyAllObjectsOfAnEmptyOrUnopenedCacheDoesNothing) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name() + "-other", AccessType::Read);
    ForgetLines();
    TestAccess::Private(writer).destroyAllObjects();
    TestAccess::Private(reader).destroyAllObjects();
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST_F(Recovery, TwoValuesOfOneNameAreBothRemovedAndTheFirstIsSaidToRemain) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key1", "value");
    Set(writer, "key2", "thing");
    const std::size_t node = NodeOf(writer, "key2");
    std::memcpy(TestAccess::Page(writer) + node + Layout::value + 5, "key1", 4);
    TestAccess::Guard(writer) = 1;
    ForgetLines();
    EXPECT_FALSE(writer.resetData("key1"));
    EXPECT_EQ((std::vector<std::string>{"destroyAllObjects: Delete object:key1 from " + Shm(),
                                        "destroyAllObjects: Failed to remove key1",
                                        "destroyAllObjects: Delete object:key1 from " + Shm(),
                                        "destroyAllObjects: Delete object:write_guard from " + Shm(),
                                        "resetData: " + Name() + ".resetData(key1) OK"}),
              CacheLines(info));
}

TEST_F(Recovery, AValueThatCannotBeRemovedGoesWithTheSegment) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    const std::size_t node = NodeOf(writer, "key");
    TestAccess::Page(writer)[node + Layout::value + 5 + 1] = '\0';
    TestAccess::Guard(writer) = 1;
    ForgetLines();
    Set(writer, "other", "thing");
    EXPECT_EQ((std::vector<std::string>{"destroyAllObjects: Delete object:k from " + Shm(),
                                        "setData: " + Name() + ".setData(other, 5) OK"}),
              CacheLines(info));
    EXPECT_EQ("thing", Get(writer, "other"));
    EXPECT_EQ(2U, TestAccess::Segment(writer).get_num_named_objects());
}

// Each row damages a page that holds the guard and three values.
TEST_F(Recovery, ADamagedPageIsRefusedByReadersAndStartedAfreshByTheNextWrite) {
    struct Row {
        const char* name;
        void (*damage)(char* page, std::size_t node);
        bool isRefusedByReaders;
    };
    constexpr std::size_t nameRoot = Layout::nameTree + Layout::treeNode + Layout::parent;
    const Row rows[] = {
        {"no size", [](char* page, std::size_t) { Word(page, Layout::segmentSize) = 0; }, true},
        {"another size", [](char* page, std::size_t) { Word(page, Layout::segmentSize) = 8192; }, true},
        {"other reserved bytes", [](char* page, std::size_t) { ++Word(page, Layout::reservedBytes); }, true},
        {"too many allocated bytes",
         [](char* page, std::size_t) { Word(page, Layout::allocatedBytes) = ~std::size_t{0}; }, true},
        {"other allocated bytes", [](char* page, std::size_t) { Word(page, Layout::allocatedBytes) -= 16; },
         false},
        {"root before the page",
         [](char* page, std::size_t) { Word(page, nameRoot) = ~std::size_t{0} << 20U; }, true},
        {"root behind the page", [](char* page, std::size_t) { Word(page, nameRoot) = 1U << 20U; }, true},
        {"root at the page's end", [](char* page, std::size_t) { Word(page, nameRoot) = 4088 - nameRoot; },
         true},
        {"root in the header", [](char* page, std::size_t) { Word(page, nameRoot) = 0; }, true},
        {"root between words", [](char* page, std::size_t) { Word(page, nameRoot) += 1; }, true},
        {"no root", [](char* page, std::size_t) { Word(page, nameRoot) = Layout::nullPointer; }, true},
        {"red root",
         [](char* page, std::size_t) {
             const std::size_t root = nameRoot + Word(page, nameRoot);
             Word(page, root + Layout::parent) &= ~Layout::black;
         },
         false},
        {"a circle",
         [](char* page, std::size_t) {
             const std::size_t root = nameRoot + Word(page, nameRoot);
             Word(page, root + Layout::left) = ~std::size_t{0} - Layout::left + 1;
             Word(page, root + Layout::right) = ~std::size_t{0} - Layout::right + 1;
         },
         true},
        {"an object of another kind", [](char* page, std::size_t node) { page[node + Layout::kind] = 0; },
         true},
        {"an object of another alignment",
         [](char* page, std::size_t node) { page[node + Layout::valueAlignment] = 64; }, false},
        {"a value larger than the page",
         [](char* page, std::size_t node) { Word(page, node + Layout::valueBytes) = 5000; }, true},
        {"a value of nearly endless size",
         [](char* page, std::size_t node) { Word(page, node + Layout::valueBytes) = ~std::size_t{0} - 8; },
         true},
        {"a name without end",
         [](char* page, std::size_t node) { std::memset(page + node + Layout::nameLength, 0xff, 2); }, true},
        {"a name without terminator",
         [](char* page, std::size_t node) { page[node + Layout::value + 5 + 3] = 'x'; }, true},
        {"names out of order",
         [](char* page, std::size_t node) { std::memset(page + node + Layout::value + 5, 0xff, 1); }, true},
        {"one object too many", [](char* page, std::size_t) { ++Word(page, Layout::nameTree); }, false},
        {"a unique object", [](char* page, std::size_t) { ++Word(page, Layout::uniqueTree); }, false},
        {"one free block too many", [](char* page, std::size_t) { ++Word(page, Layout::freeTree); }, false},
        {"a free block in the header",
         [](char* page, std::size_t) { Word(page, Layout::freeTree + Layout::treeNode) = 0; }, false},
        {"a block of no size",
         [](char* page, std::size_t node) {
             Word(page, node - Layout::blockNode + Layout::units) &= ~Layout::unitsMask;
         },
         false},
        {"a block beyond the page",
         [](char* page, std::size_t node) {
             Word(page, node - Layout::blockNode + Layout::units) |= Layout::unitsMask >> 8U;
         },
         false},
        {"a block that is said to be free",
         [](char* page, std::size_t node) {
             Word(page, node - Layout::blockNode + Layout::units) &= ~Layout::allocatedBit;
         },
         false},
        {"another distance to the end", [](char* page, std::size_t) { ++Word(page, Layout::firstBlock); },
         false},
        {"another end block",
         [](char* page, std::size_t) { --Word(page, cachePageSize - Layout::blockHead + Layout::units); },
         false},
    };
    for (const Row& row : rows) {
        IPCCache writer(Name(), AccessType::Write);
        IPCCache reader(Name(), AccessType::Read);
        writer.resetData("key");
        writer.resetData("kez");
        writer.resetData("other");
        Set(writer, "key", "value");
        Set(writer, "kez", "value");
        Set(writer, "other", "value");
        ASSERT_TRUE(IsSoundSegment(TestAccess::Page(writer), cachePageSize)) << row.name;
        row.damage(TestAccess::Page(writer), NodeOf(writer, "key"));
        EXPECT_FALSE(IsSoundSegment(TestAccess::Page(writer), cachePageSize)) << row.name;

        ForgetLines();
        EXPECT_EQ(row.isRefusedByReaders ? none : "value", Get(reader, "key")) << row.name;
        EXPECT_EQ(row.isRefusedByReaders ? 1U : 0U, CacheLines(warning).size()) << row.name;

        ForgetLines();
        Set(writer, "next", "thing");
        EXPECT_EQ(std::vector<std::string>{WriterWarning("setData")}, CacheLines(warning)) << row.name;
        EXPECT_EQ("thing", Get(reader, "next")) << row.name;
        EXPECT_EQ(none, Get(reader, "key")) << row.name;
        EXPECT_TRUE(IsSoundSegment(TestAccess::Page(writer), cachePageSize)) << row.name;
    }
}

TEST_F(Recovery, AnyOneDamagedWordLeavesReadersAliveAndTheNextWriterWorking) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    for (const char* key : {"a", "b", "c", "d", "longer", "a key longer than the guard's"}) {
        Set(writer, key, "value");
    }
    // Free blocks between the others.
    writer.resetData("b");
    writer.resetData("d");
    const std::string whole(TestAccess::Page(writer), cachePageSize);
    const std::vector<std::size_t (*)(std::size_t)> damages = {
        [](std::size_t) { return std::size_t{0}; },
        [](std::size_t) { return std::size_t{1}; },
        [](std::size_t) { return ~std::size_t{0}; },
        [](std::size_t word) { return word + 8; },
        [](std::size_t word) { return word - 8; },
        [](std::size_t word) { return word + 16; },
        [](std::size_t word) { return word + 1; },
        [](std::size_t word) { return word ^ 2U; },
        [](std::size_t word) { return word ^ Layout::allocatedBit; },
        [](std::size_t word) { return word ^ Layout::previousAllocatedBit; },
        [](std::size_t word) { return word + 4096; },
    };
    // What lies behind these is free.
    constexpr std::size_t used = 800;
    for (std::size_t offset = 0; offset < cachePageSize; offset += offset == used ? 3200 - 8 : 8) {
        for (std::size_t damage = 0; damage < damages.size(); ++damage) {
            std::memcpy(TestAccess::Page(writer), whole.data(), whole.size());
            Word(TestAccess::Page(writer), offset) = damages[damage](Word(TestAccess::Page(writer), offset));
            Get(reader, "a");
            Get(reader, "a key longer than the guard's");
            ForgetLines();
            Set(writer, "b", "thing");
            ASSERT_EQ("thing", Get(reader, "b")) << "word at " << offset << ", damage " << damage;
            ASSERT_TRUE(IsSoundSegment(TestAccess::Page(writer), cachePageSize))
                << "word at " << offset << ", damage " << damage;
        }
    }
}

TEST_F(Recovery, AnObjectThatWasCutUnderAWriterIsMadeAnew) {
    for (const off_t size : {off_t{0}, off_t{100}, off_t{8192}}) {
        IPCCache writer(Name(), AccessType::Write);
        Set(writer, "key", "value");
        ASSERT_EQ(0, truncate(ObjectPath().c_str(), size));
        ForgetLines();
        Set(writer, "other", "thing");
        EXPECT_EQ(std::vector<std::string>{WriterWarning("setData")}, CacheLines(warning)) << size;
        EXPECT_EQ(1U, CountCacheLines(debug, "setData", "Truncate shm object to: 4096")) << size;
        EXPECT_EQ(none, Get(writer, "key")) << size;
        EXPECT_EQ("thing", Get(writer, "other")) << size;
        EXPECT_EQ(cachePageSize, ReadObject().size()) << size;
    }
}

TEST_F(Recovery, NoSequenceOfWritesLeavesASegmentThatSeemsDamaged) {
    IPCCache cache(Name(), AccessType::Write);
    std::mt19937 random(7);
    const auto upTo = [&random](unsigned int most) {
        return std::uniform_int_distribution<>(0, static_cast<int>(most))(random);
    };
    const std::string bytes(4096, 'b');
    cache.resetData("");
    for (int round = 0; round < 20000; ++round) {
        // The keys' lengths differ by their number, too.
        const int number = upTo(30);
        const std::string key =
            std::string(static_cast<std::size_t>(number % 7), 'k') + std::to_string(number);
        const bool fits = CacheLines(error).empty();
        ForgetLines();
        if (upTo(2) == 0) {
            cache.resetData(key);
        } else {
            cache.setData(key, bytes.data(), static_cast<unsigned long>(upTo(upTo(20) == 0 ? 1000 : 60)));
        }
        ASSERT_TRUE(IsSoundSegment(TestAccess::Page(cache), cachePageSize)) << "round " << round;
        // Only a write that found no room leaves anything to be wiped, and that is no refusal.
        if (fits) {
            ASSERT_TRUE(CacheLines(warning).empty()) << "round " << round;
        }
    }
}
