#pragma once
// The root of the runtime object model: identity, equality, description,
// copying, run-time classes and selectors, key-value coding and observation,
// bindings and archiving hooks. Every object is owned through Ref (a
// shared_ptr); identity is the object's address.
#include "fennick/Runtime/ObjectModel/Class.h"
#include "fennick/Runtime/ObjectModel/Exception.h"
#include "fennick/Runtime/Observation/KeyValueObservation.h"
#include "fennick/Runtime/ObjectModel/Ref.h"
#include "fennick/Runtime/ObjectModel/Selector.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fennick {

class Array;
class Coder;
class Dictionary;
class String;
template <class T>
class ClassBuilder;

namespace detail {
struct SideTable;
void registerBuiltinClasses();
/// Gives make<T>() access to protected constructors.
template <class T>
struct Instance final : T {
  template <class... Args>
  explicit Instance(Args&&... args) : T(std::forward<Args>(args)...) {}
};
}  // namespace detail

/// Creates a runtime object. Constructors of runtime classes are protected so
/// that every instance is owned by a Ref from birth.
template <class T, class... Args>
Ref<T> make(Args&&... args) {
  return std::make_shared<detail::Instance<T>>(std::forward<Args>(args)...);
}

/// Key-value observation options (the platform's values).
enum NSKeyValueObservingOptions : std::uint64_t {
  NSKeyValueObservingOptionNew = 0x01,
  NSKeyValueObservingOptionOld = 0x02,
  NSKeyValueObservingOptionInitial = 0x04,
  NSKeyValueObservingOptionPrior = 0x08,
};
/// Options combine with | and & and stay typed.
constexpr NSKeyValueObservingOptions operator|(NSKeyValueObservingOptions a, NSKeyValueObservingOptions b) {
  return NSKeyValueObservingOptions(std::uint64_t(a) | std::uint64_t(b));
}
constexpr NSKeyValueObservingOptions operator&(NSKeyValueObservingOptions a, NSKeyValueObservingOptions b) {
  return NSKeyValueObservingOptions(std::uint64_t(a) & std::uint64_t(b));
}
/// Change kinds; observation of plain properties reports setting.
enum NSKeyValueChange : std::int64_t { NSKeyValueChangeSetting = 1 };
/// Keys of a change dictionary.
inline constexpr const char* NSKeyValueChangeKindKey = "kind";
inline constexpr const char* NSKeyValueChangeNewKey = "new";
inline constexpr const char* NSKeyValueChangeOldKey = "old";
inline constexpr const char* NSKeyValueChangeIndexesKey = "indexes";
inline constexpr const char* NSKeyValueChangeNotificationIsPriorKey = "notificationIsPrior";

/// Declares a runtime class inside its C++ class body:
///     class Person : public Object { FENNICK_DECLARE_CLASS(Person, Object) ... };
/// and, in the source file, FENNICK_DEFINE_CLASS(Person) { builder.property(...); }
/// It also gives the class `castObject` and `dynamicCastObject` (an unchecked and
/// a checked cast to the class, by isKindOfClass).
#define FENNICK_DECLARE_CLASS(T, Super)                                            \
 public:                                                                           \
  using Superclass = Super;                                                        \
  using Super::isEqual;                                                            \
  static const ::fennick::Class* staticClass();                                    \
  const ::fennick::Class* objectClass() const override { return T::staticClass(); } \
  static void describeClass(::fennick::ClassBuilder<T>& builder);                  \
  static ::fennick::Ref<T> castObject(const ::fennick::Id& object) {               \
    return std::static_pointer_cast<T>(object);                                    \
  }                                                                                \
  static ::fennick::Ref<T> dynamicCastObject(const ::fennick::Id& object) {        \
    return object && object->isKindOfClass(T::staticClass())                       \
               ? std::static_pointer_cast<T>(object)                               \
               : nullptr;                                                          \
  }                                                                                \
  /* The same for a plain pointer; cheaper than dynamic_cast on hot paths. */     \
  static const T* dynamicCastObject(const ::fennick::Object* object) {             \
    return object && object->isKindOfClass(T::staticClass())                       \
               ? static_cast<const T*>(object)                                     \
               : nullptr;                                                          \
  }

