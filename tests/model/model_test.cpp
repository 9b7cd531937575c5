// The library against its model (driver.hpp): every input of the checked-in fuzzing corpus, and a few
// thousand random sequences from fixed seeds.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>

#include "model/driver.hpp"

namespace vantor::model {
namespace {

// One corpus file, or a block of seeds for random sequences.
struct Input {
  std::string name;
  std::filesystem::path file;
  unsigned firstSeed = 0, seeds = 0;
};
void PrintTo(const Input& input, std::ostream* out) { *out << input.name; }

class Library : public ::testing::TestWithParam<Input> {};

TEST_P(Library, AgreesWithItsModelAfterEveryStep) {
  const Input& input = GetParam();
  if (!input.file.empty()) {
    std::ifstream in(input.file, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    EXPECT_EQ(runOperations(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), "");
  }
  for (unsigned seed = input.firstSeed; seed < input.firstSeed + input.seeds; ++seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> bytes(4 * std::uniform_int_distribution<std::size_t>(1, 64)(random));
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
    ASSERT_EQ(runOperations(bytes.data(), bytes.size()), "") << "seed " << seed;
  }
}

std::vector<Input> inputs() {
  std::vector<Input> all;
  for (const auto& file : std::filesystem::directory_iterator(VANTOR_MODEL_CORPUS)) {
    all.push_back({"corpus_" + file.path().filename().string(), file.path()});
  }
  std::sort(all.begin(), all.end(), [](const Input& a, const Input& b) { return a.name < b.name; });
  for (unsigned first = 0; first < 4000; first += 1000) {
    all.push_back({"random_seeds_" + std::to_string(first) + "_to_" + std::to_string(first + 999), {}, first, 1000});
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(Inputs, Library, ::testing::ValuesIn(inputs()),
                         [](const ::testing::TestParamInfo<Input>& param) { return param.param.name; });

}  // namespace
}  // namespace vantor::model
