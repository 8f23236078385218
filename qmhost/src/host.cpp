/*
 * host.cpp - the kernel handle: creation from a configuration, the clock
 * (ConfigureSystem), the per-thread last status, accounting, the test
 * instruments' switch and counts, and destruction of everything the host still owns. The host
 * object is a C++ object whose first member is the QMHndl table.
 */
#include <pthread.h>
#include <time.h>

#include <cstddef>
#include <cstring>
#include <mutex>
#include <vector>

#include "host_internal.h"

namespace qmhost {

namespace {

std::atomic<uint64_t> nextHostSerial{1};

// The calling thread's last failure, and the host it happened in.
struct LastStatus {
  uint64_t host;
  QMStatus status;
};
thread_local LastStatus tLastStatus{0, 0};
// Why the calling thread's latest qmhost_create failed (0: it succeeded).
thread_local QMStatus tCreateStatus = 0;

// The smallest configuration qmhost_create accepts: the layout that first
// carried the size field, which ended with nbuiltins. Fields added later go
// after it, and a caller's smaller configuration gets their defaults.
constexpr size_t kFirstConfigSize = offsetof(QMHostConfig, nbuiltins) + sizeof(size_t);

// The caller's configuration over the defaults, as far as its size says;
// QM_E_UNSUPPORTED_REQUEST for a size no layout has (0, or a newer one).
QMStatus readConfig(const QMHostConfig *cfg, QMHostConfig *out) {
  qmhost_config_init(out);
  if (cfg == nullptr) return 0;
  if (cfg->size < kFirstConfigSize || cfg->size > sizeof(QMHostConfig))
    return QM_E_UNSUPPORTED_REQUEST;
  std::memcpy(static_cast<void *>(out), cfg, cfg->size);
  out->size = sizeof(QMHostConfig);
  if (out->nbuiltins > 0 && out->builtins == nullptr) return QM_E_BAD_ARGUMENT;
  for (size_t i = 0; i < out->nbuiltins; ++i)
    if (out->builtins[i].name == nullptr) return QM_E_BAD_ARGUMENT;
  return 0;
}

QMStatus hostLastStatus(QMHndlp h) noexcept {
  if (h == nullptr) return QM_E_BAD_ARGUMENT;
  return tLastStatus.host == hostOf(h)->serial ? tLastStatus.status : 0;
}

// QM_CONFIG_DATETIME: the time of day in seconds since the Unix epoch, and
// an offset of 0.0 to subtract from it.
QMStatus hostConfigureSystem(QMHndlp h, int request, void *buffer, uint32_t flags) noexcept {
  if (h == nullptr) return QM_E_BAD_ARGUMENT;
  if (request != QM_CONFIG_DATETIME || flags != QM_CONFIG_DATETIME_FLAGS)
    return QM_E_UNSUPPORTED_REQUEST;
  if (buffer == nullptr) return QM_E_BAD_ARGUMENT;
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  auto *out = static_cast<double *>(buffer);
  out[0] = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
  out[1] = 0.0;
  return 0;
}

QMStatus hostDestroy(void *object) noexcept {
  qmhost_destroy(static_cast<QMHndlp>(object));
  return 0;
}

}  // namespace

void setLastStatus(Host *host, QMStatus status) noexcept {
  tLastStatus = {host->serial, status};
}

// ---- fork() -------------------------------------------------------------------
//
// A child of a fork has only the thread that forked; a host mutex another
// thread held at that moment would stay held in the child for ever. Before
// the fork every host's internal mutexes are taken, in the order the host
// itself takes them (extensions, registries, then the pools' shards and the
// journals), and given back in both processes afterwards. (The mutexes the
// host lends out, QMLockh, are their users' business.)
namespace {

std::mutex allHostsMutex;  // guards allHosts
std::vector<Host *> allHosts;
std::once_flag forkHandlersOnce;

void forkPrepare() {
  allHostsMutex.lock();
  for (Host *h : allHosts) {
    h->extMutex.lock();
    h->pools.lockAll();
    h->locks.lockAll();
    h->journals.lockAll();
    h->pipelines.lockAll();
    h->pools.forEachLocked([](const Pool &p) {
      for (const PoolShard &sh : p.shards) sh.m.lock();
    });
    h->journals.forEachLocked([](Journal &j) { j.m.lock(); });
  }
}

void forkRelease() {
  for (auto it = allHosts.rbegin(); it != allHosts.rend(); ++it) {
    Host *h = *it;
    h->journals.forEachLocked([](Journal &j) { j.m.unlock(); });
    h->pools.forEachLocked([](const Pool &p) {
      for (const PoolShard &sh : p.shards) sh.m.unlock();
    });
    h->pipelines.unlockAll();
    h->journals.unlockAll();
    h->locks.unlockAll();
    h->pools.unlockAll();
    h->extMutex.unlock();
  }
  allHostsMutex.unlock();
}

}  // namespace

void rememberHost(Host *h) {
  std::call_once(forkHandlersOnce,
                 [] { (void)pthread_atfork(forkPrepare, forkRelease, forkRelease); });
  std::lock_guard<std::mutex> g(allHostsMutex);
  allHosts.push_back(h);  // may throw bad_alloc: the caller's try handles it
}

void forgetHost(Host *h) noexcept {
  std::lock_guard<std::mutex> g(allHostsMutex);
  for (auto it = allHosts.begin(); it != allHosts.end(); ++it) {
    if (*it == h) {
      allHosts.erase(it);
      break;
    }
  }
}

namespace {

// Makes the host of cfg; null with *status set on failure, nothing left
// behind (the host object, its journal and registries go with it).
QMHndlp createHost(const QMHostConfig *given, QMStatus *status) {
  QMHostConfig config;
  *status = readConfig(given, &config);
  if (*status != 0) return nullptr;
  const QMHostConfig *cfg = &config;
  try {
    auto host = std::make_unique<Host>();
    host->serial = nextHostSerial.fetch_add(1);
    if (cfg->extension_path != nullptr) {
      host->extensionPath = cfg->extension_path;
      host->hasExtensionPath = true;
    }
    host->osEncoding = cfg->os_encoding != QM_CEI_OS ? cfg->os_encoding : QM_CEI_UTF8;
    for (size_t i = 0; i < cfg->nbuiltins; ++i) {
      const QMHostBuiltinExtension &b = cfg->builtins[i];
      host->builtins.push_back({b.name, b.entry, b.version, b.factory});
    }
    initNls(host.get());

    QMHndl &pub = host->pub;
    pub.generic.oven = oven("qmhk");
    static char kName[] = "qm host";
    pub.generic.name = kName;
    pub.generic.destroy = hostDestroy;
    pub.lockCreate = lockCreate;
    pub.jnlCreate = jnlCreate;
    pub.poolCreate = poolCreate;
    pub.loadExtension = loadExtension;
    pub.qmnls = &host->nls.pub;
    pub.ConfigureSystem = hostConfigureSystem;
    pub.iobytecount = cfg->iobytecount;
    pub.lastStatus = hostLastStatus;
    // A C caller may store any int in the kind: read as one, checked by makeJournal.
    uint32_t journalKind = 0;
    static_assert(sizeof journalKind == sizeof cfg->default_journal);
    std::memcpy(&journalKind, &cfg->default_journal, sizeof journalKind);
    pub.qmjnl = makeJournal(host.get(), journalKind, cfg->default_journal_path, status);
    if (pub.qmjnl == nullptr) return nullptr;
    rememberHost(host.get());
    return &host.release()->pub;
  } catch (const std::bad_alloc &) {
    *status = QM_E_NO_MEMORY;
    return nullptr;
  }
}

}  // namespace

}  // namespace qmhost

