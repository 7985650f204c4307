#pragma once
// A libpq result owned, so that it is cleared however a read ends, and its values read as text.

#include <libpq-fe.h>

#include <cstddef>
#include <memory>
#include <string>

namespace qorchat::postgres {

struct ResultDeleter {
  void operator()(PGresult* result) const { PQclear(result); }
};
using PgResult = std::unique_ptr<PGresult, ResultDeleter>;

// A value as the server sent it, whole even when it holds a zero byte.
inline std::string textAt(const PGresult* result, int row, int column) {
  return std::string(PQgetvalue(result, row, column),
                     static_cast<std::size_t>(PQgetlength(result, row, column)));
}

}  // namespace qorchat::postgres
