#include "yl/yl_json.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "yl/yl_variant.h"

// RapidJSON's SIMD paths scan white space and unescaped string runs 16 bytes at a time, with
// aligned loads that may reach up to 15 bytes past the terminating NUL. SSE2 is part of every
// x86-64. RapidJSON is header-only: any other file of the library that includes it must make the
// same choice, or the two would disagree on the same inline functions.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// The SAX handler that builds a document, defined below.
struct YLJsonBuilder;

namespace {

// RapidJSON picks its 16-byte scanners by the exact type of the stream; this type gets the
// byte-by-byte code, which reads nothing past the terminating NUL. It parses a text in place when
// its buffer has no room after the NUL for the wide loads, instead of copying the text.
struct BytewiseInsituStream : rapidjson::InsituStringStream {
  using rapidjson::InsituStringStream::InsituStringStream;
};

// The reader's stack allocator, a type of its own so that the reader below is a type that only
// this file uses: the two members it replaces (see further down) change nothing for any other
// user of RapidJSON in the process.
struct ReaderStackAllocator : rapidjson::CrtAllocator {};
using DocumentReader =
    rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, ReaderStackAllocator>;

// Iterative: the parser keeps its own stack, so deep nesting cannot exhaust the call stack.
// Standard JSON only: no comments, trailing commas, NaN or Infinity. In situ, strings and keys are
// decoded inside the buffer and handed over there, never as copies. Numbers are read by
// readNumber below, whatever the flags say about them.
constexpr unsigned kParseFlags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag |
                                 rapidjson::kParseStopWhenDoneFlag;

}  // namespace

namespace rapidjson {
template <>
struct StreamTraits<BytewiseInsituStream> {
  enum { copyOptimization = 1 };
};

// RapidJSON 1.1 reads some valid numbers wrong: a zero with a large exponent ("0e+300") comes out
// as garbage, a zero with an exponent above 308 ("0e309") or an integer part of more than 308
// digits is refused, and its own conversion is not always correctly rounded. Its number reader is
// replaced, for this reader and its two streams only, by readNumber.
template <>
template <>
void DocumentReader::ParseNumber<kParseFlags, InsituStringStream, YLJsonBuilder>(
    InsituStringStream& is, YLJsonBuilder& handler);
template <>
template <>
void DocumentReader::ParseNumber<kParseFlags, BytewiseInsituStream, YLJsonBuilder>(
    BytewiseInsituStream& is, YLJsonBuilder& handler);

namespace internal {
// The reader's stack starts without memory, and its first push computes "null + size" to compare
// with its end: undefined behaviour, which UndefinedBehaviorSanitizer reports at the first array or
// object of every parse. The iterative parser pushes nothing but SizeType; this version compares
// sizes instead and never offsets a null pointer.
template <>
template <>
inline void Stack<ReaderStackAllocator>::Reserve<SizeType>(size_t count) {
  const size_t wanted = sizeof(SizeType) * count;
  if (stack_ == nullptr || static_cast<size_t>(stackEnd_ - stackTop_) < wanted)
    Expand<SizeType>(count);
}
}  // namespace internal
}  // namespace rapidjson

