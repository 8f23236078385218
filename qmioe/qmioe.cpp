/*
 * qmioe.cpp - the path-resolution extension: getFullPath joins a relative
 * path to the current directory and normalises it lexically; freeFullPath
 * gives the result back. All memory (the extension object, working buffers,
 * results) comes from the pool "qmioe pool", which is thread-safe; qmioe has
 * no other shared state and takes no mutex. Failures are returned as host
 * statuses and journaled when the caller's parameters carry a journal.
 */
#include "qmioe.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace {

// The status of the host's last failed constructor, when the host's table
// has that member (it is no part of every host's table); a lack of memory
// otherwise.
QMStatus hostStatus(QMHndlp h) {
  const QMStatus st = h->lastStatus != nullptr ? h->lastStatus(h) : 0;
  return st != 0 ? st : QM_E_NO_MEMORY;
}

constexpr int kVersion[3] = {7, 1, 1};
constexpr QMChar kSlash = '/';
constexpr QMChar kDot = '.';
constexpr size_t kMaxCwdBytes = size_t{1} << 20;

// The extension object; the public part first.
struct IoeState {
  QMIOEExtension pub;
  QMPoolh pool;  // "qmioe pool": this object and every block qmioe hands out
};

IoeState *stateOf(QMExtensionh ext) {
  return reinterpret_cast<IoeState *>(ext);
}

// Journals status at severity error when jnl is not null; returns status.
QMStatus report(QMJnlh jnl, QMStatus status, ...) {
  if (jnl != nullptr) {
    va_list ap;
    va_start(ap, status);
    (void)jnl->statusToJnl(jnl, QMSeverityError, status, ap);
    va_end(ap);
  }
  return status;
}

// A block of qmioe's pool, freed at the end of its scope unless released.
template <class T>
class PoolBlock {
 public:
  explicit PoolBlock(QMPoolh pool) : pool_(pool) {}
  ~PoolBlock() { reset(); }
  PoolBlock(const PoolBlock &) = delete;
  PoolBlock &operator=(const PoolBlock &) = delete;

  // Replaces the block by one of bytes bytes; false when the pool has none.
  bool allocate(size_t bytes) {
    reset();
    p_ = static_cast<T *>(pool_->memAlloc(pool_, bytes, 0));
    return p_ != nullptr;
  }
  void adopt(void *p) {
    reset();
    p_ = static_cast<T *>(p);
  }
  void reset() {
    if (p_ != nullptr) (void)pool_->memFree(pool_, std::exchange(p_, nullptr));
  }
  T *get() const { return p_; }
  T *release() { return std::exchange(p_, nullptr); }

 private:
  QMPoolh pool_;
  T *p_ = nullptr;
};

// Destroys a host pipeline at the end of its scope.
class PipelineGuard {
 public:
  explicit PipelineGuard(QMNLSPipelineh p) : p_(p) {}
  ~PipelineGuard() {
    if (p_ != nullptr) (void)p_->generic.destroy(p_);
  }
  PipelineGuard(const PipelineGuard &) = delete;
  PipelineGuard &operator=(const PipelineGuard &) = delete;

 private:
  QMNLSPipelineh p_;
};

// The current directory as QMChars (not terminated) in *dir, *len characters.
QMStatus currentDirectory(IoeState *s, PoolBlock<QMChar> *dir, size_t *len) {
  QMHndlp h = s->pub.Common.hndl;
  PoolBlock<char> bytes(s->pool);
  for (size_t cap = 4096;; cap *= 2) {
    if (cap > kMaxCwdBytes) return QM_E_BAD_PATH;
    if (!bytes.allocate(cap)) return QM_E_NO_MEMORY;
    if (::getcwd(bytes.get(), cap) != nullptr) break;
    if (errno != ERANGE) return QM_E_BAD_PATH;  // no current directory
  }
  QMNLSh nls = h->qmnls;
  QMNLSPipelineh toQM = nls->pipelineToQMChar(nls, QM_CEI_OS, 0, nullptr);
  if (toQM == nullptr) return hostStatus(h);
  PipelineGuard guard(toQM);
  void *text = nullptr;
  QMMemSize textBytes = 0;
  const QMStatus st = toQM->TranscodeWithPool(toQM, bytes.get(), std::strlen(bytes.get()), s->pool,
                                              &text, &textBytes);
  if (st != 0) return st;
  dir->adopt(text);
  *len = textBytes / sizeof(QMChar);
  return 0;
}

