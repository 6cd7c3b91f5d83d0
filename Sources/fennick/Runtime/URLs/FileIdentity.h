#pragma once
// An item of the file system known by identity instead of by path: what a file
// reference URL holds. The identity (device and inode numbers) stays when the
// item is renamed or moved within its file system, and the item's current
// path can be asked of it at any time. The Platform layer makes identities
// (see URLFileSystem); they are immutable apart from what the system reports,
// and thread-safe.
#include <cstdint>
#include <optional>
#include <string>

namespace fennick {

class FileIdentity {
 public:
  virtual ~FileIdentity() = default;
  FileIdentity(const FileIdentity&) = delete;
  FileIdentity& operator=(const FileIdentity&) = delete;

  std::uint64_t device() const noexcept { return device_; }
  std::uint64_t inode() const noexcept { return inode_; }
  /// The kind of an item never changes, so it is known once.
  bool isDirectory() const noexcept { return isDirectory_; }

  /// The item's path at this moment, asked of the system at each call; nil
  /// once the item has no name any more (its last link was removed) or its
  /// file system has gone.
  virtual std::optional<std::string> currentPath() const = 0;

 protected:
  FileIdentity(std::uint64_t device, std::uint64_t inode, bool isDirectory)
      : device_(device), inode_(inode), isDirectory_(isDirectory) {}

 private:
  const std::uint64_t device_;
  const std::uint64_t inode_;
  const bool isDirectory_;
};

}  // namespace fennick