namespace {

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

constexpr std::uint32_t kKindMask = 0xF;
constexpr std::uint32_t kRootBit = 0x10;
constexpr unsigned kCountShift = 16;
constexpr std::size_t kWordCountLimit = std::size_t{1} << 16;

constexpr std::uint32_t makeWord(Kind kind, std::size_t count = 0) {
  return static_cast<std::uint32_t>(count) << kCountShift | kind;
}

constexpr std::array<YLJsonValueType, 16> kTypeOfKind = {
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
constexpr std::size_t kSegmentBytes = 4096;
constexpr unsigned kSlotShift = 8;
constexpr std::uint32_t kSlotsPerSegment = 256;
constexpr std::uint32_t kValuesPerSegment = kSlotsPerSegment - 1;
constexpr std::size_t kSlotBytes = kSegmentBytes / kSlotsPerSegment;

// Everything else a document keeps besides its text (numbers, built strings and keys, the key
// tables of objects, item and member tables, hash indexes) is data, addressed in 4-byte units.
// Blocks of data are contiguous and registered as 4 KiB pieces, so that unit u is at
// dataSegments[u / 1024] + u % 1024 * 4 and a record never straddles two blocks. Records hold
// 32-bit fields; wider ones are read and written with memcpy.
constexpr unsigned kUnitShift = 10;
constexpr std::uint32_t kUnitsPerSegment = 1024;
constexpr std::size_t kUnitBytes = kSegmentBytes / kUnitsPerSegment;

// Slot and unit numbers are 32 bits: at most 2^24 segments of values and 2^22 of data (64 GiB and
// 16 GiB).
constexpr std::size_t kMaxValueSegments = std::size_t{1} << 24;
constexpr std::size_t kMaxDataSegments = std::size_t{1} << 22;

// Blocks start at one segment and double up to this size: a small document stays small, and the
// unused end of the last blocks stays small next to a large one.
constexpr std::size_t kLargestBlockBytes = std::size_t{1} << 18;

// While a text is parsed, once this much of it has been read, a new block is sized for what the
// rest of the text will likely need, judged from what the part read so far needed, with a sixteenth
// to spare: a large document is then made of a few large allocations, and little room stays unused
// at the end. A guess gone wrong leaves at most one such block of each kind partly unused.
constexpr std::size_t kForesightSample = std::size_t{1} << 16;
constexpr std::size_t kSmallestForeseenBlockBytes = std::size_t{1} << 14;
constexpr std::size_t kLargestForeseenBlockBytes = std::size_t{1} << 22;

// Offsets into the parsed text are 32 bits.
constexpr std::size_t kMaxTextSize = std::numeric_limits<std::uint32_t>::max();

// What SkipWhitespace_SIMD and the string scanners may load past the NUL after the text.
constexpr std::size_t kWideLoadSlack = 15;

// Objects up to this size are searched by a scan of their keys: for a handful of keys that beats
// hashing. Larger objects carry a hash index so that lookups stay constant-time.
constexpr std::uint32_t kLinearMemberLimit = 16;

// A parsed container's items, and the members of a parsed object, are one run of values.
//
// A parsed object's keys stay in the text. In situ, each key was decoded in place and ended with a
// NUL, so the usual object only keeps each key's offset: its record is the first value's slot,
// then the offsets, then, beyond kLinearMemberLimit members, an index of slotCountFor(count)
// entries. An object with a key that holds a NUL itself, or with too many members for the word,
// is wide: a RunHeader, then TextKeys, then the index.
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

constexpr std::uint32_t kNoTable = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kLongKey = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kMaxCount = std::numeric_limits<std::uint32_t>::max();

// Index slots for a table: a power of two, at most half full.
std::uint32_t slotCountFor(std::uint64_t capacity) {
  const std::uint64_t slots = std::max<std::uint64_t>(32, std::bit_ceil(capacity * 2));
  // Beyond 2^31 members (tens of gigabytes) a built object simply goes without an index; a parsed
  // one cannot have that many.
  return slots <= std::numeric_limits<std::uint32_t>::max() / 2 + 1
             ? static_cast<std::uint32_t>(slots)
             : 0;
}

std::size_t hashKey(std::string_view key) {
  return std::hash<std::string_view>{}(key);
}

// Equal bytes, for two views of the same size: memcmp must not be given a null pointer.
bool sameBytes(const char* bytes, std::string_view other) {
  return other.empty() || std::memcmp(bytes, other.data(), other.size()) == 0;
}

// A key's first four bytes, zero-padded. Kept in a built object's members, they settle most
// comparisons without a visit to the key's bytes, which lie elsewhere in memory.
std::uint32_t keyPrefix(std::string_view key) {
  std::uint32_t prefix = 0;
  if (!key.empty())
    std::memcpy(&prefix, key.data(), std::min<std::size_t>(key.size(), sizeof prefix));
  return prefix;
}

std::uint32_t keySizeField(std::size_t size) {
  return size >= kLongKey ? kLongKey : static_cast<std::uint32_t>(size);
}

template <typename Vector>
void reserveMore(Vector& vector, std::size_t extra) {
  if (vector.capacity() - vector.size() < extra)
    vector.reserve(std::max(vector.size() + extra, vector.capacity() * 2));
}

constexpr std::array<char, 256> makeEscapeTable() {
  // 0: written as is; 'u': written as \u00XX; any other: written as a backslash and that letter.
  std::array<char, 256> table{};
  for (int c = 0; c < 0x20; ++c)
    table[c] = 'u';
  table['\b'] = 'b';
  table['\f'] = 'f';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['"'] = '"';
  table['\\'] = '\\';
  return table;
}

constexpr std::array<char, 256> kEscapes = makeEscapeTable();

void appendQuoted(std::string& out, const char* bytes, std::size_t size) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  std::size_t runStart = 0;
  for (std::size_t i = 0; i < size; ++i) {
    const char escape = kEscapes[static_cast<unsigned char>(bytes[i])];
    if (escape == 0) continue;
    out.append(bytes + runStart, i - runStart);
    runStart = i + 1;
    if (escape == 'u') {
      const auto c = static_cast<unsigned char>(bytes[i]);
      const char sequence[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
      out.append(sequence, sizeof sequence);
    } else {
      const char sequence[2] = {'\\', escape};
      out.append(sequence, sizeof sequence);
    }
  }
  out.append(bytes + runStart, size - runStart);
  out.push_back('"');
}

void appendDouble(std::string& out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  const std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
  out += text;
  // Keep the value a double when read back: "1" would come back as an integer.
  if (text.find_first_of(".e") == std::string_view::npos) out += ".0";
}

template <typename Integer>
void appendInteger(std::string& out, Integer value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, static_cast<std::size_t>(result.ptr - buffer));
}

bool isJsonSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// RapidJSON's 16-byte string scanners stop at bytes up to 0x19 instead of 0x1F, so inside a string
// they let the raw bytes 0x1A to 0x1F through, which its byte-by-byte code rightly refuses. No
// JSON text holds such a byte anywhere, in a string or outside one, so a text with one is refused
// before it meets the wide scanners: both ways of parsing then agree on every text.
bool holdsByteThatWideScansMiss(const char* bytes, std::size_t size) {
  std::size_t i = 0;
#if defined(__SSE2__)
  const __m128i low = _mm_set1_epi8(0x1A);
  const __m128i high = _mm_set1_epi8(0x1F);
  for (; i + 16 <= size; i += 16) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
    // Unsigned low <= c <= high: max(c, low) == c and min(c, high) == c.
    const __m128i inRange = _mm_and_si128(_mm_cmpeq_epi8(_mm_max_epu8(chunk, low), chunk),
                                          _mm_cmpeq_epi8(_mm_min_epu8(chunk, high), chunk));
    if (_mm_movemask_epi8(inRange) != 0) return true;
  }
#endif
  for (; i < size; ++i) {
    if (static_cast<unsigned char>(bytes[i] - 0x1A) < 6) return true;
  }
  return false;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// What readNumber came to: no error, or RapidJSON's code for one and its offset in the text.
struct NumberRead {
  rapidjson::ParseErrorCode error = rapidjson::kParseErrorNone;
  std::size_t offset = 0;
};

// Reads the JSON number at the stream's position, moves the stream past it and hands it to the
// handler: an integer that fits 64 bits, signed or else unsigned, as such; any other number as the
// double that std::strtod gives for its text (correctly rounded, independent of the locale). A
// number too large for a double is refused; one too small for it becomes a zero of its sign.
template <typename Stream, typename Handler>
NumberRead readNumber(Stream& is, Handler& handler) {
  char* const start = is.src_;
  const auto offsetOf = [&is](const char* at) { return static_cast<std::size_t>(at - is.head_); };
  char* p = start;
  const bool minus = *p == '-';
  if (minus) ++p;
  // The number's order of magnitude, should the conversion find it out of range: the digits of the
  // integer part without a lone zero, else the zeros that start the fraction, and the exponent.
  std::int64_t integerDigits = 0;
  std::int64_t fractionZeros = 0;
  std::int64_t exponent = 0;
  if (*p == '0') {
    ++p;
  } else if (*p >= '1' && *p <= '9') {
    const char* first = p;
    while (isDigit(*p))
      ++p;
    integerDigits = p - first;
  } else {
    return {rapidjson::kParseErrorValueInvalid, offsetOf(p)};
  }
  bool integral = true;
  if (*p == '.') {
    ++p;
    if (!isDigit(*p)) return {rapidjson::kParseErrorNumberMissFraction, offsetOf(p)};
    const char* first = p;
    while (*p == '0')
      ++p;
    fractionZeros = p - first;
    while (isDigit(*p))
      ++p;
    integral = false;
  }
  if (*p == 'e' || *p == 'E') {
    ++p;
    const bool negative = *p == '-';
    if (*p == '+' || *p == '-') ++p;
    if (!isDigit(*p)) return {rapidjson::kParseErrorNumberMissExponent, offsetOf(p)};
    // Far beyond any double's range, and far from overflowing the sums below.
    constexpr std::int64_t kExponentCap = std::int64_t{1} << 40;
    for (; isDigit(*p); ++p) {
      if (exponent < kExponentCap) exponent = exponent * 10 + (*p - '0');
    }
    if (negative) exponent = -exponent;
    integral = false;
  }
  is.src_ = p;

  const auto handed = [&](bool accepted) {
    return NumberRead{accepted ? rapidjson::kParseErrorNone : rapidjson::kParseErrorTermination,
                      offsetOf(start)};
  };
  if (integral) {
    std::int64_t signedValue = 0;
    const auto asSigned = std::from_chars(start, p, signedValue);
    if (asSigned.ec == std::errc() && asSigned.ptr == p) return handed(handler.Int64(signedValue));
    std::uint64_t unsignedValue = 0;
    const auto asUnsigned = std::from_chars(start, p, unsignedValue);
    if (asUnsigned.ec == std::errc() && asUnsigned.ptr == p)
      return handed(handler.Uint64(unsignedValue));
  }
  double value = 0.0;
  const auto asDouble = std::from_chars(start, p, value);
  if (asDouble.ptr != p) return {rapidjson::kParseErrorValueInvalid, offsetOf(start)};
  if (asDouble.ec == std::errc::result_out_of_range) {
    // The power of ten of the first significant digit; the digits are not all zeros, or the
    // number would be in range.
    const std::int64_t magnitude =
        (integerDigits > 0 ? integerDigits - 1 : -(fractionZeros + 1)) + exponent;
    if (magnitude >= 0) return {rapidjson::kParseErrorNumberTooBig, offsetOf(start)};
    value = minus ? -0.0 : 0.0;
  } else if (asDouble.ec != std::errc()) {
    return {rapidjson::kParseErrorValueInvalid, offsetOf(start)};
  }
  return handed(handler.Double(value));
}

}  // namespace

