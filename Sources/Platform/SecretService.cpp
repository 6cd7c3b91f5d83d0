#include "fennick/Platform/SecretService.h"

#include <libsecret/secret.h>

#include <memory>

namespace fennick::platform {

namespace {

// No xdg:schema match on look-ups, so that items written by secret-tool (which
// carry no schema name) are found as well.
const SecretSchema kGenericPasswordSchema = {
    "org.freedesktop.Secret.Generic",
    SECRET_SCHEMA_DONT_MATCH_NAME,
    {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
     {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
     {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
    0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, GErrorFree>;

// The attribute table borrows its strings from here, so they live as long.
class Attributes {
 public:
  Attributes(std::string_view service, std::string_view account)
      : service_(service), account_(account), table_(g_hash_table_new(g_str_hash, g_str_equal)) {
    g_hash_table_insert(table_, const_cast<char*>("service"), service_.data());
    g_hash_table_insert(table_, const_cast<char*>("account"), account_.data());
  }
  ~Attributes() { g_hash_table_unref(table_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  GHashTable* table() const { return table_; }

 private:
  std::string service_;
  std::string account_;
  GHashTable* table_;
};

// Errors of the bus itself, of reaching it, and our own cancellation after
// the time limit mean that no Secret Service could be asked; errors that the
// service sent back (unknown to GIO, or libsecret's own) mean it refused.
SecretServiceError classify(const GError* error) {
  const bool unreachable =
      error->domain == G_DBUS_ERROR || (error->domain == G_IO_ERROR && error->code != G_IO_ERROR_DBUS_ERROR);
  if (!unreachable) return {SecretServiceError::Kind::failed, error->message};
  // The shared connection to the service may hold a session of a daemon that
  // is gone; the next call starts over with whatever answers then.
  secret_service_disconnect();
  return {SecretServiceError::Kind::unavailable, error->message};
}

// Runs one asynchronous libsecret call to completion on a private main
// context, cancelling it when the time limit passes, and hands back its result.
class BoundedCall {
 public:
  explicit BoundedCall(std::chrono::milliseconds timeout)
      : context_(g_main_context_new()), cancellable_(g_cancellable_new()) {
    g_main_context_push_thread_default(context_);
    timer_ = g_timeout_source_new(static_cast<guint>(timeout.count()));
    g_source_set_callback(timer_, &BoundedCall::expire, cancellable_, nullptr);
    g_source_attach(timer_, context_);
  }

  ~BoundedCall() {
    g_source_destroy(timer_);
    g_source_unref(timer_);
    if (result_) g_object_unref(result_);
    g_object_unref(cancellable_);
    g_main_context_pop_thread_default(context_);
    g_main_context_unref(context_);
  }
  BoundedCall(const BoundedCall&) = delete;
  BoundedCall& operator=(const BoundedCall&) = delete;

  GCancellable* cancellable() const { return cancellable_; }
  static GAsyncReadyCallback callback() { return &BoundedCall::finished; }
  gpointer userData() { return this; }

  /// Iterates the private context until the call has finished.
  GAsyncResult* wait() {
    while (!result_) g_main_context_iteration(context_, TRUE);
    return result_;
  }

 private:
  static gboolean expire(gpointer cancellable) {
    g_cancellable_cancel(G_CANCELLABLE(cancellable));
    return G_SOURCE_REMOVE;
  }
  static void finished(GObject*, GAsyncResult* result, gpointer self) {
    static_cast<BoundedCall*>(self)->result_ = G_ASYNC_RESULT(g_object_ref(result));
  }

  GMainContext* context_;
  GCancellable* cancellable_;
  GSource* timer_ = nullptr;
  GAsyncResult* result_ = nullptr;
};

SecretServiceError errorOf(GError* raw, std::chrono::milliseconds timeout) {
  ErrorPtr error(raw);
  if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED))
    return classify(ErrorPtr(g_error_new(G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "no answer within %lld ms",
                                         static_cast<long long>(timeout.count())))
                        .get());
  return classify(error.get());
}

}  // namespace

SecretLookup SecretService::lookup(std::string_view service, std::string_view account) const {
  Attributes attributes(service, account);
  BoundedCall call(timeout_);
  secret_password_lookupv(&kGenericPasswordSchema, attributes.table(), call.cancellable(), call.callback(),
                          call.userData());
  GError* error = nullptr;
  SecretValue* value = secret_password_lookup_binary_finish(call.wait(), &error);
  if (error) return {std::nullopt, errorOf(error, timeout_)};
  if (!value) return {};
  gsize length = 0;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(secret_value_get(value, &length));
  std::vector<std::uint8_t> copy(bytes, bytes + length);
  secret_value_unref(value);
  return {std::move(copy), std::nullopt};
}

std::optional<SecretServiceError> SecretService::store(std::string_view service, std::string_view account,
                                                       std::string_view label,
                                                       std::span<const std::uint8_t> value) const {
  Attributes attributes(service, account);
  const std::string labelText(label);
  SecretValue* secret = secret_value_new(reinterpret_cast<const gchar*>(value.data()),
                                         static_cast<gssize>(value.size()), "application/octet-stream");
  BoundedCall call(timeout_);
  secret_password_storev_binary(&kGenericPasswordSchema, attributes.table(), SECRET_COLLECTION_DEFAULT,
                                labelText.c_str(), secret, call.cancellable(), call.callback(), call.userData());
  secret_value_unref(secret);
  GError* error = nullptr;
  secret_password_store_finish(call.wait(), &error);
  if (error) return errorOf(error, timeout_);
  return std::nullopt;
}

std::optional<SecretServiceError> SecretService::remove(std::string_view service, std::string_view account) const {
  Attributes attributes(service, account);
  BoundedCall call(timeout_);
  secret_password_clearv(&kGenericPasswordSchema, attributes.table(), call.cancellable(), call.callback(),
                         call.userData());
  GError* error = nullptr;
  secret_password_clear_finish(call.wait(), &error);
  if (error) return errorOf(error, timeout_);
  return std::nullopt;
}

}  // namespace fennick::platform
