#include "vantor/messaging/contract_cyber_security.hpp"

#include <utility>

namespace vantor::tessel {

template class Signal<bool>;
template void Signal<bool>::emit<bool&>(bool&);
template void Signal<bool>::deliver<bool&>(bool&);

using TokenSignal = Signal<boost::optional<std::array<unsigned char, 32>>>;
template class Signal<boost::optional<std::array<unsigned char, 32>>>;
template void TokenSignal::emit<const std::array<unsigned char, 32>&>(const std::array<unsigned char, 32>&);
template void TokenSignal::deliver<const std::array<unsigned char, 32>&>(const std::array<unsigned char, 32>&);

}  // namespace vantor::tessel

namespace vantor::messaging {

namespace {

const std::string kSecured = "Secured";
const std::string kNewCredentials = "NewCredentials";
const std::string kSecurityToken = "SecurityToken";

std::string addressTopic(const std::string& address) { return "IP:" + address; }

std::string portTopic(const std::string& address, int port) {
  return "IP:" + address + ":" + std::to_string(port);  // std::to_string(int) prints as "%d" does
}

// The contract's mutex_ guards members that are only ever copied out or replaced whole, here. Only the
// copy and the swap run under it: a copied hook is called, and a replaced value destroyed, after the
// lock is released.
template <typename T>
T copyGuarded(std::mutex& mutex, const T& member) {
  std::lock_guard<std::mutex> lock(mutex);
  return member;
}

template <typename T>
void replaceGuarded(std::mutex& mutex, T& member, T replacement) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    std::swap(member, replacement);
  }
  // `replacement` now holds the previous value and is destroyed here, outside the lock.
}

}  // namespace

CyberSecurityContract& CyberSecurityContract::instance() {
  // Thread-safe one-time construction; its destruction is registered with this library's exit
  // handlers once the constructor has returned, so it runs before the board's.
  static CyberSecurityContract contract;
  return contract;
}

CyberSecurityContract::CyberSecurityContract()
    : Contract("CyberSecurity", /*purgeOnDestroy=*/true),
      tcpPorts_{17161, 17168, 17171, 17172, 17175, 17176, 17178} {
  // Each subscriber holds only `this`. Should a later subscribe throw, the base destructor purges the
  // ones already stored.
  subscribe<bool>(kSecured, [this](const bool& secured) {
    bool value = secured;
    securedSignal_.emit(value);
  });
  subscribe<bool>(kNewCredentials, [this](const bool& notice) {
    bool value = notice;
    newCredentialsSignal_.emit(value);
  });
  subscribe<Token>(kSecurityToken, [this](const Token& token) { securityTokenSignal_.emit(token); });
}

// Members go in reverse order (hooks, ports, then the three signals, which drop their callbacks),
// then the base purges every "CyberSecurity" key.
CyberSecurityContract::~CyberSecurityContract() = default;

void CyberSecurityContract::connectSecuredSignal(const FlagCallback& callback) { securedSignal_.connect(callback); }

void CyberSecurityContract::connectNewCredentialsSignal(const FlagCallback& callback) {
  newCredentialsSignal_.connect(callback);
}

void CyberSecurityContract::connectSecurityTokenSignal(const TokenCallback& callback) {
  securityTokenSignal_.connect(callback);
}

void CyberSecurityContract::updateSecured(bool secured) {
  secured_.store(secured);
  update<bool>(kSecured, [this] { return secured_.load(); });
}

void CyberSecurityContract::updateAboutNewCreds() { notify<bool>(kNewCredentials, true); }

void CyberSecurityContract::updateSecurityToken(const OptionalToken& token) {
  securityToken_ = token;
  update<Token>(kSecurityToken, [this] { return securityToken_ ? *securityToken_ : Token{}; });
}

bool CyberSecurityContract::isSecured() const { return secured_.load(); }

const CyberSecurityContract::OptionalToken& CyberSecurityContract::getSecurityToken() const { return securityToken_; }

void CyberSecurityContract::updateIpPortAllowed(const std::string& address, int port, bool allowed) {
  update<bool>(portTopic(address, port), [allowed] { return allowed; });
}

void CyberSecurityContract::updateIpAllPortsAllowed(const std::string& address, bool allowed) {
  update<bool>(addressTopic(address), [allowed] { return allowed; });
  // The walk covers the list as it is now, on a copy: replacing the list meanwhile (from another
  // thread or from a callback of this walk) changes nothing for it.
  for (const int port : copyGuarded(mutex_, tcpPorts_)) updateIpPortAllowed(address, port, allowed);
}

void CyberSecurityContract::subscribeToIpPortAllowed(const std::string& address, int port,
                                                     const FlagCallback& callback) {
  Subscriber<bool> subscriber;
  if (callback) subscriber = [callback](const bool& allowed) { callback(allowed); };
  subscribe<bool>(portTopic(address, port), subscriber);
}

void CyberSecurityContract::unsubscribeFromIpPortAllowed(const std::string& address, int port) {
  unsubscribe(portTopic(address, port));
}

bool CyberSecurityContract::isIpSecured(const std::string& address) {
  if (!secured_.load()) return true;
  return get<bool>(addressTopic(address)).value_or(false);
}

Logger& CyberSecurityContract::userActivityLogger() {
  return copyGuarded(mutex_, userActivityLogger_)();  // std::bad_function_call while no hook is set
}

void CyberSecurityContract::setUserActivityLogger(const LoggerHook& logger) {
  replaceGuarded(mutex_, userActivityLogger_, logger);
}

void CyberSecurityContract::setRegisterConnectonCallback(const ConnectionCallback& callback) {
  replaceGuarded(mutex_, registerConnectionCallback_, callback);
}

void CyberSecurityContract::registerConnection(const std::string& address, int port, bool allowed) {
  const ConnectionCallback callback = copyGuarded(mutex_, registerConnectionCallback_);
  if (callback) callback(address, port, allowed);
}

void CyberSecurityContract::setTcpPortsVector(std::vector<int>&& ports) {
  // Copied, not moved: the caller keeps its list.
  replaceGuarded(mutex_, tcpPorts_, std::vector<int>(ports.begin(), ports.end()));
}

}  // namespace vantor::messaging
