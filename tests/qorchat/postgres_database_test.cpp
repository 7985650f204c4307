// Tests what only PostgreSQL does: schemas, partitions and materialized views as the model is
// told them, rights that hide columns, tables and schemas, nonstandard literals, reopened sessions.
#include "db/postgres.h"

#include <libpq-fe.h>

#include "helpers.h"
#include "postgres_cluster.h"

namespace {

using qorchat::PostgresDatabase;
using qortest::opened;
using qortest::ran;
using qortest::Rows;
using Lines = std::vector<std::string>;

// Several schemas (one empty, one only the superuser may use), keys across them, a partitioned
// table, a view and a materialized view, domain, enum and array types, a dropped column, and unique
// keys of every kind (a partial one, one over an expression, one that repeats the primary key).
constexpr const char* kShop = R"(
  CREATE SCHEMA sales; CREATE SCHEMA inventory; CREATE SCHEMA hidden; CREATE SCHEMA archive;
  CREATE TYPE sales.status AS ENUM ('open', 'closed'); CREATE TABLE hidden.secrets (id integer);
  CREATE DOMAIN money2 AS numeric(12, 2) CHECK (VALUE > 0);
  CREATE TABLE inventory.products (sku text, warehouse integer, tags text[], price money2,
    PRIMARY KEY (warehouse, sku));
  CREATE TABLE sales.customers (id bigint PRIMARY KEY, obsolete integer,
    email varchar(255) NOT NULL);
  ALTER TABLE sales.customers DROP COLUMN obsolete;
  CREATE TABLE sales.orders (id serial PRIMARY KEY, customer_id bigint REFERENCES sales.customers,
    total numeric(10, 2), state sales.status);
  CREATE TABLE sales.order_lines (order_id integer REFERENCES sales.orders, line smallint,
    warehouse integer, sku text, PRIMARY KEY (order_id, line),
    FOREIGN KEY (sku, warehouse) REFERENCES inventory.products (sku, warehouse));
  CREATE TABLE readings (taken date, device integer, PRIMARY KEY (device, taken)) PARTITION BY
    RANGE (taken);
  CREATE TABLE readings_2024 PARTITION OF readings FOR VALUES FROM ('2024-01-01') TO ('2025-01-01');
  CREATE VIEW sales.big_orders AS SELECT id, total FROM sales.orders WHERE total > 100;
  CREATE MATERIALIZED VIEW inventory.stock AS SELECT warehouse, sum(price) FROM inventory.products
    GROUP BY warehouse;
  CREATE UNIQUE INDEX ON sales.customers (email) INCLUDE (id);
  CREATE UNIQUE INDEX ON sales.customers (lower(email)); CREATE UNIQUE INDEX ON sales.orders (id);
  CREATE UNIQUE INDEX ON sales.orders (state) WHERE state = 'open';
  ALTER TABLE sales.orders ADD UNIQUE (customer_id, total);
  ALTER TABLE readings ADD UNIQUE (taken, device); CREATE UNIQUE INDEX ON inventory.stock (warehouse);)";

// The CREATE lines the model is told of, then the schemas, for the superuser and for a role that
// may use part of it.
constexpr const char* kShopLines =
    "CREATE TABLE `hidden`.`secrets` (`id` integer)\nCREATE TABLE `inventory`.`products` (`sku` "
    "text, `warehouse` integer, `tags` text[], `price` money2, PRIMARY KEY(`warehouse`, `sku`))\n"
    "CREATE MATERIALIZED VIEW `inventory`.`stock` (`warehouse` integer, `sum` numeric)\nCREATE "
    "TABLE `public`.`readings` (`taken` date, `device` integer, PRIMARY KEY(`device`, `taken`))\n"
    "CREATE TABLE `sales`.`customers` (`id` bigint, `email` character varying(255) NOT NULL, "
    "PRIMARY KEY(`id`))\nCREATE TABLE `sales`.`order_lines` (`order_id` integer, `line` smallint, "
    "`warehouse` integer, `sku` text, PRIMARY KEY(`order_id`, `line`), FOREIGN KEY(`order_id`) "
    "REFERENCES `sales`.`orders`(`id`), FOREIGN KEY(`sku`, `warehouse`) REFERENCES "
    "`inventory`.`products`(`sku`, `warehouse`))\nCREATE TABLE `sales`.`orders` (`id` integer, "
    "`customer_id` bigint, `total` numeric(10,2), `state` sales.status, PRIMARY KEY(`id`), "
    "FOREIGN KEY(`customer_id`) REFERENCES `sales`.`customers`(`id`))\nCREATE VIEW "
    "`sales`.`big_orders` (`id` integer, `total` numeric(10,2))\n"
    "schemas: archive hidden inventory public sales\nUnique keys: inventory.stock(warehouse); "
    "public.readings(taken, device); sales.customers(email); sales.orders(customer_id, total).";
