#pragma once
// The line editor on a terminal, through libedit: emacs keys and the user's editrc, the input
// history kept in a private file, a bracketed paste taken whole into the line (its line breaks
// kept), Tab completing commands and database names, and Ctrl-C abandoning the line.

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "completion.h"

typedef struct editline EditLine;
typedef struct history History;

namespace qorchat {

class LineEditor {
 public:
  enum class Outcome { kLine, kCancelled, kEnd };
  struct Read {
    Outcome outcome;
    std::string text;  // of a line: what was typed or pasted, without the final line break
  };

  // interrupted is set by the SIGINT handler: while a line is read it means Ctrl-C. The history is
  // loaded from and saved to historyFile, none when empty.
  LineEditor(std::atomic<bool>& interrupted, std::string historyFile);
  ~LineEditor();
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  // One line, bracketed paste on while it is read. kEnd: Ctrl-D on an empty line, or the terminal
  // gone. kCancelled: Ctrl-C.
  Read read(const std::string& prompt);
  // Adds a whole question to the input history and saves it, so that a killed session keeps it.
  void remember(const std::string& question);
  // The names Tab completes besides the commands.
  void setCompletionWords(CompletionWords words) { words_ = std::move(words); }

 private:
  static LineEditor& of(EditLine* editLine);
  static char* promptOf(EditLine* editLine);
  static int readCharacter(EditLine* editLine, wchar_t* character);
  static unsigned char onInterrupt(EditLine* editLine, int key);
  static unsigned char onPaste(EditLine* editLine, int key);
  static unsigned char onTab(EditLine* editLine, int key);

  std::atomic<bool>& interrupted_;
  std::string historyFile_;
  EditLine* editLine_ = nullptr;
  History* history_ = nullptr;
  std::string prompt_;
  bool cancelled_ = false;
  std::vector<std::string> commands_;
  CompletionWords words_;
  std::optional<std::string> lastTab_;  // the line before the cursor at an ambiguous Tab
};

}  // namespace qorchat
