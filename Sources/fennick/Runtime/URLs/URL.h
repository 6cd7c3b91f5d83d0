#pragma once
// Uniform resource locators: file URLs made from paths, and general URLs
// parsed from text (RFC 3986), optionally relative to a base URL.
//
// A URL is immutable apart from its resource-value cache. Components are kept
// as written (percent-encoded); the accessors say which ones they decode.
// Equality and hashing go by the absolute string, so a relative URL equals the
// absolute URL it resolves to.
//
// A file reference URL (fileReferenceURL()) names an item by identity. Its
// text is "file:///.file/id=<device>.<inode>/", so equality and hashing follow
// the item across renames and such URLs key dictionaries; its path and every
// path operation use the item's current path, asked anew at each call.
#include "fennick/Runtime/URLs/FileIdentity.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace fennick {

class Array;
class Data;
class Number;
class Dictionary;
class Error;

/// Resource-value keys (the platform's names and values). Values read from
/// the file system describe the item itself, not a symbolic link's target.
inline constexpr const char* NSURLNameKey = "NSURLNameKey";                    // String
inline constexpr const char* NSURLLocalizedNameKey = "NSURLLocalizedNameKey";  // String
inline constexpr const char* NSURLPathKey = "_NSURLPathKey";                   // String
inline constexpr const char* NSURLHasHiddenExtensionKey = "NSURLHasHiddenExtensionKey";  // NO here
inline constexpr const char* NSURLIsDirectoryKey = "NSURLIsDirectoryKey";      // bool Number
inline constexpr const char* NSURLIsRegularFileKey = "NSURLIsRegularFileKey";  // bool Number
inline constexpr const char* NSURLIsSymbolicLinkKey = "NSURLIsSymbolicLinkKey";  // bool Number
/// Bytes of a regular file's contents (absent for other items).
inline constexpr const char* NSURLFileSizeKey = "NSURLFileSizeKey";
/// Bytes a regular file occupies on disk (absent for other items).
inline constexpr const char* NSURLFileAllocatedSizeKey = "NSURLFileAllocatedSizeKey";
inline constexpr const char* NSURLContentModificationDateKey = "NSURLContentModificationDateKey";  // Date
/// Whether the item is the root of a mounted file system (bool Number).
inline constexpr const char* NSURLIsVolumeKey = "NSURLIsVolumeKey";
/// The directory URL of the mount point of the item's file system.
inline constexpr const char* NSURLVolumeURLKey = "NSURLVolumeURLKey";

/// Options of bookmark creation and resolution (the platform's values). Linux
/// has no sandbox that needs security-scoped bookmarks, so they change nothing.
inline constexpr std::uint64_t NSURLBookmarkCreationWithSecurityScope = 0x800;
inline constexpr std::uint64_t NSURLBookmarkResolutionWithoutUI = 0x100;
inline constexpr std::uint64_t NSURLBookmarkResolutionWithoutMounting = 0x200;
inline constexpr std::uint64_t NSURLBookmarkResolutionWithSecurityScope = 0x400;

/// Keys of values that the files helpers keep on URL objects (never on disk).
/// Bytes the item occupies on disk (64-bit Number).
inline constexpr const char* DXURLDiskSizeKey = "com.pellora.DesktopClient.url-disk-size";
/// The URL through which the item is accessed (a security-scoped URL).
inline constexpr const char* DXURLSecureAccessURLKey = "com.pellora.DesktopClient.url-secure-access-url";
/// Whether a bookmark exists for the item (bool Number).
inline constexpr const char* DXURLIsBookmarkedKey = "com.pellora.DesktopClient.url-is-bookmarked";

/// Which characters percent encoding leaves alone, per URL component.
enum class URLCharacterSet { User, Password, Host, Path, Query, Fragment };

class URL : public Object {
  FENNICK_DECLARE_CLASS(URL, Object)

