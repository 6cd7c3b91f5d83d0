#include "fennick/Runtime/Processes/Bundle.h"

#include "fennick/Runtime/Values/CStringText.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Processes/Internal/BundleELFSection.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include <fcntl.h>
#include <libintl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <optional>

namespace fennick {

FENNICK_DEFINE_CLASS(Bundle) {}

namespace {

constexpr const char* infoListSectionName = "__info_plist";
// An information property list is a few kilobytes; anything past this is not one.
constexpr off_t maxInfoListSize = 16 << 20;

class FileDescriptor {
 public:
  // Non-blocking, so that a FIFO put where a file was a moment ago cannot
  // hold the open until a writer comes; the caller then refuses anything that
  // is not a regular file.
  explicit FileDescriptor(const std::string& path) {
    do fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    while (fd_ < 0 && errno == EINTR);
  }
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

enum class ItemKind { Missing, Directory, File, Other };

ItemKind kindOfItem(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return ItemKind::Missing;
  if (S_ISDIR(info.st_mode)) return ItemKind::Directory;
  return S_ISREG(info.st_mode) ? ItemKind::File : ItemKind::Other;
}

std::optional<std::string> readSmallFile(const std::string& path) {
  FileDescriptor file(path);
  struct stat info {};
  if (!file || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > maxInfoListSize)
    return std::nullopt;
  std::string contents(static_cast<std::size_t>(info.st_size), '\0');
  std::size_t done = 0;
  while (done < contents.size()) {
    const ssize_t got = ::read(file.get(), contents.data() + done, contents.size() - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  contents.resize(done);
  return contents;
}

Ref<Dictionary> dictionaryFromPropertyList(std::string_view bytes) {
  Id list = PropertyList::propertyListWithBytes_format_error(bytes, nullptr, nullptr);
  return Dictionary::dynamicCastObject(list);
}

std::string joinPath(const std::string& directory, std::string_view name) {
  std::string path = directory;
  if (path.empty() || path.back() != '/') path += '/';
  path += name;
  return path;
}

std::string parentPath(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? std::string("/") : path.substr(0, slash);
}

std::string lastComponent(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The property list file of a bundle directory, if it has one.
std::optional<std::string> infoListPathInDirectory(const std::string& directory) {
  for (const char* relative : {"Contents/Info.plist", "Info.plist"}) {
    std::string path = joinPath(directory, relative);
    if (kindOfItem(path) == ItemKind::File) return path;
  }
  return std::nullopt;
}

Ref<Dictionary> infoDictionaryOfExecutable(const std::string& path) {
  FileDescriptor file(path);
  if (!file) return nullptr;
  std::optional<std::string> section = detail::readELFSectionOfFile(file.get(), infoListSectionName);
  return section ? dictionaryFromPropertyList(*section) : nullptr;
}

Ref<Dictionary> infoDictionaryAtPath(const std::string& path) {
  switch (kindOfItem(path)) {
    case ItemKind::Directory: {
      std::optional<std::string> listPath = infoListPathInDirectory(path);
      if (!listPath) return nullptr;
      std::optional<std::string> contents = readSmallFile(*listPath);
      return contents ? dictionaryFromPropertyList(*contents) : nullptr;
    }
    case ItemKind::File:
      return infoDictionaryOfExecutable(path);
    default:
      return nullptr;
  }
}

// Nil for a path holding a NUL byte: the system would read the bundle at the
// part before it.
std::optional<std::string> filePath(const Ref<URL>& url) {
  return url ? url->fileSystemRepresentation() : std::nullopt;
}

std::string executablePath() {
  char buffer[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer);
  return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

std::atomic<const std::string*> mainBundleIdentifierOverride{nullptr};

std::string infoString(const Ref<Dictionary>& info, const char* key) {
  auto string = String::dynamicCastObject(info->objectForKey(key));
  return string ? string->utf8() : std::string();
}

}  // namespace

Bundle::Bundle(Ref<URL> bundleURL, Ref<URL> executableURL, Ref<Dictionary> infoDictionary, bool isMain)
    : bundleURL_(std::move(bundleURL)),
      executableURL_(std::move(executableURL)),
      infoDictionary_(infoDictionary ? std::move(infoDictionary) : Dictionary::dictionary()),
      isMain_(isMain) {}

Ref<Bundle> Bundle::bundleWithURL(const Ref<URL>& url) {
  std::optional<std::string> path = filePath(url);
  if (!path) return nullptr;
  Ref<Dictionary> info = infoDictionaryAtPath(*path);
  if (!info) return nullptr;
  const bool isDirectory = kindOfItem(*path) == ItemKind::Directory;
  Ref<URL> location = URL::fileURLWithPath_isDirectory(*path, isDirectory);
  return make<Bundle>(location, isDirectory ? nullptr : location, std::move(info), false);
}

Ref<Bundle> Bundle::bundleWithPath(std::string_view path) {
  return path.empty() ? nullptr : bundleWithURL(URL::fileURLWithPath(path));
}

Ref<Bundle> Bundle::mainBundle() {
  static const Ref<Bundle> main = [] {
    const std::string executable = executablePath();
    const std::string directory = parentPath(executable);
    const std::string above = parentPath(directory);
    auto makeMain = [&](const std::string& bundlePath, Ref<Dictionary> info) {
      return make<Bundle>(URL::fileURLWithPath_isDirectory(bundlePath, true),
                          URL::fileURLWithPath_isDirectory(executable, false), std::move(info), true);
    };
    if (executable.empty()) return makeMain("/", nullptr);

    if (auto list = infoListPathInDirectory(directory))
      if (auto contents = readSmallFile(*list))
        if (auto info = dictionaryFromPropertyList(*contents)) return makeMain(directory, info);
    // bundle/Contents/Info.plist beside bundle/bin/program, and the platform's
    // own layout bundle/Contents/Info.plist with bundle/Contents/MacOS/program.
    const bool insideContents = lastComponent(above) == "Contents";
    for (const auto& [listPath, bundlePath] :
         {std::pair{joinPath(above, "Contents/Info.plist"), above},
          std::pair{joinPath(above, "Info.plist"), insideContents ? parentPath(above) : above}})
      if (auto contents = readSmallFile(listPath))
        if (auto info = dictionaryFromPropertyList(*contents)) return makeMain(bundlePath, info);
    return makeMain(directory, infoDictionaryOfExecutable(executable));
  }();
  return main;
}

bool Bundle::setMainBundleIdentifier(std::string_view identifier) {
  auto* candidate = new std::string(identifier);
  const std::string* expected = nullptr;
  if (mainBundleIdentifierOverride.compare_exchange_strong(expected, candidate,
                                                          std::memory_order_acq_rel))
    return true;  // kept for the life of the process
  delete candidate;
  return false;
}

Id Bundle::objectForInfoDictionaryKey(std::string_view key) const {
  return infoDictionary_->objectForKey(key);
}

std::string Bundle::bundleIdentifier() const {
  if (isMain_)
    if (const std::string* set = mainBundleIdentifierOverride.load(std::memory_order_acquire))
      return *set;
  std::string identifier = infoString(infoDictionary_, "CFBundleIdentifier");
  if (identifier.empty() && isMain_ && executableURL_) identifier = executableURL_->lastPathComponent();
  return identifier;
}

std::string Bundle::localizedStringForKey_value_table(std::string_view key, std::string_view value,
                                                      std::string_view table) const {
  auto untranslated = [&] { return std::string(value.empty() ? key : value); };
  std::string domain = bundleIdentifier();
  if (domain.empty() || key.empty()) return untranslated();
  if (!table.empty() && table != "Localizable") (domain += '.') += table;
  // gettext reads C strings: a key or domain holding a NUL would find the
  // translation of the part before it.
  if (holdsNulByte(domain) || holdsNulByte(key)) return untranslated();
  const std::string message(key);
  // Message catalogues may be in any encoding; answers are always UTF-8.
  ::bind_textdomain_codeset(domain.c_str(), "UTF-8");
  const char* translated = ::dgettext(domain.c_str(), message.c_str());
  if (translated == message.c_str() || !translated) return untranslated();
  return translated;
}

std::string Bundle::description() const {
  return fmt::format("Bundle <{}> ({})", bundleURL_ ? bundleURL_->path() : std::string(),
                     bundleIdentifier());
}

Ref<Dictionary> OVInfoDictionaryForBundleAtURL(const Ref<URL>& url) {
  std::optional<std::string> path = filePath(url);
  return path ? infoDictionaryAtPath(*path) : nullptr;
}

}  // namespace fennick
