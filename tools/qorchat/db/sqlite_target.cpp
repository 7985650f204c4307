// Looks at the file --db names before SQLite does: what kind of file it is, and whether its header
// says WAL mode; chooses the name SQLite opens it by.
#include "db/sqlite_target.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace qorchat::sqlite {
namespace {

std::string inQuotes(const std::string& path) {
  return "'" + path + "'";
}

std::string cannotOpen(const std::string& path, const std::string& why) {
  return "cannot open database " + inQuotes(path) + ": " + why;
}

const char* kindOf(mode_t mode) {
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  return "something other than a file";
}

// Whether the file starts with the header of a database in WAL mode: bytes 18 and 19, the
// versions to write and to read it with, are 2.
bool inWalMode(const std::string& path) {
  static constexpr char kMagic[] = "SQLite format 3";  // and its NUL
  // O_NONBLOCK: should the file have become a FIFO since it was looked at, the open still returns.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  std::array<unsigned char, 20> header{};
  const ssize_t got = ::read(fd, header.data(), header.size());
  ::close(fd);
  return got == static_cast<ssize_t>(header.size()) &&
         std::memcmp(header.data(), kMagic, sizeof kMagic) == 0 && header[18] == 2 &&
         header[19] == 2;
}

// A file: URI for an absolute path, every byte but the plainest percent-encoded.
std::string fileUri(const std::string& path) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string uri = "file://";
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    if ((std::isalnum(byte) != 0) || std::strchr("/-._~", c) != nullptr) {
      uri += c;
    } else {
      uri += '%';
      uri += kDigits[byte >> 4];
      uri += kDigits[byte & 0x0F];
    }
  }
  return uri;
}

// The file's size and time; nothing when a -wal file is beside it, or it cannot be read.
std::optional<FileMark> markOf(const std::string& path) {
  struct stat info {};
  struct stat wal {};
  if (stat(path.c_str(), &info) != 0 || stat((path + "-wal").c_str(), &wal) == 0)
    return std::nullopt;
  return FileMark{info.st_size, info.st_mtim.tv_sec * 1'000'000'000LL + info.st_mtim.tv_nsec};
}

std::int64_t sizeOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? info.st_size : 0;
}

}  // namespace

Result<OpenChoice> chooseOpen(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    const int error = errno;
    return Status::ioError(
        cannotOpen(path, error == ENOENT ? "no such file" : std::strerror(error)));
  }
  if (S_ISDIR(info.st_mode)) return Status::ioError(cannotOpen(path, "it is a folder"));
  if (!S_ISREG(info.st_mode)) {
    return Status::ioError(
        cannotOpen(path, std::string("it is ") + kindOf(info.st_mode) + ", not a database file"));
  }
  // SQLite keeps the -wal file beside the file a link leads to.
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) return OpenChoice{path, std::nullopt, path};
  OpenChoice choice{path, markOf(resolved), resolved};
  if (choice.marked && inWalMode(choice.realPath)) {
    choice.name = fileUri(choice.realPath) + "?immutable=1";
  } else {
    choice.marked.reset();
  }
  return choice;
}

bool stillAsMarked(const std::string& realPath, const FileMark& mark) {
  return markOf(realPath) == mark;
}

std::int64_t storedValueBound(sqlite3* db) {
  const char* file = sqlite3_db_filename(db, "main");
  if (file == nullptr || *file == 0) return 0;
  const std::string path = file;
  return sizeOf(path) + sizeOf(path + "-wal");
}

}  // namespace qorchat::sqlite
