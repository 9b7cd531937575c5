#pragma once

// CyberSecurityContract: the host's cyber-security state, shared by every component of the process.
//
// One object per process, reached through instance(). It carries whether the system is secured, the
// new-credentials notice, an optional 32-byte security token, a yes-or-no allowance per client IP
// address and per (address, TCP port) pair, the system's TCP ports (17161, 17168, 17171, 17172,
// 17175, 17176, 17178 by default), the host's user-activity logger hook and its register-connection
// callback.
//
// Topics, on the message board under the contract's name "CyberSecurity":
//   "Secured"                  bool   published by updateSecured       feeds the secured signal
//   "NewCredentials"           bool   notified by updateAboutNewCreds  feeds the new-credentials signal
//   "SecurityToken"            Token  published by updateSecurityToken feeds the token signal
//   "IP:<address>"             bool   published by updateIpAllPortsAllowed, read by isIpSecured
//   "IP:<address>:<port>"      bool   published by updateIpPortAllowed, listened to by subscribeToIpPortAllowed
// Addresses enter keys byte for byte, unvalidated and unescaped; ports are written as "%d" prints them.
//
// Threads: every operation may be called from any thread. Every callback runs synchronously on the
// thread of the call that caused it. The secured flag is atomic, and the port list and the two host
// hooks sit behind a small lock of the contract's own (mutex_) under which only pointers and the port
// list are copied or swapped: no host code (no call, copy or destruction of a host callable) ever runs
// under it. So their writers and readers may run at the same time, and a host callable may call any
// operation of the contract, even from its copy constructor or destructor. One limit remains:
// getSecurityToken() hands out a reference to the token, so updateSecurityToken must not run at the
// same time as another updateSecurityToken or as a read through that reference (a copy taken
// meanwhile could mix bytes).
//
// Callbacks connected to the three signals run holding that signal's lock and not the board lock.
// Such a callback may call any operation except the one that feeds its own signal and the connect
// operations of its own signal: those throw std::system_error(resource_deadlock_would_occur) naming
// the operation and the signal ("updateSecured would wait for the secured signal's lock, which this
// thread already holds ..."). A callback of one signal that publishes into another is fine while no
// other thread does the opposite at the same time; if one does, the thread that closes the cycle gets
// the same error instead of both hanging. A callback given to subscribeToIpPortAllowed runs outside
// the board lock for publications, but under it for the initial delivery of its subscription; during
// that initial delivery an operation that takes the board lock (updates, (un)subscriptions,
// isIpSecured while secured) throws the same error, and a connect operation is forbidden (it takes a
// signal's lock under the board's, the one order that may close a cycle).
//
// The security token: the contract wipes its copy of the token when it is replaced or cleared and
// when the contract is destroyed, and the board wipes the copies it reads through the getter. The
// copies handed to token callbacks (by value) belong to the host, which wipes them if it must.
//
// Failures: every exception (from a callback, std::bad_function_call for an empty one, allocation or
// lock failures) reaches the caller with every lock released. A publication whose callback fails has
// already stored the new state: the member holds the new value and the board the new getter.
//
// Lifetime: built on the first instance() call (callers that arrive meanwhile wait; a constructor that
// throws is retried by the next call), destroyed at process exit or library unload, before the board;
// its destruction removes every board entry whose key starts with "CyberSecurity". No operation may
// run once its destruction has begun. Callbacks connected through connect*Signal live as long as the
// contract, that is the process; the connect*SignalWithHandle variants hand back a Connection (for
// ScopedConnection) with which the host disconnects them earlier.

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/optional.hpp>

#include "vantor/messaging/contract.hpp"
#include "vantor/messaging/export.hpp"
#include "vantor/tessel/detail/thread_annotations.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"
#include "vantor/tessel/signal.hpp"

// The host's user-activity logger. The library only passes references to it around.
class Logger;

// The two signal instantiations the contract uses are compiled into, and exported by, the library.
namespace vantor::tessel {
extern template class VANTOR_MESSAGE_BOARD_API Signal<bool>;
extern template class VANTOR_MESSAGE_BOARD_API Signal<boost::optional<std::array<unsigned char, 32>>>;
}  // namespace vantor::tessel

namespace vantor::messaging {

class VANTOR_MESSAGE_BOARD_API CyberSecurityContract final : public Contract {
 public:
  using Token = std::array<unsigned char, 32>;
  using OptionalToken = boost::optional<Token>;
  using FlagCallback = std::function<void(bool)>;
  using TokenCallback = std::function<void(OptionalToken)>;
  using LoggerHook = std::function<Logger&()>;
  using ConnectionCallback = std::function<void(const std::string& address, int port, bool allowed)>;

  // The one contract of the process, built on the first call.
  static CyberSecurityContract& instance();

