// qorchat: a terminal chat about an SQLite or PostgreSQL database with one of the library's model
// services.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "app.h"
#include "command_line.h"
#include "terminal.h"

int main(int argc, char** argv) {
  qorchat::CommandLine commandLine = qorchat::parseCommandLine(argc, argv, std::cout, std::cerr);
  if (commandLine.exitStatus) return *commandLine.exitStatus;
  qorchat::installInterruptHandler();
  qorchat::App app(std::move(commandLine.options), std::cout, std::cerr);
  int status = app.run();
  // Rows that never reached their file are a failure, not a success: a full disk, a closed pipe.
  std::cout.flush();
  if (!std::cout || std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    std::cerr << "qorchat: cannot write to standard output: " << std::strerror(errno) << "\n";
    if (status == 0) status = 1;
  }
  return status;
}
