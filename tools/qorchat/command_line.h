#pragma once
// qorchat's command line: what the user asked for, read with CLI11.

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace qorchat {

// What a run does besides the conversation, which is the default.
// Mcp serves the database's tools to an MCP client on standard input and output, with no model.
enum class Mode { Converse, Ask, PrintRequest, ListModels, Mcp };

// How rows are printed: aligned like psql's (with a vertical view for rows too wide), or for other
// programs.
enum class OutputFormat { Table, Csv, Json, Markdown };

// What may leave the machine of what statements give (query results, and the error texts of
// statements that ran, which may quote values): nothing, what the user allows each time, or all.
enum class Sharing { Never, Ask, Always };
std::optional<Sharing> parseSharing(std::string_view name);
std::string_view sharingName(Sharing sharing);

struct Options {
  Mode mode = Mode::Converse;
  std::string question;  // for Ask and PrintRequest
  std::string database;  // an SQLite path or file: URI, or a PostgreSQL connection string or URI;
                         // empty: the sample shop
  std::string service = "ollama";
  std::string host;   // empty: the service's own
  std::string model;  // empty: the first the service lists
  std::optional<double> temperature;
  long timeoutSeconds = 300;
  std::string proxy;
  std::string caFile;
  std::string apiKeyFile;
  bool noHistory = false;
  bool runFirstBlock = false;         // with Ask: run the reply's first SQL block
  long statementTimeoutSeconds = 30;  // for each statement run; 0: no limit
  std::string notesFile;  // --notes: the user's notes; empty: the database's own notes file
  std::size_t schemaBudget = 120000;  // bytes of digest text the model gets; 0: no limit
  std::string conversationName;       // --conversation: one of several per database; empty: the
                                      // default one
  long maxTokens = 8192;              // Anthropic's max_tokens: a long answer with SQL needs
                                      // several thousand
  OutputFormat format = OutputFormat::Table;
  std::size_t maxRows = 100;            // rows shown of a result; the rest counted
  std::string nullText = "<null>";      // how a NULL value is shown in a table
  bool pager = true;                    // long output through $PAGER on a terminal
  bool timing = false;                  // print how long each statement took
  bool color = true;                    // false with NO_COLOR or --no-color
  bool stream = true;                   // replies shown as they arrive; false with --no-stream
  std::optional<Sharing> shareResults;  // empty: ask on a terminal, never otherwise
  std::size_t maxSteps = 5;             // rounds of queries the model may run per question
};

// Either options to run with, or the status to exit with at once (after --help, --version or a
// usage error, whose one line has gone to err).
struct CommandLine {
  Options options;
  std::optional<int> exitStatus;
};

CommandLine parseCommandLine(int argc, const char* const* argv, std::ostream& out,
                             std::ostream& err);

// True for an http:// or https:// URL with a host, or a bare host[:port] (which the library
// reaches over HTTPS).
bool looksLikeHostUrl(const std::string& text);

// A --host as the library wants it, and a line telling the user what was changed, if anything.
struct NormalisedHost {
  std::string host;
  std::optional<std::string> note;
};

// Drops a trailing /v1 (the library adds its own path), and gives a bare host[:port] on a loopback
// or private address http://, since the library would try HTTPS. Other hosts are kept as they are.
NormalisedHost normaliseHost(const std::string& host);

// The config file read when --config is absent: $XDG_CONFIG_HOME/qorchat/config.toml, or
// ~/.config/qorchat/config.toml; empty when neither variable is set.
std::string defaultConfigPath();

}  // namespace qorchat