// Where a document keeps its text and its values: blocks that live as long as the document, so
// that nothing moves and nothing is freed one by one.
struct YLJson::Arena {
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

static_assert(sizeof(YLJsonValue) <= kSlotBytes && alignof(YLJsonValue) <= kSlotBytes);

// Everything that touches the representation from outside a single value: reading children,
// building tables and their hash index, and the SAX handler that parses straight into the arena.
struct YLJsonBuilder {
  using Arena = YLJson::Arena;
  static constexpr std::size_t kNotFound = std::numeric_limits<std::size_t>::max();

  struct Encoded {
    std::uint32_t word;
    std::uint32_t payload;
  };

  // ---- Reading ------------------------------------------------------------------------------

  static Kind kindOf(const YLJsonValue& value) {
    return static_cast<Kind>(value.word_ & kKindMask);
  }
  static std::uint32_t wordCount(const YLJsonValue& value) { return value.word_ >> kCountShift; }

  static Arena& arenaOf(const YLJsonValue& value) {
    if ((value.word_ & kRootBit) != 0) return *static_cast<const YLJson&>(value).arena_;
    const auto segment =
        reinterpret_cast<std::uintptr_t>(&value) & ~std::uintptr_t{kSegmentBytes - 1};
    return *std::launder(reinterpret_cast<const Arena::SegmentHeader*>(segment))->arena;
  }

  template <typename Number>
  static Number numberAt(const Arena& arena, std::uint32_t unit) {
    Number number;
    std::memcpy(&number, arena.data(unit), sizeof number);
    return number;
  }

  static std::string_view stringOf(const Arena& arena, const YLJsonValue& value) {
    switch (kindOf(value)) {
      case kTextString:
        return std::string_view(arena.text.data() + value.payload_, wordCount(value));
      case kDataString:
        if (wordCount(value) == 0) return {};
        return std::string_view(arena.data(value.payload_), wordCount(value));
      case kLongString: {
        LongString string;
        std::memcpy(&string, arena.data(value.payload_), sizeof string);
        return std::string_view(string.bytes, string.size);
      }
      default:
        return {};
    }
  }

  static std::size_t itemCount(const Arena& arena, const YLJsonValue& value) {
    switch (kindOf(value)) {
      case kRunArray:
        return wordCount(value);
      case kLongRunArray:
        return arena.record<RunHeader>(value.payload_)->count;
      case kTableArray:
        return arena.record<ArrayTable>(value.payload_)->count;
      default:
        return 0;
    }
  }

  // The item at an index below itemCount().
  static YLJsonValue* itemAt(const Arena& arena, const YLJsonValue& array, std::size_t index) {
    switch (kindOf(array)) {
      case kRunArray:
        return arena.runItem(array.payload_, index);
      case kLongRunArray:
        return arena.runItem(arena.record<RunHeader>(array.payload_)->first, index);
      default: {
        const auto* table = arena.record<ArrayTable>(array.payload_);
        return arena.value(reinterpret_cast<const std::uint32_t*>(table + 1)[index]);
      }
    }
  }

  static std::size_t memberCount(const Arena& arena, const YLJsonValue& value) {
    switch (kindOf(value)) {
      case kRunObject:
        return wordCount(value);
      case kWideObject:
        return arena.record<RunHeader>(value.payload_)->count;
      case kTableObject:
        return value.payload_ == kNoTable ? 0 : arena.record<ObjectTable>(value.payload_)->count;
      default:
        return 0;
    }
  }

  // A parsed object, either form.
  struct ParsedObject {
    std::uint32_t count;
    std::uint32_t first;
    const std::uint32_t* offsets;  // the usual form: offsets of NUL-terminated keys
    const TextKey* keys;           // the wide form
    const std::uint32_t* index;    // beyond kLinearMemberLimit members
  };

  static bool isParsedObject(const YLJsonValue& value) {
    return kindOf(value) == kRunObject || kindOf(value) == kWideObject;
  }

  static ParsedObject parsedObject(const Arena& arena, const YLJsonValue& object) {
    if (kindOf(object) == kRunObject) {
      const auto* record = arena.record<std::uint32_t>(object.payload_);
      const std::uint32_t count = wordCount(object);
      return ParsedObject{count, record[0], record + 1, nullptr, record + 1 + count};
    }
    const auto* header = arena.record<RunHeader>(object.payload_);
    const auto* keys = reinterpret_cast<const TextKey*>(header + 1);
    return ParsedObject{header->count, header->first, nullptr, keys,
                        reinterpret_cast<const std::uint32_t*>(keys + header->count)};
  }

  static std::string_view parsedKey(const Arena& arena, const ParsedObject& object,
                                    std::size_t index) {
    const char* text = arena.text.data();
    if (object.offsets != nullptr) return std::string_view(text + object.offsets[index]);
    return std::string_view(text + object.keys[index].offset, object.keys[index].size);
  }

  static bool parsedKeyIs(const Arena& arena, const ParsedObject& object, std::size_t index,
                          std::string_view key) {
    const char* text = arena.text.data();
    if (object.offsets != nullptr) {
      // The key ends at its first NUL. The first byte settles most comparisons.
      const char* stored = text + object.offsets[index];
      return (key.empty() || stored[0] == key[0]) && std::strlen(stored) == key.size() &&
             sameBytes(stored, key);
    }
    const TextKey& stored = object.keys[index];
    return stored.size == key.size() && sameBytes(text + stored.offset, key);
  }

  static std::size_t findParsedKey(const Arena& arena, const ParsedObject& object,
                                   std::string_view key) {
    if (object.count <= kLinearMemberLimit) {
      for (std::uint32_t i = 0; i < object.count; ++i) {
        if (parsedKeyIs(arena, object, i, key)) return i;
      }
      return kNotFound;
    }
    const std::size_t mask = slotCountFor(object.count) - 1;
    for (std::size_t slot = hashKey(key) & mask; object.index[slot] != 0;
         slot = (slot + 1) & mask) {
      if (parsedKeyIs(arena, object, object.index[slot] - 1, key)) return object.index[slot] - 1;
    }
    return kNotFound;
  }

