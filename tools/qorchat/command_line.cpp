// Reads qorchat's arguments and its config file into Options; usage errors become one line and
// status 2.
#include "command_line.h"

#include <arpa/inet.h>
#include <CLI/CLI.hpp>

#include <array>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <regex>
#include <string_view>

#include "display.h"
#include "format_names.h"
#include "services.h"

namespace qorchat {
namespace {

constexpr int kUsageError = 2;

std::string footer() {
  std::string text =
      "\nExamples:\n"
      "  qorchat                                  chat about the sample shop with a local Ollama\n"
      "  qorchat --db app.sqlite --service openai --model gpt-4.1\n"
      "  qorchat --ask \"Which customers never ordered?\" --run     (and runs its SQL)\n"
      "  qorchat --db postgresql://me@db.example/shop\n"
      "  qorchat --service anthropic --print-request \"Top 5 products?\"   (sends nothing)\n"
      "  qorchat --mcp --db app.sqlite            serve read-only tools to an MCP client\n"
      "\nKeys are read from the environment, never from an argument:\n";
  for (const Service& service : allServices()) {
    if (service.keyVariable.empty()) continue;
    text += "  " + std::string(service.name) + std::string(12 - service.name.size(), ' ') +
            std::string(service.keyVariable) + "\n";
  }
  text +=
      "or from --api-key-file FILE. Ollama needs no key.\n"
      "\nEvery option's default may be set in the config file, under the option's long name:\n"
      "  model = \"llama3.2\"\n  max-rows = 50\n  no-pager = true\n"
      "Options given on the command line win.\n"
      "\nIn a conversation, /help lists the commands, and /run N runs SQL block N of the last\n"
      "reply, read-only. Conversations are kept under $XDG_STATE_HOME/qorchat (default\n"
      "~/.local/state/qorchat), one per database and service. See also man qorchat.\n";
  return text;
}

// What the command line holds besides Options, for the checks after parsing.
struct Extras {
  std::string ask;
  std::string printRequest;
  bool listModels = false;
  bool mcp = false;
  CLI::Option* askOption = nullptr;
  CLI::Option* printOption = nullptr;
  CLI::Option* runOption = nullptr;
  CLI::Option* dbOption = nullptr;
  CLI::Option* configOption = nullptr;
};

// A whole number, at least 1 when positive; CLI11's own checks print the range of a double.
CLI::Validator wholeNumber(bool mustBePositive) {
  return CLI::Validator(
      [mustBePositive](const std::string& value) {
        const bool digits =
            !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
        if (digits && (!mustBePositive || value.find_first_not_of('0') != std::string::npos))
          return std::string();
        return "'" + value + "' is not a " + (mustBePositive ? "positive " : "") + "whole number";
      },
      "");
}

void addServiceOptions(CLI::App& app, Options& options) {
  app.add_option("--service", options.service, "Model service: " + serviceNames())
      ->type_name("NAME");
  app.add_option("--host", options.host,
                 "Service URL (default: the service's own; Ollama: http://localhost:11434)")
      ->type_name("URL");
  app.add_option("--model", options.model,
                 "Model name (default: the one chosen last time, else the newest chat model the "
                 "service lists)")
      ->type_name("NAME");
  app.add_option("--temperature", options.temperature,
                 "Sampling temperature, 0 to 2; sent only when given (some services take less: "
                 "the conversation warns)")
      ->type_name("X")
      ->check(CLI::Validator(
          [](const std::string& value) {
            const double x = std::strtod(value.c_str(), nullptr);
            return x >= 0 && x <= 2 ? std::string() : value + " is out of range: give 0 to 2";
          },
          ""));
  app.add_option("--max-tokens", options.maxTokens,
                 "Longest reply, in tokens (Anthropic needs it; others ignore it)")
      ->type_name("N")
      ->check(wholeNumber(true));
  app.add_option("--timeout", options.timeoutSeconds,
                 "Seconds one question may take in all, retries included")
      ->type_name("SECONDS")
      ->check(wholeNumber(true));
  app.add_option("--proxy", options.proxy, "Proxy URL for every request")->type_name("URL");
  app.add_option("--ca-file", options.caFile, "PEM file of certificates to trust")
      ->type_name("FILE");
  app.add_option("--api-key-file", options.apiKeyFile,
                 "Read the service's key from this file instead of the environment")
      ->type_name("FILE");
}

void addDatabaseOptions(CLI::App& app, Options& options, Extras& extras) {
  extras.dbOption = app.add_option("--db", options.database,
                                   "SQLite file or file: URI, or PostgreSQL connection string or "
                                   "URI (postgresql://...); always read-only (default: the sample "
                                   "shop)")
                        ->type_name("FILE|URI");
  app.add_option("--statement-timeout", options.statementTimeoutSeconds,
                 "Seconds one statement run from a reply may take (0: no limit)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0L, 86400L).description(""));
  app.add_option("--schema-budget", options.schemaBudget,
                 "Bytes of database structure the model gets (about 4 a token); past it, the "
                 "tables a question names and their neighbours go first (0: no limit)")
      ->type_name("BYTES")
      ->check(wholeNumber(false));
  app.add_option("--notes", options.notesFile,
                 "File of notes about the database for the model (default: its own notes file "
                 "in the state folder, edited with /notes)")
      ->type_name("FILE");
  app.add_option("--conversation", options.conversationName,
                 "Name of the conversation to keep (several per database; default: the "
                 "database's own)")
      ->type_name("NAME");
  app.add_flag("--no-history", options.noHistory, "Keep the conversation in memory only");
}

void addOutputOptions(CLI::App& app, Options& options) {
  app.add_option("--format", options.format, "How rows are printed")
      ->type_name("table|csv|json|markdown")
      ->transform(CLI::Validator(
          [](std::string& value) {
            const std::optional<OutputFormat> found = parseOutputFormat(value);
            if (!found) return "'" + value + "' is not table, csv, json or markdown";
            value = std::to_string(static_cast<int>(*found));
            return std::string();
          },
          ""))
      ->default_str("table");
  app.add_option("--max-rows", options.maxRows, "Rows shown of a result; the rest are counted")
      ->type_name("N")
      ->check(wholeNumber(true));
  app.add_option("--null", options.nullText, "How a NULL value is shown")->type_name("TEXT");
  app.add_flag_callback(
      "--no-pager", [&options] { options.pager = false; }, "Never send long output through $PAGER");
  app.add_flag("--timing", options.timing, "Print how long each statement took");
  app.add_flag_callback(
      "--no-color", [&options] { options.color = false; }, "No colour (also when NO_COLOR is set)");
  app.add_flag_callback(
      "--no-stream", [&options] { options.stream = false; },
      "Show a reply only once it is whole, not as it arrives");
  // The positive names, hidden, so that a config file may say pager = false, color = false or
  // stream = false.
  app.add_flag("--pager", options.pager)->group("");
  app.add_flag("--color", options.color)->group("");
  app.add_flag("--stream", options.stream)->group("");
}

// never, ask or always; a hidden option's error names it itself, as CLI11 names none.
CLI::Validator sharingValidator(std::string_view hiddenName = {}) {
  return CLI::Validator(
      [prefix = hiddenName.empty() ? std::string()
                                   : std::string(hiddenName) + ": "](std::string& value) {
        const std::optional<Sharing> found = parseSharing(value);
        if (!found) return prefix + "'" + value + "' is not never, ask or always";
        value = std::to_string(static_cast<int>(*found));
        return std::string();
      },
      "");
}

void addSharingOptions(CLI::App& app, Options& options) {
  app.add_option("--share-results", options.shareResults,
                 "What of the data may go to the service: query results the model asks for and "
                 "errors that may quote values (default: ask on a terminal, never otherwise)")
      ->type_name("never|ask|always")
      ->transform(sharingValidator());
  // Hidden, so that a config file may also write the key as share_results.
  app.add_option("--share_results", options.shareResults)
      ->transform(sharingValidator("--share_results"))
      ->group("");
  app.add_option("--max-steps", options.maxSteps,
                 "Rounds of queries the model may run for one question")
      ->type_name("N")
      ->check(wholeNumber(true));
}

void addModeOptions(CLI::App& app, Options& options, Extras& extras) {
  extras.askOption =
      app.add_option("--ask", extras.ask, "Ask one question, print the reply and exit")
          ->type_name("QUESTION")
          ->configurable(false);
  extras.printOption =
      app.add_option("--print-request", extras.printRequest,
                     "Print the request a question would send (URL and body), send nothing")
          ->type_name("QUESTION")
          ->configurable(false);
  app.add_flag("--list-models", extras.listModels, "List the service's models")
      ->configurable(false);
  app.add_flag("--mcp", extras.mcp,
               "Serve the database to an MCP client on standard input and output: read-only "
               "tools, no model, no key")
      ->configurable(false);
  extras.runOption =
      app.add_flag("--run", options.runFirstBlock,
                   "With --ask: run the reply's first SQL block read-only and show its rows "
                   "(status 1 if it fails)")
          ->configurable(false);
}

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r");
  return std::string(text.substr(first, last - first + 1));
}

// The key of each line of a config file that sets one, with its line number, in order.
std::vector<std::pair<std::string, int>> configKeys(const std::string& path) {
  std::vector<std::pair<std::string, int>> keys;
  std::ifstream file(path);
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    std::string text = trimmed(line);
    if (text.empty() || text.front() == '#' || text.front() == ';' || text.front() == '[') continue;
    std::string key = trimmed(text.substr(0, text.find('=')));
    if (key.size() >= 2 && (key.front() == '"' || key.front() == '\'') && key.back() == key.front())
      key = key.substr(1, key.size() - 2);
    keys.emplace_back(key, number);
  }
  return keys;
}

bool onCommandLine(const std::string& key, int argc, const char* const* argv) {
  const std::string flag = "--" + key;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == flag || arg.starts_with(flag + "=")) return true;
  }
  return false;
}

