#include "fennick/Helpers/System/Workspace+OVExtensions.h"

#include <gio/gio.h>

#include <optional>

namespace fennick {

namespace {

// A boolean key, or nullopt when its schema, the key, or a boolean type is
// missing. The schema is looked up first: GSettings aborts the process when
// asked to open a schema that is not installed.
std::optional<bool> booleanSetting(const char* schemaID, const char* key) {
  GSettingsSchemaSource* source = g_settings_schema_source_get_default();
  if (!source) return std::nullopt;
  GSettingsSchema* schema = g_settings_schema_source_lookup(source, schemaID, TRUE);
  if (!schema) return std::nullopt;
  std::optional<bool> value;
  if (g_settings_schema_has_key(schema, key)) {
    GSettingsSchemaKey* schemaKey = g_settings_schema_get_key(schema, key);
    const bool isBoolean = g_variant_type_equal(g_settings_schema_key_get_value_type(schemaKey), G_VARIANT_TYPE_BOOLEAN);
    g_settings_schema_key_unref(schemaKey);
    if (isBoolean) {
      GSettings* settings = g_settings_new_full(schema, nullptr, nullptr);
      value = g_settings_get_boolean(settings, key) != FALSE;
      g_object_unref(settings);
    }
  }
  g_settings_schema_unref(schema);
  return value;
}

bool isSet(const char* schemaID, const char* key) { return booleanSetting(schemaID, key).value_or(false); }

}  // namespace

bool ov_isVoiceOverEnabled() { return isSet("org.gnome.desktop.a11y.applications", "screen-reader-enabled"); }

bool ov_isGrayscaleEnabled() { return isSet("org.gnome.desktop.a11y.interface", "high-contrast"); }

bool ov_isInvertColorsEnabled() {
  return isSet("org.gnome.desktop.a11y.applications", "screen-magnifier-enabled") &&
         isSet("org.gnome.desktop.a11y.magnifier", "invert-lightness");
}

bool ov_isReduceMotionEnabled() {
  const auto animations = booleanSetting("org.gnome.desktop.interface", "enable-animations");
  return animations && !*animations;
}

bool ov_isAnnouncementEnabled() { return false; }

bool ov_isSpeakingHotKeyEnabled() { return false; }

bool ov_isFlashScreenOnAlertEnabled() { return isSet("org.gnome.desktop.wm.preferences", "visual-bell"); }

}  // namespace fennick
