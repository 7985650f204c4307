#pragma once
// The arena of a document: the blocks that hold its values and its data, and the text it was
// parsed from. Nothing in it moves or is freed before the document dies.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <new>
#include <string>
#include <vector>

#include "json_layout.h"

namespace yljson {

// Blocks start at one segment and double up to this size: a small document stays small, and the
// unused end of the last blocks stays small next to a large one.
inline constexpr std::size_t kLargestBlockBytes = std::size_t{1} << 18;

// While a text is parsed, once this much of it has been read, a new block is sized for what the
// rest of the text will likely need, judged from what the part read so far needed, with a sixteenth
// to spare: a large document is then made of a few large allocations, and little room stays unused
// at the end. A guess gone wrong leaves at most one such block of each kind partly unused.
inline constexpr std::size_t kForesightSample = std::size_t{1} << 16;
inline constexpr std::size_t kSmallestForeseenBlockBytes = std::size_t{1} << 14;
inline constexpr std::size_t kLargestForeseenBlockBytes = std::size_t{1} << 22;

// Where a document keeps its text and its values: blocks that live as long as the document, so
// that nothing moves and nothing is freed one by one.
struct Arena {
  struct SegmentHeader {
    Arena* arena;
  };
  struct Block {
    void* memory;
    std::size_t bytes;
    bool aligned;
  };

  explicit Arena(YLJson* owner) : document(owner) {}
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;
  ~Arena() { release(); }

  // Frees everything, the text too: the arena is as new.
  void release() {
    // The unsized forms: clang declares the sized ones only with -fsized-deallocation.
    for (const Block& block : blocks) {
      if (block.aligned) {
        ::operator delete (block.memory, std::align_val_t{kSegmentBytes});
      } else {
        ::operator delete(block.memory);
      }
    }
    std::vector<Block>().swap(blocks);
    std::vector<char*>().swap(valueSegments);
    std::vector<char*>().swap(dataSegments);
    std::string().swap(text);
    takenStrings.clear();
    nextValue = 1;
    freeValues = 0;
    valueBlockSegments = 1;
    nextUnit = 0;
    unitLimit = 0;
    dataBlockBytes = kSegmentBytes;
    dataUsed = 0;
    parseSize = 0;
    parsePosition = 0;
    parseWaiting = 0;
  }

  // ---- Values

  char* slotAddress(std::uint32_t slot) const {
    return valueSegments[slot >> kSlotShift] + (slot & (kSlotsPerSegment - 1)) * kSlotBytes;
  }

  // The value constructed in the slot.
  YLJsonValue* value(std::uint32_t slot) const {
    return std::launder(reinterpret_cast<YLJsonValue*>(slotAddress(slot)));
  }

  // The slot at index in a run that starts at first.
  static std::uint32_t runSlot(std::uint32_t first, std::size_t index) {
    const std::size_t position = (first & (kSlotsPerSegment - 1)) - 1 + index;
    const std::size_t segment = (first >> kSlotShift) + position / kValuesPerSegment;
    return static_cast<std::uint32_t>(segment << kSlotShift | (position % kValuesPerSegment + 1));
  }

  YLJsonValue* runItem(std::uint32_t first, std::size_t index) const {
    return value(runSlot(first, index));
  }

  // Slots for count values in a row (count > 0); the caller constructs the values.
  std::uint32_t allocateValues(std::size_t count) {
    if (count > freeValues) addValueSegments(count - freeValues);
    const std::uint32_t first = nextValue;
    nextValue = runSlot(first, count);
    freeValues -= count;
    return first;
  }

  // Appends segments for at least missing more values. While no slot is free, nextValue is slot 1
  // of the segment that comes next, so a run may go on into the new block.
  void addValueSegments(std::size_t missing) {
    const std::size_t needed = (missing + kValuesPerSegment - 1) / kValuesPerSegment;
    const std::size_t used = valueSegments.size() * kValuesPerSegment - freeValues;
    const std::size_t count =
        std::max(needed, blockBytesFor(used * kSlotBytes, parseWaiting * kSlotBytes,
                                       valueBlockSegments * kSegmentBytes) /
                             kSegmentBytes);
    if (count >= kMaxValueSegments - valueSegments.size()) throw std::bad_alloc();
    reserveMore(blocks, 1);
    reserveMore(valueSegments, count);
    const std::size_t bytes = count * kSegmentBytes;
    auto* memory = static_cast<char*>(::operator new (bytes, std::align_val_t{kSegmentBytes}));
    blocks.push_back(Block{memory, bytes, true});
    for (std::size_t i = 0; i < count; ++i) {
      char* segment = memory + i * kSegmentBytes;
      new (segment) SegmentHeader{this};
      valueSegments.push_back(segment);
    }
    freeValues += count * kValuesPerSegment;
    valueBlockSegments = std::min(valueBlockSegments * 2, kLargestBlockBytes / kSegmentBytes);
  }