  static TableMember* tableMembers(const ObjectTable* table) {
    return reinterpret_cast<TableMember*>(const_cast<ObjectTable*>(table) + 1);
  }
  static std::uint32_t* tableIndex(const ObjectTable* table) {
    return reinterpret_cast<std::uint32_t*>(tableMembers(table) + table->capacity);
  }

  static std::string_view tableKey(const Arena& arena, const TableMember& member) {
    if (member.keySize == 0) return {};
    const char* bytes = arena.data(member.key);
    if (member.keySize != kLongKey) return std::string_view(bytes, member.keySize);
    std::uint64_t size;
    std::memcpy(&size, bytes - sizeof size, sizeof size);
    return std::string_view(bytes, size);
  }

  // The key at an index below memberCount().
  static std::string_view keyAt(const Arena& arena, const YLJsonValue& object, std::size_t index) {
    if (isParsedObject(object)) return parsedKey(arena, parsedObject(arena, object), index);
    return tableKey(arena, tableMembers(arena.record<ObjectTable>(object.payload_))[index]);
  }

  // The value at an index below memberCount().
  static YLJsonValue* memberAt(const Arena& arena, const YLJsonValue& object, std::size_t index) {
    if (isParsedObject(object)) return arena.runItem(parsedObject(arena, object).first, index);
    return arena.value(tableMembers(arena.record<ObjectTable>(object.payload_))[index].value);
  }

  static std::size_t findMember(const Arena& arena, const YLJsonValue& object,
                                std::string_view key) {
    if (isParsedObject(object)) return findParsedKey(arena, parsedObject(arena, object), key);
    if (kindOf(object) == kTableObject && object.payload_ != kNoTable)
      return findTableKey(arena, *arena.record<ObjectTable>(object.payload_), key);
    return kNotFound;
  }

  static bool memberMatches(const Arena& arena, const TableMember& member, std::string_view key,
                            std::uint32_t prefix) {
    if (member.prefix != prefix || member.keySize != keySizeField(key.size())) return false;
    if (member.keySize == kLongKey) return tableKey(arena, member) == key;
    // Keys of up to four bytes are settled by the prefix and the size.
    return member.keySize <= sizeof prefix ||
           std::memcmp(arena.data(member.key) + sizeof prefix, key.data() + sizeof prefix,
                       member.keySize - sizeof prefix) == 0;
  }

  static std::size_t findTableKey(const Arena& arena, const ObjectTable& table,
                                  std::string_view key) {
    const TableMember* members = tableMembers(&table);
    const std::uint32_t prefix = keyPrefix(key);
    if (table.indexSlots == 0) {
      for (std::uint32_t i = 0; i < table.count; ++i) {
        if (memberMatches(arena, members[i], key, prefix)) return i;
      }
      return kNotFound;
    }
    const std::uint32_t* index = tableIndex(&table);
    const std::size_t mask = table.indexSlots - 1;
    for (std::size_t slot = hashKey(key) & mask; index[slot] != 0; slot = (slot + 1) & mask) {
      if (memberMatches(arena, members[index[slot] - 1], key, prefix)) return index[slot] - 1;
    }
    return kNotFound;
  }

  // ---- Changing values ----------------------------------------------------------------------

  // Gives the value a new content; the mark of the document itself stays.
  static void set(YLJsonValue& value, Encoded encoded) {
    value.word_ = (value.word_ & kRootBit) | encoded.word;
    value.payload_ = encoded.payload;
  }
  static void makeNull(YLJsonValue& value) { set(value, Encoded{makeWord(kNull), 0}); }
  static void makeEmptyObject(YLJsonValue& value) {
    set(value, Encoded{makeWord(kTableObject), kNoTable});
  }
  static void makeEmptyArray(YLJsonValue& value) { set(value, Encoded{makeWord(kRunArray), 0}); }

  template <typename Number>
  static std::uint32_t storeNumber(Arena& arena, Number number) {
    const std::uint32_t unit = arena.allocateData(sizeof number);
    std::memcpy(arena.data(unit), &number, sizeof number);
    return unit;
  }

  static Encoded encodeInteger(Arena& arena, std::int64_t number) {
    if (number >= std::numeric_limits<std::int32_t>::min() &&
        number <= std::numeric_limits<std::int32_t>::max()) {
      return Encoded{makeWord(kInt32), static_cast<std::uint32_t>(number)};
    }
    return Encoded{makeWord(kInt64), storeNumber(arena, number)};
  }

  static Encoded encodeDouble(Arena& arena, double number) {
    return Encoded{makeWord(kDouble), storeNumber(arena, number)};
  }

  // A long string's record, for bytes that stay where they are.
  static Encoded encodeLongString(Arena& arena, const char* bytes, std::size_t size) {
    const std::uint32_t unit = arena.allocateData(sizeof(LongString));
    const LongString string{bytes, size};
    std::memcpy(arena.data(unit), &string, sizeof string);
    return Encoded{makeWord(kLongString), unit};
  }

  static Encoded copyString(Arena& arena, std::string_view text) {
    if (text.empty()) return Encoded{makeWord(kDataString), 0};
    if (text.size() < kWordCountLimit) {
      const std::uint32_t unit = arena.allocateData(text.size());
      std::memcpy(arena.data(unit), text.data(), text.size());
      return Encoded{makeWord(kDataString, text.size()), unit};
    }
    const std::uint32_t unit = arena.allocateData(sizeof(LongString) + text.size());
    char* bytes = arena.data(unit) + sizeof(LongString);
    std::memcpy(bytes, text.data(), text.size());
    const LongString string{bytes, text.size()};
    std::memcpy(arena.data(unit), &string, sizeof string);
    return Encoded{makeWord(kLongString), unit};
  }

  // A key as TableMember expects it: a long one carries its size in front.
  static std::uint32_t copyKey(Arena& arena, std::string_view key) {
    if (key.empty()) return 0;
    if (key.size() < kLongKey) {
      const std::uint32_t unit = arena.allocateData(key.size());
      std::memcpy(arena.data(unit), key.data(), key.size());
      return unit;
    }
    const std::uint64_t size = key.size();
    const std::uint32_t unit = arena.allocateData(sizeof size + key.size());
    std::memcpy(arena.data(unit), &size, sizeof size);
    std::memcpy(arena.data(unit) + sizeof size, key.data(), key.size());
    return unit + sizeof size / kUnitBytes;
  }

  static YLJsonValue* construct(const Arena& arena, std::uint32_t slot) {
    return new (arena.slotAddress(slot)) YLJsonValue();
  }

  // Gives the array an item table with room for capacity items, holding the items it has.
  static void makeItemTable(Arena& arena, YLJsonValue& array, std::size_t capacity) {
    const std::size_t count = itemCount(arena, array);
    const std::uint32_t unit =
        arena.allocateData(sizeof(ArrayTable) + capacity * sizeof(std::uint32_t));
    auto* table = arena.record<ArrayTable>(unit);
    auto* slots = reinterpret_cast<std::uint32_t*>(table + 1);
    switch (kindOf(array)) {
      case kTableArray: {
        const auto* old = arena.record<ArrayTable>(array.payload_);
        std::memcpy(slots, old + 1, count * sizeof(std::uint32_t));
        break;
      }
      case kRunArray:
      case kLongRunArray: {
        const std::uint32_t first = kindOf(array) == kRunArray
                                        ? array.payload_
                                        : arena.record<RunHeader>(array.payload_)->first;
        for (std::size_t i = 0; i < count; ++i)
          slots[i] = Arena::runSlot(first, i);
        break;
      }
      default:
        break;
    }
    table->count = static_cast<std::uint32_t>(count);
    table->capacity = static_cast<std::uint32_t>(capacity);
    set(array, Encoded{makeWord(kTableArray), unit});
  }

