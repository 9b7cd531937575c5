#include "vantor/messaging/message_board.hpp"

#include <array>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>

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
  tessel::detail::TrackedLock lock(board.mutex, "Contract::~Contract", name_);
  eraseWithPrefix(board.getters, name_);
  eraseWithPrefix(board.subscribers, name_);
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
          "publishes from a signal's callback");
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

void Contract::withdraw(std::string fullKey, const char* operation) {
  const BoardKey key(std::move(fullKey));
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, operation, key.text);
  board.getters.erase(key);
  board.subscribers.erase(key);
}

}  // namespace vantor::messaging
