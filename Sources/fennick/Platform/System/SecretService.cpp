#include "fennick/Platform/System/SecretService.h"

#include "fennick/Platform/System/Internal/GLibCallThread.h"

#include <libsecret/secret.h>

#include <atomic>
#include <memory>

namespace fennick::platform {

namespace {

using Kind = SecretServiceError::Kind;

// No xdg:schema match on look-ups, so that items written by secret-tool (which
// carry no schema name) are found as well.
const SecretSchema kGenericPasswordSchema = {
    "org.freedesktop.Secret.Generic",
    SECRET_SCHEMA_DONT_MATCH_NAME,
    {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
     {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
     {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
    0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

std::atomic<std::chrono::milliseconds> defaultBudget{SecretService::kStandardTimeout};

struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, GErrorFree>;

// The attribute table owns copies of its strings and is shared with the call,
// which may outlive the caller that asked for it.
std::shared_ptr<GHashTable> attributeTable(std::string_view service, std::string_view account) {
  GHashTable* table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
  g_hash_table_insert(table, g_strdup("service"), g_strndup(service.data(), service.size()));
  g_hash_table_insert(table, g_strdup("account"), g_strndup(account.data(), account.size()));
  return {table, &g_hash_table_unref};
}

// Errors of the bus itself and of reaching it mean that no Secret Service
// could be asked; errors that the service sent back (unknown to GIO, or
// libsecret's own) mean that it refused. A cancelled call is one that its
// caller gave up at the deadline. Runs on the call thread.
Kind kindOf(const GError* error) {
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) return Kind::timedOut;
  const bool unreachable =
      error->domain == G_DBUS_ERROR || (error->domain == G_IO_ERROR && error->code != G_IO_ERROR_DBUS_ERROR);
  return unreachable ? Kind::unavailable : Kind::failed;
}

// libsecret keeps one service object for the process, with its connection
// to the bus and its session with the daemon; it follows the daemon's name
// from owner to owner by itself. A daemon that was restarted does not know
// the session, though, and refuses every call made in it before doing
// anything, with an error of its own that GIO does not know (gnome-keyring's
// org.freedesktop.Secret.Error.NoSession; libsecret strips the name). Such a
// call is worth making once more, with a new service object; calls are
// look-ups, replacements and deletions, so making one twice does no harm.
bool mayBeLostSession(const GError* error) { return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_DBUS_ERROR); }

// What one attempt of a call came to, read on the call thread.
template <class Outcome>
struct Attempt {
  Outcome outcome;
  bool sessionLost = false;
};

// The error of a failed call. The service object is dropped, and made anew
// by the next call, only when it cannot serve any more: its session lost, or
// its bus connection closed. After other failures (no daemon, a daemon
// killed or stuck) it stays: dropping it would close and reopen the bus
// connection with every call while no daemon answers. The service's message
// is dropped here: it may quote the attributes.
template <class Outcome>
Attempt<Outcome> failedAttempt(GError* raw, Outcome (*outcomeOf)(SecretServiceError)) {
  const ErrorPtr error(raw);
  const bool sessionLost = mayBeLostSession(error.get());
  if (sessionLost || g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CLOSED)) secret_service_disconnect();
  return {outcomeOf({kindOf(error.get())}), sessionLost};
}

using OptionalError = std::optional<SecretServiceError>;

OptionalError errorOutcome(SecretServiceError error) { return error; }
SecretLookup lookupOutcome(SecretServiceError error) { return {std::nullopt, error}; }

Attempt<OptionalError> finishStore(GAsyncResult* result) {
  GError* error = nullptr;
  secret_password_store_finish(result, &error);
  return error ? failedAttempt(error, &errorOutcome) : Attempt<OptionalError>{};
}

Attempt<OptionalError> finishClear(GAsyncResult* result) {
  GError* error = nullptr;
  secret_password_clear_finish(result, &error);
  return error ? failedAttempt(error, &errorOutcome) : Attempt<OptionalError>{};
}

Attempt<SecretLookup> finishLookup(GAsyncResult* result) {
  GError* error = nullptr;
  SecretValue* value = secret_password_lookup_binary_finish(result, &error);
  if (error) return failedAttempt(error, &lookupOutcome);
  if (!value) return {};
  gsize length = 0;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(secret_value_get(value, &length));
  std::vector<std::uint8_t> copy(bytes, bytes + length);
  secret_value_unref(value);
  return {{std::move(copy), std::nullopt}};
}

// Runs one asynchronous libsecret call on the call thread and waits for what
// `finish` makes of its result, until the deadline; once more in a new
// session when the daemon no longer knew the old one.
template <class Outcome>
Outcome callBounded(const GLibCallThread::Start& start, Attempt<Outcome> (*finish)(GAsyncResult*),
                    std::chrono::steady_clock::time_point deadline, Outcome (*outcomeOf)(SecretServiceError)) {
  for (int attempt = 0;; ++attempt) {
    GLibCallThread* thread = GLibCallThread::shared();
    if (!thread) return outcomeOf({Kind::unavailable});
    std::optional<Attempt<Outcome>> answer = thread->call<Attempt<Outcome>>(start, finish, deadline);
    if (!answer) return outcomeOf({Kind::timedOut});
    if (!answer->sessionLost || attempt > 0) return std::move(answer->outcome);
  }
}

}  // namespace

std::string_view SecretServiceError::description() const noexcept {
  switch (kind) {
    case Kind::invalidAttributes: return "the service, the account or the label is not valid UTF-8 or holds a NUL byte";
    case Kind::unavailable: return "no Secret Service could be reached";
    case Kind::timedOut: return "the Secret Service did not answer in time";
    case Kind::failed: return "the Secret Service refused the request";
  }
  return "the Secret Service failed";
}

std::chrono::milliseconds SecretService::defaultTimeout() noexcept { return defaultBudget.load(); }

std::chrono::milliseconds SecretService::setDefaultTimeout(std::chrono::milliseconds timeout) noexcept {
  return defaultBudget.exchange(timeout);
}

// libsecret checks its string attributes with g_utf8_validate(), which stops
// at the first NUL: the same check over the whole length refuses both.
bool SecretService::isValidAttribute(std::string_view text) noexcept {
  return g_utf8_validate_len(text.data(), text.size(), nullptr);
}

SecretLookup SecretService::lookup(std::string_view service, std::string_view account) const {
  if (!isValidAttribute(service) || !isValidAttribute(account)) return {std::nullopt, {{Kind::invalidAttributes}}};
  auto start = [attributes = attributeTable(service, account)](GCancellable* cancellable,
                                                               GAsyncReadyCallback callback, gpointer data) {
    secret_password_lookupv(&kGenericPasswordSchema, attributes.get(), cancellable, callback, data);
  };
  return callBounded<SecretLookup>(start, &finishLookup, deadline_, &lookupOutcome);
}

std::optional<SecretServiceError> SecretService::store(std::string_view service, std::string_view account,
                                                       std::string_view label,
                                                       std::span<const std::uint8_t> value) const {
  if (!isValidAttribute(service) || !isValidAttribute(account) || !isValidAttribute(label))
    return {{Kind::invalidAttributes}};
  std::shared_ptr<SecretValue> secret(secret_value_new(reinterpret_cast<const gchar*>(value.data()),
                                                       static_cast<gssize>(value.size()), "application/octet-stream"),
                                      &secret_value_unref);
  auto start = [attributes = attributeTable(service, account), labelText = std::string(label), secret](
                   GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
    secret_password_storev_binary(&kGenericPasswordSchema, attributes.get(), SECRET_COLLECTION_DEFAULT,
                                  labelText.c_str(), secret.get(), cancellable, callback, data);
  };
  return callBounded<OptionalError>(start, &finishStore, deadline_, &errorOutcome);
}

std::optional<SecretServiceError> SecretService::remove(std::string_view service, std::string_view account) const {
  if (!isValidAttribute(service) || !isValidAttribute(account)) return {{Kind::invalidAttributes}};
  auto start = [attributes = attributeTable(service, account)](GCancellable* cancellable,
                                                               GAsyncReadyCallback callback, gpointer data) {
    secret_password_clearv(&kGenericPasswordSchema, attributes.get(), cancellable, callback, data);
  };
  return callBounded<OptionalError>(start, &finishClear, deadline_, &errorOutcome);
}

}  // namespace fennick::platform
