#include "fennick/Helpers/System/RunningApplication.h"

#include "fennick/Helpers/Data/OVBundleInformation.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/String.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>

namespace fennick {

FENNICK_DEFINE_CLASS(RunningApplication) {
  builder.property("localizedName", &RunningApplication::localizedName, &RunningApplication::setLocalizedName);
  builder.property("icon", &RunningApplication::icon, &RunningApplication::setIcon);
  builder.coding();
}

namespace {

namespace fs = std::filesystem;

constexpr const char* kDesktopGroup = "Desktop Entry";
// Desktop entries are a few kilobytes; a larger file is not one.
constexpr std::size_t kDesktopEntryLimit = 1024 * 1024;

struct DesktopEntry {
  std::string identifier;
  fs::path path;
};

std::string readWholeFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

fs::path canonicalOrEmpty(const fs::path& path) {
  std::error_code error;
  fs::path canonical = fs::canonical(path, error);
  return error ? fs::path() : canonical;
}

// The application directories in XDG order: the user's first, so that a
// user's entry hides the system's entry of the same id.
std::vector<fs::path> applicationDirectories() {
  std::vector<fs::path> directories;
  if (const char* home = std::getenv("XDG_DATA_HOME"); home && *home) {
    directories.emplace_back(fs::path(home) / "applications");
  } else if (const char* user = std::getenv("HOME"); user && *user) {
    directories.emplace_back(fs::path(user) / ".local/share/applications");
  }
  const char* shared = std::getenv("XDG_DATA_DIRS");
  std::string list = shared && *shared ? shared : "/usr/local/share:/usr/share";
  for (std::size_t start = 0; start <= list.size();) {
    std::size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    if (end > start) directories.emplace_back(fs::path(list.substr(start, end - start)) / "applications");
    start = end + 1;
  }
  return directories;
}

// "kde/org.kde.Foo.desktop" under an application directory has the id
// "kde-org.kde.Foo".
std::string desktopIdentifier(const fs::path& relative) {
  std::string id = relative.string();
  constexpr std::string_view suffix = ".desktop";
  if (id.size() > suffix.size() && id.compare(id.size() - suffix.size(), suffix.size(), suffix) == 0)
    id.resize(id.size() - suffix.size());
  for (char& c : id)
    if (c == '/') c = '-';
  return id;
}

struct KeyFileDeleter {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileDeleter>;

// The bytes of a regular file of at most `limit` bytes, opened without
// blocking (a pipe planted in its place is never waited on).
std::optional<std::string> readSmallFile(const fs::path& path, std::size_t limit) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  std::optional<std::string> text;
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && static_cast<std::size_t>(info.st_size) <= limit) {
    text.emplace();
    char buffer[8192];
    for (;;) {
      const ssize_t length = ::read(fd, buffer, sizeof buffer);
      if (length < 0 && errno == EINTR) continue;
      if (length < 0 || text->size() + static_cast<std::size_t>(std::max<ssize_t>(length, 0)) > limit) text.reset();
      if (length <= 0 || !text) break;
      text->append(buffer, static_cast<std::size_t>(length));
    }
  }
  ::close(fd);
  return text;
}

// A text file never holds a NUL byte: an entry that does is not read at all,
// rather than read up to it.
KeyFile loadDesktopEntry(const fs::path& path) {
  const std::optional<std::string> data = readSmallFile(path, kDesktopEntryLimit);
  if (!data || data->find('\0') != std::string::npos) return nullptr;
  KeyFile file(g_key_file_new());
  if (!g_key_file_load_from_data(file.get(), data->data(), data->size(), G_KEY_FILE_NONE, nullptr)) return nullptr;
  if (!g_key_file_has_group(file.get(), kDesktopGroup)) return nullptr;
  return file;
}

std::optional<std::string> keyFileString(GKeyFile* file, const char* key, bool localized) {
  gchar* value = localized ? g_key_file_get_locale_string(file, kDesktopGroup, key, nullptr, nullptr)
                           : g_key_file_get_string(file, kDesktopGroup, key, nullptr);
  if (!value) return std::nullopt;
  std::string text(value);
  g_free(value);
  return text;
}

// The file an entry's Exec line starts, resolved through PATH and links; empty
// when the line does not parse or names no program found here.
fs::path execProgram(GKeyFile* file) {
  std::optional<std::string> exec = keyFileString(file, "Exec", false);
  if (!exec) return {};
  gint argc = 0;
  gchar** argv = nullptr;
  if (!g_shell_parse_argv(exec->c_str(), &argc, &argv, nullptr)) return {};
  fs::path program;
  if (argc > 0) {
    if (gchar* found = g_find_program_in_path(argv[0])) {
      program = canonicalOrEmpty(found);
      g_free(found);
    }
  }
  g_strfreev(argv);
  return program;
}

// Every desktop entry by the canonical path of the program it runs. Entries
// that are hidden or not applications still count: a running process is what
// it is, whatever menus show.
std::map<fs::path, DesktopEntry> entriesByProgram() {
  std::map<fs::path, DesktopEntry> entries;
  std::map<std::string, bool> seenIdentifiers;
  for (const fs::path& directory : applicationDirectories()) {
    std::error_code error;
    for (fs::recursive_directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
      if (it->path().extension() != ".desktop" || !it->is_regular_file(error)) continue;
      std::string id = desktopIdentifier(it->path().lexically_relative(directory));
      if (!seenIdentifiers.emplace(id, true).second) continue;
      KeyFile file = loadDesktopEntry(it->path());
      if (!file) continue;
      fs::path program = execProgram(file.get());
      if (!program.empty()) entries.emplace(program, DesktopEntry{id, it->path()});
    }
  }
  return entries;
}

// The value of `name` in a process's environment, as it was started.
std::optional<std::string> environmentValue(pid_t pid, std::string_view name) {
  const std::string environment = readWholeFile(fs::path("/proc") / std::to_string(pid) / "environ");
  for (std::size_t start = 0; start < environment.size();) {
    std::size_t end = environment.find('\0', start);
    if (end == std::string::npos) end = environment.size();
    std::string_view entry(environment.data() + start, end - start);
    if (entry.size() > name.size() && entry.substr(0, name.size()) == name && entry[name.size()] == '=')
      return std::string(entry.substr(name.size() + 1));
    start = end + 1;
  }
  return std::nullopt;
}

// The entry GLib recorded when it launched the process. A child of that
// process inherits the variable with another PID beside it and is not the
// entry's application.
std::optional<DesktopEntry> launchedDesktopEntry(pid_t pid) {
  std::optional<std::string> file = environmentValue(pid, "GIO_LAUNCHED_DESKTOP_FILE");
  if (!file || file->empty()) return std::nullopt;
  std::optional<std::string> launchedPid = environmentValue(pid, "GIO_LAUNCHED_DESKTOP_FILE_PID");
  if (launchedPid && *launchedPid != std::to_string(pid)) return std::nullopt;
  fs::path path(*file);
  for (const fs::path& directory : applicationDirectories()) {
    fs::path relative = path.lexically_relative(directory);
    if (!relative.empty() && *relative.begin() != "..") return DesktopEntry{desktopIdentifier(relative), path};
  }
  return DesktopEntry{desktopIdentifier(path.filename()), path};
}

bool holdsInformationList(const fs::path& directory) {
  std::error_code error;
  return fs::is_regular_file(directory / "Info.plist", error);
}

fs::path bundleOfExecutable(const fs::path& executable) {
  fs::path directory = executable.parent_path();
  for (int level = 0; level < 3 && !directory.empty(); ++level, directory = directory.parent_path()) {
    if (holdsInformationList(directory / "Contents")) return directory;
    // "App/Contents/Info.plist" belongs to App, not to Contents.
    if (holdsInformationList(directory) && directory.filename() != "Contents") return directory;
    if (directory == directory.root_path()) break;
  }
  return executable;
}

// A name to show: bytes that are not UTF-8 (a file name may hold any) become
// replacement characters.
std::string displayable(std::string_view bytes) {
  gchar* valid = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));
  std::string text(valid);
  g_free(valid);
  return text;
}

