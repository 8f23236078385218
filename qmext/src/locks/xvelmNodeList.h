/*
 * xvelmNodeList.h - an extension's file nodes (xvelmNodeList.cpp): LockList
 * with its index by name, and the dead nodes an acquisition takes off them
 * and destroys. Mutex rules: peekNode runs with the extension's ListMutex
 * held shared, deadQueued with no mutex; listing, findNode and collectDead
 * change the list and the index and need it held exclusively; destroyAll
 * runs with no mutex held and takes each node's NodeDeleteMutex, then its
 * NodeMutex.
 */
#ifndef XVELM_NODELIST_H
#define XVELM_NODELIST_H

#include <cstdint>

#include "qmelm.h"

namespace xvelm::detail {

struct ExtensionState;
struct NodeState;

// The factory: an empty index in the object's inline buckets.
void initNodeList(ExtensionState *es) noexcept;

// The index's hash of a name: its narrow bytes and its QMChar length.
[[nodiscard]] uint64_t nameHash(const char *narrow, QMMemSize len, QMMemSize qmLen) noexcept;

// The live node of the name (narrowLen narrow bytes, qmLen QMChars), or
// null. Names match by their QMChar length and narrow bytes alone: two names
// of one file make two nodes. A node made before a fork in a parent process
// is dropped from the index and the list as it is met.
[[nodiscard]] NodeState *findNode(QMELMExtension *ext, const char *narrow, QMMemSize narrowLen,
                                  QMMemSize qmLen, uint64_t hash) noexcept;

// The live node of the name as a shared hold of ListMutex sees it: the same
// match as findNode, but nothing is changed, so null also when a node made
// before a fork is met on the way (findNode drops it).
[[nodiscard]] NodeState *peekNode(QMELMExtension *ext, const char *narrow, QMMemSize narrowLen,
                                  QMMemSize qmLen, uint64_t hash) noexcept;

// Whether a dead node waits to be taken off LockList (no mutex needed).
[[nodiscard]] bool deadQueued(QMELMExtension *ext) noexcept;

// Puts a new node (its hash set) at the head of LockList and into the
// index, which grows when it holds more nodes than buckets (a pool that
// refuses leaves it as it is: longer chains, nothing lost).
void listNode(QMELMExtension *ext, NodeState *n, QMJnlh jnl) noexcept;

// Dead nodes taken off LockList and the name index, chained through their
// deadNext links (nothing else reads them any more), destroyed in chain
// order when the acquisition is over.
class DeadNodes {
 public:
  void add(NodeState *n) noexcept;
  // Destroys every node added, in order, with no mutex held on entry. A
  // node an acquirer may still be entering is destroyed once it has gone;
  // one whose descriptors wait for another node of its file is handed to
  // the file table; one whose mutexes the host refuses stays in the pool.
  void destroyAll(QMELMExtension *ext, QMJnlh jnl) noexcept;

 private:
  NodeState *head_ = nullptr;
  NodeState *tail_ = nullptr;
};

// Takes every node queued dead since the last acquisition off LockList and
// the index, into dead. No walk: the queue holds them all.
void collectDead(QMELMExtension *ext, DeadNodes &dead) noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_NODELIST_H
