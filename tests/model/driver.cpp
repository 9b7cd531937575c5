// Decodes bytes into library operations (four bytes each: the operation and three parameters), runs
// each one on the model and then on the library through the same Api (library_model.hpp), and after
// every step compares the calls made, the exception raised, the board's entries and lock, the signal's
// handles and the contract's state.

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "model/library_model.hpp"
#include "test_support.hpp"
#include "vantor/messaging/contract_cyber_security.hpp"

class Logger {};

namespace vantor::model {
namespace {

using namespace messaging;  // NOLINT(google-build-using-namespace): the library under test
using OptionalToken = CyberSecurityContract::OptionalToken;
using Listener = std::function<void(bool)>;

const std::string kTopics[] = {"", "b", "a:b"};
// The address topic of "a:17161" is the port topic of ("a", 17161).
const std::string kAddresses[] = {"a", "a:17161", ""};
const int kPorts[] = {17161, 17178, -1};
const std::vector<int> kPortLists[] = {{}, {17161}, {17161, 17161}, {-1, 17178, 17161}, {17178, 17161, -1, 0}};
const Source kSources[] = {Source::Empty, Source::Throw, Source::Reenter, Source::Logged};
const Kind kSubscribers[] = {Kind::Record,   Kind::Record,  Kind::Empty, Kind::Throw,    Kind::Echo,
                             Kind::Withdraw, Kind::Replace, Kind::Query, Kind::SetPorts, Kind::Connect};
const Kind kSlots[] = {Kind::Record,  Kind::Record, Kind::Empty, Kind::Throw,
                       Kind::Reenter, Kind::Flag,   Kind::Query, Kind::Drop};
const Kind kContractSlots[] = {Kind::Record, Kind::Throw, Kind::Reenter, Kind::Query, Kind::Flag};
Logger theLogger;

// A token as the model writes it: none, or the byte all 32 equal (999 if they differ).
std::optional<int> code(const OptionalToken& token) {
  if (!token) return std::nullopt;
  return std::count(token->begin(), token->end(), token->front()) == 32 ? token->front() : 999;
}

class Driver {
 public:
  // The first run in a process starts from the contract's defaults, and checks them first: it calls
  // both hooks before any is set, and walks the default ports to two of their listeners. Later runs
  // start from the same state, put back.
  explicit Driver(const std::string& bytes) : bytes_(bytes.begin(), bytes.end()) {
    { TestContract sweep("CyberSecurity:IP:"); }  // its purge removes every address and pair topic
    static bool first = true;
    if (std::exchange(first, false)) {
      // Call the logger hook, the connection callback; listen to ("a", 17161) and ("a", 17178); allow "a".
      bytes_.insert(bytes_.begin(), {24, 0, 0, 0, 24, 0, 0, 1, 19, 0, 0, 0, 19, 3, 0, 0, 18, 0, 1, 0});
    } else {
      cs_.setTcpPortsVector(std::vector<int>(model_.ports)), cs_.updateSecured(false);
      cs_.updateSecurityToken(boost::none);
      model_.updateSecured(false), model_.updateSecurityToken(std::nullopt);  // which leaves both getters stored
    }
    for (int index = 0; index < 3; ++index) contracts_[index] = std::make_unique<TestContract>(kNames[index]);
  }

  // Unsets the hooks at the end, since they point to this driver: none is destroyed once it is gone.
  std::string run() {
    while (pos_ < bytes_.size() && failure_.empty()) {
      if (operation() && failure_.empty()) step("emit after a failure", [](auto& api) { api.emit(0); });
    }
    cs_.setUserActivityLogger({}), cs_.setRegisterConnectonCallback({});
    return failure_;
  }

