#include "yl/yl_json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <utility>
#include <vector>

#include "yl/yl_variant.h"

// RapidJSON's SIMD paths scan white space and unescaped string runs 16 bytes at a time. SSE2 is
// part of every x86-64; the parse buffer below is padded so that the aligned loads stay inside it.
// RapidJSON is header-only: any other file of the library that includes it must make the same
// choice, or the two would disagree on the same inline functions.
#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>

namespace {

enum NumberKind : std::uint32_t {
  kInt64 = 0,
  kUint64 = 1,
  kDouble = 2,
};

// Objects up to this size are searched by a scan of their members: for a handful of keys that
// beats hashing. Larger objects carry a hash index so that lookups stay constant-time.
constexpr std::uint32_t kLinearMemberLimit = 16;

// Bytes of zeros after the copy of a text being parsed: the terminating NUL plus room for the
// 16-byte loads of RapidJSON's SIMD scanners.
constexpr std::size_t kParsePadding = 32;

constexpr std::size_t kFirstBlockSize = 4096;
constexpr std::size_t kLargestBlockSize = std::size_t{1} << 20;

const char kEmptyBytes[1] = {'\0'};

// Index slots for a member table: a power of two, at most half full.
std::uint32_t slotCountFor(std::uint32_t capacity) {
  std::uint64_t slots = 32;
  while (slots < std::uint64_t{capacity} * 2)
    slots *= 2;
  // Beyond 2^31 members (tens of gigabytes) the object simply goes without an index.
  return slots <= std::numeric_limits<std::uint32_t>::max() / 2 + 1
             ? static_cast<std::uint32_t>(slots)
             : 0;
}

bool sameKey(const char* bytes, std::size_t size, std::string_view key) {
  return size == key.size() && (size == 0 || std::memcmp(bytes, key.data(), size) == 0);
}

std::size_t hashKey(const char* bytes, std::size_t size) {
  return std::hash<std::string_view>{}(std::string_view(bytes, size));
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
    if (escape == 0)
      continue;
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
  if (text.find_first_of(".e") == std::string_view::npos)
    out += ".0";
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

// A key's first four bytes, zero-padded. Kept in the member table, they settle most comparisons
// without a visit to the key's bytes, which lie elsewhere in memory; keys of up to four bytes
// ("name", "type") never need that visit.
std::uint32_t keyPrefix(std::string_view key) {
  std::uint32_t prefix = 0;
  if (!key.empty())
    std::memcpy(&prefix, key.data(), std::min<std::size_t>(key.size(), sizeof prefix));
  return prefix;
}

}  // namespace

struct YLJsonValue::Member {
  // Keys of 4 GiB and more are only made by addKeyValue; their size is kept in the 8 bytes before
  // their first byte.
  static constexpr std::uint32_t kLongKey = std::numeric_limits<std::uint32_t>::max();

  static std::uint32_t sizeField(std::size_t size) {
    return size >= kLongKey ? kLongKey : static_cast<std::uint32_t>(size);
  }

  static Member make(const char* key, std::size_t size, YLJsonValue* value) {
    return Member{key, sizeField(size), keyPrefix(std::string_view(key, size)), value};
  }

  std::string_view keyView() const {
    if (keySize != kLongKey)
      return std::string_view(key, keySize);
    std::size_t size;
    std::memcpy(&size, key - sizeof size, sizeof size);
    return std::string_view(key, size);
  }

  bool matches(std::string_view other, std::uint32_t otherPrefix) const {
    if (prefix != otherPrefix || keySize != sizeField(other.size()))
      return false;
    if (keySize == kLongKey)
      return keyView() == other;
    return keySize <= sizeof prefix ||
           std::memcmp(key + sizeof prefix, other.data() + sizeof prefix,
                       keySize - sizeof prefix) == 0;
  }

  const char* key;
  std::uint32_t keySize;
  std::uint32_t prefix;
  YLJsonValue* value;
};

// Bump allocation in blocks that live as long as the document: nodes never move and nothing is
// freed one by one.
struct YLJson::Arena {
  Arena() = default;
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;
  ~Arena() { clear(); }

  void clear() {
    for (void* block : blocks)
      ::operator delete(block);
    blocks.clear();
    cursor = nullptr;
    limit = nullptr;
    nextBlockSize = kFirstBlockSize;
  }