using qmhost::Host;

extern "C" {

QM_EXPORT void qmhost_config_init(QMHostConfig *cfg) noexcept {
  if (cfg == nullptr) return;
  *cfg = QMHostConfig{};
  cfg->size = sizeof(QMHostConfig);
  cfg->iobytecount = QMIO_ByteCount_Default;
  cfg->default_journal = QM_JNL_STDERR;
  cfg->os_encoding = QM_CEI_UTF8;
}

QM_EXPORT QMHndlp qmhost_create(const QMHostConfig *cfg) noexcept {
  QMStatus st = 0;
  QMHndlp h = qmhost::createHost(cfg, &st);
  qmhost::tCreateStatus = h != nullptr ? 0 : st != 0 ? st : QM_E_NO_MEMORY;
  return h;
}

QM_EXPORT QMStatus qmhost_create_status(void) noexcept {
  return qmhost::tCreateStatus;
}

// Extensions first (their destroys free their own pools and mutexes through
// the host), then whatever callers left: pipelines, journals, mutexes, pools.
QM_EXPORT void qmhost_destroy(QMHndlp h) noexcept {
  if (h == nullptr) return;
  std::unique_ptr<Host> host(qmhost::hostOf(h));
  qmhost::forgetHost(host.get());
  qmhost::destroyAllExtensions(host.get());
  host->pipelines.clear();
  host->journals.clear();
  host->locks.clear();
  host->pools.clear();
}

QM_EXPORT void qmhost_stats(QMHndlp h, QMHostStats *out) noexcept {
  if (h == nullptr || out == nullptr) return;
  Host *host = qmhost::hostOf(h);
  *out = QMHostStats{};
  out->pools = host->pools.size();
  host->pools.forEach([out](const qmhost::Pool &pool) {
    for (const qmhost::PoolShard &shard : pool.shards) {
      std::lock_guard<qmhost::ShardLock> g(shard.m);
      out->pool_blocks += shard.blocks.size();
      out->pool_bytes += shard.bytes;
    }
  });
  out->mutexes = host->locks.size();
  out->journals = host->journals.size();
  out->pipelines = host->pipelines.size();
  {
    std::lock_guard<std::mutex> g(host->extMutex);
    out->extensions = host->exts.size();
  }
  out->bad_frees = host->badFrees.load();
}

QM_EXPORT void qmhost_instruments_arm(QMHndlp h, int on) noexcept {
  if (h != nullptr) qmhost::hostOf(h)->fail.arm(on != 0);
}

QM_EXPORT int qmhost_instruments_armed(QMHndlp h) noexcept {
  return h != nullptr && qmhost::hostOf(h)->fail.armed() ? 1 : 0;
}

QM_EXPORT void qmhost_fail_nth(QMHndlp h, QMHostFailKind kind, long n) noexcept {
  if (h == nullptr || kind < 0 || kind >= QMHOST_FAIL_KINDS) return;
  qmhost::hostOf(h)->fail.failNth(kind, n);
}

QM_EXPORT long qmhost_call_count(QMHndlp h, QMHostFailKind kind) noexcept {
  if (h == nullptr || kind < 0 || kind >= QMHOST_FAIL_KINDS) return 0;
  return qmhost::hostOf(h)->fail.calls(kind);
}

}  // extern "C"
