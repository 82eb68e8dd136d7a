#ifndef MAVIX_SEGMENT_LAYOUT_H
#define MAVIX_SEGMENT_LAYOUT_H

#include <cstddef>

// How Boost.Interprocess lays out a segment of ours, as byte offsets. IPCCachePrivate.cpp holds it against
// Boost's types at compile time, a test against the bytes that Boost writes.
//
//   header: the tree of free blocks, three sizes, the tree of names, the tree of unique objects
//   blocks: a head of two words, then a free block's tree node or an allocated block's use
//   end block: a head alone
//
// An allocated block holds one object: its tree node, its description, its value, its name with a terminator.
namespace MavixApiLite::SegmentLayout {

constexpr std::size_t word = sizeof(std::size_t);
// Of every block.
constexpr std::size_t alignment = alignof(std::max_align_t);

constexpr std::size_t Round(std::size_t size) {
    return (size + alignment - 1) / alignment * alignment;
}

// A tree: the number of its nodes, then a node that is not part of it, whose parent is the root, and
// whose children are the first and the last node. Pointers are relative to their own place; 1 is the null
// pointer. The second lowest bit of a parent is the node's colour.
constexpr std::size_t treeSize = 4 * word;
constexpr std::size_t treeNode = word;
constexpr std::size_t parent = 0;
constexpr std::size_t left = word;
constexpr std::size_t right = 2 * word;
constexpr std::size_t nodeSize = 3 * word;
constexpr std::size_t nullPointer = 1;
constexpr std::size_t black = 2;

// The header.
constexpr std::size_t freeTree = 0;
constexpr std::size_t reservedBytes = treeSize;
constexpr std::size_t allocatedBytes = reservedBytes + word;
constexpr std::size_t segmentSize = allocatedBytes + word;
constexpr std::size_t nameTree = segmentSize + word;
constexpr std::size_t uniqueTree = nameTree + treeSize;
constexpr std::size_t headerSize = uniqueTree + treeSize;
constexpr std::size_t firstBlock = Round(headerSize);

// A block's head: the size of the one before it, which is the block's own use while that one is
// allocated; then its own size, whose two upper bits say which of the two are allocated. Sizes count
// alignments.
constexpr std::size_t previousUnits = 0;
constexpr std::size_t units = word;
constexpr std::size_t blockHead = Round(2 * word);
constexpr std::size_t blockNode = 2 * word;
constexpr std::size_t leastUnits = Round(2 * word + nodeSize) / alignment;
constexpr std::size_t allocatedBit = ~(~std::size_t{0} >> 1U);
constexpr std::size_t previousAllocatedBit = allocatedBit >> 1U;
constexpr std::size_t unitsMask = previousAllocatedBit - 1;

// An object's description behind its node.
constexpr std::size_t valueBytes = nodeSize;
constexpr std::size_t nameLength = valueBytes + word;
constexpr std::size_t longestName = 0xFFFF;
constexpr std::size_t valueAlignment = nameLength + 2;
constexpr std::size_t kind = valueAlignment + 1;
constexpr std::size_t value = valueBytes + 2 * word;
// A named object with a name of one-byte characters.
constexpr unsigned char namedKind = (1U << 5U) | 1U;

} // namespace MavixApiLite::SegmentLayout

#endif
