#include "fennick/Platform/Files/Internal/MountTable.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace fennick::platform {

namespace {

constexpr const char* kMountInfo = "/proc/self/mountinfo";

std::optional<std::string> readWholeFile(int descriptor) {
  std::string text;
  char buffer[16384];
  for (;;) {
    const ssize_t length = ::read(descriptor, buffer, sizeof buffer);
    if (length == 0) return text;
    if (length < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    text.append(buffer, static_cast<std::size_t>(length));
  }
}

// The table writes space, tab, newline and backslash as "\ooo".
std::string unescape(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
      if (isOctal(field[i + 1]) && isOctal(field[i + 2]) && isOctal(field[i + 3])) {
        out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0')));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

// "36 35 98:0 /root /mount/point options ..." gives ID 36 at /mount/point.
std::optional<MountTable::Mount> parseLine(std::string_view line) {
  std::string_view fields[5];
  for (auto& field : fields) {
    const auto start = line.find_first_not_of(' ');
    if (start == std::string_view::npos) return std::nullopt;
    line.remove_prefix(start);
    const auto end = line.find(' ');
    field = line.substr(0, end);
    line.remove_prefix(end == std::string_view::npos ? line.size() : end);
  }
  MountTable::Mount mount;
  for (char c : fields[0]) {
    if (c < '0' || c > '9') return std::nullopt;
    mount.id = mount.id * 10 + static_cast<std::uint64_t>(c - '0');
  }
  mount.mountPoint = unescape(fields[4]);
  return mount;
}

std::vector<std::uint64_t> idsOf(const std::vector<MountTable::Mount>& mounts) {
  std::vector<std::uint64_t> ids;
  ids.reserve(mounts.size());
  for (const auto& mount : mounts) ids.push_back(mount.id);
  std::sort(ids.begin(), ids.end());
  return ids;
}

}  // namespace

MountTable& MountTable::shared() {
  static MountTable* const table = new MountTable();
  return *table;
}

std::optional<std::vector<MountTable::Mount>> MountTable::readMounts() {
  const int descriptor = ::open(kMountInfo, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return std::nullopt;
  const std::optional<std::string> text = readWholeFile(descriptor);
  ::close(descriptor);
  if (!text) return std::nullopt;
  std::vector<Mount> mounts;
  std::string_view rest = *text;
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    if (auto mount = parseLine(rest.substr(0, end))) mounts.push_back(std::move(*mount));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return mounts;
}

std::optional<std::string> MountTable::mountPointOfMount(std::uint64_t id) {
  std::optional<std::vector<Mount>> mounts = readMounts();
  if (!mounts) return std::nullopt;
  for (auto& mount : *mounts)
    if (mount.id == id) return std::move(mount.mountPoint);
  return std::nullopt;
}

void MountTable::addListener(Listener listener) {
  std::lock_guard lock(mutex_);
  listeners_.push_back(std::move(listener));
  if (!source_) startWatching();
}

void MountTable::startWatching() {
  table_ = ::open(kMountInfo, O_RDONLY | O_CLOEXEC);
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLPRI;
  if (table_ < 0 || epoll_ < 0 || ::epoll_ctl(epoll_, EPOLL_CTL_ADD, table_, &event) != 0) return;
  queue_ = dispatch::Queue::createSerial("com.orvane.mount-table", QOS_CLASS_UTILITY);
  source_ = dispatch::Source::createRead(epoll_, queue_);
  if (!source_) return;
  source_->setEventHandler([this] { tableChanged(); });
  source_->resume();
}

// Polling the table consumes its change mark, so the reactor's own look at
// our epoll descriptor may already have taken it: a wake-up is reason enough
// to read the table again.
void MountTable::tableChanged() {
  epoll_event events[4];
  while (::epoll_wait(epoll_, events, 4, 0) > 0) {
  }
  // A table we could not read says nothing about which mounts are gone;
  // taking it for an empty one would revoke every item in the process. The
  // change is not lost: the table is read again shortly.
  const std::optional<std::vector<Mount>> mounts = readMounts();
  if (!mounts) {
    queue_->after(dispatch::Time::after(std::chrono::milliseconds(100)), [this] { tableChanged(); });
    return;
  }
  const std::vector<std::uint64_t> ids = idsOf(*mounts);
  std::vector<Listener> listeners;
  {
    std::lock_guard lock(mutex_);
    listeners = listeners_;
  }
  for (const auto& listener : listeners) listener(ids);
}

}  // namespace fennick::platform
