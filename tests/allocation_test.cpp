// What allocates and what must not: this executable replaces the global operator new to count
// allocations made by the calling thread.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <vector>

#include "board_test_peer.hpp"
#include "vantor/tessel/signal.hpp"

namespace {
thread_local long allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vantor {
namespace {

// Allocations made on this thread while `body` runs.
template <typename Body>
long allocationsDuring(Body body) {
  const long before = allocations;
  body();
  return allocations - before;
}

TEST(Signal, EmissionWithSixtyFourSlotsAllocatesNothing) {
  tessel::Signal<bool> signal;
  int calls = 0;
  for (int i = 0; i < 64; ++i) signal.connect([&calls](bool) { ++calls; });
  signal.emit(true);  // a first emission, so nothing lazily set up is counted

  bool value = true;
  EXPECT_EQ(allocationsDuring([&] { signal.emit(value); }), 0);
  EXPECT_EQ(calls, 128);
}

TEST(Board, CopyingASmallSubscriberForADeliveryAllocatesNothing) {
  // Short name and topic: the key fits the string's own buffer, so only the entries allocate.
  messaging::TestContract contract("A");
  int received = 0;
  contract.update<int>("k", [] { return 1; });

  const long withoutSubscriber = allocationsDuring([&] { contract.update<int>("k", [] { return 2; }); });
  contract.subscribe<int>("k", [&received](const int&) { ++received; });
  const long withSubscriber = allocationsDuring([&] { contract.update<int>("k", [] { return 3; }); });

  EXPECT_EQ(withSubscriber, withoutSubscriber) << "the delivery's copy of the subscriber allocated";
  EXPECT_EQ(allocationsDuring([&] { contract.notify<int>("k", 4); }), 0);
  EXPECT_EQ(received, 3) << "the initial delivery, the update and the notify";
}

}  // namespace
}  // namespace vantor
