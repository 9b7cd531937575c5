// Decodes bytes into library operations (four bytes each: the operation and three parameters), runs
// each one on the model and on the library, and after every step compares the calls made, the
// exception raised, the board's entries and lock, the signal's handles and the contract's state.

#include "model/driver.hpp"

#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <type_traits>

#include "model/library_model.hpp"
#include "test_support.hpp"
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
const std::string kNames[] = {"Q", "Qu", "Q:a"}, kTopics[] = {"", "b", "a:b"};
// The address topic of "a:17161" is the port topic of ("a", 17161).
const std::string kAddresses[] = {"a", "a:17161", ""};
const int kPorts[] = {17161, 17178, -1};
const std::vector<int> kPortLists[] = {{}, {17161}, {17161, 17161}, {-1, 17178, 17161}, {17178, 17161, -1, 0}};
const Kind kSubscribers[] = {Kind::Record,   Kind::Record,  Kind::Empty, Kind::Throw,   Kind::Republish,
                             Kind::Withdraw, Kind::Replace, Kind::Query, Kind::SetPorts};
const Kind kSlots[] = {Kind::Record, Kind::Record, Kind::Empty, Kind::Throw, Kind::Reenter, Kind::Flag, Kind::Flag};
const Kind kContractSlots[] = {Kind::Record, Kind::Throw, Kind::Reenter, Kind::Query};
constexpr std::size_t kSlotsPerRun = 4;  // per contract signal
Logger theLogger;
const char* const kBoardLock = "the message board's lock";
const char* const kSignalLocks[] = {"the secured signal's lock", "the new-credentials signal's lock",
                                    "the security token signal's lock"};

// A token as the model writes it: -1 for none, else the byte all 32 equal (999 if they differ).
int code(const OptionalToken& token) {
  if (!token) return -1;
  for (const unsigned char byte : *token) {
    if (byte != token->front()) return 999;
  }
  return token->front();
}

// The operation a callback of the driver re-enters, and the lock it would wait for: a deadlock error
// must name both.
std::string reentered[2];
void reenters(std::string operation, std::string lock) {
  reentered[0] = std::move(operation), reentered[1] = std::move(lock);
}

