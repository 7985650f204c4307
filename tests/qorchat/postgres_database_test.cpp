// Tests PostgresDatabase against a real server of the tests' own: the structure as the assistant
// reads it (the CREATE lines of the digest), rights, names without passwords, statements run
// read-only, and qorchat itself describing a PostgreSQL database.

#include <libpq-fe.h>

#include "helpers.h"
#include "postgres_cluster.h"
#include "postgres_database.h"
#include "sqlite_database.h"

namespace {

namespace fs = std::filesystem;
using qorchat::DatabaseError;
using qorchat::DatabaseSettings;
using qorchat::PostgresDatabase;
using qorchat::StatementResult;
using qortest::has;
using qortest::PostgresCluster;
using Lines = std::vector<std::string>;
using Rows = std::vector<std::vector<std::optional<std::string>>>;

// Several schemas, keys across them, a composite key declared out of column order, a partitioned
// table and a key to it, a view, a materialized view, enum, domain and array types, a dropped
// column, and a schema that only the superuser may use.
constexpr const char* kShop = R"(
  CREATE SCHEMA sales;
  CREATE SCHEMA inventory;
  CREATE SCHEMA hidden;
  CREATE SCHEMA archive;
  CREATE TYPE mood AS ENUM ('happy', 'sad');
  CREATE TYPE sales.status AS ENUM ('open', 'closed');
  CREATE DOMAIN positive_money AS numeric(12, 2) CHECK (VALUE > 0);
  CREATE TABLE inventory.products (sku varchar(32), warehouse integer,
    name character varying(255) NOT NULL, tags text[], sizes integer[][], price positive_money,
    PRIMARY KEY (warehouse, sku));
  CREATE TABLE sales.customers (id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY, name text,
    obsolete integer, email varchar(255), joined timestamptz, feeling mood);
  ALTER TABLE sales.customers DROP COLUMN obsolete;
  CREATE TABLE sales.orders (id serial PRIMARY KEY, customer_id bigint REFERENCES sales.customers,
    total numeric(10, 2), state sales.status, placed timestamp(3));
  CREATE TABLE sales.order_lines (order_id integer REFERENCES sales.orders, line smallint,
    warehouse integer, sku varchar(32), quantity integer, PRIMARY KEY (order_id, line),
    FOREIGN KEY (sku, warehouse) REFERENCES inventory.products (sku, warehouse));
  CREATE TABLE measurements (taken date NOT NULL, device integer, value double precision,
    PRIMARY KEY (device, taken)) PARTITION BY RANGE (taken);
  CREATE TABLE measurements_2024 PARTITION OF measurements
    FOR VALUES FROM ('2024-01-01') TO ('2025-01-01');
  CREATE TABLE measurements_2025 PARTITION OF measurements
    FOR VALUES FROM ('2025-01-01') TO ('2026-01-01');
  CREATE TABLE alerts (id integer PRIMARY KEY, device integer, taken date,
    FOREIGN KEY (device, taken) REFERENCES measurements);
  CREATE TABLE hidden.secrets (id integer, code text);
  CREATE VIEW sales.big_orders AS SELECT id, total FROM sales.orders WHERE total > 100;
  CREATE MATERIALIZED VIEW inventory.stock_value AS
    SELECT warehouse, sum(price) AS value FROM inventory.products GROUP BY warehouse;
  INSERT INTO sales.customers (name, email) VALUES ('Ada', 'ada@example.com'), ('Bob', NULL);
  INSERT INTO sales.orders (customer_id, total, state) VALUES (1, 250.00, 'open'), (2, NULL, NULL);
)";