  // ---- the library, under the model's names (library_model.hpp lists them) -------------------------
  std::string log;
  bool underBoardLock() { return BoardTestPeer::heldByThisThread(); }
  // Values with bit 3 set reach the board as callables other than a std::function, through publish(): a
  // null pointer to a function for an empty getter, and one too large for the stored form's own buffer.
  void update(const Topic& topic, Getter getter) {
    if (topic.pair()) return cs_.updateIpPortAllowed(topic.address, topic.port, getter.value != 0);
    TestContract& owner = contract(topic);
    if ((getter.value & 8) == 0) return owner.update<int>(topic.topic, libraryGetter(getter));
    if (getter.source == Source::Empty)
      return owner.publish<int>(owner.key(topic.topic), static_cast<int (*)()>(nullptr), "Contract::update");
    const std::array<int, 16> large{};
    owner.publish<int>(
        owner.key(topic.topic), [this, getter, large] { return produce(*this, getter) + large[0]; },
        "Contract::update");
  }
  void notify(const Topic& topic, int value) { contract(topic).notify<int>(topic.topic, value); }
  void subscribe(const Sub& sub) {
    const auto act = [this, sub](int value) { actAsSubscriber(*this, sub, value); };
    const bool none = sub.kind == Kind::Empty;
    const Topic& topic = sub.topic;
    if (topic.pair()) return cs_.subscribeToIpPortAllowed(topic.address, topic.port, none ? nullptr : Listener(act));
    contract(topic).subscribe<int>(topic.topic, none ? nullptr : Contract::Subscriber<int>(act));
  }
  void unsubscribe(const Topic& topic) {
    if (topic.pair()) return cs_.unsubscribeFromIpPortAllowed(topic.address, topic.port);
    contract(topic).unsubscribe(topic.topic);
  }
  int get(const Topic& topic) { return contract(topic).get<int>(topic.topic).value_or(-1); }
  void mismatch(const Topic& topic, int how) {
    if (how == 5) contract(topic).connectTopic<bool>(topic.topic, [](const bool&) {});
    if (how == 0) contract(topic).get<bool>(topic.topic);
    if (how == 1) contract(topic).subscribe<bool>(topic.topic, [](const bool&) {});
    if (how == 2) contract(topic).notify<bool>(topic.topic, true);
    if (how == 3) contract(topic).update<bool>(topic.topic, [] { return true; });
  }
  void recreate(int index) { contracts_[index] = std::make_unique<TestContract>(kNames[index]); }
  void connectTopic(const Sub& listener) {
    if (listener.owner == static_cast<int>(owners_.size()))
      owners_.push_back(std::make_shared<Owner>(this, listener.owner));
    const auto act = [this, listener](int value) { actAsSubscriber(*this, listener, value, 't'); };
    const bool none = listener.kind == Kind::Empty;
    const Topic& topic = listener.topic;
    const auto connectWith = [&](const auto&... owner) {
      if (topic.pair())
        return cs_.connectIpPortAllowed(topic.address, topic.port, none ? nullptr : Listener(act), owner...);
      return contract(topic).connectTopic<int>(topic.topic, none ? nullptr : Contract::Listener<int>(act), owner...);
    };
    listeners_.push_back(listener.owner < 0 ? connectWith() : connectWith(owners_[listener.owner]));
  }
  void disconnectListener(int index) { listeners_[index].disconnect(); }
  int isIpPortAllowed(const Topic& p) {
    return std::optional<int>(cs_.isIpPortAllowed(p.address, p.port)).value_or(-1);
  }

