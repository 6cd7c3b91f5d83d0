#include "fennick/Runtime/UUID.h"

#include "fennick/Runtime/ClassBuilder.h"
#include "fennick/Runtime/Coder.h"

#include <cstring>
#include <random>

namespace fennick {

namespace {

std::uint64_t randomWord() {
  thread_local std::mt19937_64 engine([] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }());
  return engine();
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

FENNICK_DEFINE_CLASS(UUID) {
  builder.archiveNames({"NSUUID"});
  builder.coding();
  builder.property("UUIDString", &UUID::UUIDString);
}

Ref<UUID> UUID::init() {
  Bytes bytes;
  const std::uint64_t high = randomWord(), low = randomWord();
  std::memcpy(bytes.data(), &high, 8);
  std::memcpy(bytes.data() + 8, &low, 8);
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  return make<UUID>(bytes);
}

Ref<UUID> UUID::UUIDWithString(std::string_view text) {
  if (text.size() != 36) return nullptr;
  Bytes bytes{};
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i++] != '-') return nullptr;
      continue;
    }
    const int high = hexValue(text[i]), low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return nullptr;
    bytes[byte++] = static_cast<std::uint8_t>(high * 16 + low);
    i += 2;
  }
  return make<UUID>(bytes);
}

Ref<UUID> UUID::UUIDWithBytes(const Bytes& bytes) { return make<UUID>(bytes); }

std::string UUID::UUIDString() const {
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02X}", bytes_[i]);
  }
  return text;
}

bool UUID::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* uuid = UUID::dynamicCastObject(other);
  return uuid && uuid->bytes_ == bytes_;
}

std::size_t UUID::hash() const {
  std::uint64_t high, low;
  std::memcpy(&high, bytes_.data(), 8);
  std::memcpy(&low, bytes_.data() + 8, 8);
  return std::hash<std::uint64_t>()(high ^ (low * 0x9E3779B97F4A7C15ull));
}

Id UUID::copy() const { return std::const_pointer_cast<Object>(self()); }

void UUID::encodeWithCoder(Coder& coder) const { coder.encodeBytes_forKey(bytes_, "NS.uuidbytes"); }

void UUID::initWithCoder(Coder& coder) {
  const std::vector<std::uint8_t> bytes = coder.decodeBytesForKey("NS.uuidbytes");
  if (bytes.size() == bytes_.size()) std::memcpy(bytes_.data(), bytes.data(), bytes_.size());
}

}  // namespace fennick