#define FENNICK_DEFINE_CLASS(T)                                                     \
  const ::fennick::Class* T::staticClass() {                                        \
    static const ::fennick::Class* const cls = ::fennick::ClassBuilder<T>::build(#T); \
    return cls;                                                                     \
  }                                                                                 \
  void T::describeClass([[maybe_unused]] ::fennick::ClassBuilder<T>& builder)

/// Registers a class by name when the program loads, so that archives can name
/// it before any instance exists. Use at namespace scope in one source file.
#define FENNICK_REGISTER_CLASS(T)                                                 \
  [[maybe_unused]] static const ::fennick::Class* const fennick_registered_##T = \
      T::staticClass()

class Object : public std::enable_shared_from_this<Object> {
 public:
  virtual ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  // -- Identity and class -----------------------------------------------------
  static const Class* staticClass();
  virtual const Class* objectClass() const;
  static Ref<Object> castObject(const Id& object) { return object; }
  static Ref<Object> dynamicCastObject(const Id& object) { return object; }
  bool isKindOfClass(const Class* cls) const noexcept { return objectClass()->isSubclassOfClass(cls); }
  bool isMemberOfClass(const Class* cls) const noexcept { return objectClass() == cls; }
  /// A strong reference to this object (it must be owned by a Ref).
  Id self() { return shared_from_this(); }
  Ref<const Object> self() const { return shared_from_this(); }

  /// Equality; the default is identity. Subclasses that override it override
  /// hash() consistently.
  virtual bool isEqual(const Object* other) const;
  bool isEqual(const Id& other) const { return isEqual(other.get()); }
  virtual std::size_t hash() const;
  /// A readable description ("<Class: 0x...>" by default); fills %@ in logs.
  virtual std::string description() const;
  /// A copy. Immutable values return themselves; classes that cannot be copied
  /// throw Exception (NSInvalidArgumentException).
  virtual Id copy() const;

  // -- Selectors ----------------------------------------------------------------
  bool respondsToSelector(Selector selector) const noexcept;
  /// Calls the method for `selector` with as many of the arguments as the
  /// selector has colons. An unknown selector throws Exception
  /// (NSInvalidArgumentException, "unrecognized selector sent to instance").
  Id performSelector(Selector selector, const Id& a = nullptr, const Id& b = nullptr,
                     const Id& c = nullptr);

  // -- Key-value coding -----------------------------------------------------------
  /// The value of a property, scalars boxed. An unknown key calls
  /// valueForUndefinedKey, which throws Exception (NSUnknownKeyException).
  virtual Id valueForKey(std::string_view key) const;
  /// Sets a property; nil for a scalar calls setNilValueForKey (which throws).
  virtual void setValueForKey(const Id& value, std::string_view key);
  /// Follows a dotted key path; a nil intermediate value gives nil.
  Id valueForKeyPath(std::string_view keyPath) const;
  /// Sets the last key of a dotted path; a nil intermediate value does nothing.
  void setValueForKeyPath(const Id& value, std::string_view keyPath);
  virtual Id valueForUndefinedKey(std::string_view key) const;
  virtual void setValueForUndefinedKey(const Id& value, std::string_view key);
  virtual void setNilValueForKey(std::string_view key);

  // -- Key-value observation ------------------------------------------------------
  /// Registers `observer` (not retained) for changes of `keyPath`. Notifications
  /// arrive synchronously, on the thread that made the change, through the
  /// observer's observeValueForKeyPath_ofObject_change_context. Dotted paths
  /// follow changes of intermediate objects; dependent keys declared by the class
  /// are followed too. The same observer may be registered more than once.
  void addObserver_forKeyPath_options_context(const Id& observer, std::string_view keyPath,
                                              std::uint64_t options, void* context);
  /// Observes `keyPath` with a callable instead of an observer object. The
  /// callable gets each change dictionary; the observation ends when the
  /// returned handle is destroyed or reset (see KeyValueObservation.h).
  [[nodiscard]] KeyValueObservation addObserver_forKeyPath_options(
      std::string_view keyPath, NSKeyValueObservingOptions options,
      std::function<void(const Ref<Dictionary>& change)> handler);
  /// Removes the most recent matching registration; throws Exception
  /// (NSRangeException) when there is none.
  void removeObserver_forKeyPath(const Object* observer, std::string_view keyPath);
  void removeObserver_forKeyPath_context(const Object* observer, std::string_view keyPath,
                                         void* context);
  void removeObserver_forKeyPath(const Id& observer, std::string_view keyPath) {
    removeObserver_forKeyPath(observer.get(), keyPath);
  }
  void removeObserver_forKeyPath_context(const Id& observer, std::string_view keyPath, void* context) {
    removeObserver_forKeyPath_context(observer.get(), keyPath, context);
  }
  /// The same, for teardown: removes the most recent matching registration if
  /// there is one, answers whether there was, and never throws.
  bool removeObserverIfRegistered_forKeyPath(const Object* observer, std::string_view keyPath) noexcept;
  bool removeObserverIfRegistered_forKeyPath_context(const Object* observer, std::string_view keyPath,
                                                     void* context) noexcept;
  /// Called for every change of an observed key path. The default throws
  /// Exception (NSInternalInconsistencyException): observers must override it.
  virtual void observeValueForKeyPath_ofObject_change_context(const std::string& keyPath,
                                                              const Id& object,
                                                              const Ref<Dictionary>& change,
                                                              void* context);
  /// Brackets a change of `key`. Pairs may nest, for several keys at once; the
  /// matching did must come on the same thread. Unobserved objects pay one
  /// pointer test. Prefer ValueChangeScope (or changeValueForKey), which also
  /// cleans up when the change throws.
  void willChangeValueForKey(std::string_view key);
  void didChangeValueForKey(std::string_view key);

  /// Brackets one change of a key: will-change when made, did-change on
  /// commit(). A scope that ends without commit (the change threw) drops the
  /// pending change instead: observers hear nothing more of it, and no stale
  /// old value is left for a later did-change. `key` must outlive the scope.
  class ValueChangeScope {
   public:
    ValueChangeScope(Object& object, std::string_view key);
    ~ValueChangeScope();
    ValueChangeScope(const ValueChangeScope&) = delete;
    ValueChangeScope& operator=(const ValueChangeScope&) = delete;
    /// Sends did-change (observers are called here).
    void commit();

   private:
    Object* object_;
    std::string_view key_;
  };

  /// will, mutate, did; a mutation that throws sends no did.
  template <class Mutation>
  void changeValueForKey(std::string_view key, Mutation&& mutate) {
    ValueChangeScope scope(*this, key);
    std::forward<Mutation>(mutate)();
    scope.commit();
  }
  /// Assigns a field and notifies observers of `key`: the one-liner for setters
  /// of observable properties.
  template <class Field, class Value>
  void setAndNotify(std::string_view key, Field& field, Value&& value) {
    ValueChangeScope scope(*this, key);
    field = std::forward<Value>(value);
    scope.commit();
  }
  /// Number of registrations for a key path (for diagnostics and tests).
  std::size_t observationCountForKeyPath(std::string_view keyPath) const;

  // -- Object operations ------------------------------------------------------------
  /// True when both are the same object (two nils included), false when exactly
  /// one is nil, else a's isEqual with b.
  static bool isEqualObject_toObject(const Id& a, const Id& b);
  static bool isEqualObject_toObject(const Object* a, const Object* b);
  /// This object; nil for the null singleton.
  virtual Id nonNullObject();
  /// Unchecked and checked casts to an interface (a C++ abstract class).
  template <class Protocol>
  Ref<Protocol> castToProtocol() { return std::static_pointer_cast<Protocol>(self()); }
  template <class Protocol>
  Ref<Protocol> dynamicCastToProtocol() { return std::dynamic_pointer_cast<Protocol>(self()); }
  /// willChangeValueForKey for each key, first to last.
  void willChangeValuesForKeys(const Ref<Array>& keys);
  /// didChangeValueForKey for each key, last to first, so that pairs nest.
  void didChangeValuesForKeys(const Ref<Array>& keys);
  void changeValuesForKeys_withBlock(const Ref<Array>& keys, const std::function<void()>& block);

  // -- Bindings ----------------------------------------------------------------------
  /// Binds the property `binding` of this object to `keyPath` of `observable`:
  /// the property takes the observed value at once and then follows it,
  /// synchronously on the thread that changes it. The value passes through the
  /// options' value transformer ("NSValueTransformer", or one registered under
  /// "NSValueTransformerName"); nil becomes the "NSNullPlaceholder" option.
  /// Binding a name again replaces its binding. Neither object keeps the other
  /// alive; the binding ends with the bound object. A nil observable, an empty
  /// name or key path, an unknown transformer name or an unknown key throws
  /// Exception, and nothing stays bound. (Names in fennick/Runtime/Bindings.h.)
  void bind_toObject_withKeyPath_options(std::string_view binding, const Id& observable,
                                         std::string_view keyPath, const Ref<Dictionary>& options);
  /// Ends the binding (nothing happens when there is none).
  void unbind(std::string_view binding);
  /// {"NSObservedObject", "NSObservedKeyPath", "NSOptions"} or nil when unbound;
  /// "NSObservedObject" is absent once the observed object has been destroyed.
  /// Virtual so that objects with bindings of their own can answer for them.
  virtual Ref<Dictionary> infoForBinding(std::string_view binding) const;
  /// Writes a value back through a binding to the observed object, reverse
  /// transformed where the binding's transformer allows it. Problems are logged.
  void propagateValue_forBinding(const Id& value, std::string_view binding);

  // -- Archiving -------------------------------------------------------------------
  /// Writes the object's state; classes that declare coding override both.
  virtual void encodeWithCoder(Coder& coder) const;
  /// Fills a blank instance made by the class's allocator from a decoder.
  virtual void initWithCoder(Coder& coder);

 protected:
  Object() = default;

 private:
  friend struct detail::SideTable;
  detail::SideTable* sideTable() const noexcept { return side_.load(std::memory_order_acquire); }
  detail::SideTable& ensureSideTable() const;
  // Forgets the will-change of `key` that has no did-change coming.
  void discardPendingChangeForKey(std::string_view key) noexcept;

  // Observation records and bindings, made on first use; nil for the
  // (overwhelmingly common) object that nobody observes.
  mutable std::atomic<detail::SideTable*> side_{nullptr};
};

/// Equality and hashing by isEqual/hash, for standard containers of Ids.
struct IdHash {
  std::size_t operator()(const Id& o) const { return o ? o->hash() : 0; }
};
struct IdEqual {
  bool operator()(const Id& a, const Id& b) const { return Object::isEqualObject_toObject(a, b); }
};

}  // namespace fennick
