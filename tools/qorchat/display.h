#pragma once
// What qorchat writes and how. Every text that comes from outside (a model's reply, a service's or
// the database's error, names, values, file names) goes through terminalSafe before it reaches a
// terminal or standard output; secrets are masked before anything is cut; failures are one line,
// with hints when nothing answered.

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "status.h"

namespace qorchat {

struct Service;

// The text made safe to write to a terminal: newline and tab stay; every other C0 control, DEL
// and the C1 controls are removed and shown visibly (ESC as "␛", the others as their control
// picture or "�"); bidirectional overrides and isolates show as "�"; invalid UTF-8 as "�".
std::string terminalSafe(std::string_view text);

class Display {
 public:
  Display(std::ostream& out, std::ostream& err);

  // A text that must never be shown (a key, a password): replaced by "****" wherever it appears,
  // before anything is cut.
  void addSecret(std::string secret);
  std::string masked(std::string text) const;

  // Standard output, for qorchat's own texts and texts already made safe.
  std::ostream& out() { return out_; }
  std::ostream& err() { return err_; }
  // A text from outside on standard output: masked and made safe.
  void showOutside(std::string_view text);
  // "qorchat: MESSAGE" on standard error, masked and made safe: the message may quote outside
  // text.
  void note(std::string_view message);
  void warn(std::string_view message);
  // "qorchat: WHAT: DETAIL", the detail from outside: masked, its first line cut to a length a
  // terminal shows, made safe.
  void fail(std::string_view what, std::string_view detail);

  // The first line of a failure from outside, masked, cut and made safe.
  std::string failureLine(std::string_view failure) const;

 private:
  std::ostream& out_;
  std::ostream& err_;
  std::vector<std::string> secrets_;  // longest first
};

// A failed exchange with the service: the line, and when nothing answered or it timed out, how to
// reach a service or see the request without one.
void reportExchangeFailure(Display& display, std::string_view what, const Status& status,
                           const Service& service, std::string_view host);

}  // namespace qorchat
