// The message composer, journal writes deferred until no mutex is held, and
// the small journal helpers every worker shares.
// Buffers come from the extension's pool and are freed when the composer
// goes; nothing is allocated when there is no journal.
#include <algorithm>
#include <cstdlib>

#include "host/xvelmJournal.h"
#include "host/xvelmPool.h"
#include "host/xvelmQMChar.h"

namespace xvelm::detail {
namespace {

// One journal write kept by a deferral: a composed message (buf, owned, from
// pool) or a single status (buf null).
struct Kept {
  QMJnlh jnl;
  QMSeverity sev;
  QMPoolh pool;
  QMChar *buf;
  QMStrSize len;
  QMStatus status;
};

constexpr int kMaxKept = 16;
thread_local int tDeferrals = 0;  // deferrals open on this thread
thread_local int tKeptCount = 0;
thread_local Kept tKept[kMaxKept];

bool keep(const Kept &k) noexcept {
  if (tDeferrals == 0 || tKeptCount == kMaxKept) return false;
  tKept[tKeptCount++] = k;
  return true;
}

void writeKept() noexcept {
  // A write never journals through a deferral itself; the count is read
  // afresh in case one did.
  for (int i = 0; i < tKeptCount; ++i) {
    Kept &k = tKept[i];
    if (k.buf != nullptr) {
      (void)qmlMessageToJnl(k.jnl, k.sev, kFmtCountedString.data(), kFmtCountedString.size(),
                            static_cast<int>(k.len), k.buf);
      (void)k.pool->memFree(k.pool, k.buf);
    } else {
      (void)qmlStatusToJnl(k.jnl, k.sev, k.status);
    }
  }
  tKeptCount = 0;
}

}  // namespace

JournalDeferral::JournalDeferral() noexcept {
  ++tDeferrals;
}

JournalDeferral::~JournalDeferral() {
  if (--tDeferrals == 0) writeKept();
}

bool deferStatus(QMJnlh jnl, QMSeverity sev, QMStatus status) noexcept {
  return keep(Kept{jnl, sev, nullptr, nullptr, 0, status});
}

QMJnlh chooseJournal(const QMELMExtension *ext, QMJnlh jnl) noexcept {
  if (jnl != nullptr) return jnl;
  if (std::getenv("QMELM_DEBUG_VERBOSE_ERRORS") == nullptr) return nullptr;
  QMHndlp h = ext != nullptr ? ext->Common.hndl : qmpLiveHost();
  return h != nullptr ? h->qmjnl : nullptr;
}

QMStatus freeBlock(QMPoolh pool, void *block, QMJnlh jnl) noexcept {
  QMStatus rc = pool->memFree(pool, block);
  if (rc != 0) journalStatus(jnl, rc);
  return rc;
}

Message::Message(const QMELMExtension *ext, QMJnlh jnl, Mode mode, QMStrSize capacity) noexcept
    : mode_(mode), capacity_(capacity) {
  if (jnl == nullptr) return;
  pool_ = ext->Pool;
  jnl_ = jnl;
  buf_ = static_cast<QMChar *>(
      pool_->memAlloc(pool_, static_cast<QMMemSize>(capacity) * sizeof(QMChar), 0));
  // Without a buffer there is nothing to compose: the message is dropped,
  // as it is when a rendering call fails.
  if (buf_ == nullptr) failed_ = true;
}

Message::~Message() {
  dropBuffer();
}

void Message::dropBuffer() noexcept {
  if (buf_ != nullptr) (void)pool_->memFree(pool_, buf_);
  buf_ = nullptr;
}

QMStrSize Message::room() const {
  // The room a piece is offered: 2048 less the piece just before, but never
  // more than the buffer really has left after the text so far.
  return std::min(kRoom - last_, capacity_ - used_);
}

Message &Message::advance(QMStatus rc, QMStrSize len) noexcept {
  if (rc != 0) {
    if (mode_ == Mode::Checked) failed_ = true;
    last_ = 0;
    return *this;
  }
  used_ += len;
  last_ = len;
  return *this;
}

Message &Message::text(const QMChar *s, QMStrSize len) noexcept {
  if (!live()) return *this;
  // A length the buffer cannot take (or a negative one, which the format
  // would read as "up to a terminator" in a name that has none) is a piece
  // that does not render.
  if (len < 0 || len > room()) return advance(QM_E_BUFFER_TOO_SMALL, 0);
  QMStrSize out = 0;
  QMStatus rc = qmlMessageToBuf(jnl_, kFmtCountedString.data(), kFmtCountedString.size(),
                                buf_ + used_, room(), &out, static_cast<int>(len), s);
  return advance(rc, out);
}

Message &Message::requireRoom(QMStrSize len) noexcept {
  if (live() && used_ + len > capacity_) failed_ = true;
  return *this;
}

QMStatus Message::journal(QMSeverity sev) noexcept {
  if (!live()) return 0;
  // Kept for the running deferral: the buffer goes with it.
  if (keep(Kept{jnl_, sev, pool_, buf_, used_, 0})) {
    buf_ = nullptr;
    return 0;
  }
  QMStatus rc = qmlMessageToJnl(jnl_, sev, kFmtCountedString.data(), kFmtCountedString.size(),
                                static_cast<int>(used_), buf_);
  dropBuffer();
  return rc;
}

QMStatus refuseNul(const QMELMExtension *ext, const QMChar *name, QMMemSize len,
                   QMJnlh jnl) noexcept {
  if (name == nullptr || len == 0) return 0;
  // Every unit is looked at, with no early way out: the loop then checks many
  // units per instruction, and a name that has no NUL (nearly all) is read
  // once, quickly.
  QMMemSize nuls = 0;
  for (QMMemSize i = 0; i < len; ++i) nuls += name[i] == 0 ? 1 : 0;
  return nuls != 0 ? nameHasNul(ext, name, len, jnl) : 0;
}

QMStatus nameHasNul(const QMELMExtension *ext, const QMChar *name, QMMemSize len,
                    QMJnlh jnl) noexcept {
  Message msg(ext, jnl);
  msg.status(QMELM_E_NAME_HAS_NUL)
      .status(QMELM_M_PATH)
      .requireRoom(static_cast<QMStrSize>(len))
      .text(name, static_cast<QMStrSize>(len))
      .status(QMELM_M_TRAILER);
  (void)msg.journal();
  return QMELM_E_NAME_HAS_NUL;
}

}  // namespace xvelm::detail
