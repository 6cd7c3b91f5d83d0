#pragma once
// Building blocks for tests of readers fed hostile input: binary property
// lists assembled byte by byte (any widths, counts, offsets and references,
// including ones no writer would produce), nesting generators, and a runner
// that calls a reader on a thread with a small stack, where a reader that
// recurses once per level of its input fails at once instead of passing by
// luck on an 8 MiB main stack.
#include <gtest/gtest.h>

#include <pthread.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fennick::testing {

/// Stack of the threads the hostile cases run on: the smallest a thread gets
/// by default (glibc gives new threads, the dispatch pool's workers among
/// them, the process's stack limit, 8 MiB as a rule, and 2 MiB when there is
/// no limit). The deepest input the readers accept fits it with room to
/// spare, AddressSanitizer's larger frames included; input nested past the
/// limits would overflow it many times over if a reader recursed into it.
inline constexpr std::size_t kSmallStack = 2 << 20;

/// Runs `body` on a new thread with `stackSize` bytes of stack and waits for it.
inline void runOnSmallStack(const std::function<void()>& body, std::size_t stackSize = kSmallStack) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, stackSize), 0);
  pthread_t thread;
  auto run = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)), 0);
  pthread_attr_destroy(&attributes);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

inline std::string bigEndian(std::uint64_t value, std::size_t width) {
  std::string bytes(width, '\0');
  for (std::size_t i = 0; i < width && i < 8; ++i) bytes[width - 1 - i] = static_cast<char>((value >> (8 * i)) & 0xFF);
  return bytes;
}

/// A binary property list put together object by object. Objects are raw
/// bytes; ref() encodes a reference in the list's reference width, so that
/// containers can name any index, in range or not. The trailer's fields can
/// be overridden one by one.
struct BinaryPlistBuilder {
  std::uint8_t offsetSize = 2;
  std::uint8_t referenceSize = 2;
  std::uint64_t top = 0;
  std::vector<std::string> objects;
  std::optional<std::uint64_t> objectCount, offsetTable;
  std::vector<std::optional<std::uint64_t>> offsetOverrides;  // per object

  /// Adds an object and answers its index.
  std::uint64_t add(std::string object) {
    objects.push_back(std::move(object));
    return objects.size() - 1;
  }
  std::string ref(std::uint64_t index) const { return bigEndian(index, referenceSize); }

  /// A marker byte of `kind` (high nibble) with its count, spilling into an
  /// integer object of 1, 2, 4 or 8 bytes when it does not fit the nibble.
  static std::string marker(std::uint8_t kind, std::uint64_t count) {
    if (count < 15) return std::string(1, static_cast<char>(kind << 4 | count));
    const std::size_t width = count <= 0xFF ? 1 : count <= 0xFFFF ? 2 : count <= 0xFFFFFFFF ? 4 : 8;
    const char widthCode = width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3;
    return std::string(1, static_cast<char>(kind << 4 | 0xF)) + static_cast<char>(0x10 | widthCode) +
           bigEndian(count, width);
  }
  std::string array(const std::vector<std::uint64_t>& members) const {
    std::string bytes = marker(0xA, members.size());
    for (std::uint64_t member : members) bytes += ref(member);
    return bytes;
  }
  std::string dictionary(const std::vector<std::uint64_t>& keys, const std::vector<std::uint64_t>& values) const {
    std::string bytes = marker(0xD, keys.size());
    for (std::uint64_t key : keys) bytes += ref(key);
    for (std::uint64_t value : values) bytes += ref(value);
    return bytes;
  }
  static std::string ascii(std::string_view text) { return marker(0x5, text.size()) + std::string(text); }
  static std::string utf16(const std::vector<std::uint16_t>& units) {
    std::string bytes = marker(0x6, units.size());
    for (std::uint16_t unit : units) bytes += bigEndian(unit, 2);
    return bytes;
  }
  static std::string integer(std::uint8_t value) { return std::string("\x10", 1) + static_cast<char>(value); }

  std::string build() const {
    std::string bytes = "bplist00";
    std::vector<std::uint64_t> offsets;
    for (std::size_t i = 0; i < objects.size(); ++i) {
      offsets.push_back(i < offsetOverrides.size() && offsetOverrides[i] ? *offsetOverrides[i] : bytes.size());
      bytes += objects[i];
    }
    const std::uint64_t table = bytes.size();
    for (std::uint64_t offset : offsets) bytes += bigEndian(offset, offsetSize);
    bytes += std::string(6, '\0');
    bytes += static_cast<char>(offsetSize);
    bytes += static_cast<char>(referenceSize);
    bytes += bigEndian(objectCount.value_or(objects.size()), 8);
    bytes += bigEndian(top, 8);
    bytes += bigEndian(offsetTable.value_or(table), 8);
    return bytes;
  }
};

/// `levels` one-element arrays, each holding the next; the last is empty.
inline std::string nestedBinaryArrays(std::uint64_t levels) {
  BinaryPlistBuilder list;
  list.offsetSize = list.referenceSize = levels < 0xFFFF ? 2 : 4;
  list.objects.reserve(levels);
  for (std::uint64_t i = 0; i + 1 < levels; ++i) list.add(list.array({i + 1}));
  list.add(list.array({}));
  return list.build();
}

/// `levels` copies of `open`, an optional middle, then `levels` of `close`.
inline std::string repeated(std::string_view open, std::size_t levels, std::string_view close = {},
                            std::string_view middle = {}) {
  std::string text;
  text.reserve((open.size() + close.size()) * levels + middle.size());
  for (std::size_t i = 0; i < levels; ++i) text += open;
  text += middle;
  for (std::size_t i = 0; i < levels; ++i) text += close;
  return text;
}

/// An XML property list around `body`.
inline std::string xmlList(std::string_view body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + std::string(body) + "</plist>";
}

}  // namespace fennick::testing