  void* allocate(std::size_t size, std::size_t alignment) {
    const std::size_t padding = (0 - reinterpret_cast<std::uintptr_t>(cursor)) & (alignment - 1);
    if (padding + size <= static_cast<std::size_t>(limit - cursor)) {
      char* result = cursor + padding;
      cursor = result + size;
      return result;
    }
    return allocateSlow(size, alignment);
  }

  void* allocateSlow(std::size_t size, std::size_t alignment) {
    // Blocks from operator new are aligned for every type a document stores.
    if (size + alignment > nextBlockSize / 4) {
      void* block = ::operator new(size);
      blocks.push_back(block);
      return block;
    }
    char* block = static_cast<char*>(::operator new(nextBlockSize));
    blocks.push_back(block);
    cursor = block;
    limit = block + nextBlockSize;
    nextBlockSize = std::min(nextBlockSize * 2, kLargestBlockSize);
    return allocate(size, alignment);
  }

  // A key as Member expects it: a long one carries its size in front.
  const char* copyKey(std::string_view key) {
    if (key.size() < YLJsonValue::Member::kLongKey)
      return copyBytes(key.data(), key.size());
    const std::size_t size = key.size();
    char* copy = static_cast<char*>(allocate(sizeof size + size, alignof(std::size_t)));
    std::memcpy(copy, &size, sizeof size);
    std::memcpy(copy + sizeof size, key.data(), size);
    return copy + sizeof size;
  }

  const char* copyBytes(const char* bytes, std::size_t size) {
    if (size == 0)
      return kEmptyBytes;
    char* copy = static_cast<char*>(allocate(size, 1));
    std::memcpy(copy, bytes, size);
    return copy;
  }

  std::vector<void*> blocks;
  char* cursor = nullptr;
  char* limit = nullptr;
  std::size_t nextBlockSize = kFirstBlockSize;
};

// Everything that touches the representation from outside a single value: node allocation, the
// member tables and their hash index, and the SAX handler that parses straight into the arena.
struct YLJsonBuilder {
  using Member = YLJsonValue::Member;
  static constexpr std::uint64_t kMaxCapacity = std::numeric_limits<std::uint32_t>::max();
  static constexpr std::size_t kNotFound = std::numeric_limits<std::size_t>::max();

  static YLJsonValue* newNode(YLJson& document) {
    void* memory = document.arena_->allocate(sizeof(YLJsonValue), alignof(YLJsonValue));
    return new (memory) YLJsonValue(&document);
  }

  static void makeNull(YLJsonValue& value) {
    value.type_ = YLJsonValueType::Null;
    value.count_ = 0;
    value.data_ = YLJsonValue::Data{};
  }

  static void makeEmptyObject(YLJsonValue& value) {
    makeNull(value);
    value.type_ = YLJsonValueType::Object;
  }

  static std::uint32_t* indexOf(const YLJsonValue::ObjectData& object) {
    return reinterpret_cast<std::uint32_t*>(object.members + object.capacity);
  }

  // A member table with room for capacity members, and an empty index when slots is not 0.
  static YLJsonValue::ObjectData allocateMembers(YLJson::Arena& arena, std::uint32_t capacity,
                                                 std::uint32_t slots) {
    const std::size_t bytes = capacity * sizeof(Member) + slots * sizeof(std::uint32_t);
    YLJsonValue::ObjectData object{static_cast<Member*>(arena.allocate(bytes, alignof(Member))),
                                   capacity, slots};
    if (slots != 0)
      std::memset(indexOf(object), 0, slots * sizeof(std::uint32_t));
    return object;
  }

  // Finds the key among the first count members.
  static std::size_t findMember(const YLJsonValue::ObjectData& object, std::uint32_t count,
                                std::string_view key) {
    const std::uint32_t prefix = keyPrefix(key);
    if (object.indexSlots == 0) {
      for (std::uint32_t i = 0; i < count; ++i) {
        if (object.members[i].matches(key, prefix))
          return i;
      }
      return kNotFound;
    }
    const std::uint32_t* index = indexOf(object);
    const std::size_t mask = object.indexSlots - 1;
    for (std::size_t slot = hashKey(key.data(), key.size()) & mask; index[slot] != 0;
         slot = (slot + 1) & mask) {
      const Member& member = object.members[index[slot] - 1];
      if (member.matches(key, prefix))
        return index[slot] - 1;
    }
    return kNotFound;
  }

