// The data helpers against what a C++ programmer would otherwise write: rows
// out of SQLite (a plain C loop, and Python's sqlite3 module), version sorting
// (glibc's strverscmp), typed reads from decoded JSON (nlohmann::json) and
// archiving by reflection (hand-written coding methods).
#include "Comparison.h"

#include "fennick/Helpers/Data/OVClassReflection.h"
#include "fennick/Helpers/Data/OVJSONParser.h"
#include "fennick/Helpers/Data/OVSQLite.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Coding/JSON.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/Values/VersionOrder.h"

#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace fennick::bench {
namespace {

// -- SQLite ----------------------------------------------------------------------------

constexpr int kRows = 1'000'000;
constexpr const char* kRowQuery = "SELECT i, t, r, b, n FROM samples";

// A database of kRows rows (integer, text, real, 16-byte blob, null), made
// once per run and removed at exit.
class SampleDatabase {
 public:
  static const SampleDatabase& shared() {
    static const SampleDatabase database;
    return database;
  }
  const std::string& path() const { return path_; }
  ~SampleDatabase() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }

 private:
  SampleDatabase() : path_((std::filesystem::temp_directory_path() / fmt::format("fennick-bench-{}.db", ::getpid())).string()) {
    sqlite3* db = nullptr;
    sqlite3_open(path_.c_str(), &db);
    sqlite3_exec(db, "PRAGMA journal_mode = OFF; CREATE TABLE samples(i INTEGER, t TEXT, r REAL, b BLOB, n);"
                     "BEGIN", nullptr, nullptr, nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO samples VALUES (?, ?, ?, ?, NULL)", -1, &insert, nullptr);
    std::array<unsigned char, 16> blob{};
    for (int row = 0; row < kRows; ++row) {
      const std::string text = fmt::format("row number {}", row);
      std::memcpy(blob.data(), &row, sizeof row);
      sqlite3_bind_int64(insert, 1, row * 37LL);
      sqlite3_bind_text(insert, 2, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
      sqlite3_bind_double(insert, 3, row * 0.5);
      sqlite3_bind_blob(insert, 4, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
      sqlite3_step(insert);
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
  std::string path_;
};

void sqliteRowsFennick(benchmark::State& state) {
  const std::string& path = SampleDatabase::shared().path();
  for (auto _ : state) {
    sqlite3* db = OVSQLiteOpenDatabase(URL::fileURLWithPath(path), OVSQLiteOpenModeReadOnly, nullptr);
    Ref<Array> rows = OVSQLiteExecuteQuery(db, kRowQuery, nullptr);
    if (!rows || rows->count() != kRows) state.SkipWithError("wrong row count");
    benchmark::DoNotOptimize(rows);
    OVSQLiteCloseDatabase(db);
  }
}

struct SampleRow {
  std::int64_t i = 0;
  std::string t;
  double r = 0;
  std::vector<std::uint8_t> b;
  bool nIsNull = false;
};

void sqliteRowsCLoop(benchmark::State& state) {
  const std::string& path = SampleDatabase::shared().path();
  for (auto _ : state) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, kRowQuery, -1, &statement, nullptr);
    std::vector<SampleRow> rows;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      SampleRow row;
      row.i = sqlite3_column_int64(statement, 0);
      row.t.assign(reinterpret_cast<const char*>(sqlite3_column_text(statement, 1)),
                   static_cast<std::size_t>(sqlite3_column_bytes(statement, 1)));
      row.r = sqlite3_column_double(statement, 2);
      const auto* blob = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement, 3));
      row.b.assign(blob, blob + sqlite3_column_bytes(statement, 3));
      row.nIsNull = sqlite3_column_type(statement, 4) == SQLITE_NULL;
      rows.push_back(std::move(row));
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    if (rows.size() != kRows) state.SkipWithError("wrong row count");
    benchmark::DoNotOptimize(rows);
  }
}

// Python's sqlite3 module building a dict per row. The interpreter starts
// outside the timed region: it connects, says "ready", and runs the query
// when told to, so only the query (and one line over a pipe) is timed.
constexpr const char* kPythonScript = R"(
import sqlite3, sys
def as_dict(cursor, row):
    return {column[0]: row[index] for index, column in enumerate(cursor.description)}
connection = sqlite3.connect("file:" + sys.argv[1] + "?mode=ro", uri=True)
connection.row_factory = as_dict
print("ready", flush=True)
sys.stdin.readline()
rows = connection.execute(sys.argv[2]).fetchall()
print(len(rows), flush=True)
)";

