#pragma once

// The form in which the board stores getters and subscribers: a type-erased function object of one
// value type T, copyable, possibly empty, kept in place inside the map's node.
//
// Why not std::any holding a std::function: std::any's one-pointer buffer put every std::function on
// the heap, so each publication allocated, and std::any compares types by the address of a per-module
// function (falling back to typeid only with RTTI), so a host built with -fno-rtti that instantiated
// the same templates made the library's own keys look mistyped. Here the buffer holds a std::function
// in place, and the value type is identified as sameType() says.

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <new>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace vantor::messaging::detail {

// The identity of a value type T, one object per T and module: the compiler's spelling of T (for error
// messages) and, where RTTI is on, T's type_info. `name` begins with kTypeKeyMark, which no spelling
// begins with: the type keys of 13.0, made by modules built with older headers, were a bare spelling
// without `rtti`, so the mark tells which layout a stored key has.
struct TypeKey {
  std::string_view name;
  const std::type_info* rtti;  // null where the module was built with -fno-rtti
};
inline constexpr char kTypeKeyMark = '\x01';

template <typename T>
constexpr std::string_view signatureOf() {
  return __PRETTY_FUNCTION__;  // "... signatureOf() [with T = bool; ...]" (g++) or "... [T = bool]" (clang)
}

// kTypeKeyMark and T as the compiler spells it: "bool", "long unsigned int" (g++), "unsigned long" (clang).
template <typename T>
struct TypeSpelling {
  static constexpr std::string_view signature = signatureOf<T>();
  static constexpr std::size_t start = signature.find("T = ") + 4;
  // g++ goes on after T with "; std::string_view = ...]", and no type's spelling holds a ';'.
  static constexpr std::string_view bare =
      signature.substr(start, std::min(signature.find(';', start), signature.rfind(']')) - start);
  static constexpr std::array<char, bare.size() + 1> marked = [] {
    std::array<char, bare.size() + 1> text{};
    text[0] = kTypeKeyMark;
    for (std::size_t i = 0; i < bare.size(); ++i) text[i + 1] = bare[i];
    return text;
  }();
};

template <typename T>
constexpr const std::type_info* rttiOf() noexcept {
#if defined(__GXX_RTTI) || defined(__cpp_rtti)
  return &typeid(T);
#else
  return nullptr;
#endif
}

template <typename T>
inline constexpr TypeKey typeKeyOf{{TypeSpelling<T>::marked.data(), TypeSpelling<T>::marked.size()}, rttiOf<T>()};

// Whether an Itanium-mangled type name, as type_info::name() gives it, names a type that is unique to
// one translation unit, so that the same name elsewhere is another type: one declared in an unnamed
// namespace ("_GLOBAL__N"), local to a function with internal linkage ("ZL" and a length), or numbered
// by clang instead of named ('$'). g++ marks such names for type_info's comparison; clang does not.
inline bool uniqueToItsTranslationUnit(std::string_view mangled) noexcept {
  if (mangled.find("_GLOBAL__N") != std::string_view::npos || mangled.find('$') != std::string_view::npos) return true;
  for (auto at = mangled.find("ZL"); at != std::string_view::npos; at = mangled.find("ZL", at + 1)) {
    if (at + 2 < mangled.size() && mangled[at + 2] >= '0' && mangled[at + 2] <= '9') return true;
  }
  return false;
}

// Whether two type keys stand for one type. The same key object always does: it is the same
// instantiation in one module, or one the dynamic linker unified across modules. Other keys do only
// when both modules were built with RTTI and the mangled names (which g++ and clang write alike) agree
// and name no type unique to a translation unit; without RTTI on either side, or for a key made by an
// older module, identity is all there is. Two distinct types are never taken for one, except the same
// qualified name defined differently in two modules, which no check can see.
inline bool sameType(const TypeKey& a, const TypeKey& b) noexcept {
  if (&a == &b) return true;
  const auto current = [](const TypeKey& key) { return !key.name.empty() && key.name[0] == kTypeKeyMark && key.rtti; };
  if (!current(a) || !current(b)) return false;
  return a.rtti == b.rtti || (*a.rtti == *b.rtti && !uniqueToItsTranslationUnit(a.rtti->name()));
}

// The spelling of a key's type, for messages.
inline std::string_view spelling(const TypeKey& key) noexcept {
  const std::string_view name = !key.name.empty() && key.name[0] == kTypeKeyMark ? key.name.substr(1) : key.name;
  return name.substr(0, name.find(';'));  // a 13.0 key spelled by g++ ends with "; std::string_view = ..."
}

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
