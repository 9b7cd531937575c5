#pragma once

/// @file
/// SignalView<Args...>: the connect side of a Signal, handed out by the signal's owner so that others
/// may connect to it, count its slots, and no more (no emit(), no disconnectAll()).
///
/// A view is a pointer to the signal plus an optional check that the owner runs before every
/// operation of the view (all of them take the signal's lock): the cyber-security contract's views
/// refuse to run under the board's lock, as its own connect operations do. Every connect form of
/// Signal reaches the view's holders through the view, under the same rules, so that an owner offers
/// them all without an operation of its own for each.
///
/// Threads and errors: as the Signal's operations (vantor/tessel/signal.hpp). The check's errors name
/// the view's operation ("SignalView::connectQueued"); the signal's lock errors name the signal's lock
/// and, for connect(), the view's operation, for the others the Signal operation that took the lock
/// ("Signal::connectExtended", which connectQueued() is built on, "Signal::slotCount", "Signal::empty").
/// Lifetime: a view is cheap to copy and refers to its signal without owning it, so it must not be used
/// once the signal is gone (the contract's signals live as long as the process).

#include <cstddef>
#include <type_traits>

#include "vantor/tessel/signal.hpp"

namespace vantor::tessel {

/// The connect side of a Signal<Args...>: every connect form, slotCount() and empty(), with the rules
/// of the Signal's own operations, each preceded by the owner's check. Cheap to copy.
template <typename... Args>
class SignalView {
 public:
  /// The signal's Callback (see Signal::Callback for the lock it runs under and what it must not call).
  using Callback = typename Signal<Args...>::Callback;
  /// The signal's ExtendedCallback, which receives its own slot's Connection first.
  using ExtendedCallback = typename Signal<Args...>::ExtendedCallback;
  /// The owner's check, run on the calling thread before each operation of the view with the owner's
  /// `context`, the view's operation ("SignalView::connect") and the signal's lock name; it refuses
  /// the operation by throwing (a std::system_error, say), and then nothing happens.
  using Check = void (*)(const void* context, const char* operation, const char* lockName);

  /// A view of `signal`, which must outlive every use of the view; `check`, if not null, runs before
  /// every operation with `context`. Takes no lock, never throws.
  explicit SignalView(Signal<Args...>& signal, Check check = nullptr, const void* context = nullptr) noexcept
      : signal_(&signal), check_(check), context_(context) {}

  /// Signal::connect(). Throws what the check throws, then what Signal::connect() throws.
  Connection connect(const Callback& callback) const {
    return signal_->connectAs(checked("SignalView::connect"), callback);
  }
  /// Signal::connect() for a slot tracked by `owners`. Throws as connect() does.
  template <typename Owner, typename... Owners>
  Connection connect(const Callback& callback, const Owner& owner, const Owners&... owners) const {
    return signal_->connectAs(checked("SignalView::connect"), callback, owner, owners...);
  }
  /// Signal::connect() for the member function `method` of `object` (a raw pointer, or a std::shared_ptr
  /// or std::weak_ptr, which tracks the slot). Throws as connect() does.
  template <typename Method, typename Object, typename = std::enable_if_t<std::is_member_function_pointer_v<Method>>>
  Connection connect(Method method, const Object& object) const {
    checked("SignalView::connect");
    return signal_->connect(method, object);
  }
  /// Signal::connectExtended(). Throws as connect() does.
  template <typename... Owners>
  Connection connectExtended(const ExtendedCallback& callback, const Owners&... owners) const {
    checked("SignalView::connectExtended");
    return signal_->connectExtended(callback, owners...);
  }
  /// Signal::connectQueued(): `callback` runs on the thread that drains `mailbox`. Throws as connect()
  /// does.
  template <typename MailboxType, typename... Owners>
  Connection connectQueued(MailboxType& mailbox, const Callback& callback, const Owners&... owners) const {
    checked("SignalView::connectQueued");
    return signal_->connectQueued(mailbox, callback, owners...);
  }

  /// Signal::slotCount(): the connected slots, blocked ones included. Throws as connect() does.
  std::size_t slotCount() const {
    checked("SignalView::slotCount");
    return signal_->slotCount();
  }
  /// Signal::empty(). Throws as connect() does.
  bool empty() const {
    checked("SignalView::empty");
    return signal_->empty();
  }

  /// The name of the signal's lock, as errors give it. Takes no lock, never throws.
  const char* lockName() const noexcept { return signal_->lockName(); }

 private:
  // Runs the owner's check for `operation` and returns `operation`.
  const char* checked(const char* operation) const {
    if (check_ != nullptr) check_(context_, operation, signal_->lockName());
    return operation;
  }

  Signal<Args...>* signal_;
  Check check_;
  const void* context_;
};

}  // namespace vantor::tessel
