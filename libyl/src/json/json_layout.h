#pragma once
// The compact encoding of a document's values: what a value's word and payload say, and the
// records a document keeps in its data. Internal to the JSON files of the library.

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <string_view>

#include "yl/yl_json.h"

namespace yljson {

// A value is its virtual table pointer, a word and a payload. The word holds the kind in bits 0-3,
// the mark of the document itself in bit 4 and, in bits 16-31, the count of a container or the
// size of a string when that is below kWordCountLimit. Larger counts and sizes are kept in a record
// in the data, which costs nothing next to what they describe.
enum Kind : std::uint32_t {
  kNull = 0,
  kBool = 1,           // payload: 0 or 1
  kInt32 = 2,          // payload: the value
  kInt64 = 3,          // payload: data unit of the value
  kUint64 = 4,         // payload: data unit of the value, which is above the int64 range
  kDouble = 5,         // payload: data unit of the value
  kTextString = 6,     // payload: offset of the bytes in the parsed text
  kDataString = 7,     // payload: data unit of the bytes
  kLongString = 8,     // payload: data unit of a LongString
  kRunArray = 9,       // payload: slot of the first item, the others follow it
  kLongRunArray = 10,  // payload: data unit of a RunHeader
  kTableArray = 11,    // payload: data unit of an ArrayTable; made by addArrayItem
  kRunObject = 12,     // payload: data unit of the first value's slot, the keys' offsets and
                       // maybe an index
  kWideObject = 13,    // payload: data unit of a RunHeader, its TextKeys and maybe an index
  kTableObject = 14,   // payload: data unit of an ObjectTable, or kNoTable when empty; made by
                       // addKeyValue
};

inline constexpr std::uint32_t kKindMask = 0xF;
inline constexpr std::uint32_t kRootBit = 0x10;
inline constexpr unsigned kCountShift = 16;
inline constexpr std::size_t kWordCountLimit = std::size_t{1} << 16;

constexpr std::uint32_t makeWord(Kind kind, std::size_t count = 0) {
  return static_cast<std::uint32_t>(count) << kCountShift | kind;
}

inline constexpr std::array<YLJsonValueType, 16> kTypeOfKind = {
    YLJsonValueType::Null,   YLJsonValueType::Bool,   YLJsonValueType::Number,
    YLJsonValueType::Number, YLJsonValueType::Number, YLJsonValueType::Number,
    YLJsonValueType::String, YLJsonValueType::String, YLJsonValueType::String,
    YLJsonValueType::Array,  YLJsonValueType::Array,  YLJsonValueType::Array,
    YLJsonValueType::Object, YLJsonValueType::Object, YLJsonValueType::Object,
    YLJsonValueType::Null};

// Values live in 4 KiB segments aligned to their size, 16 bytes to a slot. Slot 0 of a segment is
// a header that points to the document's storage: a value finds it by rounding its own address
// down, which is why a value need not carry a pointer to its document. A slot's number is its
// segment's number times 256 plus its place in the segment (1 to 255). A run of values may go on
// from the last slot of one segment to slot 1 of the next one.
inline constexpr std::size_t kSegmentBytes = 4096;
inline constexpr unsigned kSlotShift = 8;
inline constexpr std::uint32_t kSlotsPerSegment = 256;
inline constexpr std::uint32_t kValuesPerSegment = kSlotsPerSegment - 1;
inline constexpr std::size_t kSlotBytes = kSegmentBytes / kSlotsPerSegment;

// Everything else a document keeps besides its text (numbers, built strings and keys, the key
// tables of objects, item and member tables, hash indexes) is data, addressed in 4-byte units.
// Blocks of data are contiguous and registered as 4 KiB pieces, so that unit u is at
// dataSegments[u / 1024] + u % 1024 * 4 and a record never straddles two blocks. Records hold
// 32-bit fields; wider ones are read and written with memcpy.
inline constexpr unsigned kUnitShift = 10;
inline constexpr std::uint32_t kUnitsPerSegment = 1024;
inline constexpr std::size_t kUnitBytes = kSegmentBytes / kUnitsPerSegment;

// Slot and unit numbers are 32 bits: at most 2^24 segments of values and 2^22 of data (64 GiB and
// 16 GiB).
inline constexpr std::size_t kMaxValueSegments = std::size_t{1} << 24;
inline constexpr std::size_t kMaxDataSegments = std::size_t{1} << 22;

// Offsets into the parsed text are 32 bits.
inline constexpr std::size_t kMaxTextSize = std::numeric_limits<std::uint32_t>::max();

// Objects up to this size are searched by a scan of their keys: for a handful of keys that beats
// hashing. Larger objects carry a hash index so that lookups stay constant-time.
inline constexpr std::uint32_t kLinearMemberLimit = 16;

// A parsed container's items, and the members of a parsed object, are one run of values.
//
// A parsed object's keys stay in the text. In situ, each key was decoded in place and ended with a
// NUL, and the quote before it, read and no longer needed, was overwritten with the key's size, or
// kLongTextKey when that is kLongTextKey or more (then the NUL ends the key). So the usual object
// only keeps each key's offset: its record is the first value's slot, then the offsets, then,
// beyond kLinearMemberLimit members, an index of slotCountFor(count) entries. An object with a key
// that holds a NUL itself, or with too many members for the word, is wide: a RunHeader, then
// TextKeys, then the index.
struct RunHeader {
  std::uint32_t count;
  std::uint32_t first;  // slot of the first value
};
struct TextKey {
  std::uint32_t offset;
  std::uint32_t size;
};
// A built array: the slots of its items follow.
struct ArrayTable {
  std::uint32_t count;
  std::uint32_t capacity;
};
// A built object: capacity TableMembers follow, then indexSlots index entries.
struct ObjectTable {
  std::uint32_t count;
  std::uint32_t capacity;
  std::uint32_t indexSlots;  // 0: no index, lookups scan the members
  std::uint32_t unused;
};
struct TableMember {
  std::uint32_t key;      // data unit of the key's bytes
  std::uint32_t keySize;  // kLongKey: the size is in the 8 bytes before the key
  std::uint32_t value;    // slot
  std::uint32_t prefix;   // the key's first four bytes, see keyPrefix
};
// Read and written with memcpy: data is only aligned to 4 bytes.
struct LongString {
  const char* bytes;
  std::uint64_t size;
};

// The size before a parsed key of this size or more: the key ends at its NUL.
inline constexpr std::size_t kLongTextKey = 255;
inline constexpr std::uint32_t kNoTable = std::numeric_limits<std::uint32_t>::max();
inline constexpr std::uint32_t kLongKey = std::numeric_limits<std::uint32_t>::max();
inline constexpr std::uint32_t kMaxCount = std::numeric_limits<std::uint32_t>::max();

// Index slots for a table: a power of two, at most half full.
inline std::uint32_t slotCountFor(std::uint64_t capacity) {
  const std::uint64_t slots = std::max<std::uint64_t>(32, std::bit_ceil(capacity * 2));
  // Beyond 2^31 members (tens of gigabytes) a built object simply goes without an index; a parsed
  // one cannot have that many.
  return slots <= std::numeric_limits<std::uint32_t>::max() / 2 + 1
             ? static_cast<std::uint32_t>(slots)
             : 0;
}

inline std::size_t hashKey(std::string_view key) {
  return std::hash<std::string_view>{}(key);
}

// Equal bytes, for two views of the same size: memcmp must not be given a null pointer.
inline bool sameBytes(const char* bytes, std::string_view other) {
  return other.empty() || std::memcmp(bytes, other.data(), other.size()) == 0;
}

// A key's first four bytes, zero-padded. Kept in a built object's members, they settle most
// comparisons without a visit to the key's bytes, which lie elsewhere in memory.
inline std::uint32_t keyPrefix(std::string_view key) {
  std::uint32_t prefix = 0;
  if (!key.empty())
    std::memcpy(&prefix, key.data(), std::min<std::size_t>(key.size(), sizeof prefix));
  return prefix;
}

inline std::uint32_t keySizeField(std::size_t size) {
  return size >= kLongKey ? kLongKey : static_cast<std::uint32_t>(size);
}

template <typename Vector>
void reserveMore(Vector& vector, std::size_t extra) {
  if (vector.capacity() - vector.size() < extra)
    vector.reserve(std::max(vector.size() + extra, vector.capacity() * 2));
}

static_assert(sizeof(YLJsonValue) <= kSlotBytes && alignof(YLJsonValue) <= kSlotBytes);

}  // namespace yljson