// Normalises the absolute path p[0..n) in place and returns its new length:
// repeated slashes collapse, "." goes, ".." removes the component before it
// (never above the root), a trailing slash stays. The text only ever moves
// left, so one buffer serves.
size_t normalise(QMChar *p, size_t n) {
  const bool trailingSlash = n > 1 && p[n - 1] == kSlash;
  size_t w = 1;  // p[0] is the root's slash; w is the end of the result
  size_t r = 1;
  while (r < n) {
    while (r < n && p[r] == kSlash) ++r;
    const size_t start = r;
    while (r < n && p[r] != kSlash) ++r;
    const size_t len = r - start;
    if (len == 0 || (len == 1 && p[start] == kDot)) continue;
    if (len == 2 && p[start] == kDot && p[start + 1] == kDot) {
      while (w > 1 && p[w - 1] != kSlash) --w;  // drop the last component ...
      if (w > 1) --w;                           // ... and the slash before it
      continue;
    }
    if (w > 1) p[w++] = kSlash;
    for (size_t i = 0; i < len; ++i) p[w++] = p[start + i];
  }
  if (trailingSlash && w > 1) p[w++] = kSlash;
  return w;
}

QMStatus ioeGetFullPath(QMExtensionh ext, const QMChar *path, QMStrSize pathlen, QMMemPtr, QMMemPtr,
                        QMMemPtr, QMMemPtr, QMChar **fullpath, QMStrSize *fullpathlen,
                        QMIOEParms *parms) noexcept {
  // Failures are returned, not journaled: the caller reports them in its
  // own words (and would otherwise report them twice).
  if (fullpath != nullptr) *fullpath = nullptr;
  if (fullpathlen != nullptr) *fullpathlen = 0;
  if (ext == nullptr || fullpath == nullptr || fullpathlen == nullptr) return QM_E_BAD_ARGUMENT;
  // A path longer than half the address space is no path (and its sizes would overflow).
  if (path == nullptr || pathlen <= 0 || static_cast<uint64_t>(pathlen) > SIZE_MAX / 8)
    return QM_E_BAD_PATH;
  IoeState *s = stateOf(ext);
  QMHndlp h = s->pub.Common.hndl;
  const auto n = static_cast<size_t>(pathlen);

  // The path must be expressible in its encoding (0: the OS's own), or the
  // file it names could never be opened under that name.
  {
    const NLScei enc = parms != nullptr ? parms->enc_pathname : 0;
    QMMemSize bytes = 0;
    const QMStatus st =
        h->qmnls->convertedSize(h->qmnls, U_L_UCS4_CE, enc, path, n * sizeof(QMChar), &bytes);
    if (st != 0) return st;
  }

  PoolBlock<QMChar> dir(s->pool);
  size_t dirLen = 0;
  if (path[0] != kSlash) {
    if (QMStatus st = currentDirectory(s, &dir, &dirLen); st != 0) return st;
    if (dirLen == 0 || dir.get()[0] != kSlash) return QM_E_BAD_PATH;
  }
  // The joined text, then normalised where it lies; one more place for the terminator.
  const size_t joined = dirLen == 0 ? n : dirLen + 1 + n;
  PoolBlock<QMChar> out(s->pool);
  if (!out.allocate((joined + 1) * sizeof(QMChar))) return QM_E_NO_MEMORY;
  QMChar *p = out.get();
  if (dirLen != 0) {
    std::memcpy(p, dir.get(), dirLen * sizeof(QMChar));
    p[dirLen] = kSlash;
    std::memcpy(p + dirLen + 1, path, n * sizeof(QMChar));
  } else {
    std::memcpy(p, path, n * sizeof(QMChar));
  }
  const size_t len = normalise(p, joined);
  p[len] = 0;
  *fullpath = out.release();
  *fullpathlen = static_cast<QMStrSize>(len);
  return 0;
}