 public:
  // -- Making URLs ----------------------------------------------------------------
  /// A file URL for a path. A relative path is taken relative to the current
  /// directory (which becomes the base URL). The file system is asked whether
  /// the item is a directory; directory URLs end with "/". Repeated slashes are
  /// collapsed; "." and ".." are kept (see URLByStandardizingPath). An empty
  /// path, or one holding a NUL byte, gives nil.
  static Ref<URL> fileURLWithPath(std::string_view path);
  /// The same without asking the file system: `isDirectory` adds the
  /// trailing slash (a path that already ends with "/" keeps it).
  static Ref<URL> fileURLWithPath_isDirectory(std::string_view path, bool isDirectory);
  /// A file URL for a path relative to `base` (ignored for absolute paths; nil
  /// means the current directory).
  static Ref<URL> fileURLWithPath_relativeToURL(std::string_view path, const Ref<URL>& base);
  static Ref<URL> fileURLWithPath_isDirectory_relativeToURL(std::string_view path, bool isDirectory,
                                                            const Ref<URL>& base);
  /// The components joined with "/" (a leading "/" component makes the path
  /// absolute), as fileURLWithPath. Nil for a nil or empty array.
  static Ref<URL> fileURLWithPathComponents(const Ref<Array>& components);
  /// A URL parsed from text that is already percent-encoded. Nil when the text
  /// is empty or malformed: characters that must be encoded (spaces, quotes,
  /// angle brackets, non-ASCII ...), a "%" not followed by two hexadecimal
  /// digits, a bad port or host.
  static Ref<URL> URLWithString(std::string_view text);
  /// The same, relative to `base`: the absolute URL is resolved by the rules
  /// of RFC 3986. Text with a scheme of its own ignores the base. An empty
  /// text is allowed here (it stands for the base itself).
  static Ref<URL> URLWithString_relativeToURL(std::string_view text, const Ref<URL>& base);

  // -- The whole URL ----------------------------------------------------------------
  /// The resolved URL as text.
  const std::string& absoluteString() const noexcept { return absoluteString_; }
  /// The text the URL was made from (relative to baseURL when there is one).
  const std::string& relativeString() const noexcept { return relativeString_; }
  /// Nil for absolute URLs.
  const Ref<URL>& baseURL() const noexcept { return base_; }
  /// This URL when it has no base; otherwise the resolved URL without a base.
  Ref<URL> absoluteURL() const;

  // -- Components of the resolved URL ---------------------------------------------------
  std::optional<std::string> scheme() const { return parts_.scheme; }
  /// Percent-decoded.
  std::optional<std::string> user() const;
  /// Percent-decoded.
  std::optional<std::string> password() const;
  /// Percent-decoded, without the brackets of an IPv6 literal. Nil when the
  /// URL has no authority; "" for file URLs ("file:///").
  std::optional<std::string> host() const;
  std::optional<int> port() const;
  /// Percent-decoded, without a trailing slash (except for "/" itself); "" when
  /// the URL has no path.
  std::string path() const;
  /// The path of relativeString, decoded the same way.
  std::string relativePath() const;
  /// As written (percent-encoded), without the "?"; nil when absent.
  std::optional<std::string> query() const { return parts_.query; }
  /// As written (percent-encoded), without the "#"; nil when absent.
  std::optional<std::string> fragment() const { return parts_.fragment; }

  // -- Paths ---------------------------------------------------------------------
  /// The decoded path components: "/" first for absolute paths, then each
  /// component ("/a/b/" gives "/", "a", "b"). Nil when the path is empty.
  Ref<Array> pathComponents() const;
  /// The last path component ("/" for the root path, "" for an empty path).
  std::string lastPathComponent() const;
  /// The last component's extension without the dot; "" when there is none
  /// (a leading dot, as in ".profile", does not start an extension).
  std::string pathExtension() const;
  bool isFileURL() const;
  /// Whether the path ends with "/".
  bool hasDirectoryPath() const;
  /// This URL when it is a file URL, else nil. For a file reference URL, a
  /// file URL of the item's current path; nil once the item is gone.
  Ref<URL> filePathURL() const;
  /// The path as the file system takes it (decoded bytes); nil for URLs that
  /// are not file URLs or have no path, for a reference URL whose item is
  /// gone, and for a path holding a NUL byte (decoded from "%00"), which the
  /// system would read only up to that byte and so reach another item.
  /// Every operation that hands a URL's path to the system goes through this.
  std::optional<std::string> fileSystemRepresentation() const;

