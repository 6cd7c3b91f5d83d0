#pragma once
// Decides from its first bytes whether a stream is a ZIP archive and nothing
// else, before bsdtar sees it.
//
// bsdtar cannot be told which format to read: it takes whichever of its
// readers bids highest on the stream's start. A file named ".zip" may
// therefore be a tar, cpio or mtree stream (which can carry device nodes,
// hard links and set-user-ID modes), or a polyglot that begins with a ZIP
// signature and still parses as tar (the signature as the first member's
// name) or as ISO 9660 (its volume descriptors 32 KiB in). The check accepts
// a local-file-header or end-of-archive signature at offset 0 and refuses the
// stream when either of those other readers would claim it.
#include <cstddef>
#include <string_view>

namespace fennick::detail {

/// How many of the stream's first bytes isZIPStream needs to see (fewer when
/// the stream is shorter).
inline constexpr std::size_t kZIPStreamProbeLength = 32'768 + 8 * 2'048;

/// Whether `start` (the stream's first bytes, at most kZIPStreamProbeLength
/// of them are read) begins a ZIP archive that no other reader would claim.
bool isZIPStream(std::string_view start);

/// How many of the stream's last bytes endsWithEndRecord needs: the end
/// record and the longest comment it may carry.
inline constexpr std::size_t kZIPEndRecordProbeLength = 22 + 65'535;

/// Whether `tail` (the stream's last bytes, up to kZIPEndRecordProbeLength)
/// ends with an end-of-central-directory record. bsdtar reads a stream's
/// entries one after another and never needs that record, so an archive cut
/// short anywhere after its last entry's data would unpack without a word.
bool endsWithEndRecord(std::string_view tail);

/// Whether the 512-byte block passes the tar header checksum (unsigned or
/// signed byte sums), the test tar readers bid on.
bool isTarHeaderBlock(std::string_view block);

}  // namespace fennick::detail
