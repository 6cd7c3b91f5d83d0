// The files subsystem against what a Linux programmer would otherwise use:
// du and nftw for the size of a tree, a thread blocked on its own inotify
// descriptor for event latency, and raw inotify watches for set-up cost.
#include "Comparison.h"

#include "fennick/Helpers/Files/OVFileMonitor.h"
#include "fennick/Helpers/Files/OVFileMonitoringManager.h"
#include "fennick/Platform/Files/VnodeEventSource.h"
#include "fennick/Runtime/URLs/URL.h"

#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace fennick::bench {
namespace {

constexpr int kFolders = 1000;
constexpr int kFilesPerFolder = 100;
constexpr int kMonitoredFiles = 10000;

void removeTree(const std::string& path) {
  ::nftw(path.c_str(), [](const char* item, const struct stat*, int, struct FTW*) { return ::remove(item), 0; }, 64,
         FTW_DEPTH | FTW_PHYS);
}

// 100,000 files in 1,000 folders, made once per run and removed at exit.
// Every tenth file holds a byte, so that the sizes have blocks to sum.
class Tree {
 public:
  static Tree& shared() {
    static Tree tree;
    return tree;
  }
  bool valid() const { return !root_.empty(); }
  const std::string& root() const { return root_; }
  const std::vector<std::string>& someFiles() const { return someFiles_; }

 private:
  Tree() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/fennick-bench-tree-XXXXXX";
    if (!::mkdtemp(pattern.data())) return;
    for (int folder = 0; folder < kFolders; ++folder) {
      const std::string folderPath = pattern + "/d" + std::to_string(folder);
      if (::mkdir(folderPath.c_str(), 0755) != 0) return;
      for (int file = 0; file < kFilesPerFolder; ++file) {
        const std::string filePath = folderPath + "/f" + std::to_string(file);
        const int descriptor = ::open(filePath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (descriptor < 0) return;
        if (file % 10 == 0 && ::write(descriptor, "x", 1) != 1) return;
        ::close(descriptor);
        if (static_cast<int>(someFiles_.size()) < kMonitoredFiles) someFiles_.push_back(filePath);
      }
    }
    root_ = pattern;
    std::atexit([] { removeTree(Tree::shared().root_); });
  }

  std::string root_;
  std::vector<std::string> someFiles_;
};

// -- Directory size ------------------------------------------------------------------

void fennickDirectorySize(benchmark::State& state) {
  Tree& tree = Tree::shared();
  if (!tree.valid()) return state.SkipWithError("could not build the tree");
  auto url = URL::fileURLWithPath(tree.root());
  std::int64_t size = 0;
  for (auto _ : state) benchmark::DoNotOptimize(size = url->fetchDirectorySizeFromNodes());
  if (size <= 0) state.SkipWithError("the walk found nothing");
}

void duDirectorySize(benchmark::State& state) {
  Tree& tree = Tree::shared();
  if (!tree.valid()) return state.SkipWithError("could not build the tree");
  std::string root = tree.root();
  char du[] = "du", summary[] = "-s", bytes[] = "-B1";
  char* argv[] = {du, summary, bytes, root.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  for (auto _ : state) {
    pid_t pid = 0;
    if (posix_spawnp(&pid, "du", &actions, nullptr, argv, environ) != 0) {
      state.SkipWithError("du cannot be started");
      break;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("du failed");
      break;
    }
  }
  posix_spawn_file_actions_destroy(&actions);
}

std::int64_t nftwSum;

void nftwDirectorySize(benchmark::State& state) {
  Tree& tree = Tree::shared();
  if (!tree.valid()) return state.SkipWithError("could not build the tree");
  for (auto _ : state) {
    nftwSum = 0;
    ::nftw(
        tree.root().c_str(),
        [](const char*, const struct stat* status, int type, struct FTW* where) {
          if (type != FTW_D && type != FTW_DP && where->level > 0) nftwSum += status->st_blocks * 512;
          return 0;
        },
        64, FTW_PHYS);
    benchmark::DoNotOptimize(nftwSum);
  }
}

// -- Event latency ----------------------------------------------------------------------

// Counts deliveries; the writer waits for each before the next write.
struct Deliveries {
  std::atomic<std::uint64_t> count{0};
  void signal() {
    count.fetch_add(1, std::memory_order_release);
    count.notify_one();
  }
  void waitBeyond(std::uint64_t seen) {
    while (count.load(std::memory_order_acquire) <= seen) count.wait(seen, std::memory_order_acquire);
  }
};

class WriteObserver : public OVFileObserver {
 public:
  explicit WriteObserver(Deliveries& deliveries) : deliveries_(deliveries) {}
  void didWriteToFileAtURL(const Ref<URL>&) override { deliveries_.signal(); }

 private:
  Deliveries& deliveries_;
};

std::string latencyFile(const char* name) {
  const char* base = std::getenv("TMPDIR");
  std::string path = std::string(base && *base ? base : "/tmp") + "/fennick-bench-" + name + "-" +
                     std::to_string(::getpid());
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor >= 0) ::close(descriptor);
  return path;
}

// One write of one byte, then the wait for its delivery.
template <class Wait>
void writeAndWait(benchmark::State& state, const std::string& path, Deliveries& deliveries, Wait&& ready) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ready();
  for (auto _ : state) {
    const std::uint64_t seen = deliveries.count.load(std::memory_order_acquire);
    if (::pwrite(descriptor, "x", 1, 0) != 1) {
      state.SkipWithError("write failed");
      break;
    }
    deliveries.waitBeyond(seen);
  }
  ::close(descriptor);
}

