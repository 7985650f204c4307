// A reply written as it arrives, cut anywhere, ends up exactly as the whole reply shown at once.
#include <gtest/gtest.h>

#include <sstream>

#include "display.h"
#include "memory_store.h"
#include "reply_stream.h"

namespace {

constexpr const char* kKey = "sk-test-4f9a0c1d2e3b";

// Every cut into three fragments writes what the whole text, masked and made safe, shows; the
// key never shows, not even in part, and the spinner is cleared before the first write.
TEST(ReplyStream, AnyCutWritesWhatTheWholeReplyShows) {
  const std::string texts[] = {
      "é 中 \xF0\x9F\x98\x80 and a stray \xFF byte",
      "an ESC \x1B[31mred\x1B[0m and a C1 \xC2\x9B"
      "31m",
      "the key sk-test-4f9a0c1d2e3b, and sk-test-4f9 half of one",
      "# Title\n\nA *paragraph*.\n\n- one\n- two\n\n```sql\nSELECT 1;\n```\n",
      " \n\t\n",
  };
  std::ostringstream sink;
  qorchat::Display display(sink, sink);
  display.addSecret(kKey);
  for (const std::optional<qorchat::MarkdownStyle> style :
       {std::optional<qorchat::MarkdownStyle>(), std::optional(qorchat::MarkdownStyle{40, true})}) {
    for (const std::string& text : texts) {
      const std::string masked = display.masked(text);
      const std::string whole = text.find_first_not_of(" \n\t") == std::string::npos
                                    ? "(" + std::string(qorchat::kNoTextReply) + ")\n"
                                : style ? qorchat::renderMarkdown(masked, *style)
                                        : qorchat::terminalSafe(masked) + "\n";
      for (std::size_t first = 0; first <= text.size(); ++first) {
        for (std::size_t second = first; second <= text.size(); ++second) {
          std::ostringstream out;
          qorchat::ReplyStream stream(out, display, kKey, style,
                                      [&] { EXPECT_TRUE(out.str().empty()); });
          stream.add(text.substr(0, first));
          stream.add(text.substr(first, second - first));
          stream.add(text.substr(second));
          stream.finish();
          ASSERT_EQ(out.str(), whole) << text << " cut at " << first << " and " << second;
          ASSERT_EQ(out.str().find("sk-test-4f9a"), std::string::npos);
        }
      }
    }
  }
}

}  // namespace
