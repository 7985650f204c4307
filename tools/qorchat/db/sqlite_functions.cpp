// instr, replace and trim with a set of characters, giving exactly what SQLite's own give (the
// same characters, the same types, the same errors) in time that grows with their input alone:
// searches use memmem, and the set of a trim is looked up rather than walked.
#include "db/sqlite_functions.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "db/sqlite_pattern.h"
#include "db/sqlite_printf.h"

namespace qorchat::sqlite {
namespace {

constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;

bool isContinuation(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

// The first place of part in text, or nullptr. A short part is compared byte by byte, as SQLite
// does, which is fastest where it comes often; a long one is found with memmem, which never
// compares a place more than a bounded number of times.
inline const unsigned char* find(const unsigned char* text, std::size_t length,
                                 const unsigned char* part, std::size_t partLength) {
  static constexpr std::size_t kShortPart = 16;
  if (partLength > length) return nullptr;
  if (partLength > kShortPart)
    return static_cast<const unsigned char*>(memmem(text, length, part, partLength));
  const unsigned char* const last = text + (length - partLength);
  for (const unsigned char* at = text; at <= last; ++at) {
    std::size_t same = 0;
    while (same < partLength && at[same] == part[same])
      ++same;
    if (same == partLength) return at;
  }
  return nullptr;
}

using Value = std::unique_ptr<sqlite3_value, decltype(&sqlite3_value_free)>;

// instr(X, Y): where Y first comes in X, from 1, counted in characters unless both are BLOBs; 1
// when Y is empty, 0 when it is not there. SQLite looks only where a character starts, so a Y
// that starts inside a character is found only at the very start.
void instr(sqlite3_context* context, int /*argc*/, sqlite3_value** argv) {
  const int haystackType = sqlite3_value_type(argv[0]);
  const int needleType = sqlite3_value_type(argv[1]);
  if (haystackType == SQLITE_NULL || needleType == SQLITE_NULL) return;
  auto haystackBytes = static_cast<std::size_t>(sqlite3_value_bytes(argv[0]));
  auto needleBytes = static_cast<std::size_t>(sqlite3_value_bytes(argv[1]));
  if (needleBytes == 0) {
    sqlite3_result_int(context, 1);
    return;
  }
  const unsigned char* haystack = nullptr;
  const unsigned char* needle = nullptr;
  Value haystackText(nullptr, &sqlite3_value_free);
  Value needleText(nullptr, &sqlite3_value_free);
  const bool isText = haystackType != SQLITE_BLOB || needleType != SQLITE_BLOB;
  if (!isText) {
    haystack = static_cast<const unsigned char*>(sqlite3_value_blob(argv[0]));
    needle = static_cast<const unsigned char*>(sqlite3_value_blob(argv[1]));
  } else if (haystackType != SQLITE_BLOB && needleType != SQLITE_BLOB) {
    haystack = sqlite3_value_text(argv[0]);
    needle = sqlite3_value_text(argv[1]);
  } else {
    // One BLOB, one not: both read as text, from copies so that the arguments stay as they were.
    haystackText.reset(sqlite3_value_dup(argv[0]));
    needleText.reset(sqlite3_value_dup(argv[1]));
    haystack = sqlite3_value_text(haystackText.get());
    needle = sqlite3_value_text(needleText.get());
    if (haystack == nullptr || needle == nullptr) return;
    haystackBytes = static_cast<std::size_t>(sqlite3_value_bytes(haystackText.get()));
    needleBytes = static_cast<std::size_t>(sqlite3_value_bytes(needleText.get()));
  }
  if (needle == nullptr || (haystackBytes > 0 && haystack == nullptr)) return;

  const unsigned char* found = nullptr;
  if (isText && isContinuation(needle[0])) {
    if (needleBytes <= haystackBytes && std::memcmp(haystack, needle, needleBytes) == 0)
      found = haystack;
  } else if (needleBytes <= haystackBytes) {
    found = find(haystack, haystackBytes, needle, needleBytes);
  }
  if (found == nullptr) {
    sqlite3_result_int(context, 0);
    return;
  }
  std::size_t place = 1;
  for (const unsigned char* at = haystack + 1; at <= found; ++at) {
    if (!isText || !isContinuation(*at)) ++place;
  }
  sqlite3_result_int64(context, static_cast<sqlite3_int64>(place));
}

// replace(X, Y, Z): every Y in X, left to right and not overlapping, made Z, byte for byte; X
// itself, of its own type, when Y is empty or starts with a NUL.
void replaceAll(sqlite3_context* context, int /*argc*/, sqlite3_value** argv) {
  const unsigned char* text = sqlite3_value_text(argv[0]);
  if (text == nullptr) return;
  const auto textBytes = static_cast<std::size_t>(sqlite3_value_bytes(argv[0]));
  const unsigned char* pattern = sqlite3_value_text(argv[1]);
  if (pattern == nullptr) return;
  if (pattern[0] == 0) {
    sqlite3_result_value(context, argv[0]);
    return;
  }
  const auto patternBytes = static_cast<std::size_t>(sqlite3_value_bytes(argv[1]));
  const unsigned char* replacement = sqlite3_value_text(argv[2]);
  if (replacement == nullptr) return;
  const auto replacementBytes = static_cast<std::size_t>(sqlite3_value_bytes(argv[2]));

  // The text grows only when Z is longer than Y; once what is made and what is left outgrow the
  // limit, the whole would too.
  const unsigned char* const end = text + textBytes;
  const auto limit = static_cast<std::size_t>(
      sqlite3_limit(sqlite3_context_db_handle(context), SQLITE_LIMIT_LENGTH, -1));
  std::string out;
  out.reserve(textBytes);
  const unsigned char* read = text;
  for (const unsigned char* match = nullptr;
       (match = find(read, static_cast<std::size_t>(end - read), pattern, patternBytes)) != nullptr;
       read = match + patternBytes) {
    out.append(read, match);
    out.append(replacement, replacement + replacementBytes);
    if (out.size() + static_cast<std::size_t>(end - match) - patternBytes > limit) {
      sqlite3_result_error_toobig(context);
      return;
    }
  }
  out.append(read, end);
  sqlite3_result_text64(context, out.data(), out.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

// The characters of a trim's second argument as SQLite splits them: a lead byte with the
// continuation bytes after it, a lone byte otherwise, its length kept in one byte (so a "character"
// of 257 bytes compares as its first). Where two could match, the earlier in the set wins.
class CharacterSet {
 public:
  explicit CharacterSet(const unsigned char* set) {
    single_.fill(kNone);
    std::size_t index = 0;
    for (const unsigned char* at = set; *at != 0; ++index) {
      const unsigned char* start = at;
      if (*at++ >= 0xC0) {
        while (isContinuation(*at))
          ++at;
      }
      // A length that wraps to 0 makes SQLite trim forever; it matches nothing here.
      const auto length = static_cast<unsigned char>(at - start);
      if (length == 1) {
        single_[*start] = std::min(single_[*start], index);
      } else if (length > 1) {
        multi_.try_emplace(std::string_view(reinterpret_cast<const char*>(start), length), index);
        if (std::find(lengths_.begin(), lengths_.end(), length) == lengths_.end())
          lengths_.push_back(length);
      }
      empty_ = empty_ && length == 0;
    }
    std::sort(lengths_.begin(), lengths_.end());
  }

  bool empty() const { return empty_; }

  // The length of the set's character that text starts with; 0 when none does. Only one that
  // starts with a lead byte is longer than a byte, and all its other bytes are continuation bytes.
  std::size_t atStart(const unsigned char* text, std::size_t length) const {
    Best best{single_[text[0]], 1};
    if (text[0] < 0xC0 || lengths_.empty()) return best.index != kNone ? 1 : 0;
    std::size_t longest = 1;
    while (longest < length && longest < kLongest && isContinuation(text[longest]))
      ++longest;
    for (const std::size_t size : lengths_) {
      if (size > longest) break;
      consider(text, size, best);
    }
    return best.index != kNone ? best.length : 0;
  }

  // The length of the set's character that text ends with; 0 when none does. Past a single byte,
  // only a lead byte followed by every continuation byte at the end can be one.
  std::size_t atEnd(const unsigned char* text, std::size_t length) const {
    Best best{single_[text[length - 1]], 1};
    if (!lengths_.empty()) {
      std::size_t trailing = 0;
      while (trailing < length && trailing < kLongest &&
             isContinuation(text[length - 1 - trailing])) {
        ++trailing;
      }
      if (trailing > 0 && trailing < length && trailing + 1 <= kLongest &&
          text[length - 1 - trailing] >= 0xC0) {
        consider(text + length - 1 - trailing, trailing + 1, best);
      }
    }
    return best.index != kNone ? best.length : 0;
  }

 private:
  static constexpr std::size_t kLongest = 255;
  static constexpr std::size_t kNone = SIZE_MAX;

  struct Best {
    std::size_t index;
    std::size_t length;
  };
  void consider(const unsigned char* start, std::size_t length, Best& best) const {
    const auto found = multi_.find(std::string_view(reinterpret_cast<const char*>(start), length));
    if (found != multi_.end() && found->second < best.index) best = {found->second, length};
  }

  std::array<std::size_t, 256> single_{};  // the first index of each one-byte character
  std::unordered_map<std::string_view, std::size_t> multi_;
  std::vector<std::size_t> lengths_;  // of the longer ones, ascending
  bool empty_ = true;
};

enum Sides { kLeft = 1, kRight = 2, kBoth = 3 };

// trim(X, Y), ltrim(X, Y), rtrim(X, Y): X without the characters of Y at its ends, as text.
template <int kSides>
void trimSet(sqlite3_context* context, int /*argc*/, sqlite3_value** argv) {
  if (sqlite3_value_type(argv[0]) == SQLITE_NULL) return;
  const unsigned char* text = sqlite3_value_text(argv[0]);
  if (text == nullptr) return;
  auto length = static_cast<std::size_t>(sqlite3_value_bytes(argv[0]));
  const unsigned char* set = sqlite3_value_text(argv[1]);
  if (set == nullptr) return;
  const CharacterSet characters(set);
  if (!characters.empty()) {
    if ((kSides & kLeft) != 0) {
      std::size_t cut = 0;
      while (length > 0 && (cut = characters.atStart(text, length)) > 0) {
        text += cut;
        length -= cut;
      }
    }
    if ((kSides & kRight) != 0) {
      std::size_t cut = 0;
      while (length > 0 && (cut = characters.atEnd(text, length)) > 0)
        length -= cut;
    }
  }
  sqlite3_result_text64(context, reinterpret_cast<const char*>(text), length, SQLITE_TRANSIENT,
                        SQLITE_UTF8);
}

using Function = void (*)(sqlite3_context*, int, sqlite3_value**);

bool put(sqlite3* db, const char* name, int argc, Function function) {
  return sqlite3_create_function_v2(db, name, argc, kFlags, nullptr, function, nullptr, nullptr,
                                    nullptr) == SQLITE_OK;
}

}  // namespace

bool replaceSlowFunctions(sqlite3* db, StopSignal& signal) {
  return put(db, "instr", 2, &instr) && put(db, "replace", 3, &replaceAll) &&
         put(db, "trim", 2, &trimSet<kBoth>) && put(db, "ltrim", 2, &trimSet<kLeft>) &&
         put(db, "rtrim", 2, &trimSet<kRight>) && replacePatternFunctions(db, signal) &&
         replacePrintf(db);
}

}  // namespace qorchat::sqlite
