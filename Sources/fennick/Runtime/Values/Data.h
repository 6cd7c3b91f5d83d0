#pragma once
// Immutable bytes.
#include "fennick/Runtime/Coding/DataCoding.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace fennick {

class Data : public Object {
  FENNICK_DECLARE_CLASS(Data, Object)

 public:
  static Ref<Data> data();
  static Ref<Data> dataWithBytes(const void* bytes, std::size_t length);
  static Ref<Data> dataWithBytes(std::vector<std::uint8_t> bytes);
  static Ref<Data> dataWithString(std::string_view text);

  const std::uint8_t* bytes() const noexcept { return bytes_.data(); }
  std::size_t length() const noexcept { return bytes_.size(); }
  std::span<const std::uint8_t> span() const noexcept { return bytes_; }
  const std::vector<std::uint8_t>& vector() const noexcept { return bytes_; }
  std::string_view stringView() const noexcept {
    return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
  }

  // Digests and transcodings (DataTranscoding.cpp; the codecs are in DataCoding.h).
  /// The MD5 or SHA-1 digest of the bytes; nil for other kinds.
  Ref<Data> calculateHashOfKind(OVHashKind kind) const;
  /// Base64 or Base32 text (kSecBase64Encoding, kSecBase32Encoding), no line
  /// breaks; nil for other types.
  Ref<Data> encodeToEncodingType(std::string_view type) const;
  /// The bytes of canonical Base64 or Base32 text; nil for malformed text or
  /// other types.
  Ref<Data> decodeFromEncodingType(std::string_view type) const;
  /// Two lower-case hexadecimal digits per byte.
  Ref<Data> encodeToHex() const;
  /// Half the length, by the lenient pair rule of coding::hexDecode.
  Ref<Data> decodeFromHex() const;
  /// Decoded from `from` to raw bytes, then encoded to `to`; nil when either
  /// encoding is unknown (above 3) or the receiver does not decode.
  Ref<Data> transformFromEncoding_toEncoding(OVDataEncoding from, OVDataEncoding to) const;

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  /// "{length = n, bytes = 0x0102...}", as the platform prints data.
  std::string description() const override;
  Id copy() const override;

 protected:
  Data() : bytes_() {}
  explicit Data(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {}

 private:
  const std::vector<std::uint8_t> bytes_;
};

}  // namespace fennick
