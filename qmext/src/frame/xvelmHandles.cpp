// The process-wide set of live lock handles. Buckets are chains through the
// handle blocks themselves, so the set never allocates and never fails; each
// bucket stripe has a tiny spin lock held for a few pointer operations only
// (a leaf of the lock order: nothing is called while it is held).
#include "frame/xvelmHandles.h"

#include <atomic>
#include <cstdint>
#include <thread>

#include "host/xvelmMutex.h"

namespace xvelm::detail {
namespace {

constexpr std::size_t kBuckets = 4096;
constexpr std::size_t kStripes = 64;

HandleBlock *buckets[kBuckets];
// Each stripe's flag on a cache line of its own: threads that check
// different handles (every UpdateIOInfo does) must not write one line.
struct alignas(64) Stripe {
  std::atomic_flag flag;
};
Stripe stripes[kStripes];

std::size_t bucketOf(const void *h) {
  auto v = reinterpret_cast<std::uintptr_t>(h);
  v ^= v >> 17;
  v *= 0x9E3779B97F4A7C15ull;
  return static_cast<std::size_t>(v >> 40) % kBuckets;
}

class StripeGuard {
 public:
  explicit StripeGuard(std::size_t bucket) : flag_(stripes[bucket % kStripes].flag) {
    lockOrderTake(Rank::HandleSet);
    while (flag_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
    lockOrderTaken(Rank::HandleSet);
  }
  ~StripeGuard() {
    lockOrderGive(Rank::HandleSet);
    flag_.clear(std::memory_order_release);
  }
  StripeGuard(const StripeGuard &) = delete;
  StripeGuard &operator=(const StripeGuard &) = delete;

 private:
  std::atomic_flag &flag_;
};

}  // namespace

void registerHandle(HandleBlock *h) noexcept {
  std::size_t b = bucketOf(h);
  StripeGuard g(b);
  h->nextLive = buckets[b];
  buckets[b] = h;
}

bool unregisterHandle(const void *h) noexcept {
  std::size_t b = bucketOf(h);
  StripeGuard g(b);
  // Only live blocks are on the chain, so following it never reads a block
  // that was given back to the pool.
  for (HandleBlock **link = &buckets[b]; *link != nullptr; link = &(*link)->nextLive) {
    if (*link == h) {
      *link = (*link)->nextLive;
      return true;
    }
  }
  return false;
}

bool handleIsLive(const void *h) noexcept {
  std::size_t b = bucketOf(h);
  StripeGuard g(b);
  for (const HandleBlock *e = buckets[b]; e != nullptr; e = e->nextLive)
    if (e == h) return true;
  return false;
}

void handleSetPrepareFork() noexcept {
  for (Stripe &s : stripes)
    while (s.flag.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
}

void handleSetParentAfterFork() noexcept {
  for (Stripe &s : stripes) s.flag.clear(std::memory_order_release);
}

void resetHandleSetAfterFork() noexcept {
  // Only the forking thread exists in the child: a stripe that another thread
  // of the parent held at the fork would otherwise stay taken for ever.
  for (Stripe &s : stripes) s.flag.clear(std::memory_order_relaxed);
}

void unregisterHandlesOf(const QMELMExtension *ext) noexcept {
  for (std::size_t b = 0; b < kBuckets; ++b) {
    StripeGuard g(b);
    for (HandleBlock **link = &buckets[b]; *link != nullptr;) {
      if ((*link)->pub.Common.Private.ExtHndl == ext)
        *link = (*link)->nextLive;
      else
        link = &(*link)->nextLive;
    }
  }
}

}  // namespace xvelm::detail
