#pragma once
// Scratch bundles for tests: temporary directories, property list files and
// executables that carry a property list section.
#include "fennick/Runtime/Data.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/PropertyList.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fennick::testing {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "fennick-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) ADD_FAILURE() << "mkdtemp failed";
    path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }
  /// A path inside the directory; parent directories are made.
  std::string file(const std::string& relative) const {
    const std::filesystem::path full = std::filesystem::path(path_) / relative;
    std::filesystem::create_directories(full.parent_path());
    return full.string();
  }

 private:
  std::string path_;
};

inline void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string propertyListBytes(const Id& plist, PropertyListFormat format) {
  Ref<Data> data = PropertyList::dataWithPropertyList_format_error(plist, format, nullptr);
  return data ? std::string(data->stringView()) : std::string();
}

/// A copy of a small system executable with `plistBytes` added as its
/// "__info_plist" section (what a build step would do with objcopy).
inline std::string executableWithInfoSection(const TemporaryDirectory& directory, const std::string& name,
                                             std::string_view plistBytes) {
  const std::string list = directory.file(name + ".section");
  writeFile(list, plistBytes);
  const std::string executable = directory.file(name);
  const std::string command = "objcopy --add-section __info_plist='" + list +
                              "' --set-section-flags __info_plist=readonly /bin/true '" + executable + "'";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  return executable;
}

}  // namespace fennick::testing
