#pragma once

// One table of value-type pairs, included by every translation unit of the cross-module test: a program
// and a plugin of two translation units each (cross_second.cpp is the second of both). A row names the
// type a topic is published with, the type it is read back with, and how far the two are one type.
// Types declared in the unnamed namespace or local to a `static` function are new types in every
// translation unit that includes this header; a type local to an inline function is one type, which the
// board recognises within a module only.

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace host {
struct Text : std::string {};
enum Level { low, high };
enum class Mode : long { off, on };
using Alias = Text;
typedef unsigned long Count;  // NOLINT(modernize-use-using): a typedef is what its row tests
inline auto inlineLocal() {
  struct Local : Text {};
  return Local{{"inline"}};
}
}  // namespace host
namespace {
struct Secret : host::Text {};
}  // namespace
static auto staticLocal() {
  struct Local : host::Text {};
  return Local{{"static"}};
}
namespace app {
static auto setup() {
  struct Settings : host::Text {};
  return Settings{{"setup"}};
}
}  // namespace app

// How far a row's two types are one type: nowhere, within a translation unit, within a module, in every
// module (there when both sides have RTTI; without it the board recognises a type by identity only), or
// in every module by identity (the library's own types, whose keys the library defines).
enum Scope { kNowhere, kUnit, kModule, kProcess, kLibrary };
enum Arrangement { kOneUnit, kTwoUnits, kTwoModules };
inline char expected(Scope scope, Arrangement where, bool rtti) {  // '1': one type; 'r': refused
  const Scope needed[] = {kUnit, kModule, kProcess};
  return scope >= needed[where] && (where != kTwoModules || rtti || scope == kLibrary) ? '1' : 'r';
}

// Calls each(row, published value, received value, scope) for every row, and again with both types
// wrapped in a template.
template <typename Each>
void forEachRow(Each&& each) {
  const auto row = [&](const std::string& name, auto published, auto received, Scope scope) {
    each(name, published, received, scope);
    each(name + " in a template", std::vector{published}, std::vector{received}, std::min(scope, kProcess));
  };
  row("bool", true, true, kLibrary);
  row("the token", vantor::messaging::CyberSecurityContract::Token{1}, std::array<unsigned char, 32>{1}, kLibrary);
  row("a string", std::string("text"), std::string("text"), kProcess);
  row("a struct in a namespace, by an alias", host::Alias{"text"}, host::Text{"text"}, kProcess);
  row("a typedef and its type", host::Count{7}, 7UL, kProcess);
  row("an enum", host::high, host::high, kProcess);
  row("an enum class", host::Mode::on, host::Mode::on, kProcess);
  row("an enum class and its underlying type", host::Mode::on, 1L, kNowhere);
  row("two structs of one layout", host::Text{"text"}, Secret{{"text"}}, kNowhere);
  row("a type in an unnamed namespace", Secret{{"secret"}}, Secret{{"secret"}}, kUnit);
  row("a type local to a static function", staticLocal(), staticLocal(), kUnit);
  row("a type local to a static function in a namespace", app::setup(), app::setup(), kUnit);
  row("a type local to an inline function", host::inlineLocal(), host::inlineLocal(), kModule);
}

namespace {
// Publishes each row's first type under a prefix, with a contract of the name "Types" that leaves its
// entries on the board; reads them back with the second, one letter per row: '1' when it arrived intact,
// 'r' when the board refused the type, 'g' when it arrived garbled.
[[maybe_unused]] void publishAll(const std::string& prefix) {  // unused in cross_second.cpp
  vantor::messaging::TestContract table("Types", /*purgeOnDestroy=*/false);
  forEachRow([&](const auto& row, auto v, auto, auto) { table.update<decltype(v)>(prefix + row, [v] { return v; }); });
}
std::string receiveAll(const std::string& prefix) {
  vantor::messaging::TestContract table("Types", /*purgeOnDestroy=*/false);
  std::string verdicts;
  forEachRow([&](const std::string& row, auto, auto want, Scope) {
    try {
      verdicts += table.get<decltype(want)>(prefix + row) == want ? '1' : 'g';
    } catch (const std::invalid_argument&) {
      verdicts += 'r';
    }
  });
  return verdicts;
}
}  // namespace

// The same reception, in the other translation unit of the module (cross_second.cpp).
std::string receiveInSecondUnit(const std::string& prefix);
