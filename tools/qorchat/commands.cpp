// The table of conversation commands and what each does.
#include "commands.h"

#include <array>
#include <charconv>
#include <ctime>
#include <optional>
#include <ostream>
#include <system_error>

#include "conversation.h"
#include "display.h"
#include "external_editor.h"
#include "format_names.h"
#include "result_table.h"
#include "text.h"

namespace qorchat {
namespace {

bool showHelp(Conversation&, Display& display, std::string_view) {
  display.out() << commandHelp();
  return true;
}

bool showModels(Conversation& conversation, Display& display, std::string_view) {
  const Result<std::vector<std::string>> models = conversation.models();
  if (!models) return true;
  for (const std::string& name : *models)
    display.out() << (name == conversation.model() ? "* " : "  ") << terminalSafe(name) << "\n";
  return true;
}

bool model(Conversation& conversation, Display& display, std::string_view name) {
  if (!name.empty() && !conversation.switchModel(std::string(name))) return true;
  display.out() << "model: " << terminalSafe(conversation.model()) << "\n";
  return true;
}

bool temperature(Conversation& conversation, Display& display, std::string_view value) {
  if (!value.empty()) {
    double wanted = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), wanted);
    if (error != std::errc() || end != value.data() + value.size() || !(wanted >= 0) ||
        wanted > 2) {
      display.note("temperature '" + std::string(value) +
                   "' is not a number from 0 to 2: write e.g. /temperature 0.2");
      return true;
    }
    (void)conversation.setTemperature(wanted);
  }
  const std::optional<double> now = conversation.temperature();
  display.out() << "temperature: ";
  if (now) {
    display.out() << text::shortNumber(*now) << "\n";
  } else {
    display.out() << "the service's default\n";
  }
  return true;
}

bool schema(Conversation& conversation, Display& display, std::string_view) {
  const std::string text = conversation.schemaText();
  display.showOutside(text);
  // About four bytes a token for this kind of text; a model's own tokenizer decides.
  if (const std::string keys = conversation.uniqueKeysText(); !keys.empty())
    display.showOutside("-- " + keys + "\n");
  display.out() << "-- " << text.size() << " bytes, about " << (text.size() + 3) / 4 << " tokens\n";
  if (!conversation.scopeInstruction().empty()) {
    display.out() << "-- " << conversation.scopeInstruction() << " (--schema-budget "
                  << conversation.options().schemaBudget
                  << " bytes; a question that names a table brings it in)\n";
  }
  return true;
}

bool usage(Conversation& conversation, Display& display, std::string_view) {
  display.out() << "tokens since the start: " << conversation.usageText() << "\n";
  return true;
}

bool run(Conversation& conversation, Display& display, std::string_view argument) {
  std::size_t number = 1;
  if (!argument.empty()) {
    const auto [end, error] =
        std::from_chars(argument.data(), argument.data() + argument.size(), number);
    if (error != std::errc() || end != argument.data() + argument.size() || number == 0) {
      display.note("'" + std::string(argument) + "' is not a block number: write e.g. /run 2");
      return true;
    }
  }
  const std::size_t count = conversation.blocks().size();
  if (count == 0) {
    display.note("the last reply holds no SQL block to run");
  } else if (number > count) {
    display.note("there is no block " + std::to_string(number) + ": the last reply has " +
                 (count == 1
                      ? std::string("one (/run 1)")
                      : std::to_string(count) + " (/run 1 to /run " + std::to_string(count) + ")"));
  } else {
    (void)conversation.runBlock(number - 1);
  }
  return true;
}

bool sql(Conversation& conversation, Display& display, std::string_view statement) {
  if (statement.empty()) {
    display.note("write the statement after /sql, e.g. /sql SELECT count(*) FROM orders");
    return true;
  }
  (void)conversation.runSql(std::string(statement));
  return true;
}

bool describe(Conversation& conversation, Display& display, std::string_view name) {
  if (name.empty()) {
    display.note("name a table or view: /describe orders");
    return true;
  }
  (void)conversation.describe(name);
  return true;
}

