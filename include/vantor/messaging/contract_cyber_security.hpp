#pragma once

/// @file
/// CyberSecurityContract: the host's cyber-security state, shared by every component of the process.
///
/// One object per process, reached through instance(). It carries whether the system is secured, the
/// new-credentials notice, an optional 32-byte security token, a yes-or-no allowance per client IP
/// address and per (address, TCP port) pair, the system's TCP ports (17161, 17168, 17171, 17172,
/// 17175, 17176, 17178 by default), the host's user-activity logger hook and its register-connection
/// callback.
///
/// Topics, on the message board under the contract's name "CyberSecurity":
///
/// | Topic                   | Value | Published by                             | Reaches                         |
/// |-------------------------|-------|------------------------------------------|---------------------------------|
/// | `"Secured"`             | bool  | updateSecured()                          | the secured signal              |
/// | `"NewCredentials"`      | bool  | updateAboutNewCreds() (notified only)    | the new-credentials signal      |
/// | `"SecurityToken"`       | Token | updateSecurityToken()                    | the token signal                |
/// | `"IP:<address>"`        | bool  | updateIpAllPortsAllowed()                | isIpSecured(), which reads it   |
/// | `"IP:<address>:<port>"` | bool  | updateIpPortAllowed(), and the port walk | one subscription, any listeners |
///
/// A pair's one subscription (subscribeToIpPortAllowed) is replaced by the next; its listeners
/// (connectIpPortAllowed, any number, each with a Connection, tracked or queued if asked) sit beside
/// it and are handed its flag first, then every later publication. isIpPortAllowed() reads the flag.
///
/// Addresses enter keys byte for byte, unvalidated and unescaped; ports are written as `"%d"` prints
/// them.
///
/// Threads: every operation may be called from any thread. Every callback runs synchronously on the
/// thread of the call that caused it. The secured flag is atomic, and the token, the port list and the
/// two host hooks sit behind a small lock of the contract's own (mutex_) under which only they are
/// copied, swapped or wiped: no host code (no call, copy or destruction of a host callable) ever runs
/// under it. So their writers and readers may run at the same time (two threads may rotate the token
/// while others copy it with copySecurityToken()), and a host callable may call any operation of the
/// contract, even from its copy constructor or destructor. One limit remains: getSecurityToken() hands
/// out a reference to the token, which is read without the lock, so a read through it must not overlap
/// updateSecurityToken (a copy taken meanwhile could mix bytes); copySecurityToken() has no such limit.
///
/// Callbacks connected to the three signals run holding that signal's lock and not the board lock.
/// Such a callback may call any operation, also the one that feeds its own signal (a nested emission on
/// this thread, which calls every slot of the signal before the running one goes on) and the connect
/// operations of its own signal (the new slot is called from the next emission on), as
/// vantor/tessel/signal.hpp describes. A callback of one signal that publishes into another is fine
/// while no other thread does the opposite at the same time; if one does, the thread that closes the
/// cycle gets `std::system_error(resource_deadlock_would_occur)` instead of both hanging. A callback given to
/// subscribeToIpPortAllowed runs outside the board lock for publications, but under it for the initial
/// delivery of its subscription; during that initial delivery an operation that takes the board lock
/// (updates, (un)subscriptions, isIpSecured while secured) throws the same error, and so does a
/// connect operation (it would take a signal's lock under the board's, the one order that may close a
/// cycle), at once. A listener of connectIpPortAllowed never runs under the board lock, but under its
/// pair's listener lock: it may call any operation except publishing its own pair or connecting to it,
/// which throw the same error. Cycles through a mutex of the host's own are not detected and still hang.
///
/// The security token: the contract wipes its copy of the token when it is replaced or cleared and
/// when the contract is destroyed, and the board wipes the copies it reads through the getter. The
/// copies handed to token callbacks (by value) and returned by copySecurityToken() belong to the host,
/// which wipes them if it must.
///
/// Failures: every exception (from a callback, std::bad_function_call for an empty one, allocation or
/// lock failures) reaches the caller with every lock released. A publication whose callback fails has
/// already stored the new state: the member holds the new value and the board the new getter.
///
/// Views: securedSignal(), newCredentialsSignal() and securityTokenSignal() hand out each signal's
/// connect side (tessel::SignalView: every connect form of tessel::Signal, slotCount(), empty()), among
/// them connectQueued(), which delivers on a component's own thread through a tessel::Mailbox
/// (vantor/tessel/mailbox.hpp) instead of on the publishing thread.
///
/// Lifetime: built on the first instance() call (callers that arrive meanwhile wait; a constructor that
/// throws is retried by the next call), destroyed at process exit or library unload, before the board;
/// its destruction removes every board entry whose key starts with "CyberSecurity". No operation may
/// run once its destruction has begun. Callbacks connected through connect*Signal live as long as the
/// contract, that is the process; the connect*SignalWithHandle variants hand back a Connection with
/// which the host disconnects them earlier. A component that may be destroyed on any thread, also while
/// another publishes, passes itself (a std::shared_ptr or std::weak_ptr) as the owner of its callback:
/// the callback then never runs after the component's destruction has begun. A ScopedConnection member
/// is enough only for a component destroyed on the publishing thread or while nothing publishes.

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/optional.hpp>

