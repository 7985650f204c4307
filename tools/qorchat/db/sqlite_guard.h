#pragma once
// What runReadOnly puts around the statements it runs on an SQLite connection, all undone when
// the run ends: an authorizer that lets through only what reads, bounds on the sizes SQLite works
// with, and the statement's time limit.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "db/sqlite_stop.h"
#include "status.h"

struct sqlite3;

namespace qorchat::sqlite {

// The longest value a statement may compute, whatever the file: long enough for any aggregate a
// person reads, short enough that one SQLite function over it takes a fraction of a second.
inline constexpr std::int64_t kComputedValueBytes = 16LL << 20;

class RunGuard {
 public:
  // storedValueBytes: the longest value the database can hold (see storedValueBound), so that
  // every value stored stays readable under the length limit.
  RunGuard(sqlite3* db, StopSignal& signal, std::chrono::milliseconds limit,
           std::int64_t storedValueBytes);
  ~RunGuard();
  RunGuard(const RunGuard&) = delete;
  RunGuard& operator=(const RunGuard&) = delete;

  // The next statement's text, for naming what a refusal refused. Each statement has the whole
  // time limit to itself.
  void startStatement(std::string_view text);
  // Whether the statement ended because the time limit or Ctrl-C stopped it.
  bool stopped() const;
  // Why the statement failed: what the authorizer refused, what the limit did, or SQLite's text.
  Status failure() const;

 private:
  static int authorize(void* self, int action, const char* first, const char* second,
                       const char* database, const char* trigger);
  static int checkClock(void* self);
  int refuse(const std::string& what, const char* why);

  sqlite3* db_;
  StopSignal& signal_;
  std::chrono::milliseconds limit_;
  bool ownsTransaction_;
  std::int64_t lengthLimit_;
  std::int64_t heapBudget_;
  int previousLimits_[3] = {};
  std::int64_t previousHardHeap_ = 0;
  std::int64_t previousSoftHeap_ = 0;
  std::string_view statement_;
  std::string refusal_;
};

}  // namespace qorchat::sqlite