  // ---- signals: each call adds a slot for the contract's lifetime; earlier values are not replayed.

  // `callback` receives every published secured flag. Runs under the secured signal's mutex.
  void connectSecuredSignal(const FlagCallback& callback);
  // `callback` receives true at every new-credentials notice. Runs under that signal's mutex.
  void connectNewCredentialsSignal(const FlagCallback& callback);
  // `callback` receives every published token as an engaged optional; a cleared token arrives as 32
  // zero bytes (getSecurityToken() tells the two apart). Runs under the token signal's mutex.
  void connectSecurityTokenSignal(const TokenCallback& callback);

  // The same three, handing back the slot's Connection, with which the host blocks or disconnects the
  // callback (hold it in a tessel::ScopedConnection to disconnect it when a component goes away).
  tessel::Connection connectSecuredSignalWithHandle(const FlagCallback& callback);
  tessel::Connection connectNewCredentialsSignalWithHandle(const FlagCallback& callback);
  tessel::Connection connectSecurityTokenSignalWithHandle(const TokenCallback& callback);

  // ---- security state

  // Stores the flag, then publishes it on "Secured"; returns after the secured signal's callbacks.
  void updateSecured(bool secured);
  // Notifies true on "NewCredentials" (stores nothing); returns after that signal's callbacks.
  void updateAboutNewCreds();
  // Stores the token (an empty optional clears it), then publishes its bytes, or 32 zero bytes when
  // cleared, on "SecurityToken"; returns after the token signal's callbacks.
  void updateSecurityToken(const OptionalToken& token);

  bool isSecured() const;
  // The current token. The reference stays valid and shows later changes; see the threading limit above.
  const OptionalToken& getSecurityToken() const;

  // ---- IP and port allowance

  // Publishes `allowed` for the pair, and hands it to the pair's listener if there is one.
  void updateIpPortAllowed(const std::string& address, int port, bool allowed);
  // Publishes `allowed` for the address as a whole (read by isIpSecured), then for each port of the
  // port list as it is once that is done, in order. Stops at the first failure.
  void updateIpAllPortsAllowed(const std::string& address, bool allowed);
  // Makes `callback` the pair's one listener (replacing an earlier one). If the pair has a published
  // flag, `callback` receives it before this returns, under the board lock (see above).
  void subscribeToIpPortAllowed(const std::string& address, int port, const FlagCallback& callback);
  // Removes the pair's published flag and its listener.
  void unsubscribeFromIpPortAllowed(const std::string& address, int port);
  // True while the system is not secured; otherwise the flag last published for the address as a
  // whole, false if none was. Port flags do not count.
  bool isIpSecured(const std::string& address);

  // ---- host hooks and ports

  // Calls the logger hook and returns its Logger. Throws std::bad_function_call while none is set.
  Logger& userActivityLogger();
  // Replaces the logger hook with a copy of `logger` (an empty one unsets it).
  void setUserActivityLogger(const LoggerHook& logger);
  // Replaces the connection callback with a copy of `callback` (an empty one unsets it).
  void setRegisterConnectionCallback(const ConnectionCallback& callback);
  // The same, under the name it has always had.
  void setRegisterConnectonCallback(const ConnectionCallback& callback);
  // Calls the connection callback once with the same arguments, if one is set; otherwise does nothing.
  void registerConnection(const std::string& address, int port, bool allowed);
  // Replaces the port list with copies of the elements of `ports`, which keeps them.
  void setTcpPortsVector(std::vector<int>&& ports);

 private:
  CyberSecurityContract();
  ~CyberSecurityContract() override;

  std::string topicKey(std::string_view topic) const;
  std::string addressKey(const std::string& address) const;
  std::string portKey(const std::string& address, int port) const;

  tessel::Signal<bool> securedSignal_{"the secured signal's lock"};
  tessel::Signal<bool> newCredentialsSignal_{"the new-credentials signal's lock"};
  tessel::Signal<OptionalToken> securityTokenSignal_{"the security token signal's lock"};
  std::atomic<bool> secured_{false};
  OptionalToken securityToken_;  // see the threading limit above; wiped when cleared and at destruction
  // Guards the port list and the hook pointers. Held only to copy or swap them: hooks are held through
  // shared pointers, so a hook is copied, called and destroyed only after the lock is released. It
  // therefore nests inside every other lock and never outside one.
  mutable tessel::detail::TrackedMutex mutex_{"the contract's hook lock"};
  std::vector<int> tcpPorts_ VANTOR_GUARDED_BY(mutex_);
  std::shared_ptr<const LoggerHook> userActivityLogger_ VANTOR_GUARDED_BY(mutex_);                  // null: none
  std::shared_ptr<const ConnectionCallback> registerConnectionCallback_ VANTOR_GUARDED_BY(mutex_);  // null: none
};

}  // namespace vantor::messaging