#include "vantor/messaging/contract.hpp"
#include "vantor/messaging/export.hpp"
#include "vantor/tessel/detail/thread_annotations.hpp"
#include "vantor/tessel/detail/tracked_lock.hpp"
#include "vantor/tessel/signal.hpp"
#include "vantor/tessel/signal_view.hpp"

// The host's user-activity logger: a class that the host defines, in the global namespace. The library
// only declares it and passes references to it around; it never calls into a Logger.
class Logger;

// The two signal instantiations the contract uses are compiled into, and exported by, the library.
namespace vantor::tessel {
extern template class VANTOR_MESSAGE_BOARD_API Signal<bool>;
extern template class VANTOR_MESSAGE_BOARD_API Signal<boost::optional<std::array<unsigned char, 32>>>;
}  // namespace vantor::tessel

namespace vantor::messaging {

/// The host's cyber-security state: one object per process, reached through instance(), through which
/// the host's components publish and receive the secured flag, new-credentials notices, the security
/// token and IP/port allowances. Any thread may call any operation; callbacks run synchronously on the
/// calling thread, under the lock stated on each callback type (the file description has the rules).
class VANTOR_MESSAGE_BOARD_API CyberSecurityContract final : public Contract {
 public:
  /// The security token: 32 bytes.
  using Token = std::array<unsigned char, 32>;
  /// A token or none. Given to updateSecurityToken(), none clears the token.
  using OptionalToken = boost::optional<Token>;
  /// A callback of one flag. On the secured or new-credentials signal it runs under that signal's lock,
  /// and may publish into that signal or connect to it (both nest on this thread). Given to
  /// subscribeToIpPortAllowed() it runs outside the board lock, except for its initial delivery, which
  /// runs under it: then it must call no operation that takes the board lock, nor connect. Given to
  /// connectIpPortAllowed() it runs under the pair's listener lock, never the board lock, and must not
  /// publish the pair or connect to it (both throw `std::system_error`).
  using FlagCallback = std::function<void(bool)>;
  /// A token callback. Runs under the token signal's lock; it may call updateSecurityToken() and connect
  /// to the token signal (both nest on this thread). It always receives an engaged
  /// optional, 32 zero bytes for a cleared token; the copy it receives is the host's to wipe.
  using TokenCallback = std::function<void(OptionalToken)>;
  /// Returns the host's user-activity Logger (a class the host defines in the global namespace; the
  /// library only declares it). userActivityLogger() calls it after releasing its own lock, so it may
  /// call any operation.
  using LoggerHook = std::function<Logger&()>;
  /// The host's connection callback. registerConnection() calls it with its own arguments after
  /// releasing its own lock, so it may call any operation.
  using ConnectionCallback = std::function<void(const std::string& address, int port, bool allowed)>;

  /// The one contract of the process, built on the first call (thread-safe; callers that arrive
  /// meanwhile wait). The first call must not come from a callback that runs under the board lock: the
  /// constructor's error would leave a destructor and terminate the process.
  /// @throws std::bad_alloc when the construction fails; the next call constructs again.
  static CyberSecurityContract& instance();

