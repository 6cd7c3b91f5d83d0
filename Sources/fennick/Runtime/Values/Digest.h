#pragma once
// Message digests (MD5, SHA-1) through OpenSSL's libcrypto, one shot or fed
// in pieces, for data too large to hold at once:
//
//   Digest digest(OVHashKindSHA1);
//   while (read(...)) digest.update(chunk);
//   std::vector<std::uint8_t> sum = digest.finish();
//
// A Digest is used from one thread at a time; separate digests are independent.
#include "fennick/Runtime/Coding/DataCoding.h"

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace fennick {

class Digest {
 public:
  /// A digest of the kind; kinds other than MD5 and SHA-1 throw
  /// std::invalid_argument.
  explicit Digest(OVHashKind kind);
  ~Digest();
  Digest(Digest&&) noexcept;
  Digest& operator=(Digest&&) noexcept;

  /// Bytes of the digest of the kind (16 or 20), 0 for other kinds.
  static std::size_t length(OVHashKind kind) noexcept;
  /// The digest of the bytes, in one call.
  static std::vector<std::uint8_t> of(OVHashKind kind, std::span<const std::uint8_t> bytes);

  void update(std::span<const std::uint8_t> bytes);
  /// The digest of everything fed so far; the digest starts over afterwards.
  std::vector<std::uint8_t> finish();

 private:
  struct Context;
  OVHashKind kind_;
  std::unique_ptr<Context> context_;
};

}  // namespace fennick
