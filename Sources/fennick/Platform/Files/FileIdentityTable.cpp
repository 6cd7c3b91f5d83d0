#include "fennick/Platform/Files/Internal/FileIdentityTable.h"

#include "fennick/Platform/Files/Internal/LinuxFileIdentity.h"
#include "fennick/Platform/Files/Internal/MountTable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>

namespace fennick::platform {

namespace {

// Opens the item with O_PATH and reads what an identity keeps of it.
Ref<LinuxFileIdentity> openIdentity(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_PATH | O_CLOEXEC);
  if (descriptor < 0) return nullptr;
  struct statx status {};
  if (::statx(descriptor, "", AT_EMPTY_PATH, STATX_TYPE | STATX_INO | STATX_MNT_ID, &status) != 0) {
    ::close(descriptor);
    return nullptr;
  }
  const std::uint64_t mountId = (status.stx_mask & STATX_MNT_ID) ? status.stx_mnt_id : 0;
  return std::make_shared<LinuxFileIdentity>(descriptor, makedev(status.stx_dev_major, status.stx_dev_minor),
                                             status.stx_ino, S_ISDIR(status.stx_mode), mountId);
}

}  // namespace

FileIdentityTable& FileIdentityTable::shared() {
  static FileIdentityTable* const table = new FileIdentityTable();
  return *table;
}

Ref<LinuxFileIdentity> FileIdentityTable::liveIdentityLocked(const Key& key) const {
  auto found = identities_.find(key);
  return found == identities_.end() ? nullptr : found->second.lock();
}

Ref<LinuxFileIdentity> FileIdentityTable::identityOfItemAtPath(const std::string& path) {
  // One walk of the path: the opened descriptor decides which item this is.
  // When the item already has a live identity, that one is shared and ours
  // dies after the lock is released (its destructor comes back here).
  Ref<LinuxFileIdentity> opened = openIdentity(path);
  if (!opened) return nullptr;
  std::call_once(followingMounts_, [this] { followMountTable(); });
  const Key key{opened->device(), opened->inode()};
  std::lock_guard lock(mutex_);
  if (auto live = liveIdentityLocked(key)) return live;
  identities_[key] = opened;
  return opened;
}

std::size_t FileIdentityTable::count() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(identities_.begin(), identities_.end(),
                                                [](const auto& entry) { return !entry.second.expired(); }));
}

void FileIdentityTable::forget(std::uint64_t device, std::uint64_t inode) {
  std::lock_guard lock(mutex_);
  auto found = identities_.find({device, inode});
  // A newer identity of the same item may have taken the entry meanwhile.
  if (found != identities_.end() && found->second.expired()) identities_.erase(found);
}

void FileIdentityTable::revokeItemsOutside(const std::vector<std::uint64_t>& mountIds) {
  std::vector<Ref<LinuxFileIdentity>> revoked;  // released after the lock
  std::lock_guard lock(mutex_);
  for (auto entry = identities_.begin(); entry != identities_.end();) {
    Ref<LinuxFileIdentity> identity = entry->second.lock();
    if (identity && identity->mountId() != 0 &&
        !std::binary_search(mountIds.begin(), mountIds.end(), identity->mountId())) {
      identity->revoke();
      revoked.push_back(std::move(identity));
      entry = identities_.erase(entry);
    } else {
      ++entry;
    }
  }
}

void FileIdentityTable::followMountTable() {
  MountTable::shared().addListener(
      [](const std::vector<std::uint64_t>& mountIds) { FileIdentityTable::shared().revokeItemsOutside(mountIds); });
}

}  // namespace fennick::platform
