#include "fennick/Runtime/Coding/BinaryPropertyListWriter.h"

#include <bit>
#include <cstring>
#include <limits>

namespace fennick::detail {

namespace {

constexpr std::uint8_t kFalse = 0x08, kTrue = 0x09, kInteger = 0x10, kReal = 0x20, kData = 0x40,
                       kASCII = 0x50, kUnicode = 0x60, kUID = 0x80, kArray = 0xA0, kDictionary = 0xD0;

class Output {
 public:
  explicit Output(std::size_t capacity) { bytes_.reserve(capacity); }
  void byte(std::uint8_t b) { bytes_.push_back(b); }
  void bigEndian(std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0;) bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
  void append(const std::uint8_t* data, std::size_t length) { bytes_.insert(bytes_.end(), data, data + length); }
  /// Smallest unsigned width (1, 2, 4, 8) that holds the value.
  static std::size_t widthFor(std::uint64_t value) {
    return value <= 0xFF ? 1 : value <= 0xFFFF ? 2 : value <= 0xFFFFFFFF ? 4 : 8;
  }
  void integer(std::int64_t value) {
    // 1-, 2- and 4-byte integers are unsigned; negative values need 8 bytes.
    const std::size_t width = value < 0 ? 8 : widthFor(static_cast<std::uint64_t>(value));
    byte(static_cast<std::uint8_t>(kInteger | std::countr_zero(width)));
    bigEndian(static_cast<std::uint64_t>(value), width);
  }
  void unsignedInteger(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return integer(static_cast<std::int64_t>(value));
    byte(kInteger | 4);  // 16 bytes: readers take the high half as the sign
    bigEndian(0, 8);
    bigEndian(value, 8);
  }
  /// A type marker with a count, the count spilling into an integer object.
  void marker(std::uint8_t type, std::uint64_t count) {
    if (count < 15) return byte(static_cast<std::uint8_t>(type | count));
    byte(type | 0x0F);
    integer(static_cast<std::int64_t>(count));
  }
  std::size_t size() const { return bytes_.size(); }
  std::vector<std::uint8_t> take() { return std::move(bytes_); }

 private:
  std::vector<std::uint8_t> bytes_;
};

// Text that may be stored as an ASCII string. A NUL goes into the UTF-16 form:
// readers of the ASCII form (libplist among them) end the string at it.
bool isASCIIWithoutNUL(const std::uint8_t* text, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i)
    if (text[i] == 0 || text[i] >= 0x80) return false;
  return true;
}

// UTF-8 to UTF-16 code units; malformed sequences become U+FFFD.
std::vector<std::uint16_t> utf16(const std::uint8_t* text, std::size_t length) {
  std::vector<std::uint16_t> units;
  units.reserve(length);
  for (std::size_t i = 0; i < length;) {
    const std::uint8_t lead = text[i];
    std::size_t extra = 0;
    std::uint32_t code = lead;
    if ((lead & 0xE0) == 0xC0) extra = 1, code = lead & 0x1F;
    else if ((lead & 0xF0) == 0xE0) extra = 2, code = lead & 0x0F;
    else if ((lead & 0xF8) == 0xF0) extra = 3, code = lead & 0x07;
    bool valid = lead < 0x80 || (extra > 0 && i + extra < length);
    for (std::size_t k = 1; valid && k <= extra; ++k) {
      if ((text[i + k] & 0xC0) != 0x80) valid = false;
      else code = (code << 6) | (text[i + k] & 0x3F);
    }
    static constexpr std::uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    if (valid && code < kSmallest[extra]) valid = false;  // overlong form
    if (!valid || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      units.push_back(0xFFFD);
      ++i;
      continue;
    }
    i += extra + 1;
    if (code >= 0x10000) {
      code -= 0x10000;
      units.push_back(static_cast<std::uint16_t>(0xD800 | (code >> 10)));
      units.push_back(static_cast<std::uint16_t>(0xDC00 | (code & 0x3FF)));
    } else {
      units.push_back(static_cast<std::uint16_t>(code));
    }
  }
  return units;
}

}  // namespace

BinaryPropertyListWriter::Index BinaryPropertyListWriter::add(Record record) {
  objects_.push_back(record);
  return static_cast<Index>(objects_.size() - 1);
}

BinaryPropertyListWriter::Record BinaryPropertyListWriter::bytesRecord(Kind kind,
                                                                      std::span<const std::uint8_t> bytes) {
  Record record{kind, static_cast<std::uint32_t>(bytes_.size()), static_cast<std::uint32_t>(bytes.size()), 0};
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  return record;
}

BinaryPropertyListWriter::Record BinaryPropertyListWriter::containerRecord(Kind kind,
                                                                          std::span<const Index> first,
                                                                          std::span<const Index> second) {
  Record record{kind, static_cast<std::uint32_t>(refs_.size()), static_cast<std::uint32_t>(first.size()), 0};
  refs_.insert(refs_.end(), first.begin(), first.end());
  refs_.insert(refs_.end(), second.begin(), second.end());
  return record;
}

