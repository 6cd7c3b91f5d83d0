#include "fennick/Runtime/Processes/Internal/BundleELFSection.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace fennick::detail {

namespace {

constexpr std::uint32_t sectionTypeNoBits = 8;    // SHT_NOBITS: occupies no file space
constexpr std::uint16_t sectionIndexExtended = 0xffff;  // SHN_XINDEX
// Real files have a few dozen sections; a count past this is an attack on the
// reader's time, not a binary anyone built.
constexpr std::uint64_t maxSectionCount = 1u << 16;

// Field positions of the two ELF classes.
struct Layout {
  std::size_t headerSize;
  std::size_t sectionTableOffset, sectionEntrySizeOffset, sectionCountOffset, namesIndexOffset;
  std::size_t entrySize;
  std::size_t nameOffset, typeOffset, offsetOffset, sizeOffset, linkOffset;
  std::size_t wordSize;  // size of addresses and offsets
};
constexpr Layout layout32{52, 0x20, 0x2E, 0x30, 0x32, 40, 0, 4, 16, 20, 24, 4};
constexpr Layout layout64{64, 0x28, 0x3A, 0x3C, 0x3E, 64, 0, 4, 24, 32, 40, 8};

class Decoder {
 public:
  Decoder(const Layout& layout, bool bigEndian) : layout_(layout), bigEndian_(bigEndian) {}

  std::uint64_t unsignedAt(const unsigned char* bytes, std::size_t width) const {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
      const std::size_t index = bigEndian_ ? i : width - 1 - i;
      value = (value << 8) | bytes[index];
    }
    return value;
  }
  std::uint64_t word(const unsigned char* bytes) const { return unsignedAt(bytes, layout_.wordSize); }
  const Layout& layout() const { return layout_; }

 private:
  const Layout& layout_;
  bool bigEndian_;
};

struct Section {
  std::uint32_t name = 0;
  std::uint32_t type = 0;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::uint32_t link = 0;
};

bool fitsInFile(std::uint64_t offset, std::uint64_t size, std::uint64_t fileSize) {
  return offset <= fileSize && size <= fileSize - offset;
}

class SectionTable {
 public:
  SectionTable(const ByteReader& read, std::uint64_t fileSize, const Decoder& decoder)
      : read_(read), fileSize_(fileSize), decoder_(decoder) {}

  bool readHeader(const unsigned char* header) {
    const Layout& l = decoder_.layout();
    tableOffset_ = decoder_.word(header + l.sectionTableOffset);
    entrySize_ = decoder_.unsignedAt(header + l.sectionEntrySizeOffset, 2);
    count_ = decoder_.unsignedAt(header + l.sectionCountOffset, 2);
    namesIndex_ = decoder_.unsignedAt(header + l.namesIndexOffset, 2);
    if (tableOffset_ == 0 || entrySize_ < l.entrySize) return false;
    // Files with very many sections keep the real count and names index in
    // the first section header.
    if (count_ == 0 || namesIndex_ == sectionIndexExtended) {
      Section first;
      if (!entry(0, first)) return false;
      if (count_ == 0) count_ = first.size;
      if (namesIndex_ == sectionIndexExtended) namesIndex_ = first.link;
    }
    return count_ > 0 && count_ <= maxSectionCount && namesIndex_ < count_ &&
           count_ <= (fileSize_ - std::min(tableOffset_, fileSize_)) / entrySize_;
  }

  bool entry(std::uint64_t index, Section& section) const {
    const Layout& l = decoder_.layout();
    if (index >= (fileSize_ - std::min(tableOffset_, fileSize_)) / entrySize_) return false;
    unsigned char bytes[64];
    if (!read_(tableOffset_ + index * entrySize_, l.entrySize, bytes)) return false;
    section.name = static_cast<std::uint32_t>(decoder_.unsignedAt(bytes + l.nameOffset, 4));
    section.type = static_cast<std::uint32_t>(decoder_.unsignedAt(bytes + l.typeOffset, 4));
    section.offset = decoder_.word(bytes + l.offsetOffset);
    section.size = decoder_.word(bytes + l.sizeOffset);
    section.link = static_cast<std::uint32_t>(decoder_.unsignedAt(bytes + l.linkOffset, 4));
    return true;
  }

  std::optional<std::string> find(std::string_view wanted) const {
    Section names;
    if (!entry(namesIndex_, names) || names.type == sectionTypeNoBits ||
        !fitsInFile(names.offset, names.size, fileSize_))
      return std::nullopt;
    std::vector<char> candidate(wanted.size() + 1);
    for (std::uint64_t index = 0; index < count_; ++index) {
      Section section;
      if (!entry(index, section)) return std::nullopt;
      // The name must be the wanted text followed by its terminator, inside
      // the names section.
      if (section.name >= names.size || candidate.size() > names.size - section.name) continue;
      if (!read_(names.offset + section.name, candidate.size(), candidate.data())) continue;
      if (candidate.back() != '\0' || std::string_view(candidate.data(), wanted.size()) != wanted)
        continue;
      if (section.type == sectionTypeNoBits || section.size > maxELFSectionSize ||
          !fitsInFile(section.offset, section.size, fileSize_))
        return std::nullopt;
      std::string contents(static_cast<std::size_t>(section.size), '\0');
      if (!read_(section.offset, contents.size(), contents.data())) return std::nullopt;
      return contents;
    }
    return std::nullopt;
  }

 private:
  const ByteReader& read_;
  std::uint64_t fileSize_;
  const Decoder& decoder_;
  std::uint64_t tableOffset_ = 0, entrySize_ = 0, count_ = 0, namesIndex_ = 0;
};

}  // namespace

std::optional<std::string> readELFSection(const ByteReader& read, std::uint64_t fileSize,
                                          std::string_view name) {
  unsigned char header[64] = {};
  if (fileSize < layout32.headerSize || !read(0, layout32.headerSize, header)) return std::nullopt;
  if (std::memcmp(header, "\x7f" "ELF", 4) != 0) return std::nullopt;
  const unsigned char elfClass = header[4], byteOrder = header[5];
  if ((elfClass != 1 && elfClass != 2) || (byteOrder != 1 && byteOrder != 2)) return std::nullopt;
  const Layout& layout = elfClass == 1 ? layout32 : layout64;
  if (fileSize < layout.headerSize ||
      !read(layout32.headerSize, layout.headerSize - layout32.headerSize, header + layout32.headerSize))
    return std::nullopt;
  const Decoder decoder(layout, byteOrder == 2);
  SectionTable table(read, fileSize, decoder);
  if (!table.readHeader(header)) return std::nullopt;
  return table.find(name);
}

std::optional<std::string> readELFSection(std::string_view image, std::string_view name) {
  const ByteReader read = [image](std::uint64_t offset, std::size_t length, void* out) {
    if (!fitsInFile(offset, length, image.size())) return false;
    if (length) std::memcpy(out, image.data() + offset, length);
    return true;
  };
  return readELFSection(read, image.size(), name);
}

std::optional<std::string> readELFSectionOfFile(int fd, std::string_view name) {
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  const ByteReader read = [fd](std::uint64_t offset, std::size_t length, void* out) {
    auto* cursor = static_cast<char*>(out);
    while (length > 0) {
      const ssize_t got = ::pread(fd, cursor, length, static_cast<off_t>(offset));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      cursor += got;
      offset += static_cast<std::uint64_t>(got);
      length -= static_cast<std::size_t>(got);
    }
    return true;
  };
  return readELFSection(read, static_cast<std::uint64_t>(info.st_size), name);
}

}  // namespace fennick::detail
