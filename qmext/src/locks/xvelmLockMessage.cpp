// The one file-lock failure message: its head status, the resource piece,
// the name, then its tail, composed with Message and journaled once.
// Acquisition, change, release and close all report through it. Takes no
// mutex; the composer's buffer comes from the pool and is freed before the
// function returns.
#include <cstdio>

#include "host/xvelmJournal.h"
#include "locks/xvelmLock.h"
#include "locks/xvelmRemoteHolder.h"

namespace xvelm::detail {
namespace {

// Appends an ASCII text (at most 159 characters) as a text piece: it carries
// no status, so the entry's codes stay those of the pieces before it.
void appendAscii(Message &msg, const char *s) {
  QMChar wide[160];
  QMStrSize len = 0;
  for (; s[len] != '\0' && len < 160; ++len) wide[len] = static_cast<unsigned char>(s[len]);
  msg.text(wide, len);
}

}  // namespace

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
    (void)std::snprintf(narrow, sizeof narrow,
                        "; a process on another machine (PID %ld there) holds the lock",
                        t.holderPid);
    appendAscii(msg, narrow);
  }
  if (const char *why = t.serviceErr != 0 ? lockServiceFailure(t.serviceErr) : nullptr)
    appendAscii(msg, why);
  (void)msg.journal();
  // A buffer the pool refused is no composition failure: there was nothing
  // to compose in.
  return !(msg.active() && msg.abandoned());
}

}  // namespace xvelm::detail
