#pragma once
// The SAX handler of the parser: what RapidJSON's reader reports, turned into compact values in
// the arena. Shared by json_parse.cpp and json_structure.cpp.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "json_arena.h"
#include "json_layout.h"
#include "json_reader.h"
#include "json_value.h"
#include "yl/yl_json.h"

namespace yljson {

// The SAX handler, which parses straight into the arena. A container's children wait on a stack
// until it closes; then they are placed as one run of values, and the container itself waits
// among its parent's children. The root is the document.
struct ParseHandler {
  using Encoded = Layout::Encoded;

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

  // The text is the document's buffer, which ends with a NUL at limit - 1.
  ParseHandler(YLJson& document, char* text, const char* limit)
      : document_(document), arena_(*document.arena_), text_(text), limit_(limit) {
    frames_.reserve(64);
    pending_.reserve(256);
  }

  // Fills the document's text store, then parses it in place. On failure nothing stays, the text
  // included.
  template <typename Fill>
  static void parseDocument(YLJson& document, Fill&& fill);
  static bool parse(YLJson& document);
  template <typename Stream>
  static bool parseWith(YLJson& document, std::size_t size);

  bool Null() { return add(Encoded{makeWord(kNull), 0}); }
  bool Bool(bool value) { return add(Encoded{makeWord(kBool), value ? 1u : 0u}); }
  bool Int(int value) { return Int64(value); }
  bool Uint(unsigned value) { return Int64(value); }
  bool Int64(std::int64_t value) { return add(Layout::encodeInteger(arena_, value)); }
  bool Uint64(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return Int64(static_cast<std::int64_t>(value));
    return add(Encoded{makeWord(kUint64), Layout::storeNumber(arena_, value)});
  }
  bool Double(double value) { return add(Layout::encodeDouble(arena_, value)); }
  // Numbers come through handNumber, never raw.
  bool RawNumber(const char*, rapidjson::SizeType, bool) { return false; }
  // Strings and keys come from readString, decoded in place: their bytes are in the text.
  bool String(const char*, rapidjson::SizeType, bool) { return false; }
  bool Key(const char*, rapidjson::SizeType, bool) { return false; }
  void string(const char* bytes, std::size_t size) {
    arena_.parsePosition = offsetOf(bytes);
    if (size < kWordCountLimit) {
      add(Encoded{makeWord(kTextString, size), static_cast<std::uint32_t>(arena_.parsePosition)});
      return;
    }
    add(Layout::encodeLongString(arena_, bytes, size));
  }
  void key(const char* bytes, std::size_t size, bool holdsNul) {
    keyOffset_ = offsetOf(bytes);
    // The quote before the key has been read: it now tells the key's size, so that walks and
    // lookups need not look for the NUL after it.
    text_[keyOffset_ - 1] = static_cast<char>(std::min<std::size_t>(size, kLongTextKey));
    keySize_ = static_cast<std::uint32_t>(size);
    keysHoldNul_ |= holdsNul;
    arena_.parsePosition = keyOffset_;
  }
  // How far readString may load 16 bytes at once: up to the NUL that ends the buffer.
  const char* loadLimit() const { return limit_; }
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
      // Only a \u0000 puts a NUL inside a key: without one in the text, no key is looked at.
      for (std::size_t i = 0; i < count && !wide && keysHoldNul_; ++i)
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
      writeIndex(reinterpret_cast<std::uint32_t*>(record + keyBytes), finalSlots, slots, members,
                 count);
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
  // The hash index of an object's kept members: the merge's own when it was made for as many
  // slots (from the same keys in the same order), else a new one.
  void writeIndex(std::uint32_t* index, std::uint32_t slots, std::uint32_t mergeSlots,
                  const Pending* members, std::size_t count) const {
    if (slots == mergeSlots) {
      std::copy(scratchIndex_.begin(), scratchIndex_.begin() + slots, index);
      return;
    }
    if (slots == 0) return;
    std::fill(index, index + slots, 0u);
    const std::size_t mask = slots - 1;
    for (std::size_t i = 0; i < count; ++i) {
      std::size_t slot = hashKey(keyOf(members[i])) & mask;
      while (index[slot] != 0)
        slot = (slot + 1) & mask;
      index[slot] = static_cast<std::uint32_t>(i + 1);
    }
  }

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
      Layout::set(document_, value);
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
      Layout::place(base + position * kSlotBytes, Encoded{entries[i].word, entries[i].payload});
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
      const std::size_t last = key.empty() ? 0 : static_cast<unsigned char>(key.back());
      const std::size_t first = key.empty() ? 0 : static_cast<unsigned char>(key.front());
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
  char* text_;
  const char* limit_;
  std::vector<Frame> frames_;
  std::vector<Pending> pending_;
  std::vector<std::uint32_t> scratchIndex_;
  std::uint32_t keyOffset_ = 0;
  std::uint32_t keySize_ = 0;
  bool keysHoldNul_ = false;
};

}  // namespace yljson