std::string commandName(pid_t pid) {
  std::string name = readWholeFile(fs::path("/proc") / std::to_string(pid) / "comm");
  while (!name.empty() && name.back() == '\n') name.pop_back();
  return displayable(name);
}

// The executable's path as the kernel recorded it at exec. An executable
// removed or replaced since (an update installed while the application runs)
// keeps the path it was started from, without the " (deleted)" mark the
// kernel adds; a file whose name merely ends so keeps its name.
fs::path executableOfProcess(pid_t pid) {
  const fs::path link = fs::path("/proc") / std::to_string(pid) / "exe";
  char target[PATH_MAX];
  const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
  if (length <= 0 || static_cast<std::size_t>(length) >= sizeof target || target[0] != '/') return {};
  std::string path(target, static_cast<std::size_t>(length));
  struct stat running {};
  if (::stat(link.c_str(), &running) != 0) return {};
  constexpr std::string_view kDeleted = " (deleted)";
  if (running.st_nlink == 0 && path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
  return path;
}

}  // namespace

Ref<OVClassReflection> RunningApplication::makeReflection() {
  auto reflection = OVClassReflection::makeReflectionOfClass(Superclass::staticClass());
  reflection->addPropertyForSelector_objectClass(Selector::named("localizedName"), String::staticClass());
  reflection->addPropertyForSelector_objectClass(Selector::named("icon"), String::staticClass());
  return reflection;
}

