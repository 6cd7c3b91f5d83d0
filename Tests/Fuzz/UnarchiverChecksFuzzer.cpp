// The unpacker's looks at outside bytes before and after a tool runs: the
// start of a stream taken for a ZIP archive, its end record, and the target
// of a link found in what was unpacked.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fennick/Helpers/Unarchiver/Internal/ExtractedTreeCheck.h"
#include "fennick/Helpers/Unarchiver/Internal/ZIPStreamCheck.h"

using namespace fennick::detail;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);

  // Only the probe's length counts, and nothing without a ZIP signature passes.
  const bool zip = isZIPStream(input);
  if (zip != isZIPStream(input.substr(0, kZIPStreamProbeLength))) std::abort();
  if (zip && input.substr(0, 2) != "PK") std::abort();
  isTarHeaderBlock(input);

  // Any stream with an empty end record appended ends with one.
  endsWithEndRecord(input);
  std::string closed(input);
  closed.append("PK\x05\x06", 4).append(18, '\0');
  if (!endsWithEndRecord(closed)) std::abort();

  // A target that stays inside from one depth stays inside from any deeper
  // one; one without ".." always stays inside.
  const std::size_t depth = size > 0 ? bytes[0] % 8 : 0;
  const std::string_view target = input.substr(size > 0 ? 1 : 0);
  if (relativeLinkTargetStaysInside(target, depth) && !relativeLinkTargetStaysInside(target, depth + 1)) std::abort();
  if (target.find("..") == std::string_view::npos && !relativeLinkTargetStaysInside(target, 0)) std::abort();
  return 0;
}
