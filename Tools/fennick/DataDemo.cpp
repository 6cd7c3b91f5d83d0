// The demo's data section: reading decoded JSON, ordering versions, querying
// SQLite and archiving by reflection.
#include <filesystem>
#include <fstream>

#include "DataCommands.h"
#include "Demo.h"

namespace fennick::tool {

namespace {

void showJSONReader(std::FILE* out) {
  std::fprintf(out, "  JSON reader on {\"server\": {\"host\": \"example.org\", \"port\": \"8080\"}}\n");
  auto json = Dictionary::dynamicCastObject(JSON::JSONObjectWithString_options_error(
      R"({"server": {"host": "example.org", "port": "8080"}})", 0, nullptr));
  auto reader = OVJSONParser::initWithJSON(json);
  auto host = reader->stringForKeyPath("server.host");
  auto port = reader->numberForKeyPath("server.port");
  std::fprintf(out, "    server.host = %s, server.port = %s\n", host ? host->UTF8String() : "nil",
               port ? port->description().c_str() : "nil");
  std::fprintf(out, "    first error: %s\n", reader->lastError()->localizedDescription().c_str());
}

void showVersions(std::FILE* out) {
  std::vector<std::string> versions = {"1.10", "1.9", "1.0", "1.0b2", "1.0rc1", "1.0b10", "2.*", "1"};
  std::stable_sort(versions.begin(), versions.end(), [](const std::string& a, const std::string& b) {
    return VersionOrder::compareVersions(a, b) < 0;
  });
  std::string line = versions.front();
  for (std::size_t i = 1; i < versions.size(); ++i)
    line += (VersionOrder::compareVersions(versions[i - 1], versions[i]) == 0 ? " = " : " < ") + versions[i];
  std::fprintf(out, "  versions in order: %s\n", line.c_str());
}

void showSQLite(std::FILE* out) {
  const std::string path =
      (std::filesystem::temp_directory_path() / fmt::format("fennick-demo-{}.db", ::getpid())).string();
  std::ofstream(path).close();  // an empty file is an empty database
  Ref<Error> error;
  sqlite3* db = OVSQLiteOpenDatabase(URL::fileURLWithPath(path), OVSQLiteOpenModeReadWrite, &error);
  if (!db) {
    std::fprintf(out, "  SQLite: %s\n", error->localizedDescription().c_str());
    return;
  }
  OVSQLiteExecuteQuery(db, "CREATE TABLE tracks(title TEXT, seconds INTEGER)", nullptr);
  for (auto [title, seconds] : {std::pair{"So What", 562}, {"Blue in Green", 337}, {"Flamenco Sketches", 566}})
    OVSQLiteExecuteQueryWithArguments(db, "INSERT INTO tracks VALUES (?, ?)",
                                      Array::arrayWithObjects({String::string(title), Number::of(seconds)}), nullptr);
  std::fprintf(out, "  SQLite rows of SELECT * FROM tracks WHERE seconds > 500:\n");
  Ref<Array> rows = OVSQLiteExecuteQuery(db, "SELECT * FROM tracks WHERE seconds > 500", nullptr);
  for (const Id& row : *rows)
    std::fprintf(out, "    %s\n", jsonText(row).c_str());
  OVSQLiteExecuteQuery(db, "SELECT * FROM albums", &error);
  std::fprintf(out, "  SELECT * FROM albums: %s\n", error->localizedDescription().c_str());
  OVSQLiteCloseDatabase(db);
  OVDestroyPersistentStoreAtURL(URL::fileURLWithPath(path), true, nullptr);
}

void showDataFormats(std::FILE* out) {
  std::fprintf(out, "\n== Data: typed JSON reads, version order, SQLite rows\n");
  showJSONReader(out);
  showVersions(out);
  showSQLite(out);
}

}  // namespace

FENNICK_DEMO_SECTION(70, showDataFormats);

}  // namespace fennick::tool
