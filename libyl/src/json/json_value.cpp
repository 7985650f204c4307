// Reading and changing values: the accessors of YLJsonValue, finding members, and the item and
// member tables that values built by hand keep.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include "json_arena.h"
#include "json_layout.h"
#include "json_value.h"
#include "yl/yl_json.h"

using namespace yljson;

namespace yljson {

bool Layout::parsedKeyIs(const Arena& arena, const ParsedObject& object, std::size_t index,
                         std::string_view key) {
  const char* text = arena.text.data();
  if (object.offsets != nullptr) {
    const char* stored = text + object.offsets[index];
    const auto size = static_cast<unsigned char>(stored[-1]);
    if (size != kLongTextKey) return size == key.size() && sameBytes(stored, key);
    if (key.size() < kLongTextKey) return false;
    // A long key ends at its first NUL and holds no other. Nothing past that NUL is read: the key
    // may be the last thing in the text.
    for (std::size_t i = 0; i < key.size(); ++i) {
      if (stored[i] != key[i] || stored[i] == '\0') return false;
    }
    return stored[key.size()] == '\0';
  }
  const TextKey& stored = object.keys[index];
  return stored.size == key.size() && sameBytes(text + stored.offset, key);
}

std::size_t Layout::findParsedKey(const Arena& arena, const ParsedObject& object,
                                  std::string_view key) {
  if (object.count <= kLinearMemberLimit) {
    for (std::uint32_t i = 0; i < object.count; ++i) {
      if (parsedKeyIs(arena, object, i, key)) return i;
    }
    return kNotFound;
  }
  const std::size_t mask = slotCountFor(object.count) - 1;
  for (std::size_t slot = hashKey(key) & mask; object.index[slot] != 0; slot = (slot + 1) & mask) {
    if (parsedKeyIs(arena, object, object.index[slot] - 1, key)) return object.index[slot] - 1;
  }
  return kNotFound;
}

std::size_t Layout::findMember(const Arena& arena, const YLJsonValue& object,
                               std::string_view key) {
  if (isParsedObject(object)) return findParsedKey(arena, parsedObject(arena, object), key);
  if (kindOf(object) == kTableObject && object.payload_ != kNoTable)
    return findTableKey(arena, *arena.record<ObjectTable>(object.payload_), key);
  return kNotFound;
}

bool Layout::memberMatches(const Arena& arena, const TableMember& member, std::string_view key,
                           std::uint32_t prefix) {
  if (member.prefix != prefix || member.keySize != keySizeField(key.size())) return false;
  if (member.keySize == kLongKey) return tableKey(arena, member) == key;
  // Keys of up to four bytes are settled by the prefix and the size.
  return member.keySize <= sizeof prefix ||
         std::memcmp(arena.data(member.key) + sizeof prefix, key.data() + sizeof prefix,
                     member.keySize - sizeof prefix) == 0;
}

std::size_t Layout::findTableKey(const Arena& arena, const ObjectTable& table,
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

Layout::Encoded Layout::copyString(Arena& arena, std::string_view text) {
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

std::uint32_t Layout::copyKey(Arena& arena, std::string_view key) {
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

YLJsonValue* Layout::construct(const Arena& arena, std::uint32_t slot) {
  return new (arena.slotAddress(slot)) YLJsonValue();
}

void Layout::makeItemTable(Arena& arena, YLJsonValue& array, std::size_t capacity) {
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

YLJsonValue* Layout::appendItem(Arena& arena, YLJsonValue& array) {
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

void Layout::indexMember(const Arena& arena, const ObjectTable* table, std::uint32_t position) {
  std::uint32_t* index = tableIndex(table);
  const std::size_t mask = table->indexSlots - 1;
  std::size_t slot = hashKey(tableKey(arena, tableMembers(table)[position])) & mask;
  while (index[slot] != 0)
    slot = (slot + 1) & mask;
  index[slot] = position + 1;
}

void Layout::makeMemberTable(Arena& arena, YLJsonValue& object, std::size_t capacity) {
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

YLJsonValue* Layout::appendMember(Arena& arena, YLJsonValue& object, std::string_view key) {
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
}  // namespace yljson

// ---- YLJsonValue ----------------------------------------------------------------------------

YLJsonValue::~YLJsonValue() = default;

bool YLJsonValue::getIsValidJson() const {
  return Layout::arenaOf(*this).document->getIsValidJson();
}

YLJsonValueType YLJsonValue::obtainType() const {
  return Layout::typeOf(*this);
}

YLJsonValue* YLJsonValue::obtainKeyValue(std::string_view key) const {
  if (Layout::typeOf(*this) != YLJsonValueType::Object) return nullptr;
  const Arena& arena = Layout::arenaOf(*this);
  const std::size_t position = Layout::findMember(arena, *this, key);
  return position == Layout::kNotFound ? nullptr : Layout::memberAt(arena, *this, position);
}

std::size_t YLJsonValue::obtainArraySize() const {
  if (Layout::kindOf(*this) == kRunArray) return Layout::wordCount(*this);
  if (Layout::typeOf(*this) != YLJsonValueType::Array) return 0;
  return Layout::itemCount(Layout::arenaOf(*this), *this);
}

YLJsonValue* YLJsonValue::obtainArrayItem(std::size_t index) const {
  if (Layout::typeOf(*this) != YLJsonValueType::Array) return nullptr;
  const Arena& arena = Layout::arenaOf(*this);
  if (index >= Layout::itemCount(arena, *this)) return nullptr;
  return Layout::itemAt(arena, *this, index);
}

std::string YLJsonValue::obtainStringValue() const {
  return std::string(obtainStringView());
}

std::string_view YLJsonValue::obtainStringView() const {
  if (Layout::typeOf(*this) != YLJsonValueType::String) return {};
  return Layout::stringOf(Layout::arenaOf(*this), *this);
}

std::int32_t YLJsonValue::obtainIntValue() const {
  constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
  constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
  switch (Layout::kindOf(*this)) {
    case kInt32:
      return static_cast<std::int32_t>(payload_);
    case kInt64: {
      const auto value = Layout::numberAt<std::int64_t>(Layout::arenaOf(*this), payload_);
      return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, kMin, kMax));
    }
    case kUint64:
      return kMax;  // only integers above the signed 64-bit range are kept unsigned
    case kDouble: {
      const auto value = Layout::numberAt<double>(Layout::arenaOf(*this), payload_);
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
  switch (Layout::kindOf(*this)) {
    case kInt32:
      return static_cast<std::int32_t>(payload_);
    case kInt64:
      return static_cast<double>(Layout::numberAt<std::int64_t>(Layout::arenaOf(*this), payload_));
    case kUint64:
      return static_cast<double>(Layout::numberAt<std::uint64_t>(Layout::arenaOf(*this), payload_));
    case kDouble:
      return Layout::numberAt<double>(Layout::arenaOf(*this), payload_);
    default:
      return 0.0;
  }
}

bool YLJsonValue::obtainBoolValue() const {
  return Layout::kindOf(*this) == kBool && payload_ != 0;
}

std::size_t YLJsonValue::obtainMemberCount() const {
  if (Layout::typeOf(*this) != YLJsonValueType::Object) return 0;
  return Layout::memberCount(Layout::arenaOf(*this), *this);
}

std::string_view YLJsonValue::obtainMemberKey(std::size_t index) const {
  if (Layout::typeOf(*this) != YLJsonValueType::Object) return {};
  const Arena& arena = Layout::arenaOf(*this);
  if (index >= Layout::memberCount(arena, *this)) return {};
  return Layout::keyAt(arena, *this, index);
}

YLJsonValue* YLJsonValue::obtainMemberValue(std::size_t index) const {
  if (Layout::typeOf(*this) != YLJsonValueType::Object) return nullptr;
  const Arena& arena = Layout::arenaOf(*this);
  if (index >= Layout::memberCount(arena, *this)) return nullptr;
  return Layout::memberAt(arena, *this, index);
}

std::size_t YLJsonValue::obtainMembers(YLJsonMember* out, std::size_t capacity,
                                       std::size_t from) const {
  if (Layout::typeOf(*this) != YLJsonValueType::Object) return 0;
  const Arena& arena = Layout::arenaOf(*this);
  const std::size_t count = Layout::memberCount(arena, *this);
  if (from >= count) return 0;
  const std::size_t written = std::min(capacity, count - from);
  if (!Layout::isParsedObject(*this)) {
    const TableMember* members = Layout::tableMembers(arena.record<ObjectTable>(payload_)) + from;
    for (std::size_t i = 0; i < written; ++i)
      out[i] = YLJsonMember{Layout::tableKey(arena, members[i]), arena.value(members[i].value)};
    return written;
  }
  const Layout::ParsedObject object = Layout::parsedObject(arena, *this);
  // The run's slots one after the other, from one segment on to the next. What the loop needs of
  // the arena is read once: the stores to out might otherwise be taken to change it.
  const std::uint32_t slot = Arena::runSlot(object.first, from);
  char* const* segment = arena.valueSegments.data() + (slot >> kSlotShift);
  char* place = *segment + (slot & (kSlotsPerSegment - 1)) * kSlotBytes;
  char* segmentEnd = *segment + kSegmentBytes;
  const char* text = arena.text.data();
  for (std::size_t i = 0; i < written; ++i) {
    if (place == segmentEnd) {  // past place 255: place 1 of the next
      ++segment;
      place = *segment + kSlotBytes;
      segmentEnd = *segment + kSegmentBytes;
    }
    out[i] = YLJsonMember{Layout::parsedKey(text, object, from + i),
                          std::launder(reinterpret_cast<YLJsonValue*>(place))};
    place += kSlotBytes;
  }
  return written;
}

std::size_t YLJsonValue::obtainArrayItems(YLJsonValue** out, std::size_t capacity,
                                          std::size_t from) const {
  if (Layout::typeOf(*this) != YLJsonValueType::Array) return 0;
  const Arena& arena = Layout::arenaOf(*this);
  const std::size_t count = Layout::itemCount(arena, *this);
  if (from >= count) return 0;
  const std::size_t written = std::min(capacity, count - from);
  if (Layout::kindOf(*this) == kTableArray) {
    const auto* slots =
        reinterpret_cast<const std::uint32_t*>(arena.record<ArrayTable>(payload_) + 1) + from;
    for (std::size_t i = 0; i < written; ++i)
      out[i] = arena.value(slots[i]);
    return written;
  }
  const std::uint32_t first =
      Layout::kindOf(*this) == kRunArray ? payload_ : arena.record<RunHeader>(payload_)->first;
  std::uint32_t slot = Arena::runSlot(first, from);
  for (std::size_t i = 0; i < written; ++i) {
    if ((slot & (kSlotsPerSegment - 1)) == 0) ++slot;
    out[i] = arena.value(slot++);
  }
  return written;
}

YLJsonValue* YLJsonValue::addKeyValue(std::string_view key) {
  if (Layout::typeOf(*this) != YLJsonValueType::Object) Layout::makeEmptyObject(*this);
  Arena& arena = Layout::arenaOf(*this);
  const std::size_t existing = Layout::findMember(arena, *this, key);
  if (existing != Layout::kNotFound) {
    YLJsonValue* value = Layout::memberAt(arena, *this, existing);
    Layout::makeNull(*value);
    return value;
  }
  return Layout::appendMember(arena, *this, key);
}

YLJsonValue* YLJsonValue::addArrayItem() {
  if (Layout::typeOf(*this) != YLJsonValueType::Array) setArrayType();
  return Layout::appendItem(Layout::arenaOf(*this), *this);
}

void YLJsonValue::setArrayType() {
  Layout::makeEmptyArray(*this);
}

void YLJsonValue::setStringValue(std::string_view value) {
  // The text may be a view of this very value: its bytes stay valid while they are copied.
  Layout::set(*this, Layout::copyString(Layout::arenaOf(*this), value));
}

void YLJsonValue::takeStringValue(std::string&& value) {
  // Below a few blocks of data a copy costs less than a node of the list.
  constexpr std::size_t kTakenSize = 16384;
  if (value.size() < kTakenSize) {
    setStringValue(value);
    value.clear();
    return;
  }
  Arena& arena = Layout::arenaOf(*this);
  const std::string& taken = arena.takenStrings.emplace_front(std::move(value));
  value.clear();
  Layout::set(*this, Layout::encodeLongString(arena, taken.data(), taken.size()));
}

void YLJsonValue::setIntValue(std::int64_t value) {
  Layout::set(*this, Layout::encodeInteger(Layout::arenaOf(*this), value));
}

void YLJsonValue::setDoubleValue(double value) {
  Layout::set(*this, Layout::encodeDouble(Layout::arenaOf(*this), value));
}

void YLJsonValue::setBoolValue(bool value) {
  Layout::set(*this, Layout::Encoded{makeWord(kBool), value ? 1u : 0u});
}

// ---- YLJson ---------------------------------------------------------------------------------

YLJson::YLJson() : arena_(std::make_unique<Arena>(this)) {
  word_ = kRootBit;
}

YLJson::~YLJson() = default;

bool YLJson::getIsValidJson() const {
  return valid_;
}

std::size_t YLJson::obtainStorageSize() const {
  return arena_->storageSize();
}