// CLI11 names the key a config file got wrong but not the file or the line: this finds them.
std::string describeParseError(const CLI::ParseError& error, const std::string& configFile,
                               int argc, const char* const* argv) {
  std::string what = error.what();
  if (what.starts_with(": ")) what.erase(0, 2);  // a hidden option's error, without its name
  // psql and sqlite3 take the database as a plain argument.
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
    return what + " (the database goes after --db: qorchat --db FILE)";
  if (dynamic_cast<const CLI::FileError*>(&error) != nullptr)
    return "--config " + configFile + ": no such file";
  if (configFile.empty()) return what + " (see qorchat --help)";
  static const std::string kUnknown = "INI was not able to parse ";
  const std::string unknownKey = what.starts_with(kUnknown) ? what.substr(kUnknown.size()) : "";
  for (const auto& [key, line] : configKeys(configFile)) {
    if (key.empty() || onCommandLine(key, argc, argv)) continue;
    const std::string flag = "--" + key;
    std::string where = configFile + ":" + std::to_string(line) + ": ";
    if (key == unknownKey) return where.append("unknown key '" + key + "' (see qorchat --help)");
    if (what.starts_with(flag + ":") || what.starts_with(key + ":") ||
        what.find(flag + " ") != std::string::npos)
      return where.append(what);
  }
  return what + " (see qorchat --help)";
}

