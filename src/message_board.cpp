#include "vantor/messaging/message_board.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "vantor/messaging/contract.hpp"
#include "vantor/tessel/connection.hpp"

namespace vantor::tessel::detail {

// Constant-initialised and trivially destructible: it registers nothing with the exit handlers, so it
// never pins the library in memory, and it is usable from the first lock of the process to the last.
WaitRegistry* processWaitRegistry() noexcept {
  static WaitRegistry registry;
  return &registry;
}
static_assert(std::is_trivially_destructible_v<WaitRegistry>);

// The same for the signals whose lock holders must let go of disconnected slots (connection.hpp).
ReleaseRegistry processReleaseRegistry;
static_assert(std::is_trivially_destructible_v<ReleaseRegistry>);

}  // namespace vantor::tessel::detail

namespace vantor::messaging {

// Constructed during the library's static initialisation; its destructor is registered with the
// exit handlers of this shared object, so it runs at process exit or when the library is unloaded.
MessageBoard MessageBoard::instance_;

MessageBoard::MessageBoard() : data_(std::make_unique<BoardData>()) {}

namespace {

using ListenerLists =
    std::unordered_map<BoardKey, std::shared_ptr<detail::TopicListeners>, BoardKeyHash, BoardKeyEqual>;

// The listener list of every key that has one; guarded by the board's mutex. It sits here rather than
// in BoardData, whose layout programs built against 13.0 rely on. Defined after instance_ in this file,
// so built after the board and destroyed before it, and after every contract.
ListenerLists listenerLists;

}  // namespace

// Destroys the subscribers, then the getters, then the mutex, calling none of the function objects.
MessageBoard::~MessageBoard() = default;

namespace detail {

const TypeKey kLibraryBoolKey = moduleKeyOf<bool>;
const TypeKey kLibraryTokenKey = moduleKeyOf<std::array<unsigned char, 32>>;

void throwTypeMismatch(const char* operation, const std::string& key) {
  std::string message(operation);
  message.append(" on \"").append(key).append("\": the key holds a value type other than the one named");
  throw std::invalid_argument(message);
}

void throwTypeMismatch(const char* operation, const std::string& key, std::string_view held, std::string_view named) {
  std::string message(operation);
  message.append(" on \"")
      .append(key)
      .append("\": the key holds a value type other than the one named (it holds ")
      .append(held)
      .append("; this call names ")
      .append(named)
      .append(")");
  throw std::invalid_argument(message);
}

void throwEmptyListener(const char* operation, const std::string& key) {
  std::string message(operation);
  message.append(" on \"").append(key).append("\": the listener is empty; a listener must have a target");
  throw std::invalid_argument(message);
}

}  // namespace detail

namespace {

// Erases every entry whose key starts with `prefix`. Erased function objects are destroyed here, so
// the caller holds the board lock.
void eraseWithPrefix(BoardMap& entries, const std::string& prefix) {
  for (auto it = entries.begin(); it != entries.end();) {
    it = it->first.text.compare(0, prefix.size(), prefix) == 0 ? entries.erase(it) : std::next(it);
  }
}

}  // namespace

Contract::Contract(std::string name, bool purgeOnDestroy)
    : board_(MessageBoard::instance_), name_(std::move(name)), purgeOnDestroy_(purgeOnDestroy) {}

// A purge from a callback under the board lock raises inside this destructor and terminates the
// process, as contract.hpp says.
Contract::~Contract() {  // NOLINT(bugprone-exception-escape)
  if (!purgeOnDestroy_) return;
  BoardData& board = data();
  // The erased listener lists, linked through purgedNext (so that the purge allocates nothing), are
  // destroyed once the lock is released: destroying one takes its signal's lock and its listeners'
  // callbacks, which must run under no board lock.
  std::shared_ptr<detail::TopicListeners> purged;
  tessel::detail::TrackedLock lock(board.mutex, "Contract::~Contract", name_);
  eraseWithPrefix(board.getters, name_);
  eraseWithPrefix(board.subscribers, name_);
  for (auto it = listenerLists.begin(); it != listenerLists.end();) {
    if (it->first.text.compare(0, name_.size(), name_) != 0) {
      ++it;
      continue;
    }
    it->second->purgedNext = std::move(purged);
    purged = std::move(it->second);
    it = listenerLists.erase(it);
  }
  lock.unlock();
  while (purged) purged = std::move(purged->purgedNext);  // one list at a time, without recursion
}

void Contract::refuseUnderBoardLock(const char* operation, const char* lockName) const {
  const tessel::detail::TrackedMutex& mutex = data().mutex;
  if (mutex.holder() != std::this_thread::get_id()) return;
  std::string message(operation);
  message.append(" would take ")
      .append(lockName)
      .append(" while this thread holds ")
      .append(mutex.name())
      .append(
          " (in a getter or an initial delivery): that order can close a lock cycle with any thread that "
          "publishes from a callback that runs under that lock");
  throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur), message);
}

