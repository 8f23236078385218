/*
 * xvelmJournal.h - how the lock manager reports: the journal choice, journal
 * writes deferred until the worker holds no mutex (JournalDeferral), the
 * one-status helpers, the NUL-in-name refusal, and the composer of messages
 * of several pieces (Message). All implemented in xvelmMessage.cpp.
 */
#ifndef XVELM_JOURNAL_H
#define XVELM_JOURNAL_H

#include "qmelm.h"
#include "qmp.h"

namespace xvelm::detail {

// The journal an operation reports to: the caller's, or, when the caller gave
// none and QMELM_DEBUG_VERBOSE_ERRORS is set, the host's default journal.
// Lock get, release and change choose their journal with this alone.
QMJnlh chooseJournal(const QMELMExtension *ext, QMJnlh jnl) noexcept;

// Journal writes that wait: while a JournalDeferral lives on the calling
// thread, composed messages and single statuses are kept (their text is
// composed at once, under whatever mutex the caller holds) and written when
// the outermost deferral ends, in the order they were made. The lock
// workers open one before they take any mutex, so that a journal stuck on a
// full pipe or a slow disk never holds up another request: no journal write
// happens under ListMutex, a NodeMutex or the file table. When more are kept
// than the thread's queue holds, the rest are written at once.
class JournalDeferral {
 public:
  JournalDeferral() noexcept;
  ~JournalDeferral();
  JournalDeferral(const JournalDeferral &) = delete;
  JournalDeferral &operator=(const JournalDeferral &) = delete;
};

// Keeps a status for the running deferral; false when none runs (or its
// queue is full): the caller writes it now.
[[nodiscard]] bool deferStatus(QMJnlh jnl, QMSeverity sev, QMStatus status) noexcept;

// Journals one status (with its parameters) at severity 4 when jnl is not null.
template <class... A>
void journalStatus(QMJnlh jnl, QMStatus status, A... args) noexcept {
  if (jnl == nullptr) return;
  if constexpr (sizeof...(A) == 0) {
    if (deferStatus(jnl, QMSeverityError, status)) return;
  }
  (void)qmlStatusToJnl(jnl, QMSeverityError, status, args...);
}

// Journals status (when jnl is not null) and returns it: the one-line failure
// exit of the workers.
[[nodiscard]] inline QMStatus journaled(QMJnlh jnl, QMStatus status) noexcept {
  journalStatus(jnl, status);
  return status;
}

// QMELM_E_NAME_HAS_NUL, journaled with the name, when the len characters of
// name hold U+0000; else 0. The system cuts a name short at its first NUL:
// "dir/victim<NUL>/../x" would open, create or delete dir/victim.
[[nodiscard]] QMStatus refuseNul(const QMELMExtension *ext, const QMChar *name, QMMemSize len,
                                 QMJnlh jnl) noexcept;
// Journals the refusal of a name that the system would cut short, and
// returns QMELM_E_NAME_HAS_NUL.
[[nodiscard]] QMStatus nameHasNul(const QMELMExtension *ext, const QMChar *name, QMMemSize len,
                                  QMJnlh jnl) noexcept;

// Composes one message of several pieces and journals it once.
//
// The buffer (2048 QMChars by default) comes from the extension's pool and is
// only allocated when there is a journal; without one every call is a no-op.
// Each piece is rendered at the running end of the text. The room a piece is
// offered is 2048 minus the length of the piece written just before it (the
// long-standing rule of these messages, kept so that texts compare equal),
// but never more than the buffer really has left. In Checked mode a failing
// piece abandons the message quietly; in Unchecked mode the piece is skipped
// and the rest is still journaled. The status being reported never changes.
class Message {
 public:
  enum class Mode { Checked, Unchecked };
  static constexpr QMStrSize kRoom = 2048;

  Message(const QMELMExtension *ext, QMJnlh jnl, Mode mode = Mode::Checked,
          QMStrSize capacity = kRoom) noexcept;
  ~Message();
  Message(const Message &) = delete;
  Message &operator=(const Message &) = delete;

  // Renders the catalogue text of status with its parameters.
  template <class... A>
  Message &status(QMStatus st, A... args) noexcept {
    if (!live()) return *this;
    QMStrSize len = 0;
    QMStatus rc = qmlStatusToBuf(jnl_, st, buf_ + used_, room(), &len, args...);
    return advance(rc, len);
  }
  // Renders a counted QMChar string (a path or a file name).
  Message &text(const QMChar *s, QMStrSize len) noexcept;
  // Abandons the message unless len more characters fit after the text so far.
  Message &requireRoom(QMStrSize len) noexcept;
  // Journals the text once (format "%.*s"); nothing when abandoned or without
  // a journal. Returns the journal's status, or 0 when nothing was written.
  QMStatus journal(QMSeverity sev = QMSeverityError) noexcept;

  bool active() const { return buf_ != nullptr; }  // a journal and a buffer
  bool abandoned() const { return failed_; }
  QMStrSize length() const { return used_; }

 private:
  bool live() const { return buf_ != nullptr && !failed_; }
  QMStrSize room() const;
  Message &advance(QMStatus rc, QMStrSize len) noexcept;
  void dropBuffer() noexcept;

  QMPoolh pool_ = nullptr;
  QMJnlh jnl_ = nullptr;
  Mode mode_;
  QMStrSize capacity_;
  QMChar *buf_ = nullptr;
  QMStrSize used_ = 0;
  QMStrSize last_ = 0;  // length of the piece written just before
  bool failed_ = false;
};

}  // namespace xvelm::detail

#endif  // XVELM_JOURNAL_H
