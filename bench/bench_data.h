#pragma once
// Texts the benchmarks share: database structures of any size, in the form hosts describe them.

#include <string>

namespace qorbench {

// How the tables of a structure refer to each other.
enum class Links {
  ToOneTable,   // every table has a foreign key to schema_0.customers
  ChainsOfTen,  // every table but each tenth has one to the table before it: chains of ten
};

// A structure of the given number of tables: nine typed fields and a primary key each, foreign
// keys as `links` says, in schemas of 500 tables under one catalog. 20,000 tables make about
// 11.7 MB.
std::string makeStructure(int tables, Links links = Links::ToOneTable);

}  // namespace qorbench
