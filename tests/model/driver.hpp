#pragma once

// Replays a byte string as a sequence of library operations, each on the library and on its model
// (library_model.hpp), and compares them after every step. Single-threaded; may be called any number
// of times in one process: each run starts by putting the process-wide contract into a known state.

#include <cstddef>
#include <cstdint>
#include <string>

namespace vantor::model {

// Empty when library and model agreed on every step; otherwise the first disagreement.
std::string runOperations(const std::uint8_t* data, std::size_t size);

}  // namespace vantor::model
