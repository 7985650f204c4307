// Writes a reply while it arrives, masked and safe, the same in the end as the whole reply shown.
#include "reply_stream.h"

#include <ostream>

#include "display.h"
#include "memory_store.h"
#include "text.h"

namespace qorchat {
namespace {

// Display leaves shorter texts unmasked; nothing to hold back for them.
constexpr std::size_t kShortestSecret = 4;

// Where an unfinished UTF-8 sequence starts at the end of text, or text.size() when none does.
// terminalSafe reads code point by code point (ESC and the C1 controls become visible, so an
// escape sequence cut anywhere stays harmless); only a cut inside a sequence would show "�".
std::size_t unfinishedSequenceStart(std::string_view text) {
  for (std::size_t back = 1; back <= 3 && back <= text.size(); ++back) {
    const auto byte = static_cast<unsigned char>(text[text.size() - back]);
    if ((byte & 0xC0) == 0x80) continue;  // a continuation byte: its lead is further back
    const std::size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    return length > back ? text.size() - back : text.size();
  }
  return text.size();
}

}  // namespace

ReplyStream::ReplyStream(std::ostream& out, const Display& display, std::string secret,
                         std::optional<MarkdownStyle> markdown,
                         std::function<void()> beforeFirstText)
    : out_(out),
      display_(display),
      secret_(std::move(secret)),
      beforeFirstText_(std::move(beforeFirstText)) {
  if (markdown) markdown_.emplace(*markdown);
}

std::string ReplyStream::releasedMasked(std::string_view fragment) {
  // Masked first, so that a whole secret is never split; then a tail that may begin one waits.
  std::string text = display_.masked(heldForSecret_ + std::string(fragment));
  heldForSecret_.clear();
  if (secret_.size() < kShortestSecret) return text;
  for (std::size_t length = std::min(secret_.size() - 1, text.size()); length > 0; --length) {
    if (text.compare(text.size() - length, length, secret_, 0, length) == 0) {
      heldForSecret_ = text.substr(text.size() - length);
      text.resize(text.size() - length);
      break;
    }
  }
  return text;
}

std::string ReplyStream::safeReleased(std::string_view masked) {
  if (markdown_) return markdown_->add(masked);
  std::string text = heldForUtf8_ + std::string(masked);
  const std::size_t cut = unfinishedSequenceStart(text);
  heldForUtf8_ = text.substr(cut);
  text.resize(cut);
  return terminalSafe(text);
}

void ReplyStream::write(const std::string& text) {
  if (text.empty()) return;
  if (!wrote_ && beforeFirstText_) beforeFirstText_();
  wrote_ = true;
  endsLine_ = text.back() == '\n';
  out_ << text;
  out_.flush();
}

void ReplyStream::add(std::string_view fragment) {
  std::string masked = releasedMasked(fragment);
  if (!textSeen_) {
    // Blanks before the first text wait: a reply of blanks alone shows as a reply without text.
    heldBlank_ += masked;
    if (text::trimmed(heldBlank_).empty()) return;
    masked = std::move(heldBlank_);
    heldBlank_.clear();
    textSeen_ = true;
  }
  write(safeReleased(masked));
}

void ReplyStream::finish() {
  std::string rest = display_.masked(heldForSecret_);
  heldForSecret_.clear();
  if (!textSeen_) {
    rest = heldBlank_ + rest;
    heldBlank_.clear();
    if (text::trimmed(rest).empty()) {
      write("(" + std::string(kNoTextReply) + ")\n");
      return;
    }
  }
  if (markdown_) {
    std::string text = markdown_->add(rest);  // before finish(): the order matters
    write(text + markdown_->finish());
  } else {
    write(terminalSafe(heldForUtf8_ + rest) + "\n");
    heldForUtf8_.clear();
  }
}

void ReplyStream::abandon() {
  if (wrote_ && !endsLine_) write("\n");
}

}  // namespace qorchat
