#pragma once
// Helpers shared by the assistant tests.

#include <string>
#include <utility>
#include <vector>

#include "yl/yl.h"

namespace qortest {

// Records the debug assertions raised while it lives.
class AssertionRecorder {
 public:
  using Report = std::pair<std::string, std::string>;  // condition, source

  AssertionRecorder() : previous_(ylSetAssertionHandler(&record)) { reports().clear(); }
  ~AssertionRecorder() { ylSetAssertionHandler(previous_); }
  AssertionRecorder(const AssertionRecorder&) = delete;
  AssertionRecorder& operator=(const AssertionRecorder&) = delete;

  // The reports so far, and forgets them.
  std::vector<Report> take() { return std::exchange(reports(), {}); }

 private:
  static std::vector<Report>& reports() {
    static std::vector<Report> all;
    return all;
  }
  static void record(const char* condition, const char* source) {
    reports().emplace_back(condition, source);
  }
  YLAssertionHandler previous_;
};

#ifdef YL_ENABLE_ASSERTIONS
inline constexpr bool kAssertionsReported = true;
#else
inline constexpr bool kAssertionsReported = false;
#endif

}  // namespace qortest
