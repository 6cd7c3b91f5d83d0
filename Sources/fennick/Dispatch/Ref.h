#pragma once
// Reference types shared by every Fennick layer. The runtime declares the same
// aliases behind the same guard, so either header may come first.
#include <memory>

#ifndef FENNICK_REF_DEFINED
#define FENNICK_REF_DEFINED
namespace fennick {
/// A strong reference; nil is nullptr.
template <class T>
using Ref = std::shared_ptr<T>;
/// A weak reference, used where an object points back at its owner.
template <class T>
using WeakRef = std::weak_ptr<T>;
}  // namespace fennick
#endif