  static void indexMember(const YLJsonValue::ObjectData& object, std::uint32_t position) {
    std::uint32_t* index = indexOf(object);
    const std::size_t mask = object.indexSlots - 1;
    const Member& member = object.members[position];
    const std::string_view key = member.keyView();
    std::size_t slot = hashKey(key.data(), key.size()) & mask;
    while (index[slot] != 0)
      slot = (slot + 1) & mask;
    index[slot] = position + 1;
  }

  // Moves the members to a table with room for at least one more.
  static void growMembers(YLJsonValue& object) {
    const YLJsonValue::ObjectData old = object.data_.object;
    const auto capacity = static_cast<std::uint32_t>(
        std::clamp<std::uint64_t>(std::uint64_t{old.capacity} * 2, 4, kMaxCapacity));
    const std::uint32_t slots = capacity > kLinearMemberLimit ? slotCountFor(capacity) : 0;
    YLJsonValue::ObjectData grown = allocateMembers(*object.document_->arena_, capacity, slots);
    if (object.count_ != 0) {
      std::memcpy(static_cast<void*>(grown.members), old.members, object.count_ * sizeof(Member));
    }
    if (slots != 0) {
      for (std::uint32_t i = 0; i < object.count_; ++i)
        indexMember(grown, i);
    }
    object.data_.object = grown;
  }

  static void growItems(YLJsonValue& array) {
    const YLJsonValue::ArrayData old = array.data_.array;
    const std::size_t capacity = old.capacity < 4 ? 4 : old.capacity * 2;
    auto** items = static_cast<YLJsonValue**>(
        array.document_->arena_->allocate(capacity * sizeof(YLJsonValue*), alignof(YLJsonValue*)));
    if (array.count_ != 0)
      std::memcpy(items, old.items, array.count_ * sizeof(YLJsonValue*));
    array.data_.array = YLJsonValue::ArrayData{items, capacity};
  }

  // ---- Parsing: the SAX handler -----------------------------------------------------------

  struct Pending {
    const char* key;
    std::size_t keySize;
    YLJsonValue* value;
  };
  struct Frame {
    YLJsonValue* node;
    std::size_t firstPending;
  };

  explicit YLJsonBuilder(YLJson& document) : document_(document) {
    frames_.reserve(64);
    pending_.reserve(256);
  }

  static bool parse(YLJson& document, std::string_view text) {
    YLJson::Arena& arena = *document.arena_;
    // In-situ parsing decodes strings inside this copy, so the copy is also where the document's
    // strings and keys live: no string is copied twice.
    char* buffer = static_cast<char*>(arena.allocate(text.size() + kParsePadding, 16));
    if (!text.empty())
      std::memcpy(buffer, text.data(), text.size());
    std::memset(buffer + text.size(), 0, kParsePadding);

    // Iterative: the parser keeps its own stack, so deep nesting cannot exhaust the call stack.
    // Standard JSON only: no comments, trailing commas, NaN or Infinity.
    constexpr unsigned kFlags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag |
                                rapidjson::kParseFullPrecisionFlag |
                                rapidjson::kParseStopWhenDoneFlag;
    rapidjson::InsituStringStream stream(buffer);
    YLJsonBuilder builder(document);
    rapidjson::Reader reader;
    if (reader.Parse<kFlags>(stream, builder).IsError())
      return false;

    // The parser takes a NUL byte for the end of the text; only white space may follow the root
    // up to the text's real end.
    for (std::size_t position = stream.Tell(); position < text.size(); ++position) {
      if (!isJsonSpace(text[position]))
        return false;
    }
    return true;
  }

