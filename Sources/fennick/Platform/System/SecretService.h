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
// Services and accounts travel as C strings and must be valid UTF-8: one that
// is not, or that holds a NUL byte (which would cut it short, so that
// "token\0alice" and "token\0bob" named one item), is refused before anything
// is asked, with the error `invalidAttributes`.
//
// Calls are synchronous for the caller and bounded in time: each object is
// one budget of time, and every call made through it answers by the object's
// deadline, whatever the keyring does (a daemon that stopped answering, an
// unlock prompt nobody can answer). The calls themselves run on one thread of
// the library that serves libsecret's main context; at the deadline a call is
// cancelled and abandoned. A write that was abandoned may still take effect
// if the daemon was only slow. Thread-safe: calls from several threads
// proceed in parallel.
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fennick::platform {

/// Why a call failed. The error carries no text of the service's own: its
/// messages may quote the attributes (the key, the service name).
struct SecretServiceError {
  enum class Kind {
    /// The service, the account or the label is not valid UTF-8 or holds a
    /// NUL byte.
    invalidAttributes,
    /// No Secret Service could be reached: no session bus, no keyring
    /// daemon, the connection lost, or no descriptors or threads to spare.
    unavailable,
    /// No answer before the deadline.
    timedOut,
    /// The service answered with an error (a locked collection, a dismissed
    /// prompt).
    failed,
  };
  Kind kind;

  /// A fixed text naming the kind.
  std::string_view description() const noexcept;
};

/// The outcome of a look-up: the bytes, or neither bytes nor error when no
/// item matches, or an error.
struct SecretLookup {
  std::optional<std::vector<std::uint8_t>> value;
  std::optional<SecretServiceError> error;
};

class SecretService {
 public:
  /// Ten seconds: long enough for a keyring daemon that is being started,
  /// short enough that a program waiting on a keyring that cannot answer
  /// gives up.
  static constexpr std::chrono::milliseconds kStandardTimeout{10000};

  /// The budget of objects made without one: kStandardTimeout unless a
  /// program (a test) set another. Thread-safe.
  static std::chrono::milliseconds defaultTimeout() noexcept;
  /// Sets the default budget and returns the one it replaces.
  static std::chrono::milliseconds setDefaultTimeout(std::chrono::milliseconds timeout) noexcept;

  /// Whether `text` can be a service or an account: valid UTF-8 without NUL.
  static bool isValidAttribute(std::string_view text) noexcept;

  /// Every call made through this object answers within `timeout` from now.
  explicit SecretService(std::chrono::milliseconds timeout = defaultTimeout())
      : deadline_(std::chrono::steady_clock::now() + timeout) {}

  SecretLookup lookup(std::string_view service, std::string_view account) const;
  /// Adds the item, or replaces the value of the item already there. `label`
  /// is what keyring managers show for it.
  std::optional<SecretServiceError> store(std::string_view service, std::string_view account,
                                          std::string_view label, std::span<const std::uint8_t> value) const;
  /// Deletes the item; deleting an absent item is not an error.
  std::optional<SecretServiceError> remove(std::string_view service, std::string_view account) const;

 private:
  std::chrono::steady_clock::time_point deadline_;
};

}  // namespace fennick::platform
