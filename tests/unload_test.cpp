// Unloading the library: a plugin that uses it is loaded with dlopen and unloaded with dlclose. The
// library must leave the process (its mapping gone), destroy every function object it stored exactly
// once, and come back with a fresh, empty board when loaded again. This executable does not link the
// library itself, so the plugin holds the only reference to it.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "test_support.hpp"

namespace {

using vantor::testing::LifeCount;

bool mapped(const std::string& fileName) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find(fileName) != std::string::npos) return true;
  }
  return false;
}

class Plugin {
 public:
  Plugin() : handle_(dlopen(VANTOR_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL)) {}
  ~Plugin() { close(); }
  bool loaded() const { return handle_ != nullptr; }
  void close() {
    if (handle_ != nullptr) dlclose(handle_);
    handle_ = nullptr;
  }
  template <typename Function>
  Function* function(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

 private:
  void* handle_;
};

TEST(CyberSecurityContract, UnloadingTheLibraryDestroysWhatItStoredAndReloadingStartsAfresh) {
  ASSERT_FALSE(mapped("libvantor_message_board.so"));
  for (int round = 0; round < 2; ++round) {
    LifeCount count;
    {
      Plugin plugin;
      ASSERT_TRUE(plugin.loaded()) << dlerror();
      ASSERT_TRUE(mapped("libvantor_message_board.so"));
      auto* entries = plugin.function<std::size_t()>("pluginBoardEntries");
      auto* fresh = plugin.function<bool()>("pluginContractIsFresh");
      auto* use = plugin.function<void(LifeCount*)>("pluginUseContract");
      ASSERT_TRUE(entries && fresh && use);

      EXPECT_EQ(entries(), 0u) << "round " << round << ": a new board is empty";
      EXPECT_TRUE(fresh()) << "round " << round;
      use(&count);
      EXPECT_EQ(count.alive, 6) << "one stored copy per hook, slot and listener";
    }
    EXPECT_FALSE(mapped("libvantor_message_board.so")) << "round " << round << ": the library stayed loaded";
    EXPECT_EQ(count.alive, 0) << "round " << round << ": every stored function object destroyed exactly once";
  }
}

}  // namespace
