#pragma once
// The unpacker's folders under the temporary directory ($TMPDIR, else /tmp).
#include <string>
#include <string_view>
#include <system_error>

namespace fennick::detail {

/// A new folder of mode 0700 named `prefix` plus a fresh UUID. mkdir fails
/// on any existing item, a planted folder or link included, and then
/// another name is drawn. Empty, with errno set, on failure.
std::string makePrivateFolder(std::string_view prefix = {});

/// Renames `folder` to a fresh UUID under the temporary directory, never
/// over an existing item, and answers the new path (empty on failure).
std::string publishFolder(const std::string& folder, std::error_code& error);

}  // namespace fennick::detail