constexpr const char* kReaderLines =
    "CREATE TABLE `public`.`readings` (`taken` date, `device` integer, PRIMARY KEY(`device`, "
    "`taken`))\nCREATE TABLE `sales`.`customers` (`email` character varying(255) NOT NULL)\n"
    "CREATE TABLE `sales`.`order_lines` (`order_id` integer NOT NULL, `warehouse` integer, `sku` "
    "text, FOREIGN "
    "KEY(`order_id`) REFERENCES `sales`.`orders`(`id`))\nCREATE TABLE `sales`.`orders` (`id` "
    "integer, `total` numeric(10,2), PRIMARY KEY(`id`))\nschemas: public sales\nUnique keys: "
    "public.readings(taken, device); sales.customers(email).";

class PostgresDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    cluster_ = &qortest::PostgresCluster::shared();
    database_ = cluster_->createDatabase();
  }
  std::string described(PostgresDatabase& database) const {
    const Lines lines = qortest::describedLines(database);
    EXPECT_EQ(lines.at(0), "USE CATALOG `" + database_ + "`");
    std::string text;
    for (std::size_t i = 1; i < lines.size(); ++i)
      text += lines[i] + "\n";
    text += "schemas:";
    const auto structure = database.describe();
    for (const qorchat::Schema& schema : structure->catalogs.at(0).schemas)
      text += " " + schema.name;
    return text + "\n" + qorchat::uniqueKeysInstruction(*structure);
  }

  qortest::PostgresCluster* cluster_ = nullptr;
  std::string database_;
};

// What the superuser sees, then a role with rights to some of it, its password from libpq.
TEST_F(PostgresDatabaseTest, DescribesWhatTheRoleMayUse) {
  cluster_->execute(kShop, database_);
  // Another session's temporary table is nobody's structure; an empty schema is listed.
  std::unique_ptr<PGconn, decltype(&PQfinish)> other(
      PQconnectdb(cluster_->conninfo(database_).c_str()), &PQfinish);
  PQclear(PQexec(other.get(), "CREATE TEMP TABLE scratch (x integer)"));
  EXPECT_EQ(described(*opened(PostgresDatabase::connect(cluster_->conninfo(database_)))),
            kShopLines);

  cluster_->execute(R"(CREATE ROLE reader LOGIN PASSWORD 'reader-pw-7';
    GRANT USAGE ON SCHEMA sales TO reader;
    GRANT SELECT (email) ON sales.customers TO reader;
    GRANT SELECT (id, total) ON sales.orders TO reader;
    GRANT SELECT (order_id, warehouse, sku) ON sales.order_lines TO reader;
    GRANT SELECT ON readings TO reader;)",
                    database_);
  // Without a password from anywhere, libpq's own reason, on one line.
  const std::string refused =
      PostgresDatabase::connect(cluster_->conninfo(database_, "reader")).status().message();
  EXPECT_TRUE(qortest::has(refused, "no password supplied") && !qortest::has(refused, "\n"))
      << refused;

  setenv("PGPASSWORD", "reader-pw-7", 1);
  const auto database = opened(PostgresDatabase::connect(cluster_->conninfo(database_, "reader")));
  unsetenv("PGPASSWORD");
  EXPECT_EQ(database->identity(), "reader@" + cluster_->socketDir() + ":5432/" + database_);
  EXPECT_EQ(database->displayName(), database->identity());
  // Schemas without USAGE and tables without SELECT are left out, and of the other tables only
  // the granted columns show. A key over a column the role cannot read goes, whole (the keys of
  // customers and order_lines, the key of orders over customer_id), and so does one to a table it
  // cannot read (products); the one to orders(id), a granted column, stays.
  EXPECT_EQ(described(*database), kReaderLines);
  EXPECT_EQ(ran(*database, "SELECT customer_id FROM sales.orders").at(0).status.message(),
            "permission denied for table orders");
}

// A session whose literals are not standard reads a backslash as an escape. Where the parser that
// judged the block reads two literals, '\' and ' , pg_advisory_lock(1) -- ', such a session would
// read one, '\', ', and then a call. The run's session reads literals as the parser does.
TEST_F(PostgresDatabaseTest, LiteralsAreReadAsTheParserReadsThemAndIdleSessionsReopen) {
  const auto nonstandard = opened(PostgresDatabase::connect(
      cluster_->readerConninfo(database_) +
      " options='-c standard_conforming_strings=off -c escape_string_warning=off'"));
  EXPECT_EQ(ran(*nonstandard, "SELECT '\\', ' , pg_advisory_lock(1) -- '").at(0).rows,
            (Rows{{"\\", " , pg_advisory_lock(1) -- "}}));

  // The long-lived session that reads the structure, ended by the server while idle, reopens.
  cluster_->execute(
      "SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity WHERE application_name = "
      "'qorchat' AND datname = '" +
      database_ + "'");
  EXPECT_TRUE(nonstandard->describe());
  EXPECT_EQ(ran(*nonstandard, "SELECT 7").at(0).rows, Rows{{"7"}});
}

}  // namespace
