#pragma once

// A plain, single-threaded model of the whole library: which board keys hold a getter and a
// subscriber, one Signal<int> with its slot list, handles, blockers and scoped owner, and the
// CyberSecurity contract's state and three signals. Each operation appends to `log` the callbacks it
// makes, in order, and ends by throwing Failure{what} exactly where the library throws.

#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vantor::model {

// What a callback does once it has logged its call (Empty logs nothing and raises):
//   Republish  publishes its own key again with 1 - value (not from the delivery that this causes)
//   Withdraw   unsubscribes its own key;   Replace  subscribes a Record with id + 1000 to it
//   Query      logs get() of its own key, or isIpSecured() of its address for a pair
//   SetPorts   sets the contract's ports to {-1, 17161}
//   Reenter    calls its own signal, or publishes the contract topic that feeds its own signal
//   Flag       disconnects (action 0), blocks (1) or unblocks (2) slot `target` of its signal
//   Own        the contract's own subscriber: emits on contract signal `id`
enum class Kind { Record, Empty, Throw, Republish, Withdraw, Replace, Query, SetPorts, Reenter, Flag, Own };
// What a getter returns: a logged or a silent fixed value, nothing, an exception, a re-entry into the
// board, or the contract's live secured flag or token.
enum class Source { Logged, Fixed, Empty, Throw, Reenter, Secured, Token };

struct Getter {
  Source source;
  int value = 0;
};
struct Sub {  // a subscriber of a test contract's topic, or (contract < 0) of a contract pair
  int id;
  Kind kind;
  std::string key;
  int contract = -1;
  std::string topic = {}, address = {};
  int port = 0;
  bool pair() const { return contract < 0; }
};
struct Slot {
  Kind kind;
  int target = 0, action = 0;
  bool blocked = false, disconnected = false, erased = false;
  int blockers = 0;
};
struct Failure {
  std::string what;  // "empty", "thrown", "deadlock" or "mismatch"
};
[[noreturn]] inline void fail(const char* what) { throw Failure{what}; }

inline std::string entry(char tag, int id, int value, bool underBoardLock) {
  return tag + std::to_string(id) + ":" + std::to_string(value) + (underBoardLock ? "L" : "");
}
const std::string kIp = "CyberSecurity:IP:";
inline std::string pairKey(const std::string& address, int port) { return kIp + address + ":" + std::to_string(port); }

// Marks a subscriber as republishing for a scope.
struct Busy {
  std::set<int>& busy;
  int id;
  ~Busy() { busy.erase(id); }
};

class Model {
 public:
  Model() {
    board["CyberSecurity:Secured"] = {Getter{Source::Secured}, Sub{0, Kind::Own, ""}};
    board["CyberSecurity:NewCredentials"].sub = Sub{1, Kind::Own, ""};
    board["CyberSecurity:SecurityToken"] = {Getter{Source::Token}, Sub{2, Kind::Own, ""}};
  }

  struct Entry {
    std::optional<Getter> getter;
    std::optional<Sub> sub;
  };
  std::vector<std::string> log;
  std::map<std::string, Entry> board;
  bool secured = false;
  std::optional<int> token;  // all 32 bytes equal this one
  std::vector<int> ports{17161, 17168, 17171, 17172, 17175, 17176, 17178};
  std::vector<std::pair<int, Kind>> contractSlots[3];
  int hooks[2] = {0, 0};                       // the logger and the connection callback: none, recorder, thrower
  std::vector<Slot> slots;                     // every slot ever connected to the signal, by handle index
  std::list<int> order;                        // the signal's list, in connection order
  std::vector<std::pair<int, bool>> blockers;  // slot, and the blocked flag it found
  int scoped = -1;

  // ---- the topic protocol ------------------------------------------------------------------------
  void update(const std::string& key, Getter getter) {
    Entry& entry = board[key];
    entry.getter = getter;
    if (getter.source == Source::Empty) fail("empty");
    const int value = call(getter);
    if (entry.sub) deliver(Sub(*entry.sub), value, false);
  }
  void notify(const std::string& key, int value) {
    const auto found = board.find(key);
    if (found != board.end() && found->second.sub) deliver(Sub(*found->second.sub), value, false);
  }
  void subscribe(const std::string& key, const Sub& sub) {
    if (const Getter* getter = nonEmptyGetter(key)) deliver(sub, call(*getter), true);
    board[key].sub = sub;
  }
  void unsubscribe(const std::string& key) { board.erase(key); }
  std::optional<int> get(const std::string& key) {
    const Getter* getter = nonEmptyGetter(key);
    return getter ? std::optional<int>(call(*getter)) : std::nullopt;
  }
  void purge(const std::string& name) {
    for (auto it = board.begin(); it != board.end();) {
      it = it->first.rfind(name, 0) == 0 ? board.erase(it) : std::next(it);
    }
  }
  const Getter* nonEmptyGetter(const std::string& key) const {
    const auto found = board.find(key);
    if (found == board.end() || !found->second.getter || found->second.getter->source == Source::Empty) return nullptr;
    return &*found->second.getter;
  }
  bool isIpSecured(const std::string& address, bool underBoardLock) {
    if (!secured) return true;
    if (underBoardLock) fail("deadlock");
    return get(kIp + address).value_or(0) != 0;
  }

