// The library against its model (runOperations() in library_model.hpp): every input of the checked-in fuzzing corpus,
// and a few thousand random sequences from fixed seeds.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "model/library_model.hpp"

namespace vantor::model {
namespace {

TEST(Library, AgreesWithItsModelOnEveryInputOfTheFuzzingCorpus) {
  int inputs = 0;
  for (const auto& file : std::filesystem::directory_iterator(VANTOR_MODEL_CORPUS)) {
    std::ifstream in(file.path(), std::ios::binary);
    EXPECT_EQ(runOperations({std::istreambuf_iterator<char>(in), {}}), "") << file.path().filename();
    ++inputs;
  }
  EXPECT_GE(inputs, 6);
}

TEST(Library, AgreesWithItsModelOnFourThousandSeededRandomSequences) {
  for (unsigned seed = 0; seed < 4000; ++seed) {
    std::mt19937 random(seed);
    std::string bytes(4 * std::uniform_int_distribution<std::size_t>(1, 64)(random), '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    ASSERT_EQ(runOperations(bytes), "") << "seed " << seed;
  }
}

}  // namespace
}  // namespace vantor::model