std::optional<std::string> checkCombination(Options& options, const Extras& extras) {
  if (findService(options.service) == nullptr)
    return "unknown service '" + options.service + "': choose one of " + serviceNames();
  if (extras.dbOption->count() > 0 && options.database.empty())
    return "--db is empty: give a file or a connection string";
  if (!options.host.empty() && !looksLikeHostUrl(options.host))
    return "--host '" + options.host +
           "' is not a URL: write it as http://HOST:PORT or https://HOST";
  if (extras.askOption->count() + extras.printOption->count() + (extras.listModels ? 1 : 0) +
          (extras.mcp ? 1 : 0) >
      1)
    return "--ask, --print-request, --list-models and --mcp each make a run of its own: give one "
           "of them";
  if (extras.runOption->count() > 0 && extras.askOption->count() == 0)
    return "--run goes with --ask; in a conversation, type /run N";
  if (extras.askOption->count() > 0) {
    options.mode = Mode::Ask;
    options.question = extras.ask;
  } else if (extras.printOption->count() > 0) {
    options.mode = Mode::PrintRequest;
    options.question = extras.printRequest;
  } else if (extras.listModels) {
    options.mode = Mode::ListModels;
  } else if (extras.mcp) {
    options.mode = Mode::Mcp;
  }
  if ((options.mode == Mode::Ask || options.mode == Mode::PrintRequest) &&
      options.question.find_first_not_of(" \t\r\n") == std::string::npos)
    return std::string("the question is empty: write it after ") +
           (options.mode == Mode::Ask ? "--ask" : "--print-request");
  return std::nullopt;
}

// Loopback and private addresses, where a server without TLS is the rule.
bool isLocalAddress(std::string name) {
  for (char& c : name)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (name == "localhost" || name == "::1" || name == "[::1]") return true;
  std::array<unsigned char, 4> octets{};
  if (inet_pton(AF_INET, name.c_str(), octets.data()) != 1) return false;
  return octets[0] == 127 || octets[0] == 10 || (octets[0] == 172 && (octets[1] & 0xF0) == 16) ||
         (octets[0] == 192 && octets[1] == 168);
}

}  // namespace