  static YLJsonValue* appendItem(Arena& arena, YLJsonValue& array) {
    if (kindOf(array) != kTableArray || arena.record<ArrayTable>(array.payload_)->count ==
                                            arena.record<ArrayTable>(array.payload_)->capacity) {
      const std::size_t count = itemCount(arena, array);
      if (count == kMaxCount) throw std::length_error("a JSON array is full");
      makeItemTable(arena, array, std::clamp<std::size_t>(count * 2, 4, kMaxCount));
    }
    const std::uint32_t slot = arena.allocateValues(1);
    YLJsonValue* item = construct(arena, slot);
    auto* table = arena.record<ArrayTable>(array.payload_);
    reinterpret_cast<std::uint32_t*>(table + 1)[table->count++] = slot;
    return item;
  }

  static void indexMember(const Arena& arena, const ObjectTable* table, std::uint32_t position) {
    std::uint32_t* index = tableIndex(table);
    const std::size_t mask = table->indexSlots - 1;
    std::size_t slot = hashKey(tableKey(arena, tableMembers(table)[position])) & mask;
    while (index[slot] != 0)
      slot = (slot + 1) & mask;
    index[slot] = position + 1;
  }

  // Gives the object a member table with room for capacity members, holding the members it has.
  // Keys of a parsed object are copied into it; values stay where they are.
  static void makeMemberTable(Arena& arena, YLJsonValue& object, std::size_t capacity) {
    const std::size_t count = memberCount(arena, object);
    const std::uint32_t slots = capacity > kLinearMemberLimit ? slotCountFor(capacity) : 0;
    const std::uint32_t unit =
        arena.allocateData(sizeof(ObjectTable) + capacity * sizeof(TableMember) +
                           std::size_t{slots} * sizeof(std::uint32_t));
    auto* table = arena.record<ObjectTable>(unit);
    *table = ObjectTable{0, static_cast<std::uint32_t>(capacity), slots, 0};
    TableMember* members = tableMembers(table);
    if (isParsedObject(object)) {
      const ParsedObject parsed = parsedObject(arena, object);
      for (std::size_t i = 0; i < count; ++i) {
        const std::string_view key = parsedKey(arena, parsed, i);
        members[i] = TableMember{copyKey(arena, key), keySizeField(key.size()),
                                 Arena::runSlot(parsed.first, i), keyPrefix(key)};
      }
    } else if (count != 0) {
      std::memcpy(static_cast<void*>(members),
                  tableMembers(arena.record<ObjectTable>(object.payload_)),
                  count * sizeof(TableMember));
    }
    table->count = static_cast<std::uint32_t>(count);
    if (slots != 0) {
      std::memset(tableIndex(table), 0, std::size_t{slots} * sizeof(std::uint32_t));
      for (std::uint32_t i = 0; i < table->count; ++i)
        indexMember(arena, table, i);
    }
    set(object, Encoded{makeWord(kTableObject), unit});
  }

  // Adds a key that the object does not have.
  static YLJsonValue* appendMember(Arena& arena, YLJsonValue& object, std::string_view key) {
    if (kindOf(object) != kTableObject || object.payload_ == kNoTable ||
        arena.record<ObjectTable>(object.payload_)->count ==
            arena.record<ObjectTable>(object.payload_)->capacity) {
      const std::size_t count = memberCount(arena, object);
      if (count == kMaxCount) throw std::length_error("a JSON object is full");
      makeMemberTable(arena, object, std::clamp<std::size_t>(count * 2, 4, kMaxCount));
    }
    const std::uint32_t keyUnit = copyKey(arena, key);
    const std::uint32_t slot = arena.allocateValues(1);
    YLJsonValue* value = construct(arena, slot);
    auto* table = arena.record<ObjectTable>(object.payload_);
    tableMembers(table)[table->count] =
        TableMember{keyUnit, keySizeField(key.size()), slot, keyPrefix(key)};
    if (table->indexSlots != 0) indexMember(arena, table, table->count);
    ++table->count;
    return value;
  }

  // ---- Parsing: the SAX handler -----------------------------------------------------------
  //
  // A container's children wait on a stack until it closes; then they are placed as one run of
  // values, and the container itself waits among its parent's children. The root is the document.

  struct Pending {
    std::uint32_t word;
    std::uint32_t payload;
    std::uint32_t keyOffset;
    std::uint32_t keySize;
  };
  struct Frame {
    std::size_t firstPending;
    std::uint32_t keyOffset;  // the container's own key in its parent
    std::uint32_t keySize;
  };

  YLJsonBuilder(YLJson& document, const char* text)
      : document_(document), arena_(*document.arena_), text_(text) {
    frames_.reserve(64);
    pending_.reserve(256);
  }

  // Fills the document's text store, then parses it in place. On failure nothing stays, the text
  // included.
  template <typename Fill>
  static void parseDocument(YLJson& document, Fill&& fill) {
    try {
      fill(document.arena_->text);
      document.valid_ = parse(document);
    } catch (const std::bad_alloc&) {
      document.valid_ = false;  // a text too large for the memory at hand is treated as a bad one
    }
    if (!document.valid_) {
      makeNull(document);
      document.arena_->release();
    }
  }

  static bool parse(YLJson& document) {
    std::string& text = document.arena_->text;
    const std::size_t size = text.size();
    if (size > kMaxTextSize) return false;
    // The wide loads are aligned, so they reach at most to the end of the 16-byte block that holds
    // the terminating NUL. When the buffer reaches that far, they are safe.
    const auto start = reinterpret_cast<std::uintptr_t>(text.data());
    const std::size_t lastLoaded = ((start + size) | kWideLoadSlack) - start;
    if (lastLoaded <= text.capacity()) {
      if (holdsByteThatWideScansMiss(text.data(), size)) return false;
      text.resize(lastLoaded);  // zeros within the capacity: no reallocation
      return parseWith<rapidjson::InsituStringStream>(document, size);
    }
    return parseWith<BytewiseInsituStream>(document, size);
  }

  template <typename Stream>
  static bool parseWith(YLJson& document, std::size_t size) {
    Arena& arena = *document.arena_;
    char* buffer = arena.text.data();
    arena.parseSize = size;
    Stream stream(buffer);
    YLJsonBuilder builder(document, buffer);
    DocumentReader reader;
    const bool failed = reader.Parse<kParseFlags>(stream, builder).IsError();
    arena.parseSize = 0;
    arena.parsePosition = 0;
    arena.parseWaiting = 0;
    if (failed) return false;

    // The parser takes a NUL byte for the end of the text; only white space may follow the root
    // up to the text's real end.
    for (std::size_t position = stream.Tell(); position < size; ++position) {
      if (!isJsonSpace(buffer[position])) return false;
    }
    return true;
  }

