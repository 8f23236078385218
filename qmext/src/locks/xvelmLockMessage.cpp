// The one file-lock failure message: its head status, the resource piece,
// the name, then its tail, composed with Message and journaled once.
// Acquisition, change, release and close all report through it. Takes no
// mutex; the composer's buffer comes from the pool and is freed before the
// function returns.
#include <cstdio>

#include "host/xvelmJournal.h"
#include "locks/xvelmLock.h"

namespace xvelm::detail {

bool journalFileLockFailure(const QMELMExtension *ext, QMJnlh jnl, const FailureText &t,
                            Rendering r) noexcept {
  if (jnl == nullptr) return true;
  Message msg(ext, jnl,
              r == Rendering::Unchecked ? Message::Mode::Unchecked : Message::Mode::Checked);
  msg.status(t.head).status(QMELM_M_INT_LOCK_CONFLICT);
  if (r == Rendering::CheckedFitName) msg.requireRoom(t.nameLen);
  msg.text(t.name, t.nameLen).status(QMELM_M_RESOURCE_END);
  switch (t.tail) {
    case MessageTail::Errno:
      msg.status(QMELM_M_ERRNO, t.err);
      break;
    case MessageTail::End:
      break;
    case MessageTail::DoubledEnd:
      msg.status(QMELM_M_RESOURCE_END);
      break;
  }
  if (t.remoteHolder) {
    char narrow[96];
    const int n =
        std::snprintf(narrow, sizeof narrow,
                      "; a process on another machine (PID %ld there) holds the lock", t.holderPid);
    QMChar wide[sizeof narrow];
    const auto len = static_cast<QMStrSize>(n > 0 && n < static_cast<int>(sizeof narrow) ? n : 0);
    for (QMStrSize i = 0; i < len; ++i) wide[i] = static_cast<unsigned char>(narrow[i]);
    msg.text(wide, len);
  }
  (void)msg.journal();
  // A buffer the pool refused is no composition failure: there was nothing
  // to compose in.
  return !(msg.active() && msg.abandoned());
}

}  // namespace xvelm::detail
