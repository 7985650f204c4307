// qorchat: a terminal chat about an SQLite or PostgreSQL database with one of the library's model
// services.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "app.h"
#include "command_line.h"
#include "terminal.h"

namespace {

// Output that never reached its file is a failure, not a success: a full disk, a closed pipe.
int finished(int status) {
  errno = 0;
  std::cout.flush();
  const bool flushed = std::fflush(stdout) == 0;
  const int error = errno;
  if (flushed && std::cout && std::ferror(stdout) == 0) return status;
  std::cerr << "qorchat: cannot write to standard output"
            << (error != 0 ? std::string(": ") + std::strerror(error) : std::string()) << "\n";
  return status == 0 ? 1 : status;
}

}  // namespace

int main(int argc, char** argv) {
  qorchat::CommandLine commandLine = qorchat::parseCommandLine(argc, argv, std::cout, std::cerr);
  if (commandLine.exitStatus) return finished(*commandLine.exitStatus);
  // An MCP server ends when its client closes the input, or by a signal's default action.
  if (commandLine.options.mode != qorchat::Mode::Mcp) qorchat::installInterruptHandler();
  qorchat::App app(std::move(commandLine.options), std::cout, std::cerr);
  return finished(app.run());
}
