// Reads qorchat's arguments into Options; usage errors become one line and status 2.
#include "command_line.h"

#include <CLI/CLI.hpp>

#include <ostream>
#include <regex>

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
      "\nKeys are read from the environment, never from an argument:\n";
  for (const Service& service : allServices()) {
    if (service.keyVariable.empty()) continue;
    text += "  " + std::string(service.name) + std::string(12 - service.name.size(), ' ') +
            std::string(service.keyVariable) + "\n";
  }
  text +=
      "or from --api-key-file FILE. Ollama needs no key.\n"
      "\nIn a conversation, /help lists the commands, and /run N runs SQL block N of the last\n"
      "reply, read-only. Conversations are kept under $XDG_STATE_HOME/qorchat (default\n"
      "~/.local/state/qorchat), one per database and service.\n";
  return text;
}

}  // namespace

bool looksLikeHostUrl(const std::string& text) {
  // A scheme of the web, a host name, an IPv4 or a bracketed IPv6 address, an optional port and
  // path; nothing with blanks or credentials.
  static const std::regex url(
      R"(^(https?://)?([A-Za-z0-9]([A-Za-z0-9.-]*[A-Za-z0-9])?|\[[0-9A-Fa-f:.]+\])(:[0-9]{1,5})?(/[^\s@]*)?$)");
  return std::regex_match(text, url);
}

CommandLine parseCommandLine(int argc, const char* const* argv, std::ostream& out,
                             std::ostream& err) {
  CommandLine result;
  Options& options = result.options;

  CLI::App app(
      "qorchat: chat with a model about an SQLite or PostgreSQL database. The model sees the "
      "database's structure (tables, columns, keys), never its rows.",
      "qorchat");
  app.footer(footer());
  app.set_version_flag("--version", std::string("qorchat ") + QORCHAT_VERSION);
  app.get_formatter()->column_width(34);

  std::string ask;
  std::string printRequest;
  bool listModels = false;
  app.add_option("--db", options.database,
                 "SQLite file or file: URI, or PostgreSQL connection string or URI "
                 "(postgresql://...); always read-only (default: the sample shop)")
      ->option_text("FILE|URI");
  app.add_option("--service", options.service, "Model service: " + serviceNames())
      ->option_text("NAME")
      ->default_str("ollama");
  app.add_option("--host", options.host,
                 "Service URL (default: the service's own; Ollama: http://localhost:11434)")
      ->option_text("URL");
  app.add_option("--model", options.model, "Model name (default: the first the service lists)")
      ->option_text("NAME");
  app.add_option("--temperature", options.temperature, "Sampling temperature; sent only when given")
      ->option_text("X");
  app.add_option("--timeout", options.timeoutSeconds, "Seconds one exchange may take")
      ->option_text("SECONDS")
      ->default_str("300")
      ->check(CLI::PositiveNumber);
  app.add_option("--proxy", options.proxy, "Proxy URL for every request")->option_text("URL");
  app.add_option("--ca-file", options.caFile, "PEM file of certificates to trust")
      ->option_text("FILE");
  app.add_option("--api-key-file", options.apiKeyFile,
                 "Read the service's key from this file instead of the environment")
      ->option_text("FILE");
  auto* askOption = app.add_option("--ask", ask, "Ask one question, print the reply and exit")
                        ->option_text("QUESTION");
  auto* printOption =
      app.add_option("--print-request", printRequest,
                     "Print the request a question would send (URL and body), send nothing")
          ->option_text("QUESTION");
  app.add_flag("--list-models", listModels, "List the service's models");
  app.add_flag("--no-history", options.noHistory, "Keep the conversation in memory only");
  auto* runOption = app.add_flag(
      "--run", options.runFirstBlock,
      "With --ask: run the reply's first SQL block read-only and show its rows (status 1 if it "
      "fails)");
  app.add_option("--statement-timeout", options.statementTimeoutSeconds,
                 "Seconds one statement run from a reply may take (0: no limit)")
      ->option_text("SECONDS")
      ->default_str("30")
      ->check(CLI::Range(0L, 86400L));
  app.add_option("--schema-budget", options.schemaBudget,
                 "Bytes of database structure the model gets (about 4 a token); past it, the "
                 "tables a question names and their neighbours go first (0: no limit)")
      ->option_text("BYTES")
      ->default_str("120000")
      ->check(CLI::Validator(
          [](const std::string& value) {
            return !value.empty() && value.find_first_not_of("0123456789") == std::string::npos
                       ? std::string()
                       : std::string("'" + value + "' is not a whole number of bytes");
          },
          ""));

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    result.exitStatus = app.exit(e, out, err);
    return result;
  } catch (const CLI::CallForVersion& e) {
    result.exitStatus = app.exit(e, out, err);
    return result;
  } catch (const CLI::ParseError& e) {
    err << "qorchat: " << e.what() << " (see qorchat --help)\n";
    result.exitStatus = kUsageError;
    return result;
  }

  if (findService(options.service) == nullptr) {
    err << "qorchat: unknown service '" << options.service << "': choose one of " << serviceNames()
        << "\n";
    result.exitStatus = kUsageError;
  } else if (!options.host.empty() && !looksLikeHostUrl(options.host)) {
    err << "qorchat: --host '" << options.host
        << "' is not a URL: write it as http://HOST:PORT or https://HOST\n";
    result.exitStatus = kUsageError;
  } else if (askOption->count() + printOption->count() + (listModels ? 1 : 0) > 1) {
    err << "qorchat: --ask, --print-request and --list-models each make a run of its own: "
           "give one of them\n";
    result.exitStatus = kUsageError;
  } else if (runOption->count() > 0 && askOption->count() == 0) {
    err << "qorchat: --run goes with --ask; in a conversation, type /run N\n";
    result.exitStatus = kUsageError;
  } else if (askOption->count() > 0) {
    options.mode = Mode::Ask;
    options.question = ask;
  } else if (printOption->count() > 0) {
    options.mode = Mode::PrintRequest;
    options.question = printRequest;
  } else if (listModels) {
    options.mode = Mode::ListModels;
  }
  if (!result.exitStatus && (options.mode == Mode::Ask || options.mode == Mode::PrintRequest) &&
      options.question.find_first_not_of(" \t\r\n") == std::string::npos) {
    err << "qorchat: the question is empty: write it after "
        << (options.mode == Mode::Ask ? "--ask" : "--print-request") << "\n";
    result.exitStatus = kUsageError;
  }
  return result;
}

}  // namespace qorchat
