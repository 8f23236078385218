/*
 * address_map.h - a map from live object addresses to a value, stored flat
 * (open addressing, linear probing, deletion by backward shift), so that
 * recording and forgetting an object allocates nothing once the table is
 * large enough: the pools and registries of the host record every block and
 * object they hand out, on every allocation of every caller. Not
 * thread-safe: each shard guards its own map with its mutex.
 */
#ifndef QMHOST_ADDRESS_MAP_H
#define QMHOST_ADDRESS_MAP_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <thread>
#include <utility>

namespace qmhost {

// Waits a moment inside a spin: the processor's pause hint.
inline void spinPause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// The lock of one shard of a pool or registry: held for a few instructions
// (one probe of an AddressMap), so a waiter spins briefly, then yields its
// processor, rather than sleeping in the kernel; an uncontended lock and
// unlock are one exchange and one store.
class ShardLock {
 public:
  void lock() noexcept {
    for (int spins = 0; busy_.exchange(true, std::memory_order_acquire); ++spins) {
      while (busy_.load(std::memory_order_relaxed)) {
        if (++spins < 64)
          spinPause();
        else
          std::this_thread::yield();
      }
    }
  }
  bool try_lock() noexcept { return !busy_.exchange(true, std::memory_order_acquire); }
  void unlock() noexcept { busy_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> busy_{false};
};

// A full mix: every bit of the result depends on every bit of x. Used to
// pick a shard by region: the regions of two threads' heaps must fall into
// different shards, and a multiplicative hash of region numbers put the
// heaps of two benchmark threads into one shard, halving their throughput.
inline uint64_t mixBits(uint64_t x) noexcept {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdull;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ull;
  x ^= x >> 33;
  return x;
}

// Fibonacci hashing, for a map's slots: the top `bits` bits of x times 2^64
// divided by the golden ratio. Every bit of x reaches the top bits of the
// product, so addresses that differ only in a few low bits (neighbouring
// blocks) spread over the whole map; a multiply and a shift on each
// allocation and each free, where a full mix takes five steps.
inline size_t fibonacciHash(uint64_t x, unsigned bits) noexcept {
  return static_cast<size_t>((x * 0x9E3779B97F4A7C15ull) >> (64 - bits));
}

// The shard (of n, a power of two) an address belongs to, by the 64 MiB
// region it lies in. malloc serves each thread from an arena of its own,
// whose heaps are 64 MiB-aligned regions, so the blocks of one thread stay in
// one shard and two threads rarely write the cache lines of one shard (its
// lock and its map). Spread by their full address, the blocks of every
// thread went to every shard, and two threads allocating side by side ran
// slower together than one alone.
// A thread's blocks lie in few regions: the last region's mix is kept per
// thread, so that most allocations and frees skip the five mixing steps.
struct RegionMix {
  uint64_t region = ~uint64_t{0};
  uint64_t mixed = 0;
};
inline thread_local __attribute__((tls_model("initial-exec"))) RegionMix tLastRegion;

inline size_t addressShard(const void *p, size_t n) noexcept {
  if (n <= 1) return 0;
  const uint64_t region = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)) >> 26;
  RegionMix &last = tLastRegion;
  if (last.region != region) last = {region, mixBits(region)};
  return static_cast<size_t>(last.mixed >> (64 - __builtin_ctzll(n)));
}

template <class V>
class AddressMap {
 public:
  AddressMap() = default;
  AddressMap(const AddressMap &) = delete;
  AddressMap &operator=(const AddressMap &) = delete;
  AddressMap(AddressMap &&o) noexcept { swap(o); }
  AddressMap &operator=(AddressMap &&o) noexcept {
    AddressMap gone;
    gone.swap(o);
    swap(gone);
    return *this;
  }

  size_t size() const noexcept { return size_; }

  // Records key (never null, not recorded yet) with v; false (nothing
  // changed) when the table cannot grow.
  bool insert(const void *key, V v) noexcept {
    if ((size_ + 1) * 2 > capacity_ && !grow()) return false;
    place(key, std::move(v));
    ++size_;
    return true;
  }

  // Forgets key and hands its value to *out; false when key is not recorded
  // (the address is only compared, never read through).
  bool take(const void *key, V *out) noexcept {
    if (capacity_ == 0) return false;
    size_t i = slotOf(key);
    for (; slots_[i].key != nullptr; i = next(i)) {
      if (slots_[i].key != key) continue;
      *out = std::move(slots_[i].value);
      erase(i);
      --size_;
      return true;
    }
    return false;
  }

  // Calls f(key, value) on every entry.
  template <class F>
  void forEach(F &&f) const {
    for (size_t i = 0; i < capacity_; ++i)
      if (slots_[i].key != nullptr) f(slots_[i].key, slots_[i].value);
  }

  void swap(AddressMap &o) noexcept {
    std::swap(slots_, o.slots_);
    std::swap(capacity_, o.capacity_);
    std::swap(size_, o.size_);
  }

 private:
  struct Slot {
    const void *key = nullptr;
    V value{};
  };
  static constexpr size_t kFirstCapacity = 16;

  // The address without malloc's alignment bits, hashed to the map's size.
  size_t slotOf(const void *key) const noexcept {
    const auto a = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key)) >> 4;
    return fibonacciHash(a, static_cast<unsigned>(__builtin_ctzll(capacity_)));
  }
  size_t next(size_t i) const noexcept { return (i + 1) & (capacity_ - 1); }

  void place(const void *key, V v) noexcept {
    size_t i = slotOf(key);
    while (slots_[i].key != nullptr) i = next(i);
    slots_[i].key = key;
    slots_[i].value = std::move(v);
  }

  // Empties slot i and moves later entries of its probe run back into the
  // gap, so that every entry stays reachable from its home slot.
  void erase(size_t i) noexcept {
    size_t gap = i;
    for (size_t j = next(i); slots_[j].key != nullptr; j = next(j)) {
      const size_t home = slotOf(slots_[j].key);
      // j may move to gap when its home does not lie cyclically in (gap, j].
      const bool movable = gap <= j ? (home <= gap || home > j) : (home <= gap && home > j);
      if (movable) {
        slots_[gap].key = slots_[j].key;
        slots_[gap].value = std::move(slots_[j].value);
        gap = j;
      }
    }
    slots_[gap].key = nullptr;
    slots_[gap].value = V{};
  }

  bool grow() noexcept {
    const size_t capacity = capacity_ == 0 ? kFirstCapacity : capacity_ * 2;
    std::unique_ptr<Slot[]> fresh;
    try {
      fresh = std::make_unique<Slot[]>(capacity);
    } catch (const std::bad_alloc &) {
      return false;
    }
    std::unique_ptr<Slot[]> old = std::exchange(slots_, std::move(fresh));
    const size_t oldCapacity = std::exchange(capacity_, capacity);
    for (size_t i = 0; i < oldCapacity; ++i)
      if (old[i].key != nullptr) place(old[i].key, std::move(old[i].value));
    return true;
  }

  std::unique_ptr<Slot[]> slots_;
  size_t capacity_ = 0;
  size_t size_ = 0;
};

}  // namespace qmhost

#endif  // QMHOST_ADDRESS_MAP_H
