/*
 * xvelmNodeList - an extension's file nodes: LockList, the index by name
 * beside it, and the dead nodes. Listing, look-up and taking dead nodes off
 * run under ListMutex (a look-up that changes nothing under a shared hold of
 * it, the rest exclusively); a dead node is destroyed after ListMutex is given
 * back, under its own NodeDeleteMutex and NodeMutex. Grown index buckets
 * come from the extension's pool (freed when the index grows again, or with
 * the pool); a destroyed node's blocks and mutexes are freed here.
 */
#include "locks/xvelmNodeList.h"

#include <cstring>

#include "frame/xvelmState.h"
#include "host/xvelmHostObject.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "locks/xvelmIdentity.h"
#include "locks/xvelmLock.h"

namespace xvelm::detail {
namespace {

// Names match by their QMChar length and their narrow bytes alone: inode and
// device deliberately take no part, so two names of one file make two nodes.
// The node's bytes are read no further than its terminating padding.
bool sameName(const XVELMFileLockID &id, const char *narrow, QMMemSize narrowLen, QMMemSize qmLen) {
  if (id.FilenameLen != qmLen) return false;
  if (narrowLen > id.NFilenameLen + id.NFilenameNullPadLen) return false;
  return std::memcmp(id.NarrowFilename, narrow, narrowLen) == 0;
}

NodeState *&bucketFor(ExtensionState *es, uint64_t hash) {
  return es->buckets[hash & (es->bucketCount - 1)];
}

void indexInsert(ExtensionState *es, NodeState *n) {
  NodeState *&b = bucketFor(es, n->hash);
  n->indexNext = b;
  b = n;
  ++es->nodeCount;
}

// Takes a node off LockList and the index; a node already off is left alone.
void unlist(QMELMExtension *ext, NodeState *n) {
  if (!n->listed) return;
  n->listed = false;
  ExtensionState *es = stateOf(ext);
  for (NodeState **p = &bucketFor(es, n->hash); *p != nullptr; p = &(*p)->indexNext) {
    if (*p == n) {
      *p = n->indexNext;
      break;
    }
  }
  n->indexNext = nullptr;
  --es->nodeCount;
  QMELMResLock &c = n->pub.CommonLock;
  if (c.prev != nullptr)
    c.prev->next = c.next;
  else
    ext->LockList = c.next;
  if (c.next != nullptr) c.next->prev = c.prev;
  c.next = c.prev = nullptr;
}

// Grows the index when it holds more nodes than buckets. A pool that
// refuses leaves the index as it is: longer chains, nothing lost.
void indexGrow(QMELMExtension *ext, QMJnlh jnl) {
  ExtensionState *es = stateOf(ext);
  if (es->nodeCount < es->bucketCount) return;
  const QMMemSize count = es->bucketCount * 4;
  auto *fresh = static_cast<NodeState **>(
      ext->Pool->memAlloc(ext->Pool, count * sizeof(NodeState *), QM_POOL_ZERO_FILL));
  if (fresh == nullptr) return;
  for (QMMemSize i = 0; i < es->bucketCount; ++i) {
    for (NodeState *n = es->buckets[i]; n != nullptr;) {
      NodeState *next = n->indexNext;
      NodeState *&b = fresh[n->hash & (count - 1)];
      n->indexNext = b;
      b = n;
      n = next;
    }
  }
  if (es->buckets != es->inlineBuckets) (void)freeBlock(ext->Pool, es->buckets, jnl);
  es->buckets = fresh;
  es->bucketCount = count;
}

// A dead node has no holder left (its last release made it dead), but an
// acquirer may still be between finding it and seeing it dead: taking
// NodeDeleteMutex exclusively waits for every such acquirer. A node whose
// descriptors still wait to be closed (another node of the process needs a
// lock on its file) is kept by the file table, which queues it again once
// they are closed. A node whose mutexes cannot be taken is left in the pool:
// freeing it unlocked could pull it from under a thread that holds them.
void destroyNode(QMELMExtension *ext, NodeState *node, QMJnlh jnl) noexcept {
  const QMLockh delMutex = node->pub.CommonLock.NodeDeleteMutex;
  const QMLockh nodeMutex = node->pub.CommonLock.NodeMutex;
  MutexGuard del(delMutex, Rank::NodeDelete);
  if (!del) return;
  MutexGuard nm(nodeMutex, Rank::Node);
  if (!nm) return;
  if (!forgetNode(node)) return;
  for (XVELMFileDescriptorp d = node->link.deferred; d != nullptr;) {
    XVELMFileDescriptorp next = d->next;
    (void)freeBlock(ext->Pool, d, jnl);
    d = next;
  }
  detachIORecords(ext, node, jnl);
  (void)freeBlock(ext->Pool, node->pub.ID.Filename, jnl);
  (void)freeBlock(ext->Pool, node->pub.ID.NarrowFilename, jnl);
  (void)freeBlock(ext->Pool, node, jnl);
  nm.unlock();
  destroyObject(nodeMutex);
  del.unlock();
  destroyObject(delMutex);
}

}  // namespace

void initNodeList(ExtensionState *es) noexcept {
  es->buckets = es->inlineBuckets;
  es->bucketCount = sizeof(es->inlineBuckets) / sizeof(es->inlineBuckets[0]);
}

uint64_t nameHash(const char *narrow, QMMemSize len, QMMemSize qmLen) noexcept {
  uint64_t h = 0xcbf29ce484222325ull ^ qmLen;  // FNV-1a over the narrow bytes
  for (QMMemSize i = 0; i < len; ++i)
    h = (h ^ static_cast<unsigned char>(narrow[i])) * 0x100000001b3ull;
  return h;
}

void listNode(QMELMExtension *ext, NodeState *n, QMJnlh jnl) noexcept {
  n->listed = true;
  XVELMFileLock &f = n->pub;
  f.CommonLock.next = ext->LockList;
  if (ext->LockList != nullptr) ext->LockList->prev = &f.CommonLock;
  ext->LockList = &f.CommonLock;
  indexInsert(stateOf(ext), n);
  indexGrow(ext, jnl);
}

// Takes every node queued dead since the last acquisition off LockList and
// the index, into `dead` (ListMutex held). No walk: the queue holds them all.
void collectDead(QMELMExtension *ext, DeadNodes &dead) noexcept {
  NodeState *n =
      __atomic_exchange_n(&stateOf(ext)->dead, static_cast<NodeState *>(nullptr), __ATOMIC_ACQUIRE);
  while (n != nullptr) {
    NodeState *next = n->deadNext;
    unlist(ext, n);
    dead.add(n);
    n = next;
  }
}

// The live file node of the name, or null (ListMutex held). A node made
// before a fork in a parent process is dropped from the index and the list
// as it is met: the child never uses it.
NodeState *findNode(QMELMExtension *ext, const char *narrow, QMMemSize narrowLen, QMMemSize qmLen,
                    uint64_t hash) noexcept {
  const uint32_t gen = forkGeneration();
  for (NodeState *n = bucketFor(stateOf(ext), hash); n != nullptr;) {
    NodeState *next = n->indexNext;
    if (n->generation != gen) {
      unlist(ext, n);
    } else if (n->hash == hash && !isDead(&n->pub.CommonLock) &&
               sameName(n->pub.ID, narrow, narrowLen, qmLen)) {
      return n;
    }
    n = next;
  }
  return nullptr;
}
NodeState *peekNode(QMELMExtension *ext, const char *narrow, QMMemSize narrowLen, QMMemSize qmLen,
                    uint64_t hash) noexcept {
  const uint32_t gen = forkGeneration();
  for (NodeState *n = bucketFor(stateOf(ext), hash); n != nullptr; n = n->indexNext) {
    if (n->generation != gen) return nullptr;
    if (n->hash == hash && !isDead(&n->pub.CommonLock) &&
        sameName(n->pub.ID, narrow, narrowLen, qmLen))
      return n;
  }
  return nullptr;
}

bool deadQueued(QMELMExtension *ext) noexcept {
  return __atomic_load_n(&stateOf(ext)->dead, __ATOMIC_ACQUIRE) != nullptr;
}

void DeadNodes::add(NodeState *n) noexcept {
  n->deadNext = nullptr;
  if (tail_ != nullptr)
    tail_->deadNext = n;
  else
    head_ = n;
  tail_ = n;
}

void DeadNodes::destroyAll(QMELMExtension *ext, QMJnlh jnl) noexcept {
  while (head_ != nullptr) {
    NodeState *next = head_->deadNext;
    destroyNode(ext, head_, jnl);
    head_ = next;
  }
  tail_ = nullptr;
}

}  // namespace xvelm::detail