std::string Contract::keyWithRoom(std::size_t topicSize) const {
  std::string fullKey;
  fullKey.reserve(name_.size() + 1 + topicSize);
  fullKey.append(name_.data(), name_.size());
  fullKey.push_back(':');
  return fullKey;
}

std::string Contract::key(const std::string& topic) const {
  std::string fullKey = keyWithRoom(topic.size());
  fullKey.append(topic.data(), topic.size());
  return fullKey;
}

void Contract::unsubscribe(const std::string& topic) { withdraw(key(topic), "Contract::unsubscribe"); }

// The listeners stay: a listener belongs to its Connection. Only a list that serves nobody goes: none of
// its listeners is connected, and nothing else holds it (a connect in progress, a delivery). Holders
// copy it only from the map, under this lock, so a count of one cannot be stale.
void Contract::withdraw(std::string fullKey, const char* operation) {
  const BoardKey key(std::move(fullKey));
  BoardData& board = data();
  std::shared_ptr<detail::TopicListeners> unused;  // destroyed once the lock is released
  tessel::detail::TrackedLock lock(board.mutex, operation, key.text);
  board.getters.erase(key);
  board.subscribers.erase(key);
  if (listenerLists.empty()) return;
  const auto found = listenerLists.find(key);
  if (found == listenerLists.end() || found->second.use_count() != 1) return;
  const std::vector<tessel::Connection>& connections = found->second->connections;
  if (std::any_of(connections.begin(), connections.end(), [](const auto& c) { return c.connected(); })) return;
  unused = std::move(found->second);
  listenerLists.erase(found);
}

std::shared_ptr<detail::TopicListeners>* Contract::listenersOf(const BoardKey& key, const detail::TypeKey& type,
                                                               const char* operation) const {
  if (listenerLists.empty()) return nullptr;
  const auto found = listenerLists.find(key);
  if (found == listenerLists.end()) return nullptr;
  const detail::TypeKey& held = found->second->type;
  if (!detail::sameType(held, type)) detail::throwTypeMismatch(operation, key.text, spelling(held), spelling(type));
  return &found->second;
}

std::shared_ptr<detail::TopicListeners> Contract::joinListeners(const BoardKey& key, const detail::TypeKey& type,
                                                                const char* operation) {
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, operation, key.text);
  for (const BoardMap* entries : {&board.getters, &board.subscribers}) {
    const auto found = entries->find(key);
    if (found != entries->end()) detail::checkType(found->second, type, operation, key);
  }
  if (std::shared_ptr<detail::TopicListeners>* found = listenersOf(key, type, operation)) return *found;
  auto made = std::make_shared<detail::TopicListeners>(key.text, type);
  listenerLists.emplace(key, made);
  return made;
}

std::uint64_t Contract::admitListener(detail::TopicListeners& listeners, const tessel::Connection& connection) const {
  std::vector<tessel::Connection>& connections = listeners.connections;
  connections.erase(
      std::remove_if(connections.begin(), connections.end(), [](const auto& c) { return !c.connected(); }),
      connections.end());
  connections.push_back(connection);
  return listeners.published;
}

void Contract::deliverToListeners(const detail::ListenerDelivery& delivery, const void* value, const char* operation) {
  detail::TopicListeners& listeners = *delivery.listeners;
  tessel::detail::TrackedLock lock(listeners.mutex, operation, listeners.key);
  listeners.signal.emitAs(operation, value, delivery.number);
}

}  // namespace vantor::messaging
