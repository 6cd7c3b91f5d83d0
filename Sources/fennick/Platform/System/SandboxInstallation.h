#pragma once
// Whether an item was installed by a sandboxing package manager (Flatpak or
// Snap), decided only from what an unprivileged user cannot forge: the
// root-owned install roots those managers keep and their own records of what
// they installed. A folder that merely looks like an application of theirs
// (a "metadata" file, "meta/snap.yaml", a path with "/flatpak/app/" in it)
// proves nothing: anyone can build one.
//
// - Flatpak: the item lies inside an application deployed in a system
//   installation, <installation>/app/<id>/<arch>/<branch>/<commit>, where
//   <commit> is the 64-digit commit the deployment was checked out from, and
//   the deployment holds the "deploy" record Flatpak writes for it and a
//   "metadata" file naming the application <id>. Per-user installations
//   (~/.local/share/flatpak) belong to the user and do not count.
// - Snap: the item lies inside <snap>/<name>/<revision>, which must be the
//   root of a read-only squashfs mount listed in the mount table, whose loop
//   device is backed by the revision snapd keeps as
//   <snapd>/snaps/<name>_<revision>.snap. (Snaps mounted through FUSE, as in
//   some containers, do not count.)
//
// Every path involved, the item's included, must pass rootOwnedPath (see
// Internal/RootOwnedPath.h): owned by root, not writable by group or others,
// links followed only where root put them. Thread-safe; reads the file
// system afresh at each call.
#include <string>
#include <string_view>
#include <vector>

namespace fennick::platform {

/// Where the package managers keep what they install. The defaults are the
/// system's locations; only tests point them elsewhere.
struct SandboxInstallRoots {
  std::vector<std::string> flatpakInstallations{"/var/lib/flatpak"};
  std::string snapMountDirectory = "/snap";
  std::string snapdDirectory = "/var/lib/snapd";
};

enum class SandboxPackaging { None, Flatpak, Snap };

/// Which sandboxing package manager installed the item at `path` (absolute),
/// as described above; None for anything else, including paths that cannot
/// be read or hold a NUL byte.
SandboxPackaging sandboxPackagingOfPath(std::string_view path, const SandboxInstallRoots& roots = {});

}  // namespace fennick::platform