  void connect(const Slot& slot) {
    const int index = static_cast<int>(handles_.size());
    if (slot.owner == static_cast<int>(owners_.size())) owners_.push_back(std::make_shared<Owner>(this, slot.owner));
    // A tracked slot's owner lives until its call returns, also when the call releases the test's reference.
    const auto act = [this, index, slot, owner = slot.owner < 0 ? std::weak_ptr<Owner>() : owners_[slot.owner]](int v) {
      actAsSlot(*this, -1, index, slot, v);
      if (slot.owner >= 0 && owner.expired()) log += "its owner died while it ran ";
    };
    const tessel::Signal<int>::ExtendedCallback self = [this, index, act](const tessel::Connection& own, int v) {
      if (own != handles_[index]) log += "handed another slot's connection ";
      act(v);
    };
    const bool none = slot.kind == Kind::Empty;
    const auto connectWith = [&](const auto&... owner) {
      return slot.extended ? signal_->connectExtended(none ? nullptr : self, owner...)
                           : signal_->connect(none ? nullptr : tessel::Signal<int>::Callback(act), owner...);
    };
    if (slot.owner < 0) return handles_.push_back(connectWith());
    // An extended slot's owner shares the owner's control block but stores a null pointer: alive all the same.
    handles_.push_back(slot.extended ? connectWith(std::shared_ptr<Owner>(owners_[slot.owner], nullptr))
                                     : connectWith(owners_[slot.owner]));
  }
  void releaseOwner(int index) {
    if (index < static_cast<int>(owners_.size())) owners_[index].reset();
  }
  void emit(int value) { (*signal_)(value); }
  std::size_t slotCount() const { return signal_->slotCount(); }
  void setFlag(int index, int action) {
    if (index >= static_cast<int>(handles_.size())) return;
    if (action == 0) handles_[index].disconnect();
    if (action == 1) handles_[index].block();
    if (action == 2) handles_[index].unblock();
  }
  void pushBlocker(int index) { blockers_.push_back(std::make_unique<tessel::ConnectionBlocker>(handles_[index])); }
  void popBlocker(int which) { blockers_.erase(blockers_.begin() + which); }
  void assignScoped(int index) {
    if (index < 0) return static_cast<void>(scoped_.release());
    scoped_ = tessel::ScopedConnection(handles_[index]);
  }
  void disconnectAll() { signal_->disconnectAll(); }
  void rebuildSignal() { signal_.emplace(); }

  void updateSecured(bool secured) { cs_.updateSecured(secured); }
  void updateAboutNewCreds() { cs_.updateAboutNewCreds(); }
  void updateSecurityToken(std::optional<int> token) {
    CyberSecurityContract::Token bytes;
    bytes.fill(static_cast<unsigned char>(token.value_or(0)));
    cs_.updateSecurityToken(token ? OptionalToken(bytes) : boost::none);
  }
  std::optional<int> securityToken() { return code(cs_.getSecurityToken()); }
  void updateIpAllPortsAllowed(const std::string& address, bool on) { cs_.updateIpAllPortsAllowed(address, on); }
  bool isIpSecured(const std::string& address) { return cs_.isIpSecured(address); }
  void setPorts(const std::vector<int>& ports) {
    std::vector<int> argument = ports;
    cs_.setTcpPortsVector(std::move(argument));
    if (argument != ports) log += "argument emptied ";  // NOLINT(bugprone-use-after-move): it must keep them
  }
  void setHook(int hook, int kind) {
    const Hook callable{this, kind};
    if (hook == 0) cs_.setUserActivityLogger(kind ? CyberSecurityContract::LoggerHook(callable) : nullptr);
    if (hook == 1)
      cs_.setRegisterConnectionCallback(kind ? CyberSecurityContract::ConnectionCallback(callable) : nullptr);
  }
  void callHook(int hook, const std::string& address, int port, bool flag) {
    if (hook == 1) return cs_.registerConnection(address, port, flag);
    if (&cs_.userActivityLogger() == &theLogger) log += entry('l', port, flag);
  }
  void connectContract(int signal, int id, const Slot& slot) {
    const std::function<void(int)> act = [this, signal, id, slot](int v) { actAsSlot(*this, signal, id, slot, v); };
    const CyberSecurityContract::TokenCallback token = [act](const OptionalToken& t) { act(code(t).value_or(-1)); };
    if (slot.owner == static_cast<int>(owners_.size())) owners_.push_back(std::make_shared<Owner>(this, slot.owner));
    const std::weak_ptr<const void> owner = slot.owner < 0 ? nullptr : owners_[slot.owner];
    // The contract's six connect operations with a handle: by signal, untracked and tracked by `owner`.
    const std::function<tessel::Connection()> connects[3][2] = {
        {[&] { return cs_.connectSecuredSignalWithHandle(act); },
         [&] { return cs_.connectSecuredSignalWithHandle(act, owner); }},
        {[&] { return cs_.connectNewCredentialsSignalWithHandle(act); },
         [&] { return cs_.connectNewCredentialsSignalWithHandle(act, owner); }},
        {[&] { return cs_.connectSecurityTokenSignalWithHandle(token); },
         [&] { return cs_.connectSecurityTokenSignalWithHandle(token, owner); }}};
    owned_.emplace_back(connects[signal][slot.owner >= 0]());
  }

