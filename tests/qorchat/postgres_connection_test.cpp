// Tests, without a server, what qorchat reads in a PostgreSQL connection text: which --db names a
// server, and that no password of it shows in a name or in libpq's messages.
#include "db/postgres_connection.h"

#include "db/postgres.h"
#include "helpers.h"

namespace {

using qortest::has;

TEST(PostgresConnection, TellsAServerFromAFile) {
  const qortest::TempDir dir;
  const std::string file = (dir.path / "a=b.db").string();
  std::ofstream(file).close();
  const std::pair<std::string, bool> targets[] = {
      {"postgresql://user@db.example:5432/shop", true}, {"postgres://db.example/shop", true},
      {"host=/run/postgresql dbname=shop", true},       {"shop.db", false},
      {"file:shop.db?mode=ro&cache=shared", false},     {file, false},
  };
  for (const auto& [target, server] : targets)
    EXPECT_EQ(qorchat::postgres::accepts(target), server) << target;
}

TEST(PostgresConnection, MasksEveryPassword) {
  const std::pair<const char*, const char*> targets[] = {
      {R"(host=h password = 'it\'s q x' user=u)", "host=h password = **** user=u"},
      {"junk host=h password=a\\ b sslpassword=k", "junk host=h password=**** sslpassword=****"},
      {"postgresql://u:p%40ss@h:5/db?pass%77ord=x&sslmode=require",
       "postgresql://u:****@h:5/db?pass%77ord=****&sslmode=require"},
      {"postgresql://h/db?password=a@b", "postgresql://h/db?password=****"},
      {"postgres://u@h/db", "postgres://u@h/db"},
      // Unencoded, a / or @ in the password makes libpq read the text otherwise: still masked.
      {"postgresql://u:pa/ss@h/db", "postgresql://u:****@h/db"},
      {"postgresql://u:p@s?s/x@h:5/db?sslmode=require",
       "postgresql://u:****@h:5/db?sslmode=require"},
  };
  for (const auto& [target, masked] : targets)
    EXPECT_EQ(qorchat::postgres::masked(target), masked);
}

TEST(PostgresConnection, MessagesLoseThePasswordsRawOrDecodedOnOneLine) {
  const std::tuple<const char*, const char*, const char*> messages[] = {
      {"postgresql://u:hunter%32@h/db",
       "invalid URI \"postgresql://u:hunter%32@h/db\"\n  hunter2\n",
       "invalid URI \"postgresql://u:****@h/db\"; ****"},
      {"password=ab sslpassword=xaby", "xaby ab", "**** ****"},
  };
  for (const auto& [target, message, cleaned] : messages)
    EXPECT_EQ(qorchat::postgres::MessageCleaner(target).clean(message), cleaned);

  // libpq repeats a URI it cannot read, or the part it stumbled on; none of these reaches a server.
  for (const char* target :
       {"postgresql://u:hunter2@[::1/db", "postgresql://u:hunter%32@[::1",
        "postgresql://u:hunter%zz@h/db", "host=/nowhere password=hunter2 port=x",
        "host=/nowhere password=hunter2"}) {
    const std::string message = qorchat::PostgresDatabase::connect(target).status().message();
    const std::string start = "cannot connect to PostgreSQL database '";
    EXPECT_EQ(message.rfind(start + qorchat::postgres::masked(target) + "': ", 0), 0u) << message;
    EXPECT_FALSE(has(message, "hunter") || has(message, "\n")) << message;
  }
}

}  // namespace
