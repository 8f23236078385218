/*
 * xvelmRecordLock.h - the one record-lock and descriptor step of file
 * locking: opening a descriptor under a node's name with the identity check,
 * taking a parked descriptor, parking, checking that a name still leads to
 * the node's file, setting the process's record lock through the file table,
 * one refusal analysis, one errno table, truncation after a grant, and
 * deletion while the lock is held. Acquisition, change, release and close
 * keep only their decisions: every open(2), fcntl(2), stat(2) and errno test
 * of a locked file is made here. Every function expects the node's
 * NodeMutex held; the file's turn in the file table is taken inside, never
 * across a call to the caller.
 *
 * Record locks belong to the process, not to a descriptor: the one F_SETLK
 * of a file's first external holder covers every thread and descriptor of
 * the process, and closing ANY descriptor of the file drops all of them.
 * That is why later holders only count, why a descriptor a handle no longer
 * needs is parked on its node instead of closed, why no descriptor of a file
 * the process may hold a lock on is ever closed here, and why a file is
 * deleted while the lock is still held and closed only afterwards.
 */
#ifndef XVELM_RECORD_LOCK_H
#define XVELM_RECORD_LOCK_H

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "frame/xvelmHandles.h"
#include "locks/xvelmLock.h"

namespace xvelm::detail {

// The errno a rewind or identity failure reports, whatever the system said:
// the file is to be treated as busy.
inline constexpr int kBusyErrno = EAGAIN;

// Flags of a parked record that no request may take again: a descriptor
// whose file could not be described is kept (closing it could drop a lock
// of the process) but never handed to a holder.
inline constexpr uint32_t kUnusableFlags = 0xffffffffu;

// ---- errno tables --------------------------------------------------------------

// Which caller's errno table applies to a failed open: lock change does not
// map EEXIST (it never creates a file exclusively).
enum class OpenCaller { Acquisition, Change };

// The status of a failed open(2) (or of the truncation that completes an
// open with O_TRUNC) for errno err; ESTALE only after its retry.
[[nodiscard]] QMStatus openFailureStatus(int err,
                                         OpenCaller caller = OpenCaller::Acquisition) noexcept;

// ---- descriptors -----------------------------------------------------------------

// A parked descriptor of the node opened with exactly `flags` (the creation
// mode does not matter: the file exists by now), rewound and moved to the
// open list; null when there is none. *rewindFailed tells that lseek failed
// (the descriptor is used all the same).
[[nodiscard]] XVELMFileDescriptorp takeParked(NodeState *node, uint32_t flags,
                                              bool *rewindFailed) noexcept;

// Moves a record in use to the node's parked descriptors (it stays open).
void park(NodeState *node, XVELMFileDescriptorp d) noexcept;

// What opening a new descriptor under the node's name gave.
struct Opening {
  enum class Outcome {
    Opened,    // rec is on the node's open list, of the node's file
    NoRecord,  // the record could not be allocated: nothing was opened
    Failed,    // open(2) failed with err
    Replaced,  // another file is under the name: nothing kept, err EAGAIN
  } outcome;
  XVELMFileDescriptorp rec = nullptr;
  int err = 0;
  double openTime = 0.0;  // taken right after open(2)
  bool truncate = false;  // O_TRUNC was asked: truncateGranted once granted
};

// Opens the node's name with flags and mode (close-on-exec, never blocking,
// retried on EINTR and once on ESTALE). O_TRUNC is held back: a request
// that is then refused must not empty a file another process holds. The
// descriptor must be the node's file (a node without one records it): a
// descriptor of another file is given up through the file table (closed
// only when no lock of the process is on that file). One whose file cannot
// be described is never closed: it is parked on the node, unusable, and
// closed with the node's other descriptors.
[[nodiscard]] Opening openDescriptor(QMELMExtension *ext, NodeState *node, uint32_t flags,
                                     uint32_t mode) noexcept;

// The truncation that an open with O_TRUNC asked for, made once the lock is
// granted and the file's identity checked. 0, or the errno of the failure.
[[nodiscard]] int truncateGranted(int fd) noexcept;

// True when the node has no file yet, or its name leads to its file. Every
// grant on a node that has a file passes this check, whatever descriptor it
// then uses. The request's own look-up of the name is used; one that
// disagrees is made again now (the node's first holder may have created the
// file since), so only a name that leads elsewhere is refused.
[[nodiscard]] bool nameLeadsToNode(const NodeState *node, const NameLookup &earlier) noexcept;

// ---- the process's record lock ------------------------------------------------------

struct RecordLockResult {
  enum class Outcome {
    Granted,      // the process holds what the node needs now
    NoLocksHere,  // the file system keeps no record locks: granted all the same
    Refused,      // F_SETLK refused with err; nothing changed
    NameLost,     // granted, but the name no longer leads to the node's file:
                  // the lock and the node's need were put back as they were
  } outcome;
  int err = 0;
  struct flock req {};  // the request as it was sent
};

// The node now needs `want` of the process's record lock on its file (sent
// through fd). The file table sends F_SETLK (never waiting) only when the
// process's lock changes. A raise is checked against the name: a file
// renamed over ours between open and lock is not ours. A refused or undone
// change leaves the lock and the node's need as they were.
[[nodiscard]] RecordLockResult setRecordLock(NodeState *node, Need want, int fd) noexcept;

// How a refusal's status is read off the lock F_GETLK reports.
enum class RefusalRules { Acquisition, Change };

struct Refusal {
  QMStatus status;  // for Change, 0 when the holder could not be determined
  int reported;     // the errno the message carries
  // The holder is a process on another machine (LockerPID is its number
  // there): the message says so instead of leaving a local PID to be read.
  bool remoteHolder = false;
};

// Asks who holds the lock that a refused request (errno err, or EAGAIN for
// a file lost under its name) wanted, for a holder of type `type`, and fills
// the caller's Errno, LockerPID and SystemID.
[[nodiscard]] Refusal analyseRefusal(int fd, struct flock &req, int err, QMMemSize type,
                                     RefusalRules rules, XVELMFileLockParms *parms) noexcept;

// ---- the last holder -------------------------------------------------------------------

// Deletes the node's name while the process still holds its descriptors:
// first the write lock is taken without waiting (refused: another process
// holds the file, and nothing is deleted), then the name is checked to lead
// to the node's file, then unlinked. True when the name was deleted. The
// descriptors are closed afterwards by the caller (closing them drops the
// lock), so no other process can be granted the name between the check and
// the unlink.
[[nodiscard]] bool deleteWhileHeld(NodeState *node) noexcept;

// Closes the node's parked descriptors through the file table (deferred when
// another node of the process still needs a lock on the file) and frees
// their records. Returns the status of the last record, as closes always
// have (QMELM_E_CLOSE_FAILED with a message for a failed close, or the
// pool's status for a refused free).
[[nodiscard]] QMStatus closeParked(QMELMExtension *ext, NodeState *node, QMJnlh jnl,
                                   FailureText t) noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_RECORD_LOCK_H
