#pragma once
// The file-system services behind file URLs.
//
// URL keeps the rules of URL text; whatever it must ask the operating system
// (what kind of item a path names, the values of resource keys, the identity
// of an item) it asks through this interface. The Linux implementation lives in the Platform
// layer, which defines systemURLFileSystem(); the runtime never includes
// Platform headers. Implementations are thread-safe.
#include "fennick/Runtime/FileIdentity.h"
#include "fennick/Runtime/Ref.h"

#include <span>
#include <string>
#include <string_view>

namespace fennick {

class Dictionary;
class Error;
class URL;

class URLFileSystem {
 public:
  virtual ~URLFileSystem() = default;

  /// Whether something exists at `path` and is a directory (symbolic links
  /// followed).
  virtual bool isDirectoryAtPath(const std::string& path) const = 0;

  /// Whether `key` is a resource key that the file system answers.
  virtual bool answersResourceKey(std::string_view key) const = 0;
  /// Reads the item of the file URL `url` once and stores into `values` the
  /// value of each of `keys` (all answered keys) that has one. False, with
  /// `error` (if given) set to a record naming the URL, when the item cannot
  /// be read.
  virtual bool readResourceValues(const URL& url, std::span<const std::string> keys,
                                  Dictionary& values, Ref<Error>* error) const = 0;

  /// The identity of the item at `path` (symbolic links followed), shared by
  /// every caller that asks for the same item while one is alive; nil when
  /// nothing is there.
  virtual Ref<const FileIdentity> identityOfItemAtPath(const std::string& path) const = 0;
};

/// The operating system's file system, as the Platform layer supplies it.
const URLFileSystem& systemURLFileSystem();

}  // namespace fennick
