#include "SegmentCheck.h"

#include "SegmentView.h"

#include <array>
#include <vector>

namespace MavixApiLite {

namespace {

namespace Layout = SegmentLayout;

// Walks one page. Each walk marks what it has seen, so that nothing counts twice and every walk ends.
class TCSegmentWalk final {
public:
    TCSegmentWalk(const void* page, std::size_t size)
        : m_view(page, size), m_size(size),
          m_largeMarks(size > smallPage ? size / Layout::alignment : 0, Mark::None),
          m_marks(size > smallPage ? m_largeMarks.data() : m_smallMarks.data()) {}

    bool IsSound() {
        return m_view.HasHeader() && m_AreBlocksSound() &&
               m_IsTreeSound(Layout::freeTree, m_freeBlocks, Mark::Free) &&
               m_IsTreeSound(Layout::nameTree, m_allocatedBlocks, Mark::Allocated) &&
               m_IsTreeSound(Layout::uniqueTree, 0, Mark::None);
    }

private:
    enum class Mark : unsigned char { None, Free, Allocated, Seen };

    // The page that all caches have: no memory is allocated for it.
    static constexpr std::size_t smallPage = 4096;

    // A subtree that has been walked: the number of black nodes on each way down. -1: it is not sound.
    static constexpr int unsound = -1;

    bool m_AreBlocksSound() {
        const std::size_t end = m_size / Layout::alignment * Layout::alignment - Layout::blockHead;
        const std::size_t allUnits = (end - Layout::firstBlock) / Layout::alignment;
        std::size_t allocatedBytes = 0;
        bool isAllocated = true;
        std::size_t units = 0;
        std::size_t at = Layout::firstBlock;
        if (end <= Layout::firstBlock || m_view.Word(at + Layout::previousUnits) != allUnits) {
            return false;
        }
        while (at < end) {
            const std::size_t word = m_view.Word(at + Layout::units);
            if (!m_FollowsOn(at, isAllocated, units)) {
                return false;
            }
            const bool wasAllocated = isAllocated;
            isAllocated = (word & Layout::allocatedBit) != 0;
            units = word & Layout::unitsMask;
            // Free neighbours are always one block.
            if (units < Layout::leastUnits || units > (end - at) / Layout::alignment ||
                (!wasAllocated && !isAllocated)) {
                return false;
            }
            m_marks[at / Layout::alignment] = isAllocated ? Mark::Allocated : Mark::Free;
            ++(isAllocated ? m_allocatedBlocks : m_freeBlocks);
            allocatedBytes += isAllocated ? units * Layout::alignment : 0;
            at += units * Layout::alignment;
        }
        const std::size_t endWord = m_view.Word(end + Layout::units);
        return m_FollowsOn(end, isAllocated, units) && (endWord & Layout::allocatedBit) != 0 &&
               (endWord & Layout::unitsMask) == allUnits &&
               m_view.Word(Layout::allocatedBytes) == allocatedBytes;
    }

    // What a block says of the one before it. The first block has none and keeps something else there.
    bool m_FollowsOn(std::size_t at, bool isPreviousAllocated, std::size_t previousUnits) const {
        const bool saysAllocated = (m_view.Word(at + Layout::units) & Layout::previousAllocatedBit) != 0;
        return saysAllocated == isPreviousAllocated &&
               (isPreviousAllocated || m_view.Word(at + Layout::previousUnits) == previousUnits);
    }

    bool m_IsTreeSound(std::size_t tree, std::size_t count, Mark expected) {
        const std::size_t end = tree + Layout::treeNode;
        const std::size_t root = end + Layout::parent;
        if (m_view.Word(tree) != count || (m_view.Word(root) & Layout::black) != 0) {
            return false;
        }
        if (count == 0) {
            return m_view.Word(root) == Layout::nullPointer && m_PointsTo(end + Layout::left, end) &&
                   m_PointsTo(end + Layout::right, end);
        }
        m_last = end;
        m_first = end;
        m_expected = expected;
        m_seen = 0;
        std::size_t node = 0;
        return m_view.NodeAt(root, m_view.Word(root), node) && m_IsBlack(node) &&
               m_WalkSubtree(root, end) != unsound && m_seen == count &&
               m_PointsTo(end + Layout::left, m_first) && m_PointsTo(end + Layout::right, m_last);
    }

