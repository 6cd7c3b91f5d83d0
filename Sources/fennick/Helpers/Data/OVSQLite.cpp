#include "fennick/Helpers/Data/OVSQLite.h"

#include "fennick/Runtime/Values/CStringText.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/ObjectModel/Log.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace fennick {

namespace {

void report(Ref<Error>* error, Ref<Error> value) {
  if (error) *error = std::move(value);
}

Ref<Error> openError(OVSQLiteError code) {
  return Error::errorWithDomain_code_userInfo(OVSQLiteErrorDomain, code, nullptr);
}

Ref<Error> connectionError(sqlite3* database, OVSQLiteError code) {
  return Error::errorWithDomain_code_description(
      OVSQLiteErrorDomain, code, fmt::format("{} - {}", sqlite3_errcode(database), sqlite3_errmsg(database)));
}

// For failures found before SQLite is asked (binding checks).
Ref<Error> resultCodeError(int resultCode) {
  return Error::errorWithDomain_code_description(OVSQLiteErrorDomain, OVSQLiteErrorPrepareFailed,
                                                 fmt::format("{} - {}", resultCode, sqlite3_errstr(resultCode)));
}

class Statement {
 public:
  Statement() = default;
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  sqlite3_stmt** out() { return &statement_; }
  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

// Builds row dictionaries for one statement; the column names are read once.
class RowReader {
 public:
  explicit RowReader(sqlite3_stmt* statement)
      : statement_(statement), columnCount_(sqlite3_column_count(statement)) {
    keys_.reserve(static_cast<std::size_t>(columnCount_));
    for (int column = 0; column < columnCount_; ++column) keys_.push_back(columnKey(column));
  }

  Ref<Dictionary> row() const {
    Ref<Dictionary> row = Dictionary::dictionaryWithCapacity(keys_.size());
    for (int column = 0; column < columnCount_; ++column)
      row->setObject_forKey(value(column), keys_[static_cast<std::size_t>(column)]);
    return row;
  }

 private:
  Id columnKey(int column) const {
    const char* name = sqlite3_column_name(statement_, column);
    if (!name || !String::isValidUTF8(name)) return String::format("Undefined-{}", column);
    // Columns sharing a name share one key object.
    for (const Id& key : keys_)
      if (static_cast<const String&>(*key).isEqualToString(name)) return key;
    return String::string(name);
  }