// The digest lines of kShop for a user who may read everything, catalog line excluded.
const Lines kShopLines{
    "CREATE TABLE `hidden`.`secrets` (`id` integer, `code` text)",
    // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): long lines are split on purpose
    "CREATE TABLE `inventory`.`products` (`sku` character varying(32), `warehouse` integer, "
    "`name` character varying(255), `tags` text[], `sizes` integer[], `price` positive_money, "
    "PRIMARY KEY(`warehouse`, `sku`))",
    "CREATE MATERIALIZED VIEW `inventory`.`stock_value` (`warehouse` integer, `value` numeric)",
    "CREATE TABLE `public`.`alerts` (`id` integer, `device` integer, `taken` date, "
    "PRIMARY KEY(`id`), FOREIGN KEY(`device`, `taken`) REFERENCES `public`.`measurements`"
    "(`device`, `taken`))",
    "CREATE TABLE `public`.`measurements` (`taken` date, `device` integer, "
    "`value` double precision, PRIMARY KEY(`device`, `taken`))",
    "CREATE TABLE `sales`.`customers` (`id` bigint, `name` text, "
    "`email` character varying(255), `joined` timestamp with time zone, `feeling` mood, "
    "PRIMARY KEY(`id`))",
    "CREATE TABLE `sales`.`order_lines` (`order_id` integer, `line` smallint, "
    "`warehouse` integer, `sku` character varying(32), `quantity` integer, "
    "PRIMARY KEY(`order_id`, `line`), FOREIGN KEY(`order_id`) REFERENCES `sales`.`orders`(`id`), "
    "FOREIGN KEY(`sku`, `warehouse`) REFERENCES `inventory`.`products`(`sku`, `warehouse`))",
    "CREATE TABLE `sales`.`orders` (`id` integer, `customer_id` bigint, `total` numeric(10,2), "
    "`state` sales.status, `placed` timestamp(3) without time zone, PRIMARY KEY(`id`), "
    "FOREIGN KEY(`customer_id`) REFERENCES `sales`.`customers`(`id`))",
    "CREATE VIEW `sales`.`big_orders` (`id` integer, `total` numeric(10,2))",
};

// The rows of a block's only statement.
Rows rowsOfOnly(const std::vector<StatementResult>& results) {
  EXPECT_EQ(results.size(), 1u);
  return results.empty() ? Rows{} : results[0].rows;
}

class PostgresDatabaseTest : public ::testing::Test {
 protected:
  // A cluster that cannot run fails each test with what it lacks.
  void SetUp() override {
    cluster_ = &PostgresCluster::shared();
    database_ = cluster_->createDatabase();
  }

  std::string conninfo(const std::string& user = "postgres") const {
    return cluster_->conninfo(database_, user);
  }
  std::string scalar(const std::string& sql) const {
    return cluster_->query(sql, database_).at(0).at(0);
  }
  // The CREATE lines the model is told of, after the catalog line of the test's database.
  Lines linesOf(PostgresDatabase& database) const {
    Lines lines = qortest::createLines(database.describeStructure());
    EXPECT_EQ(lines.empty() ? "" : lines.front(), "USE CATALOG `" + database_ + "`");
    if (!lines.empty()) lines.erase(lines.begin());
    return lines;
  }

  // Why the target cannot be opened.
  static std::string refusal(const std::string& target) {
    try {
      PostgresDatabase database(target);
    } catch (const DatabaseError& error) {
      return error.what();
    }
    return "connected";
  }

  PostgresCluster* cluster_ = nullptr;
  std::string database_;
};

TEST_F(PostgresDatabaseTest, DescribesEverySchemaWithTypesAndKeysInOrder) {
  cluster_->execute(kShop, database_);
  // Another session's temporary table lives in a schema of its own, which is nobody's structure.
  std::unique_ptr<PGconn, decltype(&PQfinish)> other(PQconnectdb(conninfo().c_str()), &PQfinish);
  ASSERT_EQ(PQstatus(other.get()), CONNECTION_OK);
  PQclear(PQexec(other.get(), "CREATE TEMP TABLE scratch (x integer)"));

  PostgresDatabase database(conninfo());
  EXPECT_EQ(linesOf(database), kShopLines);
  // An empty schema is listed too, so the model knows it exists.
  EXPECT_TRUE(has(database.describeStructure(), R"("schema_name":"archive")"));
}

