#pragma once
// What the fuzz targets share: a stop that libFuzzer records as a finding, and the heap's peak
// while a piece of code runs, taken from the sanitizer's allocator.

#include <sanitizer/allocator_interface.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace qorfuzz {

// A broken property: printed, then an abort, which libFuzzer reports with the input.
[[noreturn]] inline void fail(const char* what, std::string_view detail = {}) {
  std::fprintf(stderr, "\nFUZZ PROPERTY BROKEN: %s\n", what);
  if (!detail.empty()) {
    std::fprintf(stderr, "  %.*s\n", static_cast<int>(std::min<std::size_t>(detail.size(), 400)),
                 detail.data());
  }
  std::abort();
}

inline void check(bool condition, const char* what, std::string_view detail = {}) {
  if (!condition) fail(what, detail);
}

// The bytes allocated on the heap and not yet freed, counted only while a HeapPeak lives, and
// their highest value. Allocations of other threads count too; the targets run one thread.
class HeapPeak {
 public:
  HeapPeak() {
    install();
    current() = 0;
    peak() = 0;
    active() = true;
  }
  ~HeapPeak() { active() = false; }
  HeapPeak(const HeapPeak&) = delete;
  HeapPeak& operator=(const HeapPeak&) = delete;

  // The most bytes in use at once since construction, counting from zero then.
  std::size_t bytes() const { return peak(); }

 private:
  static std::atomic<bool>& active() {
    static std::atomic<bool> flag{false};
    return flag;
  }
  static std::atomic<std::ptrdiff_t>& current() {
    static std::atomic<std::ptrdiff_t> value{0};
    return value;
  }
  static std::atomic<std::ptrdiff_t>& peak() {
    static std::atomic<std::ptrdiff_t> value{0};
    return value;
  }
  static void onMalloc(const volatile void*, std::size_t size) {
    if (!active()) return;
    const std::ptrdiff_t now = current() += static_cast<std::ptrdiff_t>(size);
    if (now > peak()) peak() = now;
  }
  static void onFree(const volatile void* block) {
    // Blocks allocated before the measure began come back too; only the growth matters.
    if (!active() || block == nullptr) return;
    current() -=
        static_cast<std::ptrdiff_t>(__sanitizer_get_allocated_size(const_cast<const void*>(block)));
  }
  static void install() {
    static const bool installed =
        __sanitizer_install_malloc_and_free_hooks(&onMalloc, &onFree) != 0;
    (void)installed;
  }
};

}  // namespace qorfuzz