void managerWriteLatency(benchmark::State& state) {
  const std::string path = latencyFile("manager");
  Deliveries deliveries;
  auto manager = OVFileMonitoringManager::init();
  auto observer = std::make_shared<WriteObserver>(deliveries);
  auto url = URL::fileURLWithPath(path);
  manager->addObserver_url_isRecursive(observer, url, false);
  if (manager->observerCountForURL(url) != 1) {
    ::unlink(path.c_str());
    return state.SkipWithError("the file cannot be watched");
  }
  writeAndWait(state, path, deliveries, [] {});
  manager->removeObserver_url_isRecursive(observer, url, false);
  manager->monitorCount();
  ::unlink(path.c_str());
}

void rawInotifyWriteLatency(benchmark::State& state) {
  const std::string path = latencyFile("inotify");
  Deliveries deliveries;
  const int inotify = ::inotify_init1(IN_CLOEXEC);
  if (inotify < 0 || ::inotify_add_watch(inotify, path.c_str(), IN_MODIFY) < 0) {
    ::unlink(path.c_str());
    return state.SkipWithError("no inotify watch");
  }
  std::thread reader([&] {
    alignas(inotify_event) char buffer[4096];
    while (true) {
      const ssize_t got = ::read(inotify, buffer, sizeof buffer);
      if (got <= 0) return;
      for (ssize_t at = 0; at < got;) {
        auto* event = reinterpret_cast<inotify_event*>(buffer + at);
        if (event->mask & IN_IGNORED) return;
        if (event->mask & IN_MODIFY) deliveries.signal();
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
  });
  writeAndWait(state, path, deliveries, [] {});
  ::unlink(path.c_str());  // ends the watch: the reader sees IN_IGNORED
  reader.join();
  ::close(inotify);
}

// -- Watch set-up and tear-down ------------------------------------------------------------

void fennickMonitors(benchmark::State& state) {
  Tree& tree = Tree::shared();
  if (!tree.valid()) return state.SkipWithError("could not build the tree");
  std::vector<Ref<URL>> urls;
  for (const auto& path : tree.someFiles()) urls.push_back(URL::fileURLWithPath_isDirectory(path, false));
  const std::size_t watches = platform::vnodeWatchCount();
  std::vector<Ref<OVFileMonitor>> monitors;
  monitors.reserve(urls.size());
  for (auto _ : state) {
    for (const auto& url : urls) monitors.push_back(OVFileMonitor::initWithURL(url));
    if (platform::vnodeWatchCount() != watches + urls.size()) {
      state.SkipWithError("some files could not be watched");
      break;
    }
    monitors.clear();
    // Tear-down ends on the monitors' queues; it counts until the last watch is gone.
    while (platform::vnodeWatchCount() != watches) std::this_thread::yield();
  }
}

void rawInotifyWatches(benchmark::State& state) {
  Tree& tree = Tree::shared();
  if (!tree.valid()) return state.SkipWithError("could not build the tree");
  const int inotify = ::inotify_init1(IN_CLOEXEC);
  if (inotify < 0) return state.SkipWithError("no inotify descriptor");
  std::vector<int> watches;
  watches.reserve(tree.someFiles().size());
  for (auto _ : state) {
    for (const auto& path : tree.someFiles())
      watches.push_back(::inotify_add_watch(inotify, path.c_str(), IN_ALL_EVENTS | IN_EXCL_UNLINK));
    for (int watch : watches) ::inotify_rm_watch(inotify, watch);
    watches.clear();
  }
  ::close(inotify);
}

}  // namespace

FENNICK_COMPARISON(directory_size_vs_du, fennickDirectorySize, duDirectorySize, .goal = 1.3, .iterations = 3);
FENNICK_COMPARISON(directory_size_vs_nftw, fennickDirectorySize, nftwDirectorySize, .goal = 1.3, .iterations = 3);
FENNICK_COMPARISON(file_event_vs_raw_inotify, managerWriteLatency, rawInotifyWriteLatency, .goal = 0.3);
FENNICK_COMPARISON(monitor_10k_vs_raw_inotify, fennickMonitors, rawInotifyWatches, .goal = 0.2, .iterations = 2);

}  // namespace fennick::bench