  // ---- Data

  char* data(std::uint32_t unit) const {
    return dataSegments[unit >> kUnitShift] + (unit & (kUnitsPerSegment - 1)) * kUnitBytes;
  }

  template <typename Record>
  Record* record(std::uint32_t unit) const {
    return reinterpret_cast<Record*>(data(unit));
  }

  // Contiguous room for the bytes, aligned to 4. Nothing may be read through the unit of an
  // empty allocation.
  std::uint32_t allocateData(std::size_t bytes) {
    const std::size_t units = (bytes + kUnitBytes - 1) / kUnitBytes;
    dataUsed += units * kUnitBytes;
    if (units <= unitLimit - nextUnit) {
      const std::uint32_t unit = nextUnit;
      nextUnit += static_cast<std::uint32_t>(units);
      return unit;
    }
    return allocateDataBlock(units);
  }

  std::uint32_t allocateDataBlock(std::size_t units) {
    const std::size_t bytes = units * kUnitBytes;
    const std::size_t usual = blockBytesFor(dataUsed - bytes, 0, dataBlockBytes);
    // A large record gets a block of its own, and the current block keeps its free room.
    const bool alone = bytes > usual / 4;
    const std::size_t blockBytes =
        alone ? (bytes + kSegmentBytes - 1) / kSegmentBytes * kSegmentBytes : usual;
    const std::size_t segments = blockBytes / kSegmentBytes;
    if (segments >= kMaxDataSegments - dataSegments.size()) throw std::bad_alloc();
    reserveMore(blocks, 1);
    reserveMore(dataSegments, segments);
    auto* memory = static_cast<char*>(::operator new(blockBytes));
    blocks.push_back(Block{memory, blockBytes, false});
    const auto first = static_cast<std::uint32_t>(dataSegments.size() << kUnitShift);
    for (std::size_t i = 0; i < segments; ++i)
      dataSegments.push_back(memory + i * kSegmentBytes);
    if (alone) return first;
    nextUnit = first + static_cast<std::uint32_t>(units);
    unitLimit = first + static_cast<std::uint32_t>(blockBytes / kUnitBytes);
    dataBlockBytes = std::min(dataBlockBytes * 2, kLargestBlockBytes);
    return first;
  }

  // The size of the next block, given the bytes of its kind handed out so far, those that the
  // parser holds back and will surely ask for, and the size the block has outside a parse: a
  // multiple of the segment size.
  std::size_t blockBytesFor(std::size_t used, std::size_t waiting, std::size_t usual) const {
    if (parsePosition < kForesightSample || parsePosition >= parseSize) return usual;
    const double rest = static_cast<double>(parseSize - parsePosition) /
                        static_cast<double>(parsePosition) * static_cast<double>(used + waiting);
    const double wanted = std::clamp((static_cast<double>(waiting) + rest) * 17 / 16,
                                     static_cast<double>(kSmallestForeseenBlockBytes),
                                     static_cast<double>(kLargestForeseenBlockBytes));
    return (static_cast<std::size_t>(wanted) + kSegmentBytes - 1) / kSegmentBytes * kSegmentBytes;
  }

  std::size_t storageSize() const {
    std::size_t bytes = sizeof(Arena) + text.capacity() + blocks.capacity() * sizeof(Block) +
                        (valueSegments.capacity() + dataSegments.capacity()) * sizeof(char*);
    for (const Block& block : blocks)
      bytes += block.bytes;
    return bytes;
  }

  YLJson* document;
  // The parsed text, in which strings and keys were decoded in place.
  std::string text;
  // Strings taken over by takeStringValue; a list, so that none moves when another is added.
  std::forward_list<std::string> takenStrings;
  std::vector<Block> blocks;
  std::vector<char*> valueSegments;
  std::vector<char*> dataSegments;
  std::uint32_t nextValue = 1;
  std::size_t freeValues = 0;
  std::size_t valueBlockSegments = 1;
  std::uint32_t nextUnit = 0;
  std::uint32_t unitLimit = 0;
  std::size_t dataBlockBytes = kSegmentBytes;
  std::size_t dataUsed = 0;  // bytes handed out
  // While a text is parsed: its size, the offset of the last string or key read, and the values
  // that wait for their container to close.
  std::size_t parseSize = 0;
  std::size_t parsePosition = 0;
  std::size_t parseWaiting = 0;
};

}  // namespace yljson
