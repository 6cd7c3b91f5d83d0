#pragma once
// A bundle's name, identifier and two version strings, read out of its
// information property list, by bundle location or from a dictionary that was
// already read. Each answers nil when the bundle or list is missing or
// unreadable, the key is absent, or the value is not a string.
//
// Bundle locations are those of fennick/Runtime/Bundle.h (a directory with
// "Contents/Info.plist" or "Info.plist", or an ELF executable with an
// "__info_plist" section); OVInfoDictionaryForBundleAtURL is declared there.
// The files are read on every call; nothing is cached. Thread-safe.
#include "fennick/Runtime/Processes/Bundle.h"
#include "fennick/Runtime/Values/String.h"

namespace fennick {

class Dictionary;
class URL;

inline constexpr const char* kCFBundleShortVersionStringKey = "CFBundleShortVersionString";
inline constexpr const char* kCFBundleVersionKey = "CFBundleVersion";
inline constexpr const char* kCFBundleNameKey = "CFBundleName";
inline constexpr const char* kCFBundleIdentifierKey = "CFBundleIdentifier";

/// "CFBundleShortVersionString" (the marketing version).
Ref<String> OVShortVersionStringFromInfoDictionary(const Ref<Dictionary>& info);
Ref<String> OVShortVersionStringFromBundleAtURL(const Ref<URL>& url);
/// "CFBundleVersion" (the build version).
Ref<String> OVVersionStringFromInfoDictionary(const Ref<Dictionary>& info);
Ref<String> OVVersionStringFromBundleAtURL(const Ref<URL>& url);
/// "CFBundleName".
Ref<String> OVNameFromInfoDictionary(const Ref<Dictionary>& info);
Ref<String> OVNameFromBundleAtURL(const Ref<URL>& url);
/// "CFBundleIdentifier". (The dictionary form's name is spelt this way.)
Ref<String> OVBundleIDFromInfoDictionry(const Ref<Dictionary>& info);
Ref<String> OVBundleIDFromBundleAtURL(const Ref<URL>& url);

}  // namespace fennick
