// The user's notes about a database: where they are kept, read within their bound, given to the
// model, and edited in the user's editor.
#include "notes.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <system_error>

#include "external_editor.h"
#include "text.h"

namespace qorchat {
namespace {

namespace fs = std::filesystem;

// The most of a notes file read: enough to find kNotesBytes of notes among long comments.
constexpr std::size_t kReadBytes = 8 * kNotesBytes;
// The most of the identity the file name keeps, from its end, where paths differ.
constexpr std::size_t kNameBytes = 48;

// FNV-1a, 64 bits: the same for the same identity on every machine and in every run.
std::string hashText(const std::string& identity) {
  std::uint64_t hash = 14695981039346656037ULL;
  for (const char c : identity) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ULL;
  }
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
  return digits;
}

// The identity as a file name: letters, digits, dots and dashes kept, every run of anything else
// one underscore, none at the ends.
std::string readableName(const std::string& identity) {
  std::string name;
  for (const char c : identity) {
    const bool kept = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '-';
    if (kept) {
      name += c;
    } else if (!name.empty() && name.back() != '_') {
      name += '_';
    }
  }
  while (!name.empty() && name.back() == '_')
    name.pop_back();
  if (name.size() > kNameBytes) name.erase(0, name.size() - kNameBytes);
  while (!name.empty() && (name.front() == '_' || name.front() == '.'))
    name.erase(0, 1);
  return name;
}

// The text without what stands between <!-- and -->; an unclosed comment runs to the end.
std::string withoutComments(std::string text) {
  for (std::size_t open = text.find("<!--"); open != std::string::npos;
       open = text.find("<!--", open)) {
    const std::size_t close = text.find("-->", open + 4);
    text.erase(open, close == std::string::npos ? std::string::npos : close + 3 - open);
  }
  return text;
}

std::string cutToBound(std::string text) {
  if (text.size() <= kNotesBytes) return text;
  std::size_t cut = kNotesBytes;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
    --cut;
  text.resize(cut);
  return text;
}

std::string quoted(const std::string& path) {
  return "'" + path + "'";
}

// At most kReadBytes of the file; nothing when it is missing; the failure says why.
Result<std::optional<std::string>> readStart(const std::string& path, bool* longer) {
  std::error_code error;
  if (fs::is_directory(path, error))
    return Status::ioError("cannot read the notes file " + quoted(path) + ": it is a folder");
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    if (errno == ENOENT) return std::optional<std::string>();
    return Status::ioError("cannot read the notes file " + quoted(path) + ": " +
                           std::strerror(errno));
  }
  std::string content(kReadBytes + 1, '\0');
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  content.resize(static_cast<std::size_t>(file.gcount()));
  if (file.bad()) return Status::ioError("cannot read the notes file " + quoted(path));
  *longer = content.size() > kReadBytes;
  if (*longer) content.resize(kReadBytes);
  return std::optional<std::string>(std::move(content));
}

std::string templateText(const std::string& databaseName) {
  std::string name = text::oneLine(text::validUtf8(databaseName));
  text::replaceAll(name, "--", "-");
  return "<!-- Notes about " + name +
         " for the model, sent with every question: which table holds the truth, what business "
         "terms mean, the units of amounts. What stands inside these marks is not sent. -->\n\n";
}

// Writes the text beside the file, then puts it in the file's place: a failed write leaves the
// notes as they were.
Status writeNotes(const std::string& path, const std::string& content) {
  const fs::path folder = fs::path(path).parent_path();
  std::error_code error;
  if (!folder.empty() && !fs::exists(folder, error)) {
    fs::create_directories(folder, error);
    if (!error) fs::permissions(folder, fs::perms::owner_all, error);
    if (error) {
      return Status::ioError("cannot create the notes folder " + quoted(folder.string()) + ": " +
                             error.message());
    }
  }
  const std::string written = path + ".new";
  {
    std::ofstream out(written, std::ios::binary | std::ios::trunc);
    fs::permissions(written, fs::perms::owner_read | fs::perms::owner_write, error);
    out << content;
    if (!out.flush()) {
      fs::remove(written, error);
      return Status::ioError("cannot write the notes file " + quoted(path));
    }
  }
  fs::rename(written, path, error);
  if (error) {
    return Status::ioError("cannot write the notes file " + quoted(path) + ": " + error.message());
  }
  return Status::ok();
}

}  // namespace

std::string notesPath(const std::string& stateFolder, const std::string& databaseIdentity) {
  const std::string name = readableName(databaseIdentity);
  return (fs::path(stateFolder) / "notes" /
          ((name.empty() ? "" : name + "-") + hashText(databaseIdentity) + ".md"))
      .string();
}

Result<Notes> readNotes(const std::string& path, bool mustExist) {
  bool longer = false;
  Result<std::optional<std::string>> content = readStart(path, &longer);
  if (!content) return content.status();
  if (!*content) {
    if (!mustExist) return Notes{};
    return Status::ioError("cannot read the notes file " + quoted(path) + ": " +
                           std::strerror(ENOENT));
  }
  Notes notes;
  notes.text = text::trimmed(text::validUtf8(withoutComments(std::move(**content))));
  if (longer || notes.text.size() > kNotesBytes) {
    notes.text = std::string(text::trimmed(cutToBound(std::move(notes.text))));
    notes.notice = "the notes file " + quoted(path) + " is longer than " +
                   std::to_string(kNotesBytes / 1024) + " KB: the model is given only its first " +
                   std::to_string(kNotesBytes / 1024) + " KB";
  }
  return notes;
}

std::string notesInstruction(const Notes& notes) {
  if (notes.text.empty()) return {};
  std::string instruction =
      "The user's notes about this database, in the user's own words; where they tell what a "
      "table or a column means, they take precedence over what its name suggests:\n" +
      notes.text;
  if (!notes.notice.empty()) instruction += "\n(The notes go on; only their start is given.)";
  return instruction;
}

Status editNotes(const std::string& path, const std::string& databaseName) {
  std::string initial;
  {
    std::ifstream file(path, std::ios::binary);
    if (file) {
      initial.assign(std::istreambuf_iterator<char>(file), {});
    } else if (errno != ENOENT) {
      return Status::ioError("cannot read the notes file " + quoted(path) + ": " +
                             std::strerror(errno));
    }
  }
  if (initial.empty()) initial = templateText(databaseName);
  std::string problem;
  const std::optional<std::string> edited = editInEditor(initial, &problem);
  if (!edited) return Status::invalidInput(problem + "; the notes are as they were");
  return writeNotes(path, *edited + "\n");
}

}  // namespace qorchat