 private:
  struct Owner {
    Driver* driver;
    int index;
    Owner(Driver* of, int at) : driver(of), index(at) {}
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    ~Owner() { ownerDied(*driver, index); }
  };

  // A host hook that records its calls, throws (kind 2), or whose copy constructor and destructor call
  // the contract (kind 3), which must never copy or destroy a hook while it holds a lock of its own.
  struct Hook {
    Driver* driver;
    int kind;
    Hook(Driver* to, int as) : driver(to), kind(as) {}
    Hook(const Hook& other) : Hook(other.driver, other.kind) {
      if (kind == 3) driver->cs_.setTcpPortsVector(driver->model_.ports);
    }
    ~Hook() {
      if (kind == 3) driver->cs_.setTcpPortsVector(driver->model_.ports);
    }
    Logger& operator()() const {
      if (kind == 2) fail("thrown");
      return theLogger;
    }
    void operator()(const std::string& address, int port, bool flag) const {
      if (kind == 2) fail("thrown");
      driver->log += entry('r', port, flag) + address + " ";
    }
  };

  // Runs the next operation; true when it raised.
  bool operation() {
    const int op = next(), x = next(), y = next(), z = next(), id = ++ids_;
    const int handles = static_cast<int>(handles_.size()), blockers = static_cast<int>(blockers_.size()),
              listeners = static_cast<int>(listeners_.size());
    const int owners = static_cast<int>(owners_.size()), ownerPick = z / 48 % 3;  // none, a new one, an old one
    const int owner = ownerPick == 1 ? owners : ownerPick == 2 && owners ? z % owners : -1;
    const bool extended = z / 24 % 2;
    const Kind slotKind = kSlots[y % 8];
    const std::string& address = kAddresses[x % 3];
    const Topic topic{x % 3, kTopics[x / 3 % 3]}, pair{-1, "", address, kPorts[x / 3 % 3]};
    const Kind subscriber = kSubscribers[y % 10];
    const std::optional<int> token = y % 3 == 0 ? std::nullopt : std::optional<int>(y % 3 == 1 ? 0 : y);
    switch (op < 224 ? op % 28 : 28 + op % 4) {  // bytes 224 and up: the listener operations
      case 0: return step("update", [&](auto& api) { api.update(topic, {kSources[std::min(y % 8, 3)], y}); });
      case 1: return step("notify", [&](auto& api) { api.notify(topic, y); });
      case 2: return step("subscribe", [&](auto& api) { api.subscribe({id, subscriber, topic}); });
      case 3: return step("unsubscribe", [&](auto& api) { api.unsubscribe(topic); });
      case 4: return step("get", [&](auto& api) { api.log += entry('v', 0, api.get(topic)); });
      case 5:  // a get or notify that names another type changes nothing on a key without entries
        return (model_.mismatches(topic) || y % 2 == 0) &&
               step("mismatch", [&](auto& api) { api.mismatch(topic, y % 8 == 5 ? 5 : y % 4); });
      case 6: return step("destroy and recreate", [&](auto& api) { api.recreate(topic.contract); });
      case 7:
        return step("connect", [&](auto& api) {
          api.connect({slotKind, extended && slotKind == Kind::Flag ? handles : z / 3 % 8, z % 3, owner, extended});
        });
      case 8: return step("emit", [&](auto& api) { api.emit(y); });
      case 9: return handles && step("flag", [&](auto& api) { api.setFlag(y % handles, z % 3); });
      case 10: return handles && step("block for a scope", [&](auto& api) { api.pushBlocker(y % handles); });
      case 11: return blockers && step("end a block", [&](auto& api) { api.popBlocker(y % blockers); });
      case 12:
        return (y % 2 || handles) &&
               step("assign scoped", [&](auto& api) { api.assignScoped(y % 2 ? -1 : z % handles); });
      case 13: return step("disconnectAll", [&](auto& api) { api.disconnectAll(); });
      case 14: return step("updateSecured", [&](auto& api) { api.updateSecured(y % 2); });
      case 15: return step("updateAboutNewCreds", [&](auto& api) { api.updateAboutNewCreds(); });
      case 16: return step("updateSecurityToken", [&](auto& api) { api.updateSecurityToken(token); });
      case 17: return step("updateIpPortAllowed", [&](auto& api) { api.update(pair, {Source::Fixed, y % 2}); });
      case 18: return step("updateIpAllPortsAllowed", [&](auto& api) { api.updateIpAllPortsAllowed(address, y % 2); });
      case 19: return step("subscribeToIpPortAllowed", [&](auto& api) { api.subscribe({id, subscriber, pair}); });
      case 20: return step("unsubscribeFromIpPortAllowed", [&](auto& api) { api.unsubscribe(pair); });
      case 21: return step("isIpSecured", [&](auto& api) { api.log += entry('i', 0, api.isIpSecured(address)); });
      case 22: return step("setTcpPortsVector", [&](auto& api) { api.setPorts(kPortLists[y % 5]); });
      case 23: return step("set a host hook", [&](auto& api) { api.setHook(z % 2, y % 4); });
      case 24: return step("call a host hook", [&](auto& api) { api.callHook(z % 2, address, pair.port, y % 2); });
      case 25: return step("destroy and rebuild the signal", [&](auto& api) { api.rebuildSignal(); });
      case 26: return owners && step("release an owner", [&](auto& api) { api.releaseOwner(y % owners); });
      case 28: return step("connectTopic", [&](auto& api) { api.connectTopic({id, subscriber, topic, owner}); });
      case 29: return step("connectIpPortAllowed", [&](auto& api) { api.connectTopic({id, subscriber, pair, owner}); });
      case 30: return listeners && step("disconnect", [&](auto& api) { api.disconnectListener(y % listeners); });
      case 31: return step("isIpPortAllowed", [&](auto& api) { api.log += entry('p', 0, api.isIpPortAllowed(pair)); });
      default:  // at most four slots per contract signal
        return model_.contractSlots[y % 3].size() < 4 && step("connect to the contract", [&](auto& api) {
                 api.connectContract(y % 3, id, {kContractSlots[z % 5], z / 5 % 8, z / 40 % 3, owner});
               });
    }
  }

