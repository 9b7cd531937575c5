// Round trips through the public CyberSecurityContract API, each against its floor; the same round
// trips with many other keys on the board; and the board and a signal used by two threads at once.
//
// The floor of one round trip is what any keyed, thread-safe store of callbacks must at least do:
// build the key afresh, as the board's key reads ("CyberSecurity:IP:198.51.100.4:17161"), lock a
// std::mutex, look the key up once in a std::unordered_map<std::string, std::function<...>>, copy the
// function, unlock and call the copy.
//
// Every case works on the process's one board, which keeps what earlier cases left on it. So each case
// names the state it needs (how many other keys, which pairs are published or listened to, how many
// callbacks are connected) and Scene brings the board, and the floor's map alike, to that state before
// the timed loop. Cases therefore run alone or in any order under --benchmark_filter. The one thing
// that cannot be undone is a callback connected through connectSecuredSignal (the contract hands out
// no handle): a case that needs fewer than are connected reports an error instead of a wrong figure.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench_support.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"
#include "vantor/tessel/signal.hpp"

namespace vantor_bench {
namespace {

using vantor::messaging::CyberSecurityContract;
using FlagCallback = std::function<void(bool)>;

// Other keys on the board for every case but the scale ones. A host has many; and while a map holds 20
// elements or fewer, libstdc++'s unordered_map::find compares keys one by one instead of hashing,
// which would flatter both sides.
constexpr std::size_t kHostKeys = 100;
const std::vector<std::size_t> kScaleKeys = {10, 10000, 1000000};

constexpr int kPort = 17161;
const std::vector<int> kDefaultPorts = {17161, 17168, 17171, 17172, 17175, 17176, 17178};

// One address per case, so that no case meets another's listener.
const std::string kPlainAddress = "198.51.100.4";       // updateIpPortAllowed, no listener
const std::string kListenedAddress = "198.51.100.5";    // updateIpPortAllowed with a listener
const std::string kSubscribedAddress = "198.51.100.6";  // subscribeToIpPortAllowed on a published pair
const std::string kQueriedAddress = "198.51.100.7";     // isIpSecured
const std::string kAllPortsAddress = "198.51.100.8";    // updateIpAllPortsAllowed
const std::vector<std::string> kContendedAddresses = {"198.51.100.20", "198.51.100.21"};

const char* const kSecuredKey = "CyberSecurity:Secured";
const char* const kNewCredentialsKey = "CyberSecurity:NewCredentials";
const std::string kIpKeyPrefix = "CyberSecurity:IP:";

std::string addressKey(const std::string& address) {
  std::string key;
  key.reserve(kIpKeyPrefix.size() + address.size());
  key.append(kIpKeyPrefix).append(address);
  return key;
}

std::string portKey(const std::string& address, int port) {
  const std::string portText = std::to_string(port);
  std::string key;
  key.reserve(kIpKeyPrefix.size() + address.size() + 1 + portText.size());
  key.append(kIpKeyPrefix).append(address).append(1, ':').append(portText);
  return key;
}

// The other keys: distinct addresses 10.x.y.z, each with port 17161.
std::string fillerAddress(std::size_t index) {
  return "10." + std::to_string(index >> 16 & 255) + "." + std::to_string(index >> 8 & 255) + "." +
         std::to_string(index & 255);
}

// The floor's entry for a published or listened key: handed the flag, it counts it and answers it, so
// one entry type serves the publishing round trips (a listener) and the query (a getter).
struct Answer {
  long* count;
  bool operator()(bool value) const {
    *count += value ? 1 : 0;
    return value;
  }
};

class FloorBoard {
 public:
  using Entry = std::function<bool(bool)>;

  void store(std::string key, Entry entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.insert_or_assign(std::move(key), std::move(entry));
  }

  void erase(const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.erase(key);
  }

  // One round trip. The key is always there (the cases store it first); at() only makes sure.
  bool roundTrip(const std::string& key, bool value) {
    std::unique_lock<std::mutex> lock(mutex_);
    const Entry copy = entries_.at(key);
    lock.unlock();
    return copy(value);
  }

  // The same, with the call made under a second mutex: what the secured flag and the new-credentials
  // notice cost at least, since their callbacks run under their signal's lock, a lock of its own.
  bool roundTripUnderSecondLock(const std::string& key, bool value) {
    std::unique_lock<std::mutex> lock(mutex_);
    const Entry copy = entries_.at(key);
    lock.unlock();
    std::lock_guard<std::mutex> signalLock(secondMutex_);
    return copy(value);
  }

