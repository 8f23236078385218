// The message composer and the small journal helpers every worker shares.
// Buffers come from the extension's pool and are freed when the composer
// goes; nothing is allocated when there is no journal.
#include <algorithm>
#include <cstdlib>

#include "xvelmDetail.h"

namespace xvelm::detail {

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
  QMStatus rc = qmlMessageToJnl(jnl_, sev, kFmtCountedString.data(), kFmtCountedString.size(),
                                static_cast<int>(used_), buf_);
  dropBuffer();
  return rc;
}

}  // namespace xvelm::detail
