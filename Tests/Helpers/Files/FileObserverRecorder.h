#pragma once
// An observer of file events that writes each call it receives as a line
// ("move <url> <from> -> <to>") and lets a test wait for a line.
#include "fennick/Helpers/Files/OVFileMonitor.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace fennick::filetest {

class FileObserverRecorder : public OVFileObserver {
 public:
  /// Paths in the lines are shown as given; reference URLs as their current path.
  void didChangeWithFlags_forURL(std::uintptr_t flags, const Ref<URL>& url) override {
    record("change " + std::to_string(flags) + " " + show(url));
  }
  void didInvalidateObservationOfFileAtURL(const Ref<URL>& url) override { record("invalidate " + show(url)); }
  void didDeleteFileAtURL_oldFilePathURL(const Ref<URL>&, const Ref<URL>& old) override {
    record("delete " + show(old));
  }
  void didWriteToFileAtURL(const Ref<URL>& url) override { record("write " + show(url)); }
  void didExtendFileAtURL(const Ref<URL>& url) override { record("extend " + show(url)); }
  void didChangeAttributesOfFileAtURL(const Ref<URL>& url) override { record("attributes " + show(url)); }
  void didChangeLinkCountOfFileAtURL(const Ref<URL>& url) override { record("links " + show(url)); }
  void didMoveFileAtURL_fromFilePathURL_toFilePathURL(const Ref<URL>&, const Ref<URL>& from,
                                                      const Ref<URL>& to) override {
    record("move " + show(from) + " -> " + show(to));
  }
  void didRevokeFileAtURL(const Ref<URL>& url) override { record("revoke " + show(url)); }

  /// Waits until a line equal to `line` was recorded.
  bool waitFor(const std::string& line, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return std::count(lines_.begin(), lines_.end(), line) > 0; });
  }
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  bool saw(const std::string& line) {
    auto all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
  }

  static std::string show(const Ref<URL>& url) {
    if (!url) return "(nil)";
    Ref<URL> path = url->filePathURL();
    return path ? path->path() : "(gone)";
  }

 private:
  void record(std::string line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
};

}  // namespace fennick::filetest