// A record is filled here, once, before anyone else sees it.
class RunningApplicationFactory {
 public:
  static Ref<RunningApplication> make(pid_t pid, const std::map<fs::path, DesktopEntry>* index) {
    const fs::path executable = executableOfProcess(pid);
    if (executable.empty()) return nullptr;
    auto record = fennick::make<RunningApplication>();
    record->processIdentifier_ = pid;
    record->executableURL_ = URL::fileURLWithPath(executable.string());
    record->bundleURL_ = URL::fileURLWithPath(bundleOfExecutable(executable).string());

    std::optional<DesktopEntry> entry = launchedDesktopEntry(pid);
    KeyFile file = entry ? loadDesktopEntry(entry->path) : nullptr;
    if (!file) {
      std::map<fs::path, DesktopEntry> ownIndex;
      if (!index) index = &(ownIndex = entriesByProgram());
      if (auto found = index->find(executable); found != index->end()) {
        entry = found->second;
        file = loadDesktopEntry(entry->path);
      }
    }
    if (file) {
      record->bundleIdentifier_ = String::string(entry->identifier);
      if (auto name = keyFileString(file.get(), "Name", true)) record->localizedName_ = String::string(*name);
      if (auto icon = keyFileString(file.get(), "Icon", false)) record->icon_ = String::string(*icon);
    }
    if (!record->localizedName_) {
      std::string name = commandName(pid);
      record->localizedName_ = String::string(name.empty() ? displayable(executable.filename().string()) : name);
    }
    return record;
  }
};

Ref<RunningApplication> RunningApplication::runningApplicationWithProcessIdentifier(pid_t pid) {
  if (pid <= 0) return nullptr;
  return RunningApplicationFactory::make(pid, nullptr);
}

Ref<RunningApplication> RunningApplication::currentApplication() {
  return runningApplicationWithProcessIdentifier(getpid());
}

Ref<Array> RunningApplication::runningApplications() {
  const std::map<fs::path, DesktopEntry> index = entriesByProgram();
  std::map<pid_t, Ref<RunningApplication>> records;
  std::error_code error;
  for (fs::directory_iterator it("/proc", error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    pid_t pid = static_cast<pid_t>(std::stol(name));
    if (auto record = RunningApplicationFactory::make(pid, &index); record && record->bundleIdentifier())
      records.emplace(pid, record);
  }
  auto list = Array::array();
  for (auto& [pid, record] : records) list->addObject(record);
  return list;
}

Ref<String> RunningApplication::ov_bundleVersion() const { return OVVersionStringFromBundleAtURL(bundleURL_); }

Ref<String> RunningApplication::ov_bundleShortVersion() const {
  return OVShortVersionStringFromBundleAtURL(bundleURL_);
}

Id RunningApplication::copy() const { return std::const_pointer_cast<Object>(self()); }

std::string RunningApplication::description() const {
  return fmt::format("<RunningApplication {} \"{}\" {}>", processIdentifier_,
                     localizedName_ ? localizedName_->utf8() : std::string(),
                     executableURL_ ? executableURL_->path() : std::string("(no process)"));
}

}  // namespace fennick
