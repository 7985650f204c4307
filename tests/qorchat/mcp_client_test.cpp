// The official MCP client (tests/mcp/client.mjs, on the SDK that npm ci installs there) drives
// the real qorchat --mcp on a copy of the sample shop and on a throwaway PostgreSQL database.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "helpers.h"
#include "postgres_cluster.h"

namespace {

// The client's exit status, or a failure of the test when node cannot be started.
int runClient(const std::string& database) {
  const std::string script = std::string(MCP_CLIENT_DIR) + "/client.mjs";
  const pid_t child = fork();
  if (child == 0) {
    execlp("node", "node", "--test-reporter=dot", script.c_str(), QORCHAT_BINARY, database.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class McpClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::filesystem::exists(std::string(MCP_CLIENT_DIR) +
                                "/node_modules/@modelcontextprotocol"))
      return;
    // CI installs the client; elsewhere its absence is only a skip.
    const char* ci = std::getenv("CI");
    if (ci != nullptr && std::string(ci) == "true")
      FAIL() << "npm ci --prefix tests/mcp was not run";
    GTEST_SKIP() << "the MCP client is not installed: npm ci --prefix tests/mcp";
  }
};

TEST_F(McpClientTest, DrivesTheSampleShop) {
  const qortest::TempDir dir;
  const std::filesystem::path copy = dir.path / "shop.db";
  std::filesystem::copy_file(std::filesystem::path(QORCHAT_BINARY).parent_path() / "shop.db", copy);
  const std::string before = qortest::sqlite(copy, "SELECT group_concat(id) FROM orders");
  EXPECT_EQ(runClient(copy.string()), 0);
  EXPECT_EQ(qortest::sqlite(copy, "SELECT group_concat(id) FROM orders"), before);
}

TEST_F(McpClientTest, DrivesPostgres) {
  qortest::PostgresCluster& cluster = qortest::PostgresCluster::shared();
  const std::string database = cluster.createDatabase();
  cluster.execute(
      "CREATE TABLE customers (id integer PRIMARY KEY, name text NOT NULL);"
      "CREATE TABLE orders (id integer PRIMARY KEY, customer_id integer REFERENCES customers);"
      "INSERT INTO customers SELECT i, 'customer ' || i FROM generate_series(1, 40) i;"
      "INSERT INTO orders SELECT i, i % 40 + 1 FROM generate_series(1, 90) i; ANALYZE;",
      database);
  EXPECT_EQ(runClient(cluster.readerConninfo(database)), 0);
  EXPECT_EQ(cluster.query("SELECT count(*) FROM customers", database).at(0).at(0), "40");
}

}  // namespace
