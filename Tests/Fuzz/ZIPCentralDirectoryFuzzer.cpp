// The central-directory reader over any bytes taken for a whole archive: it
// never asks for a byte outside them, and whatever it accepts keeps the
// bounds it promises. The first input byte picks a reader that fails after
// that many reads, so that every read's failure path is taken too.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include "fennick/Helpers/Unarchiver/Internal/ZIPCentralDirectory.h"

using namespace fennick::detail;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t failAfter = bytes[0] < 0xF0 ? SIZE_MAX : bytes[0] - 0xF0;
  const std::string_view archive(reinterpret_cast<const char*>(bytes) + 1, size - 1);

  std::size_t reads = 0;
  const ZIPCentralDirectory directory(
      [&](std::uint64_t offset, std::span<char> into) {
        require(offset <= archive.size() && into.size() <= archive.size() - offset);
        if (reads++ >= failAfter) return false;
        std::memcpy(into.data(), archive.data() + offset, into.size());
        return true;
      },
      archive.size());

  if (directory.problem() != ZIPDirectoryProblem::None) {
    require(directory.entries().empty());
    require(*describeZIPDirectoryProblem(directory.problem()) != '\0');
    return 0;
  }
  // Every accepted entry takes room of its own in the archive: a directory
  // record and a local header, each with a name of a byte at least, beside
  // the end record.
  require(directory.entries().size() <= kMaximumZIPEntries);
  require(directory.entries().size() * ((46 + 1) + (30 + 1)) + 22 <= archive.size());
  for (const ZIPDirectoryEntry& entry : directory.entries()) {
    require(!entry.name.empty() && entry.name.size() <= kMaximumZIPNameLength);
    require(entry.name.find('\0') == std::string_view::npos);
    // The name is stored twice: in the record and in its local header.
    const std::size_t first = archive.find(entry.name);
    require(first != std::string_view::npos && archive.find(entry.name, first + 1) != std::string_view::npos);
    require(entry.unixMode() == 0 || entry.hostSystem() == ZIPDirectoryEntry::kUnixHost);
  }
  return 0;
}