  // ---- signals: each call adds a slot for the contract's lifetime; earlier values are not replayed.

  /// Adds `callback` to the secured signal for the contract's lifetime (the process's): it receives
  /// every later published secured flag, under the secured signal's mutex; earlier values are not
  /// replayed. Each call adds a slot.
  /// @throws std::system_error (resource_deadlock_would_occur) when called from code that runs under
  ///         the board lock (a getter, an initial delivery), or when waiting for its lock would close a
  ///         lock cycle; nothing is connected. From a callback of this signal it nests.
  /// @throws std::bad_alloc when the slot cannot be allocated.
  void connectSecuredSignal(const FlagCallback& callback);
  /// Adds `callback` to the new-credentials signal for the contract's lifetime: it receives true at
  /// every later notice, under that signal's mutex. Throws as connectSecuredSignal() does.
  void connectNewCredentialsSignal(const FlagCallback& callback);
  /// Adds `callback` to the token signal for the contract's lifetime: it receives every later
  /// published token as an engaged optional, under the token signal's mutex; a cleared token arrives
  /// as 32 zero bytes (getSecurityToken() tells the two apart). Throws as connectSecuredSignal() does.
  void connectSecurityTokenSignal(const TokenCallback& callback);

  /// connectSecuredSignal(), handing back the slot's Connection, with which the host blocks or
  /// disconnects the callback (hold it in a tessel::ScopedConnection to disconnect it when a component
  /// goes away). Throws as connectSecuredSignal() does.
  tessel::Connection connectSecuredSignalWithHandle(const FlagCallback& callback);
  /// connectNewCredentialsSignal(), handing back the slot's Connection (see
  /// connectSecuredSignalWithHandle()). Throws as connectSecuredSignal() does.
  tessel::Connection connectNewCredentialsSignalWithHandle(const FlagCallback& callback);
  /// connectSecurityTokenSignal(), handing back the slot's Connection (see
  /// connectSecuredSignalWithHandle()). Throws as connectSecuredSignal() does.
  tessel::Connection connectSecurityTokenSignalWithHandle(const TokenCallback& callback);

  /// connectSecuredSignalWithHandle() for a callback tracked by `owner` (a std::shared_ptr or
  /// std::weak_ptr of any type converts): once the owner has expired, the callback is never called
  /// again and its Connection reads disconnected; while the callback runs, the owner is kept alive, so
  /// an owner released on another thread meanwhile is destroyed only after the call returns (on the
  /// publishing thread, under the signal's lock: its destructor may call this signal, nested).
  /// This is how a component that may go away on any thread connects. Throws as connectSecuredSignal().
  tessel::Connection connectSecuredSignalWithHandle(const FlagCallback& callback,
                                                    const std::weak_ptr<const void>& owner);
  /// connectNewCredentialsSignalWithHandle() tracked by `owner`, as connectSecuredSignalWithHandle()
  /// with an owner. Throws as connectSecuredSignal() does.
  tessel::Connection connectNewCredentialsSignalWithHandle(const FlagCallback& callback,
                                                           const std::weak_ptr<const void>& owner);
  /// connectSecurityTokenSignalWithHandle() tracked by `owner`, as connectSecuredSignalWithHandle()
  /// with an owner. Throws as connectSecuredSignal() does.
  tessel::Connection connectSecurityTokenSignalWithHandle(const TokenCallback& callback,
                                                          const std::weak_ptr<const void>& owner);

  /// The secured signal's connect side, for every connect form of tessel::Signal (tracked,
  /// connectExtended, connectQueued for delivery on a component's own thread), slotCount() and empty().
  /// Its callbacks run as those of connectSecuredSignal() do (or, queued, at the mailbox's drain). Each
  /// operation of the view first refuses to run under the board lock and throws as
  /// connectSecuredSignal() does. The view refers to the contract's signal: valid for the process's
  /// life. Takes no lock, never throws.
  tessel::SignalView<bool> securedSignal();
  /// The new-credentials signal's connect side, as securedSignal() describes.
  tessel::SignalView<bool> newCredentialsSignal();
  /// The token signal's connect side, as securedSignal() describes; its callbacks receive what those of
  /// connectSecurityTokenSignal() do (a queued callback, its own copy of the token, to wipe).
  tessel::SignalView<OptionalToken> securityTokenSignal();