  // ---- the signal ---------------------------------------------------------------------------------
  bool blocked(const Slot& slot) const { return slot.blocked || slot.blockers > 0; }
  void setFlag(int index, int action) {
    if (index >= static_cast<int>(slots.size()) || slots[index].erased) return;
    if (action == 0)
      slots[index].disconnected = true;
    else
      slots[index].blocked = action == 1;
  }
  // Blockers count: the slot is blocked while any of them lives.
  void pushBlocker(int index) {
    blockers.emplace_back(index, !slots[index].erased);
    if (!slots[index].erased) ++slots[index].blockers;
  }
  void popBlocker(std::size_t which) {
    const auto [index, counted] = blockers[which];
    blockers.erase(blockers.begin() + static_cast<long>(which));
    if (counted && !slots[index].erased) --slots[index].blockers;
  }
  void scopedAssign(int index) {
    if (scoped >= 0) setFlag(scoped, 0);
    scoped = index;
  }
  void connect(const Slot& slot) {
    for (auto it = order.begin(); it != order.end();) it = slots[*it].disconnected ? erase(it) : std::next(it);
    slots.push_back(slot);
    order.push_back(static_cast<int>(slots.size()) - 1);
  }
  void disconnectAll() {
    while (!order.empty()) erase(order.begin());
  }
  // The pending-slot walk: a live slot runs only once the next live one has been judged.
  void emit(int value) {
    auto pending = order.end();
    for (auto it = order.begin(); it != order.end();) {
      if (slots[*it].disconnected) {
        it = erase(it);
        continue;
      }
      if (!blocked(slots[*it])) {
        if (pending != order.end()) invoke(*pending, value);
        pending = it;
      }
      ++it;
    }
    if (pending != order.end()) invoke(*pending, value);
  }

 private:
  int call(const Getter& getter) {
    switch (getter.source) {
      case Source::Throw: fail("thrown");
      case Source::Reenter: fail("deadlock");
      case Source::Secured: return secured;
      case Source::Token: return token.value_or(0);
      case Source::Logged: log.push_back(entry('g', 0, getter.value, true)); return getter.value;
      default: return getter.value;
    }
  }

  void deliver(const Sub& sub, int value, bool underBoardLock) {
    if (sub.kind == Kind::Own) return emitContract(sub.id, value);
    if (sub.kind == Kind::Empty) fail("empty");
    log.push_back(entry('s', sub.id, value, underBoardLock));
    if (sub.kind == Kind::Throw) fail("thrown");
    const bool republishes = sub.kind == Kind::Republish && !busy_.count(sub.id);
    const bool takesBoardLock = republishes || sub.kind == Kind::Withdraw || sub.kind == Kind::Replace ||
                                (sub.kind == Kind::Query && !sub.pair());
    if (takesBoardLock && underBoardLock) fail("deadlock");
    if (sub.kind == Kind::Republish && busy_.insert(sub.id).second) {
      Busy busy{busy_, sub.id};
      update(sub.key, Getter{sub.pair() ? Source::Fixed : Source::Logged, 1 - value});
    }
    if (sub.kind == Kind::Withdraw) unsubscribe(sub.key);
    if (sub.kind == Kind::Replace) {
      Sub replacement = sub;
      replacement.id += 1000, replacement.kind = Kind::Record;
      subscribe(sub.key, replacement);
    }
    if (sub.kind == Kind::Query) {
      const int answer = sub.pair() ? isIpSecured(sub.address, underBoardLock) : get(sub.key).value_or(-1);
      log.push_back(entry('q', sub.id, answer, false));
    }
    if (sub.kind == Kind::SetPorts) ports = {-1, 17161};
  }

  void emitContract(int signal, int value) {
    for (const auto& [id, kind] : contractSlots[signal]) {
      log.push_back(entry('c', id, value, false));
      if (kind == Kind::Throw) fail("thrown");
      if (kind == Kind::Reenter) fail("deadlock");
      if (kind == Kind::Query) log.push_back(entry('q', id, isIpSecured("a", false), false));
    }
  }

  void invoke(int index, int value) {
    const Slot& slot = slots[index];
    if (slot.kind == Kind::Empty) fail("empty");
    log.push_back(entry('x', index, value, false));
    if (slot.kind == Kind::Throw) fail("thrown");
    if (slot.kind == Kind::Reenter) fail("deadlock");
    if (slot.kind == Kind::Flag) setFlag(slot.target, slot.action);
  }

  std::list<int>::iterator erase(std::list<int>::iterator it) {
    slots[*it].erased = true;
    return order.erase(it);
  }

  std::set<int> busy_;
};

}  // namespace vantor::model
