#pragma once
// Fills a class record inside FENNICK_DEFINE_CLASS:
//
//   FENNICK_DEFINE_CLASS(Person) {
//     builder.observableProperty("name", &Person::name, &Person::setName);
//     builder.method("greet:", &Person::greet);
//     builder.dependentKeys("fullName", {"firstName", "lastName"});
//   }
//
// Methods and accessors are C++ member functions (or callables taking T&);
// their arguments and results are boxed and unboxed automatically.
#include "fennick/Runtime/ObjectModel/Boxing.h"
#include "fennick/Runtime/ObjectModel/Class.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <functional>
#include <initializer_list>
#include <tuple>
#include <utility>

namespace fennick {

namespace detail {
[[noreturn]] void abortBadMethod(const std::string& className, std::string_view selector,
                                 std::size_t parameters);

template <class F>
struct CallableTraits : CallableTraits<decltype(&F::operator())> {};
template <class C, class R, class Self, class... A>
struct CallableTraits<R (C::*)(Self, A...) const> {
  using Result = R;
  using Arguments = std::tuple<A...>;
};
template <class C, class R, class Self, class... A>
struct CallableTraits<R (C::*)(Self, A...)> : CallableTraits<R (C::*)(Self, A...) const> {};

// Result and argument types of a member function pointer, whatever its
// qualifiers.
template <class F>
struct MemberTraits;
#define FENNICK_MEMBER_TRAITS(QUALIFIERS)                 \
  template <class C, class R, class... A>                 \
  struct MemberTraits<R (C::*)(A...) QUALIFIERS> {        \
    using Result = R;                                     \
    using Arguments = std::tuple<A...>;                   \
  };
FENNICK_MEMBER_TRAITS()
FENNICK_MEMBER_TRAITS(const)
FENNICK_MEMBER_TRAITS(noexcept)
FENNICK_MEMBER_TRAITS(const noexcept)
#undef FENNICK_MEMBER_TRAITS

template <class R, class Call>
Id invokeBoxed(Call&& call) {
  if constexpr (std::is_void_v<R>) {
    call();
    return nullptr;
  } else {
    return box(call());
  }
}
}  // namespace detail

template <class T>
class ClassBuilder {
 public:
  /// Builds, registers and returns the record of T; called once by
  /// FENNICK_DEFINE_CLASS. Records live as long as the process.
  static const Class* build(const char* name) {
    auto* cls = new Class(name, T::Superclass::staticClass());
    ClassBuilder builder(*cls);
    if constexpr (requires { T::makeReflection(); })
      cls->reflectionMaker_ = []() -> Id { return T::makeReflection(); };
    T::describeClass(builder);
    detail::registerClass(cls, cls->archiveAliases_);
    return cls;
  }

  /// A method for a selector, given as a member function or as a callable
  /// taking (T&, arguments...); the selector's colons must match the arity.
  template <class F>
  ClassBuilder& method(std::string_view selector, F function) {
    if constexpr (std::is_member_function_pointer_v<F>) {
      using Traits = detail::MemberTraits<F>;
      return addMethodFromTuple<typename Traits::Result>(
          selector,
          [function](T& self, auto&&... args) -> typename Traits::Result {
            return (self.*function)(std::forward<decltype(args)>(args)...);
          },
          static_cast<typename Traits::Arguments*>(nullptr));
    } else {
      using Traits = detail::CallableTraits<F>;
      return addMethodFromTuple<typename Traits::Result>(
          selector, std::move(function), static_cast<typename Traits::Arguments*>(nullptr));
    }
  }

  /// A read-only key-value coding property; the getter is a const member
  /// function (or a callable taking const T&).
  template <class Getter>
  ClassBuilder& property(std::string key, Getter getter) {
    return addProperty(std::move(key), getter, nullptr, false);
  }
  /// A read-write property whose setter notifies observers itself (or that is
  /// not observable).
  template <class Getter, class Setter>
  ClassBuilder& property(std::string key, Getter getter, Setter setter) {
    return addProperty(std::move(key), getter, setter, false);
  }
  /// A read-write property whose changes through key-value coding notify
  /// observers automatically; the setter just assigns, and C++ callers that
  /// want observers told use Object::setValueForKey. A setter that notifies by
  /// itself (setAndNotify) belongs with property(): declared here it would
  /// announce each change twice, and the program aborts at its first change
  /// through key-value coding, naming the class and the key.
  template <class Getter, class Setter>
  ClassBuilder& observableProperty(std::string key, Getter getter, Setter setter) {
    return addProperty(std::move(key), getter, setter, true);
  }

