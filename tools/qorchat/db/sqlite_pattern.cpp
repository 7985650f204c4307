// LIKE and GLOB matched character by character the way SQLite matches them (its case folding of
// ASCII letters alone, its reading of malformed UTF-8, its escapes and character classes), with a
// look at the stop signal as the work mounts.
#include "db/sqlite_pattern.h"

#include <sqlite3.h>

#include <cstdint>
#include <cstring>

namespace qorchat::sqlite {
namespace {

enum class Match { kMatch, kNoMatch, kNoWildcardMatch, kStopped };

struct Wildcards {
  std::uint32_t all;  // '%' or '*'; 0 when the escape character took its place
  std::uint32_t one;  // '_' or '?'; 0 likewise
  std::uint32_t set;  // '[' for GLOB, else 0
  bool noCase;
};

constexpr Wildcards kLike{'%', '_', 0, true};
constexpr Wildcards kGlob{'*', '?', '[', false};

// What each registered function needs; SQLite owns it and deletes it with the connection.
struct PatternFunction {
  Wildcards wildcards;
  StopSignal* signal;
  bool blobsNeverMatch;  // how this SQLite was built
};

// The payload bits of a lead byte from 0xC0 on, as SQLite reads them.
std::uint32_t leadBits(std::uint32_t lead) {
  if (lead < 0xE0) return lead & 0x1F;
  if (lead < 0xF0) return lead & 0x0F;
  if (lead < 0xF8) return lead & 0x07;
  if (lead < 0xFC) return lead & 0x03;
  if (lead < 0xFE) return lead & 0x01;
  return 0;
}

// One character as SQLite reads it: a lead byte takes every continuation byte after it, and what
// is not a character (overlong, a surrogate, U+FFFE or U+FFFF) reads as U+FFFD. A stray
// continuation byte is a character of its own.
std::uint32_t readChar(const unsigned char*& at) {
  std::uint32_t c = *at++;
  if (c >= 0xC0) {
    c = leadBits(c);
    while ((*at & 0xC0) == 0x80)
      c = (c << 6) + (0x3F & *at++);
    if (c < 0x80 || (c & 0xFFFFF800) == 0xD800 || (c & 0xFFFFFFFE) == 0xFFFE) c = 0xFFFD;
  }
  return c;
}

void skipChar(const unsigned char*& at) {
  if (*at++ >= 0xC0) {
    while ((*at & 0xC0) == 0x80)
      ++at;
  }
}

// SQLite folds the low byte, whatever the character.
unsigned char lowerByte(std::uint32_t c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte + ('a' - 'A')) : byte;
}
unsigned char upperByte(std::uint32_t c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 'a' && byte <= 'z' ? static_cast<unsigned char>(byte - ('a' - 'A')) : byte;
}

class Matcher {
 public:
  Matcher(const Wildcards& wildcards, StopSignal& signal) : w_(wildcards), meter_(signal) {}

  // Whether the string matches the pattern from here; other is the escape character (LIKE) or
  // '[' (GLOB).
  Match compare(const unsigned char* pattern, const unsigned char* string, std::uint32_t other) {
    const unsigned char* escaped = nullptr;  // just past the last escaped pattern character
    std::uint32_t c = 0;
    while ((c = readChar(pattern)) != 0) {
      if (meter_.add(1)) return Match::kStopped;
      if (c == w_.all) return afterAll(pattern, string, other);
      if (c == other) {
        if (w_.set == 0) {
          c = readChar(pattern);
          if (c == 0) return Match::kNoMatch;
          escaped = pattern;
        } else {
          if (!inSet(pattern, string)) return Match::kNoMatch;
          continue;
        }
      }
      const std::uint32_t c2 = readChar(string);
      if (c == c2) continue;
      if (w_.noCase && lowerByte(c) == lowerByte(c2) && c < 0x80 && c2 < 0x80) continue;
      if (c == w_.one && pattern != escaped && c2 != 0) continue;
      return Match::kNoMatch;
    }
    return *string == 0 ? Match::kMatch : Match::kNoMatch;
  }

 private:
  // The pattern just past a match-all: try the rest at every place it can start.
  Match afterAll(const unsigned char* pattern, const unsigned char* string, std::uint32_t other) {
    std::uint32_t c = 0;
    // Runs of match-all and match-one are one match-all that needs a character per match-one.
    while ((c = readChar(pattern)) == w_.all || (c == w_.one && w_.one != 0)) {
      if (c == w_.one && readChar(string) == 0) return Match::kNoWildcardMatch;
    }
    if (c == 0) return Match::kMatch;
    if (c == other && w_.set != 0) return classAnywhere(pattern - 1, string, other);
    if (c == other) {
      c = readChar(pattern);
      if (c == 0) return Match::kNoWildcardMatch;
    }
    return c < 0x80 ? asciiAnywhere(c, pattern, string, other)
                    : charAnywhere(c, pattern, string, other);
  }

  // A class right after a match-all: try it at every character.
  Match classAnywhere(const unsigned char* pattern, const unsigned char* string,
                      std::uint32_t other) {
    while (*string != 0) {
      const Match match = compare(pattern, string, other);
      if (match != Match::kNoMatch) return match;
      skipChar(string);
    }
    return Match::kNoWildcardMatch;
  }

