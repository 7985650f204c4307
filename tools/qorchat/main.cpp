// qorchat: a terminal chat about an SQLite or PostgreSQL database with one of the library's model
// services.
#include <iostream>

#include "app.h"
#include "command_line.h"
#include "terminal.h"

int main(int argc, char** argv) {
  qorchat::CommandLine commandLine = qorchat::parseCommandLine(argc, argv, std::cout, std::cerr);
  if (commandLine.exitStatus) return *commandLine.exitStatus;
  qorchat::installInterruptHandler();
  qorchat::App app(std::move(commandLine.options), std::cout, std::cerr);
  return app.run();
}
