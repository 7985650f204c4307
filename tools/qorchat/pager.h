#pragma once
// Long output through the user's pager ($PAGER, else less) when standard output is a terminal and
// the text does not fit it; straight to standard output otherwise.

#include <cstddef>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace qorchat {

struct TerminalSize {
  std::size_t rows = 0;
  std::size_t columns = 0;
};

// The size of the terminal fd is, from the terminal itself; nothing when fd is not a terminal or
// gives no size.
std::optional<TerminalSize> terminalSizeOf(int fd);

// The command that $PAGER names: "less -S -R -F -X" (long lines chopped, colours passed, quit when
// the text fits one screen, the screen kept) when unset; empty (no pager) when empty or "cat".
std::string pagerCommandFrom(const char* pagerVariable);

// True when the text has more lines than the terminal leaves above the prompt, or a line wider
// than it (colour sequences take no room).
bool needsPaging(std::string_view text, TerminalSize terminal);

struct PagerSettings {
  std::optional<TerminalSize> terminal;  // standard output's; nothing when it is not a terminal
  std::string command;                   // as pagerCommandFrom gives it; empty: none
};

// Standard output's terminal and $PAGER; no command when paging is not wanted (--no-pager).
PagerSettings pagerSettingsForStandardOutput(bool wanted);

// Shows text: through the pager when there is a terminal and a command and the text needs paging,
// else written to out. The pager writes to standard output itself; out is flushed before it
// starts. While it runs, Ctrl-C is left to the pager and a pager that quits before reading
// everything harms nothing. A pager that cannot start gives one line on err and the text on out.
void showPaged(std::string_view text, const PagerSettings& settings, std::ostream& out,
               std::ostream& err);

}  // namespace qorchat