TEST_F(PostgresDatabaseTest, ShowsOnlyWhatTheRoleMayReadWithThePasswordFromLibpq) {
  cluster_->execute(kShop, database_);
  cluster_->execute(R"(
    CREATE ROLE reader LOGIN PASSWORD 'reader-pw-7';
    GRANT USAGE ON SCHEMA sales TO reader;
    GRANT SELECT (name, email) ON sales.customers TO reader;
    GRANT SELECT (id, total) ON sales.orders TO reader;
    GRANT SELECT (order_id, warehouse, sku, quantity) ON sales.order_lines TO reader;
    GRANT SELECT ON public.alerts TO reader;)",
                    database_);

  // Without a password from anywhere, libpq's own reason, on one line.
  const std::string refused = refusal(conninfo("reader"));
  EXPECT_TRUE(has(refused, "no password supplied") && !has(refused, "\n")) << refused;

  setenv("PGPASSWORD", "reader-pw-7", 1);
  struct Unset {
    ~Unset() { unsetenv("PGPASSWORD"); }
  } unset;
  PostgresDatabase database(conninfo("reader"));
  EXPECT_EQ(database.identity(), "reader@" + cluster_->socketDir() + ":5432/" + database_);
  // Schemas without USAGE and tables without SELECT are left out; of the other tables only the
  // granted columns show. A key over a column the role cannot read goes, whole: the primary keys
  // of customers and of order_lines (half hidden), the key of orders over customer_id. So do the
  // keys of order_lines and alerts to tables the role cannot read, while the one to orders(id), a
  // granted column, stays.
  EXPECT_EQ(linesOf(database),
            (Lines{
                "CREATE TABLE `public`.`alerts` (`id` integer, `device` integer, "
                "`taken` date, PRIMARY KEY(`id`))",
                "CREATE TABLE `sales`.`customers` (`name` text, `email` character varying(255))",
                "CREATE TABLE `sales`.`order_lines` (`order_id` integer, `warehouse` integer, "
                "`sku` character varying(32), `quantity` integer, "
                "FOREIGN KEY(`order_id`) REFERENCES `sales`.`orders`(`id`))",
                "CREATE TABLE `sales`.`orders` (`id` integer, `total` numeric(10,2), "
                "PRIMARY KEY(`id`))",
            }));
  // What it may not read it cannot query either.
  const std::vector<StatementResult> denied =
      database.runReadOnly("SELECT customer_id FROM sales.orders", 10);
  EXPECT_EQ(denied.size() == 1 ? denied[0].error : "", "permission denied for table orders");
}

TEST_F(PostgresDatabaseTest, NamesAndMessagesNeverShowAPassword) {
  EXPECT_TRUE(PostgresDatabase::accepts("postgresql://user@db.example:5432/shop"));
  EXPECT_TRUE(PostgresDatabase::accepts("postgres://db.example/shop"));
  EXPECT_TRUE(PostgresDatabase::accepts("host=/run/postgresql dbname=shop"));
  EXPECT_FALSE(PostgresDatabase::accepts("shop.db"));
  EXPECT_FALSE(PostgresDatabase::accepts("file:shop.db?mode=ro&cache=shared"));
  // An SQLite file whose name holds an = is still the file.
  const fs::path file = fs::path(cluster_->socketDir()) / "a=b.db";
  std::ofstream(file).close();
  EXPECT_FALSE(PostgresDatabase::accepts(file.string()));
  EXPECT_NE(dynamic_cast<qorchat::SqliteDatabase*>(qorchat::openDatabase(file.string()).get()),
            nullptr);
  EXPECT_NE(dynamic_cast<PostgresDatabase*>(qorchat::openDatabase(conninfo()).get()), nullptr);

  EXPECT_EQ(PostgresDatabase::masked(R"(host=h password = 'it\'s q x' user=u)"),
            "host=h password = **** user=u");
  EXPECT_EQ(PostgresDatabase::masked("junk host=h password=a\\ b sslpassword=k"),
            "junk host=h password=**** sslpassword=****");
  EXPECT_EQ(PostgresDatabase::masked("postgresql://u:p%40ss@h:5/db?pass%77ord=x&sslmode=require"),
            "postgresql://u:****@h:5/db?pass%77ord=****&sslmode=require");
  EXPECT_EQ(PostgresDatabase::masked("postgres://u@h/db"), "postgres://u@h/db");

  // The superuser enters without a password, so one given is never needed, and never shown.
  const std::string expected = "postgres@" + cluster_->socketDir() + ":5432/" + database_;
  PostgresDatabase viaUri("postgresql://postgres:hunter2%21@/" + database_ +
                          "?host=" + cluster_->socketDir() + "&port=5432");
  EXPECT_EQ(viaUri.identity(), expected);
  EXPECT_EQ(viaUri.displayName(), expected);
  PostgresDatabase viaConninfo(conninfo() + " password='hunter2!'");
  EXPECT_EQ(viaConninfo.identity(), expected);

  const std::string missing = refusal(cluster_->conninfo("nowhere") + " password=hunter2");
  EXPECT_EQ(missing.rfind("cannot connect to PostgreSQL database 'host=", 0), 0u) << missing;
  EXPECT_TRUE(has(missing, "password=****'")) << missing;
  EXPECT_TRUE(has(missing, R"(database "nowhere" does not exist)")) << missing;
  // libpq repeats a URI it cannot read, or the part it stumbled on; the password is masked there
  // too, raw or decoded.
  for (const std::string& target :
       {std::string("postgresql://u:hunter2@[::1/db"), std::string("postgresql://u:hunter%32@[::1"),
        std::string("postgresql://u:hunter%zz@h/db"),
        std::string("host=/nowhere password=hunter2 port=x")}) {
    const std::string message = refusal(target);
    EXPECT_FALSE(has(message, "hunter") || has(message, "\n") || message == "connected") << message;
  }
}

