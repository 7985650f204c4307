#pragma once
// The commands of a conversation, in one table: name, argument, one help line, handler. /help is
// printed from it and the dispatch reads it, so a command is written down once.

#include <span>
#include <string>
#include <string_view>

namespace qorchat {

class Conversation;
class Display;

struct Command {
  std::string_view name;      // "/run"
  std::string_view alias;     // another name for it, or empty
  std::string_view argument;  // as help shows it: "[N]", "NAME"; empty for none
  std::string_view help;
  // Does the command; false when it asks to leave.
  bool (*run)(Conversation& conversation, Display& display, std::string_view argument);
};

std::span<const Command> allCommands();
// The help text, from the table.
std::string commandHelp();
// Runs the /command the line holds; false when it asks to leave.
bool runCommand(Conversation& conversation, Display& display, std::string_view line);

}  // namespace qorchat
