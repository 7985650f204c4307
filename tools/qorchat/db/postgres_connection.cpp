// Finds the passwords of a PostgreSQL URI or keyword=value text as libpq would read them, to mask
// them in names and messages, and tells a server's connection text from an SQLite file.
#include "db/postgres_connection.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "text.h"

namespace qorchat::postgres {
namespace {

constexpr std::string_view kMask = "****";
constexpr std::size_t npos = std::string_view::npos;

bool isUri(std::string_view target) {
  return text::startsWith(target, "postgresql://") || text::startsWith(target, "postgres://");
}

bool isSecretKey(std::string_view key) {
  return key == "password" || key == "sslpassword";
}

// Where a password is written in the target, and the value libpq reads from it.
struct Secret {
  std::size_t begin;
  std::size_t end;
  std::string value;
};

// scheme://[user[:password]@]hosts[/dbname][?key=value&...]. libpq ends the user part at the
// first @ before any /, so it reads a password holding an unencoded @ or / otherwise; to be masked
// whatever it holds, the password here runs from the user's colon to the last @ of the text
// (a query value with an @ is then masked with it, which shows less, never more).
std::vector<Secret> uriSecrets(std::string_view uri) {
  std::vector<Secret> secrets;
  const std::size_t start = uri.find("://") + 3;
  const std::size_t colon = uri.find(':', start);
  const std::size_t firstAt = uri.find('@', start);
  const std::size_t firstSlash = uri.find('/', start);
  const std::size_t firstQuery = uri.find('?', start);
  std::size_t hosts = start;
  const bool userHasPassword = colon < firstAt && colon < firstSlash && colon < firstQuery &&
                               firstAt != npos &&
                               uri.substr(colon, firstAt - colon).find('?') == npos;
  if (userHasPassword) {
    const std::size_t lastAt = uri.rfind('@');
    secrets.push_back(
        {colon + 1, lastAt, text::percentDecoded(uri.substr(colon + 1, lastAt - colon - 1))});
    hosts = lastAt + 1;
  } else if (firstAt != npos && firstAt < firstSlash) {
    hosts = firstAt + 1;
  }
  const std::size_t query = uri.find('?', hosts);
  if (query == npos) return secrets;
  for (std::size_t item = query + 1; item <= uri.size();) {
    std::size_t end = uri.find('&', item);
    if (end == npos) end = uri.size();
    const std::size_t equals = uri.find('=', item);
    if (equals < end && isSecretKey(text::percentDecoded(uri.substr(item, equals - item)))) {
      secrets.push_back(
          {equals + 1, end, text::percentDecoded(uri.substr(equals + 1, end - equals - 1))});
    }
    item = end + 1;
  }
  return secrets;
}

// keyword = value pairs as libpq reads them: a value is quoted with ' or runs to white space, a
// backslash escaping the next character in both. Read leniently, so that a password written after
// a mistake is still found.
std::vector<Secret> conninfoSecrets(std::string_view conninfo) {
  std::vector<Secret> secrets;
  std::size_t i = 0;
  const auto skipSpace = [&] {
    while (i < conninfo.size() && text::isSpace(conninfo[i]))
      ++i;
  };
  for (;;) {
    skipSpace();
    if (i >= conninfo.size()) break;
    const std::size_t keyStart = i;
    while (i < conninfo.size() && conninfo[i] != '=' && !text::isSpace(conninfo[i]))
      ++i;
    const std::string_view key = conninfo.substr(keyStart, i - keyStart);
    skipSpace();
    if (i >= conninfo.size() || conninfo[i] != '=') continue;
    ++i;
    skipSpace();
    const std::size_t valueStart = i;
    std::string value;
    const bool quoted = i < conninfo.size() && conninfo[i] == '\'';
    if (quoted) ++i;
    while (i < conninfo.size() && (quoted ? conninfo[i] != '\'' : !text::isSpace(conninfo[i]))) {
      if (conninfo[i] == '\\' && i + 1 < conninfo.size()) ++i;
      value += conninfo[i++];
    }
    if (quoted && i < conninfo.size()) ++i;
    if (isSecretKey(key)) secrets.push_back({valueStart, i, std::move(value)});
  }
  return secrets;
}

std::vector<Secret> secretsOf(std::string_view target) {
  return isUri(target) ? uriSecrets(target) : conninfoSecrets(target);
}

}  // namespace

bool accepts(const std::string& target) {
  if (isUri(target)) return true;
  if (text::startsWith(target, "file:") || target.find('=') == std::string::npos) return false;
  std::error_code error;
  return !std::filesystem::exists(target, error);
}

std::string masked(std::string_view target) {
  std::string shown(target);
  const std::vector<Secret> secrets = secretsOf(target);
  // From the end, so that the earlier places stay where they were.
  for (auto secret = secrets.rbegin(); secret != secrets.rend(); ++secret)
    shown.replace(secret->begin, secret->end - secret->begin, kMask);
  return shown;
}

MessageCleaner::MessageCleaner(std::string_view target) {
  for (const Secret& secret : secretsOf(target)) {
    secrets_.emplace_back(target.substr(secret.begin, secret.end - secret.begin));
    secrets_.push_back(secret.value);
  }
  std::erase_if(secrets_, [](const std::string& secret) { return secret.empty(); });
  // The longest first, so that a password inside another leaves no part of the other behind.
  std::sort(secrets_.begin(), secrets_.end(),
            [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

std::string MessageCleaner::clean(std::string_view message) const {
  std::string cleaned(message);
  for (const std::string& secret : secrets_)
    text::replaceAll(cleaned, secret, kMask);
  return text::joinedLines(cleaned);
}

}  // namespace qorchat::postgres
