// The plugin side of the cross-module test (cross_program.cpp): built at test time by either compiler,
// with or without RTTI, with hidden visibility, and loaded with RTLD_LOCAL.

#include <vector>

#include "cross/type_table.hpp"

// Publishes the table under Q1:, Q2: and Q3: (for the program), and returns what it received in one
// translation unit, in two, and from the program (P3:).
extern "C" __attribute__((visibility("default"))) std::vector<std::string> crossExchange() {
  for (const char* prefix : {"Q1:", "Q2:", "Q3:"}) publishAll(prefix);
  return {receiveAll("Q1:"), receiveInSecondUnit("Q2:"), receiveAll("P3:")};
}
