// Tests what only PostgreSQL does, against a server of the tests' own: schemas, partitioned
// tables and materialized views as the model is told them, rights that hide columns, tables and
// schemas, what the server must refuse even a superuser, COPY's rows, literals that are not
// standard, and a session opened again.
#include "db/postgres.h"

#include <libpq-fe.h>

#include "helpers.h"
#include "postgres_cluster.h"

namespace {

namespace fs = std::filesystem;
using qorchat::PostgresDatabase;
using qortest::opened;
using qortest::ran;
using qortest::Rows;
using Lines = std::vector<std::string>;

// Several schemas (one empty, one only the superuser may use), keys across them, a partitioned
// table, a view and a materialized view, domain, enum and array types, and a dropped column.
constexpr const char* kShop = R"(
  CREATE SCHEMA sales;
  CREATE SCHEMA inventory;
  CREATE SCHEMA hidden;
  CREATE SCHEMA archive;
  CREATE TYPE sales.status AS ENUM ('open', 'closed');
  CREATE DOMAIN money2 AS numeric(12, 2) CHECK (VALUE > 0);
  CREATE TABLE inventory.products (sku text, warehouse integer, tags text[], price money2,
    PRIMARY KEY (warehouse, sku));
  CREATE TABLE sales.customers (id bigint PRIMARY KEY, obsolete integer, email varchar(255));
  ALTER TABLE sales.customers DROP COLUMN obsolete;
  CREATE TABLE sales.orders (id serial PRIMARY KEY, customer_id bigint REFERENCES sales.customers,
    total numeric(10, 2), state sales.status);
  CREATE TABLE sales.order_lines (order_id integer REFERENCES sales.orders, line smallint,
    warehouse integer, sku text, PRIMARY KEY (order_id, line),
    FOREIGN KEY (sku, warehouse) REFERENCES inventory.products (sku, warehouse));
  CREATE TABLE readings (taken date, device integer, PRIMARY KEY (device, taken))
    PARTITION BY RANGE (taken);
  CREATE TABLE readings_2024 PARTITION OF readings FOR VALUES FROM ('2024-01-01') TO ('2025-01-01');
  CREATE TABLE hidden.secrets (id integer);
  CREATE VIEW sales.big_orders AS SELECT id, total FROM sales.orders WHERE total > 100;
  CREATE MATERIALIZED VIEW inventory.stock AS SELECT warehouse, sum(price) FROM inventory.products
    GROUP BY warehouse;)";

// NOLINTBEGIN(bugprone-suspicious-missing-comma): long lines are split on purpose
const Lines kShopLines{
    "CREATE TABLE `hidden`.`secrets` (`id` integer)",
    "CREATE TABLE `inventory`.`products` (`sku` text, `warehouse` integer, `tags` text[], "
    "`price` money2, PRIMARY KEY(`warehouse`, `sku`))",
    "CREATE MATERIALIZED VIEW `inventory`.`stock` (`warehouse` integer, `sum` numeric)",
    "CREATE TABLE `public`.`readings` (`taken` date, `device` integer, "
    "PRIMARY KEY(`device`, `taken`))",
    "CREATE TABLE `sales`.`customers` (`id` bigint, `email` character varying(255), "
    "PRIMARY KEY(`id`))",
    "CREATE TABLE `sales`.`order_lines` (`order_id` integer, `line` smallint, `warehouse` integer, "
    "`sku` text, PRIMARY KEY(`order_id`, `line`), "
    "FOREIGN KEY(`order_id`) REFERENCES `sales`.`orders`(`id`), "
    "FOREIGN KEY(`sku`, `warehouse`) REFERENCES `inventory`.`products`(`sku`, `warehouse`))",
    "CREATE TABLE `sales`.`orders` (`id` integer, `customer_id` bigint, `total` numeric(10,2), "
    "`state` sales.status, PRIMARY KEY(`id`), "
    "FOREIGN KEY(`customer_id`) REFERENCES `sales`.`customers`(`id`))",
    "CREATE VIEW `sales`.`big_orders` (`id` integer, `total` numeric(10,2))",
};
// NOLINTEND(bugprone-suspicious-missing-comma)

