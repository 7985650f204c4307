#pragma once
// The Markdown renderer's state while md4c walks a reply: the containers around the current
// block, the lists, the styles of the open spans, and the text gathered for the current block.

#include <md4c.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "markdown.h"
#include "markdown_layout.h"
#include "text.h"

namespace qorchat::markdown {

// An attribute's text (a link's URL, a code block's language) with its entities decoded.
std::string attributeText(const MD_ATTRIBUTE& attribute);

// A block quote or a list item: what starts its lines, the first and the others.
struct Container {
  std::string first;
  std::string rest;
  bool used = false;
};

struct List {
  bool ordered = false;
  bool tight = true;
  unsigned next = 1;
  char delimiter = '.';
  std::size_t items = 0;
};

struct Link {
  std::size_t firstPiece;
  std::string url;
};

struct Table {
  std::vector<std::vector<Pieces>> rows;
  std::vector<MD_ALIGN> aligns;
};

class Renderer {
 public:
  explicit Renderer(const MarkdownStyle& style) : style_(style) {}

  std::string render(std::string_view markdown) {
    MD_PARSER parser{};
    parser.flags = MD_FLAG_TABLES | MD_FLAG_STRIKETHROUGH;
    parser.enter_block = [](MD_BLOCKTYPE type, void* detail, void* self) {
      return static_cast<Renderer*>(self)->enterBlock(type, detail);
    };
    parser.leave_block = [](MD_BLOCKTYPE type, void* detail, void* self) {
      return static_cast<Renderer*>(self)->leaveBlock(type, detail);
    };
    parser.enter_span = [](MD_SPANTYPE type, void* detail, void* self) {
      return static_cast<Renderer*>(self)->enterSpan(type, detail);
    };
    parser.leave_span = [](MD_SPANTYPE type, void* /*detail*/, void* self) {
      return static_cast<Renderer*>(self)->leaveSpan(type);
    };
    parser.text = [](MD_TEXTTYPE type, const MD_CHAR* text, MD_SIZE size, void* self) {
      return static_cast<Renderer*>(self)->addText(type, std::string_view(text, size));
    };
    md_parse(markdown.data(), static_cast<MD_SIZE>(markdown.size()), &parser, this);
    flushInline();
    return std::move(out_);
  }

 private:
  int enterBlock(MD_BLOCKTYPE type, void* detail);
  int leaveBlock(MD_BLOCKTYPE type, void* detail);
  int enterSpan(MD_SPANTYPE type, void* detail);
  int leaveSpan(MD_SPANTYPE type);
  int addText(MD_TEXTTYPE type, std::string_view text);

  void enterList(List list);
  void enterItem();
  void leaveHeading(unsigned level);
  void leaveLink();
  void emitCode();
  void emitTable();

  unsigned currentStyle() const { return styles_.empty() ? 0 : styles_.back(); }
  Pieces& target() { return inCell_ ? table_.rows.back().back() : inline_; }
  // A marker kept in plain text for what colour would show (`code`, ~~struck~~).
  void addMarker(std::string_view marker) {
    if (!style_.color) target().push_back({Piece::Kind::kText, std::string(marker), 0});
  }

  // Blocks are separated by one blank line, written before the next block (or container) starts.
  void separate() {
    if (blankPending_ && wrote_) emitLine("");
    blankPending_ = false;
  }
  std::size_t prefixWidth() const {
    std::size_t width = 0;
    for (const Container& container : containers_)
      width += text::displayWidth(container.rest);
    return width;
  }
  std::size_t availableWidth() const {
    if (style_.columns == 0) return 0;
    return std::max<std::size_t>(style_.columns - std::min(style_.columns, prefixWidth()), 1);
  }
  void emitLine(std::string_view content) {
    std::string prefix;
    for (Container& container : containers_) {
      prefix += content.empty() || container.used ? container.rest : container.first;
      if (!content.empty()) container.used = true;
    }
    if (content.empty()) prefix.erase(prefix.find_last_not_of(' ') + 1);
    out_ += prefix;
    out_ += content;
    out_ += '\n';
    wrote_ = true;
  }
  // The inline text gathered so far as a wrapped paragraph, if there is any.
  void flushInline(unsigned extraStyle = 0) {
    const bool hasText = std::any_of(inline_.begin(), inline_.end(),
                                     [](const Piece& p) { return p.kind == Piece::Kind::kText; });
    if (hasText) {
      separate();
      for (Piece& piece : inline_)
        piece.style |= extraStyle;
      for (const Pieces& line : markdown::wrapped(inline_, availableWidth()))
        emitLine(markdown::styledText(line, style_.color));
      blankPending_ = true;
    }
    inline_.clear();
  }

  const MarkdownStyle& style_;
  std::string out_;
  bool wrote_ = false;
  bool blankPending_ = false;
  std::vector<Container> containers_;
  std::vector<List> lists_;
  std::vector<unsigned> styles_;
  std::vector<Link> links_;
  Pieces inline_;
  bool inCode_ = false;  // a code or HTML block: its text is kept verbatim
  bool sqlCode_ = false;
  std::string codeIndent_;  // two columns for code, none for HTML
  std::string code_;
  bool inCell_ = false;
  Table table_;
};

}  // namespace qorchat::markdown
