#pragma once
// Small text helpers every room of qorchat uses: trimming, folding white space, replacing,
// numbers for people, ASCII case.

#include <cstddef>
#include <string>
#include <string_view>

namespace qorchat::text {

// ASCII white space: blank, \t, \n, \v, \f, \r.
bool isSpace(char c);
// The text without white space at either end.
std::string_view trimmed(std::string_view text);
// Every run of white space made one blank, none at either end.
std::string oneLine(std::string_view text);
// Each line trimmed and the non-empty ones joined with "; ": a message of several lines (libpq
// writes them) as one line.
std::string joinedLines(std::string_view text);
// Every occurrence of from replaced by to, left to right; nothing when from is empty.
void replaceAll(std::string& text, std::string_view from, std::string_view to);
// %XX sequences decoded, everything else kept.
std::string percentDecoded(std::string_view text);
// 12345 as "12,345".
std::string withSeparators(std::size_t number);
// A number in its shortest form that reads back the same: 0.4, not 0.400000.
std::string shortNumber(double number);
// Milliseconds as psql prints a timing: "12.345 ms", and seconds beside it past one.
std::string milliseconds(double milliseconds);
char lowerAscii(char c);
// Equal but for the case of ASCII letters, as SQL identifiers compare.
bool equalsIgnoringCase(std::string_view a, std::string_view b);
bool startsWith(std::string_view text, std::string_view prefix);

// The length of the well-formed UTF-8 sequence at the start of text (1 to 4); 0 when it starts
// with no such sequence (a stray byte, an overlong form, a surrogate, past U+10FFFF) or is empty.
std::size_t utf8SequenceLength(std::string_view text);
// The text with every byte that starts no well-formed sequence replaced by U+FFFD.
std::string validUtf8(std::string_view text);
// The code point of a well-formed sequence of that length.
char32_t utf8CodePoint(std::string_view sequence);
// The columns a terminal gives a printable character: 2 for wide ones (CJK, most emoji), 0 for
// combining marks, else 1. The same whatever the user's locale.
std::size_t columnsOf(char32_t codePoint);
// The columns of a text of printable characters (one made safe for the terminal).
std::size_t displayWidth(std::string_view text);
// Appends the UTF-8 form of a code point.
void appendUtf8(std::string& out, char32_t codePoint);

}  // namespace qorchat::text
