// libFuzzer entry point: each input is a sequence of library operations that the model's driver runs on
// the library and on the model (runOperations() in tests/model/library_model.hpp). A disagreement
// aborts, so libFuzzer keeps the input; replay it with `model_fuzzer FILE`.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "model/library_model.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string failure = vantor::model::runOperations({reinterpret_cast<const char*>(data), size});
  if (failure.empty()) return 0;
  std::fprintf(stderr, "library and model disagree at %s\n", failure.c_str());
  std::abort();
}
