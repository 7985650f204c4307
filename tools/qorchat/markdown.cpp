// Renders a Markdown reply for the terminal: md4c parses, and its callbacks lay out the blocks.
#include "markdown.h"

#include <md4c.h>

#include <algorithm>
#include <vector>

#include "display.h"
#include "markdown_layout.h"
#include "text.h"

namespace qorchat {
namespace {

using markdown::Piece;
using markdown::Pieces;

constexpr std::size_t kRuleWidthUnwrapped = 40;
constexpr std::string_view kSqlLanguages[] = {"",         "sql",        "sqlite", "sqlite3",
                                              "postgres", "postgresql", "pgsql"};

std::string repeated(std::string_view unit, std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i)
    out += unit;
  return out;
}

// An attribute's text (a link's URL, a code block's language) with its entities decoded.
std::string attributeText(const MD_ATTRIBUTE& attribute) {
  std::string out;
  // An absent attribute (an indented code block's language) has no substrings at all.
  if (attribute.size == 0) return out;
  for (std::size_t i = 0; attribute.substr_offsets[i] < attribute.size; ++i) {
    const std::string_view part(attribute.text + attribute.substr_offsets[i],
                                attribute.substr_offsets[i + 1] - attribute.substr_offsets[i]);
    if (attribute.substr_types[i] == MD_TEXT_ENTITY) {
      out += markdown::decodedEntity(part);
    } else if (attribute.substr_types[i] == MD_TEXT_NULLCHAR) {
      out += "\uFFFD";
    } else {
      out += part;
    }
  }
  return out;
}

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

int Renderer::enterBlock(MD_BLOCKTYPE type, void* detail) {
  flushInline();
  switch (type) {
    case MD_BLOCK_QUOTE:
      separate();
      containers_.push_back({"│ ", "│ "});
      break;
    case MD_BLOCK_UL:
      enterList({false, static_cast<MD_BLOCK_UL_DETAIL*>(detail)->is_tight != 0});
      break;
    case MD_BLOCK_OL: {
      const auto* ordered = static_cast<MD_BLOCK_OL_DETAIL*>(detail);
      enterList({true, ordered->is_tight != 0, ordered->start, ordered->mark_delimiter});
      break;
    }
    case MD_BLOCK_LI:
      enterItem();
      break;
    case MD_BLOCK_CODE: {
      const auto* code = static_cast<MD_BLOCK_CODE_DETAIL*>(detail);
      std::string language = attributeText(code->lang);
      std::transform(language.begin(), language.end(), language.begin(), text::lowerAscii);
      codeIndent_ = "  ";
      sqlCode_ = std::find(std::begin(kSqlLanguages), std::end(kSqlLanguages), language) !=
                 std::end(kSqlLanguages);
      inCode_ = true;
      break;
    }
    case MD_BLOCK_HTML:
      codeIndent_.clear();
      sqlCode_ = false;
      inCode_ = true;
      break;
    case MD_BLOCK_TH:
    case MD_BLOCK_TD:
      table_.rows.back().emplace_back();
      if (table_.rows.size() == 1)
        table_.aligns.push_back(static_cast<MD_BLOCK_TD_DETAIL*>(detail)->align);
      inCell_ = true;
      break;
    case MD_BLOCK_TR:
      table_.rows.emplace_back();
      break;
    case MD_BLOCK_TABLE:
      table_ = {};
      break;
    default:
      break;
  }
  return 0;
}

void Renderer::enterList(List list) {
  // A list inside an item of a tight list follows the item's text with no blank line.
  if (!lists_.empty() && lists_.back().tight && !containers_.empty()) {
    blankPending_ = false;
  } else {
    separate();
  }
  lists_.push_back(list);
}

void Renderer::enterItem() {
  List& list = lists_.back();
  if (list.tight && list.items > 0) blankPending_ = false;
  separate();
  ++list.items;
  const std::string marker =
      list.ordered ? std::to_string(list.next++) + list.delimiter + ' ' : std::string("• ");
  containers_.push_back({marker, std::string(text::displayWidth(marker), ' ')});
}

int Renderer::leaveBlock(MD_BLOCKTYPE type, void* detail) {
  switch (type) {
    case MD_BLOCK_QUOTE:
    case MD_BLOCK_LI:
      flushInline();
      containers_.pop_back();
      break;
    case MD_BLOCK_UL:
    case MD_BLOCK_OL:
      lists_.pop_back();
      blankPending_ = true;
      break;
    case MD_BLOCK_H:
      leaveHeading(static_cast<MD_BLOCK_H_DETAIL*>(detail)->level);
      break;
    case MD_BLOCK_HR:
      separate();
      emitLine(repeated("─", style_.columns == 0 ? kRuleWidthUnwrapped : availableWidth()));
      blankPending_ = true;
      break;
    case MD_BLOCK_CODE:
    case MD_BLOCK_HTML:
      emitCode();
      break;
    case MD_BLOCK_TH:
    case MD_BLOCK_TD:
      inCell_ = false;
      break;
    case MD_BLOCK_TABLE:
      emitTable();
      break;
    default:
      flushInline();
      break;
  }
  return 0;
}

void Renderer::leaveHeading(unsigned level) {
  std::size_t width = 0;
  for (const Pieces& line : markdown::wrapped(inline_, availableWidth()))
    width = std::max(width, markdown::displayWidthOf(line));
  flushInline(markdown::kBold);
  if (level <= 2 && width > 0) emitLine(repeated(level == 1 ? "═" : "─", width));
}

// Code is kept verbatim, never wrapped, set in by two columns; HTML is kept as it is written.
void Renderer::emitCode() {
  std::string code = terminalSafe(code_);
  if (style_.color && sqlCode_) code = markdown::highlightedSql(code);
  code_.clear();
  inCode_ = false;
  if (code.empty()) return;
  separate();
  std::string_view rest = code;
  if (!rest.empty() && rest.back() == '\n') rest.remove_suffix(1);
  while (true) {
    const std::size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    emitLine(line.empty() ? "" : codeIndent_ + std::string(line));
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  blankPending_ = true;
}

int Renderer::enterSpan(MD_SPANTYPE type, void* detail) {
  unsigned style = currentStyle();
  switch (type) {
    case MD_SPAN_EM:
      style |= markdown::kItalic;
      break;
    case MD_SPAN_STRONG:
      style |= markdown::kBold;
      break;
    case MD_SPAN_U:
      style |= markdown::kUnderline;
      break;
    case MD_SPAN_DEL:
      style |= markdown::kStrike;
      addMarker("~~");
      break;
    case MD_SPAN_CODE:
      style |= markdown::kCode;
      addMarker("`");
      break;
    case MD_SPAN_A:
      links_.push_back(
          {target().size(), attributeText(static_cast<MD_SPAN_A_DETAIL*>(detail)->href)});
      break;
    case MD_SPAN_IMG:
      links_.push_back(
          {target().size(), attributeText(static_cast<MD_SPAN_IMG_DETAIL*>(detail)->src)});
      break;
    default:
      break;
  }
  styles_.push_back(style);
  return 0;
}

int Renderer::leaveSpan(MD_SPANTYPE type) {
  styles_.pop_back();
  if (type == MD_SPAN_DEL) addMarker("~~");
  if (type == MD_SPAN_CODE) addMarker("`");
  if (type == MD_SPAN_A || type == MD_SPAN_IMG) leaveLink();
  return 0;
}

// A link reads "text (url)"; one whose text is its URL reads as the URL alone.
void Renderer::leaveLink() {
  const Link link = std::move(links_.back());
  links_.pop_back();
  Pieces& pieces = target();
  const std::string url = terminalSafe(link.url);
  const Pieces text(pieces.begin() + static_cast<std::ptrdiff_t>(link.firstPiece), pieces.end());
  if (url.empty() || markdown::plainText(text) == url) return;
  pieces.push_back({Piece::Kind::kSpace, " ", 0});
  pieces.push_back({Piece::Kind::kText, "(", currentStyle()});
  pieces.push_back({Piece::Kind::kText, url, currentStyle() | markdown::kDim});
  pieces.push_back({Piece::Kind::kText, ")", currentStyle()});
}

int Renderer::addText(MD_TEXTTYPE type, std::string_view text) {
  if (inCode_) {
    code_ += text;
    return 0;
  }
  switch (type) {
    case MD_TEXT_BR:
      target().push_back({Piece::Kind::kBreak, "", 0});
      break;
    case MD_TEXT_SOFTBR:
      target().push_back({Piece::Kind::kSpace, " ", 0});
      break;
    case MD_TEXT_NULLCHAR:
      markdown::appendWords(target(), "\uFFFD", currentStyle());
      break;
    case MD_TEXT_ENTITY:
      markdown::appendWords(target(), terminalSafe(markdown::decodedEntity(text)), currentStyle());
      break;
    default:
      markdown::appendWords(target(), terminalSafe(text), currentStyle());
      break;
  }
  return 0;
}

void Renderer::emitTable() {
  std::vector<markdown::Align> aligns;
  for (const MD_ALIGN align : table_.aligns)
    aligns.push_back(align == MD_ALIGN_RIGHT    ? markdown::Align::kRight
                     : align == MD_ALIGN_CENTER ? markdown::Align::kCenter
                                                : markdown::Align::kLeft);
  separate();
  for (const std::string& line : markdown::tableLines(table_.rows, aligns, style_.color))
    emitLine(line);
  table_ = {};
  blankPending_ = true;
}

}  // namespace

std::string renderMarkdown(std::string_view markdown, const MarkdownStyle& style) {
  return Renderer(style).render(markdown);
}

}  // namespace qorchat
