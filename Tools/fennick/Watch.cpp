// fennick watch: prints what happens to files and folders as it happens,
// following each item across renames.
#include "Command.h"

#include <fennick/Fennick.h>

#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace fennick::tool {

namespace {

// Ends the wait of the main thread after the requested number of events.
std::atomic<long> eventsLeft{-1};

std::string timestamp() {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  tm local{};
  ::localtime_r(&now.tv_sec, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<long>(now.tv_usec / 1000));
  return text;
}

std::string pathOf(const Ref<URL>& url) {
  Ref<URL> path = url ? url->filePathURL() : nullptr;
  return path ? path->path() : "(gone)";
}

// Prints one line per event. The manager calls it on its own queue, one call
// at a time, so lines never interleave.
class EventPrinter : public OVFileObserver {
 public:
  void didChangeWithFlags_forURL(std::uintptr_t flags, const Ref<URL>& url) override {
    static constexpr std::pair<std::uintptr_t, const char*> kNames[] = {
        {DISPATCH_VNODE_WRITE, "write"}, {DISPATCH_VNODE_EXTEND, "extend"},
        {DISPATCH_VNODE_ATTRIB, "attributes"}, {DISPATCH_VNODE_LINK, "links"}};
    std::string names;
    for (const auto& [bit, name] : kNames) {
      if (!(flags & bit)) continue;
      if (!names.empty()) names += ',';
      names += name;
    }
    if (!names.empty()) print(names, pathOf(url));
  }
  void didDeleteFileAtURL_oldFilePathURL(const Ref<URL>&, const Ref<URL>& oldFilePathURL) override {
    print("delete", oldFilePathURL ? oldFilePathURL->path() : "(unknown)");
  }
  void didMoveFileAtURL_fromFilePathURL_toFilePathURL(const Ref<URL>&, const Ref<URL>& from,
                                                      const Ref<URL>& to) override {
    print("rename", (from ? from->path() : "(unknown)") + " → " + (to ? to->path() : "(gone)"));
  }
  void didRevokeFileAtURL(const Ref<URL>& url) override { print("revoke", pathOf(url)); }

 private:
  static void print(const std::string& names, const std::string& what) {
    std::printf("%s %s %s\n", timestamp().c_str(), names.c_str(), what.c_str());
    std::fflush(stdout);
    if (eventsLeft.load() > 0 && --eventsLeft == 0) ::kill(::getpid(), SIGTERM);
  }
};

int runWatch(const Arguments& arguments) {
  const bool recursive = arguments.has("recursive");
  if (auto count = arguments.value("count")) {
    char* end = nullptr;
    const long parsed = std::strtol(count->c_str(), &end, 10);
    if (!end || *end || parsed <= 0) return fail("watch", "--count takes a positive number, not '" + *count + "'");
    eventsLeft = parsed;
  }

  // Ctrl-C and termination are taken by this thread alone, with sigwait, so
  // they are blocked before any queue starts a thread that would inherit them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  const auto& manager = OVFileMonitoringManager::defaultMonitor();
  auto printer = std::make_shared<EventPrinter>();
  std::vector<Ref<URL>> watched;
  int status = kExitOK;
  for (const std::string& path : arguments.positional()) {
    // Registered by identity, so that each item stays named after it moved.
    Ref<URL> item = URL::fileURLWithPath(path);
    Ref<URL> reference = item ? item->fileReferenceURL() : nullptr;
    if (!reference) {
      status = fail("watch", path + ": No such file or directory");
      continue;
    }
    manager->addObserver_url_isRecursive(printer, reference, recursive);
    if (manager->observerCountForURL(reference) == 0) {
      status = fail("watch", path + ": cannot be watched (see fs.inotify.max_user_watches)");
      continue;
    }
    watched.push_back(reference);
  }
  if (watched.empty()) return kExitFailure;
  std::fprintf(stderr, "Watching %zu item%s; press Ctrl-C to stop.\n", watched.size(), watched.size() == 1 ? "" : "s");

  int signal = 0;
  sigwait(&stopSignals, &signal);
  for (const Ref<URL>& reference : watched) manager->removeObserver_url_isRecursive(printer, reference, recursive);
  manager->monitorCount();  // waits until the removals ran
  return status;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "watch",
                      .summary = "print changes to files and folders as they happen",
                      .usage = "usage: fennick watch [--recursive] [--count N] PATH...\n\n"
                               "Prints one line per event on each item: the time, what happened\n"
                               "(write, extend, attributes, links, rename, delete, revoke) and the\n"
                               "item's current path; a rename prints the old and the new path. Items\n"
                               "are followed across renames. A deleted item is not watched again\n"
                               "when something new appears at its path.\n\n"
                               "  -r, --recursive  also report deletes, renames and revokes of the\n"
                               "                   folders above each item\n"
                               "  -n, --count N    stop after N events\n\n"
                               "Stops on Ctrl-C.\n",
                      .options = {{.longName = "recursive", .shortName = 'r'},
                                  {.longName = "count", .shortName = 'n', .takesValue = true}},
                      .minArguments = 1,
                      .run = runWatch});

}  // namespace fennick::tool