  /// A read-write property kept in a data member, named once:
  ///     builder.observableProperty("title", &Note::title_);
  /// Changes through key-value coding notify observers exactly once. C++ code
  /// that assigns the member directly bypasses observers; it should call
  /// setValueForKey (or changeValueForKey) instead.
  template <class M>
  ClassBuilder& observableProperty(std::string key, M T::*member) {
    static_assert(!std::is_function_v<M>, "observableProperty over a member function needs a getter and a setter");
    return addProperty(std::move(key), member, member, true);
  }

  /// Declares that changes of the key paths also change `key`.
  ClassBuilder& dependentKeys(std::string key, std::initializer_list<std::string_view> keyPaths) {
    auto& list = cls_.dependencies_[std::move(key)];
    for (std::string_view path : keyPaths) list.emplace_back(path);
    return *this;
  }

  /// Archive class names: the first is written, all are accepted.
  ClassBuilder& archiveNames(std::initializer_list<std::string_view> names) {
    cls_.archiveName_ = std::string(*names.begin());
    for (std::string_view name : names) cls_.archiveAliases_.emplace_back(name);
    return *this;
  }
  /// Instances encode and decode themselves (initWithCoder/encodeWithCoder);
  /// `secure` allows them in secure decoding.
  ClassBuilder& coding(bool secure = true) {
    if (!cls_.allocator_) cls_.allocator_ = [] { return std::static_pointer_cast<Object>(make<T>()); };
    cls_.secureCoding_ = secure;
    return *this;
  }
  /// Instances for decoding come from this function (singletons, for example).
  ClassBuilder& allocator(std::function<Id()> allocate, bool secure = true) {
    cls_.allocator_ = std::move(allocate);
    cls_.secureCoding_ = secure;
    return *this;
  }

 private:
  explicit ClassBuilder(Class& cls) : cls_(cls) {}

  template <class R, class Tuple, class F>
  ClassBuilder& addMethodFromTuple(std::string_view selector, F callable, Tuple*) {
    return [&]<class... A>(std::tuple<A...>*) -> ClassBuilder& {
      return addMethod<R, A...>(selector, std::move(callable));
    }(static_cast<Tuple*>(nullptr));
  }

  template <class R, class... A, class F>
  ClassBuilder& addMethod(std::string_view name, F callable) {
    const Selector selector = Selector::named(name);
    if (selector.parameterCount() != sizeof...(A))
      detail::abortBadMethod(cls_.name(), name, sizeof...(A));
    Method method{selector, sizeof...(A), nullptr};
    method.implementation = [callable = std::move(callable)](Object& receiver,
                                                            const Id* arguments) -> Id {
      T& self = static_cast<T&>(receiver);
      return [&]<std::size_t... I>(std::index_sequence<I...>) {
        return detail::invokeBoxed<R>(
            [&]() -> R { return callable(self, unbox<detail::Bare<A>>(arguments[I])...); });
      }(std::index_sequence_for<A...>{});
    };
    cls_.methods_[selector] = std::move(method);
    return *this;
  }

  template <class Getter, class Setter>
  ClassBuilder& addProperty(std::string key, Getter getter, Setter setter, bool automatic) {
    using R = std::invoke_result_t<Getter, const T&>;
    Property property;
    property.key = key;
    property.isScalar = isScalarBox<R>;
    property.notifiesAutomatically = automatic;
    property.getter = [getter](const Object& object) -> Id {
      return box(std::invoke(getter, static_cast<const T&>(object)));
    };
    if constexpr (std::is_member_object_pointer_v<Setter>) {
      property.setter = [setter](Object& object, const Id& value) {
        static_cast<T&>(object).*setter = unbox<detail::Bare<R>>(value);
      };
    } else if constexpr (!std::is_same_v<Setter, std::nullptr_t>) {
      using A = std::tuple_element_t<0, typename detail::MemberTraits<Setter>::Arguments>;
      property.setter = [setter](Object& object, const Id& value) {
        (static_cast<T&>(object).*setter)(unbox<detail::Bare<A>>(value));
      };
    }
    cls_.properties_[std::move(key)] = std::move(property);
    return *this;
  }

  Class& cls_;
};

}  // namespace fennick
