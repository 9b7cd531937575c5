// The second translation unit of the program and of the plugin: its unnamed namespace and its static
// functions declare types of their own, spelled as those of the first.

#include "cross/type_table.hpp"

std::string receiveInSecondUnit(const std::string& prefix) { return receiveAll(prefix); }