TEST_F(PostgresDatabaseTest, RunsStatementsInOrderUntilOneFails) {
  cluster_->execute(R"(
    CREATE TABLE notes (id integer, body text, wide text);
    INSERT INTO notes VALUES (1, NULL, repeat('é', 100000)), (2, 'two', NULL);)",
                    database_);
  PostgresDatabase database(conninfo());

  // Semicolons in literals, quoted names, dollar quotes and comments end nothing.
  const std::string block =
      "SELECT id, body, wide FROM notes ORDER BY id;\n"
      "SELECT 'a;b' AS \"x;y\", $$c;d$$ AS y, $t$e;$$;$t$ AS z, E'\\';' AS w -- f;g\n;\n"
      "/* h; /* i; */ j; */ SELECT g FROM generate_series(1, 1000) g;  -- end;\n";
  const std::vector<StatementResult> results = database.runReadOnly(block, 5);
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(results[0].statement, "SELECT id, body, wide FROM notes ORDER BY id;");
  EXPECT_EQ(results[0].columns, (Lines{"id", "body", "wide"}));
  EXPECT_EQ(results[0].rows, (Rows{{"1", std::nullopt, qortest::repeated("é", 100000)},
                                   {"2", "two", std::nullopt}}));
  EXPECT_EQ(results[1].statement,
            "SELECT 'a;b' AS \"x;y\", $$c;d$$ AS y, $t$e;$$;$t$ AS z, E'\\';' AS w -- f;g\n;");
  EXPECT_EQ(results[1].columns, (Lines{"x;y", "y", "z", "w"}));
  EXPECT_EQ(results[1].rows, (Rows{{"a;b", "c;d", "e;$$;", "';"}}));
  EXPECT_EQ(results[2].statement, "/* h; /* i; */ j; */ SELECT g FROM generate_series(1, 1000) g;");
  EXPECT_EQ(results[2].rowCount, 1000u);
  ASSERT_EQ(results[2].rows.size(), 5u);
  EXPECT_EQ(results[2].rows[4][0], "5");
  for (const StatementResult& result : results)
    EXPECT_EQ(result.error, "") << result.statement;

  // The first failure ends the block and carries the server's own text.
  const std::vector<StatementResult> failed =
      database.runReadOnly("SELECT 1 AS one; SELECT * FROM missing; SELECT 2", 5);
  ASSERT_EQ(failed.size(), 2u);
  EXPECT_EQ(failed[0].rows, (Rows{{"1"}}));
  EXPECT_EQ(failed[1].statement, "SELECT * FROM missing;");
  EXPECT_EQ(failed[1].error, R"(relation "missing" does not exist)");

  // A statement past the limit is cancelled by the server, and the next block runs as usual.
  PostgresDatabase hurried(conninfo(), DatabaseSettings{std::chrono::milliseconds(300)});
  const auto start = std::chrono::steady_clock::now();
  const std::vector<StatementResult> slow =
      hurried.runReadOnly("SELECT 1; SELECT pg_sleep(10); SELECT 3", 5);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  ASSERT_EQ(slow.size(), 2u);
  EXPECT_EQ(slow[1].error, "canceling statement due to statement timeout");
  // Ctrl-C reaches the server from another thread; nothing happens while no statement runs.
  hurried.interrupt();
  std::thread interrupter([&database] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    database.interrupt();
  });
  const std::vector<StatementResult> stopped = database.runReadOnly("SELECT pg_sleep(10)", 5);
  interrupter.join();
  ASSERT_EQ(stopped.size(), 1u);
  EXPECT_EQ(stopped[0].error, "canceling statement due to user request");

  EXPECT_EQ(rowsOfOnly(hurried.runReadOnly("SELECT count(*) FROM notes", 5)), Rows{{"2"}});

  // A session the server ended while idle is opened again for the next block or description.
  const std::string terminate =
      "SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity WHERE application_name = "
      "'qorchat' AND datname = '" +
      database_ + "'";
  cluster_->execute(terminate);
  EXPECT_EQ(rowsOfOnly(database.runReadOnly("SELECT 7", 5)), Rows{{"7"}});
  cluster_->execute(terminate);
  EXPECT_NO_THROW(hurried.describeStructure());

  EXPECT_TRUE(database.runReadOnly("  -- nothing here ;\n ; /* ; */ ", 5).empty());
}

