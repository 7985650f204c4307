// The formats a result is printed in: the table (result_table.cpp), CSV as RFC 4180 quotes it,
// JSON objects in column order through libyl's writer, and a Markdown pipe table.
#include "output_format.h"

#include <optional>

#include "display.h"
#include "result_table.h"
#include "text.h"
#include "yl/yl_json.h"

namespace qorchat {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// The position after the digits from at on.
std::size_t skipDigits(std::string_view text, std::size_t at) {
  while (at < text.size() && isDigit(text[at]))
    ++at;
  return at;
}

std::string csvField(std::string_view value) {
  if (!value.empty() && value.find_first_of(",\"\r\n") == std::string_view::npos)
    return std::string(value);
  // Quoted, its quotes doubled; the empty string too, so that it differs from NULL.
  std::string field = "\"";
  for (const char c : value)
    field += c == '"' ? std::string("\"\"") : std::string(1, c);
  return field + "\"";
}

std::string csv(const StatementResult& result) {
  std::string out;
  const auto appendLine = [&out](const auto& fields, const auto& textOf) {
    for (std::size_t i = 0; i < fields.size(); ++i) {
      if (i > 0) out += ',';
      out += textOf(fields[i]);
    }
    out += '\n';
  };
  if (result.columns.empty()) return out;
  appendLine(result.columns, [](const std::string& name) { return csvField(name); });
  for (const auto& row : result.rows) {
    appendLine(row, [](const std::optional<std::string>& value) {
      return value ? csvField(*value) : std::string();
    });
  }
  return out;
}

std::string json(const StatementResult& result) {
  const std::vector<bool> numeric = numericColumns(result);
  YLJson writer;  // one string value at a time, for its escaping
  const auto quoted = [&writer](std::string_view text) {
    writer.setStringValue(text::validUtf8(text));
    return writer.obtainJsonString();
  };
  std::vector<std::string> keys;
  for (const std::string& column : result.columns)
    keys.push_back(quoted(column) + ":");

  // One object a line, so that a reader sees the rows and a program reads one document.
  std::string out = "[";
  for (std::size_t r = 0; r < result.rows.size(); ++r) {
    out += r == 0 ? "\n{" : ",\n{";
    for (std::size_t i = 0; i < keys.size(); ++i) {
      const std::optional<std::string>& value =
          i < result.rows[r].size() ? result.rows[r][i] : std::nullopt;
      out += (i > 0 ? "," : "") + keys[i];
      if (!value) {
        out += "null";
      } else {
        out += numeric[i] ? *value : quoted(*value);
      }
    }
    out += '}';
  }
  return out + (result.rows.empty() ? "]\n" : "\n]\n");
}

std::string markdownCell(std::string_view value) {
  std::string cell;
  for (std::size_t at = 0; at < value.size(); ++at) {
    const char c = value[at];
    if (c == '|') {
      cell += "\\|";
    } else if (c == '\r' || c == '\n') {
      cell += "<br>";
      if (c == '\r' && at + 1 < value.size() && value[at + 1] == '\n') ++at;
    } else {
      cell += c;
    }
  }
  return cell;
}

std::string markdown(const StatementResult& result, const OutputSettings& settings) {
  std::string out;
  if (!result.columns.empty()) {
    const std::vector<bool> numeric = numericColumns(result);
    std::string rule = "|";
    out += "|";
    for (std::size_t i = 0; i < result.columns.size(); ++i) {
      out += " " + markdownCell(result.columns[i]) + " |";
      rule += numeric[i] ? " ---: |" : " --- |";
    }
    out += "\n" + rule + "\n";
    for (const auto& row : result.rows) {
      out += "|";
      for (std::size_t i = 0; i < result.columns.size(); ++i) {
        const bool present = i < row.size() && row[i].has_value();
        const std::string cell = markdownCell(present ? *row[i] : settings.nullText);
        out += cell.empty() ? " |" : " " + cell + " |";
      }
      out += "\n";
    }
    out += "\n";
  }
  return out + rowCountFooter(result) + "\n";
}

}  // namespace

bool looksNumeric(std::string_view value) {
  std::size_t at = !value.empty() && value[0] == '-' ? 1 : 0;
  if (at >= value.size() || !isDigit(value[at])) return false;
  // No leading zeros: "007" is a code, not a number.
  at = value[at] == '0' ? at + 1 : skipDigits(value, at);
  if (at < value.size() && value[at] == '.') {
    const std::size_t fraction = at + 1;
    at = skipDigits(value, fraction);
    if (at == fraction) return false;
  }
  if (at < value.size() && (value[at] == 'e' || value[at] == 'E')) {
    ++at;
    if (at < value.size() && (value[at] == '+' || value[at] == '-')) ++at;
    const std::size_t exponent = at;
    at = skipDigits(value, exponent);
    if (at == exponent) return false;
  }
  return at == value.size();
}

std::vector<bool> numericColumns(const StatementResult& result) {
  std::vector<bool> numeric(result.columns.size(), true);
  std::vector<bool> seen(result.columns.size(), false);
  for (const auto& row : result.rows) {
    for (std::size_t i = 0; i < row.size() && i < numeric.size(); ++i) {
      if (!row[i]) continue;
      seen[i] = true;
      if (numeric[i] && !looksNumeric(*row[i])) numeric[i] = false;
    }
  }
  for (std::size_t i = 0; i < numeric.size(); ++i)
    numeric[i] = numeric[i] && seen[i];
  return numeric;
}

std::string rowCountFooter(const StatementResult& result) {
  if (result.columns.empty()) return "(done)";
  const std::size_t shown = result.rows.size();
  const auto rows = [](std::size_t n) { return std::to_string(n) + (n == 1 ? " row" : " rows"); };
  if (!result.allCounted) {
    return "(first " + std::to_string(shown) + " of at least " + rows(result.rowCount) +
           "; the count was stopped)";
  }
  if (result.rowCount > shown)
    return "(first " + std::to_string(shown) + " of " + rows(result.rowCount) + ")";
  return "(" + rows(shown) + ")";
}

std::string formatResult(const StatementResult& result, const OutputSettings& settings) {
  std::string out;
  switch (settings.format) {
    case OutputFormat::Table:
      return ResultTable(result, settings).render();
    case OutputFormat::Csv:
      out = csv(result);
      break;
    case OutputFormat::Json:
      out = json(result);
      break;
    case OutputFormat::Markdown:
      out = markdown(result, settings);
      break;
  }
  // Whole values for other programs; on a terminal they still cannot reach it raw.
  return settings.terminalColumns > 0 ? terminalSafe(out) : out;
}

}  // namespace qorchat
