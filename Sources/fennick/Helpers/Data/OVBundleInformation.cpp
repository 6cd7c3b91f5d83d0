#include "fennick/Helpers/Data/OVBundleInformation.h"

#include "fennick/Runtime/Collections/Dictionary.h"

namespace fennick {

namespace {
Ref<String> stringForKey(const Ref<Dictionary>& info, const char* key) {
  return info ? String::dynamicCastObject(info->objectForKey(key)) : nullptr;
}
}  // namespace

Ref<String> OVShortVersionStringFromInfoDictionary(const Ref<Dictionary>& info) {
  return stringForKey(info, kCFBundleShortVersionStringKey);
}
Ref<String> OVShortVersionStringFromBundleAtURL(const Ref<URL>& url) {
  return OVShortVersionStringFromInfoDictionary(OVInfoDictionaryForBundleAtURL(url));
}
Ref<String> OVVersionStringFromInfoDictionary(const Ref<Dictionary>& info) {
  return stringForKey(info, kCFBundleVersionKey);
}
Ref<String> OVVersionStringFromBundleAtURL(const Ref<URL>& url) {
  return OVVersionStringFromInfoDictionary(OVInfoDictionaryForBundleAtURL(url));
}
Ref<String> OVNameFromInfoDictionary(const Ref<Dictionary>& info) { return stringForKey(info, kCFBundleNameKey); }
Ref<String> OVNameFromBundleAtURL(const Ref<URL>& url) {
  return OVNameFromInfoDictionary(OVInfoDictionaryForBundleAtURL(url));
}
Ref<String> OVBundleIDFromInfoDictionry(const Ref<Dictionary>& info) {
  return stringForKey(info, kCFBundleIdentifierKey);
}
Ref<String> OVBundleIDFromBundleAtURL(const Ref<URL>& url) {
  return OVBundleIDFromInfoDictionry(OVInfoDictionaryForBundleAtURL(url));
}

}  // namespace fennick
