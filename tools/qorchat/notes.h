#pragma once
// The user's notes about a database, in the user's own words (which table holds the truth, what
// business terms mean, the units of amounts): read from --notes FILE or from the database's own
// notes file in the state folder, bounded, and given to the model as one system instruction;
// /notes opens that file in the user's editor.

#include <cstddef>
#include <string>

#include "status.h"

namespace qorchat {

inline constexpr const char* kNotesInstructionKey = "notes";
// The most of the notes the model is given with every question.
inline constexpr std::size_t kNotesBytes = std::size_t{8} * 1024;

// The notes file of the database with this identity (Database::identity):
// <stateFolder>/notes/<name>.md, the name readable from the identity ("home_ann_shop.db-…") and
// told apart from others' by a hash of the whole identity.
std::string notesPath(const std::string& stateFolder, const std::string& databaseIdentity);

struct Notes {
  // What the model is given: the file without its <!-- --> comments (the template's among them),
  // trimmed, as valid UTF-8, at most kNotesBytes.
  std::string text;
  // One line for the user when the file was cut to kNotesBytes; empty otherwise. It names the
  // file: show it through terminalSafe.
  std::string notice;
};

// Reads the notes at path. A missing file gives no notes when it need not exist (the database's
// own notes file) and fails when it must (--notes FILE); any other failure says why.
Result<Notes> readNotes(const std::string& path, bool mustExist);

// The instruction that gives the model the notes; empty when there are none.
std::string notesInstruction(const Notes& notes);

// Opens the notes file at path in $VISUAL, else $EDITOR, else vi, starting from a short template
// comment when the file is missing, and writes back what the editor leaves (the file private,
// its folder made private when missing). An editor that fails or leaves nothing changes nothing:
// the failure says so. databaseName goes into the template.
Status editNotes(const std::string& path, const std::string& databaseName);

}  // namespace qorchat