  bool Null() {
    place();
    return true;
  }
  bool Bool(bool value) {
    YLJsonValue* node = place();
    node->type_ = YLJsonValueType::Bool;
    node->data_.boolean = value;
    return true;
  }
  bool Int(int value) { return Int64(value); }
  bool Uint(unsigned value) { return Int64(value); }
  bool Int64(std::int64_t value) {
    YLJsonValue* node = place();
    node->type_ = YLJsonValueType::Number;
    node->count_ = kInt64;
    node->data_.integer = value;
    return true;
  }
  bool Uint64(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return Int64(static_cast<std::int64_t>(value));
    }
    YLJsonValue* node = place();
    node->type_ = YLJsonValueType::Number;
    node->count_ = kUint64;
    node->data_.unsignedInteger = value;
    return true;
  }
  bool Double(double value) {
    YLJsonValue* node = place();
    node->type_ = YLJsonValueType::Number;
    node->count_ = kDouble;
    node->data_.real = value;
    return true;
  }
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return false; }
  bool String(const char* bytes, rapidjson::SizeType size, bool copy) {
    YLJsonValue* node = place();
    node->type_ = YLJsonValueType::String;
    node->data_.string = {copy ? document_.arena_->copyBytes(bytes, size) : bytes, size};
    return true;
  }
  bool Key(const char* bytes, rapidjson::SizeType size, bool copy) {
    key_ = copy ? document_.arena_->copyBytes(bytes, size) : bytes;
    keySize_ = size;
    return true;
  }
  bool StartObject() { return open(YLJsonValueType::Object); }
  bool StartArray() { return open(YLJsonValueType::Array); }

  bool EndObject(rapidjson::SizeType) {
    const Frame frame = frames_.back();
    frames_.pop_back();
    finishObject(*frame.node, pending_.data() + frame.firstPending,
                 pending_.size() - frame.firstPending);
    pending_.resize(frame.firstPending);
    return true;
  }

  bool EndArray(rapidjson::SizeType) {
    const Frame frame = frames_.back();
    frames_.pop_back();
    const std::size_t count = pending_.size() - frame.firstPending;
    YLJsonValue& array = *frame.node;
    array.count_ = static_cast<std::uint32_t>(count);
    if (count == 0)
      return true;
    auto** items = static_cast<YLJsonValue**>(
        document_.arena_->allocate(count * sizeof(YLJsonValue*), alignof(YLJsonValue*)));
    const Pending* children = pending_.data() + frame.firstPending;
    for (std::size_t i = 0; i < count; ++i)
      items[i] = children[i].value;
    array.data_.array = YLJsonValue::ArrayData{items, count};
    pending_.resize(frame.firstPending);
    return true;
  }

 private:
  // The node for the value that starts now: the document itself for the root, otherwise a new
  // node that joins the open container under the last key read.
  YLJsonValue* place() {
    if (!rootPlaced_) {
      rootPlaced_ = true;
      return &document_;
    }
    YLJsonValue* node = newNode(document_);
    pending_.push_back(Pending{key_, keySize_, node});
    return node;
  }

  bool open(YLJsonValueType type) {
    if (frames_.size() >= YLJson::kMaxDepth)
      return false;
    YLJsonValue* node = place();
    node->type_ = type;
    frames_.push_back(Frame{node, pending_.size()});
    return true;
  }

  // Builds the member table from the pending members. Of duplicate keys the last value wins and
  // the member stays where the key first appeared.
  void finishObject(YLJsonValue& object, Pending* members, std::size_t count) {
    if (count == 0)
      return;
    YLJson::Arena& arena = *document_.arena_;
    if (count <= kLinearMemberLimit) {
      // A cheap fingerprint of each key rules out duplicates in the common case without
      // comparing every pair.
      std::uint64_t seen = 0;
      bool maybeDuplicate = false;
      for (std::size_t i = 0; i < count; ++i) {
        const Pending& member = members[i];
        const unsigned last =
            member.keySize ? static_cast<unsigned char>(member.key[member.keySize - 1]) : 0;
        const unsigned first = member.keySize ? static_cast<unsigned char>(member.key[0]) : 0;
        const std::uint64_t bit = std::uint64_t{1}
                                  << ((member.keySize + first * 7 + last * 13) & 63);
        maybeDuplicate |= (seen & bit) != 0;
        seen |= bit;
      }
      if (maybeDuplicate)
        count = mergeDuplicates(members, count);
      const auto size = static_cast<std::uint32_t>(count);
      YLJsonValue::ObjectData table = allocateMembers(arena, size, 0);
      for (std::size_t i = 0; i < count; ++i) {
        table.members[i] = Member::make(members[i].key, members[i].keySize, members[i].value);
      }
      object.data_.object = table;
      object.count_ = size;
      return;
    }
    const auto capacity = static_cast<std::uint32_t>(count);
    YLJsonValue::ObjectData table = allocateMembers(arena, capacity, slotCountFor(capacity));
    std::uint32_t size = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string_view key(members[i].key, members[i].keySize);
      const std::size_t existing = findMember(table, size, key);
      if (existing != kNotFound) {
        table.members[existing].value = members[i].value;
        continue;
      }
      table.members[size] = Member::make(members[i].key, members[i].keySize, members[i].value);
      if (table.indexSlots != 0)
        indexMember(table, size);
      ++size;
    }
    object.data_.object = table;
    object.count_ = size;
  }

  static std::size_t mergeDuplicates(Pending* members, std::size_t count) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const std::string_view key(members[i].key, members[i].keySize);
      std::size_t j = 0;
      while (j < kept && !sameKey(members[j].key, members[j].keySize, key))
        ++j;
      if (j < kept) {
        members[j].value = members[i].value;
      } else {
        members[kept++] = members[i];
      }
    }
    return kept;
  }

  YLJson& document_;
  std::vector<Frame> frames_;
  std::vector<Pending> pending_;
  const char* key_ = kEmptyBytes;
  std::size_t keySize_ = 0;
  bool rootPlaced_ = false;
};

