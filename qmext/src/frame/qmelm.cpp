// The extension frame: the factory that builds the lock manager for a host,
// its destroy, the version answers, the emergency entry and the function
// table. The factory runs before, and destroy after, every other call: they
// take no mutex. Every object is allocated in the extension's own pool, which
// destroy gives back to the host as a whole.
#include <cstring>

#include "frame/xvelm.h"
#include "frame/xvelmFork.h"
#include "frame/xvelmHandles.h"
#include "frame/xvelmState.h"
#include "host/xvelmHostObject.h"
#include "host/xvelmJournal.h"
#include "host/xvelmQMChar.h"
#include "locks/xvelmIdentity.h"
#include "locks/xvelmNodeList.h"

using namespace xvelm::detail;

namespace {

constexpr char kExtensionName[24] = {'Q', 'M', ' ', 'R', 'e', 's', 'o', 'u', 'r', 'c', 'e', ' ',
                                     'L', 'o', 'c', 'k', ' ', 'M', 'a', 'n', 'a', 'g', 'e', 'r'};
constexpr QMLiteral kQmioeName("qmioe");

// Parameter blocks of the host constructors: the host's defaults.
constexpr QMPoolCreateParms kPoolParms{};
constexpr QMLockCreateParms kLockParms{};
constexpr QMJnlCreateParms kJnlParms{};
constexpr QMELMResetIOInfoParms kResetParms{};

constexpr QMELMFunctions kFunctions{
    qmelmlockget,
    qmelmlockrelease,
    qmelmlockchange,
    qmelmsetlockoption,
    qmelmgetlockoptions,
    qmelmreleaselockoptions,
    qmelmmatchoption,
    qmelmreleasematch,
    qmelmupdateioinfo,
    qmelmresetioinfo,
    qmelmgetioinfo,
    qmelmlistioinfo,
    qmelmlistioinfofree,
    qmelmjnlioinfo,
    qmelmemergency,
    nullptr,
    nullptr,
};

// Unwinds a factory that failed after it had its object: destroys the host
// objects made so far (in reverse order of creation) and then the pool, which
// takes the object with it. Disarmed by release() once the object is whole.
class FactoryUnwind {
 public:
  explicit FactoryUnwind(QMELMExtension *ext) : ext_(ext) {}
  ~FactoryUnwind() {
    if (ext_ == nullptr) return;
    QMPoolh pool = ext_->Pool;
    destroyObject(ext_->OptionMutex);
    destroyObject(ext_->ListMutex);
    destroyObject(ext_->toOS);
    destroyObject(ext_->fromOS);
    destroyObject(ext_->qmioeh);
    destroyObject(pool);
  }
  FactoryUnwind(const FactoryUnwind &) = delete;
  FactoryUnwind &operator=(const FactoryUnwind &) = delete;
  QMELMExtension *release() { return std::exchange(ext_, nullptr); }

 private:
  QMELMExtension *ext_;
};

// Renders one status through a journal of the host's own making, to prove
// that the host's catalogue answers before the extension goes into service.
bool catalogueAnswers(QMHndlp hndl) {
  QMJnlh probe = hndl->jnlCreate(hndl, &kJnlParms, nullptr, nullptr);
  if (probe == nullptr) return false;
  QMChar text[512];
  QMStrSize len = 0;
  bool rendered = qmlStatusToBuf(probe, QMELM_E_TOO_MANY_FILES, text, 512, &len) == 0;
  bool destroyed = probe->generic.destroy(probe) == 0;
  return rendered && destroyed;
}

}  // namespace

