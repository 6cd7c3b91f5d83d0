#pragma once
// Resource values of an item read from its status (lstat and kin): which keys
// the file system answers and the value of each. Internal to the platform layer.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <sys/stat.h>

#include <span>
#include <string>
#include <string_view>

namespace fennick {
class Dictionary;
class Error;
class URL;
}  // namespace fennick

namespace fennick::platform {

/// Whether `key` is one of the file-system keys of URL.h.
bool isFileSystemResourceKey(std::string_view key);
/// Whether `key` asks about the item's file system (read by readVolumeValues).
bool isVolumeResourceKey(std::string_view key);

/// The value of `key` for an item of `url` whose status is `status`; nil
/// for keys without a value (the size of a directory, unknown keys).
Id resourceValueFromStatus(std::string_view key, const struct stat& status, const URL& url);

/// The status of the item of a file URL: for a reference URL the item its
/// identity holds, otherwise the item at its path (a symbolic link itself, not
/// its target). False, with `error` set to a POSIX-domain record carrying the
/// URL and the path, when it cannot be read.
bool readItemStatus(const URL& url, struct stat& status, Ref<Error>* error);

/// The volume keys' values for the item of a file URL, from its mount (the
/// mount table gives the mount point); nothing when the kernel does not say.
void readVolumeValues(const URL& url, std::span<const std::string> keys, Dictionary& values);

}  // namespace fennick::platform
