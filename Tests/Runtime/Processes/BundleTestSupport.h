#pragma once
// Scratch bundles for tests: temporary directories, property list files and
// executables that carry a property list section.
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Coding/PropertyList.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

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

// A minimal ELF image with the given sections, in either class and byte order.
inline std::string elfImage(bool is64, bool bigEndian, const std::vector<std::pair<std::string, std::string>>& sections) {
  std::string image(is64 ? 64 : 52, '\0');
  auto put = [&](std::size_t at, std::uint64_t value, std::size_t width) {
    if (image.size() < at + width) image.resize(at + width);
    for (std::size_t i = 0; i < width; ++i)
      image[at + (bigEndian ? width - 1 - i : i)] = static_cast<char>((value >> (8 * i)) & 0xff);
  };
  image.replace(0, 4, "\x7f" "ELF");
  image[4] = is64 ? 2 : 1;
  image[5] = bigEndian ? 2 : 1;
  std::string names(1, '\0');
  std::vector<std::pair<std::size_t, std::size_t>> placed;  // offset, size
  std::vector<std::size_t> nameOffsets;
  for (const auto& [name, contents] : sections) {
    nameOffsets.push_back(names.size());
    names += name + '\0';
    placed.emplace_back(image.size(), contents.size());
    image += contents;
  }
  nameOffsets.push_back(names.size());
  names += std::string(".shstrtab") + '\0';
  placed.emplace_back(image.size(), names.size());
  image += names;
  const std::size_t entry = is64 ? 64 : 40, table = image.size();
  const std::size_t count = placed.size() + 1;  // a null section first
  image.resize(table + count * entry, '\0');
  for (std::size_t i = 0; i < placed.size(); ++i) {
    const std::size_t at = table + (i + 1) * entry, word = is64 ? 8 : 4;
    put(at, nameOffsets[i], 4);
    put(at + 4, 1, 4);  // PROGBITS
    put(at + (is64 ? 24 : 16), placed[i].first, word);
    put(at + (is64 ? 32 : 20), placed[i].second, word);
  }
  put(is64 ? 0x28 : 0x20, table, is64 ? 8 : 4);
  put(is64 ? 0x3A : 0x2E, entry, 2);
  put(is64 ? 0x3C : 0x30, count, 2);
  put(is64 ? 0x3E : 0x32, count - 1, 2);
  return image;
}

}  // namespace fennick::testing
