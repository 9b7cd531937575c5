#!/usr/bin/env bash
# Mutation testing (a developer tool; CI does not run it). Copies the tree to a scratch directory,
# then, one mutant at a time, plants a plausible fault in the library, builds the dev preset there and
# runs ctest. A mutant is KILLED when some test fails and SURVIVED when every test passes.
#
#   scripts/mutate.sh                                    # the whole suite
#   scripts/mutate.sh -E '/Library\.'                    # extra arguments go to ctest (here: leave out
#                                                        # the model and fault-injection tables)
#   MUTANTS='key-without-colon purge-with-colon' scripts/mutate.sh   # only these
#
# Each line of the table below is one literal edit: name @@ file @@ text @@ replacement ("\n" is a
# newline). A mutant may take several lines with the same name; they are applied in order. Every text
# must occur exactly once in the unmutated file, or the script stops before building anything: when the
# library changes, update the text here.
set -euo pipefail
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
scratch="$(mktemp -d /tmp/vantor-mutate.XXXXXX)"
tree="$scratch/tree"

read -r -d '' table <<'EOF' || true
deliver-under-board-lock @@ include/vantor/messaging/contract.hpp @@     lock.unlock();\n    delivery.template deliver<T>(value.value);  // std::bad_function_call for an empty subscriber @@     delivery.template deliver<T>(value.value);\n    lock.unlock();
store-subscriber-before-initial-delivery @@ include/vantor/messaging/contract.hpp @@     detail::invokeOrThrow(subscriber, value.value);  // the initial delivery; nothing is stored if it throws @@     board.subscribers.insert_or_assign(key, detail::StoredFunction(stored));\n    detail::invokeOrThrow(subscriber, value.value);
no-initial-delivery @@ include/vantor/messaging/contract.hpp @@     detail::invokeOrThrow(subscriber, value.value);  // the initial delivery; nothing is stored if it throws @@     (void)value;
empty-getter-not-stored @@ include/vantor/messaging/contract.hpp @@     entry->second = std::move(stored);  // the previous getter @@     if (!stored.empty()) entry->second = std::move(stored);  // the previous getter
get-calls-an-empty-getter @@ include/vantor/messaging/contract.hpp @@   if (getter->second.empty()) return boost::none; @@ 
notify-stores-nothing-but-delivers-twice @@ include/vantor/messaging/contract.hpp @@     delivery.template deliver<T>(value);\n  } @@     delivery.template deliver<T>(value);\n    delivery.template deliver<T>(value);\n  }
purge-with-colon @@ src/message_board.cpp @@ it->first.text.compare(0, prefix.size(), prefix) == 0 @@ it->first.text.compare(0, prefix.size() + 1, prefix + ":") == 0
key-without-colon @@ src/message_board.cpp @@   fullKey.push_back(':'); @@ 
unsubscribe-keeps-the-getter @@ src/message_board.cpp @@   board.getters.erase(key); @@ 
types-compared-by-spelling @@ include/vantor/messaging/detail/type_key.hpp @@   return recognisableAcrossModules(a) && recognisableAcrossModules(b) && *a.rtti == *b.rtti && *b.rtti == *a.rtti && @@   return a.name == b.name || false &&
types-compared-by-address-only @@ include/vantor/messaging/detail/type_key.hpp @@ *a.rtti == *b.rtti && *b.rtti == *a.rtti && @@ a.rtti == b.rtti &&
internal-types-taken-by-mangled-name @@ include/vantor/messaging/detail/type_key.hpp @@ &&\n         MangledTypeName::sharedAcrossModules(a.rtti->name()); @@ ;
unnamed-namespace-taken @@ include/vantor/messaging/detail/type_key.hpp @@ identifier.rfind("_GLOBAL__N", 0) != 0 && @@ 
references-taken-for-their-type @@ include/vantor/messaging/detail/type_key.hpp @@ kTopicValueType<T>, @@ true,
key-retyped-by-update @@ include/vantor/messaging/contract.hpp @@     detail::checkType(entry->second, detail::typeKeyOf<T>, operation, entry->first);\n @@ 
null-getter-called @@ include/vantor/messaging/contract.hpp @@ value{detail::invokeOrThrow(getter)}; @@ value{getter()};
moved-from-callable-still-owns-it @@ include/vantor/messaging/detail/stored_function.hpp @@     other.ops_ = nullptr;  // its function now lives here @@ 
walk-erases-blocked-slots @@ include/vantor/tessel/signal.hpp @@       if (status.disconnected.load(std::memory_order_acquire)) { @@       if (status.disconnected.load(std::memory_order_acquire) || status.blocked.load(std::memory_order_acquire)) {
nested-walk-erases @@ include/vantor/tessel/signal.hpp @@         if (outermost) erase(entry); @@         erase(entry);
walk-never-calls-the-last-slot @@ include/vantor/tessel/signal.hpp @@         if (left == 1) return entry->first(std::forward<A>(args)...); @@         if (left == 1) return;
nested-call-releases-the-outer-calls-owners @@ include/vantor/tessel/connection.hpp @@ outer_(slot.ownerCount != 0 && slot.owners[0].kept.use_count() == 0) @@ outer_(true)
expired-owner-reads-connected @@ include/vantor/tessel/connection.hpp @@ if (owners[i].watched.expired()) return true; @@ if (owners[i].watched.expired() && false) return true;
expired-owner-still-called @@ include/vantor/tessel/connection.hpp @@       alive_ = alive_ && slot.owners[i].kept.use_count() != 0; @@       alive_ = true;
null-owner-taken-for-expired @@ include/vantor/tessel/connection.hpp @@       alive_ = alive_ && slot.owners[i].kept.use_count() != 0; @@       alive_ = alive_ && slot.owners[i].kept;
owner-not-kept-alive-while-its-slot-runs @@ include/vantor/tessel/signal.hpp @@       const detail::KeptOwners kept(slot);\n      if (kept) callback(std::forward<Args>(args)...); @@       if (!slot.ownerGone()) callback(std::forward<Args>(args)...);
extended-slot-handed-no-connection @@ include/vantor/tessel/signal.hpp @@ self = Connection(status)] @@ self = Connection()]
slot-count-includes-disconnected-slots @@ include/vantor/tessel/signal.hpp @@ connected += detail::stateOf(*slot.second).gone() ? 0 : 1; @@ connected += 1;
connect-keeps-disconnected-slots @@ include/vantor/tessel/signal.hpp @@     if (hold.outermost()) eraseGone(); @@ 
connect-prepends @@ include/vantor/tessel/signal.hpp @@ slots_.emplace_back(std::move(callback), std::move(status)); @@ slots_.emplace_front(std::move(callback), std::move(status));
connect-prepends @@ include/vantor/tessel/signal.hpp @@ return Connection(slots_.back().second); @@ return Connection(slots_.front().second);
emit-keeps-the-lock-when-a-slot-throws @@ include/vantor/tessel/signal.hpp @@     const Hold hold(*this, operation);\n    walk(hold.outermost(), std::forward<A>(args)...); @@     auto* hold = new Hold(*this, operation);\n    walk(hold->outermost(), std::forward<A>(args)...);\n    delete hold;
disconnect-leaves-the-slot-to-the-next-walk @@ include/vantor/tessel/connection.hpp @@     const char* lockName = nullptr;\n    slot.release(&lockName);\n  }\n} @@   }\n}
holder-forgets-the-listed-signal @@ include/vantor/tessel/signal.hpp @@     if (detail::releaseRegistry().pending.load(std::memory_order_relaxed) != 0) releasePending(); @@ 
wait-ends-before-the-callback-is-destroyed @@ include/vantor/tessel/signal.hpp @@     slot.first = nullptr;\n @@ 
disconnect-all-inside-keeps-calling @@ include/vantor/tessel/signal.hpp @@     for (const Slot& slot : slots_) slot.second->disconnected.store(true, std::memory_order_release); @@ 
blockers-not-counted @@ include/vantor/tessel/connection.hpp @@ blocks.fetch_add(detail::SlotState::kOneBlocker); @@ blocks.fetch_or(detail::SlotState::kOneBlocker);
scoped-assignment-keeps-the-old-slot @@ include/vantor/tessel/connection.hpp @@       connection_.disconnect();\n      connection_ = other.release(); @@       connection_ = other.release();
lock-holder-never-cleared @@ include/vantor/tessel/detail/tracked_lock.hpp @@     holder_.store(std::thread::id(), std::memory_order_relaxed);\n    mutex_.unlock(); @@     mutex_.unlock();
reentry-not-detected @@ include/vantor/tessel/detail/tracked_lock.hpp @@     if (mutex.holder_.load(std::memory_order_relaxed) == self) throwReentry(mutex, operation, subject); @@ 
signal-lock-does-not-nest @@ include/vantor/tessel/detail/tracked_lock.hpp @@     if (mutex.holder_.load(std::memory_order_relaxed) == self) return;  // nested: the outer hold owns it @@ 
cycle-not-detected @@ include/vantor/tessel/detail/tracked_lock.hpp @@       if (holder == self) return length; @@       if (holder == self) return 0;
registry-referenced-weakly @@ include/vantor/tessel/detail/tracked_lock.hpp @@ __attribute__((visibility("default"))) WaitRegistry* processWaitRegistry() noexcept; @@ __attribute__((weak, visibility("default"))) WaitRegistry* processWaitRegistry() noexcept;
wrong-default-port @@ src/contract_cyber_security.cpp @@ 17176, 17178} @@ 17176, 17177}
walk-live-port-list @@ src/contract_cyber_security.cpp @@   for (const int port : ports) { @@   for (std::size_t i = 0; i < tcpPorts_.size(); ++i) {\n    const int port = tcpPorts_[i];
walk-skips-the-first-port @@ src/contract_cyber_security.cpp @@   for (const int port : ports) { @@   for (std::size_t i = 1; i < ports.size(); ++i) {\n    const int port = ports[i];
cleared-token-signalled-as-empty-optional @@ src/contract_cyber_security.cpp @@ securityTokenSignal_.emitAs(kUpdateSecurityToken, token); @@ securityTokenSignal_.emitAs(kUpdateSecurityToken, token == Token{} ? OptionalToken() : OptionalToken(token));
token-never-cleared @@ src/contract_cyber_security.cpp @@       securityToken_ = boost::none; @@ 
token-not-wiped @@ src/contract_cyber_security.cpp @@       wipe(securityToken_);  // a reset optional keeps its payload: clear the bytes first @@ 
token-not-wiped-at-destruction @@ src/contract_cyber_security.cpp @@ VANTOR_NO_THREAD_SAFETY_ANALYSIS { wipe(securityToken_); } @@ VANTOR_NO_THREAD_SAFETY_ANALYSIS {}
secured-stored-after-publishing @@ src/contract_cyber_security.cpp @@   secured_.store(secured, std::memory_order_release);\n  publish<bool>(\n      topicKey("Secured"), [this] { return secured_.load(std::memory_order_acquire); }, kUpdateSecured); @@   publish<bool>(\n      topicKey("Secured"), [secured] { return secured; }, kUpdateSecured);\n  secured_.store(secured, std::memory_order_release);
new-credentials-notice-false @@ src/contract_cyber_security.cpp @@ notifyKey<bool>(topicKey("NewCredentials"), true, kUpdateAboutNewCreds); @@ notifyKey<bool>(topicKey("NewCredentials"), false, kUpdateAboutNewCreds);
ip-secured-reads-a-port-topic @@ src/contract_cyber_security.cpp @@ return read<bool>(addressKey(address), @@ return read<bool>(portKey(address, 17161),
ip-secured-false-while-unsecured @@ src/contract_cyber_security.cpp @@   if (!secured_.load(std::memory_order_acquire)) return true; @@   if (!secured_.load(std::memory_order_acquire)) return false;
ports-moved-out-of-the-argument @@ src/contract_cyber_security.cpp @@   setTcpPortsVector(static_cast<const std::vector<int>&>(ports)); @@   std::vector<int> moved(std::move(ports));\n  setTcpPortsVector(moved);
connection-flag-lost @@ src/contract_cyber_security.cpp @@   if (callback) (*callback)(address, port, allowed); @@   if (callback) (*callback)(address, port, true);
hook-copied-under-the-lock @@ src/contract_cyber_security.cpp @@     callback = registerConnectionCallback_; @@     if (registerConnectionCallback_) callback = std::make_shared<const ConnectionCallback>(*registerConnectionCallback_);
hook-destroyed-under-the-lock @@ src/contract_cyber_security.cpp @@   userActivityLogger_.swap(replacement); @@   userActivityLogger_ = std::move(replacement);
get-calls-the-getter-twice @@ include/vantor/messaging/contract.hpp @@   return getter->second.template get<T>(); @@   getter->second.template get<T>();\n  return getter->second.template get<T>();
delivery-runs-the-stored-subscriber @@ include/vantor/messaging/contract.hpp @@   delivery.template deliver<T>(value.value);  // std::bad_function_call for an empty subscriber @@   subscriber->second.template deliver<T>(value.value);
walk-snapshots-the-ports-before-the-address @@ src/contract_cyber_security.cpp @@   publish<bool>(\n      addressKey(address), [allowed] { return allowed; }, kOperation); @@   const std::vector<int> early = [this] {\n    tessel::detail::TrackedLock lock(mutex_, kOperation);\n    return tcpPorts_;\n  }();\n  publish<bool>(\n      addressKey(address), [allowed] { return allowed; }, kOperation);
walk-snapshots-the-ports-before-the-address @@ src/contract_cyber_security.cpp @@     ports = tcpPorts_; @@     ports = early;
ip-secured-reads-the-board-while-unsecured @@ src/contract_cyber_security.cpp @@   if (!secured_.load(std::memory_order_acquire)) return true; @@   const bool published = read<bool>(addressKey(address), "isIpSecured").value_or(false);\n  if (!secured_.load(std::memory_order_acquire)) return true;\n  if (published) return true;
EOF

# Applies the edits of mutant $1 to $tree (which must be unmutated); fails unless each text occurs once.
apply() {
  printf '%s\n' "$table" | python3 -c '
import re, sys
name, tree = sys.argv[1], sys.argv[2]
found = False
for line in sys.stdin:
    fields = re.split(r" @@(?: |$)", line.rstrip("\n"))
    if fields[0] != name:
        continue
    found = True
    path, text = tree + "/" + fields[1], fields[2].replace("\\n", "\n")
    replacement = (fields[3] if len(fields) > 3 else "").replace("\\n", "\n")
    source = open(path).read()
    if source.count(text) != 1:
        sys.exit("mutant %s: found %d times in %s (update the table): %s" % (name, source.count(text), fields[1], text))
    open(path, "w").write(source.replace(text, replacement))
if not found:
    sys.exit("no mutant named " + name)
' "$1" "$tree"
}

# The library as it was when the run began, so that editing the working tree meanwhile changes nothing.
pristine="$scratch/pristine"
mkdir -p "$pristine"
tar -C "$source_dir" -cf - include src | tar -C "$pristine" -xf -
restore() { tar -C "$pristine" -cf - include src | tar -C "$tree" -xmf -; }  # -m: new mtimes, so ninja rebuilds

names=${MUTANTS:-$(printf '%s\n' "$table" | sed 's/ @@ .*//' | awk '!seen[$0]++')}

mkdir -p "$tree"
tar -C "$source_dir" --exclude=./build --exclude=./.git -cf - . | tar -C "$tree" -xf -
for name in $names; do  # every edit must apply to the unmutated tree before anything is built
  apply "$name"
  restore
done

cd "$tree"
# Without -Werror (a mutant may leave a variable unused), and without what no test runs.
cmake --preset dev -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DVANTOR_MESSAGE_BOARD_WERROR=OFF -DVANTOR_MESSAGE_BOARD_BENCH=OFF -DVANTOR_MESSAGE_BOARD_EXAMPLES=OFF >/dev/null
cmake --build --preset dev -j2 >/dev/null
ctest --preset dev -j2 --timeout 60 "$@" >/dev/null || { echo "mutate: the unmutated tree fails its tests"; exit 1; }

killed=0 survived=0
for name in $names; do
  apply "$name"
  if ! cmake --build --preset dev -j2 >"$scratch/$name.build.log" 2>&1; then
    echo "mutant $name does not compile (see $scratch/$name.build.log): update the table" >&2
    exit 1
  fi
  if ctest --preset dev -j2 --timeout 20 --stop-on-failure "$@" >"$scratch/$name.log" 2>&1; then
    echo "SURVIVED $name"
    survived=$((survived + 1))
  else
    echo "KILLED   $name  ($({ grep -m1 -oE '[0-9]+ - [^ ]+' "$scratch/$name.log" || true; } | sed 's/^[0-9]* - //'))"
    killed=$((killed + 1))
  fi
  restore
done
echo "mutate: $killed killed, $survived survived of $((killed + survived)) mutants (logs in $scratch)"