class PostgresDatabaseTest : public ::testing::Test {
 protected:
  // A cluster that cannot run fails each test with what it lacks.
  void SetUp() override {
    cluster_ = &qortest::PostgresCluster::shared();
    database_ = cluster_->createDatabase();
  }
  std::string conninfo(const std::string& user = "postgres") const {
    return cluster_->conninfo(database_, user);
  }
  // The CREATE lines the model is told of, then the names of the schemas.
  std::pair<Lines, Lines> described(PostgresDatabase& database) const {
    Lines lines = qortest::describedLines(database);
    EXPECT_EQ(lines.at(0), "USE CATALOG `" + database_ + "`");
    const auto structure = database.describe();
    Lines schemas;
    for (const qorchat::Schema& schema : structure->catalogs.at(0).schemas)
      schemas.push_back(schema.name);
    return {Lines(lines.begin() + 1, lines.end()), schemas};
  }
  // The failure of each statement of a block, empty for those that ran.
  static Lines failures(PostgresDatabase& database, const std::string& sql) {
    Lines texts;
    for (const qorchat::StatementResult& result : ran(database, sql))
      texts.push_back(result.status.message());
    return texts;
  }

  qortest::PostgresCluster* cluster_ = nullptr;
  std::string database_;
};

// What the superuser sees, then a role with rights to some of it, its password from libpq.
TEST_F(PostgresDatabaseTest, DescribesWhatTheRoleMayUse) {
  cluster_->execute(kShop, database_);
  // Another session's temporary table lives in a schema of its own, which is nobody's structure.
  std::unique_ptr<PGconn, decltype(&PQfinish)> other(PQconnectdb(conninfo().c_str()), &PQfinish);
  PQclear(PQexec(other.get(), "CREATE TEMP TABLE scratch (x integer)"));
  // An empty schema is listed too, so the model knows it exists.
  EXPECT_EQ(described(*opened(PostgresDatabase::connect(conninfo()))),
            std::make_pair(kShopLines, Lines{"archive", "hidden", "inventory", "public", "sales"}));

  cluster_->execute(R"(CREATE ROLE reader LOGIN PASSWORD 'reader-pw-7';
    GRANT USAGE ON SCHEMA sales TO reader;
    GRANT SELECT (email) ON sales.customers TO reader;
    GRANT SELECT (id, total) ON sales.orders TO reader;
    GRANT SELECT (order_id, warehouse, sku) ON sales.order_lines TO reader;
    GRANT SELECT ON readings TO reader;)",
                    database_);
  // Without a password from anywhere, libpq's own reason, on one line.
  const std::string refused = PostgresDatabase::connect(conninfo("reader")).status().message();
  EXPECT_TRUE(qortest::has(refused, "no password supplied") && !qortest::has(refused, "\n"))
      << refused;

  setenv("PGPASSWORD", "reader-pw-7", 1);
  const auto database = opened(PostgresDatabase::connect(conninfo("reader")));
  unsetenv("PGPASSWORD");
  EXPECT_EQ(database->identity(), "reader@" + cluster_->socketDir() + ":5432/" + database_);
  EXPECT_EQ(database->displayName(), database->identity());
  // Schemas without USAGE and tables without SELECT are left out, and of the other tables only
  // the granted columns show. A key over a column the role cannot read goes, whole (the keys of
  // customers and order_lines, the key of orders over customer_id), and so does one to a table it
  // cannot read (products); the one to orders(id), a granted column, stays.
  EXPECT_EQ(
      described(*database),
      std::make_pair(Lines{"CREATE TABLE `public`.`readings` (`taken` date, `device` integer, "
                           "PRIMARY KEY(`device`, `taken`))",
                           "CREATE TABLE `sales`.`customers` (`email` character varying(255))",
                           "CREATE TABLE `sales`.`order_lines` (`order_id` integer, `warehouse` "
                           "integer, `sku` text, FOREIGN KEY(`order_id`) REFERENCES "
                           "`sales`.`orders`(`id`))",
                           "CREATE TABLE `sales`.`orders` (`id` integer, `total` numeric(10,2), "
                           "PRIMARY KEY(`id`))"},
                     Lines{"public", "sales"}));
  // What it may not read it cannot query either.
  EXPECT_EQ(failures(*database, "SELECT customer_id FROM sales.orders"),
            Lines{"permission denied for table orders"});
}

