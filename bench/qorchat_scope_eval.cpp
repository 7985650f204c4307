// How often the schema scope keeps every table a question needs, on real application schemas:
// loads each <schema>.sql of a folder into its own schema of a throwaway PostgreSQL cluster,
// describes the database as qorchat does, and for each budget prints the share of questions whose
// tables were all chosen. scripts/scope-eval.sh fetches the schemas and runs it:
//   qorchat_scope_eval <folder of .sql files> [--misses]
// --misses also lists, at each budget, the questions that lost a table and the tables lost.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "db/database.h"
#include "postgres_cluster.h"
#include "schema_scope.h"
#include "scope_eval_questions.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Each file into the schema its name gives, as it ships.
void load(const qortest::PostgresCluster& cluster, const std::string& database,
          const fs::path& folder) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(folder))
    if (entry.path().extension() == ".sql") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    const std::string schema = file.stem().string();
    cluster.execute(
        "CREATE SCHEMA " + schema + "; SET search_path TO " + schema + ";\n" + contents(file),
        database);
  }
}

// "schema.table" of every relation, in the order of relationPlaces.
std::vector<std::string> qualifiedNames(const qorchat::Structure& structure) {
  std::vector<std::string> names;
  for (const qorchat::RelationPlace& place : qorchat::relationPlaces(structure))
    names.push_back(structure.catalogs[place.catalog].schemas[place.schema].name + "." +
                    qorchat::relationAt(structure, place).name);
  return names;
}

int evaluate(const qorchat::Structure& structure, bool misses) {
  const std::vector<std::string> names = qualifiedNames(structure);
  for (const scope_eval::Question& question : scope_eval::questions()) {
    for (const std::string& need : question.needs) {
      if (std::find(names.begin(), names.end(), need) == names.end()) {
        std::fprintf(stderr, "scope-eval: no table %s, needed by \"%s\"\n", need.c_str(),
                     question.text);
        return 1;
      }
    }
  }
  std::printf("%zu tables and views, %zu questions\n", names.size(),
              scope_eval::questions().size());
  for (const std::size_t kilobytes : {8, 20, 60}) {
    const auto start = Clock::now();
    const qorchat::SchemaScope scope(structure, kilobytes * 1024);
    const auto built = Clock::now();
    std::size_t kept = 0;
    std::string lost;
    for (const scope_eval::Question& question : scope_eval::questions()) {
      const qorchat::SchemaScope::Choice choice = scope.choose({question.text});
      std::string missing;
      for (const std::string& need : question.needs) {
        const auto at = std::find(names.begin(), names.end(), need) - names.begin();
        if (!choice.chosen[static_cast<std::size_t>(at)]) missing += " " + need;
      }
      if (missing.empty())
        ++kept;
      else
        lost += std::string("  ") + question.text + " -- lost" + missing + "\n";
    }
    const auto done = Clock::now();
    const auto micros = [](auto span) {
      return std::chrono::duration_cast<std::chrono::microseconds>(span).count();
    };
    std::printf(
        "%3zu KB: %5.1f %% of questions keep all their tables (%zu of %zu); scope made in "
        "%lld us, %lld us per question\n",
        kilobytes,
        100.0 * static_cast<double>(kept) / static_cast<double>(scope_eval::questions().size()),
        kept, scope_eval::questions().size(), static_cast<long long>(micros(built - start)),
        static_cast<long long>(micros(done - built)) /
            static_cast<long long>(scope_eval::questions().size()));
    if (misses) std::fputs(lost.c_str(), stdout);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || !fs::is_directory(argv[1])) {
    std::fprintf(stderr, "usage: qorchat_scope_eval <folder of .sql files> [--misses]\n");
    return 2;
  }
  const bool misses = argc > 2 && std::string_view(argv[2]) == "--misses";
  try {
    const auto start = Clock::now();
    qortest::PostgresCluster& cluster = qortest::PostgresCluster::shared();
    const std::string database = cluster.createDatabase();
    load(cluster, database, argv[1]);
    auto opened = qorchat::openDatabase(cluster.conninfo(database));
    if (!opened) {
      std::fprintf(stderr, "scope-eval: %s\n", opened.status().message().c_str());
      return 1;
    }
    auto structure = (*opened)->describe();
    if (!structure) {
      std::fprintf(stderr, "scope-eval: %s\n", structure.status().message().c_str());
      return 1;
    }
    std::printf(
        "database loaded and described in %lld ms\n",
        static_cast<long long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count()));
    return evaluate(*structure, misses);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "scope-eval: %s\n", failure.what());
    return 1;
  }
}
