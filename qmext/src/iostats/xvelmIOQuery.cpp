/*
 * xvelmIOQuery - the I/O queries: Get totals and List entries of the records
 * selected by file, by directory or all (paths resolved through qmioe).
 * With lockRequest the walk holds IOInfoMutex and each visited record's
 * mutex; without, a reading section only. List's array comes from the pool
 * and is the caller's until ListIOInfoFree. Statuses: null parameters, the
 * resolution's, a refused mutex's, QMELM_E_NO_MEMORY for List's array.
 */
#include <algorithm>
#include <optional>

#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmMutex.h"
#include "host/xvelmPool.h"
#include "iostats/xvelmIOReaders.h"
#include "options/xvelmOptions.h"
#include "qmhostcm.h"

using namespace xvelm::detail;

namespace {

// A file or directory path counts as given when it has characters.
bool given(const QMChar *path, QMStrSize len) {
  return path != nullptr && len > 0;
}

// Which records a query selects, with the full path qmioe resolved for a
// file or a directory. Names are compared as the records hold them.
struct Selection {
  enum class Mode { All, File, Directory } mode = Mode::All;
  const QMChar *path = nullptr;
  QMStrSize len = 0;

  bool matches(const QMELMIOInfo &r) const {
    switch (mode) {
      case Mode::File:
        return qmzsCompare(r.Name, r.NameLen, path, len) != 0;
      case Mode::Directory:
        // A plain prefix, deliberately: no separator is required after it,
        // so the directory /a/b also selects /a/bc/f.
        return len <= r.NameLen && qmzsCompare(r.Name, len, path, len) != 0;
      case Mode::All:
        break;
    }
    return true;
  }
};

void addCounters(QMELMIOStats &to, const QMELMIOInfo &r) {
  to.bytesRead = addWrapping(to.bytesRead, peek(r.numBytesRead));
  to.bytesWritten = addWrapping(to.bytesWritten, peek(r.numBytesWritten));
  to.reads = addWrapping(to.reads, peek(r.numReads));
  to.writes = addWrapping(to.writes, peek(r.numWrites));
  to.seeks = addWrapping(to.seeks, peek(r.numSeeks));
}

// The selection both queries run. An empty list answers 0 at once. A file
// alone or a directory alone is resolved through qmioe (its failure is
// journaled and returned); both or neither select every record. The walk
// holds IOInfoMutex when the caller asked for locking, a reading section
// otherwise; prepare(bound) runs first, with bound the number of records it
// will visit at most, and visit(record) for each match, under the record's
// mutex when locking. Returns prepare's failure (IOInfoMutex and the
// resolved path given back all the same), the status of a mutex the host
// refused (journaled; the walk stops there), or that of giving the resolved
// path back (0 when there was none).
template <class Prepare, class Visit>
QMStatus selectRecords(QMELMExtension *ext, const QMELMQueryIOInfoParms &q, QMJnlh jnl,
                       Prepare prepare, Visit visit) noexcept {
  if (follow(ext->IOInfo) == nullptr) return 0;

  Selection sel;
  const bool file = given(q.matchFile, q.matchFileLen);
  const bool dir = given(q.matchDir, q.matchDirLen);
  std::optional<FullPath> resolved;
  if (file != dir) {
    sel.mode = file ? Selection::Mode::File : Selection::Mode::Directory;
    FullPath &full = resolved.emplace(ext, jnl, q.enc_pathname);
    const QMStatus rc =
        file ? full.resolve(q.matchFile, q.matchFileLen) : full.resolve(q.matchDir, q.matchDirLen);
    if (rc != 0) return journaled(jnl, rc);
    sel.path = full.data();
    sel.len = full.size();
  }

  const bool locking = q.lockRequest != 0;
  std::optional<MutexGuard> listLock;
  std::optional<ReadingSection> reading;
  if (locking) {
    if (const MutexGuard &io = listLock.emplace(ext->IOInfoMutex, Rank::IOInfo); !io)
      return journaled(jnl, io.status());
  } else {
    reading.emplace();
  }
  const QMMemSize bound = peek(ext->numIOInfo);
  // A failed allocation returns its own status; the guards give back
  // IOInfoMutex and the resolved path.
  if (const QMStatus rc = prepare(bound); rc != 0) return rc;
  QMStatus refused = 0;
  QMMemSize visited = 0;
  for (QMELMIOInfop r = follow(ext->IOInfo); r != nullptr && visited < bound;
       r = follow(r->next), ++visited) {
    if (!sel.matches(*r)) continue;
    if (!locking) {
      visit(*r);
      continue;
    }
    MutexGuard rm(r->mutex, Rank::Record);
    if (!rm) {
      refused = rm.status();
      break;
    }
    visit(*r);
  }
  listLock.reset();
  reading.reset();
  const QMStatus rc = resolved ? resolved->giveBack() : 0;
  return refused != 0 ? journaled(jnl, refused) : rc;
}

}  // namespace

int xvelmGetIOInfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMGetIOInfoParms *result,
                   QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (query == nullptr || result == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  return selectRecords(
      ext, *query, jnl, [](QMMemSize) -> QMStatus { return 0; },
      [result](const QMELMIOInfo &r) {
        addCounters(result->totals, r);
        ++result->numEntries;
      });
}

int xvelmListIOInfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMListIOInfoParms *result,
                    QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (query == nullptr || result == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  QMMemSize filled = 0;
  auto allocate = [ext, result](QMMemSize bound) -> QMStatus {
    // One entry per record on the list (at least one block, so that an
    // empty answer is still an array to give back); zero-filled, so the
    // entries past the matches read as empty.
    const QMMemSize entries = std::max<QMMemSize>(bound, 1);
    auto array =
        PoolPtr<QMELMByFileIOStats>::alloc(ext->Pool, entries * sizeof(QMELMByFileIOStats));
    if (!array) return QMELM_E_NO_MEMORY;  // deliberately without a message
    result->list = array.release();
    return 0;
  };
  return selectRecords(ext, *query, jnl, allocate, [result, &filled](const QMELMIOInfo &r) {
    QMELMByFileIOStats &e = result->list[filled++];
    e.filename = r.Name;
    e.filenameLen = r.NameLen;
    e.openTime = peek(r.openTime);
    e.closeTime = peek(r.closeTime);
    e.openFlags = peek(r.OpenFlags);
    addCounters(e.totals, r);
    ++result->numEntries;
  });
}

int xvelmListIOInfoFree(QMELMExtensionp ext, QMELMListIOInfoParms *toBeFreed, QMJnlh jnl) noexcept {
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (toBeFreed == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  // A list that was never handed out (the query found no records) is nothing
  // to give back. list and numEntries keep their values either way.
  if (toBeFreed->list == nullptr) return 0;
  return freeBlock(ext->Pool, toBeFreed->list, nullptr);
}
