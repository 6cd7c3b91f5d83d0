#pragma once
// Universally unique identifiers: random (version 4) on creation, written as
// upper-case text ("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"). The random bits
// come from the kernel (getrandom), so identifiers can name things others
// must not guess, such as private temporary folders.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace fennick {

class UUID : public Object {
  FENNICK_DECLARE_CLASS(UUID, Object)

 public:
  using Bytes = std::array<std::uint8_t, 16>;

  /// A fresh random identifier; never one a forked parent or child also makes.
  static Ref<UUID> init();
  /// Parses the 36-character text form (either case); nil when malformed.
  static Ref<UUID> UUIDWithString(std::string_view text);
  static Ref<UUID> UUIDWithBytes(const Bytes& bytes);

  const Bytes& bytes() const noexcept { return bytes_; }
  /// Upper-case text form.
  std::string UUIDString() const;

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  std::string description() const override { return UUIDString(); }
  Id copy() const override;
  void encodeWithCoder(Coder& coder) const override;
  void initWithCoder(Coder& coder) override;

 protected:
  explicit UUID(const Bytes& bytes = {}) : bytes_(bytes) {}

 private:
  Bytes bytes_;
};

}  // namespace fennick
