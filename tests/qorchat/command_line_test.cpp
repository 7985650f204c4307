// qorchat's command line and config file: which value wins, which input is refused with what
// line, and how a --host is made fit for the library.
#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "command_line.h"
#include "helpers.h"

namespace {

using qortest::has;

// Parses a command line with the config folder pointed at a fresh one, so that the user's own
// config never leaks in.
struct Parse {
  explicit Parse(std::vector<std::string> args, const std::string& config = "") {
    setenv("XDG_CONFIG_HOME", dir.path.c_str(), 1);
    unsetenv("NO_COLOR");
    if (!config.empty()) {
      std::filesystem::create_directories(dir.path / "qorchat");
      std::ofstream(dir.path / "qorchat" / "config.toml") << config;
    }
    args.insert(args.begin(), "qorchat");
    std::vector<const char*> argv;
    for (const std::string& arg : args)
      argv.push_back(arg.c_str());
    result = qorchat::parseCommandLine(static_cast<int>(argv.size()), argv.data(), out, err);
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
  Parse fromFile({}, config);
  ASSERT_FALSE(fromFile.result.exitStatus) << fromFile.err.str();
  const qorchat::Options& file = fromFile.result.options;
  EXPECT_EQ(file.model, "llama3.2");
  EXPECT_EQ(file.maxRows, 7U);
  EXPECT_EQ(file.format, qorchat::OutputFormat::Csv);
  EXPECT_FALSE(file.pager);
  EXPECT_EQ(file.nullText, "NULL");
  EXPECT_EQ(file.maxTokens, 8192);

  Parse flags({"--model", "qwen", "--max-rows=3", "--format", "json"}, config);
  ASSERT_FALSE(flags.result.exitStatus) << flags.err.str();
  EXPECT_EQ(flags.result.options.model, "qwen");
  EXPECT_EQ(flags.result.options.maxRows, 3U);
  EXPECT_EQ(flags.result.options.format, qorchat::OutputFormat::Json);
  EXPECT_FALSE(flags.result.options.pager);
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

TEST(CommandLine, NoColorInTheEnvironment) {
  setenv("NO_COLOR", "1", 1);
  qortest::TempDir dir;
  setenv("XDG_CONFIG_HOME", dir.path.c_str(), 1);
  std::ostringstream out;
  std::ostringstream err;
  const char* argv[] = {"qorchat"};
  EXPECT_FALSE(qorchat::parseCommandLine(1, argv, out, err).options.color);
  unsetenv("NO_COLOR");
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
