#pragma once

// The hash of a run of UTF-8 text, shared by String (which keeps it) and by
// Dictionary's look-ups by text (which must find the same bucket without
// making a String). Keys are mostly short, so texts up to 16 bytes take two
// overlapping word loads and one wide multiply instead of a byte loop.

#include <cstdint>
#include <cstring>
#include <functional>
#include <string_view>

namespace fennick::detail {

inline std::uint64_t mixWide(std::uint64_t a, std::uint64_t b) noexcept {
  __extension__ typedef unsigned __int128 Wide;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

inline std::uint64_t loadWord(const char* bytes) noexcept {
  std::uint64_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

inline std::uint32_t loadHalfWord(const char* bytes) noexcept {
  std::uint32_t word;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

inline std::size_t hashText(std::string_view text) noexcept {
  constexpr std::uint64_t kSeed = 0xa0761d6478bd642fULL;
  constexpr std::uint64_t kStep = 0xe7037ed1a0b428dbULL;
  const std::size_t size = text.size();
  if (size > 16) return std::hash<std::string_view>()(text);
  const char* p = text.data();
  std::uint64_t low = 0, high = 0;
  if (size >= 8) {
    low = loadWord(p);
    high = loadWord(p + size - 8);
  } else if (size >= 4) {
    low = loadHalfWord(p);
    high = loadHalfWord(p + size - 4);
  } else if (size > 0) {
    const auto byte = [p](std::size_t i) { return static_cast<std::uint64_t>(static_cast<unsigned char>(p[i])); };
    low = (byte(0) << 16) | (byte(size >> 1) << 8) | byte(size - 1);
  }
  return mixWide(low ^ kStep ^ size, high ^ kSeed) ^ size;
}

}  // namespace fennick::detail
