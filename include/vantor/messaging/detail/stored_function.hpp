#pragma once

// The form in which the board stores getters and subscribers: a type-erased function object of one
// value type T, copyable, possibly empty, kept in place inside the map's node.
//
// Why not std::any holding a std::function: std::any's one-pointer buffer put every std::function on
// the heap, so each publication allocated, and std::any compares types by the address of a per-module
// function (falling back to typeid only with RTTI), so a host built with -fno-rtti that instantiated
// the same templates made the library's own keys look mistyped. Here the buffer holds a std::function
// in place, and the value type is identified as sameType() says.

#include <cstddef>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

#include "vantor/messaging/detail/type_key.hpp"

namespace vantor::messaging::detail {

// True when `function` holds no target: an empty std::function, or a null pointer to a function.
template <typename F>
bool isEmpty(const F& function) noexcept {
  if constexpr (std::is_constructible_v<bool, const F&>) {
    return !static_cast<bool>(function);
  } else {
    return false;
  }
}

// Calls `function` with `args`, or throws std::bad_function_call, as an empty std::function does, when
// it holds no target (a null function pointer would otherwise be called).
template <typename F, typename... A>
decltype(auto) invokeOrThrow(const F& function, A&&... args) {
  if (isEmpty(function)) throw std::bad_function_call();
  return function(std::forward<A>(args)...);
}

class StoredFunction {
 public:
  StoredFunction() noexcept = default;

  // A getter of T: holds a copy of `function`, a callable returning T (a std::function in practice).
  template <typename T, typename F>
  static StoredFunction getter(const F& function) {
    return StoredFunction(typeKeyOf<T>, function, &callGetter<T, F>);
  }

  // A subscriber of T: holds a copy of `function`, a callable taking const T& (or T by value).
  template <typename T, typename F>
  static StoredFunction subscriber(const F& function) {
    return StoredFunction(typeKeyOf<T>, function, &callSubscriber<T, F>);
  }

  StoredFunction(const StoredFunction& other) : type_(other.type_), ops_(other.ops_), invoke_(other.invoke_) {
    if (ops_ != nullptr) ops_->copy(other.buffer_, buffer_);
  }
  StoredFunction(StoredFunction&& other) noexcept : type_(other.type_), ops_(other.ops_), invoke_(other.invoke_) {
    if (ops_ != nullptr) ops_->move(other.buffer_, buffer_);
    other.ops_ = nullptr;  // its function now lives here
  }
  // Replaces the held function; the previous one is destroyed here. Never allocates. Inlined into the
  // board's publication path, which calls it on every update of an existing key.
  [[gnu::always_inline]] StoredFunction& operator=(StoredFunction&& other) noexcept {
    if (this != &other) {
      reset();
      type_ = other.type_;
      ops_ = other.ops_;
      invoke_ = other.invoke_;
      if (ops_ != nullptr) ops_->move(other.buffer_, buffer_);
      other.ops_ = nullptr;
    }
    return *this;
  }
  StoredFunction& operator=(const StoredFunction&) = delete;
  ~StoredFunction() { reset(); }

  // The value type the function was stored for.
  const TypeKey& type() const noexcept { return *type_; }

  // True when the held function has no target (an empty std::function was stored).
  bool empty() const noexcept { return ops_ == nullptr || ops_->empty(buffer_); }

  // Calls a getter of T (whose type the caller has checked). std::bad_function_call when empty.
  template <typename T>
  T get() const {
    return reinterpret_cast<T (*)(const void*)>(invoke_)(buffer_);
  }

  // Calls a subscriber of T (whose type the caller has checked). std::bad_function_call when empty.
  template <typename T>
  void deliver(const T& value) const {
    reinterpret_cast<void (*)(const void*, const T&)>(invoke_)(buffer_, value);
  }

 private:
  // Room for a std::function in place; larger callables go to the heap.
  static constexpr std::size_t kSize = sizeof(std::function<void()>);
  static constexpr std::size_t kAlign = alignof(std::function<void()>);

  template <typename F>
  static constexpr bool kInPlace = sizeof(F) <= kSize && alignof(F) <= kAlign&& std::is_nothrow_move_constructible_v<F>;

  struct Ops {
    void (*copy)(const void* from, void* to);
    void (*move)(void* from, void* to) noexcept;  // moves into `to` and ends `from` (not to be destroyed again)
    void (*destroy)(void* self) noexcept;
    bool (*empty)(const void* self) noexcept;
  };

  template <typename F>
  static const F& target(const void* buffer) noexcept {
    if constexpr (kInPlace<F>) {
      return *std::launder(static_cast<const F*>(buffer));
    } else {
      return **static_cast<F* const*>(buffer);
    }
  }

  template <typename F>
  static constexpr Ops kOps{[](const void* from, void* to) {
                              if constexpr (kInPlace<F>) {
                                ::new (to) F(target<F>(from));
                              } else {
                                *static_cast<F**>(to) = new F(target<F>(from));
                              }
                            },
                            [](void* from, void* to) noexcept {
                              if constexpr (kInPlace<F>) {
                                F& source = *std::launder(static_cast<F*>(from));
                                ::new (to) F(std::move(source));
                                source.~F();
                              } else {
                                *static_cast<F**>(to) = *static_cast<F**>(from);
                              }
                            },
                            [](void* self) noexcept {
                              if constexpr (kInPlace<F>) {
                                std::launder(static_cast<F*>(self))->~F();
                              } else {
                                delete *static_cast<F**>(self);
                              }
                            },
                            [](const void* self) noexcept { return isEmpty(target<F>(self)); }};

  template <typename T, typename F>
  static T callGetter(const void* buffer) {
    return invokeOrThrow(target<F>(buffer));
  }

  template <typename T, typename F>
  static void callSubscriber(const void* buffer, const T& value) {
    invokeOrThrow(target<F>(buffer), value);
  }

  template <typename F, typename Invoke>
  StoredFunction(const TypeKey& type, const F& function, Invoke invoke)
      : type_(&type), invoke_(reinterpret_cast<void (*)()>(invoke)) {
    if constexpr (kInPlace<F>) {
      ::new (static_cast<void*>(buffer_)) F(function);
    } else {
      *reinterpret_cast<F**>(buffer_) = new F(function);
    }
    ops_ = &kOps<F>;
  }

  void reset() noexcept {
    if (ops_ != nullptr) ops_->destroy(buffer_);
    ops_ = nullptr;
  }

  const TypeKey* type_ = nullptr;
  const Ops* ops_ = nullptr;    // how to copy, move, destroy and test the held function; null when none
  void (*invoke_)() = nullptr;  // callGetter<T, F> or callSubscriber<T, F>, cast back by get/deliver
  alignas(kAlign) unsigned char buffer_[kSize];
};

}  // namespace vantor::messaging::detail
