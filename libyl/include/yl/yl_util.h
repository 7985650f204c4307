#pragma once
// Small helpers: trimming, URL joining and scope guards.

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "yl/yl_export.h"

// The text without leading and trailing ASCII white space (blank, \t, \n, \v, \f, \r).
YL_EXPORT std::string ylTrimAsString(std::string_view text);

// Joins a host (first) and path segments with exactly one slash at each join: slashes at the
// end of a part and at the start of the next are folded. Empty parts are skipped. A host with a
// path of its own keeps it ("https://h/base" + "v1" gives "https://h/base/v1"). A trailing slash
// of the last part is kept.
YL_EXPORT std::string ylConcatURL(const std::vector<std::string>& parts);

// Runs a function once when the guard goes out of scope, on every way out.
class YL_EXPORT YLDefer {
 public:
  explicit YLDefer(std::function<void()> onExit) : onExit_(std::move(onExit)) {}
  YLDefer(const YLDefer&) = delete;
  YLDefer& operator=(const YLDefer&) = delete;
  ~YLDefer() {
    if (onExit_) onExit_();
  }

 private:
  std::function<void()> onExit_;
};
