#pragma once
// Gives the items that bsdtar unpacked from a ZIP stream the Unix modes and
// symbolic links that the archive records only in its central directory.
//
// Reading from a pipe, bsdtar sees the local headers alone: every file
// comes out with the umask's permissions (an updater's executables without
// their execute bit) and every link as a small regular file that holds the
// link's target. This pass runs in the job's private folder after the tool
// has exited and before the unpacked tree is checked, so nothing else can
// change the items under it; still, every step is relative to a folder it
// opened itself and follows no link.
//
// For each entry made on Unix whose mode is recorded:
// - a file or folder gets the recorded permission bits less the unsafe ones
//   (see kUnsafeModeBits); a folder always stays open to its owner and a
//   file readable by it, so that what was unpacked can be moved, replaced
//   and removed;
// - a link that bsdtar wrote as a regular file becomes a link to the
//   file's content, and a link that bsdtar made as one keeps it; either
//   way the target must be relative, free of NUL bytes, shorter than
//   PATH_MAX and stay inside the unpacked tree from the link's folder
//   (relativeLinkTargetStaysInside), or the archive is refused;
// - an item that is missing, or is not of the type recorded, is left as
//   bsdtar made it (the tree check judges it like any other item).
// Names are taken byte for byte as the archive stores them, the way bsdtar
// writes them: empty and "." components fall away, and a name with a ".."
// component (which bsdtar refuses) names nothing.
#include <string>
#include <sys/types.h>

namespace fennick::detail {

class ZIPCentralDirectory;

enum class ZIPModeProblem {
  None,
  EscapingLink,  // a link whose target is absolute or climbs out of the tree
  InvalidLink,   // a link whose target is empty, holds a NUL or is too long
  Unreadable,    // an item that could not be read, or a change that failed
};

/// Applies what `directory` records to the tree under `root`.
ZIPModeProblem restoreZIPModesAndLinks(const std::string& root, const ZIPCentralDirectory& directory);

/// A sentence for the problem, naming no entry of the archive.
const char* describeZIPModeProblem(ZIPModeProblem problem);

/// The permission bits an item keeps of the mode an archive records.
mode_t keptPermissions(mode_t recorded, bool folder);

}  // namespace fennick::detail
