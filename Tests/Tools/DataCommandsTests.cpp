#include "Runtime/Processes/BundleTestSupport.h"
#include "Tools/ToolRunner.h"

#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace fennick {
namespace {

using tooltest::runTool;

TEST(VersionCommand, ComparesAndSorts) {
  EXPECT_EQ(runTool({"version", "compare", "1.0b1", "1.0"}).out, "-1\n");
  EXPECT_EQ(runTool({"version", "compare", "1.10", "1.9"}).out, "1\n");
  EXPECT_EQ(runTool({"version", "compare", "1.0", "1"}).out, "0\n");
  auto sorted = runTool({"version", "sort"}, "2.*\n1.10\n1.0b2\n1.9\n1.0\n1\n");
  EXPECT_EQ(sorted.status, 0);
  EXPECT_EQ(sorted.out, "1.0b2\n1.0\n1\n1.9\n1.10\n2.*\n");  // 1.0 and 1 keep their input order
  EXPECT_EQ(runTool({"version", "sort", "--reverse"}, "1.9\n1.10\n").out, "1.10\n1.9\n");

  auto wrong = runTool({"version", "compare", "1.0"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_NE(wrong.err.find("usage: fennick version"), std::string::npos);
  EXPECT_EQ(runTool({"version", "bump"}).status, 2);
}

TEST(JSONCommand, PrintsTheValueOrTheReadersError) {
  testing::TemporaryDirectory dir;
  const std::string file = dir.file("config.json");
  testing::writeFile(file, R"({"server": {"host": "example.org", "ports": [80, 443], "tls": null}})");
  EXPECT_EQ(runTool({"json", "get", file, "server.host"}).out, "example.org\n");
  EXPECT_EQ(runTool({"json", "get", file, "server.ports"}).out, "[\n  80,\n  443\n]\n");
  EXPECT_EQ(runTool({"json", "get", "-", "a"}, R"({"a": 1.5})").out, "1.5\n");

  auto missing = runTool({"json", "get", file, "server.port"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "fennick json: Missing value for key port\n");
  EXPECT_EQ(runTool({"json", "get", file, "server.host.name"}).err,
            "fennick json: Incorrect type of value for key host\n");
  auto broken = runTool({"json", "get", "-", "a"}, "{\"a\": ");
  EXPECT_EQ(broken.status, 1);
  EXPECT_FALSE(broken.err.empty());
  EXPECT_EQ(runTool({"json", "get", dir.path() + "/none.json", "a"}).status, 1);
}

TEST(SQLiteCommand, PrintsRowsAsJSONLinesAndErrorsWithTheirCodes) {
  testing::TemporaryDirectory dir;
  const std::string path = dir.file("music.db");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "CREATE TABLE tracks(title TEXT, seconds INTEGER, cover BLOB);"
                         "INSERT INTO tracks VALUES ('So What', 562, x'01ff'), ('Freddie \"Freeloader\"', 589, NULL)",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);

  auto rows = runTool({"sqlite", path, "SELECT * FROM tracks WHERE seconds > ? ORDER BY seconds", "500"});
  EXPECT_EQ(rows.status, 0) << rows.err;
  EXPECT_EQ(rows.out,
            "{\"title\":\"So What\",\"seconds\":562,\"cover\":\"Af8=\"}\n"
            "{\"title\":\"Freddie \\\"Freeloader\\\"\",\"seconds\":589,\"cover\":null}\n");

  auto readOnly = runTool({"sqlite", path, "DELETE FROM tracks"});
  EXPECT_EQ(readOnly.status, 1);
  EXPECT_EQ(readOnly.err, "fennick sqlite: 8 - attempt to write a readonly database\n");
  EXPECT_EQ(runTool({"sqlite", "--write", path, "DELETE FROM tracks"}).status, 0);
  EXPECT_EQ(runTool({"sqlite", path, "SELECT count(*) AS n FROM tracks"}).out, "{\"n\":0}\n");
  EXPECT_EQ(runTool({"sqlite", path, "SELECT * FROM albums"}).err, "fennick sqlite: 1 - no such table: albums\n");
  EXPECT_EQ(runTool({"sqlite", dir.path() + "/none.db", "SELECT 1"}).err,
            "fennick sqlite: " + dir.path() + "/none.db: no such file\n");
  EXPECT_EQ(runTool({"sqlite", ":memory:", "SELECT 6 * 7 AS answer, x'00ff' AS bytes, ? AS word", "hi"}).out,
            "{\"answer\":42,\"bytes\":\"AP8=\",\"word\":\"hi\"}\n");
  EXPECT_EQ(runTool({"sqlite", path}).status, 2);
}

TEST(BundleCommand, PrintsNameIdentifierAndVersions) {
  testing::TemporaryDirectory dir;
  auto info = Dictionary::dictionaryWithStringKeys({{"CFBundleName", "Desktop Client"_s},
                                                    {"CFBundleIdentifier", "com.pellora.DesktopClient"_s},
                                                    {"CFBundleShortVersionString", "3.1"_s}});
  testing::writeFile(dir.file("Client.app/Contents/Info.plist"),
                     testing::propertyListBytes(info, PropertyListFormat::XML));
  auto shown = runTool({"bundle", dir.path() + "/Client.app"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.out,
            "name:       Desktop Client\n"
            "identifier: com.pellora.DesktopClient\n"
            "version:    3.1\n"
            "build:      (none)\n");
  auto none = runTool({"bundle", dir.path()});
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("not a bundle"), std::string::npos);
  auto missing = runTool({"bundle", dir.path() + "/Missing.app"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("no such file"), std::string::npos);
}

}  // namespace
}  // namespace fennick