TEST_F(PostgresDatabaseTest, TheServerRefusesWritesProgramsAndEscapesEvenToASuperuser) {
  cluster_->execute(
      "CREATE TABLE kept (id integer PRIMARY KEY); INSERT INTO kept VALUES (1), (2);"
      "CREATE SEQUENCE counter",
      database_);
  PostgresDatabase database(conninfo());
  const fs::path marker = fs::path(cluster_->socketDir()) / "program-ran";
  const auto errors = [&](const std::string& sql) {
    Lines texts;
    for (const StatementResult& result : database.runReadOnly(sql, 10))
      texts.push_back(result.error);
    return texts;
  };

  EXPECT_EQ(errors("INSERT INTO kept VALUES (3)"),
            Lines{"cannot execute INSERT in a read-only transaction"});
  EXPECT_EQ(errors("DROP TABLE kept"),
            Lines{"cannot execute DROP TABLE in a read-only transaction"});
  // The superuser's statements run as pg_read_all_data, which may read but use no sequence.
  EXPECT_EQ(errors("SELECT nextval('counter')"), Lines{"permission denied for sequence counter"});
  EXPECT_EQ(errors("COPY (SELECT 1) TO PROGRAM 'touch " + marker.string() + "'"),
            Lines{"must be superuser or have privileges of the pg_execute_server_program role to "
                  "COPY to or from an external program"});
  // The transaction's snapshot is taken before the block: it cannot be made writable.
  EXPECT_EQ(errors("SET TRANSACTION READ WRITE; INSERT INTO kept VALUES (3)"),
            Lines{"transaction read-write mode must be set before any query"});
  // Ending the transaction, or taking the superuser's rights back, stops the block there.
  EXPECT_EQ(errors("COMMIT; INSERT INTO kept VALUES (3)"),
            (Lines{"", "not run: the statement before ended the read-only transaction"}));
  EXPECT_EQ(errors("RESET ROLE; COPY (SELECT 1) TO PROGRAM 'touch " + marker.string() + "'"),
            (Lines{"", "not run: the statement before took back a superuser's rights"}));
  // Nor can a block turn read-only off for what it runs after a COMMIT.
  EXPECT_EQ(errors("COMMIT; SET default_transaction_read_only = off; COMMIT; "
                   "INSERT INTO kept VALUES (3)"),
            (Lines{"", "not run: the statement before ended the read-only transaction"}));

  EXPECT_FALSE(fs::exists(marker));
  EXPECT_EQ(scalar("SELECT string_agg(id::text, ',' ORDER BY id) FROM kept"), "1,2");
  EXPECT_EQ(scalar("SELECT last_value FROM counter"), "1");
  // A setting committed by a block does not outlive it.
  errors("SET search_path = nowhere; COMMIT");
  EXPECT_EQ(rowsOfOnly(database.runReadOnly("SHOW search_path", 1)), Rows{{"\"$user\", public"}});
  // Reading is still reading: the superuser's statements see every table.
  EXPECT_EQ(errors("SELECT count(*) FROM kept; SELECT count(*) FROM pg_catalog.pg_class"),
            (Lines{"", ""}));
}

// qorchat itself, given a connection string: the request it would send describes the database.
TEST_F(PostgresDatabaseTest, QorchatPrintsARequestDescribingTheDatabase) {
  cluster_->execute(kShop, database_);
  const std::string state = cluster_->socketDir() + "/state-" + database_;
  const std::map<std::string, std::string> env{{"XDG_STATE_HOME", state}, {"HOME", state}};
  const qortest::Outcome run = qortest::runQorchat(
      {"--db", conninfo(), "--service", "ollama", "--print-request", "Which orders are big?"}, env);
  ASSERT_EQ(run.status, 0) << run.err;
  for (const std::string& line : {std::string("USE CATALOG `") + database_ + "`", kShopLines[1],
                                  kShopLines[2], kShopLines[6], kShopLines[8]}) {
    EXPECT_TRUE(has(run.out, line)) << line;
  }

  const qortest::Outcome refused = qortest::runQorchat(
      {"--db", cluster_->conninfo("nowhere") + " password=hunter2", "--print-request", "Hi"}, env);
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err.rfind("qorchat: cannot connect to PostgreSQL database '", 0), 0u)
      << refused.err;
  EXPECT_TRUE(has(refused.err, R"(database "nowhere" does not exist)"));
  EXPECT_FALSE(has(refused.err, "hunter2")) << refused.err;
  EXPECT_EQ(refused.err.find('\n'), refused.err.size() - 1) << refused.err;
}

}  // namespace
