#pragma once
// A streamed reply as it arrives: the framing of server-sent events and of JSON lines, cut into
// events whatever the pieces, and what the service's reader of events makes of them.

#include <optional>
#include <string>
#include <string_view>

#include "qor_service_exchange.h"

namespace QORExchange {

class StreamReader {
 public:
  // The chat's rules and the sink outlive the reader; the tail ends the library's own failures.
  StreamReader(const ChatRules& rules, const FragmentSink& fragments, std::string failureTail);

  // The next piece of the body, cut anywhere.
  void take(std::string_view piece);
  // After the whole body: the reply's text and details, or the failure that ended the stream.
  // A stream that never reached its end is an invalid response.
  std::pair<IQORMessage*, std::string> conclude();

  // For the service's reader of events. Reply text, handed on at once when not empty.
  void addText(std::string_view fragment);
  // The end or the usage given by a part of an event, read with the chat's details rules; a
  // field the part leaves out keeps what earlier events said.
  void readDetails(const YLJsonValue& part);
  // The stream reached its end; for a service without an end event, a reply worth concluding.
  void finish() { finished_ = true; }
  bool finished() const { return finished_; }
  // The event is the service's error: its data is read like an error body.
  void failWithEvent();
  // The event has not the shape of the service's stream.
  void refuseEvent();

 private:
  void takeLine(std::string_view line);
  void dispatch();

  const ChatRules& rules_;
  const FragmentSink& fragments_;
  std::string failureTail_;
  std::string pending_;        // the bytes of a line not yet ended
  bool skipLineFeed_ = false;  // the last piece ended with CR, which a LF may complete
  std::string eventName_;
  std::string eventData_;
  bool hasData_ = false;
  std::string text_;
  QORMessage details_;
  bool finished_ = false;
  std::optional<std::string> failure_;
};

}  // namespace QORExchange
