#include "fennick/Helpers/Data/OVPersistentStoreDestruction.h"
#include "fennick/Helpers/Data/OVSQLite.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/ObjectModel/Log.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include "Runtime/Processes/BundleTestSupport.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

namespace fennick {
namespace {

using testing::TemporaryDirectory;

void run(sqlite3* db, const char* sql) { ASSERT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql; }

// A database file made with SQLite directly.
std::string makeDatabase(const TemporaryDirectory& dir, const char* name, const char* sql) {
  const std::string path = dir.file(name);
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  run(db, sql);
  sqlite3_close(db);
  return path;
}

Ref<URL> url(const std::string& path) { return URL::fileURLWithPath(path); }

// Runs `body` in a child process without root's power to ignore file
// permissions, and answers its exit status.
int runUnprivileged(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::getuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(100);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

int openCode(const std::string& path, std::uint64_t mode) {
  Ref<Error> error;
  sqlite3* db = OVSQLiteOpenDatabase(url(path), mode, &error);
  if (db) {
    OVSQLiteCloseDatabase(db);
    return 50;
  }
  return error && error->domain() == OVSQLiteErrorDomain && error->userInfo()->count() == 0
             ? static_cast<int>(error->code())
             : 99;
}

TEST(OVSQLite, OpeningNamesWhyItCannot) {
  TemporaryDirectory dir;
  std::filesystem::permissions(dir.path(), std::filesystem::perms::all);
  const std::string db = makeDatabase(dir, "items.db", "CREATE TABLE t(x)");
  EXPECT_EQ(openCode(dir.path() + "/missing.db", OVSQLiteOpenModeReadOnly), 1);
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/missing.db"));
  EXPECT_EQ(openCode(dir.file("folder/") , OVSQLiteOpenModeReadWrite), 4);
  EXPECT_EQ(openCode(db, OVSQLiteOpenModeReadWrite), 50);
  EXPECT_EQ(openCode(db, 7), 50);  // anything but 1 is read-only

  ::chmod(db.c_str(), 0444);
  EXPECT_EQ(runUnprivileged([&] { return openCode(db, OVSQLiteOpenModeReadWrite); }), 3);
  EXPECT_EQ(runUnprivileged([&] { return openCode(db, OVSQLiteOpenModeReadOnly); }), 50);
  ::chmod(db.c_str(), 0);
  EXPECT_EQ(runUnprivileged([&] { return openCode(db, OVSQLiteOpenModeReadOnly); }), 2);

  Ref<Error> untouched;
  EXPECT_FALSE(OVSQLiteOpenDatabase(nullptr, 0, nullptr));
  EXPECT_FALSE(untouched);
}

class OVSQLiteQuery : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = makeDatabase(dir_, "rows.db",
                         "CREATE TABLE t(i INTEGER, r REAL, s TEXT, b BLOB, n);"
                         "INSERT INTO t VALUES (1, 1.5, 'one', x'0001', NULL), (2, -0.25, '', x'', NULL);");
    db_ = OVSQLiteOpenDatabase(url(path_), OVSQLiteOpenModeReadWrite, nullptr);
    ASSERT_TRUE(db_);
  }
  void TearDown() override {
    EXPECT_FALSE(sqlite3_next_stmt(db_, nullptr)) << "a statement was left unfinalized";
    EXPECT_TRUE(OVSQLiteCloseDatabase(db_));
  }
  Ref<Array> query(std::string_view sql, Ref<Error>* error = nullptr) { return OVSQLiteExecuteQuery(db_, sql, error); }

