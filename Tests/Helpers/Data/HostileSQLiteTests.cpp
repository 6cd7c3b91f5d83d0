// SQL text, bound values and database names from outside, by family. SQL
// text reaches SQLite as a C string, so a NUL inside it would run a shorter
// statement ("DELETE FROM t\0 WHERE ...") and must be refused; bound values
// travel with their length and must come back whole.
#include "fennick/Helpers/Data/OVSQLite.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include "Runtime/Processes/BundleTestSupport.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <climits>
#include <string>

namespace fennick {
namespace {

using namespace std::string_literals;
using testing::TemporaryDirectory;

class HostileSQLite : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.file("hostile.db");
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, "CREATE TABLE t(id INTEGER, s); INSERT INTO t VALUES (1, 'a'), (2, 'b'), (3, 'c')",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(raw);
    db_ = OVSQLiteOpenDatabase(URL::fileURLWithPath(path_), OVSQLiteOpenModeReadWrite, nullptr);
    ASSERT_TRUE(db_);
  }
  void TearDown() override { EXPECT_TRUE(OVSQLiteCloseDatabase(db_)); }

  std::int64_t rowCount() {
    Ref<Array> rows = OVSQLiteExecuteQuery(db_, "SELECT count(*) AS c FROM t", nullptr);
    return Number::castObject(Dictionary::castObject(rows->objectAtIndex(0))->objectForKey("c"))->integerValue();
  }

  TemporaryDirectory dir_;
  std::string path_;
  sqlite3* db_ = nullptr;
};

TEST_F(HostileSQLite, SQLTextHoldingANulIsRefusedWhole) {
  const std::string statements[] = {
      "DELETE FROM t\0 WHERE id = 1"s,
      "DROP TABLE t\0 -- never"s,
      "\0"s,
      "SELECT 1;\0DROP TABLE t"s,
      "INSERT INTO t VALUES (4, 'x\0y')"s,
  };
  for (const std::string& sql : statements) {
    Ref<Error> error;
    EXPECT_FALSE(OVSQLiteExecuteQuery(db_, sql, &error)) << sql;
    ASSERT_TRUE(error) << sql;
    EXPECT_EQ(error->domain(), OVSQLiteErrorDomain);
    EXPECT_EQ(error->code(), OVSQLiteErrorPrepareFailed);
    EXPECT_TRUE(error->localizedDescription().starts_with("21 - ")) << error->localizedDescription();
    error = nullptr;
    EXPECT_FALSE(OVSQLiteExecuteQueryWithRowHandler(db_, sql, nullptr, [](const Ref<Dictionary>&, bool&) {}, &error));
    EXPECT_TRUE(error);
    EXPECT_EQ(rowCount(), 3) << sql;
  }
}

TEST_F(HostileSQLite, MalformedDeepAndTruncatedSQLFailsCleanly) {
  const std::string deep = "SELECT " + std::string(100'000, '(') + "1" + std::string(100'000, ')');
  const std::string huge = "SELECT '" + std::string(1 << 20, 'x') + "' AS v";
  Ref<Error> error;
  EXPECT_FALSE(OVSQLiteExecuteQuery(db_, deep, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), OVSQLiteErrorPrepareFailed);
  Ref<Array> rows = OVSQLiteExecuteQuery(db_, huge, nullptr);
  ASSERT_TRUE(rows);
  EXPECT_EQ(String::castObject(Dictionary::castObject(rows->objectAtIndex(0))->objectForKey("v"))->view().size(),
            std::size_t{1} << 20);

  // Every cut of a statement either compiles (and changes nothing here) or
  // fails with error 5.
  const std::string select = "SELECT id, s FROM t WHERE s IN ('a', 'b') ORDER BY id DESC LIMIT 2";
  for (std::size_t length = 0; length <= select.size(); ++length) {
    error = nullptr;
    Ref<Array> answer = OVSQLiteExecuteQuery(db_, select.substr(0, length), &error);
    EXPECT_TRUE(answer ? !error : error && error->code() == OVSQLiteErrorPrepareFailed) << select.substr(0, length);
  }
  EXPECT_EQ(rowCount(), 3);
}

TEST_F(HostileSQLite, BoundTextAndBlobsComeBackWhole) {
  const std::string texts[] = {"x\0y"s, "\0"s, "tail\0"s, std::string(100'000, '\0'), "caf\xc3\xa9\0\xf0\x9f\x98\x80"s};
  for (const std::string& text : texts) {
    Ref<Error> error;
    Ref<Array> rows =
        OVSQLiteExecuteQueryWithArguments(db_, "SELECT ? AS s, ? AS b, length(CAST(? AS BLOB)) AS n",
                                          Array::arrayWithObjects({String::string(text), Data::dataWithString(text),
                                                                   String::string(text)}),
                                          &error);
    ASSERT_TRUE(rows) << error->description();
    auto row = Dictionary::castObject(rows->objectAtIndex(0));
    EXPECT_TRUE(String::castObject(row->objectForKey("s"))->isEqualToString(text)) << text.size();
    EXPECT_EQ(Data::castObject(row->objectForKey("b"))->stringView(), text);
    EXPECT_EQ(Number::castObject(row->objectForKey("n"))->integerValue(), static_cast<std::int64_t>(text.size()));

    // Stored and read back from the file, too.
    EXPECT_TRUE(OVSQLiteExecuteQueryWithArguments(db_, "INSERT INTO t VALUES (9, ?)",
                                                  Array::arrayWithObjects({String::string(text)}), &error));
    rows = OVSQLiteExecuteQuery(db_, "SELECT s FROM t WHERE id = 9", &error);
    EXPECT_TRUE(String::castObject(Dictionary::castObject(rows->objectAtIndex(0))->objectForKey("s"))
                    ->isEqualToString(text));
    OVSQLiteExecuteQuery(db_, "DELETE FROM t WHERE id = 9", nullptr);
  }
  // Text that is not UTF-8 reads back as the null marker, never as a cut string.
  Ref<Array> rows = OVSQLiteExecuteQuery(db_, "SELECT CAST(x'61ff62' AS TEXT) AS s", nullptr);
  EXPECT_EQ(Dictionary::castObject(rows->objectAtIndex(0))->objectForKey("s"), Null::null());
}

TEST(HostileSQLiteFile, NamesThatNameNoFileAreNotOpened) {
  TemporaryDirectory dir;
  const std::string database = dir.file("real.db");
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(database.c_str(), &raw), SQLITE_OK);
  sqlite3_close(raw);
  const Ref<URL> urls[] = {
      URL::URLWithString("file://" + database + "%00.bak"),
      URL::URLWithString("https://example.com" + database),  // the path of a remote URL names no local file
      URL::fileURLWithPath(dir.path() + "/" + std::string(PATH_MAX, 'n')),
  };
  for (const Ref<URL>& url : urls) {
    ASSERT_TRUE(url);
    Ref<Error> error;
    sqlite3* db = OVSQLiteOpenDatabase(url, OVSQLiteOpenModeReadWrite, &error);
    if (db) OVSQLiteCloseDatabase(db);
    EXPECT_FALSE(db) << url->absoluteString().substr(0, 80);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), OVSQLiteErrorFileNotFound) << url->absoluteString().substr(0, 80);
  }
}

}  // namespace
}  // namespace fennick
