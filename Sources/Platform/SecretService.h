#pragma once
// Byte values addressed by (service, account) in the desktop's keyring,
// through the freedesktop Secret Service (libsecret over the D-Bus session
// bus; gnome-keyring or KWallet answer it).
//
// Each value is one item of the default collection with the attributes
// "service" and "account", so that
//   secret-tool lookup service NAME account KEY
// finds what this class stored and this class finds what `secret-tool store`
// stored. Values are stored as bytes (content type application/octet-stream)
// and read back as bytes whatever their content type.
//
// Every call is synchronous on the caller's thread and bounded in time: it
// runs its own short main loop and gives up after `timeout` (a keyring that
// wants to show an unlock prompt nobody can answer, a daemon that stopped
// answering). The class holds no state besides the timeout and is
// thread-safe; calls from several threads proceed in parallel.
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fennick::platform {

/// Why a call failed: `unavailable` when no Secret Service could be reached
/// (no session bus, no keyring daemon, no answer in time); `failed` when the
/// service answered with an error (a locked collection, a dismissed prompt).
struct SecretServiceError {
  enum class Kind { unavailable, failed };
  Kind kind;
  std::string message;
};

/// The outcome of a look-up: the bytes, or neither bytes nor error when no
/// item matches, or an error.
struct SecretLookup {
  std::optional<std::vector<std::uint8_t>> value;
  std::optional<SecretServiceError> error;
};

class SecretService {
 public:
  static constexpr std::chrono::milliseconds defaultTimeout{10000};

  explicit SecretService(std::chrono::milliseconds timeout = defaultTimeout) : timeout_(timeout) {}

  SecretLookup lookup(std::string_view service, std::string_view account) const;
  /// Adds the item, or replaces the value of the item already there. `label`
  /// is what keyring managers show for it.
  std::optional<SecretServiceError> store(std::string_view service, std::string_view account,
                                          std::string_view label, std::span<const std::uint8_t> value) const;
  /// Deletes the item; deleting an absent item is not an error.
  std::optional<SecretServiceError> remove(std::string_view service, std::string_view account) const;

 private:
  std::chrono::milliseconds timeout_;
};

}  // namespace fennick::platform
