#pragma once
// Looks over what an extraction tool made in the job's private folder before
// any of it leaves that folder, never following a symbolic link.
//
// The tools run with whatever privilege the caller has; when that is root,
// they can make device nodes, FIFOs and set-user-ID files from an archive's
// say-so. They do so only inside a folder of mode 0700 that nobody else can
// enter, and this check is what stands between that folder and the
// destination: it refuses the tree when it holds anything but folders,
// regular files with one link, and symbolic links whose target stays inside
// the tree (or is absolute, naming a place on this system as the archive's
// author meant); it refuses names that differ only in case within one
// folder (on a case-insensitive volume one would replace the other); and it
// takes away the bits of kUnsafeModeBits.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace fennick::detail {

enum class TreeProblem {
  None,
  SpecialFile,     // a device node, FIFO or socket
  SharedFile,      // a regular file with more than one hard link
  EscapingLink,    // a relative link whose target climbs out of the tree
  CaseCollision,   // two names in one folder that differ only in case
  TooDeep,         // folders nested past kMaximumTreeDepth
  TooLarge,        // regular files of more bytes in all than allowed
  Unreadable,      // a folder that could not be read, or a change that failed
};

/// Mode bits that nothing unpacked keeps: set-user-ID, set-group-ID and
/// sticky, and write permission for anyone but the owner (the caller may be
/// root, and what it unpacks may be run or loaded by others).
inline constexpr mode_t kUnsafeModeBits = S_ISUID | S_ISGID | S_ISVTX | S_IWGRP | S_IWOTH;

/// Folders nested deeper than this are refused; no application needs them,
/// and every level costs a descriptor while the tree is walked or copied.
inline constexpr std::size_t kMaximumTreeDepth = 128;

/// Checks and neutralises the tree under `root` (a folder), whose regular
/// files may hold `maximumBytes` in all. When
/// `absoluteLinkPrefix` is not empty, links whose target begins with it are
/// links the tool rewrote from an absolute target: they are made again with
/// the target the archive recorded (the prefix taken away, "/" kept).
TreeProblem checkExtractedTree(const std::string& root, std::uint64_t maximumBytes,
                               const std::string& absoluteLinkPrefix = {});

/// A sentence for the problem, naming no entry of the archive.
const char* describeTreeProblem(TreeProblem problem);

/// Whether a relative link target, read from a link `depth` folders below
/// the root, stays inside the tree: only leading ".." components, no more of
/// them than `depth`, and none after a name (a name may be a link itself,
/// whose ".." would be resolved from wherever it points).
bool relativeLinkTargetStaysInside(std::string_view target, std::size_t depth);

}  // namespace fennick::detail
