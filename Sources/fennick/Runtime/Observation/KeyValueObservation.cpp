// Observation with a callable: a small observer object carries the callable,
// and the handle keeps that observer alive (observation itself does not).
#include "fennick/Runtime/Observation/KeyValueObservation.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <utility>

namespace fennick {

namespace {

class CallableObserver : public Object {
  FENNICK_DECLARE_CLASS(CallableObserver, Object)

 public:
  explicit CallableObserver(std::function<void(const Ref<Dictionary>&)> handler) : handler_(std::move(handler)) {}

  void observeValueForKeyPath_ofObject_change_context(const std::string&, const Id&,
                                                      const Ref<Dictionary>& change, void*) override {
    handler_(change);
  }

 private:
  // Set once, before registration, and only read afterwards.
  const std::function<void(const Ref<Dictionary>&)> handler_;
};

FENNICK_DEFINE_CLASS(CallableObserver) {}

}  // namespace

void KeyValueObservation::reset() noexcept {
  Id observer = std::exchange(observer_, nullptr);
  if (!observer) return;
  if (Id observed = observed_.lock()) observed->removeObserverIfRegistered_forKeyPath(observer.get(), keyPath_);
  observed_.reset();
}

KeyValueObservation Object::addObserver_forKeyPath_options(std::string_view keyPath,
                                                           NSKeyValueObservingOptions options,
                                                           std::function<void(const Ref<Dictionary>&)> handler) {
  if (!handler) throw Exception(NSInvalidArgumentException, "addObserver:forKeyPath:options: handler is empty");
  Id observer = make<CallableObserver>(std::move(handler));
  addObserver_forKeyPath_options_context(observer, keyPath, options, nullptr);
  return KeyValueObservation(weak_from_this(), std::move(observer), std::string(keyPath));
}

}  // namespace fennick