std::optional<Sharing> parseSharing(std::string_view name) {
  for (const Sharing sharing : {Sharing::Never, Sharing::Ask, Sharing::Always}) {
    if (name == sharingName(sharing)) return sharing;
  }
  return std::nullopt;
}

std::string_view sharingName(Sharing sharing) {
  switch (sharing) {
    case Sharing::Never:
      return "never";
    case Sharing::Ask:
      return "ask";
    case Sharing::Always:
      break;
  }
  return "always";
}

bool looksLikeHostUrl(const std::string& text) {
  // A scheme of the web, a host name, an IPv4 or a bracketed IPv6 address, an optional port and
  // path; nothing with blanks or credentials.
  static const std::regex url(
      R"(^(https?://)?([A-Za-z0-9]([A-Za-z0-9.-]*[A-Za-z0-9])?|\[[0-9A-Fa-f:.]+\])(:[0-9]{1,5})?(/[^\s@]*)?$)");
  return std::regex_match(text, url);
}

NormalisedHost normaliseHost(const std::string& host) {
  NormalisedHost result{host, std::nullopt};
  std::string& text = result.host;
  for (const std::string_view suffix : {"/v1/", "/v1"}) {
    if (text.ends_with(suffix)) {
      text.erase(text.size() - suffix.size());
      break;
    }
  }
  if (text.find("://") != std::string::npos) return result;
  const std::size_t end = text.front() == '[' ? text.find(']') + 1 : text.find_first_of(":/");
  if (!isLocalAddress(text.substr(0, end))) return result;
  text = "http://" + text;
  result.note = "qorchat: --host " + host + " has no scheme: using " + text +
                " (a local address; write https:// for TLS)";
  return result;
}

std::string defaultConfigPath() {
  const char* configHome = std::getenv("XDG_CONFIG_HOME");
  if (configHome != nullptr && configHome[0] == '/')
    return configHome + std::string("/qorchat/config.toml");
  const char* home = std::getenv("HOME");
  if (home != nullptr && home[0] != '\0') return home + std::string("/.config/qorchat/config.toml");
  return {};
}

CommandLine parseCommandLine(int argc, const char* const* argv, std::ostream& out,
                             std::ostream& err) {
  CommandLine result;
  Options& options = result.options;
  Extras extras;

  CLI::App app(
      "qorchat: chat with a model about an SQLite or PostgreSQL database. The model sees the "
      "database's structure (tables, columns, keys), never its rows.",
      "qorchat");
  app.footer(footer());
  app.set_version_flag("--version", std::string("qorchat ") + QORCHAT_VERSION);
  app.get_formatter()->column_width(34);
  app.option_defaults()->always_capture_default();
  app.allow_config_extras(CLI::config_extras_mode::error);
  extras.configOption =
      app.set_config("--config", defaultConfigPath(), "Read option defaults from this TOML file");
  // Help shows the rule, not this user's own path.
  extras.configOption->type_name("FILE")->option_text("FILE")->description(
      "Read option defaults from this TOML file (default: $XDG_CONFIG_HOME/qorchat/config.toml, "
      "or ~/.config/qorchat/config.toml)");
  addDatabaseOptions(app, options, extras);
  addServiceOptions(app, options);
  addOutputOptions(app, options);
  addSharingOptions(app, options);
  addModeOptions(app, options, extras);

  // CLI11 reads "--db=" as --db waiting for a value, and would take the next argument.
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--db=") {
      err << "qorchat: --db is empty: give a file or a connection string\n";
      result.exitStatus = kUsageError;
      return result;
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    result.exitStatus = app.exit(e, out, err);
    return result;
  } catch (const CLI::CallForVersion& e) {
    result.exitStatus = app.exit(e, out, err);
    return result;
  } catch (const CLI::ParseError& e) {
    const auto files = extras.configOption->as<std::vector<std::string>>();
    const std::string configFile = files.empty() ? std::string() : files.front();
    err << "qorchat: " << terminalSafe(describeParseError(e, configFile, argc, argv)) << "\n";
    result.exitStatus = kUsageError;
    return result;
  }

  if (const char* noColor = std::getenv("NO_COLOR"); noColor != nullptr && noColor[0] != '\0')
    options.color = false;
  if (auto problem = checkCombination(options, extras)) {
    err << "qorchat: " << terminalSafe(*problem) << "\n";
    result.exitStatus = kUsageError;
    return result;
  }
  if (!options.host.empty()) {
    NormalisedHost host = normaliseHost(options.host);
    options.host = std::move(host.host);
    if (host.note) err << terminalSafe(*host.note) << "\n";
  }
  return result;
}

}  // namespace qorchat
