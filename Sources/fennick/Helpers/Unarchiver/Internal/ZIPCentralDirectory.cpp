#include "fennick/Helpers/Unarchiver/Internal/ZIPCentralDirectory.h"

#include <algorithm>
#include <limits>
#include <string>

namespace fennick::detail {

namespace {

constexpr std::string_view kEndSignature("PK\x05\x06", 4);
constexpr std::string_view kZIP64LocatorSignature("PK\x06\x07", 4);
constexpr std::string_view kZIP64EndSignature("PK\x06\x06", 4);
constexpr std::string_view kDirectorySignature("PK\x01\x02", 4);
constexpr std::string_view kLocalSignature("PK\x03\x04", 4);

constexpr std::size_t kEndRecordLength = 22;
constexpr std::size_t kMaximumCommentLength = 65'535;
constexpr std::size_t kZIP64LocatorLength = 20;
constexpr std::size_t kZIP64EndLength = 56;
constexpr std::size_t kZIP64EndFixedPart = 12;  // signature and the record's own size field
constexpr std::size_t kDirectoryRecordLength = 46;
constexpr std::size_t kLocalHeaderLength = 30;
constexpr std::uint16_t kZIP64ExtraField = 0x0001;
constexpr std::uint16_t kDataDescriptorFlag = 1 << 3;

constexpr std::uint16_t kMarker16 = 0xFFFF;
constexpr std::uint32_t kMarker32 = 0xFFFF'FFFF;

// Little-endian fields of bytes already in memory; callers check the length.
std::uint64_t littleEndian(std::string_view bytes, std::size_t at, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = width; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return value;
}
std::uint16_t le16(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint16_t>(littleEndian(bytes, at, 2));
}
std::uint32_t le32(std::string_view bytes, std::size_t at) {
  return static_cast<std::uint32_t>(littleEndian(bytes, at, 4));
}
std::uint64_t le64(std::string_view bytes, std::size_t at) { return littleEndian(bytes, at, 8); }

bool startsWith(std::string_view bytes, std::size_t at, std::string_view signature) {
  return bytes.size() >= at + signature.size() && bytes.compare(at, signature.size(), signature) == 0;
}

// Whether [start, start + length) lies inside [0, limit), without overflow.
bool fitsBefore(std::uint64_t start, std::uint64_t length, std::uint64_t limit) {
  return start <= limit && length <= limit - start;
}

bool readInto(const ZIPCentralDirectory::ByteReader& read, std::uint64_t offset, std::string& bytes) {
  return read(offset, std::span<char>(bytes.data(), bytes.size()));
}

// The end records' view of the directory.
struct DirectoryClaim {
  std::uint64_t entriesOnDisk = 0;
  std::uint64_t entries = 0;
  std::uint64_t size = 0;
  std::uint64_t offset = 0;
  std::uint64_t end = 0;  // where the end records begin
};

// The offset of the one end record whose comment reaches the file's end.
ZIPDirectoryProblem findEndRecord(const ZIPCentralDirectory::ByteReader& read, std::uint64_t archiveSize,
                                  std::uint64_t& endOffset, std::string& record) {
  if (archiveSize < kEndRecordLength) return ZIPDirectoryProblem::NoEndRecord;
  const auto tailLength =
      static_cast<std::size_t>(std::min<std::uint64_t>(archiveSize, kEndRecordLength + kMaximumCommentLength));
  std::string tail(tailLength, '\0');
  if (!readInto(read, archiveSize - tailLength, tail)) return ZIPDirectoryProblem::Unreadable;
  std::size_t found = std::string::npos;
  for (std::size_t at = tailLength - kEndRecordLength;; --at) {
    if (startsWith(tail, at, kEndSignature) && at + kEndRecordLength + le16(tail, at + 20) == tailLength) {
      // A comment that holds a second record would show two readers two directories.
      if (found != std::string::npos) return ZIPDirectoryProblem::AmbiguousEndRecord;
      found = at;
    }
    if (at == 0) break;
  }
  if (found == std::string::npos) return ZIPDirectoryProblem::NoEndRecord;
  endOffset = archiveSize - tailLength + found;
  record = tail.substr(found, kEndRecordLength);
  return ZIPDirectoryProblem::None;
}

// A plain field agrees with its ZIP64 one when it holds the same value or the
// marker that defers to it.
bool agrees(std::uint64_t plain, std::uint64_t marker, std::uint64_t wide) { return plain == marker || plain == wide; }

ZIPDirectoryProblem readZIP64Claim(const ZIPCentralDirectory::ByteReader& read, std::uint64_t locatorOffset,
                                   std::string_view locator, std::string_view plain, DirectoryClaim& claim) {
  if (le32(locator, 4) != 0 || le32(locator, 16) > 1) return ZIPDirectoryProblem::Malformed;  // other disks
  const std::uint64_t recordOffset = le64(locator, 8);
  if (!fitsBefore(recordOffset, kZIP64EndLength, locatorOffset)) return ZIPDirectoryProblem::OutOfRange;
  std::string record(kZIP64EndLength, '\0');
  if (!readInto(read, recordOffset, record)) return ZIPDirectoryProblem::Unreadable;
  if (!startsWith(record, 0, kZIP64EndSignature)) return ZIPDirectoryProblem::Malformed;
  // The record (with any extensible data after its fixed fields) ends where the locator begins.
  if (le64(record, 4) != locatorOffset - recordOffset - kZIP64EndFixedPart) return ZIPDirectoryProblem::OutOfRange;
  if (le32(record, 16) != 0 || le32(record, 20) != 0) return ZIPDirectoryProblem::Malformed;
  claim = {le64(record, 24), le64(record, 32), le64(record, 40), le64(record, 48), recordOffset};
  const bool consistent = agrees(le16(plain, 4), kMarker16, 0) && agrees(le16(plain, 6), kMarker16, 0) &&
                          agrees(le16(plain, 8), kMarker16, claim.entriesOnDisk) &&
                          agrees(le16(plain, 10), kMarker16, claim.entries) &&
                          agrees(le32(plain, 12), kMarker32, claim.size) &&
                          agrees(le32(plain, 16), kMarker32, claim.offset);
  return consistent ? ZIPDirectoryProblem::None : ZIPDirectoryProblem::AmbiguousEndRecord;
}

ZIPDirectoryProblem readClaim(const ZIPCentralDirectory::ByteReader& read, std::uint64_t archiveSize,
                              DirectoryClaim& claim) {
  std::uint64_t endOffset = 0;
  std::string plain;
  if (const auto problem = findEndRecord(read, archiveSize, endOffset, plain); problem != ZIPDirectoryProblem::None)
    return problem;
  if (endOffset >= kZIP64LocatorLength) {
    std::string locator(kZIP64LocatorLength, '\0');
    const std::uint64_t locatorOffset = endOffset - kZIP64LocatorLength;
    if (!readInto(read, locatorOffset, locator)) return ZIPDirectoryProblem::Unreadable;
    if (startsWith(locator, 0, kZIP64LocatorSignature)) return readZIP64Claim(read, locatorOffset, locator, plain, claim);
  }
  // Without ZIP64 records a marker value is taken as it stands; the checks
  // of where the directory lies then refuse it unless it is true.
  if (le16(plain, 4) != 0 || le16(plain, 6) != 0) return ZIPDirectoryProblem::Malformed;  // other disks
  claim = {le16(plain, 8), le16(plain, 10), le32(plain, 12), le32(plain, 16), endOffset};
  return ZIPDirectoryProblem::None;
}

// The fields of a directory record that ZIP64 may widen.
struct WideFields {
  std::uint64_t compressedSize;
  std::uint64_t uncompressedSize;
  std::uint64_t localOffset;
  std::uint64_t diskStart;
};

// Replaces each marker field with its value from the ZIP64 extra field, in
// the order the format stores them.
ZIPDirectoryProblem widen(std::string_view extra, WideFields& fields) {
  while (extra.size() >= 4) {
    const std::uint16_t id = le16(extra, 0), length = le16(extra, 2);
    if (length > extra.size() - 4) return ZIPDirectoryProblem::Malformed;
    std::string_view data = extra.substr(4, length);
    extra.remove_prefix(4 + std::size_t{length});
    if (id != kZIP64ExtraField) continue;
    auto take = [&data](std::uint64_t& field, std::uint64_t marker, std::size_t width) {
      if (field != marker) return true;
      if (data.size() < width) return false;
      field = littleEndian(data, 0, width);
      data.remove_prefix(width);
      return true;
    };
    const bool complete = take(fields.uncompressedSize, kMarker32, 8) && take(fields.compressedSize, kMarker32, 8) &&
                          take(fields.localOffset, kMarker32, 8) && take(fields.diskStart, kMarker16, 4);
    return complete ? ZIPDirectoryProblem::None : ZIPDirectoryProblem::Malformed;
  }
  return ZIPDirectoryProblem::None;
}

// Where an entry's local header and data lie, and whether a data
// descriptor (of 12 to 24 bytes, by its signature and ZIP64 sizes) follows.
struct Span {
  std::uint64_t start;
  std::uint64_t end;
  bool described;
};

// Checks the local header that a directory record points at: before the
// directory, with the same name; answers the span of header and data.
ZIPDirectoryProblem checkLocalHeader(const ZIPCentralDirectory::ByteReader& read, const WideFields& fields,
                                     std::string_view name, bool described, std::uint64_t directoryOffset,
                                     Span& span) {
  if (!fitsBefore(fields.localOffset, kLocalHeaderLength + name.size(), directoryOffset))
    return ZIPDirectoryProblem::OutOfRange;
  std::string header(kLocalHeaderLength + name.size(), '\0');
  if (!readInto(read, fields.localOffset, header)) return ZIPDirectoryProblem::Unreadable;
  if (!startsWith(header, 0, kLocalSignature) || le16(header, 26) != name.size() ||
      std::string_view(header).substr(kLocalHeaderLength) != name)
    return ZIPDirectoryProblem::Malformed;
  const std::uint64_t headerLength = kLocalHeaderLength + name.size() + le16(header, 28);
  if (!fitsBefore(fields.localOffset, headerLength, directoryOffset) ||
      !fitsBefore(fields.localOffset + headerLength, fields.compressedSize, directoryOffset))
    return ZIPDirectoryProblem::OutOfRange;
  span = {fields.localOffset, fields.localOffset + headerLength + fields.compressedSize, described};
  return ZIPDirectoryProblem::None;
}

bool isDescriptorLength(std::uint64_t gap) { return gap == 12 || gap == 16 || gap == 20 || gap == 24; }

// The entries fill the archive up to the directory, one after another: no
// two share a byte, and between them stands at most the data descriptor of
// the one before. Anything else there is an entry that a reader of the
// local headers (bsdtar) would unpack and a reader of the directory would
// never list.
ZIPDirectoryProblem checkTiling(std::vector<Span>& spans, std::uint64_t directoryOffset) {
  std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) { return a.start < b.start; });
  std::uint64_t covered = 0;
  bool described = false;
  auto gapIsAllowed = [&](std::uint64_t next) {
    return next == covered || (described && isDescriptorLength(next - covered));
  };
  for (const Span& span : spans) {
    if (span.start < covered) return ZIPDirectoryProblem::Overlapping;
    if (!gapIsAllowed(span.start)) return ZIPDirectoryProblem::UnlistedBytes;
    covered = span.end;
    described = span.described;
  }
  return gapIsAllowed(directoryOffset) ? ZIPDirectoryProblem::None : ZIPDirectoryProblem::UnlistedBytes;
}

}  // namespace

