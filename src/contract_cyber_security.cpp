#include "vantor/messaging/contract_cyber_security.hpp"

#include <string.h>  // explicit_bzero  NOLINT(modernize-deprecated-headers)

#include <charconv>

#include <utility>
#include "vantor/tessel/mailbox.hpp"

namespace vantor::tessel {

template class Signal<bool>;
template void Signal<bool>::emit<bool&>(bool&);
template void Signal<bool>::emitAs<bool&>(const char*, bool&);
template void Signal<bool>::deliver<bool&>(bool&);

using TokenSignal = Signal<boost::optional<std::array<unsigned char, 32>>>;
template class Signal<boost::optional<std::array<unsigned char, 32>>>;
template void TokenSignal::emit<const std::array<unsigned char, 32>&>(const std::array<unsigned char, 32>&);
template void TokenSignal::emitAs<const std::array<unsigned char, 32>&>(const char*,
                                                                        const std::array<unsigned char, 32>&);
template void TokenSignal::deliver<const std::array<unsigned char, 32>&>(const std::array<unsigned char, 32>&);

}  // namespace vantor::tessel

namespace vantor::messaging {

namespace {

// The public operations, as errors name them.
constexpr const char* kInstance = "CyberSecurityContract::instance";
constexpr const char* kUpdateSecured = "CyberSecurityContract::updateSecured";
constexpr const char* kUpdateAboutNewCreds = "CyberSecurityContract::updateAboutNewCreds";
constexpr const char* kUpdateSecurityToken = "CyberSecurityContract::updateSecurityToken";

void wipe(CyberSecurityContract::OptionalToken& token) noexcept {
  if (token) explicit_bzero(token->data(), token->size());
}

}  // namespace

CyberSecurityContract& CyberSecurityContract::instance() {
  // Thread-safe one-time construction; its destruction is registered with this library's exit
  // handlers once the constructor has returned, so it runs before the board's.
  static CyberSecurityContract contract;
  return contract;
}

CyberSecurityContract::CyberSecurityContract()
    : Contract("CyberSecurity", /*purgeOnDestroy=*/true), tcpPorts_{17161, 17168, 17171, 17172, 17175, 17176, 17178} {
  // Each subscriber holds only `this` and names the operation that publishes its topic, so that an
  // error raised by its signal's lock names that operation. The contract's own getters and
  // subscribers are stored as the lambdas they are: copying one for a delivery is a plain copy. Should a later
  // subscribe throw, the base destructor purges the ones already stored.
  subscribeKey<bool>(
      topicKey("Secured"),
      [this](const bool& secured) {
        bool value = secured;
        securedSignal_.emitAs(kUpdateSecured, value);
      },
      kInstance);
  subscribeKey<bool>(
      topicKey("NewCredentials"),
      [this](const bool& notice) {
        bool value = notice;
        newCredentialsSignal_.emitAs(kUpdateAboutNewCreds, value);
      },
      kInstance);
  subscribeKey<Token>(
      topicKey("SecurityToken"),
      [this](const Token& token) { securityTokenSignal_.emitAs(kUpdateSecurityToken, token); }, kInstance);
}

// Members go in reverse order (hooks, ports, the token once wiped, then the three signals, which drop
// their callbacks), then the base purges every "CyberSecurity" key. No operation runs meanwhile.
CyberSecurityContract::~CyberSecurityContract() VANTOR_NO_THREAD_SAFETY_ANALYSIS { wipe(securityToken_); }

std::string CyberSecurityContract::topicKey(std::string_view topic) const {
  std::string fullKey = keyWithRoom(topic.size());
  fullKey.append(topic.data(), topic.size());
  return fullKey;
}

std::string CyberSecurityContract::addressKey(const std::string& address) const {
  std::string fullKey = keyWithRoom(3 + address.size());
  fullKey.append("IP:", 3).append(address.data(), address.size());
  return fullKey;
}

std::string CyberSecurityContract::portKey(const std::string& address, int port) const {
  char digits[12];                                                                              // "-2147483648"
  const std::size_t length = std::to_chars(digits, digits + sizeof digits, port).ptr - digits;  // as "%d" prints
  std::string fullKey = keyWithRoom(3 + address.size() + 1 + length);
  fullKey.append("IP:", 3).append(address.data(), address.size());
  fullKey.push_back(':');
  fullKey.append(digits, length);
  return fullKey;
}

// The connect operations take a signal's lock, which must never be taken under the board's: from a
// getter or an initial delivery they are refused at once rather than when a cycle happens to close.
template <typename Signal, typename Callback, typename... Owner>
tessel::Connection CyberSecurityContract::connectTo(Signal& signal, const Callback& callback, const char* operation,
                                                    const Owner&... owner) {
  refuseUnderBoardLock(operation, signal.lockName());
  return signal.connectAs(operation, callback, owner...);
}

// A view's operations all take its signal's lock: like the connect operations, they refuse at once
// under the board's.
template <typename... Args>
tessel::SignalView<Args...> CyberSecurityContract::viewOf(tessel::Signal<Args...>& signal) {
  const auto refuse = [](const void* contract, const char* operation, const char* lockName) {
    static_cast<const CyberSecurityContract*>(contract)->refuseUnderBoardLock(operation, lockName);
  };
  return tessel::SignalView<Args...>(signal, refuse, this);
}

tessel::SignalView<bool> CyberSecurityContract::securedSignal() { return viewOf(securedSignal_); }

tessel::SignalView<bool> CyberSecurityContract::newCredentialsSignal() { return viewOf(newCredentialsSignal_); }

tessel::SignalView<CyberSecurityContract::OptionalToken> CyberSecurityContract::securityTokenSignal() {
  return viewOf(securityTokenSignal_);
}

void CyberSecurityContract::connectSecuredSignal(const FlagCallback& callback) {
  connectTo(securedSignal_, callback, "CyberSecurityContract::connectSecuredSignal");
}

void CyberSecurityContract::connectNewCredentialsSignal(const FlagCallback& callback) {
  connectTo(newCredentialsSignal_, callback, "CyberSecurityContract::connectNewCredentialsSignal");
}

void CyberSecurityContract::connectSecurityTokenSignal(const TokenCallback& callback) {
  connectTo(securityTokenSignal_, callback, "CyberSecurityContract::connectSecurityTokenSignal");
}

tessel::Connection CyberSecurityContract::connectSecuredSignalWithHandle(const FlagCallback& callback) {
  return connectTo(securedSignal_, callback, "CyberSecurityContract::connectSecuredSignalWithHandle");
}

tessel::Connection CyberSecurityContract::connectNewCredentialsSignalWithHandle(const FlagCallback& callback) {
  return connectTo(newCredentialsSignal_, callback, "CyberSecurityContract::connectNewCredentialsSignalWithHandle");
}

tessel::Connection CyberSecurityContract::connectSecurityTokenSignalWithHandle(const TokenCallback& callback) {
  return connectTo(securityTokenSignal_, callback, "CyberSecurityContract::connectSecurityTokenSignalWithHandle");
}

tessel::Connection CyberSecurityContract::connectSecuredSignalWithHandle(const FlagCallback& callback,
                                                                         const std::weak_ptr<const void>& owner) {
  return connectTo(securedSignal_, callback, "CyberSecurityContract::connectSecuredSignalWithHandle", owner);
}

tessel::Connection CyberSecurityContract::connectNewCredentialsSignalWithHandle(
    const FlagCallback& callback, const std::weak_ptr<const void>& owner) {
  return connectTo(newCredentialsSignal_, callback, "CyberSecurityContract::connectNewCredentialsSignalWithHandle",
                   owner);
}

tessel::Connection CyberSecurityContract::connectSecurityTokenSignalWithHandle(const TokenCallback& callback,
                                                                               const std::weak_ptr<const void>& owner) {
  return connectTo(securityTokenSignal_, callback, "CyberSecurityContract::connectSecurityTokenSignalWithHandle",
                   owner);
}

void CyberSecurityContract::updateSecured(bool secured) {
  secured_.store(secured, std::memory_order_release);
  publish<bool>(
      topicKey("Secured"), [this] { return secured_.load(std::memory_order_acquire); }, kUpdateSecured);
}

void CyberSecurityContract::updateAboutNewCreds() {
  notifyKey<bool>(topicKey("NewCredentials"), true, kUpdateAboutNewCreds);
}

void CyberSecurityContract::updateSecurityToken(const OptionalToken& token) {
  {
    tessel::detail::TrackedLock lock(mutex_, kUpdateSecurityToken);
    if (token) {
      securityToken_ = token;  // an engaged token is overwritten in place
    } else {
      wipe(securityToken_);  // a reset optional keeps its payload: clear the bytes first
      securityToken_ = boost::none;
    }
  }
  // The getter returns the token's bytes, or 32 zero bytes while it is empty, copied under the lock
  // straight into the value that the board wipes.
  publish<Token>(
      topicKey("SecurityToken"),
      [this] {
        tessel::detail::TrackedLock lock(mutex_, kUpdateSecurityToken);
        return securityToken_ ? *securityToken_ : Token{};
      },
      kUpdateSecurityToken);
}

bool CyberSecurityContract::isSecured() const { return secured_.load(std::memory_order_acquire); }

// The reference is the host's to read while no update runs: the lock cannot follow it.
const CyberSecurityContract::OptionalToken& CyberSecurityContract::getSecurityToken() const
    VANTOR_NO_THREAD_SAFETY_ANALYSIS {
  return securityToken_;
}

CyberSecurityContract::OptionalToken CyberSecurityContract::copySecurityToken() const {
  tessel::detail::TrackedLock lock(mutex_, "CyberSecurityContract::copySecurityToken");
  return securityToken_;  // built in the caller's object: no copy of the library's is left behind
}

void CyberSecurityContract::updateIpPortAllowed(const std::string& address, int port, bool allowed) {
  publish<bool>(
      portKey(address, port), [allowed] { return allowed; }, "CyberSecurityContract::updateIpPortAllowed");
}

void CyberSecurityContract::updateIpAllPortsAllowed(const std::string& address, bool allowed) {
  static constexpr const char* kOperation = "CyberSecurityContract::updateIpAllPortsAllowed";
  publish<bool>(
      addressKey(address), [allowed] { return allowed; }, kOperation);
  // The walk covers the list as it is now, on a copy: replacing the list meanwhile (from another
  // thread or from a callback of this walk) changes nothing for it.
  std::vector<int> ports;
  {
    tessel::detail::TrackedLock lock(mutex_, kOperation);
    ports = tcpPorts_;
  }
  for (const int port : ports) {
    publish<bool>(
        portKey(address, port), [allowed] { return allowed; }, kOperation);
  }
}

void CyberSecurityContract::subscribeToIpPortAllowed(const std::string& address, int port,
                                                     const FlagCallback& callback) {
  // The board keeps a copy of the host's callback itself (empty if it is empty), called with the flag.
  subscribeKey<bool>(portKey(address, port), callback, "CyberSecurityContract::subscribeToIpPortAllowed");
}

void CyberSecurityContract::unsubscribeFromIpPortAllowed(const std::string& address, int port) {
  withdraw(portKey(address, port), "CyberSecurityContract::unsubscribeFromIpPortAllowed");
}

tessel::Connection CyberSecurityContract::connectIpPortAllowed(const std::string& address, int port,
                                                               const FlagCallback& callback) {
  return listen<bool>(portKey(address, port), callback, "CyberSecurityContract::connectIpPortAllowed");
}

tessel::Connection CyberSecurityContract::connectIpPortAllowed(const std::string& address, int port,
                                                               const FlagCallback& callback,
                                                               const std::weak_ptr<const void>& owner) {
  return listen<bool>(portKey(address, port), callback, "CyberSecurityContract::connectIpPortAllowed", owner);
}

tessel::Connection CyberSecurityContract::connectIpPortAllowed(const std::string& address, int port,
                                                               tessel::Mailbox& mailbox, const FlagCallback& callback) {
  return listenQueued<bool>(portKey(address, port), mailbox, callback, "CyberSecurityContract::connectIpPortAllowed");
}

tessel::Connection CyberSecurityContract::connectIpPortAllowed(const std::string& address, int port,
                                                               tessel::Mailbox& mailbox, const FlagCallback& callback,
                                                               const std::weak_ptr<const void>& owner) {
  return listenQueued<bool>(portKey(address, port), mailbox, callback, "CyberSecurityContract::connectIpPortAllowed",
                            owner);
}

std::optional<bool> CyberSecurityContract::isIpPortAllowed(const std::string& address, int port) {
  const boost::optional<bool> allowed = read<bool>(portKey(address, port), "CyberSecurityContract::isIpPortAllowed");
  return allowed ? std::optional<bool>(*allowed) : std::nullopt;
}

bool CyberSecurityContract::isIpSecured(const std::string& address) {
  if (!secured_.load(std::memory_order_acquire)) return true;
  return read<bool>(addressKey(address), "CyberSecurityContract::isIpSecured").value_or(false);
}

// Under mutex_ only shared pointers and the port list are copied or swapped, never a host callable: a
// hook is called, and a replaced one destroyed, after the lock is released.

Logger& CyberSecurityContract::userActivityLogger() {
  std::shared_ptr<const LoggerHook> logger;
  {
    tessel::detail::TrackedLock lock(mutex_, "CyberSecurityContract::userActivityLogger");
    logger = userActivityLogger_;
  }
  if (!logger) throw std::bad_function_call();
  return (*logger)();
}

void CyberSecurityContract::setUserActivityLogger(const LoggerHook& logger) {
  std::shared_ptr<const LoggerHook> replacement = logger ? std::make_shared<const LoggerHook>(logger) : nullptr;
  tessel::detail::TrackedLock lock(mutex_, "CyberSecurityContract::setUserActivityLogger");
  userActivityLogger_.swap(replacement);
}  // `lock` goes first: the previous hook, now in `replacement`, is destroyed outside it

void CyberSecurityContract::setRegisterConnectionCallback(const ConnectionCallback& callback) {
  std::shared_ptr<const ConnectionCallback> replacement =
      callback ? std::make_shared<const ConnectionCallback>(callback) : nullptr;
  tessel::detail::TrackedLock lock(mutex_, "CyberSecurityContract::setRegisterConnectionCallback");
  registerConnectionCallback_.swap(replacement);
}

void CyberSecurityContract::setRegisterConnectonCallback(const ConnectionCallback& callback) {
  setRegisterConnectionCallback(callback);
}

void CyberSecurityContract::registerConnection(const std::string& address, int port, bool allowed) {
  std::shared_ptr<const ConnectionCallback> callback;
  {
    tessel::detail::TrackedLock lock(mutex_, "CyberSecurityContract::registerConnection");
    callback = registerConnectionCallback_;
  }
  if (callback) (*callback)(address, port, allowed);
}

void CyberSecurityContract::setTcpPortsVector(const std::vector<int>& ports) {
  std::vector<int> replacement(ports);
  tessel::detail::TrackedLock lock(mutex_, "CyberSecurityContract::setTcpPortsVector");
  tcpPorts_.swap(replacement);
}

void CyberSecurityContract::setTcpPortsVector(std::vector<int>&& ports) {
  setTcpPortsVector(static_cast<const std::vector<int>&>(ports));  // copied, not moved: the caller keeps its list
}

}  // namespace vantor::messaging
