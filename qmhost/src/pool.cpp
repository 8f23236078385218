/*
 * pool.cpp - memory pools. Each block is its own malloc (so AddressSanitizer
 * sees a use after free) and is recorded in one of its pool's shards, under
 * that shard's mutex; destroying the pool frees what is left. memFree of a pointer the
 * pool does not hold is refused with QM_E_BAD_FREE. Blocks not asked to be
 * zero-filled are filled with kFillByte, so code that relies on zeroed memory
 * without asking for it is caught.
 */
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "host_internal.h"

namespace qmhost {

namespace {

constexpr unsigned char kFillByte = 0xA5;

Pool *asPool(QMPoolh p) {
  return reinterpret_cast<Pool *>(p);
}

void *poolAlloc(QMPoolh ph, QMMemSize size, uint32_t flags) noexcept {
  if (ph == nullptr) return nullptr;
  Pool *pool = asPool(ph);
  Host *host = pool->host;
  if (host->fail.hit(QMHOST_FAIL_ALLOC)) {
    setLastStatus(host, QM_E_INJECTED_FAILURE);
    return nullptr;
  }
  // A size of 0 still gets a block of its own, so every pointer is unique.
  void *block = size <= SIZE_MAX / 2 ? std::malloc(size == 0 ? 1 : size) : nullptr;
  if (block == nullptr) {
    setLastStatus(host, QM_E_NO_MEMORY);
    return nullptr;
  }
  std::memset(block, (flags & QM_POOL_ZERO_FILL) != 0 ? 0 : kFillByte, size);
  PoolShard &shard = pool->shardOf(block, poolLane());
  {
    std::lock_guard<ShardLock> g(shard.m);
    if (shard.blocks.insert(block, size)) {
      shard.bytes += size;
      return block;
    }
  }
  std::free(block);
  setLastStatus(host, QM_E_NO_MEMORY);
  return nullptr;
}

QMStatus poolFree(QMPoolh ph, void *block) noexcept {
  if (ph == nullptr) return QM_E_BAD_ARGUMENT;
  Pool *pool = asPool(ph);
  Host *host = pool->host;
  size_t size = 0;
  bool known = false;
  if (block != nullptr) {
    PoolShard *lanes = &pool->shards[addressShard(block, Pool::kShards) * Pool::kLanes];
    const size_t mine = poolLane();
    for (size_t i = 0; i < Pool::kLanes && !known; ++i) {
      PoolShard &shard = lanes[(mine + i) % Pool::kLanes];
      std::lock_guard<ShardLock> g(shard.m);
      known = shard.blocks.take(block, &size);
      if (known) shard.bytes -= size;
    }
  }
  if (!known) {
    host->badFrees.fetch_add(1, std::memory_order_relaxed);
    return QM_E_BAD_FREE;
  }
  std::free(block);
  return 0;
}

QMStatus poolDestroy(void *object) noexcept {
  if (object == nullptr) return QM_E_BAD_ARGUMENT;
  Host *host = static_cast<Pool *>(object)->host;
  std::unique_ptr<Pool> owned = host->pools.take(object);
  return owned ? 0 : QM_E_BAD_ARGUMENT;  // ~Pool frees the blocks
}

}  // namespace

Pool::Pool(Host *h, const char *poolName) : host(h), name(poolName != nullptr ? poolName : "pool") {
  pub.generic.oven = oven("pool");
  pub.generic.name = name.data();
  pub.generic.destroy = poolDestroy;
  pub.memAlloc = poolAlloc;
  pub.memFree = poolFree;
}

Pool::~Pool() {
  for (PoolShard &shard : shards)
    shard.blocks.forEach([](const void *block, size_t) { std::free(const_cast<void *>(block)); });
}

size_t poolLane() noexcept {
  static std::atomic<size_t> next{0};
  thread_local __attribute__((tls_model("initial-exec"))) size_t lane = SIZE_MAX;
  if (lane == SIZE_MAX) lane = next.fetch_add(1, std::memory_order_relaxed) % Pool::kLanes;
  return lane;
}

QMPoolh poolCreate(QMHndlp h, const QMPoolCreateParms * /*parms: nothing to choose*/,
                   QMJnlh /*jnl*/, const char *name) noexcept {
  if (h == nullptr) return nullptr;
  Host *host = hostOf(h);
  if (host->fail.hit(QMHOST_FAIL_POOL_CREATE)) {
    setLastStatus(host, QM_E_INJECTED_FAILURE);
    return nullptr;
  }
  try {
    Pool *pool = host->pools.add(std::make_unique<Pool>(host, name));
    if (pool != nullptr) return &pool->pub;
  } catch (const std::bad_alloc &) {
  }
  setLastStatus(host, QM_E_NO_MEMORY);
  return nullptr;
}

}  // namespace qmhost

extern "C" {

QM_EXPORT size_t qmhost_pool_live_blocks(QMPoolh pool) noexcept {
  if (pool == nullptr) return 0;
  const qmhost::Pool *p = reinterpret_cast<const qmhost::Pool *>(pool);
  size_t n = 0;
  for (const qmhost::PoolShard &shard : p->shards) {
    std::lock_guard<qmhost::ShardLock> g(shard.m);
    n += shard.blocks.size();
  }
  return n;
}

QM_EXPORT size_t qmhost_pool_live_bytes(QMPoolh pool) noexcept {
  if (pool == nullptr) return 0;
  const qmhost::Pool *p = reinterpret_cast<const qmhost::Pool *>(pool);
  size_t n = 0;
  for (const qmhost::PoolShard &shard : p->shards) {
    std::lock_guard<qmhost::ShardLock> g(shard.m);
    n += shard.bytes;
  }
  return n;
}

}  // extern "C"
