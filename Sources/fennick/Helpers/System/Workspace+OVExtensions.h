#pragma once
// The user's accessibility settings, read from the desktop's GSettings keys
// (GNOME's schemas). Each answer is false where the desktop has no such
// setting, where its schema is not installed, or where no settings backend
// is available; none raises, logs or blocks on a missing service. Each call
// reads the current value. Thread-safe.
//
//   ov_isVoiceOverEnabled           org.gnome.desktop.a11y.applications screen-reader-enabled
//   ov_isGrayscaleEnabled           org.gnome.desktop.a11y.interface high-contrast
//   ov_isInvertColorsEnabled        org.gnome.desktop.a11y.magnifier invert-lightness, while
//                                   org.gnome.desktop.a11y.applications screen-magnifier-enabled
//   ov_isReduceMotionEnabled        org.gnome.desktop.interface enable-animations, negated
//   ov_isFlashScreenOnAlertEnabled  org.gnome.desktop.wm.preferences visual-bell
//   ov_isAnnouncementEnabled        no such setting: false
//   ov_isSpeakingHotKeyEnabled      no such setting: false
namespace fennick {

bool ov_isVoiceOverEnabled();
bool ov_isGrayscaleEnabled();
bool ov_isInvertColorsEnabled();
bool ov_isReduceMotionEnabled();
bool ov_isAnnouncementEnabled();
bool ov_isSpeakingHotKeyEnabled();
bool ov_isFlashScreenOnAlertEnabled();

}  // namespace fennick