  // -- File identity -------------------------------------------------------------
  /// A file reference URL for the item this file URL names (symbolic links
  /// followed), or nil when the URL is not a file URL or nothing is there. A
  /// reference URL answers itself. Reference URLs of one item are equal, and
  /// share one hold on the item (on Linux one O_PATH descriptor, which keeps
  /// its file system from a plain unmount while any of them lives).
  Ref<URL> fileReferenceURL() const;
  bool isFileReferenceURL() const noexcept { return identity_ != nullptr; }
  /// The identity a file reference URL holds; nil for other URLs.
  const Ref<const FileIdentity>& fileIdentity() const noexcept { return identity_; }

  /// The component (percent-encoded as needed; "/" inside it separates
  /// components) appended to the path. On file URLs the file system decides
  /// the trailing slash, as in fileURLWithPath; other URLs keep the
  /// component's own. Query and fragment are kept. Derived URLs have no base.
  Ref<URL> URLByAppendingPathComponent(std::string_view component) const;
  /// The same with the trailing slash given by `isDirectory`.
  Ref<URL> URLByAppendingPathComponent_isDirectory(std::string_view component, bool isDirectory) const;
  /// Without the last component, as a directory ("/a/b" gives "/a/"; the root
  /// stays the root; a relative "a" gives "./"). A URL without a path is
  /// answered unchanged.
  Ref<URL> URLByDeletingLastPathComponent() const;
  /// "name" becomes "name.ext" (a trailing slash is kept). Nil when the URL
  /// has no last component or the extension holds a "/".
  Ref<URL> URLByAppendingPathExtension(std::string_view extension) const;
  /// Without the last component's extension (unchanged when there is none).
  Ref<URL> URLByDeletingPathExtension() const;
  /// "." components removed and ".." components applied to the path.
  Ref<URL> URLByStandardizingPath() const;

  // -- Bookmarks, security scope, reachability ------------------------------------------
  /// Bookmark data for the item of this file URL: on Linux a binary property
  /// list with the item's path and identity. Options, keys and the relative
  /// URL are accepted for compatibility and change nothing. Nil, with `error`
  /// set, for URLs that are not file URLs (NSCocoaErrorDomain 262) or when
  /// nothing is there (NSCocoaErrorDomain 4).
  Ref<Data> bookmarkDataWithOptions_includingResourceValuesForKeys_relativeToURL_error(
      std::uint64_t options, const Ref<Array>& keys, const Ref<URL>& relativeURL, Ref<Error>* error) const;
  /// The file URL of the item a bookmark names, found by its path.
  /// `isStale` (if given) tells whether the item there now is another one
  /// than was bookmarked. Nil, with `error` set, for data that is not bookmark
  /// data (NSCocoaErrorDomain 259) or when nothing is at the path
  /// (NSCocoaErrorDomain 4); bad data never does more than that.
  static Ref<URL> URLByResolvingBookmarkData_options_relativeToURL_bookmarkDataIsStale_error(
      const Ref<Data>& data, std::uint64_t options, const Ref<URL>& relativeURL, bool* isStale,
      Ref<Error>* error);
  /// Starts access to a security-scoped resource. Linux has no sandbox that
  /// needs it: YES for file URLs, NO for others. Counting is the business of
  /// OVURLsAccessController.
  bool startAccessingSecurityScopedResource() const;
  /// Ends it (nothing to do on Linux).
  void stopAccessingSecurityScopedResource() const;
  /// Whether the item of this file URL exists. NO, with `error` set as for
  /// resource values, when it does not or the URL is not a file URL.
  bool checkResourceIsReachableAndReturnError(Ref<Error>* error) const;

  // -- Resource values -----------------------------------------------------------------
  /// The value for a resource key: a value set on this object (see
  /// setResourceValue_forKey) if there is one, else, for file URLs and the
  /// keys listed above, a value read from the file system now. Nil for keys
  /// without a value (unknown keys, the size of a directory). When the item
  /// cannot be read, answers nil and sets `error` (if given) to an error of
  /// the POSIX domain with the URL and path in its user info; non-file URLs
  /// fail in NSCocoaErrorDomain (code 262, unsupported scheme).
  Id resourceValueForKey(std::string_view key, Ref<Error>* error = nullptr) const;
  /// The values for several keys (String members) in one read; keys without
  /// a value are left out. Nil with `error` set as above on failure.
  Ref<Dictionary> resourceValuesForKeys(const Ref<Array>& keys, Ref<Error>* error = nullptr) const;
  /// Keeps a value in this object's cache, where it overrides the file
  /// system; nothing is written to disk. Nil removes it. Thread-safe.
  void setResourceValue_forKey(const Id& value, std::string_view key);
  /// The platform's name for a value kept only in the cache; the same as
  /// setResourceValue_forKey.
  void setTemporaryResourceValue_forKey(const Id& value, std::string_view key) {
    setResourceValue_forKey(value, key);
  }
  void removeCachedResourceValueForKey(std::string_view key);
  void removeAllCachedResourceValues();

