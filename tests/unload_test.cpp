// Unloading the library: a plugin that uses it is loaded with dlopen and unloaded with dlclose. The
// library must leave the process, destroy every function object it stored, and come back with a
// fresh, empty board when loaded again. This executable does not link the library itself.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>

namespace {

bool libraryMapped() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("libvantor_message_board.so") != std::string::npos) return true;
  }
  return false;
}

TEST(CyberSecurityContract, UnloadingTheLibraryDestroysWhatItStoredAndReloadingStartsAfresh) {
  ASSERT_FALSE(libraryMapped());
  for (int round = 0; round < 2; ++round) {
    std::atomic<int> alive{0};
    void* plugin = dlopen(VANTOR_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(plugin && libraryMapped()) << dlerror();
    auto* entries = reinterpret_cast<std::size_t (*)()>(dlsym(plugin, "pluginBoardEntries"));
    auto* fresh = reinterpret_cast<bool (*)()>(dlsym(plugin, "pluginContractIsFresh"));
    auto* use = reinterpret_cast<void (*)(std::atomic<int>*)>(dlsym(plugin, "pluginUseContract"));
    ASSERT_TRUE(entries && fresh && use);
    EXPECT_EQ(entries(), 0u) << "round " << round << ": a new board is empty";
    EXPECT_TRUE(fresh()) << "round " << round;
    use(&alive);
    EXPECT_EQ(alive, 6) << "one stored copy per hook, slot and listener";
    dlclose(plugin);
    EXPECT_FALSE(libraryMapped()) << "round " << round << ": the library stayed loaded";
    EXPECT_EQ(alive, 0) << "round " << round << ": every stored function object destroyed exactly once";
  }
}

}  // namespace