// ---- YLJsonValue ----------------------------------------------------------------------------

YLJsonValue::~YLJsonValue() = default;

bool YLJsonValue::getIsValidJson() const {
  return document_->getIsValidJson();
}

YLJsonValueType YLJsonValue::obtainType() const {
  return type_;
}

YLJsonValue* YLJsonValue::obtainKeyValue(std::string_view key) const {
  if (type_ != YLJsonValueType::Object)
    return nullptr;
  const std::size_t position = YLJsonBuilder::findMember(data_.object, count_, key);
  return position == YLJsonBuilder::kNotFound ? nullptr : data_.object.members[position].value;
}

std::size_t YLJsonValue::obtainArraySize() const {
  return type_ == YLJsonValueType::Array ? count_ : 0;
}

YLJsonValue* YLJsonValue::obtainArrayItem(std::size_t index) const {
  if (type_ != YLJsonValueType::Array || index >= count_)
    return nullptr;
  return data_.array.items[index];
}

std::string YLJsonValue::obtainStringValue() const {
  return std::string(obtainStringView());
}

std::string_view YLJsonValue::obtainStringView() const {
  if (type_ != YLJsonValueType::String)
    return {};
  return std::string_view(data_.string.bytes, data_.string.size);
}

std::int32_t YLJsonValue::obtainIntValue() const {
  constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
  constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
  if (type_ != YLJsonValueType::Number)
    return 0;
  switch (count_) {
    case kInt64:
      return static_cast<std::int32_t>(std::clamp<std::int64_t>(data_.integer, kMin, kMax));
    case kUint64:
      return kMax;  // only integers above the signed 64-bit range are kept unsigned
    default: {
      const double value = data_.real;
      if (std::isnan(value))
        return 0;
      if (value <= static_cast<double>(kMin))
        return kMin;
      if (value >= static_cast<double>(kMax))
        return kMax;
      return static_cast<std::int32_t>(value);
    }
  }
}

double YLJsonValue::obtainDoubleValue() const {
  if (type_ != YLJsonValueType::Number)
    return 0.0;
  switch (count_) {
    case kInt64:
      return static_cast<double>(data_.integer);
    case kUint64:
      return static_cast<double>(data_.unsignedInteger);
    default:
      return data_.real;
  }
}

bool YLJsonValue::obtainBoolValue() const {
  return type_ == YLJsonValueType::Bool && data_.boolean;
}

std::size_t YLJsonValue::obtainMemberCount() const {
  return type_ == YLJsonValueType::Object ? count_ : 0;
}

std::string_view YLJsonValue::obtainMemberKey(std::size_t index) const {
  if (type_ != YLJsonValueType::Object || index >= count_)
    return {};
  return data_.object.members[index].keyView();
}

YLJsonValue* YLJsonValue::obtainMemberValue(std::size_t index) const {
  if (type_ != YLJsonValueType::Object || index >= count_)
    return nullptr;
  return data_.object.members[index].value;
}

YLJsonValue* YLJsonValue::addKeyValue(std::string_view key) {
  if (type_ != YLJsonValueType::Object)
    YLJsonBuilder::makeEmptyObject(*this);
  const std::size_t existing = YLJsonBuilder::findMember(data_.object, count_, key);
  if (existing != YLJsonBuilder::kNotFound) {
    YLJsonValue* value = data_.object.members[existing].value;
    YLJsonBuilder::makeNull(*value);
    return value;
  }
  if (count_ == data_.object.capacity)
    YLJsonBuilder::growMembers(*this);
  YLJson::Arena& arena = *document_->arena_;
  Member& member = data_.object.members[count_];
  member = Member::make(arena.copyKey(key), key.size(), YLJsonBuilder::newNode(*document_));
  if (data_.object.indexSlots != 0)
    YLJsonBuilder::indexMember(data_.object, count_);
  ++count_;
  return member.value;
}

