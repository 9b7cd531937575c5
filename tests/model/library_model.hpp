#pragma once

// A plain, single-threaded model of the whole library (Model), and what the model driver's callbacks do,
// written once for both sides: a delivery of the model runs them on the model, one of the library
// (driver.cpp) on the library. Both sides offer the same operations, under the same names:
//   the board        update, notify, subscribe, unsubscribe, get (-1: none) of a Topic (a pair's update is
//                    updateIpPortAllowed), mismatch (names bool for an int key: get, subscribe, notify,
//                    update or connectTopic), recreate (destroys a test contract and builds it anew),
//                    connectTopic (a listener of a topic or of a pair: a Sub with an owner or -1),
//                    disconnectListener, isIpPortAllowed (-1: none);
//   the signal       connect (tracked by an owner, extended), emit, setFlag (disconnect, block, unblock),
//                    pushBlocker, popBlocker, assignScoped (-1 releases), disconnectAll, rebuildSignal,
//                    releaseOwner (drops the test's reference to a tracked slot's owner);
//   the contract     updateSecured, updateAboutNewCreds, updateSecurityToken and securityToken (all 32
//                    bytes equal the int), updateIpAllPortsAllowed, isIpSecured, setPorts, connectContract,
//                    setHook and callHook (hook 0 is the user-activity logger, 1 the connection callback;
//                    kinds: none, a recorder, a thrower, a recorder whose copy constructor calls the contract).
// Each operation appends the callbacks it makes to `log`, and the model throws Failure exactly where the
// library throws. runOperations(), at the end, is the driver's entry point.

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vantor::model {

// What a callback does once it has logged its call (Empty logs nothing and raises):
//   Echo       publishes 1 to its own key, unless it was delivered 1 (so it echoes once)
//   Withdraw   unsubscribes its own key;   Replace  subscribes a Record with id + 1000 to it (both
//              then log again, from the state of the callable they withdrew)
//   Query      logs get() of its own key, or isIpSecured() of its address for a pair
//   SetPorts   sets the contract's ports to {-1, 17161};   Connect  connects to the secured signal
//   Reenter    calls its own signal (emits value + 2 below 2, catching what it throws after 0; connects an
//              empty slot; or disconnects all) and logs the slot count;
//              on the secured signal publishes true after false, else connects a recorder to it; on the
//              new-credentials signal connects a recorder to it; on the token signal publishes 1 after 0
//   Flag       disconnects (action 0), blocks (1) or unblocks (2) slot `target` of its signal (an extended
//              slot's target is itself, reached through the connection it is handed)
//   Drop       drops the test's reference to owner `target`, from inside the emission
// A tracked slot's owner, when it is destroyed, logs the signal's slot count and disconnects the slot whose
// index is its own (ownerDied), on whichever thread and inside whichever call destroys it.
//   Own        the contract's own subscriber: emits on contract signal `id`
enum class Kind { Record, Empty, Throw, Echo, Withdraw, Replace, Query, SetPorts, Connect, Reenter, Flag, Own, Drop };
// What a getter returns: a logged or a silent fixed value, nothing, an exception, a re-entry into the
// board, or the contract's live secured flag or token.
enum class Source { Logged, Fixed, Empty, Throw, Reenter, Secured, Token };

// Test contracts whose names are prefixes of each other; "Q:a"'s topic "b" is "Q"'s topic "a:b".
const std::string kNames[] = {"Q", "Qu", "Q:a"}, kIp = "CyberSecurity:IP:";
const char *const kBoardLock = "the message board's lock", *const kListenerLock = "the topic's listener lock";
// The contract's own topics, and the operations that publish them.
const std::string kOwnKeys[] = {"CyberSecurity:Secured", "CyberSecurity:NewCredentials", "CyberSecurity:SecurityToken"};
const char* const kOperations[] = {"updateSecured", "updateAboutNewCreds", "updateSecurityToken"};

struct Getter {
  Source source;
  int value = 0;
};
// A topic of test contract `contract`, or (contract < 0) the contract's pair (address, port).
struct Topic {
  int contract = 0;
  std::string topic, address = {};
  int port = 0;
  bool pair() const { return contract < 0; }
  std::string key() const {
    return pair() ? kIp + address + ":" + std::to_string(port) : kNames[contract] + ":" + topic;
  }
};
struct Sub {  // a subscriber, or a listener (tracked by `owner` unless it is -1)
  int id;
  Kind kind;
  Topic topic;
  int owner = -1;
  bool disconnected = false;
};
struct Slot {
  Kind kind;
  int target = 0, action = 0, owner = -1;  // owner: the index of the owner tracking it, or -1
  bool extended = false, blocked = false, disconnected = false, erased = false;
  int blockers = 0;
};
struct Failure {
  std::string what, operation = {}, lock = {};  // "empty", "thrown", "mismatch", or "deadlock" in `operation`
};
[[noreturn]] inline void fail(const char* what, const char* operation = "", const char* lock = "") {
  throw Failure{what, operation, lock};
}

// One call in a log (each side's `log` lists the callbacks made, in order).
inline std::string entry(char tag, int id, int value, bool underBoardLock = false) {
  return tag + std::to_string(id) + ":" + std::to_string(value) + (underBoardLock ? "L " : " ");
}

// What a getter other than Secured and Token does when it is called.
template <typename Api>
int produce(Api& api, const Getter& getter) {
  if (getter.source == Source::Throw) fail("thrown");
  if (getter.source == Source::Reenter) return api.get({0, "b"});
  if (getter.source == Source::Logged) api.log += entry('g', 0, getter.value, api.underBoardLock());
  return getter.value;
}

// What a subscriber (or, tagged 't', a listener) of a test contract's topic or of a pair does when it
// is delivered `value`. A listener that echoes publishes into its own listener lock.
template <typename Api>
void actAsSubscriber(Api& api, const Sub& sub, int value, char tag = 's') {
  api.log += entry(tag, sub.id, value, api.underBoardLock());
  const Topic& topic = sub.topic;
  switch (sub.kind) {
    case Kind::Throw: fail("thrown");
    case Kind::Echo:
      if (value != 1) api.update(topic, {topic.pair() ? Source::Fixed : Source::Logged, 1});
      return;
    case Kind::Withdraw:
    case Kind::Replace:  // then logs again: the subscriber it replaced or withdrew still runs intact
      sub.kind == Kind::Withdraw ? api.unsubscribe(topic) : api.subscribe({sub.id + 1000, Kind::Record, topic});
      api.log += entry('w', sub.id, value);
      return;
    case Kind::Query:
      api.log += entry('q', sub.id, topic.pair() ? api.isIpSecured(topic.address) : api.get(topic));
      return;
    case Kind::SetPorts: return api.setPorts({-1, 17161});
    case Kind::Connect: return api.connectContract(0, sub.id, {Kind::Record});
    default: return;
  }
}

// What slot `id` does when an emission of `value` invokes it: a slot of the test signal (`signal` -1,
// `id` its index) or of contract signal `signal` (secured, new credentials, token).
template <typename Api>
void actAsSlot(Api& api, int signal, int id, const Slot& slot, int value) {
  api.log += entry(signal < 0 ? 'x' : 'c', id, value, api.underBoardLock());
  if (slot.kind == Kind::Throw) fail("thrown");
  if (slot.kind == Kind::Flag) api.setFlag(slot.target, slot.action);
  if (slot.kind == Kind::Query) api.log += entry('q', id, api.isIpSecured("a"));
  if (slot.kind == Kind::Drop) api.releaseOwner(slot.target);
  if (slot.kind != Kind::Reenter) return;
  if (signal < 0 && slot.action == 0 && value == 1) api.emit(value + 2);
  if (signal < 0 && slot.action == 0 && value == 0) {
    try {  // the emission below this one goes on
      api.emit(value + 2);
    } catch (...) {
      api.log += "caught ";
    }
  }
  if (signal < 0 && slot.action == 1) api.connect({Kind::Empty});
  if (signal < 0 && slot.action == 2) api.disconnectAll();
  if (signal < 0) api.log += entry('n', id, static_cast<int>(api.slotCount()));
  if (signal == 0) value == 0 ? api.updateSecured(true) : api.connectContract(0, id + 1000, {Kind::Record});
  if (signal == 1) api.connectContract(1, id + 1000, {Kind::Record});
  if (signal == 2 && value == 0) api.updateSecurityToken(1);
}

template <typename Api>
void ownerDied(Api& api, int owner) {
  api.log += entry('d', owner, static_cast<int>(api.slotCount()));
  api.setFlag(owner, 0);
}

class Model {
 public:
  Model() {  // the contract's own subscribers; its getters come with the first updates
    for (int id = 0; id < 3; ++id) board[kOwnKeys[id]].sub = Sub{id, Kind::Own, {}};
  }

  struct Entry {
    std::optional<Getter> getter;
    std::optional<Sub> sub;
    bool listed = false;  // the key has a listener list
  };
  std::string log;
  std::map<std::string, Entry> board;
  bool secured = false;
  std::optional<int> token;
  std::vector<int> ports{17161, 17168, 17171, 17172, 17175, 17176, 17178};
  std::vector<std::pair<int, Slot>> contractSlots[3];  // id and slot
  int hooks[2] = {0, 0}, scoped = -1;                  // hooks: none, recorder or thrower; scoped: a slot or -1
  std::vector<Slot> slots;   // every slot ever connected to the signal, by handle index: in connection order
  std::vector<bool> owners;  // whether each owner that tracked slots were connected with is still alive
  std::vector<std::pair<int, bool>> blockers;  // slot, and whether it counted
  std::vector<Sub> listeners;                  // every listener connected, by handle index

  // A getter for the key, but never an empty one.
  const Getter* liveGetter(const std::string& key) const {
    const auto found = board.find(key);
    if (found == board.end() || !found->second.getter || found->second.getter->source == Source::Empty) return nullptr;
    return &*found->second.getter;
  }
  bool mismatches(const Topic& topic) const { return board.count(topic.key()); }  // any entry fixes the type
  bool blocked(const Slot& slot) const { return slot.blocked || slot.blockers > 0; }
  // Disconnected, or tracked by an owner that has expired: never called again.
  bool gone(const Slot& slot) const { return slot.disconnected || (slot.owner >= 0 && !owners[slot.owner]); }
  bool connected(const Slot& slot) const { return !slot.erased && !gone(slot); }
  bool live(const Sub& l) const { return !l.disconnected && (l.owner < 0 || owners[l.owner]); }

  // ---- the board -----------------------------------------------------------------------------------
  bool underBoardLock() { return boardHeld_ > 0; }
  void update(const Topic& topic, Getter getter) {
    publish(topic.key(), getter, topic.pair() ? "updateIpPortAllowed" : "Contract::update");
  }
  void notify(const Topic& topic, int value) { notifyKey(topic.key(), value, "Contract::notify"); }
  void subscribe(const Sub& sub) {
    lockBoard(sub.topic.pair() ? "subscribeToIpPortAllowed" : "Contract::subscribe");
    if (const Getter* current = liveGetter(sub.topic.key())) {
      const int value = call(*current);
      Held held(boardHeld_);
      deliver(sub, value);
    }
    board[sub.topic.key()].sub = sub;
  }
  // A list goes only when no listener of it is live and no connect or delivery holds it.
  void unsubscribe(const Topic& topic) {
    lockBoard(topic.pair() ? "unsubscribeFromIpPortAllowed" : "Contract::unsubscribe");
    const auto found = board.find(topic.key());
    if (found == board.end()) return;
    found->second.getter.reset(), found->second.sub.reset();
    const auto serves = [&](const Sub& listener) { return listener.topic.key() == found->first && live(listener); };
    found->second.listed &= pinned_[found->first] > 0 || std::any_of(listeners.begin(), listeners.end(), serves);
    if (!found->second.listed) board.erase(found);
  }
  int get(const Topic& topic) { return read(topic.key(), "Contract::get").value_or(-1); }  // -1: none
  // Refused, naming the key, unless the key holds nothing.
  void mismatch(const Topic& topic, int) { return mismatches(topic) ? fail("mismatch", topic.key().c_str()) : void(); }
  void recreate(int contract) {  // the purge disconnects the listeners of the keys it erases
    for (auto it = board.begin(); it != board.end();)
      it = it->first.rfind(kNames[contract], 0) == 0 ? board.erase(it) : std::next(it);
    for (Sub& listener : listeners) listener.disconnected |= listener.topic.key().rfind(kNames[contract], 0) == 0;
  }
  // Makes the key's list, then takes its listener lock, reads the value under the board lock and hands
  // it to the listener without it. An empty listener is refused naming the key.
  void connectTopic(const Sub& listener) {
    const std::string key = listener.topic.key();
    const char* const operation = listener.topic.pair() ? "connectIpPortAllowed" : "Contract::connectTopic";
    if (listener.owner == static_cast<int>(owners.size())) owners.push_back(true);
    lockBoard(operation);
    if (listener.kind == Kind::Empty) fail("mismatch", key.c_str());
    board[key].listed = true;
    Held pin(pinned_[key]), listening(lockListeners(key, operation));
    const Getter* current = liveGetter(key);
    const std::optional<int> value = current ? std::optional<int>(call(*current)) : std::nullopt;
    if (value && live(listener)) actAsSubscriber(*this, listener, *value, 't');
    listeners.push_back(listener);
  }
  void disconnectListener(int index) { listeners[index].disconnected = true; }
  int isIpPortAllowed(const Topic& pair) { return read(pair.key(), "isIpPortAllowed").value_or(-1); }

  // ---- the signal ----------------------------------------------------------------------------------
  // Slots run nested inside an emission of the signal (emitting_ counts the levels). Only the outermost
  // operation erases; a disconnection made inside leaves every gone slot to the outermost emission's end.
  void connect(const Slot& slot) {
    if (slot.owner == static_cast<int>(owners.size())) owners.push_back(true);  // made before connecting
    if (!emitting_) eraseGone();
    slots.push_back(slot);
  }
  // Each slot that was there when the emission began is judged right before its call; a tracked slot
  // reached after its owner expired is marked disconnected instead.
  void emit(int value) {
    const Leaving leaving{*this};
    const Held held(emitting_);
    const int count = static_cast<int>(slots.size());
    for (int index = 0; index < count; ++index) {
      if (slots[index].erased) continue;
      if (slots[index].disconnected) {
        slots[index].erased = emitting_ == 1;  // the outermost walk erases the disconnected slots it passes
      } else if (!blocked(slots[index])) {
        invoke(index, value);
      }
    }
  }
  void setFlag(int index, int action) {
    if (index >= static_cast<int>(slots.size()) || slots[index].erased) return;
    if (action == 0) slots[index].disconnected = true, emitting_ ? void(pendingRelease_ = true) : eraseGone();
    if (action > 0) slots[index].blocked = action == 1;
  }
  // Blockers count: the slot is blocked while any of them lives.
  void pushBlocker(int index) {
    blockers.emplace_back(index, !slots[index].erased);
    if (!slots[index].erased) ++slots[index].blockers;
  }
  void popBlocker(int which) {
    const auto [index, counted] = blockers[which];
    blockers.erase(blockers.begin() + which);
    if (counted && !slots[index].erased) --slots[index].blockers;
  }
  void assignScoped(int index) {
    if (scoped >= 0 && index >= 0) setFlag(scoped, 0);
    scoped = index;
  }
  void disconnectAll() {
    for (Slot& slot : slots) {
      if (!emitting_) slot.erased = true;
      if (!slot.erased) slot.disconnected = pendingRelease_ = true;
    }
  }
  void rebuildSignal() { disconnectAll(); }  // destroys the signal, whose handles live on, and builds it anew
  // An owner that a running call keeps alive dies when the last such call returns.
  void releaseOwner(int index) {
    if (index >= static_cast<int>(owners.size()) || !owners[index] || dropped_.count(index)) return;
    dropped_.insert(index);
    dieIfFree(index);
  }
  void dieIfFree(int owner) {
    if (!dropped_.count(owner) || std::count(kept_.begin(), kept_.end(), owner) != 0) return;
    dropped_.erase(owner), owners[owner] = false;
    ownerDied(*this, owner);
  }
  std::size_t slotCount() const {
    return static_cast<std::size_t>(std::count_if(slots.begin(), slots.end(), [&](auto& s) { return connected(s); }));
  }

  // ---- the contract --------------------------------------------------------------------------------
  void updateSecured(bool on) { secured = on, publish(kOwnKeys[0], {Source::Secured}, kOperations[0]); }
  void updateAboutNewCreds() { notifyKey(kOwnKeys[1], 1, kOperations[1]); }
  void updateSecurityToken(std::optional<int> to) { token = to, publish(kOwnKeys[2], {Source::Token}, kOperations[2]); }
  std::optional<int> securityToken() { return token; }
  void updateIpAllPortsAllowed(const std::string& address, bool allowed) {
    const char* const operation = "updateIpAllPortsAllowed";
    publish(kIp + address, {Source::Fixed, allowed}, operation);
    for (const int port : std::vector<int>(ports))
      publish(Topic{-1, "", address, port}.key(), {Source::Fixed, allowed}, operation);
  }
  bool isIpSecured(const std::string& ip) { return !secured || read(kIp + ip, "isIpSecured").value_or(0) != 0; }
  void setPorts(const std::vector<int>& list) { ports = list; }
  void setHook(int hook, int kind) { hooks[hook] = kind == 3 ? 1 : kind; }
  void callHook(int hook, const std::string& address, int port, bool flag) {
    if (hooks[hook] == 2 || (hooks[hook] == 0 && hook == 0)) fail(hooks[hook] ? "thrown" : "empty");
    if (hooks[hook] == 1) log += entry(hook ? 'r' : 'l', port, flag) + (hook ? address + " " : "");
  }
  void connectContract(int signal, int id, const Slot& slot) {  // tracked by an owner, or not (-1), as connect()
    if (slot.owner == static_cast<int>(owners.size())) owners.push_back(true);
    lockBoard("CyberSecurityContract::connect"), contractSlots[signal].emplace_back(id, slot);
  }

 private:
  struct Held {
    int& depth;
    explicit Held(int& counter) : depth(++counter) {}
    ~Held() { --depth; }
  };
  void lockBoard(const char* operation) const {
    if (boardHeld_) fail("deadlock", operation, kBoardLock);
  }
  // On the outermost emission's way out, also when it raised: lets go of every gone slot if a slot was
  // disconnected inside it.
  struct Leaving {
    Model& model;
    ~Leaving() {
      if (std::exchange(model.pendingRelease_, false)) model.eraseGone();
    }
  };
  void eraseGone() {
    for (Slot& slot : slots) slot.erased |= gone(slot);
  }

  // A publication holds the key's list from its board lock to the end of its listeners' delivery, which
  // follows the subscriber's.
  void publish(const std::string& key, Getter getter, const char* operation) {
    lockBoard(operation);
    Entry& stored = board[key];
    stored.getter = getter;
    if (getter.source == Source::Empty) fail("empty");
    const int value = call(getter);
    deliverAll(key, stored, value, operation);
  }
  void notifyKey(const std::string& key, int value, const char* operation) {
    lockBoard(operation);
    const auto found = board.find(key);
    if (found != board.end()) deliverAll(key, found->second, value, operation);
  }
  void deliverAll(const std::string& key, const Entry& entry, int value, const char* operation) {
    const bool listed = entry.listed;
    Held pin(pinned_[key]);  // (no subscriber of the model connects a listener to its own key meanwhile)
    if (entry.sub) deliver(Sub(*entry.sub), value);
    if (!listed) return;
    Held listening(lockListeners(key, operation));
    for (std::size_t index = 0, count = listeners.size(); index < count; ++index)
      if (listeners[index].topic.key() == key && live(listeners[index]))
        actAsSubscriber(*this, Sub(listeners[index]), value, 't');
  }
  int& lockListeners(const std::string& key, const char* operation) {
    if (listening_[key]) fail("deadlock", operation, kListenerLock);
    return listening_[key];
  }
  std::optional<int> read(const std::string& key, const char* operation) {
    lockBoard(operation);
    const Getter* current = liveGetter(key);
    return current ? std::optional<int>(call(*current)) : std::nullopt;
  }
  int call(const Getter& getter) {
    Held held(boardHeld_);
    if (getter.source == Source::Secured) return secured;
    if (getter.source == Source::Token) return token.value_or(0);
    return produce(*this, getter);
  }
  void deliver(const Sub& sub, int value) {
    if (sub.kind == Kind::Empty) fail("empty");
    if (sub.kind != Kind::Own) return actAsSubscriber(*this, sub, value);
    for (const auto& [id, slot] : std::vector(contractSlots[sub.id]))
      if (!gone(slot)) actAsSlot(*this, sub.id, id, slot, value);
  }
  void invoke(int index, int value) {
    if (gone(slots[index])) return static_cast<void>(slots[index].disconnected = true);  // its owner expired
    const Slot slot = slots[index];
    struct Keep {  // the call keeps its owner alive until it returns
      Model& model;
      int owner;
      ~Keep() {
        if (owner < 0) return;
        model.kept_.erase(std::find(model.kept_.rbegin(), model.kept_.rend(), owner).base() - 1);
        model.dieIfFree(owner);
      }
    };
    if (slot.owner >= 0) kept_.push_back(slot.owner);
    const Keep keep{*this, slot.owner};
    if (slot.kind == Kind::Empty) fail("empty");
    actAsSlot(*this, -1, index, slot, value);
  }

  std::vector<int> kept_;  // the owners that the running calls keep alive, innermost last
  std::set<int> dropped_;  // owners whose last reference the test dropped while a call kept them
  int boardHeld_ = 0, emitting_ = 0;
  bool pendingRelease_ = false;
  std::map<std::string, int> pinned_, listening_;  // per key: holds of its list, and of its listener lock
};

// Replays a byte string as a sequence of operations, each on the model and then on the library, and
// compares them after every step (driver.cpp). Single-threaded; may be called any number of times in one
// process. Returns the first disagreement, or an empty string when they agreed on every step.
std::string runOperations(const std::string& bytes);

}  // namespace vantor::model
