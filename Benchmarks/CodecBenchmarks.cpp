// Digests and text codecs of Data against the C libraries people reach for:
// OpenSSL's one-shot digests and Base64 block coder, libsodium's hexadecimal
// coder. Each side turns the same bytes into a new buffer of its own per
// iteration, so both pay for the output allocation.
#include "Comparison.h"

#include "fennick/Runtime/Values/Data.h"

#include <openssl/evp.h>
#include <sodium.h>

#include <cstring>
#include <random>
#include <vector>

namespace fennick::bench {
namespace {

Ref<Data> randomData(std::size_t length) {
  std::vector<std::uint8_t> bytes(length);
  std::mt19937_64 random(length);
  for (std::size_t i = 0; i + 8 <= length; i += 8) {
    const std::uint64_t word = random();
    std::memcpy(&bytes[i], &word, 8);
  }
  return Data::dataWithBytes(std::move(bytes));
}

const Ref<Data>& digestInput() {
  static const Ref<Data> data = randomData(std::size_t{256} << 20);
  return data;
}
const Ref<Data>& codecInput() {
  static const Ref<Data> data = randomData(std::size_t{64} << 20);
  return data;
}
const Ref<Data>& hexText() {
  static const Ref<Data> text = codecInput()->encodeToHex();
  return text;
}
const Ref<Data>& base64Text() {
  static const Ref<Data> text = codecInput()->encodeToEncodingType(kSecBase64Encoding);
  return text;
}

// -- Digests ------------------------------------------------------------------

template <OVHashKind kind>
void fennickDigest(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(digestInput()->calculateHashOfKind(kind));
}

template <OVHashKind kind>
void opensslDigest(benchmark::State& state) {
  const EVP_MD* md = kind == OVHashKindMD5 ? EVP_md5() : EVP_sha1();
  const Ref<Data>& input = digestInput();
  for (auto _ : state) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(input->bytes(), input->length(), digest, &length, md, nullptr);
    benchmark::DoNotOptimize(digest);
  }
}

FENNICK_COMPARISON(md5_vs_openssl, fennickDigest<OVHashKindMD5>, opensslDigest<OVHashKindMD5>, .goal = 0.95,
                   .iterations = 2);
FENNICK_COMPARISON(sha1_vs_openssl, fennickDigest<OVHashKindSHA1>, opensslDigest<OVHashKindSHA1>, .goal = 0.95,
                   .iterations = 2);

// -- Hexadecimal --------------------------------------------------------------

void fennickHexEncode(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(codecInput()->encodeToHex());
}
void sodiumHexEncode(benchmark::State& state) {
  const Ref<Data>& input = codecInput();
  for (auto _ : state) {
    std::vector<char> hex(input->length() * 2 + 1);
    sodium_bin2hex(hex.data(), hex.size(), input->bytes(), input->length());
    benchmark::DoNotOptimize(hex.data());
  }
}
void fennickHexDecode(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(hexText()->decodeFromHex());
}
void sodiumHexDecode(benchmark::State& state) {
  const Ref<Data>& text = hexText();
  for (auto _ : state) {
    std::vector<unsigned char> bytes(text->length() / 2);
    size_t written = 0;
    sodium_hex2bin(bytes.data(), bytes.size(), reinterpret_cast<const char*>(text->bytes()), text->length(),
                   nullptr, &written, nullptr);
    if (written != bytes.size()) state.SkipWithError("sodium_hex2bin stopped early");
    benchmark::DoNotOptimize(bytes.data());
  }
}

FENNICK_COMPARISON(hex_encode_vs_libsodium, fennickHexEncode, sodiumHexEncode, .goal = 1.5, .iterations = 3);
FENNICK_COMPARISON(hex_decode_vs_libsodium, fennickHexDecode, sodiumHexDecode, .goal = 1.5, .iterations = 3);

// -- Base64 and Base32 --------------------------------------------------------

void fennickBase64Encode(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(codecInput()->encodeToEncodingType(kSecBase64Encoding));
}
void opensslBase64Encode(benchmark::State& state) {
  const Ref<Data>& input = codecInput();
  for (auto _ : state) {
    // EVP_EncodeBlock writes a terminating zero after the text.
    std::vector<unsigned char> text((input->length() + 2) / 3 * 4 + 1);
    EVP_EncodeBlock(text.data(), input->bytes(), static_cast<int>(input->length()));
    benchmark::DoNotOptimize(text.data());
  }
}
void fennickBase64Decode(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(base64Text()->decodeFromEncodingType(kSecBase64Encoding));
}
void opensslBase64Decode(benchmark::State& state) {
  const Ref<Data>& text = base64Text();
  for (auto _ : state) {
    std::vector<unsigned char> bytes(text->length() / 4 * 3);
    if (EVP_DecodeBlock(bytes.data(), text->bytes(), static_cast<int>(text->length())) < 0)
      state.SkipWithError("EVP_DecodeBlock refused the text");
    benchmark::DoNotOptimize(bytes.data());
  }
}
void fennickBase32Encode(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(codecInput()->encodeToEncodingType(kSecBase32Encoding));
}

FENNICK_COMPARISON(base64_encode_vs_openssl, fennickBase64Encode, opensslBase64Encode, .goal = 1, .iterations = 3);
FENNICK_COMPARISON(base64_decode_vs_openssl, fennickBase64Decode, opensslBase64Decode, .goal = 1, .iterations = 3);
// Base32 writes 60 % more text than Base64 for the same bytes.
FENNICK_COMPARISON(base32_encode_vs_base64, fennickBase32Encode, fennickBase64Encode, .goal = 0.5, .iterations = 3);

}  // namespace
}  // namespace fennick::bench
