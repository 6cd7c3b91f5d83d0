#include "fennick/Runtime/Coding/Internal/BinaryPropertyListScan.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace fennick::detail {

namespace {

constexpr std::size_t kHeaderSize = 8;    // "bplist00"
constexpr std::size_t kTrailerSize = 32;  // widths, object count, top object, offset table

// libplist parses an object once per reference to it, so what it allocates is
// weighed before it runs: a node's own record plus the text or bytes it
// copies. A list may cost up to kCostPerByte per byte of its own (every list
// that shares nothing, or only small strings, stays well below), plus an
// allowance for writers that name a container or a long string twice. A chain
// of arrays that each name the next one twice does not become billions of
// nodes, nor a long string named a million times a terabyte.
constexpr std::uint64_t kNodeCost = 48;
constexpr std::uint64_t kCostPerByte = 64;
constexpr std::uint64_t kSharingAllowance = 4 << 20;

// Object kinds: the high nibble of an object's marker byte.
constexpr std::uint8_t kIntegerKind = 0x1, kDataKind = 0x4, kASCIIKind = 0x5, kUTF16Kind = 0x6,
                       kArrayKind = 0xA, kSetKind = 0xC, kDictionaryKind = 0xD;
constexpr std::uint8_t kLongCount = 0xF;  // the count follows as an integer object

constexpr const char* kMalformed = "an offset, count or reference lies outside the list";
constexpr const char* kTooDeep = "containers nested too deeply";
constexpr const char* kCycle = "a container holds itself";
constexpr const char* kExpandsTooFar = "shared objects would expand far beyond the list's size";
constexpr const char* kStringWithNUL = "an ASCII string holds a NUL character";
constexpr const char* kKeyNotString = "a key is not a string";
constexpr const char* kKeyWithNUL = "a key holds a NUL character";
constexpr const char* kLoneSurrogate = "a string holds an unpaired UTF-16 surrogate";

bool hasLongCount(std::uint8_t kind) {
  return kind == kDataKind || kind == kASCIIKind || kind == kUTF16Kind || kind == kArrayKind || kind == kSetKind ||
         kind == kDictionaryKind;
}

// An object as its marker describes it: the kind, the count that follows the
// marker and where the contents begin.
struct ObjectHeader {
  std::uint8_t kind = 0;
  std::uint64_t count = 0;
  std::uint64_t contents = 0;
};

class BinaryPropertyListScan {
 public:
  BinaryPropertyListScan(std::string_view bytes, std::size_t maxDepth)
      : bytes_(bytes),
        maxDepth_(maxDepth),
        costLimit_(std::min<std::uint64_t>(kCostPerByte * bytes.size() + kSharingAllowance,
                                           std::numeric_limits<std::uint32_t>::max() - 1)) {}

  const char* run() {
    if (!readTrailer()) return kMalformed;
    marks_.assign(objectCount_, 0);
    cost_.assign(objectCount_, 0);
    height_.assign(objectCount_, 0);
    // Never reallocated during the walk: visit() adds to a frame it holds.
    stack_.reserve(std::min<std::uint64_t>(maxDepth_, objectCount_) + 1);
    std::uint64_t total = 0;
    if (const char* hazard = visit(topObject_, false, total)) return hazard;
    while (!stack_.empty()) {
      const std::size_t top = stack_.size() - 1;
      if (stack_[top].next < stack_[top].references) {
        Frame& frame = stack_[top];
        const std::uint64_t reference = bigEndian(frame.contents + frame.next * referenceSize_, referenceSize_);
        const bool isKey = frame.next < frame.keys;
        ++frame.next;
        if (const char* hazard = visit(reference, isKey, stack_[top].cost)) return hazard;
        continue;
      }
      const Frame done = stack_.back();
      stack_.pop_back();
      marks_[done.object] = static_cast<std::uint8_t>((marks_[done.object] & ~kOpen) | kDone | kNotAString);
      cost_[done.object] = static_cast<std::uint32_t>(done.cost);
      height_[done.object] = done.height + 1;
      if (!stack_.empty()) stack_.back().height = std::max(stack_.back().height, height_[done.object]);
      if (const char* hazard = add(stack_.empty() ? total : stack_.back().cost, done.cost)) return hazard;
    }
    return nullptr;
  }

