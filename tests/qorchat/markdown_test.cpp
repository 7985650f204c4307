// Tests the terminal rendering of Markdown replies: the plain layout at 40 columns, the SGR
// styling, hostile text that must not reach the terminal as escapes, and streaming block by block.
#include <gtest/gtest.h>

#include <string>

#include "markdown.h"

namespace {

using qorchat::MarkdownStream;
using qorchat::MarkdownStyle;
using qorchat::renderMarkdown;

constexpr MarkdownStyle kPlain{40, false};

std::string ruleOf(std::size_t columns) {
  std::string rule;
  for (std::size_t i = 0; i < columns; ++i)
    rule += "─";
  return rule + "\n";
}

TEST(Markdown, LaysOutBlocksWithoutColour) {
  const struct {
    const char* markdown;
    std::string rendered;
  } rows[] = {
      {"# Top\n\n## Sub\n\n### Third\n", "Top\n═══\n\nSub\n───\n\nThird\n"},
      {"Some *it* **bold** `x = 1` ~~old~~ text.\n", "Some it bold `x = 1` ~~old~~ text.\n"},
      {"- one\n- two\n  1. deep item long enough to wrap at forty\n- three\n\nafter\n",
       "• one\n• two\n  1. deep item long enough to wrap at\n     forty\n• three\n\nafter\n"},
      {"- a\n\n- b\n", "• a\n\n• b\n"},
      {"> quoted\n>\n> - item\n\n---\n", "│ quoted\n│\n│ • item\n\n" + ruleOf(40)},
      {"```\nSELECT a_rather_long_column_name, another_long_one FROM t;\n\n  x\n```\n",
       "  SELECT a_rather_long_column_name, another_long_one FROM t;\n\n    x\n"},
      {"    indented code\n", "  indented code\n"},
      {"| Name | Qty |\n|:--|--:|\n| 漢字 | 1 |\n| apple | 100 |\n",
       "Name  │ Qty\n──────┼────\n漢字  │   1\napple │ 100\n"},
      {"See [the docs](https://x.example/a?b=1&amp;c) or <https://y.example>.\n",
       "See the docs (https://x.example/a?b=1&c)\nor https://y.example.\n"},
      {"漢字 漢字 漢字 漢字 漢字 漢字 漢字 漢字 漢字 漢字\n",
       "漢字 漢字 漢字 漢字 漢字 漢字 漢字 漢字\n漢字 漢字\n"},
      {"a 日本語の文字は二列を取るのでここで折り返されます\n",
       "a\n日本語の文字は二列を取るのでここで折り返\nされます\n"},
      {"first line  \nsecond &amp; &#x41;\n", "first line\nsecond & A\n"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(renderMarkdown(row.markdown, kPlain), row.rendered) << row.markdown;
}

// Each style's SGR codes, a reset before every line end, nothing styled in the prefixes, and SQL
// keywords lit outside strings and comments only in SQL or unlabelled blocks.
TEST(Markdown, StylesWithSgrWhenColourIsOn) {
  const std::string rendered = renderMarkdown(
      "# T\n\n- *i* **b** `c` ~~s~~ [l](u)\n\n```sql\nselect 'from' -- where\n```\n\n"
      "```python\nselect = 1\n```\n",
      {40, true});
  EXPECT_EQ(
      rendered,
      "\x1b[1mT\x1b[0m\n═\n\n"
      "• \x1b[3mi\x1b[0m \x1b[1mb\x1b[0m \x1b[36mc\x1b[0m \x1b[9ms\x1b[0m l (\x1b[2mu\x1b[0m)\n\n"
      "  \x1b[1;34mselect\x1b[0m 'from' -- where\n\n"
      "  select = 1\n");
}

// Escapes and bidirectional overrides in text, inline code, code blocks, link URLs, table cells
// and entities come out visible and inert: the only ESC bytes are the renderer's own SGR.
TEST(Markdown, HostileTextReachesNoTerminalAsEscapes) {
  const std::string osc52 = "\x1b]52;c;cm0gLXJmIH4=\x07";
  const std::string csi =
      "\x1b[2J\x9b"
      "31m";
  const std::string bidi = "\u202Etxt.exe\u2066";
  const std::string reply = "Hi " + osc52 + " *" + csi + "* `" + bidi + "`\n\n```sql\n" + osc52 +
                            "\n```\n\n[a" + bidi + "](http://e/" + csi + ")\n\n| " + osc52 +
                            " |\n|--|\n| " + bidi + " |\n\n&#27;[31m &#x9b;\n";
  for (const bool color : {false, true}) {
    std::string rendered = renderMarkdown(reply, {40, color});
    for (const char* sgr : {"\x1b[0m", "\x1b[1m", "\x1b[2m", "\x1b[3m", "\x1b[36m", "\x1b[1;34m"}) {
      for (auto at = rendered.find(sgr); at != std::string::npos; at = rendered.find(sgr))
        rendered.erase(at, std::string(sgr).size());
    }
    EXPECT_EQ(rendered.find('\x1b'), std::string::npos) << rendered;
    EXPECT_EQ(rendered.find('\x07'), std::string::npos) << rendered;
    EXPECT_EQ(rendered.find("\xc2\x9b"), std::string::npos) << rendered;
    EXPECT_EQ(rendered.find("\u202E"), std::string::npos) << rendered;
    EXPECT_EQ(rendered.find("\u2066"), std::string::npos) << rendered;
    EXPECT_NE(rendered.find("␛]52;c;cm0gLXJmIH4="), std::string::npos) << rendered;
  }
}

// Cut anywhere, or fed a byte at a time, a stream renders what the whole text renders.
TEST(Markdown, StreamEqualsTheWholeRendering) {
  const std::string inputs[] = {
      "# Title\n\nA paragraph\nover two lines.\n\n- a\n- b\n\n- c\n\nAfter the list.\n",
      "Intro\n\n```sql\nSELECT 1;\n\n\nSELECT 2;\n```\n\n    code\n\n    more\n\nEnd\n",
      "1. one\n\n   still one\n2. two\n\n> quote\n\n| a | b |\n|---|---|\n| 1 | 2 "
      "|\n\n~~~\n```\n\n~~~\n",
      "\n\nText\n\n- x\n  ```\n  y\n\n  z\n  ```\n- w\n\n***\n\nlast  \nline\n",
  };
  for (const bool color : {false, true}) {
    const MarkdownStyle style{30, color};
    for (const std::string& input : inputs) {
      const std::string whole = renderMarkdown(input, style);
      for (std::size_t cut = 0; cut <= input.size(); ++cut) {
        MarkdownStream stream(style);
        std::string streamed = stream.add(input.substr(0, cut));
        streamed += stream.add(input.substr(cut));
        streamed += stream.finish();
        ASSERT_EQ(streamed, whole) << "cut at " << cut << " of:\n" << input;
      }
      MarkdownStream stream(style);
      std::string streamed;
      std::size_t pieces = 0;
      for (const char c : input) {
        const std::string part = stream.add(std::string(1, c));
        pieces += part.empty() ? 0 : 1;
        streamed += part;
      }
      streamed += stream.finish();
      EXPECT_EQ(streamed, whole) << input;
      EXPECT_GT(pieces, 1U) << "rendered before the end: " << input;
    }
  }
}

}  // namespace