  Id value(int column) const {
    switch (sqlite3_column_type(statement_, column)) {
      case SQLITE_INTEGER:
        return Number::numberWithInteger(sqlite3_column_int64(statement_, column));
      case SQLITE_FLOAT:
        return Number::numberWithDouble(sqlite3_column_double(statement_, column));
      case SQLITE_TEXT: {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
        if (!text) return Null::null();
        const std::string_view utf8(text, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
        if (!String::isValidUTF8(utf8)) return Null::null();
        return String::string(utf8);
      }
      case SQLITE_BLOB: {
        const void* bytes = sqlite3_column_blob(statement_, column);
        const int length = sqlite3_column_bytes(statement_, column);
        return bytes && length > 0 ? Data::dataWithBytes(bytes, static_cast<std::size_t>(length)) : Data::data();
      }
      default:
        return Null::null();
    }
  }

  sqlite3_stmt* statement_;
  int columnCount_;
  std::vector<Id> keys_;
};

int bindValue(sqlite3_stmt* statement, int index, const Id& value) {
  if (const auto* number = Number::dynamicCastObject(value.get())) {
    switch (number->kind()) {
      case Number::Kind::Double:
        return sqlite3_bind_double(statement, index, number->doubleValue());
      case Number::Kind::Unsigned:
        if (number->unsignedIntegerValue() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
          return sqlite3_bind_double(statement, index, number->doubleValue());
        [[fallthrough]];
      default:
        return sqlite3_bind_int64(statement, index, number->integerValue());
    }
  }
  if (const auto* string = String::dynamicCastObject(value.get()))
    return sqlite3_bind_text64(statement, index, string->UTF8String(), string->utf8().size(), SQLITE_TRANSIENT,
                               SQLITE_UTF8);
  if (const auto* data = Data::dynamicCastObject(value.get()))
    return sqlite3_bind_blob64(statement, index, data->bytes(), data->length(), SQLITE_TRANSIENT);
  if (const auto* date = Date::dynamicCastObject(value.get()))
    return sqlite3_bind_double(statement, index, date->timeIntervalSince1970());
  if (Null::dynamicCastObject(value.get())) return sqlite3_bind_null(statement, index);
  return SQLITE_MISMATCH;
}

// Prepares the first statement of `sql` and binds the arguments; false with
// error 5 when either fails.
bool prepare(sqlite3* database, std::string_view sql, const Ref<Array>& arguments, Statement& statement,
             Ref<Error>* error) {
  // SQLite reads the text only up to a NUL byte: "DELETE FROM t\0 WHERE ..."
  // would run as "DELETE FROM t". Such text is refused whole.
  if (holdsNulByte(sql)) {
    report(error, resultCodeError(SQLITE_MISUSE));
    return false;
  }
  const std::string text(sql);
  if (sqlite3_prepare_v2(database, text.c_str(), -1, statement.out(), nullptr) != SQLITE_OK) {
    report(error, connectionError(database, OVSQLiteErrorPrepareFailed));
    return false;
  }
  const std::size_t argumentCount = arguments ? arguments->count() : 0;
  if (!arguments) return true;
  if (static_cast<std::size_t>(sqlite3_bind_parameter_count(statement.get())) != argumentCount) {
    report(error, resultCodeError(SQLITE_RANGE));
    return false;
  }
  for (std::size_t i = 0; i < argumentCount; ++i) {
    const int result = bindValue(statement.get(), static_cast<int>(i + 1), arguments->objectAtIndex(i));
    if (result != SQLITE_OK) {
      report(error, result == SQLITE_MISMATCH ? resultCodeError(SQLITE_MISMATCH)
                                              : connectionError(database, OVSQLiteErrorPrepareFailed));
      return false;
    }
  }
  return true;
}

// Steps through the rows; false with error 6 when a step fails.
template <class Consume>
bool stepRows(sqlite3* database, sqlite3_stmt* statement, Consume&& consume, Ref<Error>* error) {
  const RowReader reader(statement);
  bool stop = false;
  int result = SQLITE_DONE;
  while (!stop && (result = sqlite3_step(statement)) == SQLITE_ROW) consume(reader.row(), stop);
  if (stop || result == SQLITE_DONE) return true;
  report(error, connectionError(database, OVSQLiteErrorStepFailed));
  return false;
}

}  // namespace

sqlite3* OVSQLiteOpenDatabase(const Ref<URL>& url, std::uint64_t mode, Ref<Error>* error) {
  // No file can be named by a URL that is not a file URL, or by a path
  // holding a NUL byte (which SQLite would read only up to that byte).
  const std::string path = url ? url->fileSystemRepresentation().value_or(std::string()) : std::string();
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) != 0) {
    report(error, openError(OVSQLiteErrorFileNotFound));
    return nullptr;
  }
  if (::access(path.c_str(), R_OK) != 0) {
    report(error, openError(OVSQLiteErrorFileNotReadable));
    return nullptr;
  }
  const bool readWrite = mode == OVSQLiteOpenModeReadWrite;
  if (readWrite && ::access(path.c_str(), W_OK) != 0) {
    report(error, openError(OVSQLiteErrorFileNotWritable));
    return nullptr;
  }
  sqlite3* database = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &database, readWrite ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY,
                                     nullptr);
  if (result != SQLITE_OK) {
    // SQLite usually hands out a handle even when opening fails; it is closed
    // here, since the caller never sees it.
    sqlite3_close(database);
    report(error, openError(OVSQLiteErrorOpenFailed));
    return nullptr;
  }
  if (!database) report(error, openError(OVSQLiteErrorUnknown));
  return database;
}

Ref<Array> OVSQLiteExecuteQuery(sqlite3* database, std::string_view sql, Ref<Error>* error) {
  return OVSQLiteExecuteQueryWithArguments(database, sql, nullptr, error);
}

Ref<Array> OVSQLiteExecuteQueryWithArguments(sqlite3* database, std::string_view sql, const Ref<Array>& arguments,
                                             Ref<Error>* error) {
  Statement statement;
  if (!prepare(database, sql, arguments, statement, error)) return nullptr;
  std::vector<Id> rows;
  if (!statement.get()) return Array::array();  // only white space or comments: nothing to run
  stepRows(database, statement.get(), [&](Ref<Dictionary> row, bool&) { rows.push_back(std::move(row)); }, error);
  return Array::arrayWithVector(std::move(rows));
}

bool OVSQLiteExecuteQueryWithRowHandler(sqlite3* database, std::string_view sql, const Ref<Array>& arguments,
                                        const OVSQLiteRowHandler& handler, Ref<Error>* error) {
  Statement statement;
  if (!prepare(database, sql, arguments, statement, error)) return false;
  if (!statement.get()) return true;
  return stepRows(database, statement.get(), [&](const Ref<Dictionary>& row, bool& stop) { handler(row, stop); },
                  error);
}

bool OVSQLiteCloseDatabase(sqlite3* database) {
  int result = sqlite3_close(database);
  if (result != SQLITE_BUSY && result != SQLITE_LOCKED) return result == SQLITE_OK;
  sqlite3_stmt* leaked = sqlite3_next_stmt(database, nullptr);
  if (!leaked) return false;
  while (leaked) {
    Log::write("Closing leaked statement");
    sqlite3_finalize(leaked);
    leaked = sqlite3_next_stmt(database, nullptr);
  }
  return sqlite3_close(database) == SQLITE_OK;
}

}  // namespace fennick
