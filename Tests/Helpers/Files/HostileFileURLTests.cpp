// File URLs whose path holds a NUL byte (parsed from text with "%00") never
// reach an item: the system would read such a path only up to the NUL, so
// "victim%00/Store.sqlite" would open, watch, size or remove the folder
// "victim". Every file operation must fail cleanly and leave "victim" as it
// was, as root and as an unprivileged user.
#include "fennick/Helpers/Files/OVFileMonitor.h"
#include "fennick/Helpers/Data/OVPersistentStoreDestruction.h"
#include "fennick/Helpers/Data/OVSQLite.h"
#include "fennick/Helpers/Files/URLSecurityScope.h"
#include "fennick/Runtime/Processes/Bundle.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/Values/String.h"

#include "Support/ChildTestRun.h"
#include "Runtime/Processes/BundleTestSupport.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>

namespace fennick {
namespace {

using testing::TemporaryDirectory;
namespace fs = std::filesystem;

const char* const kNotes = "notes that must survive";

// "victim" holds what a cut-short path would reach: an SQLite store (a
// bundle's property list beside it makes the folder a bundle, too).
void makeVictim(const TemporaryDirectory& dir) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(dir.file("victim/Store.sqlite").c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(x); INSERT INTO t VALUES(1)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(db);
  testing::writeFile(dir.file("victim/Store.sqlite-wal"), "wal");
  testing::writeFile(dir.file("victim/Info.plist"),
                     testing::propertyListBytes(Dictionary::dictionaryWithStringKeys(
                                                    {{"CFBundleIdentifier", String::string("org.example.victim")}}),
                                                PropertyListFormat::XML));
  testing::writeFile(dir.file("victim/notes.txt"), kNotes);
}

std::string victimState(const TemporaryDirectory& dir) {
  std::ostringstream state;
  for (const char* name : {"Store.sqlite", "Store.sqlite-wal", "Info.plist", "notes.txt"}) {
    std::error_code ignored;
    state << name << ":" << fs::file_size(dir.path() + "/victim/" + name, ignored) << " ";
  }
  std::ifstream notes(dir.path() + "/victim/notes.txt");
  state << std::string(std::istreambuf_iterator<char>(notes), {});
  return state.str();
}

bool isInvalidArgument(const Ref<Error>& error) {
  return error && error->domain() == NSPOSIXErrorDomain && error->code() == EINVAL;
}

// One file operation on a hostile URL; true when it refused cleanly.
struct Operation {
  const char* name;
  std::function<bool(const Ref<URL>&)> refuses;
};

const Operation kOperations[] = {
    {"open for reading",
     [](const Ref<URL>& url) {
       Ref<Error> error;
       return !FileHandle::fileHandleForReadingFromURL_error(url, &error) && isInvalidArgument(error);
     }},
    {"open for writing",
     [](const Ref<URL>& url) {
       Ref<Error> error;
       return !FileHandle::fileHandleForWritingToURL_error(url, &error) && isInvalidArgument(error);
     }},
    {"resource value",
     [](const Ref<URL>& url) {
       Ref<Error> error;
       return !url->resourceValueForKey(NSURLIsDirectoryKey, &error) && isInvalidArgument(error) && !url->isDirectory();
     }},
    {"volume and reachability",
     [](const Ref<URL>& url) {
       Ref<Error> error;
       auto keys = Array::arrayWithObjects({String::string(NSURLVolumeURLKey), String::string(NSURLFileSizeKey)});
       return !url->resourceValuesForKeys(keys, &error) && isInvalidArgument(error) &&
              !url->checkResourceIsReachableAndReturnError(nullptr) && !url->onRootVolume();
     }},
    {"identity and bookmark",
     [](const Ref<URL>& url) {
       Ref<Error> error;
       return !url->fileReferenceURL() &&
              !url->bookmarkDataWithOptions_includingResourceValuesForKeys_relativeToURL_error(0, nullptr, nullptr,
                                                                                             &error) &&
              error;
     }},
    {"directory size", [](const Ref<URL>& url) { return url->fetchDirectorySize() == 0; }},
    {"disk size on the utility queue",
     [](const Ref<URL>& url) {
       std::promise<bool> refused;
       getResourceValuesForKeys_completionBlock(url, Array::arrayWithObjects({String::string(DXURLDiskSizeKey)}),
                                                [&](const Ref<Dictionary>& values, const Ref<Error>& error) {
                                                  refused.set_value(values->count() == 0 && isInvalidArgument(error));
                                                });
       auto answer = refused.get_future();
       return answer.wait_for(std::chrono::seconds(30)) == std::future_status::ready && answer.get();
     }},
    {"watch", [](const Ref<URL>& url) { return !OVFileMonitor::initWithURL(url); }},
    {"bundle",
     [](const Ref<URL>& url) { return !Bundle::bundleWithURL(url) && !OVInfoDictionaryForBundleAtURL(url); }},
    {"open as SQLite database",
     [](const Ref<URL>& url) {
       Ref<Error> error;
       sqlite3* db = OVSQLiteOpenDatabase(url, OVSQLiteOpenModeReadWrite, &error);
       if (db) OVSQLiteCloseDatabase(db);
       return !db && error && error->code() == OVSQLiteErrorFileNotFound;
     }},
    {"destroy store",
     [](const Ref<URL>& url) {
       Ref<Error> error;
       return !OVDestroyPersistentStoreAtURL(url, true, &error) && !error;  // "nothing there": error untouched
     }},
};

void checkNulURLsReachNothing() {
  TemporaryDirectory dir;
  makeVictim(dir);
  const std::string intact = victimState(dir);
  const std::string root = "file://" + URL::stringByAddingPercentEncoding(dir.path(), URLCharacterSet::Path);
  // Each cut short at the NUL names something in "victim", or "victim" itself.
  const std::string hostile[] = {
      "/victim%00/Store.sqlite",
      "/victim/Store.sqlite%00.bak",
      "/victim/%00",
      "/victim%00",
      "/victim/notes.txt%00",
  };
  for (const std::string& suffix : hostile) {
    const Ref<URL> url = URL::URLWithString(root + suffix);
    ASSERT_TRUE(url) << suffix;
    EXPECT_FALSE(url->fileSystemRepresentation()) << suffix;
    for (const Operation& operation : kOperations) {
      EXPECT_TRUE(operation.refuses(url)) << operation.name << " on " << suffix;
      ASSERT_EQ(victimState(dir), intact) << operation.name << " on " << suffix << " touched the victim";
    }
  }
  // The same operations on the victim's real names do reach it.
  EXPECT_TRUE(Bundle::bundleWithURL(URL::fileURLWithPath(dir.path() + "/victim")));
  EXPECT_TRUE(OVDestroyPersistentStoreAtURL(URL::fileURLWithPath(dir.path() + "/victim/Store.sqlite"), true, nullptr));
  EXPECT_FALSE(fs::exists(dir.path() + "/victim/Store.sqlite-wal"));
}

TEST(HostileFileURL, NulInThePathReachesNoItem) {
  checkNulURLsReachNothing();
  FENNICK_RUN_IN_CHILD("HostileFileURL.InsideUnprivilegedChild", {.unprivileged = true});
}

TEST(HostileFileURL, InsideUnprivilegedChild) {
  FENNICK_ONLY_IN_CHILD();
  checkNulURLsReachNothing();
}

}  // namespace
}  // namespace fennick