struct ZIPCentralDirectory::Bounds {
  std::uint64_t offset;
  std::uint64_t size;
  std::uint64_t entries;
};

ZIPCentralDirectory::ZIPCentralDirectory(const ByteReader& read, std::uint64_t archiveSize) {
  problem_ = readAll(read, archiveSize);
  if (problem_ != ZIPDirectoryProblem::None) {
    entries_.clear();
    directory_.clear();
  }
}

ZIPDirectoryProblem ZIPCentralDirectory::readAll(const ByteReader& read, std::uint64_t archiveSize) {
  DirectoryClaim claim;
  if (const auto problem = readClaim(read, archiveSize, claim); problem != ZIPDirectoryProblem::None) return problem;
  if (claim.entriesOnDisk != claim.entries) return ZIPDirectoryProblem::Malformed;
  // The directory fills the space between its offset and the end records.
  if (claim.offset > claim.end || claim.size != claim.end - claim.offset) return ZIPDirectoryProblem::OutOfRange;
  if (claim.entries > claim.size / kDirectoryRecordLength) return ZIPDirectoryProblem::OutOfRange;
  if (claim.entries > kMaximumZIPEntries || claim.size > kMaximumZIPDirectoryBytes) return ZIPDirectoryProblem::TooLarge;
  return readRecords(read, {claim.offset, claim.size, claim.entries});
}

