// The driver of the type table (type_table.hpp): runs every row in one translation unit and in two, of
// this program and of a plugin (argv[1]; argv[2] says "rtti" or not), and across the two modules both
// ways; prints each row that the board judged otherwise than the table says, and exits 1 if there is one.

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <vector>

#include "cross/type_table.hpp"

int main(int, char** argv) {
  TypeTable table;
  for (const char* prefix : {"P1:", "P2:", "P3:"}) table.publishAll(prefix);
  void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  auto* exchange = plugin ? reinterpret_cast<std::vector<std::string> (*)()>(dlsym(plugin, "crossExchange")) : nullptr;
  if (exchange == nullptr) return std::printf("%s\n", dlerror()), 2;
  const std::vector<std::string> inPlugin = exchange();
  const struct {
    const char* what;
    std::string verdicts;
    Arrangement where;
  } runs[] = {{"one unit of the program", table.receiveAll("P1:"), kOneUnit},
              {"two units of the program", receiveInSecondUnit("P2:"), kTwoUnits},
              {"one unit of the plugin", inPlugin.at(0), kOneUnit},
              {"two units of the plugin", inPlugin.at(1), kTwoUnits},
              {"from the program to the plugin", inPlugin.at(2), kTwoModules},
              {"from the plugin to the program", table.receiveAll("Q3:"), kTwoModules}};
  const bool rtti = std::string(argv[2]) == "rtti";
  std::vector<bool> wrong;  // by row: judged otherwise than the table says in some arrangement
  for (const auto& run : runs) {
    std::size_t index = 0;
    forEachRow([&](const std::string& row, auto, auto, Scope scope) {
      const char want = expected(scope, run.where, rtti), got = index < run.verdicts.size() ? run.verdicts[index] : '?';
      wrong.resize(std::max(wrong.size(), ++index));
      if (got != want) std::printf("%s, %s: expected %c, got %c\n", run.what, row.c_str(), want, got), wrong[index - 1] = true;
    });
  }
  const auto count = std::count(wrong.begin(), wrong.end(), true);
  std::printf("type table: %zu rows in %zu arrangements, %td rows judged wrongly\n", wrong.size(), std::size(runs), count);
  return count == 0 ? 0 : 1;
}
