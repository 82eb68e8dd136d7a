#include "CacheAccess.h"
#include "SegmentCheck.h"
#include "SegmentLayout.h"
#include "SegmentView.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <vector>

// The bytes that Boost.Interprocess writes. Processes of different builds share them: where one of these
// tests fails, this build and the earlier ones do not understand each other.

namespace Layout = MavixApiLite::SegmentLayout;
using MavixApiLite::IsSoundSegment;
using MavixApiLite::TCSegmentView;
using MavixApiLite::TestAccess;
using Manager = TestAccess::Manager;
using Guard = TestAccess::WriteGuard;
using boost::interprocess::create_only;
using boost::interprocess::open_only;

namespace {

constexpr std::size_t pageSize = 4096;

class SegmentLayout : public testing::Test {
protected:
    SegmentLayout()
        : m_page(static_cast<char*>(
              mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {}
    ~SegmentLayout() override { munmap(m_page, pageSize); }

    void ExpectWords(std::size_t offset, const std::vector<std::uint64_t>& expected) const {
        for (std::size_t at = 0; at < expected.size(); ++at) {
            std::uint64_t word = 0;
            std::memcpy(&word, m_page + offset + 8 * at, sizeof word);
            EXPECT_EQ(expected[at], word) << "at " << offset + 8 * at;
        }
    }

    char* m_page;
};

constexpr std::uint64_t Minus(std::uint64_t distance) {
    return ~distance + 1;
}

constexpr std::uint64_t allocated = 1ULL << 63U;
constexpr std::uint64_t previousAllocated = 1ULL << 62U;

} // namespace

TEST_F(SegmentLayout, HasItsSizesAndOffsets) {
    if (sizeof(void*) != 8) {
        GTEST_SKIP() << "the numbers are those of 64-bit machines";
    }
    EXPECT_EQ(120U, sizeof(Manager::segment_manager));
    EXPECT_EQ(56U, sizeof(Manager::memory_algorithm));
    EXPECT_EQ(16U, std::size_t{Manager::memory_algorithm::Alignment});
    EXPECT_EQ(16U, sizeof(boost::interprocess::ipcdetail::block_header<std::size_t>));
    EXPECT_EQ(4U, sizeof(Guard));
    EXPECT_EQ(4U, alignof(Guard));
    EXPECT_EQ(32U, std::size_t{Layout::reservedBytes});
    EXPECT_EQ(40U, std::size_t{Layout::allocatedBytes});
    EXPECT_EQ(48U, std::size_t{Layout::segmentSize});
    EXPECT_EQ(56U, std::size_t{Layout::nameTree});
    EXPECT_EQ(88U, std::size_t{Layout::uniqueTree});
    EXPECT_EQ(128U, std::size_t{Layout::firstBlock});
    EXPECT_EQ(40U, std::size_t{Layout::value});
}

TEST_F(SegmentLayout, OfAnEmptySegment) {
    if (sizeof(void*) != 8) {
        GTEST_SKIP() << "the numbers are those of 64-bit machines";
    }
    const Manager segment(create_only, m_page, pageSize);
    // Free tree, sizes, names, unique objects.
    ExpectWords(0, {1, 136, 128, 120, 64, 0, 4096, 0, 1, Minus(8), Minus(16), 0, 1, Minus(8), Minus(16)});
    // The one free block, whose first word is the distance to the end block.
    ExpectWords(128, {247, previousAllocated | 247, Minus(136) | 2, 1, 1});
    ExpectWords(pageSize - 16, {247, allocated | 247});
    EXPECT_EQ(3968U, segment.get_free_memory());
    EXPECT_EQ(pageSize, segment.get_size());
    EXPECT_TRUE(IsSoundSegment(m_page, pageSize));
}

TEST_F(SegmentLayout, OfAGuardAndAValue) {
    if (sizeof(void*) != 8) {
        GTEST_SKIP() << "the numbers are those of 64-bit machines";
    }
    Manager segment(create_only, m_page, pageSize);
    auto* guard = segment.construct<Guard>("write_guard", std::nothrow)(7);
    auto* value = segment.construct<char>("k1", std::nothrow)[5]();
    EXPECT_EQ(184, reinterpret_cast<char*>(guard) - m_page);
    EXPECT_EQ(248, value - m_page);
    // The first and last node of the names; their root is the guard's, black, with the value's as left child.
    ExpectWords(0, {1, 264, 256, 248, 64, 128, 4096, 2, 80, 136, 64});
    ExpectWords(128, {247, allocated | previousAllocated | 4, Minus(80) | 2, 56, 1, 4});
    EXPECT_EQ(11, m_page[176]);
    EXPECT_EQ(0, m_page[177]);
    EXPECT_EQ(4, m_page[178]);
    EXPECT_EQ(0x21, m_page[179]);
    EXPECT_EQ(7, *guard);
    EXPECT_STREQ("write_guard", m_page + 188);
    ExpectWords(200, {allocated | previousAllocated | 4, Minus(64), 1, 1, 5});
    EXPECT_EQ(2, m_page[240]);
    EXPECT_EQ(1, m_page[242]);
    EXPECT_EQ(0x21, m_page[243]);
    EXPECT_EQ(std::string(5, '\0'), std::string(value, 5));
    EXPECT_STREQ("k1", m_page + 253);
    ExpectWords(264, {previousAllocated | 239, Minus(262 + 2) | 2, 1, 1});
    EXPECT_EQ(3840U, segment.get_free_memory());
    EXPECT_TRUE(IsSoundSegment(m_page, pageSize));
}

TEST_F(SegmentLayout, ForTheGuardLeavesRoomForFortyValues) {
    Manager segment(create_only, m_page, pageSize);
    segment.construct<Guard>("write_guard", std::nothrow)(0);
    EXPECT_EQ(3904U, segment.get_free_memory());
    int count = 0;
    while (segment.construct<char>(("value" + std::to_string(100 + count)).c_str(), std::nothrow)[32]() !=
           nullptr) {
        ++count;
    }
    EXPECT_EQ(40, count);
    EXPECT_TRUE(IsSoundSegment(m_page, pageSize));
}

// Boost's look-up and ours find the same, in memory that may only be read.
TEST_F(SegmentLayout, IsReadInMemoryThatCannotBeWritten) {
    {
        Manager segment(create_only, m_page, pageSize);
        segment.construct<Guard>("write_guard", std::nothrow)(0);
        for (const char* name : {"a", "b", "c", "longer", "longest"}) {
            std::strcpy(segment.construct<char>(name, std::nothrow)[10](), name);
        }
    }
    ASSERT_EQ(0, mprotect(m_page, pageSize, PROT_READ));
    Manager segment(open_only, m_page, pageSize);
    const TCSegmentView view(m_page, pageSize);
    for (const char* name :
         {"a", "b", "c", "longer", "longest", "write_guard", "", "d", "longes", "nothing"}) {
        TCSegmentView::Object object;
        const auto found = segment.find<char>(name);
        ASSERT_EQ(found.first != nullptr ? TCSegmentView::Search::Found : TCSegmentView::Search::Absent,
                  view.Find(name, object))
            << name;
        if (found.first != nullptr) {
            EXPECT_EQ(found.first, m_page + object.offset) << name;
            EXPECT_EQ(found.second, object.size) << name;
        }
    }
    EXPECT_EQ(0, *segment.find<Guard>("write_guard").first);
    EXPECT_TRUE(IsSoundSegment(m_page, pageSize));
}

TEST_F(SegmentLayout, OfNoSizeIsNeverTakenForASegment) {
    for (std::size_t size = 0; size <= pageSize; ++size) {
        EXPECT_FALSE(IsSoundSegment(m_page, size)) << size;
        TCSegmentView::Object object;
        EXPECT_EQ(TCSegmentView::Search::Corrupt, TCSegmentView(m_page, size).Find("key", object)) << size;
    }
}

TEST_F(SegmentLayout, OfAnySizeIsUnderstood) {
    for (std::size_t size = Manager::segment_manager::get_min_size() + 48; size <= pageSize; ++size) {
        Manager segment(create_only, m_page, size);
        ASSERT_TRUE(IsSoundSegment(m_page, size)) << size;
    }
}
