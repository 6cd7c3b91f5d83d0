#include "fennick/Runtime/Coding/DataCoding.h"

#include <array>
#include <bit>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace fennick::coding {

namespace {

using Pair = std::array<char, 2>;

// -1 for characters outside the alphabet.
template <std::size_t N>
constexpr std::array<std::int8_t, 256> reverseAlphabet(const char (&alphabet)[N]) {
  std::array<std::int8_t, 256> values{};
  values.fill(-1);
  for (std::size_t i = 0; i + 1 < N; ++i) values[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
  return values;
}

// ---------------------------------------------------------------------------
// Hex

constexpr char kHexDigits[] = "0123456789abcdef";

constexpr auto kHexByte = [] {
  std::array<Pair, 256> table{};
  for (std::size_t i = 0; i < 256; ++i) table[i] = {kHexDigits[i >> 4], kHexDigits[i & 15]};
  return table;
}();

constexpr int hexDigitValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Every pair of characters (first << 8 | second) mapped to its byte under the
// lenient rule, so that decoding is one load per byte whatever the text holds.
constexpr auto kHexPair = [] {
  std::array<std::uint8_t, 65536> table{};
  for (unsigned first = 0; first < 256; ++first) {
    const int high = hexDigitValue(static_cast<unsigned char>(first));
    for (unsigned second = 0; second < 256; ++second) {
      const int low = hexDigitValue(static_cast<unsigned char>(second));
      std::uint8_t byte = 0;
      if (high >= 0) byte = static_cast<std::uint8_t>(low >= 0 ? high << 4 | low : high);
      table[first << 8 | second] = byte;
    }
  }
  return table;
}();

// ---------------------------------------------------------------------------
// Base64

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Twelve bits to their two characters: a 3-byte group is two loads.
constexpr auto kBase64Pair = [] {
  std::array<Pair, 4096> table{};
  for (std::size_t i = 0; i < 4096; ++i) table[i] = {kBase64Alphabet[i >> 6], kBase64Alphabet[i & 63]};
  return table;
}();

constexpr auto kBase64Value = reverseAlphabet(kBase64Alphabet);

// The value of a character already moved to its place in a 24-bit group, or
// kBad for characters outside the alphabet, so that a group is four loads
// ORed together and one test of the high byte tells whether any was bad.
constexpr std::uint32_t kBad = 0xFF000000u;
constexpr auto base64Shifted(unsigned shift) {
  std::array<std::uint32_t, 256> table{};
  for (std::size_t i = 0; i < 256; ++i)
    table[i] = kBase64Value[i] < 0 ? kBad : static_cast<std::uint32_t>(kBase64Value[i]) << shift;
  return table;
}
constexpr auto kBase64D0 = base64Shifted(18);
constexpr auto kBase64D1 = base64Shifted(12);
constexpr auto kBase64D2 = base64Shifted(6);
constexpr auto kBase64D3 = base64Shifted(0);

inline std::uint32_t base64Group(const unsigned char* c) {
  return kBase64D0[c[0]] | kBase64D1[c[1]] | kBase64D2[c[2]] | kBase64D3[c[3]];
}

// ---------------------------------------------------------------------------
// Base32

constexpr char kBase32Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";

// Ten bits to their two characters: a 5-byte group is four loads.
constexpr auto kBase32Pair = [] {
  std::array<Pair, 1024> table{};
  for (std::size_t i = 0; i < 1024; ++i) table[i] = {kBase32Alphabet[i >> 5], kBase32Alphabet[i & 31]};
  return table;
}();

constexpr auto kBase32Value = reverseAlphabet(kBase32Alphabet);

// Padding of a Base32 block: data characters -> bytes, 0 for counts that no
// encoder writes.
constexpr std::size_t kBase32BytesForCharacters[9] = {0, 0, 1, 0, 2, 3, 0, 4, 5};

std::size_t trailingPadding(std::string_view text, std::size_t limit) {
  std::size_t count = 0;
  while (count < limit && count < text.size() && text[text.size() - 1 - count] == '=') ++count;
  return count;
}

}  // namespace

namespace {

#if defined(__SSE2__)
// Sixteen bytes at a time: split into nibbles, turn each into '0' + n, moved
// up to 'a' for n above 9, and interleave high and low digits.
std::size_t hexEncodeBlocks(const std::uint8_t* in, std::size_t length, char* out) noexcept {
  const __m128i lowNibble = _mm_set1_epi8(0x0F);
  const __m128i nine = _mm_set1_epi8(9);
  const __m128i zero = _mm_set1_epi8('0');
  const __m128i toLetters = _mm_set1_epi8('a' - '0' - 10);
  const auto digits = [&](__m128i nibbles) {
    const __m128i letters = _mm_and_si128(_mm_cmpgt_epi8(nibbles, nine), toLetters);
    return _mm_add_epi8(_mm_add_epi8(nibbles, zero), letters);
  };
  std::size_t done = 0;
  for (; done + 16 <= length; done += 16, out += 32) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + done));
    const __m128i high = digits(_mm_and_si128(_mm_srli_epi16(bytes, 4), lowNibble));
    const __m128i low = digits(_mm_and_si128(bytes, lowNibble));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(high, low));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), _mm_unpackhi_epi8(high, low));
  }
  return done;
}
#else
std::size_t hexEncodeBlocks(const std::uint8_t*, std::size_t, char*) noexcept { return 0; }
#endif

}  // namespace

