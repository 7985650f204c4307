// Styled runs of text for the Markdown renderer: SGR transitions and word wrapping.
#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "markdown_layout.h"
#include "text.h"

namespace qorchat::markdown {
namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The SGR parameters of each style bit, in the order they are written.
constexpr std::array<std::pair<unsigned, std::string_view>, 6> kStyleCodes = {{
    {kBold, "1"},
    {kDim, "2"},
    {kItalic, "3"},
    {kUnderline, "4"},
    {kStrike, "9"},
    {kCode, "36"},
}};

std::string sgrFor(unsigned from, unsigned to) {
  if (to == 0) return "\x1b[0m";
  std::string codes = from == 0 ? "" : "0";
  for (const auto& [bit, code] : kStyleCodes) {
    if ((to & bit) == 0) continue;
    if (!codes.empty()) codes += ';';
    codes += code;
  }
  return "\x1b[" + codes + "m";
}

// Appends a text piece to the lines character by character, starting a new line where the next
// character would pass width.
void appendBrokenAt(std::vector<Pieces>& lines, std::size_t& lineWidth, const Piece& piece,
                    std::size_t width) {
  std::size_t at = 0;
  while (at < piece.text.size()) {
    const std::string_view rest = std::string_view(piece.text).substr(at);
    const std::size_t length = std::max<std::size_t>(text::utf8SequenceLength(rest), 1);
    const std::string_view character = rest.substr(0, length);
    const std::size_t columns = text::displayWidth(character);
    if (lineWidth > 0 && lineWidth + columns > width) {
      lines.emplace_back();
      lineWidth = 0;
    }
    Pieces& line = lines.back();
    if (line.empty() || line.back().kind != Piece::Kind::kText || line.back().style != piece.style)
      line.push_back({Piece::Kind::kText, "", piece.style});
    line.back().text += character;
    lineWidth += columns;
    at += length;
  }
}

}  // namespace

void appendWords(Pieces& pieces, std::string_view text, unsigned style) {
  std::size_t at = 0;
  while (at < text.size()) {
    if (isBlank(text[at])) {
      while (at < text.size() && isBlank(text[at]))
        ++at;
      pieces.push_back({Piece::Kind::kSpace, " ", 0});
      continue;
    }
    std::size_t end = at;
    while (end < text.size() && !isBlank(text[end]))
      ++end;
    pieces.push_back({Piece::Kind::kText, std::string(text.substr(at, end - at)), style});
    at = end;
  }
}

std::string plainText(const Pieces& run) {
  std::string out;
  for (const Piece& piece : run)
    out += piece.kind == Piece::Kind::kText ? piece.text : " ";
  return out;
}

std::size_t displayWidthOf(const Pieces& run) {
  return text::displayWidth(plainText(run));
}

std::string styledText(const Pieces& run, bool color) {
  if (!color) return plainText(run);
  std::string out;
  unsigned current = 0;
  for (const Piece& piece : run) {
    // A space takes the style around it only when both sides share it (an underline or a strike
    // runs on through the blanks between its words).
    const unsigned style = piece.kind == Piece::Kind::kText ? piece.style : (current & piece.style);
    if (style != current) out += sgrFor(current, style);
    current = style;
    out += piece.kind == Piece::Kind::kText ? piece.text : " ";
  }
  if (current != 0) out += sgrFor(current, 0);
  return out;
}

std::vector<Pieces> wrapped(const Pieces& pieces, std::size_t width) {
  std::vector<Pieces> lines(1);
  std::size_t lineWidth = 0;
  bool spaceBefore = false;
  std::size_t at = 0;
  while (at < pieces.size()) {
    const Piece& piece = pieces[at];
    if (piece.kind != Piece::Kind::kText) {
      if (piece.kind == Piece::Kind::kBreak) {
        lines.emplace_back();
        lineWidth = 0;
      }
      spaceBefore = piece.kind == Piece::Kind::kSpace && !lines.back().empty();
      ++at;
      continue;
    }
    // A word: the text pieces up to the next space or break.
    std::size_t end = at;
    std::size_t wordWidth = 0;
    while (end < pieces.size() && pieces[end].kind == Piece::Kind::kText)
      wordWidth += text::displayWidth(pieces[end++].text);
    if (spaceBefore && width != 0 && lineWidth + 1 + wordWidth > width) {
      lines.emplace_back();
      lineWidth = 0;
    } else if (spaceBefore) {
      const unsigned shared = lines.back().back().style & pieces[at].style;
      lines.back().push_back({Piece::Kind::kSpace, " ", shared});
      ++lineWidth;
    }
    if (width != 0 && lineWidth + wordWidth > width) {
      // Wider than a whole line (a run of CJK text, a long URL): broken between characters.
      for (std::size_t i = at; i < end; ++i)
        appendBrokenAt(lines, lineWidth, pieces[i], width);
    } else {
      lines.back().insert(lines.back().end(), pieces.begin() + static_cast<std::ptrdiff_t>(at),
                          pieces.begin() + static_cast<std::ptrdiff_t>(end));
      lineWidth += wordWidth;
    }
    spaceBefore = false;
    at = end;
  }
  return lines;
}

std::string decodedEntity(std::string_view entity) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kNamed = {{
      {"&amp;", "&"},
      {"&lt;", "<"},
      {"&gt;", ">"},
      {"&quot;", "\""},
      {"&apos;", "'"},
      {"&nbsp;", "\u00A0"},
  }};
  for (const auto& [name, value] : kNamed)
    if (entity == name) return std::string(value);
  if (entity.size() < 4 || entity[1] != '#' || entity.back() != ';') return std::string(entity);
  std::string_view digits = entity.substr(2, entity.size() - 3);
  int base = 10;
  if (!digits.empty() && (digits.front() == 'x' || digits.front() == 'X')) {
    base = 16;
    digits.remove_prefix(1);
  }
  std::uint32_t codePoint = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), codePoint, base);
  const bool valid = error == std::errc() && end == digits.data() + digits.size() &&
                     codePoint != 0 && codePoint <= 0x10FFFF &&
                     (codePoint < 0xD800 || codePoint > 0xDFFF);
  std::string out;
  text::appendUtf8(out, valid ? static_cast<char32_t>(codePoint) : U'\uFFFD');
  return out;
}

}  // namespace qorchat::markdown
