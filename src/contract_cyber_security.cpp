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
  std::vector<int> ports;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ports = tcpPorts_;
  }
  for (const int port : ports) updateIpPortAllowed(address, port, allowed);
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
  LoggerHook logger;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    logger = userActivityLogger_;
  }
  return logger();  // std::bad_function_call while no hook is set
}

void CyberSecurityContract::setUserActivityLogger(const LoggerHook& logger) {
  LoggerHook replaced = logger;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::swap(userActivityLogger_, replaced);
  }
  // `replaced` (the previous hook) is destroyed here, outside the lock.
}

void CyberSecurityContract::setRegisterConnectonCallback(const ConnectionCallback& callback) {
  ConnectionCallback replaced = callback;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::swap(registerConnectionCallback_, replaced);
  }
}

void CyberSecurityContract::registerConnection(const std::string& address, int port, bool allowed) {
  ConnectionCallback callback;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    callback = registerConnectionCallback_;
  }
  if (callback) callback(address, port, allowed);
}

void CyberSecurityContract::setTcpPortsVector(std::vector<int>&& ports) {
  std::vector<int> copy(ports.begin(), ports.end());  // copied, not moved: the caller keeps its list
  std::lock_guard<std::mutex> lock(mutex_);
  tcpPorts_.swap(copy);
}

}  // namespace vantor::messaging