  // Runs one operation on the model, then on the library, and compares them; true when it raised.
  template <typename Operation>
  bool step(const char* name, Operation operation) {
    model_.log.clear(), log.clear();
    Failure want{"ok"};
    try {
      operation(model_);
    } catch (const Failure& failure) {
      want = failure;
    }
    const std::string got = outcome(operation, want);
    std::ostringstream out;
    if (got != want.what) out << "threw " << got << ", the model " << want.what << "; ";
    if (log != model_.log) out << "called [" << log << "], the model [" << model_.log << "]; ";
    if (!BoardTestPeer::lockIsFree()) out << "the board lock is held; ";
    std::map<std::string, std::string> expected;
    for (const auto& [key, stored] : model_.board)
      if (stored.getter || stored.sub) expected[key] = std::string(stored.getter ? "g" : "") + (stored.sub ? "s" : "");
    if (BoardTestPeer::entries() != expected) out << "the board's entries differ; ";
    const auto live =
        std::count_if(model_.slots.begin(), model_.slots.end(), [&](auto& s) { return model_.connected(s); });
    if (signal_->slotCount() != static_cast<std::size_t>(live) || signal_->empty() != (live == 0))
      out << "the signal counts " << signal_->slotCount() << " slots, the model " << live << "; ";
    for (std::size_t index = 0; index < handles_.size(); ++index) {
      const Slot& slot = model_.slots[index];
      if (handles_[index].connected() != model_.connected(slot) ||
          handles_[index].blocked() != (!slot.erased && model_.blocked(slot)) ||
          (handles_[index] != handles_[index > 0 ? index - 1 : 0]) != (index > 0))
        out << "the handle of slot " << index << " differs; ";
    }
    for (std::size_t index = 0; index < listeners_.size(); ++index)
      if (listeners_[index].connected() != model_.live(model_.listeners[index]))
        out << "the handle of listener " << index << " differs; ";
    if (cs_.isSecured() != model_.secured || securityToken() != model_.token ||
        reader_.get<bool>("Secured").value_or(false) != model_.secured ||
        code(reader_.get<CyberSecurityContract::Token>("SecurityToken")).value_or(0) != model_.token.value_or(0))
      out << "the secured flag or the token differ; ";
    const auto* raw = reinterpret_cast<const unsigned char*>(&cs_.getSecurityToken());
    if (!model_.token && std::count(raw, raw + sizeof(OptionalToken), 0) != sizeof(OptionalToken))
      out << "the cleared token's bytes were not wiped; ";
    if (out.tellp() > 0) failure_ = "step " + std::to_string(ids_) + " (" + name + "): " + out.str();
    return want.what != "ok";
  }

