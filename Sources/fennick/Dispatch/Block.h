#pragma once
// Block: the unit of work of the dispatch layer, a move-only `void()` callable.
//
// Submitting work is the hottest path of the framework, so a Block keeps any
// callable of up to kInlineCapacity bytes (a lambda capturing a few pointers,
// a Ref and a std::function, ...) inside itself: building, moving and running
// such a block never touches the heap. Larger callables are boxed once.
#include <cstddef>
#include <cstring>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

namespace fennick::dispatch {

class Block {
  template <class T>
  struct IsStdFunction : std::false_type {};
  template <class Signature>
  struct IsStdFunction<std::function<Signature>> : std::true_type {};

 public:
  /// Callables up to this size (and pointer alignment) are stored inline.
  static constexpr std::size_t kInlineCapacity = 48;

  /// An empty block; running it is a caller error.
  Block() noexcept = default;
  Block(std::nullptr_t) noexcept {}  // NOLINT: implicit like std::function

  /// Wraps any callable invocable as `void()`. A null function pointer or an
  /// empty std::function gives an empty block.
  template <class F, class D = std::decay_t<F>,
            class = std::enable_if_t<!std::is_same_v<D, Block> && std::is_invocable_v<D&>>>
  Block(F&& callable) {  // NOLINT: implicit so that lambdas convert at call sites
    if constexpr (std::is_pointer_v<D> || std::is_member_pointer_v<D> ||
                  IsStdFunction<D>::value) {
      if (!callable) return;
    }
    emplace<D>(std::forward<F>(callable));
  }

  Block(Block&& other) noexcept { takeFrom(other); }
  Block& operator=(Block&& other) noexcept {
    if (this != &other) {
      reset();
      takeFrom(other);
    }
    return *this;
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { reset(); }

  explicit operator bool() const noexcept { return ops_ != nullptr; }

  /// Runs the callable. The block must not be empty.
  void operator()() { ops_->invoke(storage_); }

  /// Destroys the callable, leaving the block empty.
  void reset() noexcept {
    if (ops_ == nullptr) return;
    if (ops_->destroy != nullptr) ops_->destroy(storage_);
    ops_ = nullptr;
  }

  /// True when a callable of type F would be stored without a heap allocation.
  template <class F>
  static constexpr bool storesInline() {
    using D = std::decay_t<F>;
    return sizeof(D) <= kInlineCapacity && alignof(D) <= alignof(void*) &&
           std::is_nothrow_move_constructible_v<D>;
  }

 private:
  // relocate == nullptr: the bytes can be copied as they are.
  // destroy == nullptr: nothing to destroy.
  struct Ops {
    void (*invoke)(void* storage);
    void (*relocate)(void* to, void* from) noexcept;
    void (*destroy)(void* storage) noexcept;
  };

  template <class D>
  struct InlineOps {
    static void invoke(void* storage) { std::invoke(*static_cast<D*>(storage)); }
    static void relocate(void* to, void* from) noexcept {
      D* source = static_cast<D*>(from);
      ::new (to) D(std::move(*source));
      source->~D();
    }
    static void destroy(void* storage) noexcept { static_cast<D*>(storage)->~D(); }
    static constexpr Ops ops{
        &invoke, std::is_trivially_copyable_v<D> ? nullptr : &relocate,
        std::is_trivially_destructible_v<D> ? nullptr : &destroy};
  };

  template <class D>
  struct BoxedOps {
    static D* box(void* storage) { return *static_cast<D**>(storage); }
    static void invoke(void* storage) { std::invoke(*box(storage)); }
    static void destroy(void* storage) noexcept { delete box(storage); }
    static constexpr Ops ops{&invoke, nullptr, &destroy};
  };

  template <class D, class F>
  void emplace(F&& callable) {
    if constexpr (storesInline<D>()) {
      ::new (static_cast<void*>(storage_)) D(std::forward<F>(callable));
      ops_ = &InlineOps<D>::ops;
    } else {
      D* boxed = new D(std::forward<F>(callable));
      std::memcpy(storage_, &boxed, sizeof boxed);
      ops_ = &BoxedOps<D>::ops;
    }
  }

  void takeFrom(Block& other) noexcept {
    ops_ = other.ops_;
    if (ops_ == nullptr) return;
    if (ops_->relocate != nullptr) {
      ops_->relocate(storage_, other.storage_);
    } else {
      std::memcpy(storage_, other.storage_, kInlineCapacity);
    }
    other.ops_ = nullptr;
  }

  // The operations come first: running a small block then touches the
  // item's first cache line only.
  const Ops* ops_ = nullptr;
  alignas(void*) unsigned char storage_[kInlineCapacity];
};

}  // namespace fennick::dispatch

// Also reachable from fennick, like the rest of the framework.
namespace fennick {
using dispatch::Block;
}  // namespace fennick
