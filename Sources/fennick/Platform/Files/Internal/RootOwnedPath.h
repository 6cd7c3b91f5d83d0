#pragma once
// Resolves a path the way the kernel would, but only through what root alone
// could have put there: every directory, file and symbolic link met on the
// way must be owned by root, and no directory or file may be writable by its
// group or by others. A link is followed only once the directory holding it
// has passed that test, so a link planted by an ordinary user is never
// followed. Each step opens the next component with O_PATH | O_NOFOLLOW and
// tests the descriptor it got, so a component swapped between the test and
// the use is not taken for the one tested.
//
// Used to tell apart the install roots of package managers that run as root
// from look-alike trees that any user can build. Thread-safe; holds at most
// two descriptors at a time and fails closed when it cannot open one.
#include <optional>
#include <string>
#include <string_view>

namespace fennick::platform {

/// The physical absolute path (no links, no "." or "..") of the item at
/// `path`, when every component is root's as described above; nullopt
/// otherwise, and for a relative or empty path, a path holding a NUL byte,
/// more than 40 links, a path longer than PATH_MAX or deeper than 256
/// components, and devices, pipes and sockets anywhere on the way.
std::optional<std::string> rootOwnedPath(std::string_view path);

}  // namespace fennick::platform
