#pragma once
// Whether the statement running on an SQLite connection should stop: its time limit has passed or
// the user pressed Ctrl-C. The run's progress handler looks between steps of SQLite's machine;
// the functions qorchat gives SQLite look inside their own long loops, where SQLite never does.

#include <atomic>
#include <chrono>

namespace qorchat::sqlite {

class StopSignal {
 public:
  // A new statement: the whole limit is its own, and an earlier Ctrl-C no longer counts. A limit
  // of zero means none.
  void start(std::chrono::milliseconds limit) {
    limited_ = limit.count() > 0;
    deadline_ = std::chrono::steady_clock::now() + limit;
    expired_ = false;
    interrupted_.store(false);
  }
  // Ctrl-C, from any thread.
  void interrupt() { interrupted_.store(true); }

  // True once the time limit has passed; remembered, so that the failure can say why.
  bool timeUp() {
    if (!expired_ && limited_ && std::chrono::steady_clock::now() >= deadline_) expired_ = true;
    return expired_;
  }
  // True once either has come.
  bool reached() { return interrupted_.load() || timeUp(); }

  bool expired() const { return expired_; }
  bool interrupted() const { return interrupted_.load(); }

 private:
  std::chrono::steady_clock::time_point deadline_{};
  bool limited_ = false;
  bool expired_ = false;
  std::atomic<bool> interrupted_{false};
};

// Counts the work of one long loop and asks the signal now and then: often enough to stop within
// milliseconds, rarely enough that the clock costs nothing measurable.
class WorkMeter {
 public:
  explicit WorkMeter(StopSignal& signal) : signal_(signal) {}
  // True when the loop must give up.
  bool add(unsigned long long units) {
    done_ += units;
    if (done_ < nextLook_) return false;
    nextLook_ = done_ + kUnitsBetweenLooks;
    return signal_.reached();
  }

 private:
  static constexpr unsigned long long kUnitsBetweenLooks = 1ULL << 16;

  StopSignal& signal_;
  unsigned long long done_ = 0;
  unsigned long long nextLook_ = kUnitsBetweenLooks;
};

}  // namespace qorchat::sqlite
