// Decodes bytes into library operations (four bytes each: the operation and three parameters), runs
// each one on the model and on the library, and after every step compares the calls made, the
// exception raised, the board's entries and locks, the signal's handles and the contract's state.

#include "model/driver.hpp"

#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>

#include "board_test_peer.hpp"
#include "model/library_model.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

class Logger {};

namespace vantor::model {
namespace {

using messaging::BoardTestPeer;
using messaging::Contract;
using messaging::CyberSecurityContract;
using messaging::TestContract;
using OptionalToken = CyberSecurityContract::OptionalToken;

// Names that are prefixes of each other, and "Q:a" whose topic "b" has the key of topic "a:b" of "Q".
const std::string kNames[] = {"Q", "Qu", "Q:a"};
const std::string kTopics[] = {"", "b", "a:b"};
// The address topic of "a:17161" is the port topic of ("a", 17161).
const std::string kAddresses[] = {"a", "a:17161", ""};
const int kPorts[] = {17161, 17178, -1};
const std::vector<int> kPortLists[] = {{}, {17161}, {17161, 17161}, {-1, 17178, 17161}, {17178, 17161, -1, 0}};
const Kind kSubscribers[] = {Kind::Record,   Kind::Record,  Kind::Empty, Kind::Throw,   Kind::Republish,
                             Kind::Withdraw, Kind::Replace, Kind::Query, Kind::SetPorts};
const Kind kSlots[] = {Kind::Record, Kind::Record, Kind::Empty, Kind::Throw, Kind::Reenter, Kind::Flag, Kind::Flag};
const Kind kContractSlots[] = {Kind::Record, Kind::Throw, Kind::Reenter, Kind::Query};
constexpr std::size_t kSlotsPerRun = 4;  // per contract signal

// Whether the contract's connect operations can hand back a Connection. Without that, slots connected
// to the contract stay for the process's lifetime: each signal then gets kSlotsPerRun slots once, and
// a run's k-th connect lends slot k a behaviour until the run ends.
template <typename C, typename = void>
struct HasHandles : std::false_type {};
template <typename C>
struct HasHandles<C, std::void_t<decltype(&C::connectSecuredSignalWithHandle)>> : std::true_type {};
std::function<void(int)> lent[3][kSlotsPerRun];

Logger loggers[2];

// A token as the model writes it: -1 for none, else the byte all 32 equal (999 if they differ).
int code(const OptionalToken& token) {
  if (!token) return -1;
  for (const unsigned char byte : *token) {
    if (byte != token->front()) return 999;
  }
  return token->front();
}

std::string join(const std::vector<std::string>& items) {
  std::string joined;
  for (const std::string& item : items) joined += item + " ";
  return joined;
}

class Driver {
 public:
  Driver(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {
    { TestContract sweep("CyberSecurity:IP:"); }  // its purge removes every address and pair topic
    static bool first = true;
    if (!std::exchange(first, false)) cs_.setTcpPortsVector(std::vector<int>(model_.ports));  // else the defaults
    cs_.updateSecured(false);
    cs_.updateSecurityToken(boost::none);
    cs_.setUserActivityLogger({});
    cs_.setRegisterConnectonCallback({});
    for (int index = 0; index < 3; ++index) contracts_[index] = std::make_unique<TestContract>(kNames[index]);
  }
  ~Driver() {
    for (auto& signal : lent) {
      for (auto& slot : signal) slot = nullptr;
    }
  }

  std::string run() {
    while (pos_ < size_ && failure_.empty()) {
      ++steps_;
      operation();
      if (failed_ && failure_.empty()) step("emit after a failure", [&] { model_.emit(0); }, [&] { signal_.emit(0); });
    }
    return failure_;
  }

 private:
  int next() { return pos_ < size_ ? data_[pos_++] : 0; }

  void operation() {
    failed_ = false;
    const int op = next() % 26, x = next(), y = next(), z = next();
    const int c = x % 3, port = kPorts[x / 3 % 3], handles = static_cast<int>(handles_.size());
    const std::string &topic = kTopics[x / 3 % 3], key = kNames[c] + ":" + topic, &address = kAddresses[x % 3];
    switch (op) {
      case 0: {
        const Getter getter{y % 8 == 0 ? Source::Empty : y % 8 == 1 ? Source::Throw : y % 8 == 2 ? Source::Reenter : Source::Logged, y};
        return step("update", [&] { model_.update(key, getter); }, [&] { contract(c).update<int>(topic, libraryGetter(getter)); });
      }
      case 1: return step("notify", [&] { model_.notify(key, y); }, [&] { contract(c).notify<int>(topic, y); });
      case 2: {
        const Sub sub{++ids_, kSubscribers[y % 9], key, c, topic};
        return step("subscribe", [&] { model_.subscribe(key, sub); }, [&] { subscribe(sub); });
      }
      case 3: return step("unsubscribe", [&] { model_.unsubscribe(key); }, [&] { contract(c).unsubscribe(topic); });
      case 4:
        return step("get", [&] { model_.log.push_back(entry('v', 0, model_.get(key).value_or(-1), false)); },
                    [&] { log_.push_back(entry('v', 0, contract(c).get<int>(topic).value_or(-1), false)); });
      case 5: {  // naming bool for a key that holds int
        const auto found = model_.board.find(key);
        const bool sub = found != model_.board.end() && found->second.sub && found->second.sub->kind != Kind::Empty;
        const auto mismatch = [] { fail("mismatch"); };
        if (y % 3 == 0 && model_.nonEmptyGetter(key)) return step("get<bool>", mismatch, [&] { contract(c).get<bool>(topic); });
        if (y % 3 == 1 && model_.nonEmptyGetter(key)) {
          return step("subscribe<bool>", mismatch, [&] { contract(c).subscribe<bool>(topic, [](const bool&) {}); });
        }
        if (y % 3 == 2 && sub) return step("notify<bool>", mismatch, [&] { contract(c).notify<bool>(topic, true); });
        return;
      }
      case 6:
        return step("destroy and recreate", [&] { model_.purge(kNames[c]); },
                    [&] { contracts_[c] = std::make_unique<TestContract>(kNames[c]); });
      case 7: {
        const Slot slot{kSlots[y % 7], z / 3 % 8, z % 3};  // the target may be connected later, or never
        return step("connect", [&] { model_.connect(slot); },
                    [&] { handles_.push_back(signal_.connect(slotCallback(handles, slot))); });
      }
      case 8: return step("emit", [&] { model_.emit(y); }, [&] { signal_.emit(y); });
      case 9:
        if (handles == 0) return;
        return step("flag", [&] { model_.setFlag(y % handles, z % 3); }, [&] { setFlag(handles_[y % handles], z % 3); });
      case 10:
        if (handles == 0) return;
        return step("block for a scope", [&] { model_.pushBlocker(y % handles); },
                    [&] { blockers_.push_back(std::make_unique<tessel::ConnectionBlocker>(handles_[y % handles])); });
      case 11:
        if (blockers_.empty()) return;
        return step("end a block", [&] { model_.popBlocker(y % blockers_.size()); },
                    [&] { blockers_.erase(blockers_.begin() + static_cast<long>(y % blockers_.size())); });
      case 12:
        if (y % 2 == 1) return step("release scoped", [&] { model_.scoped = -1; }, [&] { scoped_.release(); });
        if (handles == 0) return;
        return step("assign scoped", [&] { model_.scopedAssign(z % handles); },
                    [&] { scoped_ = tessel::ScopedConnection(handles_[z % handles]); });
      case 13: return step("disconnectAll", [&] { model_.disconnectAll(); }, [&] { signal_.disconnectAll(); });
      case 14:
        return step("updateSecured", [&] { model_.secured = y % 2, model_.update("CyberSecurity:Secured", {Source::Secured}); },
                    [&] { cs_.updateSecured(y % 2); });
      case 15:
        return step("updateAboutNewCreds", [&] { model_.notify("CyberSecurity:NewCredentials", 1); },
                    [&] { cs_.updateAboutNewCreds(); });
      case 16: {
        const std::optional<int> token = y % 3 == 0 ? std::nullopt : std::optional<int>(y % 3 == 1 ? 0 : y);
        CyberSecurityContract::Token bytes;
        bytes.fill(static_cast<unsigned char>(token.value_or(0)));
        return step("updateSecurityToken", [&] { model_.token = token, model_.update("CyberSecurity:SecurityToken", {Source::Token}); },
                    [&] { cs_.updateSecurityToken(token ? OptionalToken(bytes) : boost::none); });
      }
      case 17:
        return step("updateIpPortAllowed", [&] { model_.update(pairKey(address, port), {Source::Fixed, y % 2}); },
                    [&] { cs_.updateIpPortAllowed(address, port, y % 2); });
      case 18:
        return step("updateIpAllPortsAllowed",
                    [&] {
                      model_.update(kIp + address, {Source::Fixed, y % 2});
                      for (const int each : std::vector<int>(model_.ports)) model_.update(pairKey(address, each), {Source::Fixed, y % 2});
                    },
                    [&] { cs_.updateIpAllPortsAllowed(address, y % 2); });
      case 19: {
        const Sub sub{++ids_, kSubscribers[y % 9], pairKey(address, port), -1, "", address, port};
        return step("subscribeToIpPortAllowed", [&] { model_.subscribe(sub.key, sub); }, [&] { subscribe(sub); });
      }
      case 20:
        return step("unsubscribeFromIpPortAllowed", [&] { model_.unsubscribe(pairKey(address, port)); },
                    [&] { cs_.unsubscribeFromIpPortAllowed(address, port); });
      case 21:
        return step("isIpSecured", [&] { model_.log.push_back(entry('i', 0, model_.isIpSecured(address, false), false)); },
                    [&] { log_.push_back(entry('i', 0, cs_.isIpSecured(address), false)); });
      case 22:
        return step("setTcpPortsVector", [&] { model_.ports = kPortLists[y % 5]; },
                    [&] {
                      std::vector<int> ports = kPortLists[y % 5];
                      cs_.setTcpPortsVector(std::move(ports));
                      if (ports != kPortLists[y % 5]) log_.push_back("argument emptied");  // NOLINT: it must keep them
                    });
      case 23: return logger(y % 5);
      case 24: return registrar(y % 4, address, port, z % 2);
      case 25: {
        const int signal = y % 3;
        const Kind kind = kContractSlots[z % 4];
        if (model_.contractSlots[signal].size() == kSlotsPerRun) return;
        const int id = ++ids_, index = static_cast<int>(model_.contractSlots[signal].size());
        return step("connect to the contract", [&] { model_.contractSlots[signal].emplace_back(id, kind); },
                    [&] { connectContract(cs_, signal, index, contractSlot(signal, id, kind)); });
      }
    }
  }

  void logger(int kind) {
    if (kind == 4) {
      return step("userActivityLogger",
                  [&] {
                    if (model_.logger % 3 == 0) fail(model_.logger == 0 ? "empty" : "thrown");
                    model_.log.push_back(entry('l', model_.logger, 0, false));
                  },
                  [&] {
                    const Logger& logger = cs_.userActivityLogger();
                    log_.push_back(entry('l', &logger == &loggers[0] ? 1 : &logger == &loggers[1] ? 2 : 0, 0, false));
                  });
    }
    CyberSecurityContract::LoggerHook hook;
    if (kind == 1 || kind == 2) hook = [kind]() -> Logger& { return loggers[kind - 1]; };
    if (kind == 3) hook = []() -> Logger& { throw std::runtime_error("thrown"); };
    step("setUserActivityLogger", [&] { model_.logger = kind; }, [&] { cs_.setUserActivityLogger(hook); });
  }

  void registrar(int kind, const std::string& address, int port, bool allowed) {
    const std::string call = "r" + address + "/" + std::to_string(port) + "/" + std::to_string(allowed);
    if (kind == 3) {
      return step("registerConnection",
                  [&] {
                    if (model_.registrar == 2) fail("thrown");
                    if (model_.registrar == 1) model_.log.push_back(call);
                  },
                  [&] { cs_.registerConnection(address, port, allowed); });
    }
    CyberSecurityContract::ConnectionCallback callback;
    if (kind == 1) callback = [this](const std::string& a, int p, bool f) { log_.push_back("r" + a + "/" + std::to_string(p) + "/" + std::to_string(f)); };
    if (kind == 2) callback = [](const std::string&, int, bool) { throw std::runtime_error("thrown"); };
    step("setRegisterConnectonCallback", [&] { model_.registrar = kind; }, [&] { cs_.setRegisterConnectonCallback(callback); });
  }

  // Runs one operation on the model and on the library, then compares them.
  template <typename Expected, typename Actual>
  void step(const char* name, Expected expected, Actual actual) {
    model_.log.clear();
    log_.clear();
    std::string want = "ok", got = "ok";
    try {
      expected();
    } catch (const Failure& failure) {
      want = failure.what;
    }
    try {
      actual();
    } catch (const std::bad_function_call&) {
      got = "empty";
    } catch (const std::system_error& error) {
      got = error.code() == std::errc::resource_deadlock_would_occur ? "deadlock" : error.what();
    } catch (const std::invalid_argument&) {
      got = "mismatch";
    } catch (const std::exception& error) {
      got = error.what();
    }
    std::ostringstream out;
    if (got != want) out << "threw " << got << ", the model " << want << "; ";
    if (log_ != model_.log) out << "called [" << join(log_) << "], the model [" << join(model_.log) << "]; ";
    check(out);
    if (out.tellp() > 0) failure_ = "step " + std::to_string(steps_) + " (" + name + "): " + out.str();
    failed_ = want != "ok";
  }

  void check(std::ostringstream& out) {
    if (!BoardTestPeer::lockIsFree()) out << "the board lock is held; ";
    std::size_t entries = 0;
    for (const auto& [key, entry] : model_.board) {
      entries += entry.getter.has_value() + entry.sub.has_value();
      if (BoardTestPeer::hasGetter(key) != entry.getter.has_value() || BoardTestPeer::hasSubscriber(key) != entry.sub.has_value()) {
        out << "the entries of " << key << " differ; ";
      }
    }
    if (BoardTestPeer::entriesWithPrefix("") != entries) out << "the board holds other entries; ";
    for (std::size_t index = 0; index < handles_.size(); ++index) {
      const Slot& slot = model_.slots[index];
      if (handles_[index].connected() != (!slot.erased && !slot.disconnected) ||
          handles_[index].blocked() != (!slot.erased && model_.blocked(slot)) ||
          (handles_[index] != handles_[index > 0 ? index - 1 : 0]) != (index > 0)) {
        out << "the flags of slot " << index << " differ; ";
      }
    }
    if (cs_.isSecured() != model_.secured || code(cs_.getSecurityToken()) != model_.token.value_or(-1) ||
        reader_.get<bool>("Secured") != boost::optional<bool>(model_.secured) ||
        code(reader_.get<CyberSecurityContract::Token>("SecurityToken")) != model_.token.value_or(0)) {
      out << "the secured flag or the token differ; ";
    }
  }

  TestContract& contract(int index) { return *contracts_[index]; }

  Contract::Getter<int> libraryGetter(const Getter& getter) {
    switch (getter.source) {
      case Source::Empty: return {};
      case Source::Throw: return []() -> int { throw std::runtime_error("thrown"); };
      case Source::Reenter: return [this] { return contract(0).get<int>("b").value_or(0); };
      default: return [this, value = getter.value] { return logged('g', 0, value); };
    }
  }
  int logged(char tag, int id, int value) {
    log_.push_back(entry(tag, id, value, BoardTestPeer::heldByThisThread()));
    return value;
  }

  void subscribe(const Sub& sub) {
    using Flag = CyberSecurityContract::FlagCallback;
    using Subscriber = Contract::Subscriber<int>;
    const bool empty = sub.kind == Kind::Empty;
    if (sub.pair()) {
      cs_.subscribeToIpPortAllowed(sub.address, sub.port, empty ? Flag() : Flag([this, sub](bool value) { act(sub, value); }));
    } else {
      contract(sub.contract).subscribe<int>(sub.topic, empty ? Subscriber() : Subscriber([this, sub](const int& value) { act(sub, value); }));
    }
  }

  // What a board or pair subscriber does (see Kind).
  void act(const Sub& sub, int value) {
    logged('s', sub.id, value);
    switch (sub.kind) {
      case Kind::Throw: throw std::runtime_error("thrown");
      case Kind::Republish:
        if (busy_.insert(sub.id).second) {
          Model::Unbusy unbusy{busy_, sub.id};
          sub.pair() ? cs_.updateIpPortAllowed(sub.address, sub.port, value == 0)
                     : contract(sub.contract).update<int>(sub.topic, libraryGetter({Source::Logged, 1 - value}));
        }
        break;
      case Kind::Withdraw:
        sub.pair() ? cs_.unsubscribeFromIpPortAllowed(sub.address, sub.port) : contract(sub.contract).unsubscribe(sub.topic);
        break;
      case Kind::Replace: {
        Sub replacement = sub;
        replacement.id += 1000;
        replacement.kind = Kind::Record;
        subscribe(replacement);
        break;
      }
      case Kind::Query: {
        const int answer = sub.pair() ? cs_.isIpSecured(sub.address) : contract(sub.contract).get<int>(sub.topic).value_or(-1);
        log_.push_back(entry('q', sub.id, answer, false));
        break;
      }
      case Kind::SetPorts: cs_.setTcpPortsVector({-1, 17161}); break;
      default: break;
    }
  }

  tessel::Signal<int>::Callback slotCallback(int index, const Slot& slot) {
    if (slot.kind == Kind::Empty) return {};
    return [this, index, slot](int value) {
      log_.push_back(entry('x', index, value, false));
      if (slot.kind == Kind::Throw) throw std::runtime_error("thrown");
      if (slot.kind == Kind::Flag && slot.target < static_cast<int>(handles_.size())) setFlag(handles_[slot.target], slot.action);
      if (slot.kind != Kind::Reenter) return;
      if (slot.action == 0) signal_.emit(value);
      if (slot.action == 1) signal_.connect({});
      if (slot.action == 2) signal_.disconnectAll();
    };
  }
  static void setFlag(const tessel::Connection& connection, int action) {
    if (action == 0) connection.disconnect();
    if (action == 1) connection.block();
    if (action == 2) connection.unblock();
  }

  std::function<void(int)> contractSlot(int signal, int id, Kind kind) {
    return [this, signal, id, kind](int value) {
      logged('c', id, value);
      if (kind == Kind::Throw) throw std::runtime_error("thrown");
      if (kind == Kind::Query) log_.push_back(entry('q', id, cs_.isIpSecured("a"), false));
      if (kind != Kind::Reenter) return;
      if (signal == 0) cs_.updateSecured(value != 0);
      if (signal == 1) cs_.updateAboutNewCreds();
      if (signal == 2) cs_.updateSecurityToken(OptionalToken(cs_.getSecurityToken()));
    };
  }
  template <typename C>
  void connectContract(C& cs, int signal, int index, std::function<void(int)> behaviour) {
    if constexpr (HasHandles<C>::value) {
      const auto token = [behaviour](const OptionalToken& value) { behaviour(code(value)); };
      if (signal == 0) owned_.emplace_back(cs.connectSecuredSignalWithHandle(behaviour));
      if (signal == 1) owned_.emplace_back(cs.connectNewCredentialsSignalWithHandle(behaviour));
      if (signal == 2) owned_.emplace_back(cs.connectSecurityTokenSignalWithHandle(token));
    } else {
      static const bool connected = [&cs] {
        for (std::size_t k = 0; k < kSlotsPerRun; ++k) {
          cs.connectSecuredSignal([k](bool value) { if (lent[0][k]) lent[0][k](value); });
          cs.connectNewCredentialsSignal([k](bool value) { if (lent[1][k]) lent[1][k](value); });
          cs.connectSecurityTokenSignal([k](const OptionalToken& value) { if (lent[2][k]) lent[2][k](code(value)); });
        }
        return true;
      }();
      lent[signal][index] = connected ? std::move(behaviour) : nullptr;
    }
  }

  const std::uint8_t* data_;
  std::size_t size_, pos_ = 0;
  int steps_ = 0, ids_ = 0;
  bool failed_ = false;
  std::string failure_;
  Model model_{HasHandles<CyberSecurityContract>::value};  // blockers count once the handles exist
  std::vector<std::string> log_;
  std::set<int> busy_;
  CyberSecurityContract& cs_ = CyberSecurityContract::instance();
  TestContract reader_{"CyberSecurity", /*purgeOnDestroy=*/false};
  std::unique_ptr<TestContract> contracts_[3];
  tessel::Signal<int> signal_;
  std::vector<tessel::Connection> handles_;
  std::vector<std::unique_ptr<tessel::ConnectionBlocker>> blockers_;
  tessel::ScopedConnection scoped_;
  std::vector<tessel::ScopedConnection> owned_;
};

}  // namespace

std::string runOperations(const std::uint8_t* data, std::size_t size) { return Driver(data, size).run(); }

}  // namespace vantor::model
