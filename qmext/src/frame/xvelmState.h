/*
 * xvelmState.h - the extension object as the factory allocates it: the
 * public object, the name index, the dead-node queue and the registry links.
 */
#ifndef XVELM_STATE_H
#define XVELM_STATE_H

#include <cstdint>

#include "qmelm.h"

namespace xvelm::detail {

struct NodeState;

// The factory allocates this; callers only ever see `pub`.
// Mutex rules: the name index (buckets, bucketCount, nodeCount) is guarded by
// ListMutex; dead is a lock-free stack (queueDeadNode pushes, an acquisition
// takes all); regNext, regPrev and forkTaken by the process's registry
// mutex.
struct ExtensionState {
  QMELMExtension pub;       // first member: the public object
  NodeState **buckets;      // name index: inlineBuckets, or a pool block once grown
  QMMemSize bucketCount;    // a power of two
  QMMemSize nodeCount;      // nodes in the index
  NodeState *dead;          // nodes waiting to be destroyed
  ExtensionState *regNext;  // registry of live extension objects
  ExtensionState *regPrev;
  uint8_t forkTaken;             // which of its host mutexes the fork handler holds
  NodeState *inlineBuckets[64];  // the index's first buckets: no allocation
};

inline ExtensionState *stateOf(QMELMExtension *e) {
  return reinterpret_cast<ExtensionState *>(e);
}

}  // namespace xvelm::detail

#endif  // XVELM_STATE_H
