// The accessibility answers against GNOME's real schemas in GIO's memory
// backend, and without any schema at all (where GSettings would abort if the
// schema were opened unchecked).
#include "fennick/Helpers/System/Workspace+OVExtensions.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <cstdlib>

using namespace fennick;

namespace {

void setBoolean(const char* schema, const char* key, bool value) {
  GSettings* settings = g_settings_new(schema);
  ASSERT_TRUE(g_settings_set_boolean(settings, key, value));
  g_object_unref(settings);
}

bool anyEnabled() {
  return ov_isVoiceOverEnabled() || ov_isGrayscaleEnabled() || ov_isInvertColorsEnabled() ||
         ov_isReduceMotionEnabled() || ov_isAnnouncementEnabled() || ov_isSpeakingHotKeyEnabled() ||
         ov_isFlashScreenOnAlertEnabled();
}

TEST(AccessibilitySettingsTest, AnswersFollowTheDesktopKeys) {
  setenv("GSETTINGS_BACKEND", "memory", 1);
  GSettingsSchemaSource* source = g_settings_schema_source_get_default();
  if (!source || !g_settings_schema_source_lookup(source, "org.gnome.desktop.a11y.applications", TRUE))
    GTEST_SKIP() << "GNOME's schemas (gsettings-desktop-schemas) are not installed";
  EXPECT_FALSE(anyEnabled());  // the schemas' defaults

  setBoolean("org.gnome.desktop.a11y.applications", "screen-reader-enabled", true);
  setBoolean("org.gnome.desktop.a11y.interface", "high-contrast", true);
  setBoolean("org.gnome.desktop.interface", "enable-animations", false);
  setBoolean("org.gnome.desktop.wm.preferences", "visual-bell", true);
  EXPECT_TRUE(ov_isVoiceOverEnabled());
  EXPECT_TRUE(ov_isGrayscaleEnabled());
  EXPECT_TRUE(ov_isReduceMotionEnabled());
  EXPECT_TRUE(ov_isFlashScreenOnAlertEnabled());

  // Inverted lightness counts only while the magnifier is on.
  setBoolean("org.gnome.desktop.a11y.magnifier", "invert-lightness", true);
  EXPECT_FALSE(ov_isInvertColorsEnabled());
  setBoolean("org.gnome.desktop.a11y.applications", "screen-magnifier-enabled", true);
  EXPECT_TRUE(ov_isInvertColorsEnabled());

  EXPECT_FALSE(ov_isAnnouncementEnabled());
  EXPECT_FALSE(ov_isSpeakingHotKeyEnabled());
}

TEST(AccessibilitySettingsTest, WithoutSchemasEveryAnswerIsNo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A fresh process, so that GIO looks for schemas anew and finds none.
  EXPECT_EXIT(
      {
        setenv("GSETTINGS_BACKEND", "memory", 1);
        setenv("XDG_DATA_DIRS", "/nonexistent", 1);
        setenv("GSETTINGS_SCHEMA_DIR", "/nonexistent", 1);
        std::exit(anyEnabled() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
