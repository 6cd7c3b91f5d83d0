// Data's digest and transcoding operations, over the codecs of DataCoding.h
// and the digests of Digest.h.
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Digest.h"

namespace fennick {

namespace {

// A Data of `length` bytes written by `fill` (which may refuse with false).
template <class Fill>
Ref<Data> dataFilledBy(std::size_t length, Fill fill) {
  std::vector<std::uint8_t> bytes(length);
  if (!fill(bytes.data())) return nullptr;
  return Data::dataWithBytes(std::move(bytes));
}

char* asChars(std::uint8_t* bytes) { return reinterpret_cast<char*>(bytes); }

}  // namespace

Ref<Data> Data::calculateHashOfKind(OVHashKind kind) const {
  if (Digest::length(kind) == 0) return nullptr;
  return dataWithBytes(Digest::of(kind, span()));
}

Ref<Data> Data::encodeToEncodingType(std::string_view type) const {
  if (type == kSecBase64Encoding)
    return dataFilledBy(coding::base64EncodedLength(length()), [&](std::uint8_t* out) {
      coding::base64Encode(span(), asChars(out));
      return true;
    });
  if (type == kSecBase32Encoding)
    return dataFilledBy(coding::base32EncodedLength(length()), [&](std::uint8_t* out) {
      coding::base32Encode(span(), asChars(out));
      return true;
    });
  return nullptr;
}

Ref<Data> Data::decodeFromEncodingType(std::string_view type) const {
  if (type == kSecBase64Encoding) {
    auto decodedLength = coding::base64DecodedLength(stringView());
    if (!decodedLength) return nullptr;
    return dataFilledBy(*decodedLength, [&](std::uint8_t* out) { return coding::base64Decode(stringView(), out); });
  }
  if (type == kSecBase32Encoding) {
    auto decodedLength = coding::base32DecodedLength(stringView());
    if (!decodedLength) return nullptr;
    return dataFilledBy(*decodedLength, [&](std::uint8_t* out) { return coding::base32Decode(stringView(), out); });
  }
  return nullptr;
}

Ref<Data> Data::encodeToHex() const {
  return dataFilledBy(coding::hexEncodedLength(length()), [&](std::uint8_t* out) {
    coding::hexEncode(span(), asChars(out));
    return true;
  });
}

Ref<Data> Data::decodeFromHex() const {
  return dataFilledBy(length() / 2, [&](std::uint8_t* out) {
    coding::hexDecode(stringView(), out);
    return true;
  });
}

Ref<Data> Data::transformFromEncoding_toEncoding(OVDataEncoding from, OVDataEncoding to) const {
  if (from > OVDataEncodingHex || to > OVDataEncodingHex) return nullptr;
  Ref<Data> raw;
  switch (from) {
    case OVDataEncodingRaw: raw = std::static_pointer_cast<Data>(copy()); break;
    case OVDataEncodingBase64: raw = decodeFromEncodingType(kSecBase64Encoding); break;
    case OVDataEncodingBase32: raw = decodeFromEncodingType(kSecBase32Encoding); break;
    case OVDataEncodingHex: raw = decodeFromHex(); break;
  }
  if (!raw) return nullptr;
  switch (to) {
    case OVDataEncodingRaw: return raw;
    case OVDataEncodingBase64: return raw->encodeToEncodingType(kSecBase64Encoding);
    case OVDataEncodingBase32: return raw->encodeToEncodingType(kSecBase32Encoding);
    case OVDataEncodingHex: return raw->encodeToHex();
  }
  return nullptr;
}

}  // namespace fennick
