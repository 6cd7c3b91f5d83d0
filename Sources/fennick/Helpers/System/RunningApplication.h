#pragma once
// A record of a running application: its process, executable, bundle, name and
// icon, read once from /proc and the application's desktop entry when the
// record is made. Records are values of a moment: they do not follow the
// process afterwards.
//
// Where the facts come from:
//   processIdentifier  the process
//   executableURL      /proc/PID/exe: the path the process was started
//                      from, also when that file has since been removed
//                      or replaced (the kernel's " (deleted)" mark is
//                      dropped)
//   bundleURL          the nearest directory holding "Info.plist" or
//                      "Contents/Info.plist" above the executable (two levels
//                      at most), else the executable itself (an ELF bundle)
//   desktop entry      the GIO_LAUNCHED_DESKTOP_FILE the process was started
//                      with, else the first entry in the XDG application
//                      directories whose Exec program is the executable
//                      (a process read in the instant between its launch and
//                      the end of its exec shows no environment yet)
//   bundleIdentifier   the desktop entry's id ("org.gnome.Calculator"), nil
//                      without an entry
//   localizedName      the entry's Name in the user's language, else the
//                      process's command name (/proc/PID/comm), bytes that
//                      are not UTF-8 shown as replacement characters
//   icon               the entry's Icon: an icon-theme name or a file path
//
// Desktop entries are read only when they are regular files of at most
// 1 MiB without NUL bytes, opened without blocking: a pipe or a huge file
// planted as an entry is no entry.
//
// Records are shared, not duplicated: copy() returns the record itself. They
// archive with secure coding through their class reflection (localizedName
// and icon, both strings); a decoded record has no process (identifier -1).
// ov_bundleVersion and ov_bundleShortVersion read the bundle's information
// property list on disk on every call, not the running process.
//
// A record is immutable once made, except through decoding, and may be read
// from any thread.
#include "fennick/Helpers/Data/OVClassReflection.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/URLs/URL.h"

#include <sys/types.h>

namespace fennick {

class RunningApplication : public Object {
  FENNICK_DECLARE_CLASS(RunningApplication, Object)
  FENNICK_REFLECTION_CODING()

 public:
  /// The record of process `pid`; nil when no such process exists or its
  /// executable cannot be read (another user's process, a kernel thread).
  static Ref<RunningApplication> runningApplicationWithProcessIdentifier(pid_t pid);
  /// The record of this process.
  static Ref<RunningApplication> currentApplication();
  /// Records of every process of this user that has a desktop entry, in
  /// process-identifier order.
  static Ref<Array> runningApplications();

  /// The superclass's reflection plus `localizedName` and `icon` (strings).
  static Ref<OVClassReflection> makeReflection();

  pid_t processIdentifier() const noexcept { return processIdentifier_; }
  Ref<URL> executableURL() const { return executableURL_; }
  Ref<URL> bundleURL() const { return bundleURL_; }
  Ref<String> bundleIdentifier() const { return bundleIdentifier_; }
  Ref<String> localizedName() const { return localizedName_; }
  void setLocalizedName(Ref<String> name) { localizedName_ = std::move(name); }
  Ref<String> icon() const { return icon_; }
  void setIcon(Ref<String> icon) { icon_ = std::move(icon); }

  /// "CFBundleVersion" of the bundle; nil without one.
  Ref<String> ov_bundleVersion() const;
  /// "CFBundleShortVersionString" of the bundle; nil without one.
  Ref<String> ov_bundleShortVersion() const;

  /// The record itself.
  Id copy() const override;
  std::string description() const override;

 protected:
  RunningApplication() = default;

 private:
  friend class RunningApplicationFactory;

  pid_t processIdentifier_ = -1;
  Ref<URL> executableURL_;
  Ref<URL> bundleURL_;
  Ref<String> bundleIdentifier_;
  Ref<String> localizedName_;
  Ref<String> icon_;
};

}  // namespace fennick