  bool Null() { return add(Encoded{makeWord(kNull), 0}); }
  bool Bool(bool value) { return add(Encoded{makeWord(kBool), value ? 1u : 0u}); }
  bool Int(int value) { return Int64(value); }
  bool Uint(unsigned value) { return Int64(value); }
  bool Int64(std::int64_t value) { return add(encodeInteger(arena_, value)); }
  bool Uint64(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return Int64(static_cast<std::int64_t>(value));
    return add(Encoded{makeWord(kUint64), storeNumber(arena_, value)});
  }
  bool Double(double value) { return add(encodeDouble(arena_, value)); }
  // Numbers come through readNumber, never raw.
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return false; }
  bool String(const char* bytes, rapidjson::SizeType size, bool) {
    arena_.parsePosition = offsetOf(bytes);
    if (size < kWordCountLimit) {
      return add(
          Encoded{makeWord(kTextString, size), static_cast<std::uint32_t>(arena_.parsePosition)});
    }
    return add(encodeLongString(arena_, bytes, size));
  }
  bool Key(const char* bytes, rapidjson::SizeType size, bool) {
    keyOffset_ = offsetOf(bytes);
    keySize_ = size;
    arena_.parsePosition = keyOffset_;
    return true;
  }
  bool StartObject() { return open(); }
  bool StartArray() { return open(); }

  bool EndArray(rapidjson::SizeType) {
    const Frame frame = close();
    const std::size_t count = pending_.size() - frame.firstPending;
    Encoded array{makeWord(kRunArray), 0};
    if (count != 0) {
      const std::uint32_t first = placeRun(pending_.data() + frame.firstPending, count);
      if (count < kWordCountLimit) {
        array = Encoded{makeWord(kRunArray, count), first};
      } else {
        const std::uint32_t unit = arena_.allocateData(sizeof(RunHeader));
        *arena_.record<RunHeader>(unit) = RunHeader{static_cast<std::uint32_t>(count), first};
        array = Encoded{makeWord(kLongRunArray), unit};
      }
    }
    pending_.resize(frame.firstPending);
    return add(array);
  }

  // The keys stay in the text; the object's record says where, and where its run of values starts.
  // Of duplicate keys the last value wins and the member stays where the key first appeared.
  bool EndObject(rapidjson::SizeType) {
    const Frame frame = close();
    Pending* members = pending_.data() + frame.firstPending;
    std::size_t count = pending_.size() - frame.firstPending;
    Encoded object{makeWord(kTableObject), kNoTable};
    if (count != 0) {
      const std::uint32_t slots = count > kLinearMemberLimit ? slotCountFor(count) : 0;
      count = slots != 0 ? mergeIndexed(members, count, slots) : mergeSmall(members, count);
      const std::uint32_t finalSlots = count > kLinearMemberLimit ? slotCountFor(count) : 0;
      bool wide = count >= kWordCountLimit;
      for (std::size_t i = 0; i < count && !wide; ++i)
        wide = std::memchr(text_ + members[i].keyOffset, 0, members[i].keySize) != nullptr;
      const std::size_t keyBytes =
          wide ? sizeof(RunHeader) + count * sizeof(TextKey) : (1 + count) * sizeof(std::uint32_t);
      const std::uint32_t unit =
          arena_.allocateData(keyBytes + std::size_t{finalSlots} * sizeof(std::uint32_t));
      char* record = arena_.data(unit);
      auto* words = reinterpret_cast<std::uint32_t*>(record);
      auto* keys = reinterpret_cast<TextKey*>(record + sizeof(RunHeader));
      for (std::size_t i = 0; i < count; ++i) {
        if (wide) {
          keys[i] = TextKey{members[i].keyOffset, members[i].keySize};
        } else {
          words[1 + i] = members[i].keyOffset;
        }
      }
      auto* index = reinterpret_cast<std::uint32_t*>(record + keyBytes);
      if (finalSlots == slots) {
        // Built from the same keys in the same order: the merge's index is the one wanted.
        std::copy(scratchIndex_.begin(), scratchIndex_.begin() + slots, index);
      } else if (finalSlots != 0) {
        std::fill(index, index + finalSlots, 0u);
        const std::size_t mask = finalSlots - 1;
        for (std::size_t i = 0; i < count; ++i) {
          std::size_t slot = hashKey(keyOf(members[i])) & mask;
          while (index[slot] != 0)
            slot = (slot + 1) & mask;
          index[slot] = static_cast<std::uint32_t>(i + 1);
        }
      }
      const std::uint32_t first = placeRun(members, count);
      if (wide) {
        *reinterpret_cast<RunHeader*>(record) = RunHeader{static_cast<std::uint32_t>(count), first};
        object = Encoded{makeWord(kWideObject), unit};
      } else {
        words[0] = first;
        object = Encoded{makeWord(kRunObject, count), unit};
      }
    }
    pending_.resize(frame.firstPending);
    return add(object);
  }

 private:
  std::uint32_t offsetOf(const char* bytes) const {
    return static_cast<std::uint32_t>(bytes - text_);
  }

  std::string_view keyOf(const Pending& member) const {
    return std::string_view(text_ + member.keyOffset, member.keySize);
  }

  // A finished value: the document itself at the top, otherwise a child of the open container,
  // under the last key read.
  bool add(Encoded value) {
    if (frames_.empty()) {
      set(document_, value);
      return true;
    }
    pending_.push_back(Pending{value.word, value.payload, keyOffset_, keySize_});
    return true;
  }

  bool open() {
    if (frames_.size() >= YLJson::kMaxDepth) return false;
    frames_.push_back(Frame{pending_.size(), keyOffset_, keySize_});
    return true;
  }

  // Ends the innermost container; its own key is the last key read again.
  Frame close() {
    const Frame frame = frames_.back();
    frames_.pop_back();
    keyOffset_ = frame.keyOffset;
    keySize_ = frame.keySize;
    return frame;
  }

  // Constructs the values of the entries as one run and gives its first slot.
  std::uint32_t placeRun(const Pending* entries, std::size_t count) {
    arena_.parseWaiting = pending_.size();
    const std::uint32_t first = arena_.allocateValues(count);
    std::size_t segment = first >> kSlotShift;
    std::uint32_t position = first & (kSlotsPerSegment - 1);
    char* base = arena_.valueSegments[segment];
    for (std::size_t i = 0; i < count; ++i, ++position) {
      if (position == kSlotsPerSegment) {
        position = 1;
        base = arena_.valueSegments[++segment];
      }
      auto* value = new (base + position * kSlotBytes) YLJsonValue();
      value->word_ = entries[i].word;
      value->payload_ = entries[i].payload;
    }
    return first;
  }

