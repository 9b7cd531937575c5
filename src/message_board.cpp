#include "vantor/messaging/message_board.hpp"

#include <stdexcept>

#include "vantor/messaging/contract.hpp"

namespace vantor::messaging {

// Constructed during the library's static initialisation; its destructor is registered with the
// exit handlers of this shared object, so it runs at process exit or when the library is unloaded.
MessageBoard MessageBoard::instance_;

MessageBoard::MessageBoard() : data_(std::make_unique<BoardData>()) {}

// Destroys the subscribers, then the getters, then the mutex, calling none of the function objects.
MessageBoard::~MessageBoard() = default;

namespace detail {

void throwTypeMismatch(std::string_view operation, const std::string& key) {
  std::string message(operation);
  message.append(": key \"").append(key).append("\" holds a value type other than the one named");
  throw std::invalid_argument(message);
}

}  // namespace detail

namespace {

// Erases every entry whose key starts with `prefix`. Erased function objects are destroyed here, so
// the caller holds the board lock.
void eraseWithPrefix(std::unordered_map<std::string, std::any>& entries, const std::string& prefix) {
  for (auto it = entries.begin(); it != entries.end();) {
    if (it->first.compare(0, prefix.size(), prefix) == 0) {
      it = entries.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace

Contract::Contract(std::string name, bool purgeOnDestroy)
    : board_(MessageBoard::instance_), name_(std::move(name)), purgeOnDestroy_(purgeOnDestroy) {}

Contract::~Contract() {
  if (!purgeOnDestroy_) return;
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, board.holder, "vantor::messaging::Contract::~Contract",
                                   name_);
  eraseWithPrefix(board.getters, name_);
  eraseWithPrefix(board.subscribers, name_);
}

std::string Contract::key(const std::string& topic) const {
  std::string fullKey;
  fullKey.reserve(name_.size() + 1 + topic.size());
  fullKey.append(name_).append(1, ':').append(topic);
  return fullKey;
}

void Contract::unsubscribe(const std::string& topic) {
  const std::string fullKey = key(topic);
  BoardData& board = data();
  tessel::detail::TrackedLock lock(board.mutex, board.holder, "vantor::messaging::Contract::unsubscribe",
                                   fullKey);
  board.getters.erase(fullKey);
  board.subscribers.erase(fullKey);
}

}  // namespace vantor::messaging
