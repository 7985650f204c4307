#pragma once
// Calendar dates read from text, and their conversion to a time stamp.

#include <cstdint>
#include <string>

#include "yl/yl_export.h"

// A broken-down UTC date and time.
class YL_EXPORT YLDateTime {
 public:
  virtual ~YLDateTime() = default;

  // Reads text by a strftime-style format with the conversions %Y %m %d %H %M %S, %% and literal
  // characters (%T stands for %H:%M:%S, %F for %Y-%m-%d). Returns a new record that the caller
  // owns; never null. A text that does not fit the format, or a date that does not exist, gives a
  // record whose isValid() is false.
  static YLDateTime* dateTimeFromString(const std::string& text, const std::string& format);

  bool isValid() const { return valid; }

  bool valid = false;
  std::int32_t year = 1970;
  std::int32_t month = 1;  // 1 to 12
  std::int32_t day = 1;    // 1 to 31
  std::int32_t hour = 0;
  std::int32_t minute = 0;
  std::int32_t second = 0;
};

class YL_EXPORT YLDateTimeConverter {
 public:
  virtual ~YLDateTimeConverter() = default;
  // Seconds since 1970-01-01T00:00:00 UTC, growing with the date. The mode is reserved: every
  // value means UTC. An invalid or null record gives 0, so that it sorts before every real date
  // after the epoch.
  virtual std::int64_t timestampFromDateTime(const YLDateTime* dateTime, std::int32_t mode) const;
};