  // -- File helpers -----------------------------------------------------------------
  /// `base`'s URLByAppendingPathComponent_isDirectory with the path; nil for
  /// a nil base.
  static Ref<URL> ovFileURLWithPath_isDirectory_relativeToURL(std::string_view path, bool isDirectory,
                                                              const Ref<URL>& base);
  /// `base`'s URLByAppendingPathComponent with the path; nil for a nil base.
  static Ref<URL> ovFileURLWithPath_relativeToURL(std::string_view path, const Ref<URL>& base);
  /// The components (their descriptions) joined with "/", then as above.
  static Ref<URL> ovFileURLWithPathComponents_isDirectory_relativeToURL(const Ref<Array>& components,
                                                                        bool isDirectory, const Ref<URL>& base);
  static Ref<URL> ovFileURLWithPathComponents_relativeToURL(const Ref<Array>& components, const Ref<URL>& base);
  /// A file URL of the path of filePathURL(), the trailing slash decided
  /// anew by what is on disk; nil when there is no path.
  Ref<URL> fileURLWithFixedTrailingSlash() const;
  /// Whether the item is in a trash: its path contains "/.Trash" (per-volume
  /// trash folders included), or lies inside the user's XDG trash
  /// ($XDG_DATA_HOME/Trash, by default ~/.local/share/Trash).
  bool inTrash() const;
  /// Whether the item's volume (NSURLVolumeURLKey: the mount point of its file
  /// system, from /proc/self/mountinfo) is "/"; NO when it cannot be read.
  bool onRootVolume() const;
  /// fetchDirectorySizeFromMetadata when it answers, else
  /// fetchDirectorySizeFromNodes. May take long: not on an interface thread.
  std::int64_t fetchDirectorySize(Ref<Error>* error = nullptr) const;
  /// Linux has no metadata index that knows sizes: always nil.
  Ref<Number> fetchDirectorySizeFromMetadata() const;
  /// The bytes the folder's tree occupies, by walking it as `du` does (see
  /// fennick/Platform/DirectorySizeWalker.h for what counts); 0 for URLs
  /// that are not file URLs or name something that is not a folder. When
  /// the folder, or anything in its tree, cannot be read, -1 with `error`
  /// (if given) set (NSCocoaErrorDomain: 257 permission refused, 4 nothing
  /// there, 256 otherwise): a tree is never measured short.
  std::int64_t fetchDirectorySizeFromNodes(Ref<Error>* error = nullptr) const;
  /// The resource value DXURLIsBookmarkedKey as a bool (NO when absent).
  bool isBookmarked() const;
  /// NSURLIsDirectoryKey as a bool (NO when it cannot be read).
  bool isDirectory() const;
  /// The localized name of the URL without its extension, with the
  /// extension added back when the file system hides it (never on Linux);
  /// the last path component when there is no such name, "<unknown>" when
  /// there is none either.
  std::string localizedNameWithExtension() const;
  /// The URL with `queryItems` (URLQueryItem objects, taken as already
  /// percent-encoded) put before the query items it has; the same object
  /// for an empty array. The existing items are read decoded, as URL
  /// components read them; characters that a query cannot hold are then
  /// percent-encoded.
  Ref<URL> ovURLByAddingPercentEncdodedQueryItems(const Ref<Array>& queryItems) const;

