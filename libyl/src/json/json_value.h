#pragma once
// Layout: the one place that reads and changes the representation of values (their word and
// payload, the records and runs they point to), for the parser, the accessors and the writer.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>

#include "json_arena.h"
#include "json_layout.h"

namespace yljson {

struct Layout {
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
  // What obtainType() says, without a virtual call.
  static YLJsonValueType typeOf(const YLJsonValue& value) {
    return kTypeOfKind[value.word_ & kKindMask];
  }

  static Arena& arenaOf(const YLJsonValue& value) {
    if ((value.word_ & kRootBit) != 0) return *static_cast<const YLJson&>(value).arena_;
    // Back to the start of the segment, by pointer arithmetic inside the block that holds it.
    const auto* address = reinterpret_cast<const char*>(&value);
    const auto* segment =
        address - (reinterpret_cast<std::uintptr_t>(address) & std::uintptr_t{kSegmentBytes - 1});
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
    const std::uint32_t* offsets;  // the usual form: offsets of keys with their size before them
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
    return parsedKey(arena.text.data(), object, index);
  }
  static std::string_view parsedKey(const char* text, const ParsedObject& object,
                                    std::size_t index) {
    if (object.offsets != nullptr) {
      const char* key = text + object.offsets[index];
      const auto size = static_cast<unsigned char>(key[-1]);
      if (size != kLongTextKey) return std::string_view(key, size);
      return std::string_view(key);
    }
    return std::string_view(text + object.keys[index].offset, object.keys[index].size);
  }

  static bool parsedKeyIs(const Arena& arena, const ParsedObject& object, std::size_t index,
                          std::string_view key);

  static std::size_t findParsedKey(const Arena& arena, const ParsedObject& object,
                                   std::string_view key);

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
                                std::string_view key);

  static bool memberMatches(const Arena& arena, const TableMember& member, std::string_view key,
                            std::uint32_t prefix);

  static std::size_t findTableKey(const Arena& arena, const ObjectTable& table,
                                  std::string_view key);

  // ---- Changing values ----------------------------------------------------------------------

  // Gives the value a new content; the mark of the document itself stays.
  static void set(YLJsonValue& value, Encoded encoded) {
    value.word_ = (value.word_ & kRootBit) | encoded.word;
    value.payload_ = encoded.payload;
  }
  // Constructs a value with the content in a slot that holds none.
  static YLJsonValue* place(char* slot, Encoded encoded) {
    auto* value = new (slot) YLJsonValue();
    value->word_ = encoded.word;
    value->payload_ = encoded.payload;
    return value;
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

  static Encoded copyString(Arena& arena, std::string_view text);

  // A key as TableMember expects it: a long one carries its size in front.
  static std::uint32_t copyKey(Arena& arena, std::string_view key);

  static YLJsonValue* construct(const Arena& arena, std::uint32_t slot);

  // Gives the array an item table with room for capacity items, holding the items it has.
  static void makeItemTable(Arena& arena, YLJsonValue& array, std::size_t capacity);

  static YLJsonValue* appendItem(Arena& arena, YLJsonValue& array);

  static void indexMember(const Arena& arena, const ObjectTable* table, std::uint32_t position);

  // Gives the object a member table with room for capacity members, holding the members it has.
  // Keys of a parsed object are copied into it; values stay where they are.
  static void makeMemberTable(Arena& arena, YLJsonValue& object, std::size_t capacity);

  // Adds a key that the object does not have.
  static YLJsonValue* appendMember(Arena& arena, YLJsonValue& object, std::string_view key);
};

}  // namespace yljson
