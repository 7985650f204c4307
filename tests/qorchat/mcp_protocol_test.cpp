// qorchat --mcp at the level of JSON-RPC lines, on the sample shop: bad input of every kind is
// answered (or, for a notification, not) and the server goes on; standard output holds only
// protocol lines; the end of the input, even in the middle of a line, ends the run with status 0.
#include <sstream>

#include "db/sqlite.h"
#include "helpers.h"
#include "mcp_protocol.h"
#include "mcp_tools.h"

namespace {

using qortest::has;

const std::string kInitialize =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
    R"("capabilities":{},"clientInfo":{"name":"t","version":"1"}}})"
    "\n";
const std::string kPing = R"({"jsonrpc":"2.0","id":9,"method":"ping"})"
                          "\n";
const std::string kInitialized = R"("id":1,"result":{"protocolVersion":"2025-06-18")";
const std::string kPong = R"({"jsonrpc":"2.0","id":9,"result":{}})";

struct ProtocolCase {
  const char* name;
  std::string input;
  std::vector<std::string> replies;  // a part of each line of standard output, in order
};

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> all;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    all.push_back(line);
  return all;
}

TEST(McpProtocolTest, AnswersEachLineAsJsonRpcSays) {
  const std::string oversized =
      R"({"jsonrpc":"2.0","id":5,"method":")" + std::string(1536 * 1024, 'x') + "\"}\n";
  const ProtocolCase cases[] = {
      {"malformed JSON",
       kInitialize + "{\"jsonrpc\":\"2.0\",\n" + kPing,
       {kInitialized, R"("id":null,"error":{"code":-32700)", kPong}},
      {"a notification gets no answer",
       kInitialize +
           R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
           "\n" +
           R"({"jsonrpc":"2.0","method":"tools/list"})"
           "\n" +
           kPing,
       {kInitialized, kPong}},
      {"unknown method",
       kInitialize + R"({"jsonrpc":"2.0","id":"m","method":"resources/list"})"
                     "\n",
       {kInitialized,
        R"("id":"m","error":{"code":-32601,"message":"unknown method 'resources/list'")"}},
      {"unknown tool",
       kInitialize + R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"drop"}})"
                     "\n",
       {kInitialized, R"("id":2,"error":{"code":-32602,"message":"unknown tool 'drop'")"}},
      {"oversized request",
       kInitialize + oversized + kPing,
       {kInitialized, R"("id":null,"error":{"code":-32600,"message":"the message is longer)",
        kPong}},
      {"a request before initialize",
       R"({"jsonrpc":"2.0","id":3,"method":"tools/list"})"
       "\n" +
           kInitialize,
       {R"("id":3,"error":{"code":-32600)", kInitialized}},
      {"not JSON-RPC 2.0 and a bad id",
       kInitialize +
           R"({"id":4,"method":"ping"})"
           "\n" +
           R"({"jsonrpc":"2.0","id":[4],"method":"ping"})"
           "\n" +
           R"({"jsonrpc":"2.0","id":7,"method":"tools/call","params":[]})"
           "\n",
       {kInitialized, R"("id":4,"error":{"code":-32600)", R"("id":null,"error":{"code":-32600)",
        R"("id":7,"error":{"code":-32602)"}},
      {"a response from the client is ignored",
       kInitialize +
           R"({"jsonrpc":"2.0","id":8,"result":{}})"
           "\n" +
           kPing,
       {kInitialized, kPong}},
      {"input closed in mid-message",
       kInitialize + R"({"jsonrpc":"2.0","id":2,"method":"pi)",
       {kInitialized}},
      {"a bad argument is the tool's failure",
       kInitialize + R"({"jsonrpc":"2.0","id":6,"method":"tools/call","params":{"name":"query",)"
                     R"("arguments":{"sql":"SELECT 1","limit":3}}})"
                     "\n",
       {kInitialized, R"("text":"query: unknown argument 'limit'"}],"isError":true)"}},
  };
  for (const ProtocolCase& row : cases) {
    SCOPED_TRACE(row.name);
    const qortest::Outcome outcome = qortest::runQorchat({"--mcp"}, {}, row.input);
    EXPECT_EQ(outcome.status, 0);
    const std::vector<std::string> printed = lines(outcome.out);
    const std::vector<std::string>& expected = row.replies;
    ASSERT_EQ(printed.size(), expected.size()) << outcome.out;
    for (std::size_t i = 0; i < printed.size(); ++i) {
      EXPECT_TRUE(has(printed[i], expected[i])) << printed[i].substr(0, 300);
      EXPECT_TRUE(YLJson(printed[i]).getIsValidJson()) << printed[i].substr(0, 300);
    }
  }
}

TEST(McpProtocolTest, NeedsNoKeyAndTellsAHalfMessageOnStandardError) {
  const qortest::Outcome outcome = qortest::runQorchat(
      {"--mcp", "--service", "openai"}, {{"OPENAI_API_KEY", ""}},
      kInitialize +
          R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"list_tables"}})"
          "\n{\"jsonrpc\"");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(has(outcome.out,
                  R"("id":2,"result":{"content":[{"type":"text","text":"customers (table)\n)"));
  EXPECT_TRUE(has(outcome.err, "the input ended in the middle of a message")) << outcome.err;
}

// A server runs for days: a table made after it started is listed and described.
TEST(McpProtocolTest, ToolsReadTheStructureAgainWhenItChanged) {
  const qortest::TempDir dir;
  const std::string path = (dir.path / "live.db").string();
  qortest::sqlite(path, "CREATE TABLE kept (id integer);");
  const auto database = qortest::opened(qorchat::SqliteDatabase::open(path));
  qorchat::mcp::Tools tools(*database, *database->describe(), *database->structureStamp());
  const auto called = [&tools](const char* name, const char* arguments) {
    const YLJson parsed(arguments);
    return qorchat::mcp::resultReply(
        nullptr, [&](YLJsonValue& result) { tools.call(name, &parsed, result); });
  };
  EXPECT_TRUE(has(called("list_tables", "{}"), R"("text":"kept (table)\n")"));
  qortest::sqlite(path, "CREATE TABLE added (x integer);");
  EXPECT_TRUE(has(called("list_tables", "{}"), R"(kept (table)\nadded (table)\n)"));
  EXPECT_TRUE(has(called("describe", R"({"names":["added"]})"), "CREATE TABLE `added`"));
}

}  // namespace