  // Up to kLinearMemberLimit members: a cheap fingerprint of each key rules out duplicates in the
  // common case without comparing every pair.
  std::size_t mergeSmall(Pending* members, std::size_t count) const {
    std::uint64_t seen = 0;
    bool maybeDuplicate = false;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string_view key = keyOf(members[i]);
      const unsigned last = key.empty() ? 0 : static_cast<unsigned char>(key.back());
      const unsigned first = key.empty() ? 0 : static_cast<unsigned char>(key.front());
      const std::uint64_t bit = std::uint64_t{1} << ((key.size() + first * 7 + last * 13) & 63);
      maybeDuplicate |= (seen & bit) != 0;
      seen |= bit;
    }
    if (!maybeDuplicate) return count;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < count; ++i) {
      std::size_t j = 0;
      while (j < kept && keyOf(members[j]) != keyOf(members[i]))
        ++j;
      if (j < kept) {
        members[j].word = members[i].word;
        members[j].payload = members[i].payload;
      } else {
        members[kept++] = members[i];
      }
    }
    return kept;
  }

  // More members: duplicates are found through a hash index of the kept ones, which is left in
  // scratchIndex_.
  std::size_t mergeIndexed(Pending* members, std::size_t count, std::uint32_t slots) {
    scratchIndex_.assign(slots, 0);
    const std::size_t mask = slots - 1;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string_view key = keyOf(members[i]);
      std::size_t slot = hashKey(key) & mask;
      while (scratchIndex_[slot] != 0 && keyOf(members[scratchIndex_[slot] - 1]) != key)
        slot = (slot + 1) & mask;
      if (scratchIndex_[slot] != 0) {
        Pending& earlier = members[scratchIndex_[slot] - 1];
        earlier.word = members[i].word;
        earlier.payload = members[i].payload;
        continue;
      }
      members[kept] = members[i];
      scratchIndex_[slot] = static_cast<std::uint32_t>(++kept);
    }
    return kept;
  }

  YLJson& document_;
  Arena& arena_;
  const char* text_;
  std::vector<Frame> frames_;
  std::vector<Pending> pending_;
  std::vector<std::uint32_t> scratchIndex_;
  std::uint32_t keyOffset_ = 0;
  std::uint32_t keySize_ = 0;
};

namespace rapidjson {
template <>
template <>
void DocumentReader::ParseNumber<kParseFlags, InsituStringStream, YLJsonBuilder>(
    InsituStringStream& is, YLJsonBuilder& handler) {
  const NumberRead read = readNumber(is, handler);
  if (read.error != kParseErrorNone) SetParseError(read.error, read.offset);
}

template <>
template <>
void DocumentReader::ParseNumber<kParseFlags, BytewiseInsituStream, YLJsonBuilder>(
    BytewiseInsituStream& is, YLJsonBuilder& handler) {
  const NumberRead read = readNumber(is, handler);
  if (read.error != kParseErrorNone) SetParseError(read.error, read.offset);
}
}  // namespace rapidjson

// ---- YLJsonValue ----------------------------------------------------------------------------

YLJsonValue::~YLJsonValue() = default;

bool YLJsonValue::getIsValidJson() const {
  return YLJsonBuilder::arenaOf(*this).document->getIsValidJson();
}

YLJsonValueType YLJsonValue::obtainType() const {
  return kTypeOfKind[word_ & kKindMask];
}

YLJsonValue* YLJsonValue::obtainKeyValue(std::string_view key) const {
  if (obtainType() != YLJsonValueType::Object) return nullptr;
  const YLJson::Arena& arena = YLJsonBuilder::arenaOf(*this);
  const std::size_t position = YLJsonBuilder::findMember(arena, *this, key);
  return position == YLJsonBuilder::kNotFound ? nullptr
                                              : YLJsonBuilder::memberAt(arena, *this, position);
}

std::size_t YLJsonValue::obtainArraySize() const {
  if (YLJsonBuilder::kindOf(*this) == kRunArray) return YLJsonBuilder::wordCount(*this);
  if (obtainType() != YLJsonValueType::Array) return 0;
  return YLJsonBuilder::itemCount(YLJsonBuilder::arenaOf(*this), *this);
}

YLJsonValue* YLJsonValue::obtainArrayItem(std::size_t index) const {
  if (obtainType() != YLJsonValueType::Array) return nullptr;
  const YLJson::Arena& arena = YLJsonBuilder::arenaOf(*this);
  if (index >= YLJsonBuilder::itemCount(arena, *this)) return nullptr;
  return YLJsonBuilder::itemAt(arena, *this, index);
}

std::string YLJsonValue::obtainStringValue() const {
  return std::string(obtainStringView());
}

std::string_view YLJsonValue::obtainStringView() const {
  if (obtainType() != YLJsonValueType::String) return {};
  return YLJsonBuilder::stringOf(YLJsonBuilder::arenaOf(*this), *this);
}

std::int32_t YLJsonValue::obtainIntValue() const {
  constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
  constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
  switch (YLJsonBuilder::kindOf(*this)) {
    case kInt32:
      return static_cast<std::int32_t>(payload_);
    case kInt64: {
      const auto value =
          YLJsonBuilder::numberAt<std::int64_t>(YLJsonBuilder::arenaOf(*this), payload_);
      return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, kMin, kMax));
    }
    case kUint64:
      return kMax;  // only integers above the signed 64-bit range are kept unsigned
    case kDouble: {
      const auto value = YLJsonBuilder::numberAt<double>(YLJsonBuilder::arenaOf(*this), payload_);
      if (std::isnan(value)) return 0;
      if (value <= static_cast<double>(kMin)) return kMin;
      if (value >= static_cast<double>(kMax)) return kMax;
      return static_cast<std::int32_t>(value);
    }
    default:
      return 0;
  }
}

double YLJsonValue::obtainDoubleValue() const {
  switch (YLJsonBuilder::kindOf(*this)) {
    case kInt32:
      return static_cast<std::int32_t>(payload_);
    case kInt64:
      return static_cast<double>(
          YLJsonBuilder::numberAt<std::int64_t>(YLJsonBuilder::arenaOf(*this), payload_));
    case kUint64:
      return static_cast<double>(
          YLJsonBuilder::numberAt<std::uint64_t>(YLJsonBuilder::arenaOf(*this), payload_));
    case kDouble:
      return YLJsonBuilder::numberAt<double>(YLJsonBuilder::arenaOf(*this), payload_);
    default:
      return 0.0;
  }
}

bool YLJsonValue::obtainBoolValue() const {
  return YLJsonBuilder::kindOf(*this) == kBool && payload_ != 0;
}

std::size_t YLJsonValue::obtainMemberCount() const {
  if (obtainType() != YLJsonValueType::Object) return 0;
  return YLJsonBuilder::memberCount(YLJsonBuilder::arenaOf(*this), *this);
}

std::string_view YLJsonValue::obtainMemberKey(std::size_t index) const {
  if (obtainType() != YLJsonValueType::Object) return {};
  const YLJson::Arena& arena = YLJsonBuilder::arenaOf(*this);
  if (index >= YLJsonBuilder::memberCount(arena, *this)) return {};
  return YLJsonBuilder::keyAt(arena, *this, index);
}

