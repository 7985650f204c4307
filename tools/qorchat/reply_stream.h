#pragma once
// A reply written while it arrives: each fragment masked and made safe, laid out from its Markdown
// block by block on a colour terminal, as plain safe text otherwise. What it writes in the end is
// what the whole reply shown at once would have been.

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "markdown.h"

namespace qorchat {

class Display;

class ReplyStream {
 public:
  // secret: the text Display masks (the key), held back while a fragment ends in its beginning.
  // markdown: the layout on a terminal; none for plain text. beforeFirstText runs once, just
  // before the first write (it clears the spinner).
  ReplyStream(std::ostream& out, const Display& display, std::string secret,
              std::optional<MarkdownStyle> markdown, std::function<void()> beforeFirstText);

  void add(std::string_view fragment);
  // The reply is whole: what was held back, or the note of a reply without text.
  void finish();
  // The reply was stopped: the line begun is ended, nothing more is shown.
  void abandon();

 private:
  // The fragment masked, less a tail that may be the start of the secret.
  std::string releasedMasked(std::string_view fragment);
  // Safe text of what is complete; an unfinished UTF-8 sequence at the end is held back.
  std::string safeReleased(std::string_view masked);
  void write(const std::string& text);

  std::ostream& out_;
  const Display& display_;
  std::string secret_;
  std::optional<MarkdownStream> markdown_;
  std::function<void()> beforeFirstText_;
  std::string heldForSecret_;
  std::string heldForUtf8_;
  std::string heldBlank_;  // leading blank text: a reply of blanks only shows as having none
  bool textSeen_ = false;  // text other than blanks was passed on
  bool wrote_ = false;
  bool endsLine_ = true;
};

}  // namespace qorchat
