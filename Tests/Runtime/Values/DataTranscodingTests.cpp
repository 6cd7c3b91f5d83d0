// Hex, Base64 and Base32 transcoding of Data: exact texts, the lenient hex
// pair rule, refusal of malformed Base64/Base32, and round trips.
#include "fennick/Runtime/Values/Data.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <random>

using namespace fennick;

namespace {

Ref<Data> text(std::string_view s) { return Data::dataWithString(s); }
Ref<Data> bytes(std::initializer_list<std::uint8_t> b) { return Data::dataWithBytes(std::vector<std::uint8_t>(b)); }
std::string asText(const Ref<Data>& data) { return data ? std::string(data->stringView()) : "<nil>"; }

std::vector<std::uint8_t> randomBytes(std::size_t count, std::mt19937& random) {
  std::vector<std::uint8_t> result(count);
  for (auto& byte : result) byte = static_cast<std::uint8_t>(random());
  return result;
}

TEST(DataTranscodingTest, HexIsLowerCasePairsAndDecodesPairByPair) {
  EXPECT_EQ(asText(bytes({0x00, 0xAB})->encodeToHex()), "00ab");
  EXPECT_EQ(asText(Data::data()->encodeToHex()), "");
  // "z" ends the second pair after one digit; the odd final "1" is ignored.
  EXPECT_TRUE(text("0aFz1")->decodeFromHex()->isEqual(bytes({0x0A, 0x0F}).get()));
  // A pair that does not start with a digit is 0, whatever follows.
  EXPECT_TRUE(text("zzz1 f-1FfAb")->decodeFromHex()->isEqual(bytes({0, 0, 0, 0, 0xFF, 0xAB}).get()));
  EXPECT_EQ(text("7")->decodeFromHex()->length(), 0u);

  std::vector<std::uint8_t> all(256);
  for (int i = 0; i < 256; ++i) all[i] = static_cast<std::uint8_t>(i);
  auto hex = Data::dataWithBytes(all)->encodeToHex();
  EXPECT_EQ(hex->stringView().substr(0, 8), "00010203");
  EXPECT_EQ(hex->stringView().substr(504), "fcfdfeff");
  EXPECT_EQ(hex->decodeFromHex()->vector(), all);
}

struct Vector {
  const char* raw;
  const char* base64;
  const char* base32;
};
// RFC 4648, section 10.
constexpr Vector kRFC4648[] = {
    {"", "", ""},
    {"f", "Zg==", "MY======"},
    {"fo", "Zm8=", "MZXQ===="},
    {"foo", "Zm9v", "MZXW6==="},
    {"foob", "Zm9vYg==", "MZXW6YQ="},
    {"fooba", "Zm9vYmE=", "MZXW6YTB"},
    {"foobar", "Zm9vYmFy", "MZXW6YTBOI======"},
};

TEST(DataTranscodingTest, Base64AndBase32MatchTheRFCVectorsBothWays) {
  for (const auto& v : kRFC4648) {
    EXPECT_EQ(asText(text(v.raw)->encodeToEncodingType(kSecBase64Encoding)), v.base64);
    EXPECT_EQ(asText(text(v.raw)->encodeToEncodingType(kSecBase32Encoding)), v.base32);
    EXPECT_EQ(asText(text(v.base64)->decodeFromEncodingType(kSecBase64Encoding)), v.raw);
    EXPECT_EQ(asText(text(v.base32)->decodeFromEncodingType(kSecBase32Encoding)), v.raw);
  }
  EXPECT_EQ(asText(bytes({0xFB, 0xFF})->encodeToEncodingType(kSecBase64Encoding)), "+/8=");
  // Longer inputs take the encoders' wide paths; OpenSSL writes the same text.
  std::mt19937 random(64);
  for (std::size_t length = 0; length < 80; ++length) {
    const auto raw = randomBytes(length, random);
    std::string expected((length + 2) / 3 * 4 + 1, '\0');
    expected.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(expected.data()),
                                                             raw.data(), static_cast<int>(length))));
    EXPECT_EQ(asText(Data::dataWithBytes(raw)->encodeToEncodingType(kSecBase64Encoding)), expected);
  }
  EXPECT_EQ(text("abc")->encodeToEncodingType("zlib"), nullptr);
  EXPECT_EQ(text("YWJj")->decodeFromEncodingType("zlib"), nullptr);
}

TEST(DataTranscodingTest, MalformedBase64AndBase32GiveNil) {
  for (const char* bad : {"Zg=", "Zg=a", "Z===", "====", "Zh==", "Zm9=", "Zm9v\n", "Zm 9", "@@@@", "Zm9vY===",
                          "Zg==Zg=="}) {
    EXPECT_EQ(text(bad)->decodeFromEncodingType(kSecBase64Encoding), nullptr) << bad;
  }
  for (const char* bad : {"MY=====", "MZ======", "M=======", "========", "MZX=====", "MZXW6Y==", "my======",
                          "MY======MY======", "MZXW6YT1", "MZXW6YTBO======="}) {
    EXPECT_EQ(text(bad)->decodeFromEncodingType(kSecBase32Encoding), nullptr) << bad;
  }
}

TEST(DataTranscodingTest, EverySourceAndTargetEncodingRoundTrips) {
  std::mt19937 random(4648);
  const OVDataEncoding encodings[] = {OVDataEncodingRaw, OVDataEncodingBase64, OVDataEncodingBase32,
                                      OVDataEncodingHex};
  for (std::size_t length = 0; length < 70; ++length) {
    auto raw = Data::dataWithBytes(randomBytes(length, random));
    for (auto from : encodings) {
      Ref<Data> source = raw->transformFromEncoding_toEncoding(OVDataEncodingRaw, from);
      ASSERT_NE(source, nullptr);
      for (auto to : encodings) {
        Ref<Data> target = source->transformFromEncoding_toEncoding(from, to);
        ASSERT_NE(target, nullptr) << from << "->" << to;
        EXPECT_TRUE(target->transformFromEncoding_toEncoding(to, OVDataEncodingRaw)->isEqual(raw.get()))
            << "length " << length << ", " << from << "->" << to;
      }
    }
  }
}

TEST(DataTranscodingTest, TransformRefusesUnknownEncodingsAndUndecodableText) {
  EXPECT_EQ(asText(text("00ab")->transformFromEncoding_toEncoding(OVDataEncodingHex, OVDataEncodingBase64)),
            "AKs=");
  EXPECT_EQ(text("00ab")->transformFromEncoding_toEncoding(OVDataEncodingHex, static_cast<OVDataEncoding>(4)),
            nullptr);
  EXPECT_EQ(text("00ab")->transformFromEncoding_toEncoding(static_cast<OVDataEncoding>(7), OVDataEncodingRaw),
            nullptr);
  EXPECT_EQ(text("Zg=")->transformFromEncoding_toEncoding(OVDataEncodingBase64, OVDataEncodingHex), nullptr);
  EXPECT_EQ(text("mzxq====")->transformFromEncoding_toEncoding(OVDataEncodingBase32, OVDataEncodingRaw), nullptr);
}

}  // namespace
