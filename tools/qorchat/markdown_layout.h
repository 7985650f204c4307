#pragma once
// The inline layer of the Markdown renderer: runs of styled text pieces, their SGR form,
// wrapping them to a width at word boundaries by display width, and tables of them.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qorchat::markdown {

// Styles combine as bits.
enum StyleBit : unsigned {
  kBold = 1U << 0U,
  kDim = 1U << 1U,
  kItalic = 1U << 2U,
  kUnderline = 1U << 3U,
  kStrike = 1U << 4U,
  kCode = 1U << 5U,
};

// Text already made safe for the terminal, a space where a line may break, or a hard break.
struct Piece {
  enum class Kind { kText, kSpace, kBreak };
  Kind kind = Kind::kText;
  std::string text;
  unsigned style = 0;
};
using Pieces = std::vector<Piece>;

// Appends text, a Space piece at every run of blanks, tabs or line breaks in it.
void appendWords(Pieces& pieces, std::string_view text, unsigned style);

// The run's visible text, spaces as one blank, no styling.
std::string plainText(const Pieces& run);
std::size_t displayWidthOf(const Pieces& run);

// The run as terminal text: with color, an SGR sequence where the style changes and a reset at
// its end; without, the text alone.
std::string styledText(const Pieces& run, bool color);

// The pieces as lines no wider than width (0: no limit), broken at spaces; one space between
// words, none at either end of a line; a word wider than width gets a line of its own. A hard
// break ends a line.
std::vector<Pieces> wrapped(const Pieces& pieces, std::size_t width);

enum class Align { kLeft, kCenter, kRight };
// A table's lines: columns aligned by display width, the first row bold and ruled off. Each cell
// is one line; rows have no more cells than aligns.
std::vector<std::string> tableLines(const std::vector<std::vector<Pieces>>& rows,
                                    const std::vector<Align>& aligns, bool color);

// SQL code with its keywords set in bold blue; strings, quoted names and comments left alone.
std::string highlightedSql(std::string_view code);

// HTML entities of Markdown text decoded (&amp;, &#65;, &#x41;...); unknown ones kept as written.
std::string decodedEntity(std::string_view entity);

}  // namespace qorchat::markdown
