#pragma once
// A model's reply, which is Markdown, rendered as terminal text: headings, emphasis, lists, quotes,
// code blocks, tables and links laid out and wrapped to the terminal's width, with SGR styling or
// none. md4c parses; every piece of the reply's text is made safe before it is styled, so the
// renderer's own SGR sequences are the only escape sequences in what it returns.

#include <cstddef>
#include <string>
#include <string_view>

namespace qorchat {

struct MarkdownStyle {
  std::size_t columns = 0;  // the width paragraphs wrap to; 0: no wrapping
  bool color = false;       // SGR styling on; off, the same layout with no escape sequence
};

// The whole reply rendered: blocks separated by one blank line, every line ending in "\n".
std::string renderMarkdown(std::string_view markdown, const MarkdownStyle& style);

// A reply rendered while it arrives: add() returns the blocks complete so far, finish() the rest.
// A block is complete when a blank line outside a fenced code block follows it and the next line
// starts a new block at the left margin (not a list item, which may belong to a list still open).
// Together the pieces equal renderMarkdown of the whole text.
class MarkdownStream {
 public:
  explicit MarkdownStream(MarkdownStyle style);

  std::string add(std::string_view fragment);
  std::string finish();

 private:
  std::string rendered(std::string_view blocks);

  MarkdownStyle style_;
  std::string pending_;          // text not yet rendered
  std::size_t scanned_ = 0;      // pending_ is read up to here, at a line's start
  bool blankSeen_ = false;       // a blank line since the last text outside a fence
  bool textSeen_ = false;        // pending_ holds text outside a fence
  char fenceMark_ = 0;           // '`' or '~' inside a fenced code block, else 0
  std::size_t fenceLength_ = 0;  // the length of that block's opening fence
  bool wrote_ = false;           // something was returned already
};

}  // namespace qorchat
