#pragma once
// Texts the benchmarks share: database structures of any size, in the form hosts describe them.

#include <string>

namespace qorbench {

// A structure of the given number of tables: nine typed fields, a primary key and a foreign key
// each, in schemas of 500 tables under one catalog. 20,000 tables make about 11.7 MB.
std::string makeStructure(int tables);

}  // namespace qorbench