TEST_F(PostgresDatabaseTest, TheServerRefusesWhatAReadOnlyTransactionAllowsASuperuser) {
  cluster_->execute("CREATE TABLE kept (id integer); CREATE SEQUENCE counter", database_);
  const auto database = opened(PostgresDatabase::connect(conninfo()));
  const std::string touch = "'touch " + (fs::path(cluster_->socketDir()) / "ran").string() + "'";
  const std::pair<std::string, Lines> refusals[] = {
      // The superuser's statements run as pg_read_all_data, which may read but use no sequence.
      {"SELECT nextval('counter')", {"permission denied for sequence counter"}},
      {"COPY (SELECT 1) TO PROGRAM " + touch,
       {"must be superuser or have privileges of the pg_execute_server_program role to COPY to or "
        "from an external program"}},
      // The transaction's snapshot is taken before the block: it cannot be made writable.
      {"SET TRANSACTION READ WRITE; INSERT INTO kept VALUES (3)",
       {"transaction read-write mode must be set before any query"}},
      // Ending the transaction, or taking the superuser's rights back, stops the block there.
      {"COMMIT; INSERT INTO kept VALUES (3)",
       {"", "not run: the statement before ended the read-only transaction"}},
      {"RESET ROLE; COPY (SELECT 1) TO PROGRAM " + touch,
       {"", "not run: the statement before took back a superuser's rights"}},
      {"COMMIT; SET default_transaction_read_only = off; COMMIT; INSERT INTO kept VALUES (3)",
       {"", "not run: the statement before ended the read-only transaction"}},
      // Reading is still reading: the superuser's statements see every table.
      {"SELECT count(*) FROM kept; SELECT count(*) FROM pg_catalog.pg_class", {"", ""}},
  };
  for (const auto& [sql, expected] : refusals)
    EXPECT_EQ(failures(*database, sql), expected) << sql;
  EXPECT_FALSE(fs::exists(fs::path(cluster_->socketDir()) / "ran"));
  EXPECT_EQ(cluster_->query("SELECT count(*) || ':' || (SELECT last_value FROM counter) FROM kept",
                            database_),
            std::vector<Lines>{{"0:1"}});
  // A setting committed by a block does not outlive it.
  failures(*database, "SET search_path = nowhere; COMMIT");
  EXPECT_EQ(ran(*database, "SHOW search_path").at(0).rows, Rows{{"\"$user\", public"}});
}

TEST_F(PostgresDatabaseTest, ResultsOfItsOwnKindsAndASessionEndedWhileIdle) {
  const auto database = opened(PostgresDatabase::connect(conninfo()));
  const auto results = ran(*database,
                           "COPY (VALUES (1, 'a'), (2, NULL)) TO STDOUT; "
                           "SELECT repeat('é', 100000) AS wide");
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].columns, Lines{"COPY"});
  EXPECT_EQ(results[0].rows, (Rows{{"1\ta"}, {"2\t\\N"}}));
  EXPECT_EQ(results[1].rows, Rows{{qortest::repeated("é", 100000)}});
  // Where literals are not standard, a backslash escapes their quote and no statement ends there.
  const auto nonstandard = opened(PostgresDatabase::connect(
      conninfo() + " options='-c standard_conforming_strings=off -c escape_string_warning=off'"));
  EXPECT_EQ(ran(*nonstandard, "SELECT 'a\\'; b'; SELECT 2").at(0).rows, Rows{{"a'; b"}});

  // A session the server ended while idle is opened again for the next block or description.
  const std::string terminate =
      "SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity WHERE application_name = "
      "'qorchat' AND datname = '" +
      database_ + "'";
  cluster_->execute(terminate);
  EXPECT_EQ(ran(*database, "SELECT 7").at(0).rows, Rows{{"7"}});
  cluster_->execute(terminate);
  EXPECT_TRUE(database->describe());
}

}  // namespace
