// The database instruction: the engine, its dialect and quoting, and the form of SQL replies;
// the comments the database keeps on its relations and columns.
#include "instructions.h"

#include "text.h"

namespace qorchat {
namespace {

constexpr std::string_view kCommentsOpening = "Comments the database keeps on its objects:";
// The longest comment given, so that one essay in a comment cannot take the whole bound.
constexpr std::size_t kCommentBytes = 300;

// A comment as the model gets it: valid UTF-8 on one line, cut at a character boundary.
std::string commentLine(const std::string& comment) {
  std::string line = text::oneLine(text::validUtf8(comment));
  if (line.size() <= kCommentBytes) return line;
  std::size_t cut = kCommentBytes;
  while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80)
    --cut;
  return line.substr(0, cut) + "\u2026";
}

// The lines of one relation's comments: its own, then its columns' in their order.
void addCommentLines(const std::string& name, const Relation& relation,
                     std::vector<std::string>& lines) {
  if (!text::trimmed(relation.comment).empty())
    lines.push_back(name + ": " + commentLine(relation.comment));
  for (const Column& column : relation.columns) {
    if (!text::trimmed(column.comment).empty())
      lines.push_back(name + "." + sqlName(column.name) + ": " + commentLine(column.comment));
  }
}

}  // namespace

std::string_view engineName(std::string_view engine) {
  return engine.substr(0, engine.find(' '));
}

std::string databaseInstruction(std::string_view engine) {
  std::string text = "The database is " + std::string(engine) + ". ";
  if (text::startsWith(engine, "PostgreSQL")) {
    text +=
        "Write SQL for PostgreSQL: quote an identifier with double quotes (\"Order\") when it is "
        "mixed-case, a reserved word or holds special characters, and qualify tables with their "
        "schema when it is not public. ";
  } else {
    text +=
        "Write SQL for SQLite: quote an identifier with double quotes (\"order\") when it is a "
        "reserved word or holds special characters; use SQLite's functions (strftime, date, "
        "julianday, ifnull, group_concat) and no others' (no NOW(), INTERVAL or ILIKE). ";
  }
  text +=
      "The backticks in the database structure below are only how it is listed, not quoting to "
      "copy. The SQL runs read-only. Put each statement you propose in a fenced ```sql block.";
  return text;
}

std::string commentsInstruction(const Structure& structure, const std::vector<bool>* chosen,
                                std::size_t maxBytes) {
  const std::vector<RelationPlace> places = relationPlaces(structure);
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (chosen == nullptr || (*chosen)[i])
      addCommentLines(qualifiedName(structure, places[i]), relationAt(structure, places[i]), lines);
  }
  if (lines.empty()) return {};
  // Room is kept for the count of what is left out, so that the text never passes the bound.
  const std::string leftOutRoom = "\n(" + std::to_string(lines.size()) + " more left out)";
  std::string text(kCommentsOpening);
  std::size_t given = 0;
  for (; given < lines.size(); ++given) {
    const bool last = given + 1 == lines.size();
    const std::size_t room =
        text.size() + 1 + lines[given].size() + (last ? 0 : leftOutRoom.size());
    if (room > maxBytes) break;
    text += "\n" + lines[given];
  }
  if (given == 0) return {};
  if (given < lines.size())
    text += "\n(" + std::to_string(lines.size() - given) + " more left out)";
  return text;
}

}  // namespace qorchat