YLJsonValue* YLJsonValue::addArrayItem() {
  if (type_ != YLJsonValueType::Array)
    setArrayType();
  if (count_ == data_.array.capacity)
    YLJsonBuilder::growItems(*this);
  YLJsonValue* item = YLJsonBuilder::newNode(*document_);
  data_.array.items[count_++] = item;
  return item;
}

void YLJsonValue::setArrayType() {
  YLJsonBuilder::makeNull(*this);
  type_ = YLJsonValueType::Array;
}

void YLJsonValue::setStringValue(std::string_view value) {
  // Copy first: the text may be a view of this very value.
  const char* bytes = document_->arena_->copyBytes(value.data(), value.size());
  YLJsonBuilder::makeNull(*this);
  type_ = YLJsonValueType::String;
  data_.string = StringData{bytes, value.size()};
}

void YLJsonValue::setIntValue(std::int64_t value) {
  YLJsonBuilder::makeNull(*this);
  type_ = YLJsonValueType::Number;
  count_ = kInt64;
  data_.integer = value;
}

void YLJsonValue::setDoubleValue(double value) {
  YLJsonBuilder::makeNull(*this);
  type_ = YLJsonValueType::Number;
  count_ = kDouble;
  data_.real = value;
}

void YLJsonValue::setBoolValue(bool value) {
  YLJsonBuilder::makeNull(*this);
  type_ = YLJsonValueType::Bool;
  data_.boolean = value;
}

std::string YLJsonValue::obtainJsonString() const {
  std::string out;
  appendJsonString(out);
  return out;
}

void YLJsonValue::appendJsonString(std::string& out) const {
  // An explicit stack: a built document can be nested far deeper than the call stack allows.
  struct Frame {
    const YLJsonValue* container;
    std::uint32_t next;
  };
  std::vector<Frame> open;
  const YLJsonValue* value = this;
  while (value != nullptr) {
    switch (value->type_) {
      case YLJsonValueType::Null:
        out += "null";
        break;
      case YLJsonValueType::Bool:
        out += value->data_.boolean ? "true" : "false";
        break;
      case YLJsonValueType::String:
        appendQuoted(out, value->data_.string.bytes, value->data_.string.size);
        break;
      case YLJsonValueType::Number:
        if (value->count_ == kInt64) {
          appendInteger(out, value->data_.integer);
        } else if (value->count_ == kUint64) {
          appendInteger(out, value->data_.unsignedInteger);
        } else {
          appendDouble(out, value->data_.real);
        }
        break;
      case YLJsonValueType::Object:
      case YLJsonValueType::Array:
        out += value->type_ == YLJsonValueType::Object ? '{' : '[';
        open.push_back(Frame{value, 0});
        break;
    }

    // Go on with the next child of the innermost open container, closing finished ones.
    value = nullptr;
    while (!open.empty()) {
      Frame& frame = open.back();
      const YLJsonValue& container = *frame.container;
      if (frame.next < container.count_) {
        if (frame.next != 0)
          out += ',';
        if (container.type_ == YLJsonValueType::Object) {
          const Member& member = container.data_.object.members[frame.next];
          const std::string_view key = member.keyView();
          appendQuoted(out, key.data(), key.size());
          out += ':';
          value = member.value;
        } else {
          value = container.data_.array.items[frame.next];
        }
        ++frame.next;
        break;
      }
      out += container.type_ == YLJsonValueType::Object ? '}' : ']';
      open.pop_back();
    }
  }
}

// ---- YLJson ---------------------------------------------------------------------------------

YLJson::YLJson() : YLJsonValue(this), arena_(std::make_unique<Arena>()) {}

YLJson::YLJson(std::string_view text) : YLJsonValue(this), arena_(std::make_unique<Arena>()) {
  try {
    valid_ = YLJsonBuilder::parse(*this, text);
  } catch (const std::bad_alloc&) {
    valid_ = false;  // a text too large for the memory at hand is treated as a bad one
  }
  if (!valid_) {
    // Nothing of a failed parse stays reachable: drop it all, the copy of the text included.
    YLJsonBuilder::makeNull(*this);
    arena_->clear();
  }
}

YLJson::~YLJson() = default;

bool YLJson::getIsValidJson() const {
  return valid_;
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