  // How the operation ended on the library, in the model's words. A mismatch error must name the key;
  // a deadlock error the operation last called and the lock the model waits for, as a re-entry.
  template <typename Operation>
  std::string outcome(Operation& operation, const Failure& want) {
    try {
      operation(*this);
      return "ok";
    } catch (const Failure& failure) {
      return failure.what;
    } catch (const std::bad_function_call&) {
      return "empty";
    } catch (const std::exception& error) {
      const std::string what = error.what();
      const auto says = [&what](const std::string& part) { return what.find(part) != std::string::npos; };
      if (dynamic_cast<const std::invalid_argument*>(&error)) return says(want.operation) ? "mismatch" : what;
      const auto* system = dynamic_cast<const std::system_error*>(&error);
      const bool deadlock = system && system->code() == std::errc::resource_deadlock_would_occur;
      const bool told =
          says(want.operation) && says(want.lock) && (says("already holds") || says("while this thread holds"));
      return deadlock && told ? "deadlock" : what;
    }
  }

  Contract::Getter<int> libraryGetter(const Getter& getter) {
    if (getter.source == Source::Empty) return {};
    return [this, getter] { return produce(*this, getter); };
  }
  int next() { return pos_ < bytes_.size() ? bytes_[pos_++] : 0; }
  TestContract& contract(const Topic& topic) { return *contracts_[topic.contract]; }

  std::vector<std::uint8_t> bytes_;
  std::size_t pos_ = 0;
  int ids_ = 0;  // of the operations run: each one's step number, and the id of what it connects
  std::string failure_;
  Model model_;
  CyberSecurityContract& cs_ = CyberSecurityContract::instance();
  TestContract reader_{"CyberSecurity", /*purgeOnDestroy=*/false};
  std::unique_ptr<TestContract> contracts_[3];
  std::optional<tessel::Signal<int>> signal_{std::in_place};
  std::vector<tessel::Connection> handles_, listeners_;
  std::vector<std::shared_ptr<Owner>> owners_;
  std::vector<std::unique_ptr<tessel::ConnectionBlocker>> blockers_;
  tessel::ScopedConnection scoped_;
  std::vector<tessel::ScopedConnection> owned_;
};

}  // namespace

std::string runOperations(const std::string& bytes) { return Driver(bytes).run(); }

}  // namespace vantor::model