 private:
  std::mutex mutex_;
  std::mutex secondMutex_;
  std::unordered_map<std::string, Entry> entries_;
};

class Scene {
 public:
  static Scene& instance() {
    static Scene scene;
    return scene;
  }

  CyberSecurityContract& board;
  FloorBoard floor;

  // The host's callback, built once and handed to the board by reference, as a host keeps its own.
  const FlagCallback& callback() const { return callback_; }

  // Keeps exactly `count` other keys on the board and in the floor's map. A growth by 1000 keys or
  // more records the heap bytes each side spends per stored key (the largest growth wins).
  void setOtherKeys(std::size_t count) {
    if (count < others_) {
      for (std::size_t index = others_; index-- > count;) {
        const std::string address = fillerAddress(index);
        board.unsubscribeFromIpPortAllowed(address, kPort);
        floor.erase(portKey(address, kPort));
      }
      others_ = count;
      return;
    }
    if (count == others_) return;
    const std::size_t added = count - others_;
    long long boardBytes = 0;
    long long floorBytes = 0;
    {
      const HeapWindow window;
      for (std::size_t index = others_; index < count; ++index)
        board.updateIpPortAllowed(fillerAddress(index), kPort, true);
      boardBytes = window.bytes();
    }
    {
      const HeapWindow window;
      for (std::size_t index = others_; index < count; ++index)
        floor.store(portKey(fillerAddress(index), kPort), Answer{&count_});
      floorBytes = window.bytes();
    }
    others_ = count;
    if (added >= 1000 && added > largestMeasuredGrowth_) {
      largestMeasuredGrowth_ = added;
      setFigure("heap_bytes_per_key/board", static_cast<double>(boardBytes) / static_cast<double>(added));
      setFigure("heap_bytes_per_key/floor", static_cast<double>(floorBytes) / static_cast<double>(added));
      setFigure("heap_bytes_per_key/keys_added", static_cast<double>(added));
    }
  }

  void publishPair(const std::string& address, int port) {
    board.updateIpPortAllowed(address, port, true);
    floor.store(portKey(address, port), Answer{&count_});
    pairs_.emplace(address, port);
  }

  void listenToPair(const std::string& address, int port) {
    board.subscribeToIpPortAllowed(address, port, callback_);
    floor.store(portKey(address, port), Answer{&count_});
    pairs_.emplace(address, port);
  }

  void publishAllPorts(const std::string& address) {
    board.updateIpAllPortsAllowed(address, true);
    floor.store(addressKey(address), Answer{&count_});
    for (const int port : kDefaultPorts) {
      floor.store(portKey(address, port), Answer{&count_});
      pairs_.emplace(address, port);
    }
  }

  // Withdraws every pair the cases published or listened to, from the board and the floor's map, and
  // the floor's signal-fed keys, so that a scale case counts only its own keys beside the other keys.
  // (The board keeps its address keys and the secured flag: the contract cannot withdraw them.) Cases
  // that need a pair or a key store it again in their setup.
  void withdrawCasePairs() {
    for (const auto& [address, port] : pairs_) {
      board.unsubscribeFromIpPortAllowed(address, port);
      floor.erase(portKey(address, port));
    }
    pairs_.clear();
    for (const auto& fanOut : fanOuts_) floor.erase(fanOut.first);
  }

  void secure() {
    if (!board.isSecured()) board.updateSecured(true);
  }

  // Brings the secured signal to exactly `count` callbacks; false when more are connected already.
  bool connectSecuredCallbacks(std::size_t count) {
    if (securedCallbacks_ > count) return false;
    for (; securedCallbacks_ < count; ++securedCallbacks_) board.connectSecuredSignal(callback_);
    return true;
  }

  void connectNewCredentialsCallback() {
    if (!newCredentialsConnected_) board.connectNewCredentialsSignal(callback_);
    newCredentialsConnected_ = true;
  }

  // The floor's entry for a signal-fed key: one call that makes `callbacks` calls, as the board's
  // subscriber does when it emits.
  void storeFanOut(const std::string& key, std::size_t callbacks) {
    std::vector<FlagCallback>& targets = fanOuts_[key];
    targets.assign(callbacks, callback_);
    floor.store(key, [list = &targets](bool value) {
      for (const FlagCallback& target : *list) target(value);
      return value;
    });
  }

 private:
  Scene() : board(CyberSecurityContract::instance()), callback_(CountTrue{&count_}) {}