  // ---- security state

  /// Stores the flag, then publishes it on "Secured"; returns after the secured signal's callbacks have
  /// run on this thread. Every call publishes, also an unchanged flag.
  /// @throws std::system_error (resource_deadlock_would_occur) when called under the board lock, or
  ///         when a wait would close a lock cycle. From a secured-signal callback it nests.
  /// @throws std::bad_function_call when the signal reaches an empty callback.
  /// @throws std::bad_alloc on allocation failure. What a callback throws passes through. In every
  ///         case the flag stays stored, and so does the getter once it was published.
  void updateSecured(bool secured);
  /// Notifies true on "NewCredentials" (stores nothing); returns after that signal's callbacks have run
  /// on this thread. Throws as updateSecured() does, for the new-credentials signal.
  void updateAboutNewCreds();
  /// Stores the token (an empty optional clears it; the old bytes are wiped), then publishes its bytes,
  /// or 32 zero bytes when cleared, on "SecurityToken"; returns after the token signal's callbacks have
  /// run on this thread. May overlap another updateSecurityToken() and copySecurityToken() on other
  /// threads (the token is stored under the contract's lock), but not a read through
  /// getSecurityToken(). Throws as updateSecured() does, for the token signal.
  void updateSecurityToken(const OptionalToken& token);

  /// The flag last stored by updateSecured(); false at first. Atomic, takes no lock, never throws.
  bool isSecured() const;
  /// The current token, empty at first and after a clear. The reference stays valid and shows later
  /// changes; it is read without a lock, so it must not be read while updateSecurityToken() runs on
  /// another thread: use copySecurityToken() there. Takes no lock, never throws.
  const OptionalToken& getSecurityToken() const;
  /// A copy of the current token, taken under the contract's lock, so never torn by an
  /// updateSecurityToken() on another thread. The copy is the caller's to wipe.
  /// @throws std::system_error when the lock itself fails, as std::mutex::lock() may.
  OptionalToken copySecurityToken() const;

  // ---- IP and port allowance

