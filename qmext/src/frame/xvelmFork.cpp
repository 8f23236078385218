/*
 * xvelmFork - the registry of live lock manager objects and fork(): one
 * unit that covers every mutex the lock manager has. Before fork() the
 * forking thread takes them all (the registry, each object's ListMutex,
 * each object's IOInfoMutex and its records' mutexes, each OptionMutex, the
 * file table's stripes, the live-handle set), so that no other thread is
 * half-way through what they guard while the process is copied. The order
 * agrees with every nesting the lock manager makes (no thread holds a
 * stripe together with IOInfoMutex or OptionMutex, so the stripes may come
 * last): the host mutexes that the child replaces are all taken before the
 * stripes it gives back, and the prepare handler never holds a stripe that
 * a thread it waits for needs. The parent gives back exactly what was taken. In the child only
 * the forking thread exists: the pthread mutexes it holds are unlocked, the
 * host mutexes are replaced (a reader-writer lock cannot be given back by a
 * thread with another id), the file table starts empty and the fork
 * generation moves on, so that nodes, handles and records made before the
 * fork are never used: every entry answers them with a status.
 * NodeDeleteMutex and NodeMutex are not taken: nodes of the parent are
 * never entered by the child.
 */
#include "frame/xvelmFork.h"

#include <pthread.h>

#include <atomic>
#include <thread>

#include "frame/xvelmHandles.h"
#include "frame/xvelmState.h"
#include "host/xvelmMutex.h"
#include "locks/xvelmIdentity.h"
#include "locks/xvelmLock.h"
#include "qmp.h"

namespace xvelm::detail {
namespace {

// The registry's lock: a spin lock, held for a few pointer operations (and
// by the fork handlers around fork()). Being a flag in memory, the child
// gives it back by clearing it, which is well defined whoever set it.
std::atomic_flag registryLock;
ExtensionState *registry = nullptr;
pthread_once_t forkHandlersOnce = PTHREAD_ONCE_INIT;

void lockRegistry() {
  lockOrderTake(Rank::Registry);
  while (registryLock.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
  lockOrderTaken(Rank::Registry);
}

void unlockRegistry() {
  lockOrderGive(Rank::Registry);
  registryLock.clear(std::memory_order_release);
}

// Which host mutexes of an object the prepare handler obtained: only those
// are given back in the parent. Kept in the object's private state.
enum Taken : uint8_t { kListTaken = 1, kIOTaken = 2, kOptionTaken = 4 };

bool take(QMLockh m) {
  return m != nullptr && m->get(m, 1, 1) == 0;
}

void prepareFork() {
  while (registryLock.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
  for (ExtensionState *e = registry; e != nullptr; e = e->regNext)
    e->forkTaken = take(e->pub.ListMutex) ? kListTaken : 0;
  for (ExtensionState *e = registry; e != nullptr; e = e->regNext) {
    if (!take(e->pub.IOInfoMutex)) continue;
    e->forkTaken |= kIOTaken;
    ioPrepareFork(&e->pub);
  }
  for (ExtensionState *e = registry; e != nullptr; e = e->regNext)
    if (take(e->pub.OptionMutex)) e->forkTaken |= kOptionTaken;
  tablePrepareFork();
  handleSetPrepareFork();
}

void parentAfterFork() {
  handleSetParentAfterFork();
  tableParentAfterFork();
  for (ExtensionState *e = registry; e != nullptr; e = e->regNext) {
    if (e->forkTaken & kOptionTaken) (void)e->pub.OptionMutex->release(e->pub.OptionMutex);
    if (e->forkTaken & kIOTaken) {
      ioParentAfterFork(&e->pub);
      (void)e->pub.IOInfoMutex->release(e->pub.IOInfoMutex);
    }
  }
  for (ExtensionState *e = registry; e != nullptr; e = e->regNext)
    if (e->forkTaken & kListTaken) (void)e->pub.ListMutex->release(e->pub.ListMutex);
  registryLock.clear(std::memory_order_release);
}

// A host mutex the forking thread holds cannot be given back in the child
// (it has another thread id there, and a reader-writer lock may also
// remember writers of the parent that wait for it): the child gets a new
// one and the old one is left to the host. When the host cannot make one,
// the old one stays, held: the object then refuses work instead of running
// unlocked.
void renew(QMHndlp hndl, QMLockh &m, const char *name) {
  static constexpr QMLockCreateParms kParms{};
  if (QMLockh fresh = hndl->lockCreate(hndl, &kParms, nullptr, name)) m = fresh;
}

void childAfterFork() {
  resetHandleSetAfterFork();
  tableChildAfterFork();
  for (ExtensionState *e = registry; e != nullptr; e = e->regNext) {
    __atomic_store_n(&e->dead, static_cast<NodeState *>(nullptr), __ATOMIC_RELEASE);
    QMHndlp h = e->pub.Common.hndl;
    if (e->forkTaken & kIOTaken) ioChildAfterFork(&e->pub);
    renew(h, e->pub.ListMutex, "QMELM Lock Mutex");
    renew(h, e->pub.IOInfoMutex, "QMELM IO Info Mutex");
    renew(h, e->pub.OptionMutex, "QMELM Option Mutex");
  }
  registryLock.clear(std::memory_order_release);
}

// The clock's question (qmpLiveHost): is an object of this host alive?
int hostCheck(QMHndlp hndl) {
  return hostIsLive(hndl) ? 1 : 0;
}

// Once, before the first object is registered: the fork handlers, and the
// registry's answer to the clock.
void installForkHandlers() {
  (void)pthread_atfork(prepareFork, parentAfterFork, childAfterFork);
  qmpSetHostCheck(hostCheck);
}

}  // namespace

void registerExtension(QMELMExtension *ext) noexcept {
  (void)pthread_once(&forkHandlersOnce, installForkHandlers);
  ExtensionState *e = stateOf(ext);
  lockRegistry();
  e->regPrev = nullptr;
  e->regNext = registry;
  if (registry != nullptr) registry->regPrev = e;
  registry = e;
  unlockRegistry();
}

void unregisterExtension(QMELMExtension *ext) noexcept {
  ExtensionState *e = stateOf(ext);
  lockRegistry();
  if (e->regPrev != nullptr)
    e->regPrev->regNext = e->regNext;
  else if (registry == e)
    registry = e->regNext;
  if (e->regNext != nullptr) e->regNext->regPrev = e->regPrev;
  e->regNext = e->regPrev = nullptr;
  unlockRegistry();
}

bool hostIsLive(QMHndlp hndl) noexcept {
  if (hndl == nullptr) return false;
  lockRegistry();
  bool live = false;
  for (const ExtensionState *e = registry; e != nullptr && !live; e = e->regNext)
    live = e->pub.Common.hndl == hndl;
  unlockRegistry();
  return live;
}

}  // namespace xvelm::detail