  // -- Locations ------------------------------------------------------------------
  // Where the platform's locations are on Linux:
  //   ovUserHomeURL               sandboxed: realHome; else $HOME (realHome when unset)
  //   ovUserPreferencesURL        $XDG_CONFIG_HOME, or ~/.config
  //   ovSystemPreferencesURL      /etc/xdg
  //   ovSandboxContainerURL       ~/.var/app (Flatpak's per-application folders)
  //   ovSandboxGroupContainerURL  ~/.var/app
  //   ovUserCachesURL             $XDG_CACHE_HOME, or ~/.cache
  //   ovDarwinUserCachesURL       $XDG_RUNTIME_DIR, or nil
  // "~" is ovUserHomeURL; XDG variables that hold a relative path are ignored,
  // as the XDG base directory rules say.
  /// The home folder of the user database (getpwuid), read once; a user
  /// without an entry stops the process.
  static Ref<URL> realHome();
  static Ref<URL> ovUserHomeURL();
  static Ref<URL> ovUserPreferencesURL();
  static Ref<URL> ovSystemPreferencesURL();
  /// The system's, then the user's preferences URL.
  static Ref<Array> ovAllPreferencesURLs();
  static Ref<URL> ovSandboxContainerURL();
  static Ref<URL> ovSandboxGroupContainerURL();
  static Ref<URL> ovDarwinUserCachesURL();
  static Ref<URL> ovUserCachesURL();
  /// ovDarwinUserCachesURL, then ovUserCachesURL, leaving out nil ones.
  static Ref<Array> ovAllUserCachesURLs();
  /// Decided once: the environment holds "APP_SANDBOX_CONTAINER_ID" (any
  /// value), or the process runs in a Flatpak sandbox (/.flatpak-info).
  static bool _isSandboxed();

  // -- Percent encoding -----------------------------------------------------------------
  /// Encodes every byte that the component does not allow as "%XX".
  static std::string stringByAddingPercentEncoding(std::string_view text, URLCharacterSet allowed);
  /// Decodes "%XX" sequences; nil when one is malformed.
  static std::optional<std::string> stringByRemovingPercentEncoding(std::string_view text);

  // -- Object --------------------------------------------------------------------------
  /// By absolute string.
  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  /// The absolute string; for a relative URL "<relative> -- <base>".
  std::string description() const override;
  /// URLs are immutable: the receiver itself.
  Id copy() const override;
  /// "NS.base" (URL or nil) and "NS.relative" (String).
  void encodeWithCoder(Coder& coder) const override;
  void initWithCoder(Coder& coder) override;

  /// Components as written (percent-encoded). Internal representation; use
  /// the accessors above.
  struct Parts {
    std::optional<std::string> scheme;
    bool hasAuthority = false;
    std::optional<std::string> user;
    std::optional<std::string> password;
    std::string host;  // IPv6 literals keep their brackets
    std::optional<std::string> port;
    std::string path;
    std::optional<std::string> query;
    std::optional<std::string> fragment;
  };

 protected:
  URL() = default;

 private:
  static Ref<URL> makeURL(std::string_view text, const Ref<URL>& base);
  /// A file URL for a path, absolute or relative to `base` (nil: the current
  /// directory); `isDirectory` nil asks the file system.
  static Ref<URL> makeFileURL(std::string_view path, std::optional<bool> isDirectory, Ref<URL> base);
  /// Fills the URL from text; false when the text is malformed.
  bool assign(std::string_view text, Ref<URL> base);
  Ref<URL> withPath(std::string encodedPath) const;
  Ref<URL> withAppendedComponent(std::string_view component, std::optional<bool> isDirectory) const;
  Id cachedResourceValueForKey(std::string_view key) const;
  /// NSCocoaErrorDomain 262 naming this URL: the file system cannot answer it.
  Ref<Error> unsupportedSchemeError() const;
  /// Reads file-system keys of this URL's item in one go.
  bool readFileSystemValues(std::span<const std::string> keys, Dictionary& values, Ref<Error>* error) const;
  /// For a reference URL, the file URL of its current path (nil once the
  /// item is gone); for other URLs, this URL.
  Ref<URL> pathURL() const;

  // Set once, by the factories or by initWithCoder before the URL is shared.
  std::string relativeString_;
  Ref<URL> base_;
  Ref<const FileIdentity> identity_;  // set for file reference URLs only
  std::string absoluteString_;
  Parts relativeParts_;
  Parts parts_;  // of the resolved URL

  mutable std::mutex cacheMutex_;
  mutable detail::StringMap<Id> cache_;
};

}  // namespace fennick