// The value of a whole-number setting typed after a command; nothing (and a note) when it is not
// one.
std::optional<std::size_t> wholeNumber(Display& display, std::string_view value,
                                       std::string_view example) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (error != std::errc() || end != value.data() + value.size() || number == 0) {
    display.note("'" + std::string(value) + "' is not a positive whole number: write e.g. " +
                 std::string(example));
    return std::nullopt;
  }
  return number;
}

bool limit(Conversation& conversation, Display& display, std::string_view value) {
  if (!value.empty()) {
    if (const std::optional<std::size_t> rows = wholeNumber(display, value, "/limit 500"))
      conversation.maxRows = *rows;
  }
  display.out() << "rows shown: at most " << conversation.maxRows << "\n";
  return true;
}

bool format(Conversation& conversation, Display& display, std::string_view value) {
  if (!value.empty()) {
    const std::optional<OutputFormat> chosen = parseOutputFormat(value);
    if (!chosen) {
      display.note("unknown format '" + std::string(value) +
                   "': choose table, csv, json or markdown");
      return true;
    }
    conversation.format = *chosen;
  }
  display.out() << "format: " << outputFormatName(conversation.format) << "\n";
  return true;
}

bool nullText(Conversation& conversation, Display& display, std::string_view value) {
  if (!value.empty()) conversation.nullText = std::string(value);
  display.out() << "NULL is shown as " << terminalSafe(conversation.nullText) << "\n";
  return true;
}

bool timing(Conversation& conversation, Display& display, std::string_view value) {
  if (value.empty()) {
    conversation.timing = !conversation.timing;
  } else if (value == "on" || value == "off") {
    conversation.timing = value == "on";
  } else {
    display.note("write /timing, /timing on or /timing off");
    return true;
  }
  display.out() << "Timing is " << (conversation.timing ? "on" : "off") << ".\n";
  return true;
}

bool share(Conversation& conversation, Display& display, std::string_view value) {
  if (!value.empty()) {
    const std::optional<Sharing> chosen = parseSharing(value);
    if (!chosen) {
      display.note("unknown setting '" + std::string(value) + "': choose never, ask or always");
      return true;
    }
    conversation.setSharing(*chosen);
  }
  display.out() << "results and errors sent to the service: " << sharingName(conversation.sharing())
                << "\n";
  return true;
}

bool notes(Conversation& conversation, Display& display, std::string_view) {
  if (const Status status = conversation.editNotes(); !status) display.note(status.message());
  return true;
}

bool explainError(Conversation& conversation, Display& display, std::string_view) {
  const Status status = conversation.explainError();
  if (status.kind() == Status::Kind::kInvalidInput) display.note(status.message());
  return true;
}

bool reset(Conversation& conversation, Display& display, std::string_view) {
  conversation.reset();
  display.out() << "A new conversation begins.\n";
  return true;
}

bool edit(Conversation& conversation, Display& display, std::string_view start) {
  std::string problem;
  const std::optional<std::string> question = editInEditor(std::string(start), &problem);
  if (!question) {
    display.note(problem.empty() ? "nothing asked: the editor left no text" : problem);
    return true;
  }
  // What the editor gave is asked as it stands; show it, since it never went through the prompt.
  display.showOutside(*question);
  display.out() << "\n";
  (void)conversation.ask(*question, true);
  return true;
}

bool history(Conversation& conversation, Display& display, std::string_view) {
  const Result<std::vector<StoredConversation>> stored = conversation.storedConversations();
  if (!stored) {
    display.note(stored.status().message());
    return true;
  }
  if (stored->empty()) display.out() << "No stored conversations yet.\n";
  for (const StoredConversation& entry : *stored) {
    char date[32] = "";
    const std::time_t at = static_cast<std::time_t>(entry.lastEntryAt);
    std::tm local{};
    if (localtime_r(&at, &local) != nullptr)
      std::strftime(date, sizeof date, "%Y-%m-%d %H:%M", &local);
    std::string line = std::string(entry.current ? "* " : "  ") + date + "  " + entry.databaseName +
                       "  " + entry.service;
    if (!entry.name.empty()) line += "  --conversation " + entry.name;
    line += "  (" + std::to_string(entry.entryCount) + " entries)  " +
            ResultTable::fitted(text::oneLine(entry.firstQuestion), 50);
    display.out() << terminalSafe(line) << "\n";
  }
  return true;
}

