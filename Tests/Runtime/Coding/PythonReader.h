#pragma once
// Runs Python's plistlib, a reader independent of ours, over bytes that a test
// wrote, through the scripts beside this file.
#include "fennick/Runtime/Values/Data.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace fennick::testing {

/// A file in the temporary directory, removed when the object goes.
class TemporaryFile {
 public:
  TemporaryFile() {
    std::string pattern = (std::filesystem::temp_directory_path() / "fennick-test-XXXXXX").string();
    const int fd = ::mkstemp(pattern.data());
    if (fd >= 0) ::close(fd);
    path_ = pattern;
  }
  ~TemporaryFile() { std::filesystem::remove(path_); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const std::string& path() const { return path_; }
  void write(const Ref<Data>& data) const {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data->bytes()), static_cast<std::streamsize>(data->length()));
  }
  Ref<Data> read() const {
    std::ifstream in(path_, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return Data::dataWithString(bytes);
  }

 private:
  std::string path_;
};

/// Path of a script in this directory.
inline std::string scriptPath(const char* name) {
  return (std::filesystem::path(FENNICK_TEST_SOURCE_DIR) / "Runtime" / "Coding" / name).string();
}

/// Runs `python3 <script> <arguments>` and answers its standard output; the
/// exit status goes to `status`.
inline std::string runPython(const char* script, const std::string& arguments, int* status) {
  const std::string command = "python3 '" + scriptPath(script) + "' " + arguments;
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) {
    *status = -1;
    return output;
  }
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  *status = ::pclose(pipe);
  return output;
}

}  // namespace fennick::testing
