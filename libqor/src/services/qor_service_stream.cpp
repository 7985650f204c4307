// A streamed reply as it arrives: lines and events from pieces cut anywhere, fragments handed on,
// details gathered, and the streamed chat's exchange.
#include "qor_service_stream.h"

#include <memory>
#include <utility>

namespace QORExchange {

StreamReader::StreamReader(const ChatRules& rules, const FragmentSink& fragments,
                           std::string failureTail)
    : rules_(rules), fragments_(fragments), failureTail_(std::move(failureTail)) {}

void StreamReader::take(std::string_view piece) {
  // A line ends at CR, LF or CRLF; a CRLF may be cut between two pieces.
  if (skipLineFeed_ && !piece.empty() && piece.front() == '\n') piece.remove_prefix(1);
  skipLineFeed_ = false;
  for (std::size_t end = piece.find_first_of("\r\n"); end != std::string_view::npos;
       end = piece.find_first_of("\r\n")) {
    if (pending_.empty()) {
      takeLine(piece.substr(0, end));
    } else {
      pending_.append(piece.substr(0, end));
      takeLine(pending_);
      pending_.clear();
    }
    const bool carriageReturn = piece[end] == '\r';
    piece.remove_prefix(end + 1);
    if (carriageReturn) {
      if (piece.empty()) {
        skipLineFeed_ = true;
      } else if (piece.front() == '\n') {
        piece.remove_prefix(1);
      }
    }
  }
  pending_.append(piece);
}

void StreamReader::takeLine(std::string_view line) {
  if (rules_.stream.framing == StreamRules::Framing::Lines) {
    if (line.empty()) return;
    eventData_.assign(line);
    dispatch();
    return;
  }
  // A blank line ends an event; a line starting with a colon is a comment.
  if (line.empty()) {
    if (hasData_) dispatch();
    eventName_.clear();
    eventData_.clear();
    hasData_ = false;
    return;
  }
  const std::size_t colon = line.find(':');
  const std::string_view field = line.substr(0, colon);
  std::string_view value =
      colon == std::string_view::npos ? std::string_view() : line.substr(colon + 1);
  if (value.starts_with(' ')) value.remove_prefix(1);
  if (field == "event") {
    eventName_.assign(value);
  } else if (field == "data") {
    if (hasData_) eventData_ += '\n';
    eventData_.append(value);
    hasData_ = true;
  }
}

void StreamReader::dispatch() {
  // The first failure ends the reading: what follows it is not the reply.
  if (failure_) return;
  if (rules_.stream.doneMarker != nullptr && eventData_ == rules_.stream.doneMarker) {
    finish();
    return;
  }
  const YLJson data(eventData_);
  if (!data.getIsValidJson()) {
    failure_ = failure(kInvalidResponse, failureTail_);
    return;
  }
  rules_.stream.readEvent(eventName_, data, *this);
}

void StreamReader::addText(std::string_view fragment) {
  if (fragment.empty() || failure_) return;
  text_.append(fragment);
  if (fragments_) fragments_(fragment);
}

void StreamReader::readDetails(const YLJsonValue& part) {
  QORMessage read;
  QORExchange::readDetails(part, rules_.details, read);
  if (!read.replyEndText.empty()) {
    details_.replyEnd = read.replyEnd;
    details_.replyEndText = std::move(read.replyEndText);
  }
  if (read.usage.inputTokens >= 0) details_.usage.inputTokens = read.usage.inputTokens;
  if (read.usage.outputTokens >= 0) details_.usage.outputTokens = read.usage.outputTokens;
}

void StreamReader::failWithEvent() {
  YLRestResourceResponse response;
  response.setBody(eventData_);
  std::string text = rules_.errorReader != nullptr ? rules_.errorReader(&response) : std::string();
  failure_ = text.empty() ? eventData_ : std::move(text);
}

void StreamReader::refuseEvent() {
  if (!failure_) failure_ = failure(kUnsupportedDataFormat, failureTail_);
}

std::pair<IQORMessage*, std::string> StreamReader::conclude() {
  // Lines may end the body without a last line feed.
  if (rules_.stream.framing == StreamRules::Framing::Lines && !pending_.empty()) {
    takeLine(std::string(pending_));
    pending_.clear();
  }
  if (failure_) return {nullptr, *failure_};
  if (!finished_) return {nullptr, failure(kInvalidResponse, failureTail_)};
  QORMessage* message = QORMessage::makeTextReply(text_);
  message->replyEnd = details_.replyEnd;
  message->replyEndText = details_.replyEndText;
  message->usage = details_.usage;
  return {message, std::string()};
}

std::pair<IQORMessage*, std::string> exchangeStream(QORAssistant& assistant, const ChatRules& rules,
                                                    const YLJson& body, const std::string& text,
                                                    const FragmentSink& fragments) {
  StreamReader reader(rules, fragments, failureTail(Method::Post, rules.pathSegments));
  const HTTP::Result result = HTTP::Post(
      assistant.session.get(), urlFor(assistant, rules.pathSegments), &body, rules.queryParams,
      YLParamList(), [&reader](std::string_view piece) { reader.take(piece); });
  if (!result.second.empty()) return {nullptr, failedExchangeText(rules.errorReader, result)};

  auto [message, failed] = reader.conclude();
  if (message == nullptr) return {nullptr, std::move(failed)};
  const std::string_view reply = message->obtainSections()[0]->obtainText();
  assistant.memory->addHistoryEntry(kChatRoleUser, text);
  assistant.memory->addHistoryEntry(kChatRoleAssistant, std::string(reply));
  return {message, std::string()};
}

}  // namespace QORExchange
