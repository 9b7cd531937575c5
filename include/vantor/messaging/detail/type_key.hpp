#pragma once

// The identity of a topic's value type (TypeKey), what a value type may be (a plain object type), and
// the one rule by which the board decides that two keys stand for one type (sameType). Each module
// that includes this header judges with its own copy of the rule.

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <type_traits>
#include <typeinfo>

#include "vantor/messaging/export.hpp"

namespace vantor::messaging::detail {

// Whether T may be a topic's value type: an object type, not const or volatile, not an array. typeid
// drops references and cv-qualifiers, so a key of `const T&` would be taken for T's elsewhere, and the
// board returns values from getters and hands them to subscribers by const reference.
template <typename T>
inline constexpr bool kTopicValueType =
    std::is_object_v<T> && !std::is_const_v<T> && !std::is_volatile_v<T> && !std::is_array_v<T>;

// Called by every topic operation for its value type T, so that every one refuses the same types.
template <typename T>
constexpr bool requireTopicValueType() {
  static_assert(kTopicValueType<T>,
                "a topic's value type must be a plain object type: not a reference, not const or volatile, not "
                "an array, not void (the board stores values and hands them out by const reference, and it "
                "could not tell a reference or cv-qualified type from the plain one across modules)");
  return true;
}

// The identity of a value type T, one object per T and module: the compiler's spelling of T (for error
// messages) and, where RTTI is on, T's type_info. `name` is kTypeKeyMark, the spelling, kPlainTypeMark.
// The first mark tells a key of 13.1 or later from one of 13.0, which was a bare spelling without
// `rtti`; the last tells a key made by these headers, which refuse any T but a plain object type, from
// one of 13.1, which did not. No spelling holds either character.
struct TypeKey {
  std::string_view name;
  const std::type_info* rtti;  // null where the module was built with -fno-rtti
};
inline constexpr char kTypeKeyMark = '\x01';
inline constexpr char kPlainTypeMark = ';';

template <typename T>
constexpr std::string_view signatureOf() {
  return __PRETTY_FUNCTION__;  // "... signatureOf() [with T = bool; ...]" (g++) or "... [T = bool]" (clang)
}

// The marks around T as the compiler spells it: "bool", "long unsigned int" (g++), "unsigned long" (clang).
template <typename T>
struct TypeSpelling {
  static constexpr std::string_view signature = signatureOf<T>();
  static constexpr std::size_t start = signature.find("T = ") + 4;
  // g++ goes on after T with "; std::string_view = ...]", and no type's spelling holds a ';'.
  static constexpr std::string_view bare =
      signature.substr(start, std::min(signature.find(';', start), signature.rfind(']')) - start);
  static constexpr std::array<char, bare.size() + 2> marked = [] {
    std::array<char, bare.size() + 2> text{};
    text[0] = kTypeKeyMark;
    for (std::size_t i = 0; i < bare.size(); ++i) text[i + 1] = bare[i];
    text[bare.size() + 1] = kPlainTypeMark;
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
inline constexpr TypeKey moduleKeyOf{
    (requireTopicValueType<T>(), std::string_view(TypeSpelling<T>::marked.data(), TypeSpelling<T>::marked.size())),
    rttiOf<T>()};

// The keys of the library's own value types, defined once, by the library. The library exports its
// instantiations of the topic operations for these types, so a module's call may run the library's code,
// which names the library's key; every module names the same object, so that its keys and the library's
// are one, with or without RTTI.
VANTOR_MESSAGE_BOARD_API extern const TypeKey kLibraryBoolKey;
VANTOR_MESSAGE_BOARD_API extern const TypeKey kLibraryTokenKey;

// The key of T: the library's for its own value types, this module's for any other.
template <typename T>
inline constexpr const TypeKey& typeKeyOf = moduleKeyOf<T>;
template <>
inline constexpr const TypeKey& typeKeyOf<bool> = kLibraryBoolKey;
template <>
inline constexpr const TypeKey& typeKeyOf<std::array<unsigned char, 32>> = kLibraryTokenKey;

// Reads an Itanium-mangled type name, as type_info::name() gives it, by the grammar (the part of it that
// topic value types use), and answers whether the whole name was read and names a type that is the same
// type in every module that names it so. Refused, besides anything the reader does not know:
//  - a local name, `Z <function> E <entity>`: a type local to any function, static or inline alike;
//  - a source name of the unnamed namespace (`_GLOBAL__N...`), or one holding a character that no
//    identifier has ('$', '.': the names clang and g++ give unnamed types);
//  - the internal-linkage marker `L` before a source name (clang writes it inside nested names too);
//  - unnamed and closure types (`Ut`, `Ul`) and template parameters (`T_`).
// A source name is read whole, by its length, so an identifier's text is never taken for grammar. A
// substitution (`S_`, `S0_`, ...) stands for a component read earlier in the same name, already judged.
class MangledTypeName {
 public:
  static bool sharedAcrossModules(std::string_view mangled) noexcept {
    MangledTypeName reader(mangled);
    return reader.type() && reader.at_ == mangled.size();
  }

 private:
  explicit MangledTypeName(std::string_view mangled) noexcept : text_(mangled) {}

  char peek(std::size_t ahead = 0) const noexcept { return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0'; }
  bool eat(char c) noexcept { return peek() == c && (++at_, true); }
  bool skipIn(std::string_view set) noexcept {  // one character of `set`, if next
    return peek() != '\0' && set.find(peek()) != std::string_view::npos && (++at_, true);
  }
  bool number(std::size_t& value) noexcept {
    value = 0;
    const std::size_t first = at_;
    for (; peek() >= '0' && peek() <= '9' && at_ - first < 6; ++at_) value = value * 10 + (peek() - '0');
    return at_ > first && (peek() < '0' || peek() > '9');
  }
  // Reads with one more level of nesting; refuses names nested deeper than any real type's.
  template <typename Read>
  bool nested(Read read) noexcept {
    if (depth_ == 64) return false;
    ++depth_;
    const bool ok = read();
    --depth_;
    return ok;
  }

  // <type>: a builtin, a qualified, pointer, reference, function, array or member pointer type, or a
  // class or enum named by <name>.
  bool type() noexcept {
    return nested([this] {
      if (skipIn("vwbcahstijlmxynofdegz")) return true;
      if (eat('D')) return skipIn("dehfisun") || (eat('o') && peek() == 'F' && type());  // ... noexcept functions
      if (skipIn("rVKPROCG")) return type();
      if (eat('F')) {  // F [Y] <result> <parameter>+ [<ref-qualifier>] E
        eat('Y');
        for (bool result = true; !eat('E'); result = false) {
          if (!result && (peek() == 'R' || peek() == 'O') && peek(1) == 'E')
            ++at_;
          else if (!type())
            return false;
        }
        return true;
      }
      std::size_t size = 0;
      if (eat('A')) return (eat('_') || (number(size) && eat('_'))) && type();
      if (eat('M')) return type() && type();
      return name();
    });
  }
  // <name>: N <prefix> <component>* E, or an unscoped name or a substitution, with template arguments.
  bool name() noexcept {
    if (eat('N')) {
      if (!first()) return false;
      while (!eat('E')) {
        if (peek() == 'I' ? !templateArguments() : !unqualified()) return false;
      }
      return true;
    }
    return first() && (peek() != 'I' || templateArguments());
  }
  bool first() noexcept { return peek() == 'S' ? substitution() : unqualified(); }
  // <substitution>: St <name>, Sa, Sb, Ss, Si, So, Sd, or S [<seq-id>] _.
  bool substitution() noexcept {
    ++at_;
    if (eat('t')) return unqualified();
    if (skipIn("absiod")) return true;
    while (skipIn("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ")) {
    }
    return eat('_');
  }
  // <source-name> followed by its ABI tags (B <source-name>).
  bool unqualified() noexcept {
    if (!sourceName()) return false;
    while (eat('B')) {
      if (!sourceName()) return false;
    }
    return true;
  }
  // <length> <identifier>: an identifier of the length's characters, all of [A-Za-z0-9_].
  bool sourceName() noexcept {
    std::size_t length = 0;
    if (!number(length) || length == 0 || length > text_.size() - at_) return false;
    const std::string_view identifier = text_.substr(at_, length);
    at_ += length;
    const auto word = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    };
    return identifier.rfind("_GLOBAL__N", 0) != 0 && std::all_of(identifier.begin(), identifier.end(), word);
  }
  // I <argument>+ E; an argument is a type, a literal (L <type> <value> E) or a pack (J <argument>* E).
  bool templateArguments() noexcept {
    ++at_;
    while (!eat('E')) {
      if (!templateArgument()) return false;
    }
    return true;
  }
  bool templateArgument() noexcept {
    return nested([this] {
      if (eat('J')) {
        while (!eat('E')) {
          if (!templateArgument()) return false;
        }
        return true;
      }
      if (!eat('L')) return type();
      if (peek() == '_' || !type()) return false;  // L_Z: an entity as an argument, not read
      eat('n');
      while (skipIn("0123456789abcdef")) {
      }
      return eat('E');
    });
  }

  std::string_view text_;
  std::size_t at_ = 0;
  int depth_ = 0;
};

// Whether `key` carries what recognising its type in another module takes: the mark of 13.1 or later
// (checked first: a 13.0 key has no `rtti` to read), type_info, and a plain object type (a key of 13.1
// is taken as plain only when its spelling holds no '&', "const" or "volatile").
inline bool recognisableAcrossModules(const TypeKey& key) noexcept {
  if (key.name.empty() || key.name.front() != kTypeKeyMark || key.rtti == nullptr) return false;
  return key.name.back() == kPlainTypeMark ||
         (key.name.find('&') == std::string_view::npos && key.name.find("const") == std::string_view::npos &&
          key.name.find("volatile") == std::string_view::npos);
}

// Whether two type keys stand for one type. The argument:
//  - The same key object is one type: typeKeyOf<T> is one object per T in a module (the linker keeps one
//    definition; for the library's own types, one in the process), and distinct types have distinct
//    instantiations.
//  - Other keys are one type only when both are recognisable across modules (above), their type_infos
//    are equal both ways, and the mangled name reads as MangledTypeName accepts. Plainness matters
//    because typeid drops references and cv-qualifiers. Asking type_info both ways matters because
//    libstdc++ compares a name that g++ marked unique to its translation unit (a leading '*', hidden by
//    name()) by address, but compares an unmarked name (clang's) with it by text. The Itanium ABI gives
//    every plain type with linkage one mangled name, written alike by g++ and clang, and no two of them
//    the same one; the names that may repeat for distinct types are those of entities without linkage,
//    which the reader refuses, along with every local name (it cannot tell an inline function, whose
//    local types are one type, from functions of the same name in other modules).
//  - Without RTTI on either side, or for a key of 13.0, identity is all the evidence there is.
// So two distinct types pass only where one qualified name is defined differently in two modules (an ODR
// violation), which no check can see. A refusal is always safe.
inline bool sameType(const TypeKey& a, const TypeKey& b) noexcept {
  if (&a == &b) return true;
  return recognisableAcrossModules(a) && recognisableAcrossModules(b) && *a.rtti == *b.rtti && *b.rtti == *a.rtti &&
         MangledTypeName::sharedAcrossModules(a.rtti->name());
}

// The spelling of a key's type, for messages.
inline std::string_view spelling(const TypeKey& key) noexcept {
  const std::string_view name = !key.name.empty() && key.name[0] == kTypeKeyMark ? key.name.substr(1) : key.name;
  return name.substr(0, name.find(';'));  // before kPlainTypeMark, or the "; std::string_view = ..." of 13.0 g++
}

}  // namespace vantor::messaging::detail
