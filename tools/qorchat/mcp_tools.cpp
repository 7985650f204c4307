// The MCP tools: catalog listings and CREATE texts from the structure as it was last read, the
// structure within a budget as qorchat's scope chooses it, and statements through the read-only
// runner with results capped in rows and bytes.
#include "mcp_tools.h"

#include <algorithm>
#include <array>

#include "mcp_tool_definitions.h"
#include "output_format.h"
#include "structure_text.h"

namespace qorchat::mcp {
namespace {

constexpr std::array<std::string_view, 5> kToolNames = {"list_tables", "describe", "schema",
                                                        "query", "explain"};
// What one result may hold: values cut as they are read, rows left out past the total.
constexpr std::size_t kMaxValueBytes = 16384;
constexpr std::size_t kMaxResultBytes = std::size_t{256} * 1024;
// The share of the budget the names of the tables left out may take, as in a conversation.
constexpr std::size_t kTableNamesShare = 10;

void textResult(YLJsonValue& result, std::string_view text, bool isError = false) {
  YLJsonValue* item = result.addKeyValue("content")->addArrayItem();
  item->addKeyValue("type")->setStringValue("text");
  item->addKeyValue("text")->setStringValue(text);
  if (isError) result.addKeyValue("isError")->setBoolValue(true);
}

std::string_view kindName(RelationKind kind) {
  switch (kind) {
    case RelationKind::kView:
      return "view";
    case RelationKind::kMaterializedView:
      return "materialized view";
    case RelationKind::kTable:
      break;
  }
  return "table";
}

// The kept rows of a result within kMaxResultBytes, the rest counted as left out.
StatementResult withinBytes(const StatementResult& result) {
  StatementResult kept{result.statement, result.columns,    {},
                       result.rowCount,  result.allCounted, Status::ok()};
  std::size_t bytes = 0;
  for (const auto& row : result.rows) {
    for (const auto& value : row)
      bytes += value ? value->size() : 0;
    if (bytes > kMaxResultBytes) break;
    kept.rows.push_back(row);
  }
  return kept;
}

void writeStructured(const StatementResult& shown, YLJsonValue& result) {
  YLJsonValue* structured = result.addKeyValue("structuredContent");
  YLJsonValue* columns = structured->addKeyValue("columns");
  columns->setArrayType();
  for (const std::string& column : shown.columns)
    columns->addArrayItem()->setStringValue(column);
  YLJsonValue* rows = structured->addKeyValue("rows");
  rows->setArrayType();
  for (const auto& row : shown.rows) {
    YLJsonValue* item = rows->addArrayItem();
    item->setArrayType();
    for (const auto& value : row) {
      YLJsonValue* cell = item->addArrayItem();
      if (value) cell->setStringValue(*value);
    }
  }
  structured->addKeyValue("row_count")->setIntValue(static_cast<std::int64_t>(shown.rowCount));
  structured->addKeyValue("truncated")
      ->setBoolValue(shown.rows.size() < shown.rowCount || !shown.allCounted);
}

}  // namespace

Tools::Tools(Database& database, Structure structure, std::string stamp)
    : database_(database),
      structure_(std::move(structure)),
      stamp_(std::move(stamp)),
      places_(relationPlaces(structure_)) {}

void Tools::refreshStructure() {
  Result<std::string> stamp = database_.structureStamp();
  if (!stamp || *stamp == stamp_) return;
  Result<Structure> structure = database_.describe();
  if (!structure) return;
  // The scope indexes what the model is told; row estimates alone leave it as it is.
  if (!sameForTheModel(structure_, *structure)) scope_.reset();
  structure_ = std::move(*structure);
  stamp_ = std::move(*stamp);
  places_ = relationPlaces(structure_);
}

bool Tools::has(std::string_view name) {
  return std::find(kToolNames.begin(), kToolNames.end(), name) != kToolNames.end();
}

void Tools::call(std::string_view name, const YLJsonValue* arguments, YLJsonValue& result) {
  struct Tool {
    std::string_view name;
    std::initializer_list<std::string_view> arguments;
    void (Tools::*run)(Arguments&, YLJsonValue&);
    bool readsStructure;
  };
  static const Tool kTools[] = {
      {"list_tables", {"schema"}, &Tools::listTables, true},
      {"describe", {"names"}, &Tools::describe, true},
      {"schema", {"question", "budget"}, &Tools::schema, true},
      {"query", {"sql", "max_rows"}, &Tools::query, false},
      {"explain", {"sql"}, &Tools::explain, false},
  };
  for (const Tool& tool : kTools) {
    if (tool.name != name) continue;
    if (tool.readsStructure) refreshStructure();
    Arguments read(arguments, tool.arguments);
    (this->*tool.run)(read, result);
    // A bad argument is told to the model as the tool's failure, so that it can call again.
    if (!read.ok()) textResult(result, std::string(name) + ": " + read.problem(), true);
  }
}

void Tools::listTables(Arguments& arguments, YLJsonValue& result) {
  const std::optional<std::string> schema = arguments.text("schema", false);
  if (!arguments.ok()) return;
  std::string text;
  std::size_t listed = 0;
  for (std::size_t i = 0; i < places_.size(); ++i) {
    const RelationPlace& place = places_[i];
    const Catalog& catalog = structure_.catalogs[place.catalog];
    const std::string& schemaName = catalog.schemas[place.schema].name;
    if (schema && *schema != schemaName && *schema != catalog.name) continue;
    const Relation& relation = relationAt(structure_, place);
    text += qualifiedName(structure_, place) + " (" + std::string(kindName(place.kind));
    if (relation.rowEstimate) text += ", about " + std::to_string(*relation.rowEstimate) + " rows";
    text += ")\n";
    ++listed;
  }
  if (listed == 0)
    text = schema ? "no table or view in schema '" + *schema + "'" : "the database has no table";
  textResult(result, text);
}

std::string Tools::neighbours(std::size_t relation) const {
  const RelationPlace& place = places_[relation];
  const std::string& schemaName = structure_.catalogs[place.catalog].schemas[place.schema].name;
  const Relation& self = relationAt(structure_, place);
  std::vector<std::string> references;
  for (const ForeignKey& key : self.foreignKeys) {
    const std::string name =
        (key.refSchema && !key.refSchema->empty() ? sqlName(*key.refSchema) + "." : "") +
        sqlName(key.refTable);
    if (std::find(references.begin(), references.end(), name) == references.end())
      references.push_back(name);
  }
  std::vector<std::string> referencedBy;
  for (std::size_t i = 0; i < places_.size(); ++i) {
    if (places_[i].catalog != place.catalog) continue;
    for (const ForeignKey& key : relationAt(structure_, places_[i]).foreignKeys) {
      if (key.refTable == self.name && key.refSchema.value_or(schemaName) == schemaName) {
        referencedBy.push_back(qualifiedName(structure_, places_[i]));
        break;
      }
    }
  }
  std::string text;
  const auto join = [&text](std::string_view label, const std::vector<std::string>& names) {
    if (names.empty()) return;
    text += std::string(text.empty() ? "" : " ") + std::string(label);
    for (std::size_t i = 0; i < names.size(); ++i)
      text += (i == 0 ? " " : ", ") + names[i];
    text += ".";
  };
  join("References:", references);
  join("Referenced by:", referencedBy);
  return text;
}

void Tools::describe(Arguments& arguments, YLJsonValue& result) {
  const std::optional<std::vector<std::string>> names = arguments.texts("names", kMaxDescribed);
  if (!arguments.ok()) return;
  std::string text;
  std::vector<std::string> unknown;
  for (const std::string& name : *names) {
    const std::optional<std::size_t> found = findRelation(structure_, name);
    if (!found) {
      unknown.push_back(name);
      continue;
    }
    text += relationText(structure_, *found);
    const std::string links = neighbours(*found);
    text += (links.empty() ? "-- no foreign-key neighbours" : "-- " + links) + "\n\n";
  }
  if (!unknown.empty()) {
    std::string line = "No table or view is named";
    for (std::size_t i = 0; i < unknown.size(); ++i)
      line += (i == 0 ? " '" : ", '") + unknown[i] + "'";
    text += line + "; list_tables gives the names.";
  }
  textResult(result, text, unknown.size() == names->size());
}

void Tools::schema(Arguments& arguments, YLJsonValue& result) {
  const std::optional<std::string> question = arguments.text("question");
  const std::optional<std::int64_t> budget =
      arguments.integer("budget", kDefaultSchemaBudget, kMinSchemaBudget, kMaxSchemaBudget);
  if (!arguments.ok()) return;
  const auto bytes = static_cast<std::size_t>(*budget);
  if (!scope_ || scopeBudget_ != bytes) {
    scope_ = std::make_unique<SchemaScope>(structure_, bytes);
    scopeBudget_ = bytes;
  }
  if (scope_->fitsWhole()) {
    textResult(result, treeText(libraryTree(structure_)));
    return;
  }
  const SchemaScope::Choice choice = scope_->choose({*question});
  std::string text = treeText(libraryTree(structure_, &choice.chosen));
  if (choice.listed < choice.total) {
    text += "\n" + SchemaScope::instruction(choice.listed, choice.total) +
            " The describe tool gives any of them.\n" +
            namesLeftOut(choice, bytes / kTableNamesShare);
  }
  textResult(result, text);
}

std::string Tools::namesLeftOut(const SchemaScope::Choice& choice, std::size_t maxBytes) const {
  std::string text = "Left out, nearest the question first:";
  std::size_t named = 0;
  std::size_t more = 0;
  for (const std::uint32_t relation : choice.ranking) {
    if (choice.chosen[relation]) continue;
    const std::string name =
        (named == 0 ? " " : ", ") + qualifiedName(structure_, places_[relation]);
    if (more > 0 || text.size() + name.size() > maxBytes) {
      ++more;
      continue;
    }
    text += name;
    ++named;
  }
  return text + (more > 0 ? " and " + std::to_string(more) + " more.\n" : ".\n");
}

void Tools::query(Arguments& arguments, YLJsonValue& result) {
  const std::optional<std::string> sql = arguments.text("sql");
  const std::optional<std::int64_t> maxRows =
      arguments.integer("max_rows", kDefaultMaxRows, 1, kMaxRowsLimit);
  if (!arguments.ok()) return;
  const Result<std::vector<StatementResult>> ran =
      database_.runReadOnly(*sql, RunLimits{static_cast<std::size_t>(*maxRows), kMaxValueBytes});
  if (!ran) {
    textResult(result, ran.status().message(), true);
    return;
  }
  if (ran->empty()) {
    textResult(result, "the SQL holds no statement", true);
    return;
  }
  const StatementResult& last = ran->back();
  if (!last.status) {
    textResult(result, last.status.message(), true);
    return;
  }
  const StatementResult shown = withinBytes(last);
  OutputSettings settings;
  settings.format = OutputFormat::Markdown;
  textResult(result, formatResult(shown, settings));
  writeStructured(shown, result);
}

void Tools::explain(Arguments& arguments, YLJsonValue& result) {
  const std::optional<std::string> sql = arguments.text("sql");
  if (!arguments.ok()) return;
  const Result<std::string> plan = database_.explain(*sql);
  textResult(result, plan ? *plan : plan.status().message(), !plan);
}

}  // namespace qorchat::mcp