    // In order, so that each node is compared with the one before it. As every node is taken once, and a red
    // one has no red child, the depth is that of the page's block count at most.
    int m_WalkSubtree(std::size_t pointer, std::size_t parent) {
        if (m_view.Word(pointer) == Layout::nullPointer) {
            return 0;
        }
        std::size_t node = 0;
        if (!m_view.NodeAt(pointer, m_view.Word(pointer), node) || !m_Take(node) ||
            node + Layout::parent + (m_view.Word(node + Layout::parent) & ~Layout::black) != parent) {
            return unsound;
        }
        const bool isBlack = m_IsBlack(node);
        if (!isBlack && parent >= Layout::firstBlock && !m_IsBlack(parent)) {
            return unsound;
        }
        const int leftHeight = m_WalkSubtree(node + Layout::left, node);
        if (leftHeight == unsound || !m_IsInOrder(node)) {
            return unsound;
        }
        if (m_first < Layout::firstBlock) {
            m_first = node;
        }
        m_last = node;
        ++m_seen;
        const int rightHeight = m_WalkSubtree(node + Layout::right, node);
        return rightHeight == leftHeight ? leftHeight + (isBlack ? 1 : 0) : unsound;
    }

    // Whether a block of the expected kind, not seen before, has its node here.
    bool m_Take(std::size_t node) {
        const std::size_t block = node - Layout::blockNode;
        if (block < Layout::firstBlock || block % Layout::alignment != 0 ||
            m_marks[block / Layout::alignment] != m_expected) {
            return false;
        }
        m_marks[block / Layout::alignment] = Mark::Seen;
        return true;
    }

    bool m_IsInOrder(std::size_t node) const {
        const bool hasLast = m_last >= Layout::firstBlock;
        if (m_expected == Mark::Free) {
            return !hasLast || m_Units(m_last) <= m_Units(node);
        }
        TCSegmentView::Object object;
        TCSegmentView::Object last;
        if (!m_view.ObjectAt(node, object) || !m_FitsItsBlock(node, object)) {
            return false;
        }
        return !hasLast ||
               (m_view.ObjectAt(m_last, last) && TCSegmentView::Compare(last.name, object.name) <= 0);
    }

    // A block's use may reach into the first word of the next one.
    bool m_FitsItsBlock(std::size_t node, const TCSegmentView::Object& object) const {
        const std::size_t end = node - Layout::blockNode + m_Units(node) * Layout::alignment + Layout::word;
        return object.offset + object.size + object.name.size() < end &&
               (object.alignment == alignof(char) || object.alignment == alignof(int));
    }

    std::size_t m_Units(std::size_t node) const {
        return m_view.Word(node - Layout::blockNode + Layout::units) & Layout::unitsMask;
    }

    bool m_IsBlack(std::size_t node) const {
        return (m_view.Word(node + Layout::parent) & Layout::black) != 0;
    }

    bool m_PointsTo(std::size_t pointer, std::size_t target) const {
        return pointer + m_view.Word(pointer) == target;
    }

    TCSegmentView m_view;
    std::size_t m_size;
    std::array<Mark, smallPage / Layout::alignment> m_smallMarks{};
    std::vector<Mark> m_largeMarks;
    Mark* m_marks; // by the number of a block's first unit
    std::size_t m_freeBlocks = 0;
    std::size_t m_allocatedBlocks = 0;

    // Of the walk through one tree.
    Mark m_expected = Mark::None;
    std::size_t m_seen = 0;
    std::size_t m_first = 0;
    std::size_t m_last = 0;
};

} // namespace

bool IsSoundSegment(const void* page, std::size_t size) {
    return TCSegmentWalk(page, size).IsSound();
}

} // namespace MavixApiLite