QMExtensionh qmelm(QMHndlp hndl, QMJnlh jnl) noexcept {
  if (hndl == nullptr) {
    journalStatus(jnl, QMELM_E_NULL_EXTENSION);
    return nullptr;
  }
  QMPoolh pool = hndl->poolCreate(hndl, &kPoolParms, jnl, "qmelm pool");
  if (pool == nullptr) {
    journalStatus(jnl, QMELM_E_CREATE_FAILED);
    return nullptr;
  }
  // The object is allocated with the private state that follows it (the
  // name index, the dead-node queue, the registry links).
  auto *state = static_cast<ExtensionState *>(
      pool->memAlloc(pool, sizeof(ExtensionState), QM_POOL_ZERO_FILL));
  QMELMExtension *ext = state != nullptr ? &state->pub : nullptr;
  if (ext == nullptr) {
    journalStatus(jnl, QMELM_E_CREATE_FAILED);
    (void)pool->generic.destroy(pool);
    return nullptr;
  }
  // The object is zero-filled: every field not set below starts as zero.
  std::memcpy(&ext->Common.generic.oven, "nevo", 4);
  ext->Common.generic.name = ext->ExtensionName;
  ext->Common.getReqVersion = qmelmgetreqversion;
  ext->Common.getVersion = qmelmgetversion;
  ext->Common.hndl = hndl;
  ext->Common.realDestroy = qmelmdestroy;
  ext->Pool = pool;
  initNodeList(state);
  FactoryUnwind unwind(ext);

  if ((ext->ListMutex = hndl->lockCreate(hndl, &kLockParms, nullptr, "QMELM Lock Mutex")) ==
      nullptr)
    return nullptr;
  if ((ext->OptionMutex = hndl->lockCreate(hndl, &kLockParms, nullptr, "QMELM Option Mutex")) ==
      nullptr)
    return nullptr;
  // Exactly 24 bytes and no terminator: the zero-filled field that follows
  // ends the name when it is read as a string.
  std::memcpy(ext->ExtensionName, kExtensionName, sizeof ext->ExtensionName);
  ext->Functions = kFunctions;

  QMNLSh nls = hndl->qmnls;
  NLScei os = nls->osEncoding(nls);
  if ((ext->toOS = nls->pipelineFromQMChar(nls, os, 0, jnl)) == nullptr) return nullptr;
  if ((ext->fromOS = nls->pipelineToQMChar(nls, os, 0, jnl)) == nullptr) return nullptr;
  if (ext->qmioeh == nullptr && (ext->qmioeh = hndl->loadExtension(
                                     hndl, kQmioeName.data(), kQmioeName.size(), jnl)) == nullptr)
    return nullptr;

  // Seed the option table with "/" -> Fail through the extension's own entry.
  // A warning that the option was not set is accepted as the table has always
  // accepted it, although the table itself never answers so.
  QMELMSetOptionParms root{};
  root.option = QMELM_Fail;
  int rc = ext->Functions.SetLockOption(ext, &root, jnl);
  if (rc != 0 && rc != QMELM_W_OPTION_NOT_SET) return nullptr;

  if (!catalogueAnswers(hndl)) return nullptr;
  ext->IOInfo = nullptr;
  ext->numIOInfo = 0;
  if ((ext->IOInfoMutex = hndl->lockCreate(hndl, &kLockParms, nullptr, "QMELM IO Info Mutex")) ==
      nullptr)
    return nullptr;
  registerExtension(ext);
  return &unwind.release()->Common;
}

QMStatus qmelmdestroy(QMExtensionh extension) noexcept {
  auto *ext = reinterpret_cast<QMELMExtension *>(extension);
  if (ext == nullptr) return QMELM_E_NULL_EXTENSION;
  if (ext->IOInfo != nullptr) {
    QMELMResetIOInfoParms parms = kResetParms;
    (void)ext->Functions.ResetIOInfo(ext, &parms, nullptr);
  }
  // The descriptors of every node still alive are closed (their record locks
  // dropped) through the file table, and their handles forgotten: a later
  // release of one answers QMELM_E_DEAD_NODE without touching freed memory.
  unregisterExtension(ext);
  forgetExtension(ext);
  unregisterHandlesOf(ext);
  destroyObject(ext->qmioeh);
  (void)ext->toOS->generic.destroy(ext->toOS);
  (void)ext->fromOS->generic.destroy(ext->fromOS);
  (void)ext->OptionMutex->generic.destroy(ext->OptionMutex);
  (void)ext->ListMutex->generic.destroy(ext->ListMutex);
  // Nodes, descriptor records, option entries and I/O records go with the
  // pool. IOInfoMutex, the mutexes of nodes still listed and those of I/O
  // records still open are left to the host, which owns every mutex it made
  // and reclaims them when it goes.
  QMPoolh pool = ext->Pool;
  (void)pool->generic.destroy(pool);
  return 0;
}

QMStatus qmelmgetreqversion(QMExtensionh, int *a, int *b, int *c) noexcept {
  *a = 7;
  *b = 1;
  *c = 1;
  return 0;
}

QMStatus qmelmgetversion(QMExtensionh, int *a, int *b, int *c) noexcept {
  *a = 7;
  *b = 2;
  *c = 1;
  return 0;
}

int XvelmEmergency(QMELMExtensionp) noexcept {
  return 0;
}

int qmelmemergency(QMELMExtensionp ext) noexcept {
  if (ext == nullptr) return QMELM_E_NULL_EXTENSION;
  return XvelmEmergency(ext);
}
