#include "fennick/Helpers/Unarchiver/Internal/ZIPStreamCheck.h"

#include <cstdint>

namespace fennick::detail {

namespace {

constexpr std::size_t kTarBlock = 512;
constexpr std::size_t kChecksumOffset = 148;
constexpr std::size_t kChecksumLength = 8;
constexpr std::size_t kISOFirstDescriptor = 32'768;
constexpr std::size_t kISOBlock = 2'048;
constexpr int kISODescriptorsProbed = 8;

bool hasZIPSignature(std::string_view start) {
  return start.substr(0, 4) == std::string_view("PK\x03\x04", 4) ||
         start.substr(0, 4) == std::string_view("PK\x05\x06", 4);
}

// The checksum field as tar readers parse it: leading blanks, then octal
// digits up to the first other byte.
std::int64_t storedTarChecksum(std::string_view field) {
  std::size_t i = 0;
  while (i < field.size() && (field[i] == ' ' || field[i] == '\t')) ++i;
  std::int64_t value = 0;
  for (; i < field.size() && field[i] >= '0' && field[i] <= '7'; ++i) value = value * 8 + (field[i] - '0');
  return value;
}

// Any ISO 9660 volume descriptor carries "CD001" after its type byte.
bool hasISOVolumeDescriptor(std::string_view start) {
  for (int index = 0; index < kISODescriptorsProbed; ++index) {
    const std::size_t offset = kISOFirstDescriptor + static_cast<std::size_t>(index) * kISOBlock;
    if (start.size() < offset + 6) return false;
    if (start.substr(offset + 1, 5) == "CD001") return true;
  }
  return false;
}

}  // namespace

bool isTarHeaderBlock(std::string_view block) {
  if (block.size() < kTarBlock) return false;
  const std::string_view field = block.substr(kChecksumOffset, kChecksumLength);
  for (const char c : field)
    if (c != ' ' && c != '\0' && (c < '0' || c > '7')) return false;
  std::int64_t unsignedSum = 0, signedSum = 0;
  for (std::size_t i = 0; i < kTarBlock; ++i) {
    const bool inField = i >= kChecksumOffset && i < kChecksumOffset + kChecksumLength;
    unsignedSum += inField ? ' ' : static_cast<unsigned char>(block[i]);
    signedSum += inField ? ' ' : static_cast<signed char>(block[i]);
  }
  const std::int64_t stored = storedTarChecksum(field);
  return stored == unsignedSum || stored == signedSum;
}

bool endsWithEndRecord(std::string_view tail) {
  constexpr std::size_t kRecordLength = 22;
  constexpr std::string_view kSignature("PK\x05\x06", 4);
  if (tail.size() < kRecordLength) return false;
  for (std::size_t at = tail.size() - kRecordLength;; --at) {
    if (tail.compare(at, kSignature.size(), kSignature) == 0) {
      const auto low = static_cast<unsigned char>(tail[at + 20]), high = static_cast<unsigned char>(tail[at + 21]);
      if (at + kRecordLength + (low | (high << 8)) == tail.size()) return true;
    }
    if (at == 0) return false;
  }
}

bool isZIPStream(std::string_view start) {
  if (start.size() > kZIPStreamProbeLength) start = start.substr(0, kZIPStreamProbeLength);
  return hasZIPSignature(start) && !isTarHeaderBlock(start) && !hasISOVolumeDescriptor(start);
}

}  // namespace fennick::detail