  TemporaryDirectory dir_;
  std::string path_;
  sqlite3* db_ = nullptr;
};

TEST_F(OVSQLiteQuery, RowsAreDictionariesOfBoxedValues) {
  Ref<Error> error;
  Ref<Array> rows = query("SELECT * FROM t ORDER BY i", &error);
  ASSERT_TRUE(rows);
  EXPECT_FALSE(error);
  ASSERT_EQ(rows->count(), 2u);
  auto first = Dictionary::castObject(rows->objectAtIndex(0));
  EXPECT_TRUE(first->isEqual(Dictionary::dictionaryWithStringKeys({
      {"i", Number::of(1)}, {"r", Number::of(1.5)}, {"s", "one"_s},
      {"b", Data::dataWithBytes(std::vector<std::uint8_t>{0, 1})}, {"n", Null::null()}})));
  auto second = Dictionary::castObject(rows->objectAtIndex(1));
  EXPECT_EQ(Data::castObject(second->objectForKey("b"))->length(), 0u);
  EXPECT_TRUE(Number::castObject(first->objectForKey("i"))->kind() == Number::Kind::Signed);

  auto literal = Dictionary::castObject(query("SELECT 1, NULL")->objectAtIndex(0));
  EXPECT_TRUE(literal->isEqual(Dictionary::dictionaryWithStringKeys({{"1", Number::of(1)}, {"NULL", Null::null()}})));
  auto same = Dictionary::castObject(query("SELECT 1 AS a, 2 AS a")->objectAtIndex(0));
  EXPECT_TRUE(same->isEqual(Dictionary::dictionaryWithStringKeys({{"a", Number::of(2)}})));
  auto odd = Dictionary::castObject(query("SELECT CAST(x'ff' AS TEXT) AS \"\xff\", 2 AS ok")->objectAtIndex(0));
  EXPECT_TRUE(odd->isEqual(Dictionary::dictionaryWithStringKeys({{"Undefined-0", Null::null()}, {"ok", Number::of(2)}})));
}

TEST_F(OVSQLiteQuery, FailuresKeepTheRowsAlreadyRead) {
  Ref<Error> error;
  EXPECT_FALSE(query("SELEC 1", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), OVSQLiteErrorPrepareFailed);
  EXPECT_TRUE(error->localizedDescription().starts_with("1 - ")) << error->localizedDescription();
  EXPECT_EQ(query("SELECT * FROM missing", &error), nullptr);
  EXPECT_EQ(error->localizedDescription(), "1 - no such table: missing");

  error = nullptr;
  Ref<Array> changed = query("UPDATE t SET s = 'x'; DROP TABLE t", &error);  // only the first statement runs
  EXPECT_EQ(changed->count(), 0u);
  EXPECT_FALSE(error);
  EXPECT_EQ(query("SELECT count(*) AS c FROM t")->count(), 1u);
  EXPECT_EQ(query("  -- nothing\n")->count(), 0u);

  run(db_, "WITH RECURSIVE n(v) AS (SELECT 3 UNION ALL SELECT v + 1 FROM n WHERE v < 9) INSERT INTO t(i) SELECT v FROM n");
  Ref<Array> partial = query(
      "SELECT CASE WHEN i < 5 THEN i ELSE abs(-9223372036854775807 - 1) END AS v FROM t ORDER BY rowid", &error);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), OVSQLiteErrorStepFailed);
  EXPECT_EQ(error->localizedDescription(), "1 - integer overflow");
  ASSERT_TRUE(partial);
  EXPECT_EQ(partial->count(), 4u);  // 1, 2, 3, 4
}

TEST_F(OVSQLiteQuery, ArgumentsAreBoundAndRowsCanStream) {
  Ref<Error> error;
  auto arguments = Array::arrayWithObjects({Number::of(7), Number::of(2.5), "x'); DROP TABLE t; --"_s,
                                            Data::dataWithString("ab"), Null::null()});
  EXPECT_EQ(OVSQLiteExecuteQueryWithArguments(db_, "INSERT INTO t VALUES (?, ?, ?, ?, ?)", arguments, &error)->count(), 0u);
  EXPECT_FALSE(error);
  Ref<Array> rows = OVSQLiteExecuteQueryWithArguments(db_, "SELECT s, typeof(n) AS k FROM t WHERE i = ?",
                                                      Array::arrayWithObjects({Number::of(7)}), &error);
  ASSERT_EQ(rows->count(), 1u);
  EXPECT_EQ(Dictionary::castObject(rows->objectAtIndex(0))->objectForKey("s")->description(), "x'); DROP TABLE t; --");
  EXPECT_EQ(Dictionary::castObject(rows->objectAtIndex(0))->objectForKey("k")->description(), "null");

  EXPECT_FALSE(OVSQLiteExecuteQueryWithArguments(db_, "SELECT ?", Array::array(), &error));
  EXPECT_EQ(error->localizedDescription(), "25 - column index out of range");
  EXPECT_FALSE(OVSQLiteExecuteQueryWithArguments(db_, "SELECT ?", Array::arrayWithObjects({Array::array()}), &error));
  EXPECT_EQ(error->localizedDescription(), "20 - datatype mismatch");

  std::vector<std::int64_t> seen;
  EXPECT_TRUE(OVSQLiteExecuteQueryWithRowHandler(
      db_, "SELECT i FROM t ORDER BY i", nullptr,
      [&](const Ref<Dictionary>& row, bool& stop) {
        seen.push_back(Number::castObject(row->objectForKey("i"))->integerValue());
        stop = seen.size() == 2;
      },
      &error));
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 2}));
  EXPECT_THROW(OVSQLiteExecuteQueryWithRowHandler(
                   db_, "SELECT i FROM t", nullptr, [](const Ref<Dictionary>&, bool&) { throw std::runtime_error("x"); },
                   nullptr),
               std::runtime_error);
}

