// Unloading the library: a plugin that uses it is loaded with dlopen and unloaded with dlclose. The
// library must leave the process, destroy every function object it stored, and come back with a
// fresh, empty board when loaded again. This executable does not link the library itself, so the
// library is mapped exactly while the plugin is loaded.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>

static bool libraryMapped() {
  std::ifstream maps("/proc/self/maps");
  return std::string(std::istreambuf_iterator<char>(maps), {}).find("libvantor_message_board.so") != std::string::npos;
}

TEST(CyberSecurityContract, UnloadingTheLibraryDestroysWhatItStoredAndReloadingStartsAfresh) {
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const auto count = std::make_shared<int>();  // its use count: 1 + the copies the library stores
    void* plugin = dlopen(VANTOR_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(plugin && libraryMapped()) << dlerror();
    auto* use = reinterpret_cast<bool (*)(const std::shared_ptr<int>&)>(dlsym(plugin, "pluginUseContract"));
    ASSERT_TRUE(use && use(count)) << "the entry point exists, the board is new and empty, the contract fresh";
    EXPECT_EQ(count.use_count(), 1 + 6) << "one stored copy per hook, slot and listener";
    dlclose(plugin);
    EXPECT_FALSE(libraryMapped()) << "the library stayed loaded";
    EXPECT_EQ(count.use_count(), 1) << "every stored function object destroyed exactly once";
  }
}
