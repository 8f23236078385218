/*
 * xvelmLock.h - private types and helpers of file locking: the node and I/O
 * record as they are really allocated, the descriptor lists, and the one
 * composer of file-lock failure messages shared by acquisition, change,
 * release and close.
 * Internal to the extension.
 */
#ifndef XVELM_LOCK_H
#define XVELM_LOCK_H

#include "frame/xvelmHandles.h"
#include "frame/xvelmState.h"
#include "host/xvelmJournal.h"
#include "locks/xvelmIdentity.h"

namespace xvelm::detail {

struct NodeState;

// An I/O record as it is allocated. Callers and the extension's list only
// ever see `pub`. Mutex rules: owner, nodeNext and retired are guarded by the
// extension's IOInfoMutex, like pub.next and pub.prev; pub's counters and
// closeTime by pub.mutex; openTime, OpenFlags and ResourceType change only
// when a retired record is reused, under both.
struct IORecord {
  QMELMIOInfo pub;     // first member: the public record
  NodeState *owner;    // the node whose chain holds it; null once that node is destroyed
  IORecord *nodeNext;  // next record on the owner's chain
  bool retired;        // forgotten by a reset but kept for the node's handles
  // Keeps the next block of the pool off the counters' last cache line:
  // records are made one after another, and threads that update two of
  // them must not write one line.
  char tailPad[64];
};

// A file node as it is allocated: the public node, the chain of every I/O
// record made for it (guarded by IOInfoMutex; a record on the chain is never
// freed while the node lives, so the node's Info can always be followed), its
// place in the process's file table, and its links in the extension's name
// index and dead-node queue.
// Mutex rules: link is guarded by the file table's mutex; indexNext, hash
// and listed by the extension's ListMutex; deadNext belongs to whoever took
// the node off the dead queue; owner and generation never change.
struct NodeState {
  XVELMFileLock pub;      // first member: the public node
  IORecord *records;      // newest first
  FileLink link;          // the node's file in the process's file table
  NodeState *indexNext;   // chain of the name index's bucket
  NodeState *deadNext;    // dead-node queue, then the destroying walk's list
  QMELMExtension *owner;  // the extension whose pool holds the node
  uint64_t hash;          // of the name, for the index
  uint32_t generation;    // the fork generation that made the node
  bool listed;            // on LockList and in the name index
};

// Queues a node that just died (or whose deferred closes were just made) for
// the next acquisition of its extension to destroy. Lock-free: a release
// holds only NodeMutex, the file table only its own mutex.
inline void queueDeadNode(NodeState *node) noexcept {
  ExtensionState *es = stateOf(node->owner);
  NodeState *head = __atomic_load_n(&es->dead, __ATOMIC_RELAXED);
  do {
    node->deadNext = head;
  } while (!__atomic_compare_exchange_n(&es->dead, &head, node, true, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED));
}

inline XVELMLHndl *fileHandleOf(QMELMLHndlp lock) {
  return reinterpret_cast<XVELMLHndl *>(lock);
}
inline HandleBlock *handleBlockOf(QMELMLHndlp lock) {
  return reinterpret_cast<HandleBlock *>(lock);
}
inline NodeState *nodeOf(QMELMLHndlp lock) {
  return reinterpret_cast<NodeState *>(lock->Private.ResLock);
}
inline NodeState *nodeOf(QMELMResLockp res) {
  return reinterpret_cast<NodeState *>(res);
}
inline IORecord *recordOf(QMELMIOInfop info) {
  return reinterpret_cast<IORecord *>(info);
}

// The process holds the record lock for the node (or the file system has
// none to hold), and the node's type becomes that of the holder R that
// decided it. NodeMutex held.
inline void grantRecordLock(NodeState *node, QMMemSize R) {
  node->pub.FcntlLockSet = 1;
  node->pub.CommonLock.LockType = R;
}

// ---- shared public fields read without their mutex -------------------------

// DeadNode is written under NodeMutex and read by the list walk under
// ListMutex only; Info is read by update and close without any mutex.
inline bool isDead(const QMELMResLock *n) {
  return __atomic_load_n(&n->DeadNode, __ATOMIC_ACQUIRE) != 0;
}
inline void markDead(QMELMResLock *n) {
  __atomic_store_n(&n->DeadNode, QMBoolean{1}, __ATOMIC_RELEASE);
}
inline QMELMIOInfop loadInfo(const QMELMResLock *n) {
  return __atomic_load_n(&n->Info, __ATOMIC_ACQUIRE);
}
inline void storeInfo(QMELMResLock *n, QMELMIOInfop r) {
  __atomic_store_n(&n->Info, r, __ATOMIC_RELEASE);
}

// ---- descriptor lists (under the node's NodeMutex) --------------------------

inline void pushDescriptor(XVELMFileDescriptorp &head, XVELMFileDescriptorp d) {
  d->prev = nullptr;
  d->next = head;
  if (head != nullptr) head->prev = d;
  head = d;
}

inline void unlinkDescriptor(XVELMFileDescriptorp &head, XVELMFileDescriptorp d) {
  if (d->prev != nullptr)
    d->prev->next = d->next;
  else
    head = d->next;
  if (d->next != nullptr) d->next->prev = d->prev;
  d->next = d->prev = nullptr;
}

// ---- file-lock failure messages -----------------------------------------------

// What follows the resource name in a file-lock failure message.
enum class MessageTail {
  Errno,       // the end piece, then the errno piece
  End,         // the end piece alone (the short message)
  DoubledEnd,  // the end piece twice: the unlink failure's message, kept so
};

// How the rendering is checked: refusal, rewind and identity messages are
// journaled with whatever rendered; open failures give up on a failing piece
// or on a name that cannot fit in the room left.
enum class Rendering { Unchecked, Checked, CheckedFitName };

struct FailureText {
  QMStatus head;       // the status heading the message
  const QMChar *name;  // the resource name
  QMStrSize nameLen;
  MessageTail tail;
  int err = 0;  // the errno piece's value
  // Closes the message with "a process on another machine (PID n there)
  // holds the lock" (after the tail): the refusal's holder is remote.
  bool remoteHolder = false;
  long holderPid = 0;
  // Closes the message with what a lock request's errno says about the file
  // system's lock service (lockServiceFailure), when it says anything.
  int serviceErr = 0;
};

// Journals one file-lock failure message: head, the resource piece, the name,
// then the tail. Nothing without a journal. Returns false only when a journal
// was given and the message was abandoned while composing it.
[[nodiscard]] bool journalFileLockFailure(const QMELMExtension *ext, QMJnlh jnl,
                                          const FailureText &t, Rendering r) noexcept;

// The name messages about a node use: the caller's when it gave parameters,
// else the node's own copy.
inline void messageName(const XVELMFileLockParms *parms, const NodeState *node, const QMChar **name,
                        QMStrSize *len) {
  if (parms != nullptr) {
    *name = parms->Filename;
    *len = static_cast<QMStrSize>(parms->FilenameLen);
  } else {
    *name = node->pub.ID.Filename;
    *len = static_cast<QMStrSize>(node->pub.ID.FilenameLen);
  }
}

// ---- I/O records of a node -----------------------------------------------------

// Called while a dead node is destroyed (its NodeDeleteMutex and NodeMutex
// held): under IOInfoMutex, frees the node's retired records and leaves its
// records still on the list to the next reset, which frees them once closed.
// Never waits for anything but IOInfoMutex.
void detachIORecords(QMELMExtension *ext, NodeState *node, QMJnlh jnl) noexcept;

// fork() and the I/O records of one extension. Prepare is called with ext's
// IOInfoMutex held by the forking thread (and only when it was granted): it
// takes the mutex of every record on ext's list, never waiting for one while
// it holds another (when the host refuses one, it holds none of them). Then
// exactly one of the others, still under IOInfoMutex: in the parent, the
// record mutexes prepare took are given back; in the child, every record on
// the list gets a new mutex (the old one is left to the host), so that
// update, reset and locked queries work there. Record mutexes come after
// IOInfoMutex in the lock order.
void ioPrepareFork(QMELMExtension *ext) noexcept;
void ioParentAfterFork(QMELMExtension *ext) noexcept;
void ioChildAfterFork(QMELMExtension *ext) noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_LOCK_H