BinaryPropertyListWriter::Index BinaryPropertyListWriter::addString(std::string_view utf8) {
  return add(bytesRecord(Kind::String, {reinterpret_cast<const std::uint8_t*>(utf8.data()), utf8.size()}));
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::addInteger(std::int64_t value) {
  return add({Kind::Integer, 0, 0, static_cast<std::uint64_t>(value)});
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::addUnsignedInteger(std::uint64_t value) {
  return add({Kind::Unsigned, 0, 0, value});
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::addReal(double value) {
  return add({Kind::Real, 0, 0, std::bit_cast<std::uint64_t>(value)});
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::addBoolean(bool value) {
  return add({Kind::Boolean, 0, 0, value ? 1u : 0u});
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::addData(std::span<const std::uint8_t> bytes) {
  return add(bytesRecord(Kind::Data, bytes));
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::addUID(std::uint64_t value) {
  return add({Kind::UID, 0, 0, value});
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::addArray(std::span<const Index> members) {
  return add(containerRecord(Kind::Array, members, {}));
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::addDictionary(std::span<const Index> keys,
                                                                      std::span<const Index> values) {
  return add(containerRecord(Kind::Dictionary, keys, values));
}
BinaryPropertyListWriter::Index BinaryPropertyListWriter::reserve() { return add({Kind::Reserved}); }

void BinaryPropertyListWriter::setArray(Index slot, std::span<const Index> members) {
  objects_[slot] = containerRecord(Kind::Array, members, {});
}
void BinaryPropertyListWriter::setDictionary(Index slot, std::span<const Index> keys,
                                             std::span<const Index> values) {
  objects_[slot] = containerRecord(Kind::Dictionary, keys, values);
}
void BinaryPropertyListWriter::setUID(Index uid, std::uint64_t value) { objects_[uid].value = value; }
void BinaryPropertyListWriter::reserveObjects(std::size_t count) {
  objects_.reserve(count);
  refs_.reserve(count * 2);
}

std::vector<std::uint8_t> BinaryPropertyListWriter::finish(Index top) const {
  const std::size_t count = objects_.size();
  const std::size_t refSize = Output::widthFor(count ? count - 1 : 0);
  Output out(16 + bytes_.size() + refs_.size() * refSize + count * 6 + 32);
  for (char c : std::string_view("bplist00")) out.byte(static_cast<std::uint8_t>(c));

  std::vector<std::uint64_t> offsets(count);
  for (std::size_t i = 0; i < count; ++i) {
    offsets[i] = out.size();
    const Record& r = objects_[i];
    const std::uint8_t* bytes = bytes_.data() + r.start;
    switch (r.kind) {
      case Kind::String:
        if (isASCIIWithoutNUL(bytes, r.length)) {
          out.marker(kASCII, r.length);
          out.append(bytes, r.length);
        } else {
          const std::vector<std::uint16_t> units = utf16(bytes, r.length);
          out.marker(kUnicode, units.size());
          for (std::uint16_t unit : units) out.bigEndian(unit, 2);
        }
        break;
      case Kind::Data:
        out.marker(kData, r.length);
        out.append(bytes, r.length);
        break;
      case Kind::Integer: out.integer(static_cast<std::int64_t>(r.value)); break;
      case Kind::Unsigned: out.unsignedInteger(r.value); break;
      case Kind::Real:
        out.byte(kReal | 3);
        out.bigEndian(r.value, 8);
        break;
      case Kind::Boolean: out.byte(r.value ? kTrue : kFalse); break;
      case Kind::UID: {
        const std::size_t width = Output::widthFor(r.value);
        out.byte(static_cast<std::uint8_t>(kUID | (width - 1)));
        out.bigEndian(r.value, width);
        break;
      }
      case Kind::Reserved:  // never filled: an empty array keeps the list valid
      case Kind::Array:
      case Kind::Dictionary: {
        const bool dictionary = r.kind == Kind::Dictionary;
        out.marker(dictionary ? kDictionary : kArray, r.length);
        const std::size_t refs = dictionary ? 2 * std::size_t{r.length} : r.length;
        for (std::size_t k = 0; k < refs; ++k) out.bigEndian(refs_[r.start + k], refSize);
        break;
      }
    }
  }

  const std::uint64_t tableOffset = out.size();
  const std::size_t offsetSize = Output::widthFor(tableOffset);
  for (std::uint64_t offset : offsets) out.bigEndian(offset, offsetSize);
  for (int i = 0; i < 6; ++i) out.byte(0);
  out.byte(static_cast<std::uint8_t>(offsetSize));
  out.byte(static_cast<std::uint8_t>(refSize));
  out.bigEndian(count, 8);
  out.bigEndian(top, 8);
  out.bigEndian(tableOffset, 8);
  return out.take();
}

}  // namespace fennick::detail
