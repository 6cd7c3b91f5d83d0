#pragma once
// Puts an item into a folder in place of the item of the same name, so that
// a failure on the way (a full disk while copying across file systems, say)
// leaves the old item as it was and nothing half-made beside it.
//
// The new item is first brought in under a hidden, unguessable sibling name
// (renamed when it is on the same file system, otherwise copied without
// following a link); only when it is complete does it take the old item's
// place, by exchanging the two names in one step (renameat2 with
// RENAME_EXCHANGE) or, where the file system cannot exchange, by renaming
// the old item aside, the new one in, and the old one away. To a reader of
// the folder the old item is there until the new one is.
//
// Every walk here opens folders relative to their parent with O_NOFOLLOW:
// a link is copied or removed as a link, never followed.
#include <string>
#include <system_error>

namespace fennick::detail {

/// Moves `source` (any item) to `folder`/`name`, replacing an item of that
/// name; the moved item is gone from its old place afterwards.
std::error_code placeItem(const std::string& source, const std::string& folder, const std::string& name);

/// Removes an item and, for a folder, everything in it; a link is removed,
/// not followed. Failures are ignored: what cannot be removed stays.
void removeItem(const std::string& path);

}  // namespace fennick::detail
