// The driver of the type table (type_table.hpp): runs every row in one translation unit and in two, of
// this program and of a plugin (argv[1], built with RTTI when argv[2] says "rtti"), and across the two
// modules both ways; prints each verdict that differs from the table's, and exits 1 if there is one.

#include <dlfcn.h>

#include <cstdio>
#include <iterator>
#include <vector>

#include "cross/type_table.hpp"

int main(int, char** argv) {
  for (const char* prefix : {"P1:", "P2:", "P3:"}) publishAll(prefix);
  void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  auto* exchange = plugin ? reinterpret_cast<std::vector<std::string> (*)()>(dlsym(plugin, "crossExchange")) : nullptr;
  if (exchange == nullptr) return std::printf("%s\n", dlerror()), 2;
  const std::vector<std::string> inPlugin = exchange();
  const std::pair<std::string, Arrangement> runs[] = {
      {receiveAll("P1:"), kOneUnit}, {receiveInSecondUnit("P2:"), kTwoUnits}, {inPlugin.at(0), kOneUnit},
      {inPlugin.at(1), kTwoUnits},   {inPlugin.at(2), kTwoModules},           {receiveAll("Q3:"), kTwoModules}};
  const char* const names[] = {"one unit of the program", "two units of the program",  "one unit of the plugin",
                               "two units of the plugin", "the program to the plugin", "the plugin to the program"};
  const bool rtti = std::string(argv[2]) == "rtti";
  std::size_t rows = 0, wrong = 0;
  for (std::size_t run = 0; run < std::size(runs); ++run) {
    rows = 0;
    forEachRow([&](const std::string& row, auto, auto, Scope scope) {
      const auto& [verdicts, where] = runs[run];
      const char want = expected(scope, where, rtti), got = rows < verdicts.size() ? verdicts[rows++] : '?';
      if (got != want) std::printf("%s, %s: %c, not %c\n", names[run], row.c_str(), got, want), ++wrong;
    });
  }
  std::printf("type table: %zu rows in %zu arrangements, %zu verdicts wrong\n", rows, std::size(runs), wrong);
  return wrong == 0 ? 0 : 1;
}
