// The files section of `fennick demo`: a watched file renamed and deleted, and
// the size of a small tree, in a temporary folder.
#include "Demo.h"

#include <fennick/Fennick.h>

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace fennick::tool {

namespace {

// Collects the lines the watched file's events produce.
class DemoObserver : public OVFileObserver {
 public:
  void didMoveFileAtURL_fromFilePathURL_toFilePathURL(const Ref<URL>&, const Ref<URL>& from,
                                                      const Ref<URL>& to) override {
    add("renamed " + from->lastPathComponent() + " → " + to->lastPathComponent());
  }
  void didWriteToFileAtURL(const Ref<URL>& url) override {
    Ref<URL> path = url->filePathURL();
    add("written " + (path ? path->lastPathComponent() : std::string("(gone)")));
  }
  void didDeleteFileAtURL_oldFilePathURL(const Ref<URL>&, const Ref<URL>& old) override {
    add("deleted " + old->lastPathComponent());
  }
  /// Waits (at most five seconds) until a line starting with `prefix` came.
  bool waitFor(const std::string& prefix) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(5), [&] {
      for (const auto& line : lines_)
        if (line.rfind(prefix, 0) == 0) return true;
      return false;
    });
  }
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  void add(std::string line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
};

bool writeFile(const std::string& path, std::size_t bytes) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0) return false;
  const std::string contents(bytes, 'x');
  const bool written = ::write(descriptor, contents.data(), contents.size()) == static_cast<ssize_t>(bytes);
  ::close(descriptor);
  return written;
}

void showFiles(std::FILE* out) {
  std::fprintf(out, "\n== Files: a watched file renamed and deleted, and a tree's size\n");
  const char* root = std::getenv("TMPDIR");
  std::string folder = std::string(root && *root ? root : "/tmp") + "/fennick-demo-XXXXXX";
  if (!::mkdtemp(folder.data())) {
    std::fprintf(out, "  (no temporary folder: %s)\n", std::strerror(errno));
    return;
  }
  const std::string notes = folder + "/notes.txt";
  writeFile(notes, 100);

  const auto& manager = OVFileMonitoringManager::defaultMonitor();
  auto observer = std::make_shared<DemoObserver>();
  Ref<URL> reference = URL::fileURLWithPath(notes)->fileReferenceURL();
  manager->addObserver_url_isRecursive(observer, reference, false);
  manager->monitorCount();  // the registration has taken effect
  ::rename(notes.c_str(), (folder + "/renamed.txt").c_str());
  observer->waitFor("renamed");
  ::unlink((folder + "/renamed.txt").c_str());
  observer->waitFor("deleted");
  for (const auto& line : observer->lines()) std::fprintf(out, "  %s\n", line.c_str());
  manager->removeObserver_url_isRecursive(observer, reference, false);

  ::mkdir((folder + "/tree").c_str(), 0755);
  ::mkdir((folder + "/tree/photos").c_str(), 0755);
  writeFile(folder + "/tree/report.pdf", 880 * 1024);
  writeFile(folder + "/tree/photos/photo.jpg", 2400 * 1024);
  writeFile(folder + "/tree/photos/icon.png", 12 * 1024);
  const std::int64_t size = URL::fileURLWithPath(folder + "/tree")->fetchDirectorySize();
  std::fprintf(out, "  tree/ holds 3 files in 2 folders: %lld KB on disk\n", static_cast<long long>(size / 1024));

  ::nftw(folder.c_str(), [](const char* item, const struct stat*, int, struct FTW*) { return ::remove(item), 0; }, 16,
         FTW_DEPTH | FTW_PHYS);
}

}  // namespace

FENNICK_DEMO_SECTION(60, showFiles);

}  // namespace fennick::tool
