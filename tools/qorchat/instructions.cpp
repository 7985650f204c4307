// The database instruction: the engine, its dialect and quoting, and the form of SQL replies;
// the comments the database keeps on its relations and columns; every table's name, for a
// structure cut to its budget.
#include "instructions.h"

#include <algorithm>

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

constexpr std::string_view kTableNamesOpening =
    "Every table and view of the database by name, a line per schema (the structure gives only "
    "some of them in full):";
constexpr std::string_view kTablesRequest =
    "\nTo see the columns of tables the structure leaves out, reply with only a fenced block "
    "labelled tables that lists them, one name per line, like\n```tables\norders\n"
    "sales.order_items\n```\nand wait: qorchat sends the structure again with them in it.";

// The schema of each relation as a group, in the structure's order, and each group's label:
// the relation's qualified name without the relation ("sales", "shop.sales", or none).
struct NameGroups {
  std::vector<std::size_t> groupOf;  // by relation
  std::vector<std::string> labels;   // by group
};

NameGroups nameGroups(const Structure& structure, const std::vector<RelationPlace>& places) {
  NameGroups groups;
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (i == 0 || places[i].catalog != places[i - 1].catalog ||
        places[i].schema != places[i - 1].schema) {
      const std::string qualified = qualifiedName(structure, places[i]);
      const std::size_t own = sqlName(relationAt(structure, places[i]).name).size();
      groups.labels.push_back(
          qualified.substr(0, qualified.size() - std::min(qualified.size(), own + 1)));
    }
    groups.groupOf.push_back(groups.labels.size() - 1);
  }
  return groups;
}

}  // namespace

std::string tableNamesInstruction(const Structure& structure,
                                  const std::vector<std::uint32_t>& ranking, std::size_t maxBytes) {
  const std::vector<RelationPlace> places = relationPlaces(structure);
  const NameGroups groups = nameGroups(structure, places);
  // The nearest names first, while they fit; the sentences around them are not counted.
  std::size_t used = 0;
  std::vector<char> given(places.size(), 0);
  std::vector<char> groupStarted(groups.labels.size(), 0);
  std::size_t count = 0;
  for (const std::uint32_t id : ranking) {
    const std::size_t group = groups.groupOf[id];
    const std::size_t cost = sqlName(relationAt(structure, places[id]).name).size() + 2 +
                             (groupStarted[group] != 0 ? 0 : groups.labels[group].size() + 3);
    if (used + cost > maxBytes) continue;
    used += cost;
    given[id] = 1;
    groupStarted[group] = 1;
    ++count;
  }
  std::string text(kTableNamesOpening);
  for (std::size_t i = 0; i < places.size(); ++i) {
    if (given[i] == 0) continue;
    const bool opensLine = groupStarted[groups.groupOf[i]] == 1;
    if (opensLine) {
      groupStarted[groups.groupOf[i]] = 2;
      const std::string& label = groups.labels[groups.groupOf[i]];
      text += "\n" + (label.empty() ? std::string() : label + ": ");
    } else {
      text += ", ";
    }
    text += sqlName(relationAt(structure, places[i]).name);
  }
  if (count < places.size()) {
    text += "\n(" + text::withSeparators(places.size() - count) +
            " more not listed; those listed are the nearest to the question)";
  }
  return text.append(kTablesRequest);
}

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