void hexEncode(std::span<const std::uint8_t> bytes, char* out) noexcept {
  const std::size_t blocks = hexEncodeBlocks(bytes.data(), bytes.size(), out);
  out += 2 * blocks;
  for (std::uint8_t byte : bytes.subspan(blocks)) {
    std::memcpy(out, kHexByte[byte].data(), 2);
    out += 2;
  }
}

void hexDecode(std::string_view text, std::uint8_t* out) noexcept {
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t count = text.size() / 2;
  for (std::size_t i = 0; i < count; ++i) out[i] = kHexPair[in[2 * i] << 8 | in[2 * i + 1]];
}

void base64Encode(std::span<const std::uint8_t> bytes, char* out) noexcept {
  const std::uint8_t* in = bytes.data();
  std::size_t left = bytes.size();
  // Six bytes to eight characters per step, read as one big-endian word (the
  // two bytes past them are read but not used, hence the margin) and written
  // with one store.
  for (; left >= 8; left -= 6, in += 6, out += 8) {
    std::uint64_t word;
    std::memcpy(&word, in, 8);
    if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
    char characters[8];
    std::memcpy(characters, kBase64Pair[word >> 52].data(), 2);
    std::memcpy(characters + 2, kBase64Pair[(word >> 40) & 0xFFF].data(), 2);
    std::memcpy(characters + 4, kBase64Pair[(word >> 28) & 0xFFF].data(), 2);
    std::memcpy(characters + 6, kBase64Pair[(word >> 16) & 0xFFF].data(), 2);
    std::memcpy(out, characters, 8);
  }
  for (; left >= 3; left -= 3, in += 3, out += 4) {
    const std::uint32_t group = std::uint32_t{in[0]} << 16 | std::uint32_t{in[1]} << 8 | in[2];
    std::memcpy(out, kBase64Pair[group >> 12].data(), 2);
    std::memcpy(out + 2, kBase64Pair[group & 0xFFF].data(), 2);
  }
  if (left == 0) return;
  const std::uint32_t group = std::uint32_t{in[0]} << 16 | (left == 2 ? std::uint32_t{in[1]} << 8 : 0);
  std::memcpy(out, kBase64Pair[group >> 12].data(), 2);
  out[2] = left == 2 ? kBase64Alphabet[(group >> 6) & 63] : '=';
  out[3] = '=';
}

std::optional<std::size_t> base64DecodedLength(std::string_view text) noexcept {
  if (text.size() % 4 != 0) return std::nullopt;
  return text.size() / 4 * 3 - trailingPadding(text, 2);
}