 private:
  // Per object: on the walk's path, finished, and what keeps it from serving
  // as a dictionary key (libplist refuses the first and aborts on the second).
  static constexpr std::uint8_t kOpen = 1, kDone = 2, kNotAString = 4, kHoldsNUL = 8;

  struct Frame {
    std::uint64_t object;
    std::uint64_t contents;    // the references
    std::uint64_t references;  // how many (keys then values for dictionaries)
    std::uint64_t keys;        // how many of them name keys
    std::uint64_t next = 0;
    std::uint64_t cost = kNodeCost;  // what libplist allocates for the object so far
    std::uint32_t height = 0;        // of the tallest member so far
  };

  bool readTrailer() {
    if (bytes_.size() < kHeaderSize + kTrailerSize) return false;
    const std::uint64_t trailer = bytes_.size() - kTrailerSize;
    offsetSize_ = byteAt(trailer + 6);
    referenceSize_ = byteAt(trailer + 7);
    objectCount_ = bigEndian(trailer + 8, 8);
    topObject_ = bigEndian(trailer + 16, 8);
    offsetTable_ = bigEndian(trailer + 24, 8);
    // libplist reads widths of up to eight bytes as big-endian numbers.
    if (offsetSize_ == 0 || offsetSize_ > 8 || referenceSize_ == 0 || referenceSize_ > 8) return false;
    if (objectCount_ == 0 || topObject_ >= objectCount_) return false;
    return offsetTable_ >= kHeaderSize && offsetTable_ < trailer &&
           objectCount_ <= (trailer - offsetTable_) / offsetSize_;
  }

  // Objects, their counts and their contents all lie before the offset table.
  bool readHeader(std::uint64_t object, ObjectHeader& header) const {
    const std::uint64_t offset = bigEndian(offsetTable_ + object * offsetSize_, offsetSize_);
    if (offset >= offsetTable_) return false;
    const std::uint8_t marker = byteAt(offset);
    header = {static_cast<std::uint8_t>(marker >> 4), static_cast<std::uint64_t>(marker & 0xF), offset + 1};
    if (header.count != kLongCount || !hasLongCount(header.kind)) return true;
    if (header.contents >= offsetTable_) return false;
    const std::uint8_t countMarker = byteAt(header.contents);
    if (countMarker >> 4 != kIntegerKind || (countMarker & 0xF) > 3) return false;
    const std::uint64_t width = std::uint64_t{1} << (countMarker & 0xF);
    if (!fitsBeforeTable(header.contents + 1, width)) return false;
    header.count = bigEndian(header.contents + 1, width);
    header.contents += 1 + width;
    return true;
  }

  // Enters the object a reference names: a leaf is checked at once and its
  // cost added to `cost`; a container goes on the stack.
  const char* visit(std::uint64_t object, bool isKey, std::uint64_t& cost) {
    if (object >= objectCount_) return kMalformed;
    std::uint8_t& mark = marks_[object];
    if (mark & kOpen) return kCycle;
    if (!(mark & kDone)) {
      ObjectHeader header;
      if (!readHeader(object, header)) return kMalformed;
      if (header.kind == kArrayKind || header.kind == kSetKind || header.kind == kDictionaryKind)
        return isKey ? kKeyNotString : enterContainer(object, header);
      std::uint64_t leafCost = kNodeCost;
      if (const char* hazard = checkLeaf(header, mark, leafCost)) return hazard;
      mark |= kDone;
      cost_[object] = static_cast<std::uint32_t>(std::min(leafCost, costLimit_ + 1));
    }
    if (isKey && (mark & kNotAString)) return kKeyNotString;
    if (isKey && (mark & kHoldsNUL)) return kKeyWithNUL;
    // A container seen before is parsed again here, as deep as it goes
    // below this place: first reached near the top, it may be named again
    // from far down.
    if (stack_.size() + height_[object] > maxDepth_) return kTooDeep;
    if (!stack_.empty()) stack_.back().height = std::max(stack_.back().height, height_[object]);
    return add(cost, cost_[object]);
  }