bool forget(Conversation& conversation, Display& display, std::string_view) {
  if (conversation.forget()) display.out() << "This conversation is deleted; a new one begins.\n";
  return true;
}

bool quit(Conversation&, Display&, std::string_view) {
  return false;
}

constexpr std::array kCommands{
    Command{"/help", "", "", "this list", &showHelp},
    Command{"/models", "", "", "the service's models", &showModels},
    Command{"/model", "", "NAME", "use another model (/model alone shows the current one)", &model},
    Command{"/temperature", "", "X", "set the temperature (/temperature alone shows it)",
            &temperature},
    Command{"/run", "", "[N]",
            "run SQL block N of the last reply (the first by default), read-only", &run},
    Command{"/explain-error", "", "", "ask the model to fix the statement that just failed",
            &explainError},
    Command{"/sql", "", "STATEMENT", "run your own statement, read-only like the model's", &sql},
    Command{"/describe", "/d", "NAME", "one table or view as the model sees it", &describe},
    Command{"/schema", "", "", "the database text the model sees, with its size", &schema},
    Command{"/format", "", "table|csv|json|markdown", "how rows are shown", &format},
    Command{"/limit", "", "N", "show at most N rows of a result", &limit},
    Command{"/null", "", "TEXT", "show NULL values as TEXT", &nullText},
    Command{"/timing", "", "[on|off]", "show how long each statement took", &timing},
    Command{"/share", "", "never|ask|always",
            "whether query results and errors go to the service (the model's queries run only "
            "when they may)",
            &share},
    Command{"/notes", "", "",
            "edit your notes about this database in $VISUAL or $EDITOR; the model gets them",
            &notes},
    Command{"/usage", "", "", "the tokens the service counted since the start", &usage},
    Command{"/reset", "", "", "start a new conversation (the old one stays stored)", &reset},
    Command{"/edit", "", "[TEXT]", "write a question in $VISUAL or $EDITOR, then ask it", &edit},
    Command{"/history", "", "", "the stored conversations: database, service, date, first question",
            &history},
    Command{"/forget", "", "", "delete the current conversation for good", &forget},
    Command{"/quit", "/exit", "", "leave (Ctrl-D too)", &quit},
};

}  // namespace

std::span<const Command> allCommands() {
  return kCommands;
}

std::string commandHelp() {
  constexpr std::size_t kColumn = 20;
  std::string text = "Commands:\n";
  for (const Command& command : kCommands) {
    std::string usage(command.name);
    if (!command.argument.empty()) usage += " " + std::string(command.argument);
    // A usage too long for the column gets a line of its own.
    const std::string gap = usage.size() < kColumn ? std::string(kColumn - usage.size(), ' ')
                                                   : "\n" + std::string(kColumn + 2, ' ');
    text.append("  ").append(usage).append(gap).append(command.help).append("\n");
  }
  text += "Anything else is a question for the model. Ctrl-C cancels a question in flight.\n";
  return text;
}

bool runCommand(Conversation& conversation, Display& display, std::string_view line) {
  const std::size_t blank = line.find_first_of(" \t");
  const std::string_view name = line.substr(0, blank);
  const std::string_view argument =
      blank == std::string_view::npos ? std::string_view() : text::trimmed(line.substr(blank));
  for (const Command& command : kCommands) {
    if (name == command.name || (!command.alias.empty() && name == command.alias)) {
      const bool goOn = command.run(conversation, display, argument);
      display.out().flush();
      return goOn;
    }
  }
  display.note("unknown command " + std::string(name) + ": type /help for the list");
  return true;
}

}  // namespace qorchat
