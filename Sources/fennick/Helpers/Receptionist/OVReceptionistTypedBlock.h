#pragma once
// Change blocks that name the classes they expect:
//     receptionist->startObservationOfObject_forKeyPath_changeBlock(
//         meter, "value",
//         [](const Ref<Meter>& meter, const std::string& keyPath,
//            const Ref<Number>& now, const Ref<Number>& before) { ... });
// The object and both values are cast once, here, with a checked cast: a value
// that is nil or of another class arrives as nil. Any of the three may be
// `const Id&` (or Ref<Object>) to take it unconverted.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <string>
#include <type_traits>
#include <utility>

namespace fennick::detail {

template <class Parameter>
struct ChangeParameter {};
template <class T>
struct ChangeParameter<Ref<T>> {
  using Class = T;
};

template <class Object, class KeyPath, class NewValue, class OldValue>
struct ChangeSignature {
  using ObjectClass = typename ChangeParameter<std::remove_cvref_t<Object>>::Class;
  using NewValueClass = typename ChangeParameter<std::remove_cvref_t<NewValue>>::Class;
  using OldValueClass = typename ChangeParameter<std::remove_cvref_t<OldValue>>::Class;
};

template <class F>
struct ChangeBlockTraits : ChangeBlockTraits<decltype(&F::operator())> {};
template <class C, class R, class O, class K, class N, class P>
struct ChangeBlockTraits<R (C::*)(O, K, N, P) const> : ChangeSignature<O, K, N, P> {};
template <class C, class R, class O, class K, class N, class P>
struct ChangeBlockTraits<R (C::*)(O, K, N, P)> : ChangeSignature<O, K, N, P> {};
template <class R, class O, class K, class N, class P>
struct ChangeBlockTraits<R (*)(O, K, N, P)> : ChangeSignature<O, K, N, P> {};

// A callable that does not take the untyped arguments but names classes for
// them. (The untyped check comes first: a generic lambda has no single
// operator() to read the classes from.)
template <class F>
concept TypedChangeBlock =
    !std::is_invocable_v<F&, const Id&, const std::string&, const Id&, const Id&> &&
    requires {
      typename ChangeBlockTraits<std::decay_t<F>>::ObjectClass;
      typename ChangeBlockTraits<std::decay_t<F>>::NewValueClass;
      typename ChangeBlockTraits<std::decay_t<F>>::OldValueClass;
    };

template <TypedChangeBlock F>
auto untypedChangeBlock(F block) {
  using Traits = ChangeBlockTraits<std::decay_t<F>>;
  return [block = std::move(block)](const Id& object, const std::string& keyPath, const Id& newValue,
                                    const Id& oldValue) mutable {
    block(Traits::ObjectClass::dynamicCastObject(object), keyPath,
          Traits::NewValueClass::dynamicCastObject(newValue), Traits::OldValueClass::dynamicCastObject(oldValue));
  };
}

}  // namespace fennick::detail