  const char* enterContainer(std::uint64_t object, const ObjectHeader& header) {
    const bool dictionary = header.kind == kDictionaryKind;
    const std::uint64_t perEntry = dictionary ? 2 * std::uint64_t{referenceSize_} : referenceSize_;
    if (header.contents > offsetTable_ || header.count > (offsetTable_ - header.contents) / perEntry)
      return kMalformed;
    if (stack_.size() >= maxDepth_) return kTooDeep;
    marks_[object] |= kOpen;
    const std::uint64_t references = dictionary ? 2 * header.count : header.count;
    stack_.push_back({object, header.contents, references, dictionary ? header.count : 0});
    return nullptr;
  }

  // Checks a scalar and adds what libplist copies of it to `cost`.
  const char* checkLeaf(const ObjectHeader& header, std::uint8_t& mark, std::uint64_t& cost) const {
    if (header.kind == kDataKind) {
      if (!fitsBeforeTable(header.contents, header.count)) return kMalformed;
      cost += header.count;
    }
    if (header.kind != kASCIIKind && header.kind != kUTF16Kind) {
      mark |= kNotAString;
      return nullptr;
    }
    if (header.kind == kASCIIKind) {
      if (!fitsBeforeTable(header.contents, header.count)) return kMalformed;
      cost += header.count;
      return std::memchr(bytes_.data() + header.contents, 0, header.count) ? kStringWithNUL : nullptr;
    }
    if (header.count > offsetTable_ || !fitsBeforeTable(header.contents, header.count * 2)) return kMalformed;
    cost += 4 * header.count;  // libplist's buffer for the UTF-8 form
    bool pendingLead = false;
    for (std::uint64_t unit = 0; unit < header.count; ++unit) {
      const auto code = static_cast<std::uint16_t>(bigEndian(header.contents + 2 * unit, 2));
      const bool lead = code >= 0xD800 && code <= 0xDBFF, trail = code >= 0xDC00 && code <= 0xDFFF;
      if (trail != pendingLead) return kLoneSurrogate;
      pendingLead = lead;
      if (code == 0) mark |= kHoldsNUL;
    }
    return pendingLead ? kLoneSurrogate : nullptr;
  }

  const char* add(std::uint64_t& total, std::uint64_t cost) const {
    total += cost;
    return total > costLimit_ ? kExpandsTooFar : nullptr;
  }

  bool fitsBeforeTable(std::uint64_t offset, std::uint64_t length) const {
    return offset <= offsetTable_ && length <= offsetTable_ - offset;
  }
  std::uint8_t byteAt(std::uint64_t offset) const { return static_cast<std::uint8_t>(bytes_[offset]); }
  // Callers have checked that the bytes lie inside the input.
  std::uint64_t bigEndian(std::uint64_t offset, std::uint64_t width) const {
    std::uint64_t value = 0;
    for (std::uint64_t i = 0; i < width; ++i) value = value << 8 | byteAt(offset + i);
    return value;
  }

  std::string_view bytes_;
  std::size_t maxDepth_;
  std::uint64_t costLimit_;
  std::uint8_t offsetSize_ = 0, referenceSize_ = 0;
  std::uint64_t objectCount_ = 0, topObject_ = 0, offsetTable_ = 0;
  std::vector<std::uint8_t> marks_;
  std::vector<std::uint32_t> cost_;    // of finished objects, at most costLimit_ + 1
  std::vector<std::uint32_t> height_;  // containers on the longest chain down from a finished object
  std::vector<Frame> stack_;
};

}  // namespace

const char* binaryPropertyListHazard(std::string_view bytes, std::size_t maxDepth) {
  return BinaryPropertyListScan(bytes, maxDepth).run();
}

}  // namespace fennick::detail