YLJsonValue* YLJsonValue::obtainMemberValue(std::size_t index) const {
  if (obtainType() != YLJsonValueType::Object) return nullptr;
  const YLJson::Arena& arena = YLJsonBuilder::arenaOf(*this);
  if (index >= YLJsonBuilder::memberCount(arena, *this)) return nullptr;
  return YLJsonBuilder::memberAt(arena, *this, index);
}

YLJsonValue* YLJsonValue::addKeyValue(std::string_view key) {
  if (obtainType() != YLJsonValueType::Object) YLJsonBuilder::makeEmptyObject(*this);
  YLJson::Arena& arena = YLJsonBuilder::arenaOf(*this);
  const std::size_t existing = YLJsonBuilder::findMember(arena, *this, key);
  if (existing != YLJsonBuilder::kNotFound) {
    YLJsonValue* value = YLJsonBuilder::memberAt(arena, *this, existing);
    YLJsonBuilder::makeNull(*value);
    return value;
  }
  return YLJsonBuilder::appendMember(arena, *this, key);
}

YLJsonValue* YLJsonValue::addArrayItem() {
  if (obtainType() != YLJsonValueType::Array) setArrayType();
  return YLJsonBuilder::appendItem(YLJsonBuilder::arenaOf(*this), *this);
}

void YLJsonValue::setArrayType() {
  YLJsonBuilder::makeEmptyArray(*this);
}

void YLJsonValue::setStringValue(std::string_view value) {
  // The text may be a view of this very value: its bytes stay valid while they are copied.
  YLJsonBuilder::set(*this, YLJsonBuilder::copyString(YLJsonBuilder::arenaOf(*this), value));
}

void YLJsonValue::setIntValue(std::int64_t value) {
  YLJsonBuilder::set(*this, YLJsonBuilder::encodeInteger(YLJsonBuilder::arenaOf(*this), value));
}

void YLJsonValue::setDoubleValue(double value) {
  YLJsonBuilder::set(*this, YLJsonBuilder::encodeDouble(YLJsonBuilder::arenaOf(*this), value));
}

void YLJsonValue::setBoolValue(bool value) {
  YLJsonBuilder::set(*this, YLJsonBuilder::Encoded{makeWord(kBool), value ? 1u : 0u});
}

std::string YLJsonValue::obtainJsonString() const {
  std::string out;
  appendJsonString(out);
  return out;
}

void YLJsonValue::appendJsonString(std::string& out) const {
  using Builder = YLJsonBuilder;
  const YLJson::Arena& arena = Builder::arenaOf(*this);
  // An explicit stack: a built document can be nested far deeper than the call stack allows.
  struct Frame {
    const YLJsonValue* container;
    std::size_t next;
    std::size_t count;
    bool object;
  };
  std::vector<Frame> open;
  const YLJsonValue* value = this;
  while (value != nullptr) {
    switch (Builder::kindOf(*value)) {
      case kNull:
        out += "null";
        break;
      case kBool:
        out += value->payload_ != 0 ? "true" : "false";
        break;
      case kInt32:
        appendInteger(out, static_cast<std::int32_t>(value->payload_));
        break;
      case kInt64:
        appendInteger(out, Builder::numberAt<std::int64_t>(arena, value->payload_));
        break;
      case kUint64:
        appendInteger(out, Builder::numberAt<std::uint64_t>(arena, value->payload_));
        break;
      case kDouble:
        appendDouble(out, Builder::numberAt<double>(arena, value->payload_));
        break;
      case kTextString:
      case kDataString:
      case kLongString: {
        const std::string_view text = Builder::stringOf(arena, *value);
        appendQuoted(out, text.data(), text.size());
        break;
      }
      case kRunArray:
      case kLongRunArray:
      case kTableArray:
        out += '[';
        open.push_back(Frame{value, 0, Builder::itemCount(arena, *value), false});
        break;
      case kRunObject:
      case kWideObject:
      case kTableObject:
        out += '{';
        open.push_back(Frame{value, 0, Builder::memberCount(arena, *value), true});
        break;
    }

    // Go on with the next child of the innermost open container, closing finished ones.
    value = nullptr;
    while (!open.empty()) {
      Frame& frame = open.back();
      if (frame.next < frame.count) {
        if (frame.next != 0) out += ',';
        if (frame.object) {
          const std::string_view key = Builder::keyAt(arena, *frame.container, frame.next);
          appendQuoted(out, key.data(), key.size());
          out += ':';
          value = Builder::memberAt(arena, *frame.container, frame.next);
        } else {
          value = Builder::itemAt(arena, *frame.container, frame.next);
        }
        ++frame.next;
        break;
      }
      out += frame.object ? '}' : ']';
      open.pop_back();
    }
  }
}

// ---- YLJson ---------------------------------------------------------------------------------

YLJson::YLJson() : arena_(std::make_unique<Arena>(this)) {
  word_ = kRootBit;
}

YLJson::YLJson(std::string_view text) : YLJson() {
  YLJsonBuilder::parseDocument(*this, [text](std::string& store) {
    // A new string reserves exactly what it is asked for: the text and room for the wide loads.
    store.reserve(text.size() + kWideLoadSlack);
    store.assign(text);
  });
}

YLJson::YLJson(const char* text)
    : YLJson(text != nullptr ? std::string_view(text) : std::string_view()) {}

YLJson::YLJson(std::string&& text) : YLJson() {
  YLJsonBuilder::parseDocument(*this, [&text](std::string& store) {
    store = std::move(text);
    text.clear();
  });
}

YLJson::~YLJson() = default;

bool YLJson::getIsValidJson() const {
  return valid_;
}

std::size_t YLJson::obtainStorageSize() const {
  return arena_->storageSize();
}

// ---- From variants --------------------------------------------------------------------------

std::unique_ptr<YLJson> ylCreateYLJsonFromYLVariant(const YLVariant& value) {
  auto document = std::make_unique<YLJson>();
  // Children are created in order when their parent is visited, so the order in which the work
  // list is drained does not change the order of members or items.
  std::vector<std::pair<const YLVariant*, YLJsonValue*>> work{{&value, document.get()}};
  while (!work.empty()) {
    const auto [variant, target] = work.back();
    work.pop_back();
    switch (variant->getValueType()) {
      case YLVariant::ValueType::Null:
        break;
      case YLVariant::ValueType::String:
        target->setStringValue(*variant->stringPtr());
        break;
      case YLVariant::ValueType::Int:
        target->setIntValue(variant->intValue());
        break;
      case YLVariant::ValueType::Double:
        target->setDoubleValue(variant->doubleValue());
        break;
      case YLVariant::ValueType::List:
        target->setArrayType();
        for (const YLVariant& item : *variant->listPtr()) {
          work.emplace_back(&item, target->addArrayItem());
        }
        break;
      case YLVariant::ValueType::Map: {
        // An empty map is still an object: make it one before adding anything.
        YLJsonBuilder::makeEmptyObject(*target);
        for (const auto& [key, member] : *variant->mapPtr()) {
          work.emplace_back(&member, target->addKeyValue(key));
        }
        break;
      }
    }
  }
  return document;
}
