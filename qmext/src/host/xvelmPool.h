/*
 * xvelmPool.h - blocks of a host pool owned for a scope: freed on every
 * failure path, handed on with release(). freeBlock is in xvelmMessage.cpp,
 * since a refused free is journaled.
 */
#ifndef XVELM_POOL_H
#define XVELM_POOL_H

#include <cstddef>
#include <cstdint>
#include <utility>

#include "qmelm.h"

namespace xvelm::detail {

// Frees a block to pool, journals a failing free when jnl is not null, and
// returns the pool's status.
QMStatus freeBlock(QMPoolh pool, void *block, QMJnlh jnl) noexcept;

// Owns a block of a host pool until release(); frees it otherwise. Made with
// a journal, a free that the pool refuses (only a damaged pool does) is
// journaled, as every free of lock acquisition and release is.
template <class T>
class PoolPtr {
 public:
  PoolPtr() = default;
  PoolPtr(QMPoolh pool, T *p) : pool_(pool), p_(p) {}
  PoolPtr(QMPoolh pool, QMJnlh jnl, T *p = nullptr) : pool_(pool), jnl_(jnl), p_(p) {}
  // Allocates bytes (at least sizeof(T) when bytes is 0) with the pool flags.
  static PoolPtr alloc(QMPoolh pool, std::size_t bytes = 0, uint32_t flags = QM_POOL_ZERO_FILL) {
    PoolPtr out(pool, static_cast<T *>(nullptr));
    (void)out.allocate(bytes, flags);
    return out;
  }
  ~PoolPtr() { (void)reset(); }
  PoolPtr(PoolPtr &&o) noexcept : pool_(o.pool_), jnl_(o.jnl_), p_(std::exchange(o.p_, nullptr)) {}
  PoolPtr &operator=(PoolPtr &&o) noexcept {
    if (this != &o) {
      (void)reset();
      pool_ = o.pool_;
      jnl_ = o.jnl_;
      p_ = std::exchange(o.p_, nullptr);
    }
    return *this;
  }
  PoolPtr(const PoolPtr &) = delete;
  PoolPtr &operator=(const PoolPtr &) = delete;

  // Frees what it holds, then allocates bytes (sizeof(T) when 0); false when
  // the pool refused.
  [[nodiscard]] bool allocate(std::size_t bytes = 0, uint32_t flags = QM_POOL_ZERO_FILL) {
    (void)reset();
    p_ = static_cast<T *>(pool_->memAlloc(pool_, bytes != 0 ? bytes : sizeof(T), flags));
    return p_ != nullptr;
  }
  T *get() const { return p_; }
  T *operator->() const { return p_; }
  T &operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  [[nodiscard]] T *release() { return std::exchange(p_, nullptr); }
  // Frees the block now and returns the pool's status (0 when there was none).
  [[nodiscard]] QMStatus reset() {
    if (p_ == nullptr) return 0;
    return freeBlock(pool_, std::exchange(p_, nullptr), jnl_);
  }

 private:
  QMPoolh pool_ = nullptr;
  QMJnlh jnl_ = nullptr;
  T *p_ = nullptr;
};

}  // namespace xvelm::detail

#endif  // XVELM_POOL_H