QMStatus ioeFreeFullPath(QMExtensionh ext, QMChar *fullpath, QMIOEParms *) noexcept {
  if (ext == nullptr) return QM_E_BAD_ARGUMENT;
  QMPoolh pool = stateOf(ext)->pool;
  return pool->memFree(pool, fullpath);
}

QMStatus ioeVersion(QMExtensionh, int *a, int *b, int *c) noexcept {
  if (a != nullptr) *a = kVersion[0];
  if (b != nullptr) *b = kVersion[1];
  if (c != nullptr) *c = kVersion[2];
  return 0;
}

void *ioeFindFunction(QMExtensionh, const char *name) noexcept {
  if (name == nullptr) return nullptr;
  if (std::strcmp(name, "getFullPath") == 0) return reinterpret_cast<void *>(&ioeGetFullPath);
  if (std::strcmp(name, "freeFullPath") == 0) return reinterpret_cast<void *>(&ioeFreeFullPath);
  return nullptr;
}

// The object lives in the pool, so destroying the pool frees it too.
QMStatus ioeRealDestroy(QMExtensionh ext) noexcept {
  if (ext == nullptr) return QM_E_BAD_ARGUMENT;
  QMPoolh pool = stateOf(ext)->pool;
  return pool->generic.destroy(pool);
}

QMStatus ioeGenericDestroy(void *object) noexcept {
  return ioeRealDestroy(static_cast<QMExtensionh>(object));
}

}  // namespace

extern "C" {

QM_EXPORT QMStatus qmextent(QMHndlp hndl) noexcept {
  return hndl != nullptr ? 0 : QM_E_BAD_ARGUMENT;
}

QM_EXPORT QMStatus qmextver(QMHndlp, int *major, int *minor) noexcept {
  if (major == nullptr || minor == nullptr) return QM_E_BAD_ARGUMENT;
  *major = kVersion[0];
  *minor = kVersion[1];
  return 0;
}

// The factory: makes the pool and the object in it. Null (with the host's
// status journaled) when either cannot be made.
QM_EXPORT QMExtensionh qmioe(QMHndlp hndl, QMJnlh jnl) noexcept {
  if (hndl == nullptr) return nullptr;
  QMPoolh pool = hndl->poolCreate(hndl, nullptr, jnl, "qmioe pool");
  if (pool == nullptr) {
    (void)report(jnl, hndl == nullptr ? QM_E_NO_MEMORY : hostStatus(hndl));
    return nullptr;
  }
  void *mem = pool->memAlloc(pool, sizeof(IoeState), QM_POOL_ZERO_FILL);
  if (mem == nullptr) {
    (void)report(jnl, hndl == nullptr ? QM_E_NO_MEMORY : hostStatus(hndl));
    (void)pool->generic.destroy(pool);
    return nullptr;
  }
  auto *s = ::new (mem) IoeState{};
  s->pool = pool;
  QMExtension &c = s->pub.Common;
  std::memcpy(&c.generic.oven, "nevo", sizeof c.generic.oven);
  static char kName[] = "qmioe";
  c.generic.name = kName;
  c.generic.destroy = ioeGenericDestroy;  // the loader installs its own
  c.getReqVersion = ioeVersion;
  c.getVersion = ioeVersion;
  c.hndl = hndl;
  c.realDestroy = ioeRealDestroy;
  c.findFunction = ioeFindFunction;
  c.handle = nullptr;
  s->pub.Functions.getFullPath = ioeGetFullPath;
  s->pub.Functions.freeFullPath = ioeFreeFullPath;
  return &s->pub.Common;
}

}  // extern "C"
