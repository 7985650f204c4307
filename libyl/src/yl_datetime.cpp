#include "yl/yl_datetime.h"

#include <cstddef>
#include <string_view>

namespace {

bool isLeapYear(std::int64_t year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

std::int32_t daysInMonth(std::int32_t year, std::int32_t month) {
  static constexpr std::int32_t kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeapYear(year) ? 29 : kDays[month - 1];
}

// Reads the fields of a text by its format. Own code rather than strptime: that one depends on
// the C locale and is not available everywhere.
class Reader {
 public:
  Reader(std::string_view text, YLDateTime& out) : text_(text), out_(out) {}

  bool readFormat(std::string_view format) {
    for (std::size_t i = 0; i < format.size(); ++i) {
      if (format[i] != '%') {
        if (!readLiteral(format[i])) return false;
        continue;
      }
      if (++i == format.size()) return false;  // a lone % ends the format
      if (!readConversion(format[i])) return false;
    }
    return true;
  }

  bool atEnd() const { return position_ == text_.size(); }

 private:
  bool readConversion(char conversion) {
    switch (conversion) {
      case 'Y':
        // Exactly four digits: a year of fewer digits would make "%Y%m%d" ambiguous.
        return readNumber(4, 4, out_.year);
      case 'm':
        return readNumber(1, 2, out_.month);
      case 'd':
        return readNumber(1, 2, out_.day);
      case 'H':
        return readNumber(1, 2, out_.hour);
      case 'M':
        return readNumber(1, 2, out_.minute);
      case 'S':
        return readNumber(1, 2, out_.second);
      case 'T':
        return readFormat("%H:%M:%S");
      case 'F':
        return readFormat("%Y-%m-%d");
      case '%':
        return readLiteral('%');
      default:
        return false;
    }
  }

  bool readLiteral(char c) {
    if (position_ == text_.size() || text_[position_] != c) return false;
    ++position_;
    return true;
  }

  // Reads between fewest and most decimal digits, as many as there are.
  bool readNumber(std::size_t fewest, std::size_t most, std::int32_t& value) {
    std::size_t digits = 0;
    std::int32_t number = 0;
    while (digits < most && position_ < text_.size() && text_[position_] >= '0' &&
           text_[position_] <= '9') {
      number = number * 10 + (text_[position_] - '0');
      ++position_;
      ++digits;
    }
    if (digits < fewest) return false;
    value = number;
    return true;
  }

  std::string_view text_;
  std::size_t position_ = 0;
  YLDateTime& out_;
};

bool fieldsInRange(const YLDateTime& d) {
  // A second of 60 is a leap second, which UTC time stamps in text may carry.
  return d.month >= 1 && d.month <= 12 && d.day >= 1 && d.day <= daysInMonth(d.year, d.month) &&
         d.hour >= 0 && d.hour <= 23 && d.minute >= 0 && d.minute <= 59 && d.second >= 0 &&
         d.second <= 60;
}

// Days from 1970-01-01 to the date in the proleptic Gregorian calendar (Howard Hinnant's
// days_from_civil).
std::int64_t daysFromCivil(std::int64_t year, std::int64_t month, std::int64_t day) {
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

}  // namespace

YLDateTime* YLDateTime::dateTimeFromString(const std::string& text, const std::string& format) {
  YLDateTime parsed;
  Reader reader(text, parsed);
  const bool fits = reader.readFormat(format) && reader.atEnd();
  auto* result = new YLDateTime();
  if (fits && fieldsInRange(parsed)) {
    *result = parsed;
    result->valid = true;
  }
  return result;
}

std::int64_t YLDateTimeConverter::timestampFromDateTime(const YLDateTime* dateTime,
                                                        std::int32_t /*mode*/) const {
  if (dateTime == nullptr || !dateTime->isValid()) return 0;
  const std::int64_t days = daysFromCivil(dateTime->year, dateTime->month, dateTime->day);
  return days * 86400 + std::int64_t{dateTime->hour} * 3600 + std::int64_t{dateTime->minute} * 60 +
         dateTime->second;
}
