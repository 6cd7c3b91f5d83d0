#pragma once
// Bundles: where a program's information property list and translations live.
//
// A bundle location is either a directory holding "Contents/Info.plist" or
// "Info.plist" (binary or XML property list), or a single ELF executable that
// carries its property list in a section named "__info_plist":
//
//   objcopy --add-section __info_plist=Info.plist --set-section-flags __info_plist=readonly app
//
// Executables are read as files; they are never loaded or run.
//
// Localized strings go through gettext. The text domain is the bundle
// identifier, so a host application translates the framework's messages with
// ordinary message catalogues: it installs "<identifier>.mo" files, calls
// setlocale(LC_ALL, "") and, for catalogues outside the system's locale
// directory, bindtextdomain(identifier, directory) at start-up.
//
// Bundles are immutable after creation and thread-safe.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <string>
#include <string_view>

namespace fennick {

class Dictionary;
class URL;

class Bundle : public Object {
  FENNICK_DECLARE_CLASS(Bundle, Object)

 public:
  /// The bundle at a file URL: a bundle directory (one holding a property
  /// list as above) or an ELF executable with a "__info_plist" section. Nil
  /// for anything else, including a missing path and a path holding a NUL
  /// byte.
  static Ref<Bundle> bundleWithURL(const Ref<URL>& url);
  static Ref<Bundle> bundleWithPath(std::string_view path);

  /// The running program's bundle, made on first use (thread-safe), never nil.
  /// Its property list is the first found of: "Info.plist" (or
  /// "Contents/Info.plist") in the executable's directory, "Contents/Info.plist"
  /// (or "Info.plist") in the directory above it, the executable's own
  /// "__info_plist" section. A program without any has an empty information
  /// dictionary, and its bundle URL is the executable's directory.
  static Ref<Bundle> mainBundle();

  /// Names the main bundle for programs without a property list (or to
  /// override the one they have). Meant to be called once, at start-up: the
  /// first call wins and answers true; later calls change nothing and answer
  /// false. Thread-safe.
  static bool setMainBundleIdentifier(std::string_view identifier);

  /// The bundle directory (or, for a single executable, the executable).
  const Ref<URL>& bundleURL() const noexcept { return bundleURL_; }
  /// The executable, when known (always for the main bundle).
  const Ref<URL>& executableURL() const noexcept { return executableURL_; }
  /// The top-level entries of the property list; empty, never nil, when
  /// there is none.
  const Ref<Dictionary>& infoDictionary() const noexcept { return infoDictionary_; }
  Id objectForInfoDictionaryKey(std::string_view key) const;

  /// "CFBundleIdentifier" of the property list. For the main bundle, the
  /// identifier set with setMainBundleIdentifier comes first, and the
  /// executable's file name stands in when neither exists. Empty for other
  /// bundles without one.
  std::string bundleIdentifier() const;

  /// The translation of `key` in the text domain of the bundle identifier
  /// (for a `table` other than "" or "Localizable", the domain
  /// "<identifier>.<table>"). Untranslated keys answer `value`, or the key
  /// itself when `value` is empty; so does a bundle without an identifier,
  /// and a key, table or identifier holding a NUL byte.
  std::string localizedStringForKey_value_table(std::string_view key, std::string_view value = {},
                                                std::string_view table = {}) const;

  std::string description() const override;

 protected:
  Bundle(Ref<URL> bundleURL, Ref<URL> executableURL, Ref<Dictionary> infoDictionary, bool isMain);

 private:
  Ref<URL> bundleURL_;
  Ref<URL> executableURL_;
  Ref<Dictionary> infoDictionary_;
  bool isMain_;
};

/// The top-level dictionary of the property list of the bundle at `url` (a
/// bundle directory or an ELF executable, as above), or nil when there is no
/// bundle there, the list cannot be read or its top level is not a dictionary.
Ref<Dictionary> OVInfoDictionaryForBundleAtURL(const Ref<URL>& url);

}  // namespace fennick
