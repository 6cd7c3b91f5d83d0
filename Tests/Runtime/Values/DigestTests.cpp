// MD5 and SHA-1 against the published test vectors, in one shot and fed in
// pieces that straddle the 64-byte block and its length field.
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Digest.h"

#include <gtest/gtest.h>

#include <string>

using namespace fennick;

namespace {

std::string hexDigest(OVHashKind kind, std::string_view input) {
  auto digest = Data::dataWithString(input)->calculateHashOfKind(kind);
  return std::string(digest->encodeToHex()->stringView());
}

std::span<const std::uint8_t> bytesOf(std::string_view s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

TEST(DigestTest, MD5MatchesRFC1321TestSuite) {
  std::string digits;
  for (int i = 0; i < 8; ++i) digits += "1234567890";
  const std::pair<std::string, const char*> suite[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {digits, "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& [input, expected] : suite) EXPECT_EQ(hexDigest(OVHashKindMD5, input), expected) << input;
}

TEST(DigestTest, SHA1MatchesFIPS180Examples) {
  EXPECT_EQ(hexDigest(OVHashKindSHA1, "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(hexDigest(OVHashKindSHA1, "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(hexDigest(OVHashKindSHA1, std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  EXPECT_EQ(hexDigest(OVHashKindSHA1, ""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(DigestTest, PiecesGiveTheOneShotDigestAroundBlockBoundaries) {
  std::string input;
  for (int i = 0; i < 200; ++i) input.push_back(static_cast<char>(i * 37 + 11));
  for (auto kind : {OVHashKindMD5, OVHashKindSHA1}) {
    for (std::size_t length : {0, 1, 55, 56, 63, 64, 65, 119, 120, 128, 200}) {
      const auto whole = Digest::of(kind, bytesOf(std::string_view(input).substr(0, length)));
      for (std::size_t split : {std::size_t{0}, length / 3, length}) {
        Digest digest(kind);
        digest.update(bytesOf(std::string_view(input).substr(0, split)));
        digest.update(bytesOf(std::string_view(input).substr(split, length - split)));
        EXPECT_EQ(digest.finish(), whole) << "kind " << kind << " length " << length << " split " << split;
      }
    }
  }
  // finish() starts over.
  Digest digest(OVHashKindMD5);
  digest.update(bytesOf("abc"));
  digest.finish();
  EXPECT_EQ(digest.finish(), Digest::of(OVHashKindMD5, {}));
}

TEST(DigestTest, UnsupportedKindsAreRefused) {
  const auto unknown = static_cast<OVHashKind>(2);
  EXPECT_EQ(Data::dataWithString("abc")->calculateHashOfKind(unknown), nullptr);
  EXPECT_EQ(Digest::length(unknown), 0u);
  EXPECT_THROW(Digest{unknown}, std::invalid_argument);
  EXPECT_EQ(Data::dataWithString("abc")->calculateHashOfKind(OVHashKindSHA1)->length(), 20u);
}

}  // namespace