  /// Publishes `allowed` for the pair, and hands it to the pair's subscription, if there is one, then
  /// to its listeners, on this thread after the board lock is released.
  /// @throws std::bad_function_call when the pair's subscription is empty (the flag stays published,
  ///         and the listeners miss it).
  /// @throws std::system_error (resource_deadlock_would_occur) when called under the board lock, or
  ///         when waiting for it would close a lock cycle.
  /// @throws std::bad_alloc on allocation failure. What the subscription or a listener throws passes
  ///         through, and the listeners after it miss the flag.
  void updateIpPortAllowed(const std::string& address, int port, bool allowed);
  /// Publishes `allowed` for the address as a whole (read by isIpSecured), then for each port of the
  /// port list as it is once that is done, in order. Throws as updateIpPortAllowed() does and stops at
  /// the first failure; what was published before stays.
  void updateIpAllPortsAllowed(const std::string& address, bool allowed);
  /// Makes `callback` the pair's one subscription (replacing an earlier one; the listeners of
  /// connectIpPortAllowed() stay as they are). If the pair has a published flag, `callback` receives
  /// it before this returns, under the board lock (see FlagCallback).
  /// @throws std::bad_function_call when `callback` is empty and the pair has a flag. Then, and when
  ///         the initial delivery throws (which passes through), nothing is stored.
  /// @throws std::system_error (resource_deadlock_would_occur) as updateIpPortAllowed() does.
  /// @throws std::bad_alloc on allocation failure.
  void subscribeToIpPortAllowed(const std::string& address, int port, const FlagCallback& callback);
  /// Removes the pair's published flag and its subscription. Listeners connected with
  /// connectIpPortAllowed() stay connected, are handed nothing for it, and receive the pair's next
  /// publication. A pair with neither flag nor subscription is not an error.
  /// @throws std::system_error (resource_deadlock_would_occur) as updateIpPortAllowed() does.
  /// @throws std::bad_alloc when the key cannot be allocated.
  void unsubscribeFromIpPortAllowed(const std::string& address, int port);
  /// Adds `callback` to the pair's listeners, any number of them beside its one subscription, and returns
  /// its Connection (disconnecting it withdraws nothing). If the pair has a published flag, `callback`
  /// receives it first, on this thread before this returns; then every later publication of the pair,
  /// none missed. It runs under the pair's listener lock, not the board lock, and must not publish the
  /// same pair nor connect to it (both throw `std::system_error`); it may call any other operation.
  /// @throws std::invalid_argument when `callback` is empty; nothing changes.
  /// @throws std::system_error (resource_deadlock_would_occur) under the board lock (a getter, an initial
  ///         delivery), from a listener of the same pair, or when a wait would close a lock cycle.
  /// @throws std::bad_alloc on allocation failure. What the first delivery throws passes through; then,
  ///         as on every failure, nothing is connected.
  tessel::Connection connectIpPortAllowed(const std::string& address, int port, const FlagCallback& callback);
  /// connectIpPortAllowed() for a listener tracked by `owner` (a std::shared_ptr or std::weak_ptr of any
  /// type converts), as connectSecuredSignalWithHandle() with an owner: never called once the owner has
  /// expired, which it keeps alive while it runs. Throws as the other form does.
  tessel::Connection connectIpPortAllowed(const std::string& address, int port, const FlagCallback& callback,
                                          const std::weak_ptr<const void>& owner);
  /// connectIpPortAllowed() for a listener that runs on the thread that drains `mailbox` (the caller
  /// includes vantor/tessel/mailbox.hpp): the pair's flag, then each publication, is posted to the
  /// mailbox in that order, and runs at its next drain() unless the listener was disconnected, or
  /// `owner` expired, by then, as Contract::connectTopic() with a mailbox does. Throws as
  /// connectIpPortAllowed() does; a publication also throws what Mailbox::post() throws.
  tessel::Connection connectIpPortAllowed(const std::string& address, int port, tessel::Mailbox& mailbox,
                                          const FlagCallback& callback);
  /// The queued connectIpPortAllowed() for a listener tracked by `owner`. Throws as the other forms do.
  tessel::Connection connectIpPortAllowed(const std::string& address, int port, tessel::Mailbox& mailbox,
                                          const FlagCallback& callback, const std::weak_ptr<const void>& owner);
  /// The flag last published for the pair, or none when it was never published or was withdrawn since.
  /// Reads the board under its lock; calls no callback.
  /// @throws std::system_error (resource_deadlock_would_occur) as updateIpPortAllowed() does.
  /// @throws std::bad_alloc when the key cannot be allocated.
  std::optional<bool> isIpPortAllowed(const std::string& address, int port);
  /// True while the system is not secured, for every address; otherwise the flag last published for
  /// the address as a whole, false if none was. Port flags do not count.
  /// @throws std::system_error (resource_deadlock_would_occur) while secured, as updateIpPortAllowed()
  ///         does.
  /// @throws std::bad_alloc when the key cannot be allocated.
  bool isIpSecured(const std::string& address);

  // ---- host hooks and ports