void sqliteRowsPython(benchmark::State& state) {
  const std::string& path = SampleDatabase::shared().path();
  for (auto _ : state) {
    state.PauseTiming();
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) {
      state.SkipWithError("no pipes");
      break;
    }
    const pid_t child = ::fork();
    if (child == 0) {
      ::dup2(toChild[0], 0);
      ::dup2(fromChild[1], 1);
      ::execlp("python3", "python3", "-c", kPythonScript, path.c_str(), kRowQuery, nullptr);
      ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    FILE* replies = ::fdopen(fromChild[0], "r");
    char line[64] = {};
    const bool ready = std::fgets(line, sizeof line, replies) && std::strncmp(line, "ready", 5) == 0;
    state.ResumeTiming();
    if (ready) {
      [[maybe_unused]] auto written = ::write(toChild[1], "go\n", 3);
      if (!std::fgets(line, sizeof line, replies)) line[0] = 0;
    }
    state.PauseTiming();
    ::close(toChild[1]);
    std::fclose(replies);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!ready || std::atoi(line) != kRows) state.SkipWithError("python3 with its sqlite3 module did not run here");
    state.ResumeTiming();
  }
}

FENNICK_COMPARISON(sqlite_rows_vs_c_loop, sqliteRowsFennick, sqliteRowsCLoop, .goal = 0.3, .iterations = 2);
FENNICK_COMPARISON(sqlite_rows_vs_python, sqliteRowsFennick, sqliteRowsPython, .goal = 2, .iterations = 1);

// -- Version sorting -------------------------------------------------------------------------

constexpr int kVersions = 100'000;

const std::vector<std::string>& sampleVersions() {
  static const std::vector<std::string> versions = [] {
    std::mt19937 random(42);
    const char* words[] = {"a", "b", "alpha", "beta", "rc", "pre", "final"};
    std::vector<std::string> list;
    list.reserve(kVersions);
    for (int i = 0; i < kVersions; ++i) {
      std::string version = std::to_string(random() % 12);
      const int parts = 1 + static_cast<int>(random() % 3);
      for (int p = 0; p < parts; ++p) version += fmt::format(".{}", random() % (p == 0 ? 30 : 200));
      switch (random() % 8) {
        case 0: version += fmt::format("{}{}", words[random() % 7], random() % 12); break;
        case 1: version += fmt::format("-{}.{}", words[random() % 7], random() % 5); break;
        case 2: version += ".*"; break;
        default: break;
      }
      list.push_back(std::move(version));
    }
    return list;
  }();
  return versions;
}

void versionSortFennick(benchmark::State& state) {
  std::vector<Ref<String>> strings;
  for (const std::string& version : sampleVersions()) strings.push_back(String::string(version));
  std::vector<const String*> order;
  for (auto _ : state) {
    state.PauseTiming();
    order.clear();
    for (const auto& string : strings) order.push_back(string.get());
    state.ResumeTiming();
    std::sort(order.begin(), order.end(),
              [](const String* a, const String* b) { return a->compareVersion(b->view()) < 0; });
    benchmark::DoNotOptimize(order.data());
  }
}

void versionSortStrverscmp(benchmark::State& state) {
  std::vector<const char*> order;
  for (auto _ : state) {
    state.PauseTiming();
    order.clear();
    for (const std::string& version : sampleVersions()) order.push_back(version.c_str());
    state.ResumeTiming();
    std::sort(order.begin(), order.end(), [](const char* a, const char* b) { return ::strverscmp(a, b) < 0; });
    benchmark::DoNotOptimize(order.data());
  }
}

