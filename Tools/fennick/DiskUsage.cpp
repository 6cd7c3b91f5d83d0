// fennick du: the space files and folder trees take on disk.
#include "Command.h"
#include "Progress.h"

#include <fennick/Fennick.h>

#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

namespace fennick::tool {

namespace {

// "1.5K", "23M", as du -h writes sizes: powers of 1024, one decimal below ten.
std::string humanReadable(std::int64_t bytes) {
  static constexpr const char* kUnits[] = {"K", "M", "G", "T", "P", "E"};
  if (bytes < 1024) return std::to_string(bytes);
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (value /= 1024; value >= 1024 && unit + 1 < std::size(kUnits); value /= 1024) ++unit;
  char text[32];
  if (value < 10) std::snprintf(text, sizeof text, "%.1f%s", value, kUnits[unit]);
  else std::snprintf(text, sizeof text, "%.0f%s", value, kUnits[unit]);
  return text;
}

// Walks a folder as fetchDirectorySize does, showing the items walked so far
// while it works.
std::int64_t walkFolder(const std::string& path, Progress& progress) {
  platform::DirectorySizeWalker walker(path);
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  std::thread reporter([&] {
    std::unique_lock lock(mutex);
    while (!finished.wait_for(lock, std::chrono::milliseconds(100), [&] { return done; }))
      progress.status(std::to_string(walker.itemsVisited()) + " items walked in " + path);
  });
  const std::int64_t size = walker.run();
  {
    std::lock_guard lock(mutex);
    done = true;
  }
  finished.notify_all();
  reporter.join();
  return size;
}

int runDiskUsage(const Arguments& arguments) {
  const bool human = arguments.has("human-readable");
  Progress progress;
  int status = kExitOK;
  for (const std::string& path : arguments.positional()) {
    Ref<URL> url = URL::fileURLWithPath(path);
    Ref<Error> error;
    Ref<Dictionary> values =
        url ? url->resourceValuesForKeys(Array::arrayWithObjects({String::string(NSURLIsDirectoryKey),
                                                                  String::string(NSURLFileAllocatedSizeKey)}),
                                         &error)
            : nullptr;
    if (!values) {
      progress.finish();
      status = fail("du", path + ": " + (error ? error->localizedDescription() : "not a path"));
      continue;
    }
    auto isDirectory = Number::dynamicCastObject(values->objectForKey(NSURLIsDirectoryKey));
    auto allocated = Number::dynamicCastObject(values->objectForKey(NSURLFileAllocatedSizeKey));
    const std::int64_t size = isDirectory && isDirectory->boolValue()
                                  ? walkFolder(path, progress)
                                  : (allocated ? allocated->integerValue() : 0);
    progress.finish();
    std::printf("%s\t%s\n", human ? humanReadable(size).c_str() : std::to_string(size).c_str(), path.c_str());
    std::fflush(stdout);
  }
  return status;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "du",
                      .summary = "show the space files and folder trees take on disk",
                      .usage = "usage: fennick du [-h] PATH...\n\n"
                               "Prints the bytes each path occupies on disk, then the path. A folder\n"
                               "counts every item below it (allocated blocks; symbolic links are not\n"
                               "followed, unreadable folders are skipped) but not itself; a file\n"
                               "counts its own blocks. On a terminal a live line shows how many items\n"
                               "were walked so far.\n\n"
                               "  -h, --human-readable  sizes as 1.5K, 23M, 4.0G (powers of 1024)\n",
                      .options = {{.longName = "human-readable", .shortName = 'h'}},
                      .minArguments = 1,
                      .run = runDiskUsage});

}  // namespace fennick::tool