  /// Calls the logger hook, after releasing the contract's lock, and returns its Logger.
  /// @throws std::bad_function_call while no hook is set. What the hook throws passes through.
  Logger& userActivityLogger();
  /// Replaces the logger hook with a copy of `logger` (an empty one unsets it). The previous hook is
  /// destroyed after the contract's lock is released.
  /// @throws std::bad_alloc when the copy cannot be allocated; what the hook's copy throws. Nothing
  ///         changes then.
  void setUserActivityLogger(const LoggerHook& logger);
  /// Replaces the connection callback with a copy of `callback` (an empty one unsets it). The previous
  /// callback is destroyed after the contract's lock is released. Throws as setUserActivityLogger() does.
  void setRegisterConnectionCallback(const ConnectionCallback& callback);
  /// setRegisterConnectionCallback(), under the name it has always had.
  void setRegisterConnectonCallback(const ConnectionCallback& callback);
  /// Calls the connection callback once with the same arguments, on this thread and after releasing the
  /// contract's lock, if one is set; otherwise does nothing. What the callback throws passes through.
  void registerConnection(const std::string& address, int port, bool allowed);
  /// Replaces the port list with a copy of `ports`. A walk of updateIpAllPortsAllowed() already
  /// running keeps the list it started with.
  /// @throws std::bad_alloc when the copy cannot be allocated; the list is unchanged.
  void setTcpPortsVector(const std::vector<int>& ports);
  /// The same for a temporary or a moved list: it copies too, so a list passed with std::move keeps
  /// its elements. Throws as the other form does.
  void setTcpPortsVector(std::vector<int>&& ports);

 private:
  CyberSecurityContract();
  ~CyberSecurityContract() override;

  template <typename Signal, typename Callback, typename... Owner>
  tessel::Connection connectTo(Signal& signal, const Callback& callback, const char* operation, const Owner&... owner);
  template <typename... Args>
  tessel::SignalView<Args...> viewOf(tessel::Signal<Args...>& signal);
  std::string topicKey(std::string_view topic) const;
  std::string addressKey(const std::string& address) const;
  std::string portKey(const std::string& address, int port) const;

  tessel::Signal<bool> securedSignal_{"the secured signal's lock"};
  tessel::Signal<bool> newCredentialsSignal_{"the new-credentials signal's lock"};
  tessel::Signal<OptionalToken> securityTokenSignal_{"the security token signal's lock"};
  std::atomic<bool> secured_{false};
  // Wiped when cleared and at destruction. Also read without the lock, through getSecurityToken().
  OptionalToken securityToken_ VANTOR_GUARDED_BY(mutex_);
  // Guards the token, the port list and the hook pointers. Held only to copy, swap or wipe them: hooks
  // are held through shared pointers, so a hook is copied, called and destroyed only after the lock is
  // released, and no host code ever runs under it. It therefore nests inside every other lock (the
  // "SecurityToken" getter takes it under the board's lock) and never outside one.
  mutable tessel::detail::TrackedMutex mutex_{"the contract's state lock"};
  std::vector<int> tcpPorts_ VANTOR_GUARDED_BY(mutex_);
  std::shared_ptr<const LoggerHook> userActivityLogger_ VANTOR_GUARDED_BY(mutex_);                  // null: none
  std::shared_ptr<const ConnectionCallback> registerConnectionCallback_ VANTOR_GUARDED_BY(mutex_);  // null: none
};

}  // namespace vantor::messaging

/// @mainpage libvantor_message_board
///
/// A C++17 shared library (`libvantor_message_board.so.13`, ABI version 13) through which the
/// components of one host process exchange state in-process. It has three parts:
///
///  - **The message board**: the process-wide store of getters and subscribers under full keys,
///    vantor::messaging::MessageBoard (message_board.hpp), and the topic protocol of its contracts'
///    base class, vantor::messaging::Contract (contract.hpp).
///  - **Signals**: the header-only signal/slot template vantor::tessel::Signal with its slot handles
///    vantor::tessel::Connection, vantor::tessel::ScopedConnection and vantor::tessel::ConnectionBlocker
///    (signal.hpp); the read-only view of a signal's connect side, vantor::tessel::SignalView
///    (signal_view.hpp); and vantor::tessel::Mailbox (mailbox.hpp), the queue of calls through which
///    queued connections deliver on a component's own thread.
///  - **The cyber-security contract**: vantor::messaging::CyberSecurityContract
///    (contract_cyber_security.hpp), the one object through which host components share the security
///    state. Hosts use it through instance(), and may derive contracts of their own from Contract
///    for topics of their own (see examples/host_contract.cpp).
///
/// Each header's file description is its manual: what its types are for, which thread may call what,
/// which lock each callback runs under and what it must not call, and how long things live. The
/// @ref guide "guide" walks through the same ground with the threading rules and every error a host
/// can see on one page each.

/// @namespace vantor
/// Everything the library declares.
