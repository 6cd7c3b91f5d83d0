// Bindings keep a property of one object in step with a key path of another.
//
// Each binding is a BindingObserver registered for key-value observation of
// the observed key path; on every change it reads the value, transforms it and
// sets the bound property. The record sits in the bound object's side table.
// Neither end keeps the other alive: the observer points at both weakly, so
// two objects may be bound to each other (or an object to itself) without a
// cycle. When the record goes (unbind, rebinding, or the bound object's
// death) the observer goes with it and ends its observation.
#include "fennick/Runtime/Observation/Bindings.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Observation/Internal/SideTable.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace fennick {

namespace {

class BindingObserver : public Object {
  FENNICK_DECLARE_CLASS(BindingObserver, Object)

 public:
  ~BindingObserver() override {
    // The registration may already be gone with the observed object's records.
    if (Id observable = observable_.lock()) observable->removeObserverIfRegistered_forKeyPath(this, keyPath_);
  }

  Id observable() const { return observable_.lock(); }

  void startObserving(const Id& observable) {
    observable->addObserver_forKeyPath_options_context(self(), keyPath_, 0, nullptr);
  }

  /// Sets the bound property from the observed value.
  void update() {
    // A change that comes back around to this binding while it is setting the
    // property (two objects bound to each other) stops here instead of looping.
    thread_local std::vector<const BindingObserver*> updating;
    if (std::find(updating.begin(), updating.end(), this) != updating.end()) return;
    Id bound = bound_.lock();
    Id observable = observable_.lock();
    if (!bound || !observable) return;
    Id value = observable->valueForKeyPath(keyPath_);
    if (transformer_) value = transformer_->transformedValue(value);
    if (isNilOrNull(value)) value = nullPlaceholder_;
    updating.push_back(this);
    try {
      bound->setValueForKey(value, binding_);
    } catch (...) {
      updating.pop_back();
      throw;
    }
    updating.pop_back();
  }

  void observeValueForKeyPath_ofObject_change_context(const std::string&, const Id&,
                                                      const Ref<Dictionary>&, void*) override {
    update();
  }

 protected:
  BindingObserver(const Id& bound, std::string binding, const Id& observable, std::string keyPath,
                  Ref<ValueTransformer> transformer, Id nullPlaceholder)
      : bound_(bound),
        binding_(std::move(binding)),
        observable_(observable),
        keyPath_(std::move(keyPath)),
        transformer_(std::move(transformer)),
        nullPlaceholder_(std::move(nullPlaceholder)) {}

 private:
  const WeakRef<Object> bound_;
  const std::string binding_;
  const WeakRef<Object> observable_;
  const std::string keyPath_;
  const Ref<ValueTransformer> transformer_;
  const Id nullPlaceholder_;
};

FENNICK_DEFINE_CLASS(BindingObserver) {}

// The transformer named by the options: the NSValueTransformer option, else the
// one registered under the NSValueTransformerName option. A name that nothing
// is registered under, or an option of the wrong kind, is a programming error.
Ref<ValueTransformer> transformerFromOptions(const Dictionary& options) {
  Id given = options.objectForKey(NSValueTransformerBindingOption);
  if (!isNilOrNull(given)) {
    auto transformer = ValueTransformer::dynamicCastObject(given);
    if (!transformer)
      throw Exception(NSInvalidArgumentException,
                      fmt::format("binding option {} is not a value transformer: {}",
                                  NSValueTransformerBindingOption, given->description()));
    return transformer;
  }
  Id name = options.objectForKey(NSValueTransformerNameBindingOption);
  if (isNilOrNull(name)) return nullptr;
  auto transformer = ValueTransformer::valueTransformerForName(name->description());
  if (!transformer)
    throw Exception(NSInvalidArgumentException,
                    fmt::format("Cannot find value transformer with name {}", name->description()));
  return transformer;
}

// Takes the record out of the table; the caller drops it outside the lock,
// which ends its observation.
detail::BindingRecord takeBinding(detail::SideTable& table, std::string_view binding) {
  std::lock_guard lock(table.mutex);
  auto it = table.bindings.find(binding);
  if (it == table.bindings.end()) return {};
  detail::BindingRecord record = std::move(it->second);
  table.bindings.erase(it);
  return record;
}

}  // namespace

void Object::bind_toObject_withKeyPath_options(std::string_view binding, const Id& observable,
                                               std::string_view keyPath,
                                               const Ref<Dictionary>& options) {
  if (binding.empty())
    throw Exception(NSInvalidArgumentException, "bind:toObject:withKeyPath:options: empty binding name");
  if (!observable)
    throw Exception(NSInvalidArgumentException,
                    fmt::format("bind:toObject:withKeyPath:options: nil object for binding \"{}\"", binding));
  if (keyPath.empty())
    throw Exception(NSInvalidArgumentException,
                    fmt::format("bind:toObject:withKeyPath:options: empty key path for binding \"{}\"",
                                binding));
  unbind(binding);

  Ref<Dictionary> frozenOptions = options ? std::static_pointer_cast<Dictionary>(options->copy())
                                          : Dictionary::emptyDictionary();
  Id placeholder = frozenOptions->objectForKey(NSNullPlaceholderBindingOption);
  auto observer = make<BindingObserver>(self(), std::string(binding), observable, std::string(keyPath),
                                        transformerFromOptions(*frozenOptions),
                                        isNilOrNull(placeholder) ? nullptr : placeholder);
  // Observing first validates the key path; a failed first update (an unknown
  // bound key, say) drops the observer, which ends the observation.
  observer->startObserving(observable);
  observer->update();

  auto info = Dictionary::dictionaryWithStringKeys(
      {{NSObservedKeyPathKey, String::string(keyPath)}, {NSOptionsKey, frozenOptions}});
  detail::BindingRecord displaced;
  {
    detail::SideTable& table = detail::SideTable::of(*this);
    std::lock_guard lock(table.mutex);
    auto& slot = table.bindings[std::string(binding)];
    displaced = std::exchange(slot, detail::BindingRecord{std::move(info), std::move(observer)});
  }
  // `displaced` (a binding made concurrently under the same name) ends here,
  // outside the lock.
}

void Object::unbind(std::string_view binding) {
  detail::SideTable* table = detail::SideTable::find(*this);
  if (!table) return;
  detail::BindingRecord record = takeBinding(*table, binding);
}

Ref<Dictionary> Object::infoForBinding(std::string_view binding) const {
  detail::SideTable* table = detail::SideTable::find(*this);
  if (!table) return nullptr;
  detail::BindingRecord record;
  {
    std::lock_guard lock(table->mutex);
    auto it = table->bindings.find(binding);
    if (it == table->bindings.end()) return nullptr;
    record = it->second;
  }
  auto info = Dictionary::dictionaryWithDictionary(record.info);
  if (auto* observer = dynamic_cast<const BindingObserver*>(record.observer.get()))
    if (Id observable = observer->observable()) info->setObject_forKey(observable, NSObservedObjectKey);
  return std::static_pointer_cast<Dictionary>(info->copy());
}

}  // namespace fennick