TEST(OVSQLite, DamagedAndLockedFilesGiveErrorsNotCrashes) {
  TemporaryDirectory dir;
  const std::string big = makeDatabase(
      dir, "big.db",
      "PRAGMA page_size = 1024; CREATE TABLE t(i INTEGER PRIMARY KEY, s TEXT);"
      "WITH RECURSIVE n(v) AS (SELECT 1 UNION ALL SELECT v + 1 FROM n WHERE v < 2000)"
      " INSERT INTO t SELECT v, printf('%0200d', v) FROM n;");
  const auto size = std::filesystem::file_size(big);

  // Truncated to less than a header: not a database at all.
  const std::string truncated = dir.file("truncated.db");
  std::filesystem::copy_file(big, truncated);
  std::filesystem::resize_file(truncated, 50);
  // A page in the middle overwritten with garbage.
  const std::string corrupted = dir.file("corrupted.db");
  std::filesystem::copy_file(big, corrupted);
  {
    FILE* file = std::fopen(corrupted.c_str(), "r+b");
    std::fseek(file, static_cast<long>(size / 2 / 1024 * 1024), SEEK_SET);
    const std::string garbage(1024, '\xa5');
    std::fwrite(garbage.data(), 1, garbage.size(), file);
    std::fclose(file);
  }

  Ref<Error> error;
  sqlite3* db = OVSQLiteOpenDatabase(url(truncated), OVSQLiteOpenModeReadOnly, &error);
  ASSERT_TRUE(db);
  EXPECT_FALSE(OVSQLiteExecuteQuery(db, "SELECT * FROM t", &error));
  EXPECT_EQ(error->code(), OVSQLiteErrorPrepareFailed);
  EXPECT_TRUE(OVSQLiteCloseDatabase(db));

  db = OVSQLiteOpenDatabase(url(corrupted), OVSQLiteOpenModeReadOnly, &error);
  ASSERT_TRUE(db);
  Ref<Array> rows = OVSQLiteExecuteQuery(db, "SELECT * FROM t ORDER BY i", &error);
  ASSERT_TRUE(rows);
  EXPECT_EQ(error->code(), OVSQLiteErrorStepFailed);
  EXPECT_TRUE(error->localizedDescription().starts_with("11 - ")) << error->localizedDescription();
  EXPECT_GT(rows->count(), 0u);
  EXPECT_LT(rows->count(), 2000u);
  EXPECT_TRUE(OVSQLiteCloseDatabase(db));

  // Another connection holds an exclusive lock.
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(big.c_str(), &holder), SQLITE_OK);
  run(holder, "BEGIN EXCLUSIVE; UPDATE t SET s = 'changed' WHERE i = 1;");
  db = OVSQLiteOpenDatabase(url(big), OVSQLiteOpenModeReadOnly, &error);
  ASSERT_TRUE(db);
  error = nullptr;
  EXPECT_FALSE(OVSQLiteExecuteQuery(db, "SELECT count(*) FROM t", &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->localizedDescription(), "5 - database is locked");
  EXPECT_FALSE(sqlite3_next_stmt(db, nullptr));
  EXPECT_TRUE(OVSQLiteCloseDatabase(db));
  run(holder, "ROLLBACK");
  sqlite3_close(holder);
}

TEST(OVSQLite, ClosingFinalizesLeakedStatements) {
  TemporaryDirectory dir;
  sqlite3* db = OVSQLiteOpenDatabase(url(makeDatabase(dir, "leaky.db", "CREATE TABLE t(x)")), 0, nullptr);
  ASSERT_TRUE(db);
  sqlite3_stmt* first = nullptr;
  sqlite3_stmt* second = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT 1", -1, &first, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT 2", -1, &second, nullptr), SQLITE_OK);
  LogCapture log;
  EXPECT_TRUE(OVSQLiteCloseDatabase(db));
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"Closing leaked statement", "Closing leaked statement"}));
}

TEST(OVPersistentStoreDestruction, RemovesTheStoreAndTheCompanionsThatExist) {
  TemporaryDirectory dir;
  const std::string store = dir.file("Store.sqlite");
  for (const char* name : {"Store.sqlite", "Store.sqlite-wal", "Other.sqlite", "Other.sqlite-shm"})
    testing::writeFile(dir.file(name), "x");
  Ref<Error> error;
  EXPECT_TRUE(OVDestroyPersistentStoreAtURL(url(store), true, &error));  // no -shm: still fine
  EXPECT_FALSE(std::filesystem::exists(store));
  EXPECT_FALSE(std::filesystem::exists(store + "-wal"));
  EXPECT_FALSE(error);

  EXPECT_TRUE(OVDestroyPersistentStoreAtURL(url(dir.path() + "/Other.sqlite"), false, &error));
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "/Other.sqlite-shm"));  // not an SQLite store: kept
  EXPECT_FALSE(OVDestroyPersistentStoreAtURL(url(store), true, &error));
  EXPECT_FALSE(error);

  // A reference URL has no path once its item is gone; the companions are
  // still found by the store's name.
  for (const char* name : {"Store.sqlite", "Store.sqlite-shm", "Store.sqlite-wal"}) testing::writeFile(dir.file(name), "x");
  EXPECT_TRUE(OVDestroyPersistentStoreAtURL(url(store)->fileReferenceURL(), true, &error));
  EXPECT_FALSE(std::filesystem::exists(store + "-shm"));
  EXPECT_FALSE(std::filesystem::exists(store + "-wal"));
}

}  // namespace
}  // namespace fennick
