// The accessibility answers read the desktop's settings, which are outside
// data: schemas installed by whoever wrote the schema folder, values from the
// user's settings store. Schemas that give our keys another type or leave
// them out, and stored values that are malformed, deeply nested or hold a
// NUL, all answer NO and never stop the process (GSettings aborts when a key
// is read with the wrong type). Each case runs in a fresh process, since GIO
// reads schemas and the settings store once per process.
#include "fennick/Helpers/System/Workspace+OVExtensions.h"

#include "Runtime/Processes/BundleTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

using namespace fennick;

namespace {

using namespace std::string_literals;

// Every key we read is there, but none of them as a plain boolean — except
// visual-bell, whose stored value the cases below spoil.
constexpr const char* kForgedSchemas = R"(<schemalist>
  <schema id="org.gnome.desktop.a11y.applications" path="/org/gnome/desktop/a11y/applications/">
    <key name="screen-reader-enabled" type="s"><default>'true'</default></key>
    <key name="screen-magnifier-enabled" type="mb"><default>just true</default></key>
  </schema>
  <schema id="org.gnome.desktop.a11y.interface" path="/org/gnome/desktop/a11y/interface/">
    <key name="high-contrast-missing" type="b"><default>true</default></key>
  </schema>
  <schema id="org.gnome.desktop.a11y.magnifier" path="/org/gnome/desktop/a11y/magnifier/">
    <key name="invert-lightness" type="ab"><default>[true]</default></key>
  </schema>
  <schema id="org.gnome.desktop.interface" path="/org/gnome/desktop/interface/">
    <key name="enable-animations" type="i"><default>0</default></key>
  </schema>
  <schema id="org.gnome.desktop.wm.preferences" path="/org/gnome/desktop/wm/preferences/">
    <key name="visual-bell" type="b"><default>false</default></key>
  </schema>
</schemalist>
)";

TEST(HostileAccessibilitySettings, ForgedSchemasAndSpoiledValuesAnswerNo) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  fennick::testing::TemporaryDirectory dir;
  fennick::testing::writeFile(dir.file("schemas/forged.gschema.xml"), kForgedSchemas);
  const std::string compile = "glib-compile-schemas '" + dir.path() + "/schemas' 2>&1";
  if (std::system(compile.c_str()) != 0) GTEST_SKIP() << "glib-compile-schemas could not compile the test schemas";

  struct Case {
    std::string storedVisualBell;
    bool flashes;
  };
  const Case cases[] = {
      {"true", true},  // the store is read: the one well-formed value counts
      {"yes", false},
      {"'true'", false},
      {"tr\0ue"s, false},
      {std::string(100'000, '['), false},
      {"\xff\xfe", false},
  };
  for (const Case& c : cases) {
    fennick::testing::writeFile(dir.file("config/glib-2.0/settings/keyfile"),
                       "[org/gnome/desktop/wm/preferences]\nvisual-bell=" + c.storedVisualBell + "\n");
    EXPECT_EXIT(
        {
          setenv("GSETTINGS_BACKEND", "keyfile", 1);
          setenv("GSETTINGS_SCHEMA_DIR", (dir.path() + "/schemas").c_str(), 1);
          setenv("XDG_DATA_DIRS", "/nonexistent", 1);
          setenv("XDG_CONFIG_HOME", (dir.path() + "/config").c_str(), 1);
          const bool othersOff = !ov_isVoiceOverEnabled() && !ov_isGrayscaleEnabled() && !ov_isInvertColorsEnabled() &&
                                 !ov_isReduceMotionEnabled();
          std::exit(othersOff && ov_isFlashScreenOnAlertEnabled() == c.flashes ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "")
        << "visual-bell=" << c.storedVisualBell.substr(0, 12);
  }
}

}  // namespace
