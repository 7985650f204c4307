// qorchat's command line and config file: which value wins, which input is refused with what
// line, and how a --host is made fit for the library.
#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "command_line.h"
#include "helpers.h"

namespace {

using qortest::has;

// Parses a command line with the config folder pointed at a fresh one, so that the user's own
// config never leaks in; NO_COLOR as given.
struct Parse {
  explicit Parse(std::vector<std::string> args, const std::string& config = "",
                 const char* noColor = nullptr) {
    setenv("XDG_CONFIG_HOME", dir.path.c_str(), 1);
    noColor ? setenv("NO_COLOR", noColor, 1) : unsetenv("NO_COLOR");
    if (!config.empty()) {
      std::filesystem::create_directories(dir.path / "qorchat");
      std::ofstream(dir.path / "qorchat" / "config.toml") << config;
    }
    args.insert(args.begin(), "qorchat");
    std::vector<const char*> argv;
    for (const std::string& arg : args)
      argv.push_back(arg.c_str());
    result = qorchat::parseCommandLine(static_cast<int>(argv.size()), argv.data(), out, err);
    unsetenv("NO_COLOR");
  }
  qortest::TempDir dir;
  std::ostringstream out;
  std::ostringstream err;
  qorchat::CommandLine result;
};

TEST(CommandLine, ConfigFileSetsDefaultsAndFlagsWin) {
  const std::string config =
      "# mine\nmodel = \"llama3.2\"\nmax-rows = 7\nformat = \"csv\"\nno-pager = true\n"
      "null = \"NULL\"\n";
  // Model, rows, format, pager, NULL text and token limit: from the file, then flags over it.
  const auto seen = [](const Parse& parse) {
    EXPECT_FALSE(parse.result.exitStatus) << parse.err.str();
    const qorchat::Options& o = parse.result.options;
    return std::tuple(o.model, o.maxRows, o.format, o.pager, o.nullText, o.maxTokens);
  };
  EXPECT_EQ(seen(Parse({}, config)),
            std::tuple("llama3.2", 7U, qorchat::OutputFormat::Csv, false, "NULL", 8192));
  EXPECT_EQ(seen(Parse({"--model", "qwen", "--max-rows=3", "--format", "json"}, config)),
            std::tuple("qwen", 3U, qorchat::OutputFormat::Json, false, "NULL", 8192));
  EXPECT_FALSE(Parse({}, "", "1").result.options.color) << "NO_COLOR in the environment";
  EXPECT_TRUE(Parse({}).result.options.color);
}

// Each input must be refused with status 2 and one line that says what is wrong.
TEST(CommandLine, RefusesBadInputWithOneLine) {
  struct Case {
    std::vector<std::string> args;
    std::string config;
    std::string expected;
  };
  const std::vector<Case> cases{
      {{"--temperature", "5"}, "", "out of range: give 0 to 2"},
      {{"--db", ""}, "", "--db is empty: give a file or a connection string"},
      {{"--db=", "--ask", "hi"}, "", "--db is empty"},
      {{"--max-rows", "0"}, "", "--max-rows"},
      {{"--format", "xml"}, "", "--format"},
      {{"--config", "/nonexistent/qorchat.toml"},
       "",
       "--config /nonexistent/qorchat.toml: no such"},
      {{}, "model = \"x\"\n\ncolour = true\n", "config.toml:3: unknown key 'colour'"},
      {{}, "max-rows = lots\n", "config.toml:1: "},
      {{}, "timeout = -4\n", "config.toml:1: "},
      {{}, "ask = \"why?\"\n", "config.toml:1: "},
      {{"--timeout", "-4"}, "timeout = 10\n", "--timeout"},
  };
  for (const Case& c : cases) {
    Parse parse(c.args, c.config);
    const std::string err = parse.err.str();
    EXPECT_EQ(parse.result.exitStatus, std::optional<int>(2)) << c.expected;
    EXPECT_TRUE(has(err, c.expected)) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
  }
  // A value given on the command line is not blamed on the file.
  Parse flagOnly({"--timeout", "-4"}, "timeout = 10\n");
  EXPECT_FALSE(has(flagOnly.err.str(), "config.toml")) << flagOnly.err.str();
}

TEST(CommandLine, HostsAreNormalised) {
  struct Case {
    std::string given;
    std::string expected;
    bool noted;
  };
  const std::vector<Case> cases{
      {"https://api.example.com/v1", "https://api.example.com", false},
      {"http://localhost:8080/v1/", "http://localhost:8080", false},
      {"localhost:11434", "http://localhost:11434", true},
      {"127.0.0.1:8000/v1", "http://127.0.0.1:8000", true},
      {"[::1]:11434", "http://[::1]:11434", true},
      {"10.1.2.3:11434", "http://10.1.2.3:11434", true},
      {"172.20.0.5:80", "http://172.20.0.5:80", true},
      {"172.32.0.5:80", "172.32.0.5:80", false},
      {"192.168.1.9:11434", "http://192.168.1.9:11434", true},
      {"api.example.com:443", "api.example.com:443", false},
      {"10.example.com", "10.example.com", false},
      {"https://192.168.1.9", "https://192.168.1.9", false},
  };
  for (const Case& c : cases) {
    const qorchat::NormalisedHost host = qorchat::normaliseHost(c.given);
    EXPECT_EQ(host.host, c.expected) << c.given;
    EXPECT_EQ(host.note.has_value(), c.noted) << c.given;
  }
  Parse noted({"--host", "localhost:11434"});
  EXPECT_EQ(noted.result.options.host, "http://localhost:11434");
  EXPECT_TRUE(has(noted.err.str(), "using http://localhost:11434")) << noted.err.str();
}

}  // namespace
