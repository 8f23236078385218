// Memory and narrow-string helpers: lengths, copies bounded by the
// destination's capacity, duplicates in a host pool (freed by the caller with
// the pool's memFree) and scans. Nothing here writes past the capacity given
// or allocates anywhere but the pool passed in.
#include <cstdint>
#include <cstring>

#include "xvzint.h"

using qmhostcm::badString;

QMMemSize xvStrLen(const char *s) noexcept {
  return s == nullptr ? 0 : std::strlen(s);
}

void *xvMemCpy(void *dst, const void *src, QMMemSize n) noexcept {
  if (n == 0) return dst;
  if (dst == nullptr || src == nullptr) return nullptr;
  return std::memmove(dst, src, n);
}

QMStatus xvMemSCpy(void *dst, QMMemSize cap, const void *src, QMMemSize n) noexcept {
  if ((dst == nullptr && cap > 0) || (src == nullptr && n > 0)) return QM_E_BAD_ARGUMENT;
  const QMMemSize copied = n <= cap ? n : cap;
  if (copied > 0) std::memmove(dst, src, copied);
  return n <= cap ? 0 : QM_E_BUFFER_TOO_SMALL;
}

QMStatus xvStrTSCpy(QMChar *dst, QMStrSize cap, const QMChar *src, QMStrSize len) noexcept {
  if (badString(src, len) || badString(dst, cap)) return QM_E_BAD_ARGUMENT;
  if (cap == 0) return QM_E_BUFFER_TOO_SMALL;
  const QMStrSize copied = len < cap ? len : cap - 1;
  if (copied > 0) std::memcpy(dst, src, static_cast<size_t>(copied) * sizeof(QMChar));
  dst[copied] = 0;
  return copied == len ? 0 : QM_E_BUFFER_TOO_SMALL;
}

QMStatus xvMemDup(QMPoolh pool, const void *src, QMMemSize n, void **out) noexcept {
  if (out != nullptr) *out = nullptr;
  if (pool == nullptr || out == nullptr || (src == nullptr && n > 0)) return QM_E_BAD_ARGUMENT;
  void *block = pool->memAlloc(pool, n == 0 ? 1 : n, 0);
  if (block == nullptr) return QM_E_NO_MEMORY;
  if (n > 0) std::memcpy(block, src, n);
  *out = block;
  return 0;
}

QMStatus xvStrTDup(QMPoolh pool, const QMChar *s, QMStrSize len, QMChar **out) noexcept {
  if (out != nullptr) *out = nullptr;
  if (pool == nullptr || out == nullptr || badString(s, len)) return QM_E_BAD_ARGUMENT;
  if (static_cast<QMMemSize>(len) >= UINT64_MAX / sizeof(QMChar)) return QM_E_BAD_ARGUMENT;
  const QMMemSize bytes = (static_cast<QMMemSize>(len) + 1) * sizeof(QMChar);
  auto *copy = static_cast<QMChar *>(pool->memAlloc(pool, bytes, 0));
  if (copy == nullptr) return QM_E_NO_MEMORY;
  if (len > 0) std::memcpy(copy, s, bytes - sizeof(QMChar));
  copy[len] = 0;
  *out = copy;
  return 0;
}

const void *xvMemScan(const void *s, QMMemSize n, unsigned char c) noexcept {
  if (s == nullptr || n == 0) return nullptr;
  return std::memchr(s, c, n);
}

const QMChar *xvStrTScan(const QMChar *s, QMStrSize len, QMChar c) noexcept {
  if (badString(s, len)) return nullptr;
  for (QMStrSize i = 0; i < len; ++i)
    if (s[i] == c) return s + i;
  return nullptr;
}