  // Each next place the ASCII character c comes (in either case when case is ignored), the rest
  // of the pattern tried just past it.
  Match asciiAnywhere(std::uint32_t c, const unsigned char* pattern, const unsigned char* string,
                      std::uint32_t other) {
    char stops[3] = {static_cast<char>(c), 0, 0};
    if (w_.noCase) {
      stops[0] = static_cast<char>(upperByte(c));
      stops[1] = static_cast<char>(lowerByte(c));
    }
    while (true) {
      const std::size_t skipped = std::strcspn(reinterpret_cast<const char*>(string), stops);
      if (meter_.add(skipped / 64)) return Match::kStopped;
      string += skipped;
      if (*string == 0) return Match::kNoWildcardMatch;
      ++string;
      const Match match = compare(pattern, string, other);
      if (match != Match::kNoMatch) return match;
    }
  }

  // The same for a character past ASCII, which is compared whole.
  Match charAnywhere(std::uint32_t c, const unsigned char* pattern, const unsigned char* string,
                     std::uint32_t other) {
    std::uint32_t c2 = 0;
    while ((c2 = readChar(string)) != 0) {
      if (meter_.add(1)) return Match::kStopped;
      if (c2 != c) continue;
      const Match match = compare(pattern, string, other);
      if (match != Match::kNoMatch) return match;
    }
    return Match::kNoWildcardMatch;
  }

  // A GLOB class "[...]" against the next character of the string; the pattern is left past it.
  static bool inSet(const unsigned char*& pattern, const unsigned char*& string) {
    const std::uint32_t c = readChar(string);
    if (c == 0) return false;
    std::uint32_t prior = 0;
    bool seen = false;
    bool invert = false;
    std::uint32_t c2 = readChar(pattern);
    if (c2 == '^') {
      invert = true;
      c2 = readChar(pattern);
    }
    if (c2 == ']') {
      if (c == ']') seen = true;
      c2 = readChar(pattern);
    }
    while (c2 != 0 && c2 != ']') {
      if (c2 == '-' && pattern[0] != ']' && pattern[0] != 0 && prior > 0) {
        c2 = readChar(pattern);
        if (c >= prior && c <= c2) seen = true;
        prior = 0;
      } else {
        if (c == c2) seen = true;
        prior = c2;
      }
      c2 = readChar(pattern);
    }
    return c2 != 0 && seen != invert;
  }

  Wildcards w_;
  WorkMeter meter_;
};

// SQLite's count of characters: a lead byte and the continuation bytes after it are one.
int charCount(const unsigned char* text) {
  int count = 0;
  while (*text != 0) {
    skipChar(text);
    ++count;
  }
  return count;
}

// like(P, S), like(P, S, E), glob(P, S): the pattern comes first.
void matchPattern(sqlite3_context* context, int argc, sqlite3_value** argv) {
  const auto* function = static_cast<const PatternFunction*>(sqlite3_user_data(context));
  Wildcards wildcards = function->wildcards;
  if (function->blobsNeverMatch &&
      (sqlite3_value_type(argv[0]) == SQLITE_BLOB || sqlite3_value_type(argv[1]) == SQLITE_BLOB)) {
    sqlite3_result_int(context, 0);
    return;
  }
  sqlite3* db = sqlite3_context_db_handle(context);
  if (sqlite3_value_bytes(argv[0]) > sqlite3_limit(db, SQLITE_LIMIT_LIKE_PATTERN_LENGTH, -1)) {
    sqlite3_result_error(context, "LIKE or GLOB pattern too complex", -1);
    return;
  }
  std::uint32_t escape = wildcards.set;
  if (argc == 3) {
    const unsigned char* escapeText = sqlite3_value_text(argv[2]);
    if (escapeText == nullptr) return;
    if (charCount(escapeText) != 1) {
      sqlite3_result_error(context, "ESCAPE expression must be a single character", -1);
      return;
    }
    escape = readChar(escapeText);
    if (escape == wildcards.all) wildcards.all = 0;
    if (escape == wildcards.one) wildcards.one = 0;
  }
  const unsigned char* pattern = sqlite3_value_text(argv[0]);
  const unsigned char* string = sqlite3_value_text(argv[1]);
  if (pattern == nullptr || string == nullptr) return;
  Matcher matcher(wildcards, *function->signal);
  const Match match = matcher.compare(pattern, string, escape);
  if (match == Match::kStopped) {
    sqlite3_result_error_code(context, SQLITE_INTERRUPT);
    return;
  }
  sqlite3_result_int(context, match == Match::kMatch ? 1 : 0);
}

bool put(sqlite3* db, const char* name, int argc, const Wildcards& wildcards, StopSignal& signal) {
  auto* function = new PatternFunction{wildcards, &signal,
                                       sqlite3_compileoption_used("LIKE_DOESNT_MATCH_BLOBS") != 0};
  // SQLite deletes the function's data with the connection, or at once when it refuses it.
  return sqlite3_create_function_v2(
             db, name, argc, SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, function,
             &matchPattern, nullptr, nullptr,
             [](void* data) { delete static_cast<PatternFunction*>(data); }) == SQLITE_OK;
}

}  // namespace

bool replacePatternFunctions(sqlite3* db, StopSignal& signal) {
  return put(db, "like", 2, kLike, signal) && put(db, "like", 3, kLike, signal) &&
         put(db, "glob", 2, kGlob, signal);
}

}  // namespace qorchat::sqlite
