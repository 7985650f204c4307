// Makes outside text safe for a terminal, masks secrets and words failures.
#include "display.h"

#include <algorithm>
#include <ostream>

#include "services.h"
#include "text.h"

namespace qorchat {
namespace {

// A failure text longer than this is cut for display; a service may answer with a whole page.
constexpr std::size_t kShownFailureBytes = 400;
constexpr std::string_view kMask = "****";
constexpr char32_t kReplacement = 0xFFFD;

// What a removed control character shows as: its picture from the Control Pictures block
// (U+2400 + the code, "␛" for ESC, "␡" for DEL), so the user sees something was there.
char32_t pictureOf(char32_t control) {
  if (control == 0x7F) return 0x2421;
  if (control < 0x20) return 0x2400 + control;
  return kReplacement;  // C1 controls have no picture
}

bool isBidiControl(char32_t c) {
  return (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

std::string terminalSafe(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t length = text::utf8SequenceLength(text.substr(at));
    if (length == 0) {
      text::appendUtf8(out, kReplacement);
      ++at;
      continue;
    }
    const std::string_view sequence = text.substr(at, length);
    at += length;
    const char32_t c = text::utf8CodePoint(sequence);
    if (c == '\n' || c == '\t') {
      out += static_cast<char>(c);
    } else if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) {
      text::appendUtf8(out, pictureOf(c));
    } else if (isBidiControl(c)) {
      text::appendUtf8(out, kReplacement);
    } else {
      out.append(sequence);
    }
  }
  return out;
}

Display::Display(std::ostream& out, std::ostream& err) : out_(out), err_(err) {}

void Display::addSecret(std::string secret) {
  // Short texts would mask ordinary words; no real key or password is that short.
  if (secret.size() < 4) return;
  secrets_.push_back(std::move(secret));
  std::sort(secrets_.begin(), secrets_.end(),
            [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

std::string Display::masked(std::string text) const {
  for (const std::string& secret : secrets_)
    text::replaceAll(text, secret, kMask);
  return text;
}

void Display::showOutside(std::string_view text) {
  out_ << terminalSafe(masked(std::string(text)));
}

// qorchat's own sentences often quote what came from outside (a path, a database's reason): the
// whole line is masked and made safe.
void Display::note(std::string_view message) {
  err_ << "qorchat: " << terminalSafe(masked(std::string(message))) << "\n";
}

void Display::warn(std::string_view message) {
  err_ << "qorchat: warning: " << terminalSafe(masked(std::string(message))) << "\n";
}

void Display::fail(std::string_view what, std::string_view detail) {
  out_.flush();
  err_ << "qorchat: " << what << ": " << failureLine(detail) << "\n";
}

std::string Display::failureLine(std::string_view failure) const {
  // Masked first: a cut through the middle of a key would leave its first part unmasked.
  const std::string whole = masked(std::string(failure));
  std::string line = whole.substr(0, std::min(whole.find_first_of("\r\n"), kShownFailureBytes));
  if (line.empty()) return "the service gave no reason";
  if (line.size() < whole.size()) {
    // Not inside a UTF-8 sequence.
    while (!line.empty() && (static_cast<unsigned char>(line.back()) & 0xC0) == 0x80)
      line.pop_back();
    if (!line.empty() && static_cast<unsigned char>(line.back()) >= 0xC0) line.pop_back();
    line += " ...";
  }
  return terminalSafe(line);
}

void reportExchangeFailure(Display& display, std::string_view what, const Status& status,
                           const Service& service, std::string_view host) {
  display.fail(what, status.message());
  if (status.kind() != Status::Kind::kUnreachable) return;
  std::ostream& err = display.err();
  err << "  Nothing answered at "
      << (host.empty() ? std::string("its public host") : terminalSafe(host))
      << ". To chat, either:\n";
  if (service.type == QORAssistantType::OLLAMA) {
    err << "  - start a local Ollama server and pull a model (ollama serve; ollama pull "
           "llama3.2), or pass --host URL of a running one, or\n"
        << "  - use a hosted service with its key, e.g. OPENAI_API_KEY=... qorchat --service "
           "openai (qorchat --help lists the key variables).\n";
  } else {
    err << "  - check the network, --host and --proxy.\n";
  }
  err << "  To see what qorchat would send, without any network: qorchat --print-request "
         "\"QUESTION\"\n";
}

}  // namespace qorchat
