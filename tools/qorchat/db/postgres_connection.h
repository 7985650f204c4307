#pragma once
// What qorchat reads in a PostgreSQL connection text before libpq does: whether --db names a
// server at all, and where the text holds passwords, so that no name or message ever shows one.

#include <string>
#include <string_view>
#include <vector>

namespace qorchat::postgres {

// True for what libpq reads as connection parameters rather than a file: a postgresql:// or
// postgres:// URI, or keyword=value text that names no existing file.
bool accepts(const std::string& target);

// The target as given, every password in it (password, sslpassword) replaced by ****.
std::string masked(std::string_view target);

// Takes the passwords of one target out of libpq's messages, which repeat a URI they cannot read
// or the part they stumbled on.
class MessageCleaner {
 public:
  explicit MessageCleaner(std::string_view target);

  // The message on one line, each password of the target, as written or as libpq reads it,
  // replaced by ****.
  std::string clean(std::string_view message) const;

 private:
  std::vector<std::string> secrets_;  // longest first
};

}  // namespace qorchat::postgres
