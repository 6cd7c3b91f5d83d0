#pragma once
// Digest kinds, data encodings and the text codecs behind Data's transcoding
// operations (Data::encodeToHex, Data::transformFromEncoding_toEncoding ...).
//
// The codecs work on caller-provided buffers so that a Data is written once,
// without an intermediate copy. They are pure functions: thread-safe, no state.
//
//   Hex      two lower-case digits per byte; decoding follows the lenient
//            pair rule described at hexDecode.
//   Base64   RFC 4648 section 4 alphabet, "=" padding, no line breaks.
//   Base32   RFC 4648 section 6 alphabet, "=" padding.
// Decoders of Base64 and Base32 accept only canonical text: a length that is
// a multiple of the block, padding only at the end and only in the counts the
// RFC allows, no other characters, and zero bits where the last character has
// bits left over. Anything else is refused as a whole.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace fennick {

/// Digest kinds (the integer argument of calculateHashOfKind and hashString).
enum OVHashKind : std::uint64_t {
  OVHashKindMD5 = 0,   // 16 bytes
  OVHashKindSHA1 = 1,  // 20 bytes
};

/// Encodings of transformFromEncoding_toEncoding. Any other value is refused.
enum OVDataEncoding : std::uint64_t {
  OVDataEncodingRaw = 0,     // the bytes themselves
  OVDataEncodingBase64 = 1,  // Base64 text as bytes
  OVDataEncodingBase32 = 2,  // Base32 text as bytes
  OVDataEncodingHex = 3,     // two lower-case hexadecimal digits per byte
};

/// Encoding types of Data::encodeToEncodingType and decodeFromEncodingType,
/// with the platform's names. Other types are not supported (nil).
inline constexpr std::string_view kSecBase64Encoding = "base64";
inline constexpr std::string_view kSecBase32Encoding = "base32";

namespace coding {

inline constexpr std::size_t hexEncodedLength(std::size_t bytes) noexcept { return bytes * 2; }
/// Writes hexEncodedLength(bytes.size()) lower-case digits to `out`.
void hexEncode(std::span<const std::uint8_t> bytes, char* out) noexcept;
/// Writes text.size() / 2 bytes to `out`. Byte i comes from the characters
/// 2i and 2i+1: a pair whose first character is not a hexadecimal digit gives
/// 0; a second character that is not one ends the number after the first
/// digit ("aZ" gives 0x0A); an odd last character is ignored. Never fails.
void hexDecode(std::string_view text, std::uint8_t* out) noexcept;

inline constexpr std::size_t base64EncodedLength(std::size_t bytes) noexcept { return (bytes + 2) / 3 * 4; }
void base64Encode(std::span<const std::uint8_t> bytes, char* out) noexcept;
/// The decoded length of well-shaped text (length a multiple of 4, at most two
/// "=" at the end), or nullopt; base64Decode checks the characters.
std::optional<std::size_t> base64DecodedLength(std::string_view text) noexcept;
/// Writes *base64DecodedLength(text) bytes to `out`; false (with `out` holding
/// garbage) when the text is not canonical Base64.
bool base64Decode(std::string_view text, std::uint8_t* out) noexcept;

inline constexpr std::size_t base32EncodedLength(std::size_t bytes) noexcept { return (bytes + 4) / 5 * 8; }
void base32Encode(std::span<const std::uint8_t> bytes, char* out) noexcept;
/// The decoded length of well-shaped text (length a multiple of 8, 0, 1, 3, 4
/// or 6 "=" at the end), or nullopt; base32Decode checks the characters.
std::optional<std::size_t> base32DecodedLength(std::string_view text) noexcept;
bool base32Decode(std::string_view text, std::uint8_t* out) noexcept;

}  // namespace coding
}  // namespace fennick
