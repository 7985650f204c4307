#include "yl/yl_util.h"

namespace {

bool isAsciiSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

std::string ylTrimAsString(std::string_view text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && isAsciiSpace(text[begin]))
    ++begin;
  while (end > begin && isAsciiSpace(text[end - 1]))
    --end;
  return std::string(text.substr(begin, end - begin));
}

std::string ylConcatURL(const std::vector<std::string>& parts) {
  std::string url;
  for (const std::string& part : parts) {
    std::string_view piece(part);
    if (piece.empty()) continue;
    if (url.empty()) {
      url.assign(piece);
      continue;
    }
    while (!url.empty() && url.back() == '/')
      url.pop_back();
    while (!piece.empty() && piece.front() == '/')
      piece.remove_prefix(1);
    url += '/';
    url += piece;
  }
  return url;
}
