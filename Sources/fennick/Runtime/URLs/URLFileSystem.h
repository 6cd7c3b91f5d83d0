#pragma once
// The file-system services behind file URLs.
//
// URL keeps the rules of URL text; whatever it must ask the operating system
// (what kind of item a path names, the values of resource keys, the identity
// of an item, bookmarks, the size of a folder's tree) it asks through this
// interface. The Linux implementation lives in the Platform
// layer, which defines systemURLFileSystem(); the runtime never includes
// Platform headers. Implementations are thread-safe.
#include "fennick/Runtime/URLs/FileIdentity.h"
#include "fennick/Runtime/ObjectModel/Ref.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace fennick {

class Data;
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

  /// Bookmark data naming the item of the file URL `url`; nil, with `error`
  /// set, when there is no such item.
  virtual Ref<Data> bookmarkDataForURL(const URL& url, Ref<Error>* error) const = 0;
  /// The file URL of the item a bookmark names, found by its path; `isStale`
  /// tells whether the item there now is another one than was bookmarked.
  /// Nil, with `error` set, for data that is not a bookmark or when nothing is
  /// at the path.
  virtual Ref<URL> URLByResolvingBookmarkData(const Ref<Data>& data, bool& isStale, Ref<Error>* error) const = 0;

  /// The bytes the tree of the folder at `path` occupies on disk: the
  /// allocated size of every entry below it that is not a folder; 0 when
  /// `path` names something else. -1, with `error` (if given) set, when the
  /// folder or part of its tree cannot be read: never a partial sum.
  virtual std::int64_t allocatedSizeOfFolderTree(const std::string& path, Ref<Error>* error) const = 0;
};

/// The operating system's file system, as the Platform layer supplies it.
const URLFileSystem& systemURLFileSystem();

}  // namespace fennick