// How a call ended, in the model's words.
template <typename Call>
std::string outcome(Call call) {
  try {
    call();
    return "ok";
  } catch (const Failure& failure) {
    return failure.what;
  } catch (const std::bad_function_call&) {
    return "empty";
  } catch (const std::system_error& error) {
    const std::string what = error.what();
    if (error.code() != std::errc::resource_deadlock_would_occur) return what;
    for (const std::string& part : reentered) {
      if (what.find(part) == std::string::npos) return "deadlock not naming " + part + ": " + what;
    }
    // One thread: a re-entry or a refused lock order, never a cycle between threads.
    if (what.find("already holds") == std::string::npos && what.find("while this thread holds") == std::string::npos) {
      return "deadlock not told as a re-entry: " + what;
    }
    return "deadlock";
  } catch (const std::invalid_argument&) {
    return "mismatch";
  } catch (const std::exception& error) {
    return error.what();
  }
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

  std::string run() {
    while (pos_ < size_ && failure_.empty()) {
      ++steps_;
      operation();
      if (failed_ && failure_.empty())
        step(
            "emit after a failure", [&] { model_.emit(0); }, [&] { signal_.emit(0); });
    }
    return failure_;
  }

 private:
  void operation() {
    Model& m = model_;
    failed_ = false;
    const int op = next() % 26, x = next(), y = next(), z = next(), c = x % 3, port = kPorts[x / 3 % 3];
    const int handles = static_cast<int>(handles_.size()), blockers = static_cast<int>(blockers_.size());
    const std::string &topic = kTopics[x / 3 % 3], key = kNames[c] + ":" + topic, &address = kAddresses[x % 3];
    switch (op) {
      case 0: {
        const Source sources[] = {Source::Empty, Source::Throw, Source::Reenter, Source::Logged};
        const Getter getter{sources[std::min(y % 8, 3)], y};
        return step(
            "update", [&] { m.update(key, getter); }, [&] { contract(c).update<int>(topic, libraryGetter(getter)); });
      }
      case 1:
        return step(
            "notify", [&] { m.notify(key, y); }, [&] { contract(c).notify<int>(topic, y); });
      case 2: {
        const Sub sub{++ids_, kSubscribers[y % 9], key, c, topic};
        return step(
            "subscribe", [&] { m.subscribe(key, sub); }, [&] { subscribe(sub); });
      }
      case 3:
        return step(
            "unsubscribe", [&] { m.unsubscribe(key); }, [&] { contract(c).unsubscribe(topic); });
      case 4:
        return step(
            "get", [&] { m.log.push_back(entry('v', 0, m.get(key).value_or(-1), false)); },
            [&] { log_.push_back(entry('v', 0, contract(c).get<int>(topic).value_or(-1), false)); });
      case 5: {  // naming bool for a key that holds int
        const auto found = m.board.find(key);
        const auto mismatch = [] { fail("mismatch"); };
        const bool getter = m.nonEmptyGetter(key),
                   sub = found != m.board.end() && found->second.sub && found->second.sub->kind != Kind::Empty;
        if (y % 3 == 0 && getter) return step("get<bool>", mismatch, [&] { contract(c).get<bool>(topic); });
        if (y % 3 == 1 && getter) {
          return step("subscribe<bool>", mismatch, [&] { contract(c).subscribe<bool>(topic, [](const bool&) {}); });
        }
        if (y % 3 == 2 && sub) return step("notify<bool>", mismatch, [&] { contract(c).notify<bool>(topic, true); });
        return;
      }
      case 6:
        return step(
            "destroy and recreate", [&] { m.purge(kNames[c]); },
            [&] { contracts_[c] = std::make_unique<TestContract>(kNames[c]); });
      case 7: {
        const Slot slot{kSlots[y % 7], z / 3 % 8, z % 3};  // the target may be connected later, or never
        return step(
            "connect", [&] { m.connect(slot); },
            [&] { handles_.push_back(signal_.connect(slotCallback(handles, slot))); });
      }
      case 8:
        return step(
            "emit", [&] { m.emit(y); }, [&] { signal_.emit(y); });
      case 9:
        if (handles == 0) return;
        return step(
            "flag", [&] { m.setFlag(y % handles, z % 3); }, [&] { setFlag(handles_[y % handles], z % 3); });
      case 10:
        if (handles == 0) return;
        return step(
            "block for a scope", [&] { m.pushBlocker(y % handles); },
            [&] { blockers_.push_back(std::make_unique<tessel::ConnectionBlocker>(handles_[y % handles])); });
      case 11:
        if (blockers == 0) return;
        return step(
            "end a block", [&] { m.popBlocker(y % blockers); },
            [&] { blockers_.erase(blockers_.begin() + y % blockers); });
      case 12:
        if (y % 2 == 1)
          return step(
              "release scoped", [&] { m.scoped = -1; }, [&] { scoped_.release(); });
        if (handles == 0) return;
        return step(
            "assign scoped", [&] { m.scopedAssign(z % handles); },
            [&] { scoped_ = tessel::ScopedConnection(handles_[z % handles]); });
      case 13:
        return step(
            "disconnectAll", [&] { m.disconnectAll(); }, [&] { signal_.disconnectAll(); });
      case 14:
        return step(
            "updateSecured", [&] { m.secured = y % 2, m.update("CyberSecurity:Secured", {Source::Secured}); },
            [&] { cs_.updateSecured(y % 2); });
      case 15:
        return step(
            "updateAboutNewCreds", [&] { m.notify("CyberSecurity:NewCredentials", 1); },
            [&] { cs_.updateAboutNewCreds(); });
      case 16: {
        const std::optional<int> token = y % 3 == 0 ? std::nullopt : std::optional<int>(y % 3 == 1 ? 0 : y);
        CyberSecurityContract::Token bytes;
        bytes.fill(static_cast<unsigned char>(token.value_or(0)));
        const auto publish = [&] { m.token = token, m.update("CyberSecurity:SecurityToken", {Source::Token}); };
        return step("updateSecurityToken", publish,
                    [&] { cs_.updateSecurityToken(token ? OptionalToken(bytes) : boost::none); });
      }
      case 17:
        return step(
            "updateIpPortAllowed",
            [&] {
              m.update(pairKey(address, port), {Source::Fixed, y % 2});
            },
            [&] { cs_.updateIpPortAllowed(address, port, y % 2); });
      case 18: {
        const auto walk = [&] {
          m.update(kIp + address, {Source::Fixed, y % 2});
          for (const int each : std::vector<int>(m.ports)) m.update(pairKey(address, each), {Source::Fixed, y % 2});
        };
        return step("updateIpAllPortsAllowed", walk, [&] { cs_.updateIpAllPortsAllowed(address, y % 2); });
      }
      case 19: {
        const Sub sub{++ids_, kSubscribers[y % 9], pairKey(address, port), -1, "", address, port};
        return step(
            "subscribeToIpPortAllowed", [&] { m.subscribe(sub.key, sub); }, [&] { subscribe(sub); });
      }
      case 20:
        return step(
            "unsubscribeFromIpPortAllowed", [&] { m.unsubscribe(pairKey(address, port)); },
            [&] { cs_.unsubscribeFromIpPortAllowed(address, port); });
      case 21:
        return step(
            "isIpSecured", [&] { m.log.push_back(entry('i', 0, m.isIpSecured(address, false), false)); },
            [&] { log_.push_back(entry('i', 0, cs_.isIpSecured(address), false)); });
      case 22:
        return step(
            "setTcpPortsVector", [&] { m.ports = kPortLists[y % 5]; },
            [&] {
              std::vector<int> ports = kPortLists[y % 5];
              cs_.setTcpPortsVector(std::move(ports));
              if (ports != kPortLists[y % 5]) log_.push_back("argument emptied");  // NOLINT: it must keep its elements
            });
      case 23: {  // sets a host hook (z % 2: the logger, the connection callback) to none, a recorder or a thrower
        const int hook = z % 2, kind = y % 3;
        CyberSecurityContract::LoggerHook logger;
        CyberSecurityContract::ConnectionCallback registrar;  // records as the model writes it
        if (kind == 1) logger = []() -> Logger& { return theLogger; };
        if (kind == 1) registrar = [this](auto& at, int p, bool f) { log_.push_back(entry('r', p, f, 0) + at); };
        if (kind == 2) logger = []() -> Logger& { throw std::runtime_error("thrown"); };
        if (kind == 2) registrar = [](const std::string&, int, bool) { throw std::runtime_error("thrown"); };
        return step(
            "set a host hook", [&] { m.hooks[hook] = kind; },
            [&] { hook ? cs_.setRegisterConnectonCallback(registrar) : cs_.setUserActivityLogger(logger); });
      }
      case 24: {  // calls a host hook
        const int hook = z % 2;
        const auto expected = [&] {
          if (m.hooks[hook] == 2 || (m.hooks[hook] == 0 && hook == 0)) fail(m.hooks[hook] ? "thrown" : "empty");
          if (m.hooks[hook] == 1) m.log.push_back(entry(hook ? 'r' : 'l', port, y % 2, 0) + (hook ? address : ""));
        };
        return step(hook ? "registerConnection" : "userActivityLogger", expected, [&] {
          if (hook == 1) return cs_.registerConnection(address, port, y % 2);
          if (&cs_.userActivityLogger() == &theLogger) log_.push_back(entry('l', port, y % 2, 0));
        });
      }
      case 25: {
        const int signal = y % 3, id = ++ids_;
        const Kind kind = kContractSlots[z % 4];
        if (m.contractSlots[signal].size() == kSlotsPerRun) return;
        return step(
            "connect to the contract", [&] { m.contractSlots[signal].emplace_back(id, kind); },
            [&] { connectContract(signal, contractSlot(signal, id, kind)); });
      }
    }
  }

  // Runs one operation on the model and on the library, then compares them.
  template <typename Expected, typename Actual>
  void step(const char* name, Expected expected, Actual actual) {
    model_.log.clear(), log_.clear();
    const std::string want = outcome(expected), got = outcome(actual);
    std::ostringstream out;
    if (got != want) out << "threw " << got << ", the model " << want << "; ";
    if (log_ != model_.log) out << "called [" << join(log_) << "], the model [" << join(model_.log) << "]; ";
    if (!BoardTestPeer::lockIsFree()) out << "the board lock is held; ";
    std::size_t entries = 0;
    for (const auto& [fullKey, entry] : model_.board) {
      entries += entry.getter.has_value() + entry.sub.has_value();
      if (BoardTestPeer::hasGetter(fullKey) != entry.getter.has_value() ||
          BoardTestPeer::hasSubscriber(fullKey) != entry.sub.has_value()) {
        out << "the entries of " << fullKey << " differ; ";
      }
    }
    if (BoardTestPeer::entriesWithPrefix("") != entries) out << "the board holds other entries; ";
    for (std::size_t index = 0; index < handles_.size(); ++index) {
      const Slot& slot = model_.slots[index];
      if (handles_[index].connected() != (!slot.erased && !slot.disconnected) ||
          handles_[index].blocked() != (!slot.erased && model_.blocked(slot)) ||
          (handles_[index] != handles_[index > 0 ? index - 1 : 0]) != (index > 0)) {
        out << "the handle of slot " << index << " differs; ";
      }
    }
    if (cs_.isSecured() != model_.secured || code(cs_.getSecurityToken()) != model_.token.value_or(-1) ||
        reader_.get<bool>("Secured") != boost::optional<bool>(model_.secured) ||
        code(reader_.get<CyberSecurityContract::Token>("SecurityToken")) != model_.token.value_or(0)) {
      out << "the secured flag or the token differ; ";
    }
    const auto* raw = reinterpret_cast<const unsigned char*>(&cs_.getSecurityToken());
    if (!model_.token && std::any_of(raw, raw + sizeof(OptionalToken), [](unsigned char b) { return b != 0; })) {
      out << "the cleared token's bytes were not wiped; ";
    }
    if (out.tellp() > 0) failure_ = "step " + std::to_string(steps_) + " (" + name + "): " + out.str();
    failed_ = want != "ok";
  }

  int next() { return pos_ < size_ ? data_[pos_++] : 0; }
  TestContract& contract(int index) { return *contracts_[index]; }
  int logged(char tag, int id, int value) {
    log_.push_back(entry(tag, id, value, BoardTestPeer::heldByThisThread()));
    return value;
  }

  Contract::Getter<int> libraryGetter(const Getter& getter) {
    switch (getter.source) {
      case Source::Empty: return {};
      case Source::Throw: return []() -> int { throw std::runtime_error("thrown"); };
      case Source::Reenter:
        return [this] { return reenters("Contract::get", kBoardLock), contract(0).get<int>("b").value_or(0); };
      default: return [this, value = getter.value] { return logged('g', 0, value); };
    }
  }

  void subscribe(const Sub& sub) {
    Contract::Subscriber<int> subscriber = [this, sub](const int& value) { act(sub, value); };
    if (sub.kind == Kind::Empty) subscriber = nullptr;
    CyberSecurityContract::FlagCallback callback;
    if (subscriber) callback = [subscriber](bool allowed) { subscriber(allowed); };
    if (sub.pair()) cs_.subscribeToIpPortAllowed(sub.address, sub.port, callback);
    if (!sub.pair()) contract(sub.contract).subscribe<int>(sub.topic, subscriber);
  }

  // What a board or pair subscriber does (see Kind).
  void act(const Sub& sub, int value) {
    logged('s', sub.id, value);
    if (sub.kind == Kind::Throw) throw std::runtime_error("thrown");
    const auto named = [&sub](const char* pair, const char* own) {
      reenters(sub.pair() ? std::string("CyberSecurityContract::") + pair : std::string("Contract::") + own,
               kBoardLock);
    };
    if (sub.kind == Kind::Republish && busy_.insert(sub.id).second) {
      Busy busy{busy_, sub.id};
      named("updateIpPortAllowed", "update");
      sub.pair() ? cs_.updateIpPortAllowed(sub.address, sub.port, value == 0)
                 : contract(sub.contract).update<int>(sub.topic, libraryGetter({Source::Logged, 1 - value}));
    }
    if (sub.kind == Kind::Withdraw) named("unsubscribeFromIpPortAllowed", "unsubscribe");
    if (sub.kind == Kind::Withdraw && sub.pair()) cs_.unsubscribeFromIpPortAllowed(sub.address, sub.port);
    if (sub.kind == Kind::Withdraw && !sub.pair()) contract(sub.contract).unsubscribe(sub.topic);
    if (sub.kind == Kind::Replace) {
      Sub replacement = sub;
      replacement.id += 1000, replacement.kind = Kind::Record;
      named("subscribeToIpPortAllowed", "subscribe");
      subscribe(replacement);
    }
    if (sub.kind == Kind::Query) {
      named("isIpSecured", "get");
      log_.push_back(entry(
          'q', sub.id,
          sub.pair() ? cs_.isIpSecured(sub.address) : contract(sub.contract).get<int>(sub.topic).value_or(-1), false));
    }
    if (sub.kind == Kind::SetPorts) cs_.setTcpPortsVector({-1, 17161});
  }

  tessel::Signal<int>::Callback slotCallback(int index, const Slot& slot) {
    if (slot.kind == Kind::Empty) return {};
    return [this, index, slot](int value) {
      log_.push_back(entry('x', index, value, false));
      if (slot.kind == Kind::Throw) throw std::runtime_error("thrown");
      if (slot.kind == Kind::Flag && slot.target < static_cast<int>(handles_.size())) {
        setFlag(handles_[slot.target], slot.action);
      }
      if (slot.kind != Kind::Reenter) return;
      reenters(slot.action == 0   ? "Signal::emit"
               : slot.action == 1 ? "Signal::connect"
                                  : "Signal::disconnectAll",
               "a signal's lock");
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
      const char* operations[] = {"updateSecured", "updateAboutNewCreds", "updateSecurityToken"};
      reenters(std::string("CyberSecurityContract::") + operations[signal], kSignalLocks[signal]);
      if (signal == 0) cs_.updateSecured(value != 0);
      if (signal == 1) cs_.updateAboutNewCreds();
      if (signal == 2) cs_.updateSecurityToken(OptionalToken(cs_.getSecurityToken()));
    };
  }
  void connectContract(int signal, std::function<void(int)> behaviour) {
    const auto token = [behaviour](const OptionalToken& value) { behaviour(code(value)); };
    if (signal == 0) owned_.emplace_back(cs_.connectSecuredSignalWithHandle(behaviour));
    if (signal == 1) owned_.emplace_back(cs_.connectNewCredentialsSignalWithHandle(behaviour));
    if (signal == 2) owned_.emplace_back(cs_.connectSecurityTokenSignalWithHandle(token));
  }

  const std::uint8_t* data_;
  std::size_t size_, pos_ = 0;
  int steps_ = 0, ids_ = 0;
  bool failed_ = false;
  std::string failure_;
  Model model_;
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
