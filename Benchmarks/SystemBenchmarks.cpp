// Processes and the unpacker against the system calls and tools they wrap:
// posix_spawn and waitpid for a launch, bsdtar run directly for a ZIP.
#include "Comparison.h"

#include "fennick/Helpers/Unarchiver/OVUnarchiver.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Processes/Process.h"
#include "fennick/Runtime/URLs/URL.h"

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace fennick::bench {
namespace {

namespace fs = std::filesystem;

int spawnAndWait(std::vector<std::string> arguments) {
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

// -- Launch /bin/true and wait ---------------------------------------------------------

void processLaunch(benchmark::State& state) {
  for (auto _ : state) {
    auto process = Process::init();
    process->setLaunchPath("/bin/true");
    process->launch();
    process->waitUntilExit();
    if (process->terminationStatus() != 0) state.SkipWithError("/bin/true failed");
  }
}

void posixSpawnLaunch(benchmark::State& state) {
  for (auto _ : state)
    if (spawnAndWait({"/bin/true"}) != 0) state.SkipWithError("/bin/true failed");
}

FENNICK_COMPARISON(process_launch_vs_posix_spawn, processLaunch, posixSpawnLaunch, .goal = 0.8);

// -- A ZIP of 20,000 small files ---------------------------------------------------------

constexpr int kFiles = 20'000;

// Made once per run, removed at exit: the archive and a place for the destinations.
class ZIPFixture {
 public:
  ZIPFixture() : root_(fs::temp_directory_path() / ("fennick-bench-zip-" + std::to_string(getpid()))) {
    fs::create_directories(root_ / "content" / "files");
    for (int i = 0; i < kFiles; ++i)
      std::ofstream(root_ / "content" / "files" / ("file" + std::to_string(i) + ".txt")) << "small file " << i << '\n';
    spawnAndWait({"/usr/bin/bsdtar", "--format", "zip", "-cf", archive().string(), "-C", (root_ / "content").string(),
                  "files"});
    fs::remove_all(root_ / "content");
  }
  ~ZIPFixture() { fs::remove_all(root_); }
  fs::path archive() const { return root_ / "files.zip"; }

 private:
  fs::path root_;
};

fs::path benchArchive() {
  static const ZIPFixture fixture;
  return fixture.archive();
}

fs::path freshDestination() {
  static int counter = 0;
  return benchArchive().parent_path() / ("out" + std::to_string(++counter));
}

// Points TMPDIR at a private folder while it lives, so that the extraction
// folders the unarchiver leaves behind can be removed.
class PrivateTemporaryDirectory {
 public:
  PrivateTemporaryDirectory() : path_(benchArchive().parent_path() / "tmp") {
    if (const char* old = std::getenv("TMPDIR")) saved_ = old;
    fs::create_directories(path_);
    setenv("TMPDIR", path_.c_str(), 1);
  }
  ~PrivateTemporaryDirectory() {
    if (saved_)
      setenv("TMPDIR", saved_->c_str(), 1);
    else
      unsetenv("TMPDIR");
    fs::remove_all(path_);
  }
  void clear() const {
    for (const auto& entry : fs::directory_iterator(path_)) fs::remove_all(entry.path());
  }

 private:
  fs::path path_;
  std::optional<std::string> saved_;
};

void unpackWithUnarchiver(benchmark::State& state) {
  const PrivateTemporaryDirectory temporary;
  for (auto _ : state) {
    state.PauseTiming();
    const fs::path destination = freshDestination();
    state.ResumeTiming();
    bool ok = false;
    OVUnarchiver::unpackArchiveAtURL_toDestinationFolder_async_progressHandler_completionHandler(
        URL::fileURLWithPath(benchArchive().string()), URL::fileURLWithPath(destination.string()), false, nullptr,
        [&](const Ref<URL>& folder, const Ref<Error>&) { ok = folder != nullptr; });
    state.PauseTiming();
    if (!ok) state.SkipWithError("unpacking failed");
    fs::remove_all(destination);
    temporary.clear();
    state.ResumeTiming();
  }
}

void unpackWithBsdtar(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    const fs::path destination = freshDestination();
    fs::create_directories(destination);
    state.ResumeTiming();
    if (spawnAndWait({"/usr/bin/bsdtar", "-x", "-f", benchArchive().string(), "-C", destination.string()}) != 0)
      state.SkipWithError("bsdtar failed");
    state.PauseTiming();
    fs::remove_all(destination);
    state.ResumeTiming();
  }
}

FENNICK_COMPARISON(unpack_zip_vs_bsdtar, unpackWithUnarchiver, unpackWithBsdtar, .goal = 0.9, .iterations = 2);

}  // namespace
}  // namespace fennick::bench
