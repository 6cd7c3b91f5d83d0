#pragma once
// A minimal, synchronous way to read (and write) an SQLite database file: open
// it, run one statement and get every row back as a dictionary keyed by
// column name, close it.
//
//   Ref<Error> error;
//   sqlite3* db = OVSQLiteOpenDatabase(URL::fileURLWithPath("/var/lib/app/state.db"),
//                                      OVSQLiteOpenModeReadOnly, &error);
//   Ref<Array> rows = OVSQLiteExecuteQuery(db, "SELECT id, name FROM items", &error);
//   if (error) ...;          // a failure part way still answers the rows read
//   OVSQLiteCloseDatabase(db);
//
// Opening never creates a database. Only the first statement of the SQL text
// is run. Rows: a column is keyed by sqlite3_column_name ("Undefined-<index>"
// when it has none or it is not UTF-8); of two columns with one name the later
// wins. Values by storage class: integer -> Number (int64), float -> Number
// (double), text -> String, blob -> Data (empty for a zero-length blob), null,
// and text that is not UTF-8, -> the null marker. SQL NULL is never an absent key.
//
// Errors (OVSQLiteErrorDomain):
//   0 OVSQLiteErrorUnknown          open: SQLite gave no handle
//   1 OVSQLiteErrorFileNotFound     open: no file at the path
//   2 OVSQLiteErrorFileNotReadable  open: not readable by the process
//   3 OVSQLiteErrorFileNotWritable  open: read-write asked, not writable
//   4 OVSQLiteErrorOpenFailed       open: sqlite3_open_v2 failed
//   5 OVSQLiteErrorPrepareFailed    execute: the statement did not compile (or,
//                                   with arguments, could not be bound), or the
//                                   SQL text holds a NUL byte
//   6 OVSQLiteErrorStepFailed       execute: stepping ended with an error
// Open errors carry no user info; 5 and 6 carry the localized description
// "<sqlite3_errcode> - <sqlite3_errmsg>" read right after the failure.
//
// The functions run on the caller's thread and block it for the whole query;
// they add no locking, so one handle is used by one thread at a time. Every
// out-error pointer may be null.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/URLs/URL.h"

#include <cstdint>
#include <functional>
#include <string_view>

struct sqlite3;

namespace fennick {

inline constexpr const char* OVSQLiteErrorDomain = "com.orvane.OVSQLiteErrorDomain";

enum OVSQLiteError : std::int64_t {
  OVSQLiteErrorUnknown = 0,
  OVSQLiteErrorFileNotFound = 1,
  OVSQLiteErrorFileNotReadable = 2,
  OVSQLiteErrorFileNotWritable = 3,
  OVSQLiteErrorOpenFailed = 4,
  OVSQLiteErrorPrepareFailed = 5,
  OVSQLiteErrorStepFailed = 6,
};

/// Open modes; any value other than read-write opens read-only.
enum OVSQLiteOpenMode : std::uint64_t {
  OVSQLiteOpenModeReadOnly = 0,
  OVSQLiteOpenModeReadWrite = 1,
};

/// Opens the database file at a file URL, read-only or read-write, never
/// creating it. Null, with an error (codes 0 to 4), on failure; a URL that is
/// not a file URL, or whose path holds a NUL byte ("%00"), names no file
/// (code 1). The caller closes the handle with OVSQLiteCloseDatabase.
sqlite3* OVSQLiteOpenDatabase(const Ref<URL>& url, std::uint64_t mode, Ref<Error>* error);

/// Runs the first statement of `sql` and answers every row. Nil with error 5
/// when it does not compile, and when the text holds a NUL byte ("21 - bad
/// parameter or other API misuse"): SQLite would run only the part before
/// it, which may be a different statement. When stepping fails, the rows read before the
/// failure are answered together with error 6: look at the error, not at a
/// nil result. A statement without rows, and text holding no statement at
/// all (white space, comments), answers an empty array.
Ref<Array> OVSQLiteExecuteQuery(sqlite3* database, std::string_view sql, Ref<Error>* error);

/// The same with "?" parameters bound, in order, from `arguments`: Number
/// (booleans and integers as integers, unsigned values past INT64_MAX and
/// doubles as reals), String as text, Data as a blob, Date as its seconds
/// since 1970, the null marker as NULL. Text and blobs are bound with their
/// length, so a NUL byte inside a String is stored and read back whole. An argument count that differs from
/// the statement's parameters, or a value of another class, answers nil and
/// error 5 ("25 - column index out of range" or "20 - datatype mismatch").
/// Values travel as values, never as SQL text.
Ref<Array> OVSQLiteExecuteQueryWithArguments(sqlite3* database, std::string_view sql, const Ref<Array>& arguments,
                                             Ref<Error>* error);

/// Receives each row as it is read; setting `stop` ends the query early
/// (without an error). The row dictionary is the handler's to keep.
using OVSQLiteRowHandler = std::function<void(const Ref<Dictionary>& row, bool& stop)>;

/// Streams the rows of a statement (with optional arguments, as above) to
/// `handler` on the caller's thread instead of collecting them, so that large
/// results need not fit in memory. True when the statement ran to its end or
/// the handler stopped it; false with error 5 or 6 otherwise (rows already
/// handed over stay handed over). The statement is finalized before it
/// returns, also when the handler throws.
bool OVSQLiteExecuteQueryWithRowHandler(sqlite3* database, std::string_view sql, const Ref<Array>& arguments,
                                        const OVSQLiteRowHandler& handler, Ref<Error>* error);

/// Closes the connection; true when it was closed. Statements that other code
/// left unfinalized on the handle are finalized (each logged as "Closing
/// leaked statement") and the close is tried once more.
bool OVSQLiteCloseDatabase(sqlite3* database);

}  // namespace fennick
