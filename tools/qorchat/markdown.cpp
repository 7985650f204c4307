// Renders a Markdown reply for the terminal: md4c parses, and its callbacks lay out the blocks.
#include "markdown.h"

#include <md4c.h>

#include <algorithm>
#include <vector>

#include "display.h"
#include "markdown_renderer.h"
#include "text.h"

namespace qorchat {
namespace markdown {
namespace {

constexpr std::size_t kRuleWidthUnwrapped = 40;
constexpr std::string_view kSqlLanguages[] = {"",         "sql",        "sqlite", "sqlite3",
                                              "postgres", "postgresql", "pgsql"};

std::string repeated(std::string_view unit, std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i)
    out += unit;
  return out;
}

}  // namespace

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

}  // namespace markdown

std::string renderMarkdown(std::string_view markdown, const MarkdownStyle& style) {
  return markdown::Renderer(style).render(markdown);
}

}  // namespace qorchat
