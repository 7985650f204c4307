#pragma once
// /edit: a text handed to the user's own editor and read back.

#include <optional>
#include <string>

namespace qorchat {

// Writes initial to a private temporary file (mode 0600), runs $VISUAL, else $EDITOR, else vi on
// it through the shell (so that "code --wait" works), on the terminal qorchat runs on, and gives
// what the file then holds without its final line breaks. Nothing, with the reason in *problem,
// when the editor cannot be run, fails, or leaves nothing but white space. The file is removed.
std::optional<std::string> editInEditor(const std::string& initial, std::string* problem);

}  // namespace qorchat
