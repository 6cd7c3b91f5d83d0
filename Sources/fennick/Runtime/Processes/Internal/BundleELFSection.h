#pragma once
// Reads one named section out of an ELF file without loading or running it.
// Executables carry their information property list this way (a section
// named "__info_plist", added with `objcopy --add-section`).
//
// Every offset and size in the file is distrusted: headers that point outside
// the file, overlapping or truncated tables, absurd counts and sizes all give
// "no section", never a read outside the input.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace fennick::detail {

/// Reads `length` bytes at `offset` into `out`; false when they are not all there.
using ByteReader = std::function<bool(std::uint64_t offset, std::size_t length, void* out)>;

/// Largest section handed back; bigger ones count as absent.
inline constexpr std::uint64_t maxELFSectionSize = 16u << 20;

/// The contents of the section called `name`, or nothing when the input is not
/// an ELF image (32 or 64 bit, either byte order) or has no such section.
std::optional<std::string> readELFSection(const ByteReader& read, std::uint64_t fileSize,
                                          std::string_view name);
/// The same over bytes in memory.
std::optional<std::string> readELFSection(std::string_view image, std::string_view name);
/// The same over an open file descriptor (read with pread, never mapped).
std::optional<std::string> readELFSectionOfFile(int fd, std::string_view name);

}  // namespace fennick::detail
