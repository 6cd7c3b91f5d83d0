#pragma once
// A sandbox for unpacker tests that may run as root, as an unprivileged user
// or in a namespace of their own: a temporary directory for the jobs (TMPDIR
// points at it while the sandbox lives), a destination that already holds
// items, and an "outside" folder that hostile archives aim at.
#include "Support/HelpersTestSupport.h"

#include "fennick/Helpers/Unarchiver/OVUnarchiver.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/URLs/URL.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fennick::unarchivertest {

namespace fs = std::filesystem;

/// Where a test's sandbox goes: FENNICK_SANDBOX_BASE when an outer test
/// passed one to its child, else the temporary directory.
inline fs::path sandboxBase() {
  for (const char* name : {"FENNICK_SANDBOX_BASE", "TMPDIR"})
    if (const char* value = std::getenv(name); value && *value) return value;
  return "/tmp";
}

inline void writeFile(const fs::path& path, std::string_view bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> result;
  std::error_code ignored;
  for (auto it = fs::directory_iterator(folder, ignored); !ignored && it != fs::directory_iterator();
       it.increment(ignored))
    result.push_back(it->path().filename().string());
  std::sort(result.begin(), result.end());
  return result;
}

struct Outcome {
  bool completed = false;
  Ref<URL> folder;
  Ref<Error> error;
};

/// Runs a job and waits for it (bounded, so that a job that hangs fails the
/// test instead of the whole run).
inline Outcome unpack(const fs::path& archive, const fs::path& destination,
                      OVUnarchiver::ProgressHandler progress = nullptr) {
  auto outcome = std::make_shared<Outcome>();
  auto done = std::make_shared<fennick::testing::Latch>();
  OVUnarchiver::unpackArchiveAtURL_toDestinationFolder_async_progressHandler_completionHandler(
      URL::fileURLWithPath(archive.string()),
      destination.empty() ? nullptr : URL::fileURLWithPath(destination.string()), true, std::move(progress),
      [outcome, done](const Ref<URL>& folder, const Ref<Error>& error) {
        outcome->folder = folder;
        outcome->error = error;
        outcome->completed = true;
        done->signal();
      });
  if (!done->waitFor(1, std::chrono::seconds(60))) return {};
  return *outcome;
}

/// Sets the process's umask for a scope.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : saved_(::umask(mask)) {}
  ~ScopedUmask() { ::umask(saved_); }

 private:
  mode_t saved_;
};

class Sandbox {
 public:
  explicit Sandbox(const std::string& name)
      : root_(sandboxBase() / (name + "-" + std::to_string(::getpid()))) {
    const char* tmpdir = std::getenv("TMPDIR");
    hadTmpdir_ = tmpdir != nullptr;
    savedTmpdir_ = tmpdir ? tmpdir : "";
    fs::remove_all(root_);
    for (const fs::path& folder : {root_, tmp(), outside(), destination()}) {
      fs::create_directories(folder);
      fs::permissions(folder, fs::perms(0755));
    }
    writeFile(destination() / "keep.txt", "kept");
    writeFile(destination() / "App" / "inner.txt", "inner");
    setenv("TMPDIR", tmp().c_str(), 1);
  }
  ~Sandbox() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
    if (hadTmpdir_)
      setenv("TMPDIR", savedTmpdir_.c_str(), 1);
    else
      unsetenv("TMPDIR");
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const fs::path& root() const { return root_; }
  fs::path tmp() const { return root_ / "tmp"; }
  fs::path outside() const { return root_ / "outside"; }
  fs::path destination() const { return root_ / "destination"; }

  /// What was in the destination before is still there, unchanged, and no
  /// half-placed item is left beside it.
  void expectDestinationIntact() const {
    EXPECT_EQ(readFile(destination() / "keep.txt"), "kept");
    EXPECT_EQ(readFile(destination() / "App" / "inner.txt"), "inner");
    for (const auto& name : namesIn(destination())) EXPECT_NE(name.rfind(".fennick-", 0), 0u) << name;
  }

  /// Nothing reached the outside folder or anywhere else in the sandbox
  /// under an escapee's name.
  void expectNothingEscaped() const {
    EXPECT_TRUE(namesIn(outside()).empty());
    for (const auto& entry : fs::recursive_directory_iterator(root_))
      EXPECT_EQ(entry.path().filename().string().find("fennick-escape"), std::string::npos) << entry.path();
  }

  /// No device, FIFO, socket, hard-linked file, set-user-ID, set-group-ID or
  /// world-writable item anywhere the jobs wrote.
  void expectOnlySafeItems() const {
    for (const fs::path& folder : {tmp(), destination()}) {
      for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        struct stat status {};
        ASSERT_EQ(::lstat(entry.path().c_str(), &status), 0) << entry.path();
        const mode_t type = status.st_mode & S_IFMT;
        EXPECT_TRUE(type == S_IFREG || type == S_IFDIR || type == S_IFLNK) << entry.path();
        if (type == S_IFLNK) continue;
        EXPECT_EQ(status.st_mode & (S_ISUID | S_ISGID | S_IWOTH), 0u) << entry.path();
        if (type == S_IFREG) {
          EXPECT_EQ(status.st_nlink, 1u) << entry.path();
        }
      }
    }
  }

 private:
  fs::path root_;
  bool hadTmpdir_ = false;
  std::string savedTmpdir_;
};

}  // namespace fennick::unarchivertest