  long count_ = 0;
  FlagCallback callback_;
  std::map<std::string, std::vector<FlagCallback>> fanOuts_;  // a map keeps each list where it is
  std::set<std::pair<std::string, int>> pairs_;               // published or listened to by the cases
  std::size_t others_ = 0;
  std::size_t largestMeasuredGrowth_ = 0;
  std::size_t securedCallbacks_ = 0;
  bool newCredentialsConnected_ = false;
};

const char* const kTooManyCallbacks =
    "more secured callbacks are connected than this case needs (they cannot be disconnected): run it in "
    "a fresh process, before the cases that connect more";

// One case: brings the scene to `otherKeys` other keys, runs `setup` (a non-null result is an error
// message), then times `operation`.
template <typename Setup, typename Operation>
Group::Body makeCase(std::size_t otherKeys, Setup setup, Operation operation) {
  return [=](benchmark::State& state) {
    Scene& scene = Scene::instance();
    scene.setOtherKeys(otherKeys);
    if (const char* error = setup(scene)) {
      state.SkipWithError(error);
      return;
    }
    for (auto _ : state) operation(scene);
  };
}

struct CaseNames {
  std::string vantor;
  std::string floor;
};

// Registers "<prefix>/vantor<suffix>" and "<prefix>/floor<suffix>" as one group, or adds them to
// `into` when given; returns the names.
template <typename VantorSetup, typename VantorOperation, typename FloorSetup, typename FloorOperation>
CaseNames registerRoundTrip(const std::string& prefix, const std::string& suffix, std::size_t otherKeys,
                            VantorSetup vantorSetup, VantorOperation vantor, FloorSetup floorSetup,
                            FloorOperation floor, Group* into = nullptr) {
  CaseNames names{prefix + "/vantor" + suffix, prefix + "/floor" + suffix};
  Group own;
  Group& group = into != nullptr ? *into : own;
  group.add(names.vantor, makeCase(otherKeys, vantorSetup, vantor))
      .add(names.floor, makeCase(otherKeys, floorSetup, floor));
  if (into == nullptr) own.registerRounds();
  return names;
}

// For the two publications whose callbacks run under their signal's lock: a floor that takes that
// second lock too, measured in turn with the round trip and its plain floor, and the ratio against it
// (an uncontended lock and unlock alone costs about a third of the plain floor).
void addSignalLockFloor(Group& group, const std::string& section, const std::string& name, const CaseNames& names,
                        const char* key, std::function<void(Scene&)> store) {
  const std::string floorName = "board/" + name + "/floor_signal_lock";
  group.add(floorName, makeCase(
                           kHostKeys,
                           [store](Scene& scene) -> const char* {
                             store(scene);
                             return nullptr;
                           },
                           [key](Scene& scene) {
                             benchmark::DoNotOptimize(scene.floor.roundTripUnderSecondLock(std::string(key), true));
                           }));
  group.registerRounds();
  addRatio(section, name + ": vantor / floor with a signal's lock", names.vantor, floorName, Goal::AtMost, 1.3);
}

// A round trip's ratio: vantor / floor, at most 1.3.
void addRoundTripRatio(const std::string& section, const std::string& label, const CaseNames& names) {
  addRatio(section, label + ": vantor / floor", names.vantor, names.floor, Goal::AtMost, 1.3);
}

void updateSecuredCases(std::size_t callbacks, const std::string& section) {
  const std::string name = "updateSecured_" + std::to_string(callbacks) + (callbacks == 1 ? "_callback" : "_callbacks");
  Group group;
  const CaseNames names = registerRoundTrip(
      "board/" + name, "", kHostKeys,
      [callbacks](Scene& scene) -> const char* {
        return scene.connectSecuredCallbacks(callbacks) ? nullptr : kTooManyCallbacks;
      },
      [](Scene& scene) { scene.board.updateSecured(true); },
      [callbacks](Scene& scene) -> const char* {
        scene.storeFanOut(kSecuredKey, callbacks);
        return nullptr;
      },
      [](Scene& scene) { benchmark::DoNotOptimize(scene.floor.roundTrip(std::string(kSecuredKey), true)); }, &group);
  addRoundTripRatio(section, name, names);
  addSignalLockFloor(group, section, name, names, kSecuredKey,
                     [callbacks](Scene& scene) { scene.storeFanOut(kSecuredKey, callbacks); });
}

// updateIpPortAllowed on a pair without a listener. With `alone`, the setup first withdraws the pairs
// other cases left on the board (for the scale cases, which also pass the group they join).
CaseNames updateIpPortAllowedCases(const std::string& group, const std::string& suffix, std::size_t otherKeys,
                                   bool alone, Group* into = nullptr) {
  const auto setup = [alone](Scene& scene) -> const char* {
    if (alone) scene.withdrawCasePairs();
    scene.publishPair(kPlainAddress, kPort);
    return nullptr;
  };
  return registerRoundTrip(
      group + "/updateIpPortAllowed", suffix, otherKeys, setup,
      [](Scene& scene) { scene.board.updateIpPortAllowed(kPlainAddress, kPort, true); }, setup,
      [](Scene& scene) { benchmark::DoNotOptimize(scene.floor.roundTrip(portKey(kPlainAddress, kPort), true)); }, into);
}

// isIpSecured while secured, on a published address; `alone` as above.
CaseNames isIpSecuredCases(const std::string& group, const std::string& suffix, std::size_t otherKeys, bool alone,
                           Group* into = nullptr) {
  const auto setup = [alone](Scene& scene) -> const char* {
    if (alone) scene.withdrawCasePairs();
    scene.secure();
    scene.publishAllPorts(kQueriedAddress);
    return nullptr;
  };
  return registerRoundTrip(
      group + "/isIpSecured", suffix, otherKeys, setup,
      [](Scene& scene) { benchmark::DoNotOptimize(scene.board.isIpSecured(kQueriedAddress)); }, setup,
      [](Scene& scene) { benchmark::DoNotOptimize(scene.floor.roundTrip(addressKey(kQueriedAddress), true)); }, into);
}

}  // namespace

void registerBoardBenchmarks() {
  const std::string section = "Board round trips (" + std::to_string(kHostKeys) + " other keys on the board)";

  updateSecuredCases(1, section);
  updateSecuredCases(8, section);

  addRoundTripRatio(section, "updateIpPortAllowed", updateIpPortAllowedCases("board", "", kHostKeys, false));

  {
    const auto setup = [](Scene& scene) -> const char* {
      scene.listenToPair(kListenedAddress, kPort);
      return nullptr;
    };
    addRoundTripRatio(section, "updateIpPortAllowed_listened",
                      registerRoundTrip(
                          "board/updateIpPortAllowed_listened", "", kHostKeys, setup,
                          [](Scene& scene) { scene.board.updateIpPortAllowed(kListenedAddress, kPort, true); }, setup,
                          [](Scene& scene) {
                            benchmark::DoNotOptimize(scene.floor.roundTrip(portKey(kListenedAddress, kPort), true));
                          }));
  }
  {
    const auto setup = [](Scene& scene) -> const char* {
      scene.publishPair(kSubscribedAddress, kPort);
      return nullptr;
    };
    addRoundTripRatio(
        section, "subscribeToIpPortAllowed",
        registerRoundTrip(
            "board/subscribeToIpPortAllowed", "", kHostKeys, setup,
            [](Scene& scene) { scene.board.subscribeToIpPortAllowed(kSubscribedAddress, kPort, scene.callback()); },
            setup,
            [](Scene& scene) {
              benchmark::DoNotOptimize(scene.floor.roundTrip(portKey(kSubscribedAddress, kPort), true));
            }));
  }

  addRoundTripRatio(section, "isIpSecured (secured)", isIpSecuredCases("board", "", kHostKeys, false));

  {
    Group group;
    const CaseNames names = registerRoundTrip(
        "board/updateAboutNewCreds", "", kHostKeys,
        [](Scene& scene) -> const char* {
          scene.connectNewCredentialsCallback();
          return nullptr;
        },
        [](Scene& scene) { scene.board.updateAboutNewCreds(); },
        [](Scene& scene) -> const char* {
          scene.storeFanOut(kNewCredentialsKey, 1);
          return nullptr;
        },
        [](Scene& scene) { benchmark::DoNotOptimize(scene.floor.roundTrip(std::string(kNewCredentialsKey), true)); },
        &group);
    addRoundTripRatio(section, "updateAboutNewCreds", names);
    addSignalLockFloor(group, section, "updateAboutNewCreds", names, kNewCredentialsKey,
                       [](Scene& scene) { scene.storeFanOut(kNewCredentialsKey, 1); });
  }

  {
    const auto setup = [](Scene& scene) -> const char* {
      scene.publishAllPorts(kAllPortsAddress);
      return nullptr;
    };
    // The board publishes the address, then each of the 7 ports: 8 floor round trips.
    const CaseNames names = registerRoundTrip(
        "board/updateIpAllPortsAllowed", "", kHostKeys, setup,
        [](Scene& scene) { scene.board.updateIpAllPortsAllowed(kAllPortsAddress, true); }, setup,
        [](Scene& scene) {
          benchmark::DoNotOptimize(scene.floor.roundTrip(addressKey(kAllPortsAddress), true));
          for (const int port : kDefaultPorts) {
            benchmark::DoNotOptimize(scene.floor.roundTrip(portKey(kAllPortsAddress, port), true));
          }
        });
    addRatio(section, "updateIpAllPortsAllowed (7 ports): vantor / 8 floor round trips", names.vantor, names.floor,
             Goal::AtMost, 1.3);
  }
}

// ---- two threads against one

void registerContentionBenchmarks() {
  const auto oneAndTwoThreads = [](benchmark::internal::Benchmark* benchmark) {
    benchmark->Threads(1)->Threads(2)->UseRealTime();
  };
  const auto publish = [](bool sameKey) {
    return [sameKey](benchmark::State& state) {
      Scene& scene = Scene::instance();
      if (state.thread_index() == 0) {  // the other thread waits at the start of the loop
        scene.setOtherKeys(kHostKeys);
        for (const std::string& address : kContendedAddresses) scene.publishPair(address, kPort);
      }
      const std::string& address = kContendedAddresses[sameKey ? 0 : static_cast<std::size_t>(state.thread_index())];
      for (auto _ : state) scene.board.updateIpPortAllowed(address, kPort, true);
    };
  };
  Group().add("contention/publish_distinct_keys", publish(false), oneAndTwoThreads).registerRounds();
  Group().add("contention/publish_same_key", publish(true), oneAndTwoThreads).registerRounds();
  Group()
      .add(
          "contention/emit_one_signal",
          [](benchmark::State& state) {
            static long count = 0;  // written only under the signal's mutex
            static vantor::tessel::Signal<bool> signal;
            static const vantor::tessel::Connection connection = signal.connect(CountTrue{&count});
            bool value = true;
            for (auto _ : state) signal.emit(value);
          },
          oneAndTwoThreads)
      .registerRounds();

  const std::string section =
      "Contention (time per operation over both threads; 0.5 = perfect scaling, 1 = serialised)";
  for (const char* name : {"publish_distinct_keys", "publish_same_key", "emit_one_signal"}) {
    const std::string base = std::string("contention/") + name + "/real_time/threads:";
    addRatio(section, std::string(name) + ": 2 threads / 1 thread", base + "2", base + "1");
  }
}

// ---- the same round trips with 10, 10 000 and 1 000 000 other keys

void registerScaleBenchmarks() {
  // One group over all sizes, since its ratios compare sizes too: each round grows the board from 10
  // to 1 000 000 keys, case by case in between, and the next round shrinks it back (a few seconds a
  // round). Measuring each size in a block of its own let a burst of load elsewhere move a
  // 10 000 / 10 ratio by half.
  Group scale;
  std::map<std::string, std::map<std::size_t, CaseNames>> names;  // case, keys
  for (const std::size_t keys : kScaleKeys) {
    const std::string suffix = "/" + std::to_string(keys);
    names["updateIpPortAllowed"][keys] = updateIpPortAllowedCases("scale", suffix, keys, true, &scale);
    names["isIpSecured"][keys] = isIpSecuredCases("scale", suffix, keys, true, &scale);
  }
  scale.registerRounds();

  const std::string section = "Scale (other keys on the board, and in the floor's map)";
  const std::size_t smallest = kScaleKeys.front();
  for (const auto& [name, bySize] : names) {
    for (const auto& [keys, pair] : bySize) {
      addRoundTripRatio(section, name + " with " + std::to_string(keys) + " keys", pair);
    }
    for (const auto& [keys, pair] : bySize) {
      if (keys == smallest) continue;
      const std::string label = name + ", " + std::to_string(keys) + " keys / " + std::to_string(smallest) + " keys";
      addRatio(section, label + ": vantor", pair.vantor, bySize.at(smallest).vantor, Goal::AtMost, 1.5);
      addRatio(section, label + ": floor", pair.floor, bySize.at(smallest).floor, Goal::None, 0.0,
               "reference: what the hash map alone costs");
    }
  }

  const std::string memory = "Memory (heap bytes per stored address key, malloc rounding included)";
  addValue(memory, "board", "heap_bytes_per_key/board", "B");
  addValue(memory, "floor map", "heap_bytes_per_key/floor", "B");
  addRatio(memory, "board / floor map", "heap_bytes_per_key/board", "heap_bytes_per_key/floor");
}

}  // namespace vantor_bench
