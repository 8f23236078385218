/*
 * xvelmIdentity.h - the process's files beneath the name nodes.
 *
 * Nodes are per name: two names of one file make two nodes. The kernel keeps
 * record locks per process and file: closing ANY descriptor of a file drops
 * every record lock the process holds on it, and any F_SETLK of the process
 * converts the lock it already has. So every node that has a descriptor of a
 * file is linked, by device and inode, into one process-wide table (shared
 * by every lock manager object in the process, since record locks are the
 * process's), and every record-lock call and every close of a node's
 * descriptors is decided there:
 *  - the lock the process holds on a file is the strongest any node of that
 *    file needs; a call that would weaken it for another node is not made,
 *    and a call that changes nothing is not made either;
 *  - a node's descriptors are closed only when no node of the process needs
 *    a record lock on the file; otherwise their close is deferred, and the
 *    descriptors are closed by whichever node makes the file's last need go;
 *  - after fork() the child's table starts empty and nodes made before the
 *    fork belong to another generation: the child never uses them.
 *
 * Mutex rules: what is done to one file (a record-lock call, a close of
 * one of its descriptors, a change of a node's need, a link attached or
 * detached) is done in the file's turn (FileTurn): one thread at a time per
 * file, by device and inode, with no mutex held in between, so that a slow
 * F_SETLK or close(2) (a network file system, a dead server) holds up only
 * requests for that same file. The table's buckets are split into stripes,
 * each with its mutex; a stripe's mutex guards its buckets and every field
 * of the links in them (links of one file are always in one bucket), and is
 * held only for reads and writes of the table, never across a system call.
 * dev, ino and known of a link are written once, by the node's first
 * acquisition (under its NodeMutex, the turn and the stripe). Lock order:
 * ListMutex -> NodeDeleteMutex -> NodeMutex -> a file's turn -> its stripe;
 * no thread holds two turns or two stripes, but destroy (one at a time) and
 * the fork handlers (every stripe, in order).
 */
#ifndef XVELM_IDENTITY_H
#define XVELM_IDENTITY_H

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

#include <cstdint>

#include "host/xvelmMutex.h"

namespace xvelm::detail {

struct NodeState;

// What a node needs of the process's record lock on its file.
enum class Need : uint8_t { None = 0, Read = 1, Write = 2 };

// A node's place in the file table, embedded in the node. Guarded by the
// table mutex.
struct FileLink {
  FileLink *next;  // chain of the table's bucket
  dev_t dev;       // the node's file: that of its first descriptor
  ino_t ino;
  Need need;                      // what the node needs of the record lock
  bool attached;                  // on the table
  bool known;                     // dev and ino were recorded once
  bool waiting;                   // its node was left for the table to hand back once drained
  XVELMFileDescriptorp deferred;  // records whose close waits (fd -1 once closed)
};

// The fork generation of the process: bumped in a child by fork().
uint32_t forkGeneration() noexcept;

// The file's turn, for its scope: no other thread changes what the process
// holds on the file, closes its descriptors or moves its links until it
// ends. Every function below that takes a FileTurn& must be called in the
// turn of the file it works on: the node's file for a link, st's file for a
// descriptor's description.
class XVELM_TSA(scoped_lockable) FileTurn {
 public:
  FileTurn(dev_t dev, ino_t ino) noexcept XVELM_TSA(no_thread_safety_analysis);
  explicit FileTurn(const FileLink &l) noexcept : FileTurn(l.dev, l.ino) {}
  explicit FileTurn(const struct stat &st) noexcept : FileTurn(st.st_dev, st.st_ino) {}
  ~FileTurn() XVELM_TSA(no_thread_safety_analysis);
  FileTurn(const FileTurn &) = delete;
  FileTurn &operator=(const FileTurn &) = delete;

 private:
  dev_t dev_;
  ino_t ino_;
  std::size_t slot_ = 0;
};

// True when two files' links live under one stripe of the table (for tests
// that make two files meet there).
[[nodiscard]] bool shareStripe(const struct stat &a, const struct stat &b) noexcept;

// True for the errors of F_SETLK on a file system that keeps no record
// locks: the lock is then granted, deliberately, since nothing else could
// ever be.
[[nodiscard]] bool noRecordLocksHere(int err) noexcept;

enum class Identity { Recorded, Same, Other };

// Records the file of a descriptor the node just opened: a node without a
// file takes this one (Recorded); a node with one says whether it is the
// same file (Same) or another file now under the node's name (Other).
[[nodiscard]] Identity recordFile(FileTurn &, FileLink &l, const struct stat &st) noexcept;

// True when st is the node's file (its recorded identity).
[[nodiscard]] bool isNodeFile(const FileLink &l, const struct stat &st) noexcept;

// The node now needs `want` of the record lock. F_SETLK is sent through fd
// only when the process's lock on the file changes, with the strongest type
// any node of the file needs (F_UNLCK for none); req's l_type is what was
// asked. Returns 0 (the call succeeded, or none was needed) or -1 with errno
// set by the refused call. The node's need is recorded on success and on
// the "no record locks here" errors (EOPNOTSUPP, EROFS, EINVAL).
[[nodiscard]] int setNeed(FileTurn &, FileLink &l, Need want, int fd, struct flock &req) noexcept;

// The node's last holder went: its need drops to none. When other nodes of
// the file still need a record lock, the process's lock is given down to
// what they need (through fd) and false is returned: the node's parked
// descriptors must not be closed; the caller hands them to deferRecords.
// True: nothing needs the lock any more and they may be closed now, after
// which the caller calls closedAll.
[[nodiscard]] bool releaseNeed(FileTurn &, FileLink &l, int fd) noexcept;
void deferRecords(FileTurn &, FileLink &l, XVELMFileDescriptorp list) noexcept;
// The node closed its descriptors: the deferred closes of the file's other
// nodes are made now, and the node leaves the table unless it still waits
// for closes of its own.
void closedAll(FileTurn &, FileLink &l) noexcept;

// A descriptor opened under a node's name turned out to be another file:
// closes it when no node of the process needs a lock on that file; else it
// stays open (closing it would drop that lock) until the process ends.
void closeStray(FileTurn &, int fd, const struct stat &st) noexcept;

// A dead node is to be destroyed: true when it may be freed now (it left the
// table; its deferred records are closed and the caller frees them). False:
// descriptors of its file still wait for another node's last need; the
// table keeps the node and hands it back to its extension's dead nodes once
// they are closed.
[[nodiscard]] bool forgetNode(NodeState *node) noexcept;

// Destroy of an extension: every node of ext leaves the table. Their
// descriptors are closed (dropping the process's locks) unless a node of
// another lock manager object of the process still needs a lock on the same
// file; then the process's lock is given down to what that node needs and
// the descriptors stay open until the process ends, since closing them would
// drop its lock.
void forgetExtension(const QMELMExtension *ext) noexcept;

// ---- fork -----------------------------------------------------------------------

// The fork unit's hands on the table: every stripe taken before fork(),
// given back after it in the parent; in the child the table starts empty,
// the fork generation moves on, and the stripes are given back.
void tablePrepareFork() noexcept;
void tableParentAfterFork() noexcept;
void tableChildAfterFork() noexcept;

}  // namespace xvelm::detail

#endif  // XVELM_IDENTITY_H
