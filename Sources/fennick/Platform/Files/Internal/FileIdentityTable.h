#pragma once
// The process's table of live file identities, keyed by (device, inode): one
// LinuxFileIdentity, hence one O_PATH descriptor, per item however many
// reference URLs or watches hold it. Entries are weak; an identity leaves the
// table when its last holder drops it. From the first identity on, the table
// follows the mount table and revokes the identities whose mount has left it.
// Thread-safe. Internal to the platform layer.
#include "fennick/Runtime/ObjectModel/Ref.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace fennick::platform {

class LinuxFileIdentity;

class FileIdentityTable {
 public:
  /// The one table of the process (never destroyed).
  static FileIdentityTable& shared();

  /// The identity of the item at `path` (symbolic links followed); nil when
  /// nothing is there or it cannot be opened.
  Ref<LinuxFileIdentity> identityOfItemAtPath(const std::string& path);

  /// Number of live identities (for tests and diagnostics).
  std::size_t count() const;

  /// Revokes every identity whose mount is not among `mountIds` (sorted).
  void revokeItemsOutside(const std::vector<std::uint64_t>& mountIds);

 private:
  friend class LinuxFileIdentity;
  struct Key {
    std::uint64_t device;
    std::uint64_t inode;
    bool operator==(const Key&) const = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& key) const noexcept {
      return std::hash<std::uint64_t>()(key.inode * 1000003u ^ key.device);
    }
  };

  FileIdentityTable() = default;
  /// Called by a dying identity.
  void forget(std::uint64_t device, std::uint64_t inode);
  Ref<LinuxFileIdentity> liveIdentityLocked(const Key& key) const;
  void followMountTable();

  mutable std::mutex mutex_;
  std::unordered_map<Key, std::weak_ptr<LinuxFileIdentity>, KeyHash> identities_;
  std::once_flag followingMounts_;
};

}  // namespace fennick::platform