FENNICK_COMPARISON(version_sort_vs_strverscmp, versionSortFennick, versionSortStrverscmp, .goal = 0.3,
                   .iterations = 5);

// -- Typed JSON reads ----------------------------------------------------------------------------

constexpr int kReads = 1'000'000;
constexpr const char* kDocument = R"({
  "id": 88123, "name": "Desktop Client", "enabled": true,
  "user": {"name": "Ada", "email": "ada@example.org", "profile": {"age": 36, "score": 91.5, "city": "London"}},
  "settings": {"display": {"theme": "dark", "scale": 2, "font": "Inter"}, "sync": {"interval": 300}},
  "stats": {"launches": 412, "crashes": 0, "uptime": 86400.5}
})";
// Key paths and whether the value is text (else a number).
const std::vector<std::pair<std::string, bool>> kPaths = {
    {"user.profile.age", false}, {"user.name", true},       {"settings.display.theme", true},
    {"stats.launches", false},   {"id", false},             {"settings.sync.interval", false},
    {"user.profile.city", true}, {"stats.uptime", false},
};

void jsonReadsFennick(benchmark::State& state) {
  auto document = Dictionary::castObject(JSON::JSONObjectWithString_options_error(kDocument, 0, nullptr));
  auto reader = OVJSONParser::initWithJSON(document);
  for (auto _ : state) {
    std::int64_t checksum = 0;
    for (int i = 0; i < kReads; ++i) {
      const auto& [path, isText] = kPaths[static_cast<std::size_t>(i) % kPaths.size()];
      if (isText) checksum += static_cast<std::int64_t>(reader->stringForKeyPath(path)->utf8().size());
      else checksum += reader->numberForKeyPath(path)->integerValue();
    }
    if (reader->lastError()) state.SkipWithError("a read failed");
    benchmark::DoNotOptimize(checksum);
  }
}

void jsonReadsNlohmann(benchmark::State& state) {
  const nlohmann::json document = nlohmann::json::parse(kDocument);
  std::vector<std::vector<std::string>> components;
  for (const auto& [path, isText] : kPaths) {
    std::vector<std::string> keys;
    for (std::size_t start = 0;;) {
      const auto dot = path.find('.', start);
      keys.push_back(path.substr(start, dot - start));
      if (dot == std::string::npos) break;
      start = dot + 1;
    }
    components.push_back(std::move(keys));
  }
  for (auto _ : state) {
    std::int64_t checksum = 0;
    for (int i = 0; i < kReads; ++i) {
      const std::size_t which = static_cast<std::size_t>(i) % kPaths.size();
      const nlohmann::json* value = &document;
      for (const std::string& key : components[which]) value = &value->at(key);
      if (kPaths[which].second) checksum += static_cast<std::int64_t>(value->get_ref<const std::string&>().size());
      else checksum += value->get<std::int64_t>();
    }
    benchmark::DoNotOptimize(checksum);
  }
}

FENNICK_COMPARISON(json_reader_vs_nlohmann, jsonReadsFennick, jsonReadsNlohmann, .goal = 0.5, .iterations = 3);

// -- Archiving by reflection -----------------------------------------------------------------------

constexpr int kObjects = 10'000;

// The same five properties, coded by reflection or by hand.
template <class Self>
class SongFields : public Object {
 public:
  Ref<String> title() const { return title_; }
  void setTitle(Ref<String> v) { title_ = std::move(v); }
  Ref<String> artist() const { return artist_; }
  void setArtist(Ref<String> v) { artist_ = std::move(v); }
  Ref<Number> seconds() const { return seconds_; }
  void setSeconds(Ref<Number> v) { seconds_ = std::move(v); }
  Ref<Number> rating() const { return rating_; }
  void setRating(Ref<Number> v) { rating_ = std::move(v); }
  Ref<Array> tags() const { return tags_; }
  void setTags(Ref<Array> v) { tags_ = std::move(v); }

 protected:
  Ref<String> title_, artist_;
  Ref<Number> seconds_, rating_;
  Ref<Array> tags_;
};

