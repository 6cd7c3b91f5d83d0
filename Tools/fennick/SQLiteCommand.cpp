// fennick sqlite [--write] DATABASE SQL [ARGUMENT...]
#include <memory>

#include "DataCommands.h"
#include "Progress.h"

#include <sqlite3.h>

namespace fennick::tool {

namespace {

// Opening errors carry only a code; say what it means.
std::string openProblem(const Ref<Error>& error) {
  switch (error->code()) {
    case OVSQLiteErrorFileNotFound: return "no such file";
    case OVSQLiteErrorFileNotReadable: return "not readable";
    case OVSQLiteErrorFileNotWritable: return "not writable (leave out --write to read it)";
    case OVSQLiteErrorOpenFailed: return "cannot be opened as a database";
    default: return error->localizedDescription();
  }
}

// The library opens existing files only; a person trying out a statement
// may name SQLite's own in-memory database instead.
sqlite3* openDatabase(const std::string& name, std::uint64_t mode, Ref<Error>* error) {
  if (name != ":memory:") return OVSQLiteOpenDatabase(URL::fileURLWithPath(name), mode, error);
  sqlite3* database = nullptr;
  if (sqlite3_open_v2(":memory:", &database, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) return database;
  sqlite3_close(database);
  *error = Error::errorWithDomain_code_userInfo(OVSQLiteErrorDomain, OVSQLiteErrorOpenFailed, nullptr);
  return nullptr;
}

int runSQLite(const Arguments& arguments) {
  const auto& words = arguments.positional();
  Ref<Error> error;
  const std::uint64_t mode = arguments.has("write") ? OVSQLiteOpenModeReadWrite : OVSQLiteOpenModeReadOnly;
  sqlite3* database = openDatabase(words[0], mode, &error);
  if (!database) return fail("sqlite", words[0] + ": " + openProblem(error));
  std::unique_ptr<sqlite3, bool (*)(sqlite3*)> closer(database, OVSQLiteCloseDatabase);

  auto parameters = Array::array();
  for (std::size_t i = 2; i < words.size(); ++i) parameters->addObject(String::string(words[i]));
  Progress progress;
  std::size_t count = 0;
  const bool finished = OVSQLiteExecuteQueryWithRowHandler(
      database, words[1], parameters,
      [&](const Ref<Dictionary>& row, bool&) {
        std::printf("%s\n", jsonText(row).c_str());
        if (++count % 10000 == 0) progress.status(fmt::format("{} rows", count));
      },
      &error);
  progress.finish();
  if (!finished) return fail("sqlite", error->localizedDescription());
  return kExitOK;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "sqlite",
                      .summary = "run one SQL statement and print the rows as JSON lines",
                      .usage = "usage: fennick sqlite [--write] DATABASE SQL [ARGUMENT...]\n\n"
                               "Runs the first statement of SQL on the existing database file DATABASE\n"
                               "(opened read-only unless --write), or on an empty database in memory when\n"
                               "DATABASE is \":memory:\", and prints each row as one JSON object\n"
                               "keyed by column name. Each ARGUMENT is bound, as text, to the next \"?\"\n"
                               "of the statement. Blobs print as base64 strings.\n"
                               "Errors print SQLite's code and message, for example\n"
                               "\"1 - no such table: items\", and exit with status 1.\n",
                      .options = {{.longName = "write", .shortName = 'w'}},
                      .minArguments = 2,
                      .run = runSQLite});

}  // namespace fennick::tool