ZIPDirectoryProblem ZIPCentralDirectory::readRecords(const ByteReader& read, const Bounds& bounds) {
  directory_.resize(static_cast<std::size_t>(bounds.size));
  if (!directory_.empty() && !read(bounds.offset, std::span<char>(directory_))) return ZIPDirectoryProblem::Unreadable;
  const std::string_view directory(directory_.data(), directory_.size());
  std::vector<Span> spans;
  spans.reserve(static_cast<std::size_t>(bounds.entries));
  entries_.reserve(static_cast<std::size_t>(bounds.entries));
  std::size_t at = 0;
  for (std::uint64_t index = 0; index < bounds.entries; ++index) {
    if (directory.size() - at < kDirectoryRecordLength || !startsWith(directory, at, kDirectorySignature))
      return ZIPDirectoryProblem::Malformed;
    const std::size_t nameLength = le16(directory, at + 28), extraLength = le16(directory, at + 30),
                      commentLength = le16(directory, at + 32);
    if (nameLength == 0) return ZIPDirectoryProblem::Malformed;
    if (nameLength > kMaximumZIPNameLength) return ZIPDirectoryProblem::TooLarge;
    const std::size_t recordLength = kDirectoryRecordLength + nameLength + extraLength + commentLength;
    if (directory.size() - at < recordLength) return ZIPDirectoryProblem::Malformed;
    const std::string_view name = directory.substr(at + kDirectoryRecordLength, nameLength);
    // bsdtar would cut such a name short at the NUL; refuse it rather than guess.
    if (name.find('\0') != std::string_view::npos) return ZIPDirectoryProblem::Malformed;

    WideFields fields{le32(directory, at + 20), le32(directory, at + 24), le32(directory, at + 42),
                      le16(directory, at + 34)};
    if (const auto problem = widen(directory.substr(at + kDirectoryRecordLength + nameLength, extraLength), fields);
        problem != ZIPDirectoryProblem::None)
      return problem;
    if (fields.diskStart != 0) return ZIPDirectoryProblem::Malformed;
    Span span{};
    const bool described = (le16(directory, at + 8) & kDataDescriptorFlag) != 0;
    if (const auto problem = checkLocalHeader(read, fields, name, described, bounds.offset, span);
        problem != ZIPDirectoryProblem::None)
      return problem;
    spans.push_back(span);
    entries_.push_back({name, le16(directory, at + 4), le32(directory, at + 38)});
    at += recordLength;
  }
  if (at != directory.size()) return ZIPDirectoryProblem::Malformed;
  return checkTiling(spans, bounds.offset);
}

const char* describeZIPDirectoryProblem(ZIPDirectoryProblem problem) {
  switch (problem) {
    case ZIPDirectoryProblem::None:
      return "";
    case ZIPDirectoryProblem::NoEndRecord:
      return "The archive's end record is missing.";
    case ZIPDirectoryProblem::AmbiguousEndRecord:
      return "The archive's end records contradict each other.";
    case ZIPDirectoryProblem::OutOfRange:
      return "The archive's directory points outside of where its entries lie.";
    case ZIPDirectoryProblem::Malformed:
      return "The archive's directory is malformed.";
    case ZIPDirectoryProblem::Overlapping:
      return "The archive's entries overlap.";
    case ZIPDirectoryProblem::UnlistedBytes:
      return "The archive holds data that its directory does not list.";
    case ZIPDirectoryProblem::TooLarge:
      return "The archive's directory is larger than allowed.";
    case ZIPDirectoryProblem::Unreadable:
      return "The archive's directory could not be read.";
  }
  return "";
}

}  // namespace fennick::detail
