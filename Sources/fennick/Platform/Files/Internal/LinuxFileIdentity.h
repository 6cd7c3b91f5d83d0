#pragma once
// The Linux identity of a file-system item: device and inode numbers, and one
// descriptor opened with O_PATH (no access to the contents, no effect on the
// item) that follows the item across renames and answers its current path
// through /proc/self/fd. Identities are shared: FileIdentityTable hands out
// one per item while any holder lives, and the descriptor closes with the
// last holder, or earlier when the item's file system leaves the mount table
// (revoke), so that a lazily unmounted file system can really go.
// Thread-safe. Internal to the platform layer.
#include "fennick/Runtime/URLs/FileIdentity.h"

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace fennick::platform {

class LinuxFileIdentity final : public FileIdentity {
 public:
  /// Takes ownership of `descriptor`.
  LinuxFileIdentity(int descriptor, std::uint64_t device, std::uint64_t inode, bool isDirectory,
                    std::uint64_t mountId);
  ~LinuxFileIdentity() override;

  std::optional<std::string> currentPath() const override;

  /// The ID of the mount the item was reached through (0 when the kernel
  /// does not say).
  std::uint64_t mountId() const noexcept { return mountId_; }

  /// Calls `use` with the open descriptor, which stays open during the
  /// call; returns false without calling once the identity was revoked.
  template <class Use>
  bool withDescriptor(Use&& use) const {
    std::lock_guard lock(mutex_);
    if (descriptor_ < 0) return false;
    use(descriptor_);
    return true;
  }

  /// Closes the descriptor for good: the item's file system went away.
  void revoke();
  bool isRevoked() const;

  /// "/proc/self/fd/<n>" for a descriptor.
  static std::string procPath(int descriptor);

 private:
  const std::uint64_t mountId_;
  mutable std::mutex mutex_;
  int descriptor_;
};

}  // namespace fennick::platform
