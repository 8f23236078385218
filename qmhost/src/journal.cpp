/*
 * journal.cpp - journals: rendering of messages and catalogue texts into
 * callers' buffers, and entries (severity, UTF-8 text, status codes) kept in
 * memory and written to stderr or a file. A journal's mutex guards its
 * entries and its output; rendering takes no lock. The codes of an entry are
 * found through a per-thread list of the statuses rendered into buffers (see
 * "pending codes" below), kept only for journals that keep entries: for the
 * others (stderr and file journals by default) nobody could read them.
 */
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>

#include "format.h"
#include "host_internal.h"
#include "utf.h"

namespace qmhost {

namespace {

Journal *asJournal(QMJnlh j) {
  return reinterpret_cast<Journal *>(j);
}

std::atomic<uint64_t> nextJournalSerial{1};

// ---- pending codes ----------------------------------------------------------
//
// A composed message is rendered piece by piece into a buffer (statusToBuf at
// the running end of the text) and then journaled with messageToJnl("%.*s",
// len, buffer). statusToBuf notes (journal, output pointer, status) in the
// calling thread's list. Any rendering into a buffer forgets what was noted
// inside the range it overwrote (its text and terminator), so a buffer used
// again carries nothing of its earlier text, while pieces rendered into
// other buffers meanwhile (a description passed on as %s) leave the notes of
// the composed message alone. messageToJnl gives its entry the codes noted
// inside each QMChar string it consumed, in pointer order, and forgets those
// (codes of buffers still being composed, or kept to be journaled later, stay).
// None of this happens for a journal that keeps no entries: its renderings
// and entries never touch the list.

struct PendingCode {
  uint64_t journal;  // Journal::serial
  uintptr_t at;      // where the status text was rendered
  QMStatus code;
};

// Bounded so that a thread that renders but never journals cannot grow it.
constexpr size_t kMaxPending = 256;
thread_local std::vector<PendingCode> tPending;

// Forgets the notes inside out[0..written], which a rendering just overwrote.
void forgetOverwritten(uint64_t journal, const QMChar *out, size_t written) {
  if (tPending.empty()) return;
  const auto lo = reinterpret_cast<uintptr_t>(out);
  const uintptr_t hi = lo + written * sizeof(QMChar);
  std::erase_if(tPending, [&](const PendingCode &p) {
    return p.journal == journal && p.at >= lo && p.at <= hi;
  });
}

void notePending(uint64_t journal, const QMChar *out, QMStatus code) {
  if (tPending.size() >= kMaxPending) tPending.erase(tPending.begin());
  tPending.push_back({journal, reinterpret_cast<uintptr_t>(out), code});
}

std::vector<QMStatus> takePending(uint64_t journal, const std::vector<StringArg> &strings) {
  std::vector<QMStatus> codes;
  for (const StringArg &s : strings) {
    const auto lo = reinterpret_cast<uintptr_t>(s.text);
    const uintptr_t hi = lo + s.len * sizeof(QMChar);
    std::vector<PendingCode> inside;
    for (const PendingCode &p : tPending)
      if (p.journal == journal && p.at >= lo && p.at <= hi) inside.push_back(p);
    std::stable_sort(inside.begin(), inside.end(),
                     [](const PendingCode &a, const PendingCode &b) { return a.at < b.at; });
    for (const PendingCode &p : inside) codes.push_back(p.code);
  }
  // Only the codes the entry consumed are forgotten: a message composed
  // meanwhile in another buffer (and journaled later) keeps its own.
  std::erase_if(tPending, [&](const PendingCode &p) {
    if (p.journal != journal) return false;
    for (const StringArg &s : strings) {
      const auto lo = reinterpret_cast<uintptr_t>(s.text);
      if (p.at >= lo && p.at <= lo + s.len * sizeof(QMChar)) return true;
    }
    return false;
  });
  return codes;
}

// ---- rendering into callers' buffers ----------------------------------------

// What the two ...ToBuf entries share: argument checks, failure injection,
// the overflow rule. render fills the sink and returns a status.
template <class Render>
QMStatus renderToBuf(QMJnlh jh, QMChar *out, QMStrSize cap, QMStrSize *outlen,
                     Render &&render) noexcept {
  if (outlen != nullptr) *outlen = 0;
  if (jh == nullptr) return QM_E_BAD_ARGUMENT;
  Journal *j = asJournal(jh);
  if (j->host->fail.hit(QMHOST_FAIL_RENDER)) return QM_E_INJECTED_FAILURE;
  if (cap <= 0) return QM_E_BUFFER_TOO_SMALL;
  if (out == nullptr) return QM_E_BAD_ARGUMENT;
  TextSink sink(out, static_cast<size_t>(cap));
  QMStatus st = render(sink);
  if (st == 0 && sink.overflowed()) st = QM_E_BUFFER_TOO_SMALL;
  if (st != 0) {
    out[0] = 0;
  } else {
    sink.terminate();
    if (outlen != nullptr) *outlen = static_cast<QMStrSize>(sink.length());
  }
  if (j->keeps()) forgetOverwritten(j->serial.load(), out, st == 0 ? sink.length() : 0);
  return st;
}

QMStatus jnlMessageToBuf(QMJnlh jh, const QMChar *fmt, QMStrSize fmtlen, QMChar *out, QMStrSize cap,
                         QMStrSize *outlen, va_list args) noexcept {
  if (fmt == nullptr) return QM_E_BAD_ARGUMENT;
  return renderToBuf(jh, out, cap, outlen, [&](TextSink &sink) {
    va_list ap;
    va_copy(ap, args);
    const QMStatus st = formatText(fmt, fmtlen, &ap, sink, nullptr);
    va_end(ap);
    return st;
  });
}

QMStatus jnlStatusToBuf(QMJnlh jh, QMStatus status, QMChar *out, QMStrSize cap, QMStrSize *outlen,
                        va_list args) noexcept {
  const QMStatus st = renderToBuf(jh, out, cap, outlen, [&](TextSink &sink) {
    va_list ap;
    va_copy(ap, args);
    const QMStatus rc = formatStatus(status, &ap, sink, nullptr);
    va_end(ap);
    return rc;
  });
  if (st == 0 && asJournal(jh)->keeps()) {
    try {
      notePending(asJournal(jh)->serial.load(), out, status);
    } catch (const std::bad_alloc &) {
      // The text is rendered; only its code will be missing from the entry.
    }
  }
  return st;
}

// ---- entries ------------------------------------------------------------------

QMStatus jnlMessageToJnl(QMJnlh jh, QMSeverity sev, const QMChar *fmt, QMStrSize fmtlen,
                         va_list args) noexcept {
  if (jh == nullptr || fmt == nullptr) return QM_E_BAD_ARGUMENT;
  Journal *j = asJournal(jh);
  try {
    std::vector<QMChar> text;
    std::vector<StringArg> strings;
    TextSink sink(&text);
    va_list ap;
    va_copy(ap, args);
    const QMStatus st = formatText(fmt, fmtlen, &ap, sink, &strings);
    va_end(ap);
    std::vector<QMStatus> codes;
    if (j->keeps()) codes = takePending(j->serial.load(), strings);
    if (st != 0) return st;
    return j->record(sev, text, std::move(codes));
  } catch (const std::bad_alloc &) {
    return QM_E_NO_MEMORY;
  }
}

QMStatus jnlStatusToJnl(QMJnlh jh, QMSeverity sev, QMStatus status, va_list args) noexcept {
  if (jh == nullptr) return QM_E_BAD_ARGUMENT;
  try {
    std::vector<QMChar> text;
    TextSink sink(&text);
    va_list ap;
    va_copy(ap, args);
    const QMStatus st = formatStatus(status, &ap, sink, nullptr);
    va_end(ap);
    if (st != 0) return st;
    return asJournal(jh)->record(sev, text, {status});
  } catch (const std::bad_alloc &) {
    return QM_E_NO_MEMORY;
  }
}

QMStatus jnlGetLocale(QMJnlh jh, va_list args) noexcept {
  if (jh == nullptr) return QM_E_BAD_ARGUMENT;
  va_list ap;
  va_copy(ap, args);
  QMLocaleh *where = va_arg(ap, QMLocaleh *);
  va_end(ap);
  if (where == nullptr) return QM_E_BAD_ARGUMENT;
  *where = &asJournal(jh)->host->locale.pub;
  return 0;
}

// The host's own journal belongs to the host: callers cannot destroy it.
QMStatus jnlDestroy(void *object) noexcept {
  if (object == nullptr) return QM_E_BAD_ARGUMENT;
  Host *host = static_cast<Journal *>(object)->host;
  if (object == host->pub.qmjnl) return QM_E_BAD_ARGUMENT;
  std::unique_ptr<Journal> owned = host->journals.take(object);
  return owned ? 0 : QM_E_BAD_ARGUMENT;
}

const char *severityName(QMSeverity sev) {
  switch (sev) {
    case QMSeverityNull:
      return "NULL";
    case QMSeverityNone:
      return "NONE";
    case QMSeverityNote:
      return "NOTE";
    case QMSeverityWarning:
      return "WARNING";
    case QMSeverityError:
      return "ERROR";
  }
  return "UNKNOWN";
}

bool writeAll(int fd, const std::string &line) {
  size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

// A memory journal exists to be read: it keeps entries from the start.
Journal::Journal(Host *h, QMJnlKind k)
    : host(h),
      serial(nextJournalSerial.fetch_add(1)),
      kind(k),
      keep(k == QM_JNL_MEMORY ? QMHOST_JOURNAL_KEEP : 0) {
  pub.generic.oven = oven("jrnl");
  static char kName[] = "qm journal";
  pub.generic.name = kName;
  pub.generic.destroy = jnlDestroy;
  pub.messageToBuf = jnlMessageToBuf;
  pub.messageToJnl = jnlMessageToJnl;
  pub.statusToBuf = jnlStatusToBuf;
  pub.statusToJnl = jnlStatusToJnl;
  pub.getLocale = jnlGetLocale;
}

Journal::~Journal() {
  if (fd >= 0) ::close(fd);
}

QMStatus Journal::record(QMSeverity sev, const std::vector<QMChar> &text,
                         std::vector<QMStatus> codes) {
  JournalEntry e{sev, {}, std::move(codes)};
  e.text.reserve(text.size());
  for (QMChar c : text) appendUtf8(e.text, c);
  std::string line;
  if (kind != QM_JNL_MEMORY) line = std::string("qm[") + severityName(sev) + "] " + e.text + "\n";

  std::lock_guard<std::mutex> g(m);
  if (const size_t n = keep.load(std::memory_order_relaxed); n != 0) {
    while (entries.size() >= n) entries.pop_front();
    entries.push_back(std::move(e));
  }
  if (kind == QM_JNL_STDERR) return writeAll(STDERR_FILENO, line) ? 0 : QM_E_IO;
  if (kind == QM_JNL_FILE) return writeAll(fd, line) ? 0 : QM_E_IO;
  return 0;
}

QMJnlh makeJournal(Host *host, uint32_t kind, const char *path, QMStatus *status) noexcept {
  if (kind > QM_JNL_FILE || (kind == QM_JNL_FILE && path == nullptr)) {
    *status = QM_E_BAD_ARGUMENT;
    return nullptr;
  }
  try {
    auto j = std::make_unique<Journal>(host, static_cast<QMJnlKind>(kind));
    if (kind == QM_JNL_FILE) {
      // O_APPEND: lines of several journals (or processes) on one file stay whole.
      j->fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      if (j->fd < 0) {
        *status = QM_E_IO;
        return nullptr;
      }
    }
    Journal *raw = host->journals.add(std::move(j));
    if (raw != nullptr) return &raw->pub;
  } catch (const std::bad_alloc &) {
  }
  *status = QM_E_NO_MEMORY;
  return nullptr;
}

QMJnlh jnlCreate(QMHndlp h, const QMJnlCreateParms *parms, void * /*reserved1*/,
                 void * /*reserved2*/) noexcept {
  if (h == nullptr) return nullptr;
  Host *host = hostOf(h);
  if (host->fail.hit(QMHOST_FAIL_JNL_CREATE)) {
    setLastStatus(host, QM_E_INJECTED_FAILURE);
    return nullptr;
  }
  QMStatus st = 0;
  QMJnlh j = parms == nullptr ? makeJournal(host, QM_JNL_MEMORY, nullptr, &st)
                              : makeJournal(host, parms->kind, parms->path, &st);
  if (j == nullptr) setLastStatus(host, st);
  return j;
}

void journalDetail(QMJnlh jnl, QMStatus status, const std::string &detail) noexcept {
  if (jnl == nullptr) return;
  try {
    std::vector<QMChar> text;
    TextSink sink(&text);
    if (const char *t = catalogueText(status); t != nullptr) sink.putAscii(t);
    sink.put(' ');
    const auto *s = reinterpret_cast<const unsigned char *>(detail.data());
    for (size_t i = 0, n = detail.size(); i < n;) {
      const Utf8Char c = decodeUtf8(s + i, n - i);
      sink.put(c.result == Utf8Result::Ok ? c.cp : kReplacementChar);
      i += c.len;
    }
    (void)asJournal(jnl)->record(QMSeverityError, text, {status});
  } catch (const std::bad_alloc &) {
  }
}

// A variadic front for statusToJnl, which takes a va_list.
static QMStatus statusToJnlV(QMJnlh jnl, QMSeverity sev, QMStatus status, ...) noexcept {
  va_list ap;
  va_start(ap, status);
  const QMStatus st = jnlStatusToJnl(jnl, sev, status, ap);
  va_end(ap);
  return st;
}

void journalStatus(QMJnlh jnl, QMStatus status) noexcept {
  if (jnl != nullptr) (void)statusToJnlV(jnl, QMSeverityError, status);
}

}  // namespace qmhost

extern "C" {

QM_EXPORT QMJnlh qmhost_journal_create(QMHndlp h, QMJnlKind kind, const char *path) noexcept {
  if (h == nullptr) return nullptr;
  QMJnlCreateParms parms{};
  parms.kind = static_cast<uint32_t>(kind);
  parms.path = path;
  return h->jnlCreate(h, &parms, nullptr, nullptr);
}

QM_EXPORT QMStatus qmhost_journal_keep(QMJnlh jnl, size_t n) noexcept {
  if (jnl == nullptr) return QM_E_BAD_ARGUMENT;
  qmhost::Journal *j = qmhost::asJournal(jnl);
  if (n == 0 && j->kind == QM_JNL_MEMORY) return QM_E_BAD_ARGUMENT;
  std::lock_guard<std::mutex> g(j->m);
  if (n != 0 && !j->keeps()) {
    // Notes of the statuses rendered for this journal while it kept entries
    // before may linger in some thread's list, never forgotten since: a new
    // serial leaves them unmatched.
    j->serial.store(qmhost::nextJournalSerial.fetch_add(1));
  }
  j->keep.store(n);
  while (j->entries.size() > n) j->entries.pop_front();
  return 0;
}

QM_EXPORT size_t qmhost_journal_count(QMJnlh jnl) noexcept {
  if (jnl == nullptr) return 0;
  qmhost::Journal *j = qmhost::asJournal(jnl);
  std::lock_guard<std::mutex> g(j->m);
  return j->entries.size();
}

QM_EXPORT QMStatus qmhost_journal_entry(QMJnlh jnl, size_t i, QMHostJournalEntry *out) noexcept {
  if (jnl == nullptr || out == nullptr) return QM_E_BAD_ARGUMENT;
  qmhost::Journal *j = qmhost::asJournal(jnl);
  std::lock_guard<std::mutex> g(j->m);
  if (!j->keeps()) return QM_E_UNSUPPORTED_REQUEST;
  if (i >= j->entries.size()) return QM_E_BAD_ARGUMENT;
  // A deque never moves its elements when others are added or dropped at the
  // ends, so these pointers stay valid while the entry is kept.
  const qmhost::JournalEntry &e = j->entries[i];
  out->severity = e.severity;
  out->text = e.text.c_str();
  out->codes = e.codes.data();
  out->ncodes = e.codes.size();
  return 0;
}

QM_EXPORT void qmhost_journal_clear(QMJnlh jnl) noexcept {
  if (jnl == nullptr) return;
  qmhost::Journal *j = qmhost::asJournal(jnl);
  std::lock_guard<std::mutex> g(j->m);
  j->entries.clear();
}

}  // extern "C"