class ReflectedSong : public SongFields<ReflectedSong> {
  FENNICK_DECLARE_CLASS(ReflectedSong, Object)
  FENNICK_REFLECTION_CODING()

 public:
  static Ref<OVClassReflection> makeReflection() {
    auto reflection = OVClassReflection::makeReflectionOfClass(Superclass::staticClass());
    for (const char* key : {"title", "artist"})
      reflection->addPropertyForSelector_objectClass(Selector::named(key), String::staticClass());
    for (const char* key : {"seconds", "rating"})
      reflection->addPropertyForSelector_objectClass(Selector::named(key), Number::staticClass());
    reflection->addPropertyForSelector_containerClass_objectClass(Selector::named("tags"), Array::staticClass(),
                                                                  String::staticClass());
    return reflection;
  }

 protected:
  ReflectedSong() = default;
};

class HandCodedSong : public SongFields<HandCodedSong> {
  FENNICK_DECLARE_CLASS(HandCodedSong, Object)

 public:
  void encodeWithCoder(Coder& coder) const override {
    coder.encodeObject_forKey(title_, "title");
    coder.encodeObject_forKey(artist_, "artist");
    coder.encodeObject_forKey(seconds_, "seconds");
    coder.encodeObject_forKey(rating_, "rating");
    coder.encodeObject_forKey(tags_, "tags");
  }
  void initWithCoder(Coder& coder) override {
    title_ = String::dynamicCastObject(coder.decodeObjectOfClass_forKey(String::staticClass(), "title"));
    artist_ = String::dynamicCastObject(coder.decodeObjectOfClass_forKey(String::staticClass(), "artist"));
    seconds_ = Number::dynamicCastObject(coder.decodeObjectOfClass_forKey(Number::staticClass(), "seconds"));
    rating_ = Number::dynamicCastObject(coder.decodeObjectOfClass_forKey(Number::staticClass(), "rating"));
    tags_ = Array::dynamicCastObject(
        coder.decodeObjectOfClasses_forKey({Array::staticClass(), String::staticClass()}, "tags"));
  }

 protected:
  HandCodedSong() = default;
};

template <class Song>
void describeSong(ClassBuilder<Song>& builder) {
  builder.property("title", &Song::title, &Song::setTitle);
  builder.property("artist", &Song::artist, &Song::setArtist);
  builder.property("seconds", &Song::seconds, &Song::setSeconds);
  builder.property("rating", &Song::rating, &Song::setRating);
  builder.property("tags", &Song::tags, &Song::setTags);
  builder.coding();
}

FENNICK_DEFINE_CLASS(ReflectedSong) { describeSong(builder); }
FENNICK_DEFINE_CLASS(HandCodedSong) { describeSong(builder); }

template <class Song>
Ref<Array> songs() {
  auto list = Array::arrayWithCapacity(kObjects);
  for (int i = 0; i < kObjects; ++i) {
    auto song = make<Song>();
    song->setTitle(String::format("Track {}", i));
    song->setArtist(String::format("Artist {}", i % 97));
    song->setSeconds(Number::of(120 + i % 300));
    song->setRating(Number::of(i % 5));
    song->setTags(Array::arrayWithObjects({String::format("tag{}", i % 13), "live"_s}));
    list->addObject(song);
  }
  return list;
}

template <class Song>
void archiveSongs(benchmark::State& state) {
  const Ref<Array> list = songs<Song>();
  const ClassList classes{Array::staticClass(), Song::staticClass()};
  for (auto _ : state) {
    Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(list, true, nullptr);
    auto decoded = Array::dynamicCastObject(KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(classes, archive, nullptr));
    if (!decoded || decoded->count() != kObjects) state.SkipWithError("archive round trip failed");
    benchmark::DoNotOptimize(decoded);
  }
}

FENNICK_COMPARISON(reflection_archive_vs_manual, archiveSongs<ReflectedSong>, archiveSongs<HandCodedSong>,
                   .goal = 0.7, .iterations = 5);

}  // namespace
}  // namespace fennick::bench
