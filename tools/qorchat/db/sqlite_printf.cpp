// Reads the format of an SQL printf the way SQLite reads it, only to learn whether a %c asks for
// more characters than any text may hold; hands every other call to SQLite's own printf on an
// in-memory connection of its own.
#include "db/sqlite_printf.h"

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <string>

namespace qorchat::sqlite {
namespace {

// The arguments after the format, taken in order as SQLite's printf takes them.
class Arguments {
 public:
  Arguments(int count, sqlite3_value** values) : count_(count), values_(values) {}
  // A '*' width or precision: the next argument as an integer, 0 when none is left.
  int nextInt() {
    if (used_ >= count_) return 0;
    return static_cast<int>(sqlite3_value_int64(values_[used_++]));
  }
  void skip() {
    if (used_ < count_) ++used_;
  }

 private:
  int count_;
  sqlite3_value** values_;
  int used_ = 0;
};

// Reads a precision from just past its '.': digits, or '*' for the next argument. Leaves at on
// the character after it.
int readDotPrecision(const unsigned char*& at, Arguments& arguments) {
  if (*at == '*') {
    ++at;
    const int precision = arguments.nextInt();
    if (precision >= 0) return precision;
    return precision >= -2147483647 ? -precision : -1;
  }
  unsigned digits = 0;
  for (; *at >= '0' && *at <= '9'; ++at)
    digits = digits * 10 + (*at - '0');
  return static_cast<int>(digits & 0x7fffffff);
}

bool isFlag(unsigned char c) {
  return c == '-' || c == '+' || c == ' ' || c == '#' || c == '!' || c == '0' || c == ',';
}

// Reads one conversion's flags, width and precision from just past its '%' as SQLite does; leaves
// at on the conversion character and gives the precision, -1 when there is none.
int readPrecision(const unsigned char*& at, Arguments& arguments) {
  int precision = -1;
  // SQLite reads on until a conversion character, or an 'l' or a precision, which end it.
  for (; *at != 0; ++at) {
    const unsigned char c = *at;
    if (isFlag(c)) continue;
    if (c == 'l') {
      at += at[1] == 'l' ? 2 : 1;
      return precision;
    }
    if (c >= '1' && c <= '9') {
      while (at[1] >= '0' && at[1] <= '9')
        ++at;
      if (at[1] == '.' || at[1] == 'l') continue;
      ++at;
      return precision;
    }
    if (c == '*') {
      arguments.nextInt();
      if (at[1] == '.' || at[1] == 'l') continue;
      ++at;
      return precision;
    }
    if (c != '.') return precision;
    ++at;
    precision = readDotPrecision(at, arguments);
    if (*at != 'l') return precision;
    --at;  // the 'l' is read next, and ends the conversion's flags
  }
  return precision;
}

// Whether SQLite's printf would write one %c's character more than maxLength times.
bool repeatsPastLimit(const unsigned char* format, Arguments arguments, std::int64_t maxLength) {
  for (const unsigned char* at = format; *at != 0; ++at) {
    if (*at != '%') continue;
    if (*++at == 0) return false;
    const int precision = readPrecision(at, arguments);
    switch (*at) {
      case 'c':
        if (precision > maxLength) return true;
        arguments.skip();
        break;
      case 'n':
      case '%':
        break;
      case 'd':
      case 's':
      case 'g':
      case 'z':
      case 'q':
      case 'Q':
      case 'w':
      case 'o':
      case 'u':
      case 'x':
      case 'X':
      case 'f':
      case 'e':
      case 'E':
      case 'G':
      case 'i':
      case 'p':
      case 'r':
        arguments.skip();
        break;
      default:
        return false;  // SQLite stops at a conversion it does not know
    }
  }
  return false;
}

// SQLite's own printf, on a connection where nothing replaces it.
class Delegate {
 public:
  Delegate() { sqlite3_open(":memory:", &db_); }
  ~Delegate() {
    for (auto& [argc, statement] : statements_)
      sqlite3_finalize(statement);
    sqlite3_close_v2(db_);
  }
  Delegate(const Delegate&) = delete;
  Delegate& operator=(const Delegate&) = delete;

  void call(sqlite3_context* context, int argc, sqlite3_value** argv, int lengthLimit) {
    sqlite3_stmt* statement = prepared(argc);
    if (statement == nullptr) {
      sqlite3_result_error_nomem(context);
      return;
    }
    sqlite3_limit(db_, SQLITE_LIMIT_LENGTH, lengthLimit);
    int rc = SQLITE_OK;
    for (int i = 0; i < argc && rc == SQLITE_OK; ++i)
      rc = sqlite3_bind_value(statement, i + 1, argv[i]);
    if (rc == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW) {
      sqlite3_result_value(context, sqlite3_column_value(statement, 0));
    } else {
      sqlite3_result_error(context, sqlite3_errmsg(db_), -1);
      sqlite3_result_error_code(context, sqlite3_errcode(db_));
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
  }

 private:
  sqlite3_stmt* prepared(int argc) {
    sqlite3_stmt*& statement = statements_[argc];
    if (statement == nullptr && db_ != nullptr) {
      std::string sql = "SELECT printf(";
      for (int i = 1; i <= argc; ++i)
        sql += (i > 1 ? ", ?" : "?") + std::to_string(i);
      sql += ")";
      sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr);
    }
    return statement;
  }

  sqlite3* db_ = nullptr;
  std::map<int, sqlite3_stmt*> statements_;
};

void printfFunction(sqlite3_context* context, int argc, sqlite3_value** argv) {
  // Like SQLite's: no format, no text.
  const unsigned char* format = argc >= 1 ? sqlite3_value_text(argv[0]) : nullptr;
  if (format == nullptr) return;
  const int lengthLimit =
      sqlite3_limit(sqlite3_context_db_handle(context), SQLITE_LIMIT_LENGTH, -1);
  if (repeatsPastLimit(format, Arguments(argc - 1, argv + 1), lengthLimit)) return;
  static_cast<Delegate*>(sqlite3_user_data(context))->call(context, argc, argv, lengthLimit);
}

bool put(sqlite3* db, const char* name) {
  // SQLite deletes the delegate with the connection, or at once when it refuses the function.
  return sqlite3_create_function_v2(
             db, name, -1, SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, new Delegate,
             &printfFunction, nullptr, nullptr,
             [](void* delegate) { delete static_cast<Delegate*>(delegate); }) == SQLITE_OK;
}

}  // namespace

bool replacePrintf(sqlite3* db) {
  return put(db, "printf") && put(db, "format");
}

}  // namespace qorchat::sqlite