bool base64Decode(std::string_view text, std::uint8_t* out) noexcept {
  if (text.size() % 4 != 0) return false;
  if (text.empty()) return true;
  const std::size_t padding = trailingPadding(text, 2);
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t fullGroups = text.size() / 4 - (padding ? 1 : 0);
  std::uint32_t bad = 0;
  for (std::size_t g = 0; g < fullGroups; ++g, in += 4, out += 3) {
    const std::uint32_t group = base64Group(in);
    bad |= group;
    out[0] = static_cast<std::uint8_t>(group >> 16);
    out[1] = static_cast<std::uint8_t>(group >> 8);
    out[2] = static_cast<std::uint8_t>(group);
  }
  if (padding) {
    // The padded group: "xx==" holds one byte, "xxx=" two; the bits past them
    // must be zero for the text to be the one an encoder writes.
    const unsigned char last[4] = {in[0], in[1], padding == 2 ? static_cast<unsigned char>('A') : in[2], 'A'};
    const std::uint32_t group = base64Group(last);
    bad |= group;
    out[0] = static_cast<std::uint8_t>(group >> 16);
    if (padding == 1) out[1] = static_cast<std::uint8_t>(group >> 8);
    const std::uint32_t unused = padding == 2 ? 0xFFFFu : 0xFFu;
    if (group & unused) return false;
  }
  return (bad & kBad) == 0;
}

void base32Encode(std::span<const std::uint8_t> bytes, char* out) noexcept {
  const std::uint8_t* in = bytes.data();
  std::size_t left = bytes.size();
  auto writeGroup = [](std::uint64_t group, char* to) {
    std::memcpy(to, kBase32Pair[group >> 30].data(), 2);
    std::memcpy(to + 2, kBase32Pair[(group >> 20) & 0x3FF].data(), 2);
    std::memcpy(to + 4, kBase32Pair[(group >> 10) & 0x3FF].data(), 2);
    std::memcpy(to + 6, kBase32Pair[group & 0x3FF].data(), 2);
  };
  for (; left >= 5; left -= 5, in += 5, out += 8) {
    const std::uint64_t group = std::uint64_t{in[0]} << 32 | std::uint64_t{in[1]} << 24 |
                                std::uint64_t{in[2]} << 16 | std::uint64_t{in[3]} << 8 | in[4];
    writeGroup(group, out);
  }
  if (left == 0) return;
  std::uint64_t group = 0;
  for (std::size_t i = 0; i < left; ++i) group |= std::uint64_t{in[i]} << (32 - 8 * i);
  writeGroup(group, out);
  const std::size_t characters = (left * 8 + 4) / 5;
  std::memset(out + characters, '=', 8 - characters);
}

std::optional<std::size_t> base32DecodedLength(std::string_view text) noexcept {
  if (text.size() % 8 != 0) return std::nullopt;
  if (text.empty()) return 0;
  const std::size_t bytes = kBase32BytesForCharacters[8 - trailingPadding(text, 6)];
  if (bytes == 0) return std::nullopt;
  return text.size() / 8 * 5 - (5 - bytes);
}

bool base32Decode(std::string_view text, std::uint8_t* out) noexcept {
  const auto length = base32DecodedLength(text);
  if (!length) return false;
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t groups = text.size() / 8;
  int bad = 0;
  for (std::size_t g = 0; g < groups; ++g, in += 8) {
    const bool last = g + 1 == groups;
    const std::size_t characters = last ? 8 - trailingPadding(text, 6) : 8;
    std::uint64_t group = 0;
    for (std::size_t i = 0; i < characters; ++i) {
      const int value = kBase32Value[in[i]];
      bad |= value;
      group |= static_cast<std::uint64_t>(value & 31) << (35 - 5 * i);
    }
    const std::size_t bytes = last ? kBase32BytesForCharacters[characters] : 5;
    // Bits below the last whole byte belong to no byte and must be zero.
    if (group & ((std::uint64_t{1} << (40 - 8 * bytes)) - 1)) return false;
    for (std::size_t i = 0; i < bytes; ++i) *out++ = static_cast<std::uint8_t>(group >> (32 - 8 * i));
  }
  return bad >= 0;
}

}  // namespace fennick::coding
