#include "fennick/Runtime/Internal/BinaryPlistKeys.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace fennick::detail {

namespace {

constexpr std::size_t kHeaderSize = 8;    // "bplist00"
constexpr std::size_t kTrailerSize = 32;  // sizes, object count, top object, offset table

constexpr std::uint8_t kDictionaryMarker = 0xD;
constexpr std::uint8_t kASCIIStringMarker = 0x5;
constexpr std::uint8_t kUTF16StringMarker = 0x6;
constexpr std::uint8_t kIntegerMarker = 0x1;

// Reads the object table of a binary property list; every read is checked
// against the end of the input.
class BinaryPlist {
 public:
  explicit BinaryPlist(std::string_view bytes) : bytes_(bytes) {}

  bool readTrailer() {
    if (bytes_.size() < kHeaderSize + kTrailerSize) return false;
    const std::size_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = byteAt(trailer + 6);
    referenceSize_ = byteAt(trailer + 7);
    const auto count = bigEndian(trailer + 8, 8);
    const auto table = bigEndian(trailer + 24, 8);
    if (!count || !table || offsetSize_ == 0 || offsetSize_ > 8 || referenceSize_ == 0 || referenceSize_ > 8)
      return false;
    // Each object takes at least one byte, so more objects than bytes is damage.
    if (*count > bytes_.size() || *table > trailer || (trailer - *table) / offsetSize_ < *count) return false;
    objectCount_ = *count;
    offsetTable_ = *table;
    return true;
  }

  std::uint64_t objectCount() const { return objectCount_; }

  std::optional<std::uint64_t> objectOffset(std::uint64_t object) const {
    if (object >= objectCount_) return std::nullopt;
    auto offset = bigEndian(offsetTable_ + object * offsetSize_, offsetSize_);
    // Checked only against the input's end: the library parses objects at any
    // offset inside it, the header and the trailer included.
    if (!offset || *offset >= bytes_.size()) return std::nullopt;
    return offset;
  }

  // The marker's high nibble, and where the object's count and contents are.
  struct Header {
    std::uint8_t kind = 0;
    std::uint64_t count = 0;
    std::uint64_t contents = 0;
  };

  std::optional<Header> header(std::uint64_t offset) const {
    const std::uint8_t marker = byteAt(offset);
    Header result{static_cast<std::uint8_t>(marker >> 4), static_cast<std::uint64_t>(marker & 0xF), offset + 1};
    if (result.count != 0xF) return result;
    // A long count follows as an integer object of 2^n bytes.
    const std::uint8_t countMarker = byteAt(offset + 1);
    if (countMarker >> 4 != kIntegerMarker || (countMarker & 0xF) > 3) return std::nullopt;
    const std::size_t width = std::size_t{1} << (countMarker & 0xF);
    auto count = bigEndian(offset + 2, width);
    if (!count) return std::nullopt;
    result.count = *count;
    result.contents = offset + 2 + width;
    return result;
  }

  bool utf16HasNUL(const Header& string) const {
    if (string.count > bytes_.size() / 2 || !fits(string.contents, string.count * 2)) return false;
    for (std::uint64_t unit = 0; unit < string.count; ++unit)
      if (byteAt(string.contents + 2 * unit) == 0 && byteAt(string.contents + 2 * unit + 1) == 0) return true;
    return false;
  }

  bool asciiHasNUL(const Header& string) const {
    if (!fits(string.contents, string.count)) return false;
    for (std::uint64_t index = 0; index < string.count; ++index)
      if (byteAt(string.contents + index) == 0) return true;
    return false;
  }

  bool dictionaryHasKeyWithNUL(const Header& dictionary) const {
    if (dictionary.count > bytes_.size() / referenceSize_ ||
        !fits(dictionary.contents, dictionary.count * referenceSize_))
      return false;
    for (std::uint64_t index = 0; index < dictionary.count; ++index) {
      auto key = bigEndian(dictionary.contents + index * referenceSize_, referenceSize_);
      auto offset = key ? objectOffset(*key) : std::nullopt;
      auto keyHeader = offset ? header(*offset) : std::nullopt;
      if (!keyHeader) continue;
      if (keyHeader->kind == kUTF16StringMarker && utf16HasNUL(*keyHeader)) return true;
      if (keyHeader->kind == kASCIIStringMarker && asciiHasNUL(*keyHeader)) return true;
    }
    return false;
  }

 private:
  bool fits(std::uint64_t offset, std::uint64_t length) const {
    return offset <= bytes_.size() && length <= bytes_.size() - offset;
  }
  std::uint8_t byteAt(std::uint64_t offset) const {
    return offset < bytes_.size() ? static_cast<std::uint8_t>(bytes_[offset]) : 0;
  }
  std::optional<std::uint64_t> bigEndian(std::uint64_t offset, std::size_t width) const {
    if (!fits(offset, width)) return std::nullopt;
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) value = value << 8 | byteAt(offset + i);
    return value;
  }

  std::string_view bytes_;
  std::uint8_t offsetSize_ = 0;
  std::uint8_t referenceSize_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t offsetTable_ = 0;
};

}  // namespace

bool binaryPlistHasKeyWithNUL(std::string_view bytes) {
  BinaryPlist plist(bytes);
  if (!plist.readTrailer()) return false;
  for (std::uint64_t object = 0; object < plist.objectCount(); ++object) {
    auto offset = plist.objectOffset(object);
    auto header = offset ? plist.header(*offset) : std::nullopt;
    if (header && header->kind == kDictionaryMarker && plist.dictionaryHasKeyWithNUL(*header)) return true;
  }
  return false;
}

}  // namespace fennick::detail
