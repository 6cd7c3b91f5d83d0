#pragma once
// Reads a ZIP archive's central directory: the list at the archive's end
// that records, for each entry, what a reader of the local headers alone
// never sees: the system that made it ("version made by") and its external
// attributes, which carry a Unix mode (and with it the symbolic-link type)
// when that system is Unix.
//
// The archive is outside data, so the reader trusts none of its numbers:
// the end record must be found exactly once in the last 64 KiB + 22 bytes,
// and its comment must reach the end of the file; a ZIP64 end record must
// sit right before its locator and agree with every field of the plain one
// that it does not stand in for; the directory must end where the end
// records begin, hold as many records as it claims and nothing after them;
// each record's local header must lie before the directory, carry the same
// name (which holds no NUL byte), and the entries' headers and data must
// follow one another up to the directory, with nothing but a data
// descriptor between them: an entry that the directory leaves out would be
// unpacked by a reader of the local headers (bsdtar) and missed by one of
// the directory. Entry counts and name lengths are bounded, every sum is
// checked for overflow, and no more is read or allocated than the file
// holds. The walk is a loop over the records, never a recursion.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

namespace fennick::detail {

/// What the central directory records for one entry.
struct ZIPDirectoryEntry {
  /// The Unix host system, as the high byte of "version made by".
  static constexpr std::uint8_t kUnixHost = 3;

  /// The name's bytes as stored (the local header stores the same ones).
  std::string_view name;
  std::uint16_t versionMadeBy = 0;
  std::uint32_t externalAttributes = 0;

  std::uint8_t hostSystem() const noexcept { return static_cast<std::uint8_t>(versionMadeBy >> 8); }
  /// The Unix mode (type and permission bits) when the entry was made on
  /// Unix; 0 when it was not or carries none.
  std::uint32_t unixMode() const noexcept { return hostSystem() == kUnixHost ? externalAttributes >> 16 : 0; }
};

enum class ZIPDirectoryProblem {
  None,
  NoEndRecord,         // no end record whose comment reaches the end of the file
  AmbiguousEndRecord,  // more than one, or ZIP64 fields that disagree with it
  OutOfRange,          // an offset or size that points outside where it must lie
  Malformed,           // a wrong signature, a field that does not fit, a name mismatch
  Overlapping,         // two entries that share bytes
  UnlistedBytes,       // bytes between entries, or before the directory, that it does not list
  TooLarge,            // more entries, a longer name or a larger directory than allowed
  Unreadable,          // the bytes could not be read
};

/// The most entries an archive may hold.
inline constexpr std::size_t kMaximumZIPEntries = std::size_t{1} << 20;
/// The longest entry name accepted (no path on Linux is longer).
inline constexpr std::size_t kMaximumZIPNameLength = 4096;
/// The largest central directory read into memory.
inline constexpr std::uint64_t kMaximumZIPDirectoryBytes = std::uint64_t{64} << 20;

class ZIPCentralDirectory {
 public:
  /// Reads exactly `into.size()` bytes at `offset`; false when it cannot.
  using ByteReader = std::function<bool(std::uint64_t offset, std::span<char> into)>;

  /// Reads and checks the directory of an archive of `archiveSize` bytes.
  ZIPCentralDirectory(const ByteReader& read, std::uint64_t archiveSize);
  ZIPCentralDirectory(const ZIPCentralDirectory&) = delete;
  ZIPCentralDirectory& operator=(const ZIPCentralDirectory&) = delete;

  /// None when every check passed; the entries are empty otherwise.
  ZIPDirectoryProblem problem() const noexcept { return problem_; }
  /// The entries in the directory's order; their names point into this object.
  const std::vector<ZIPDirectoryEntry>& entries() const noexcept { return entries_; }

 private:
  struct Bounds;
  ZIPDirectoryProblem readAll(const ByteReader& read, std::uint64_t archiveSize);
  ZIPDirectoryProblem readRecords(const ByteReader& read, const Bounds& bounds);

  std::vector<char> directory_;
  std::vector<ZIPDirectoryEntry> entries_;
  ZIPDirectoryProblem problem_ = ZIPDirectoryProblem::None;
};

/// A sentence for the problem, naming no entry of the archive.
const char* describeZIPDirectoryProblem(ZIPDirectoryProblem problem);

}  // namespace fennick::detail
