/*
 * xvelmIOReport - the I/O report: a header, then six messages per record, to
 * the caller's journal. Reads the list and the records with no mutex (a
 * reading section keeps them from being freed under it), so that a journal
 * that blocks holds up no other request. Allocates nothing; returns the
 * status of the last message, or QMELM_E_NO_JOURNAL / null parameters.
 */
#include <fcntl.h>

#include <algorithm>
#include <cstdint>

#include "frame/xvelm.h"
#include "host/xvelmJournal.h"
#include "host/xvelmQMChar.h"
#include "iostats/xvelmIOReaders.h"

using namespace xvelm::detail;

namespace {

constexpr QMStrSize kFlagsChars = 1024;
constexpr QMStrSize kTimeChars = 256;
constexpr QMLiteral kRemainsOpen("File remains open");

// The open flags the report names, in the order it names them.
constexpr struct {
  uint32_t bit;
  const char *text;
} kFlagNames[] = {{O_WRONLY, " O_WRONLY | "}, {O_RDWR, " O_RDWR | "},   {O_CREAT, " O_CREAT | "},
                  {O_EXCL, " O_EXCL | "},     {O_TRUNC, " O_TRUNC | "}, {O_APPEND, " O_APPEND | "}};

// Appends an ASCII piece without its NUL to the zero-filled text (its room
// holds every piece together several times over).
void appendPiece(QMChar *text, QMStrSize &len, const char *piece) {
  for (; *piece != '\0'; ++piece) text[len++] = static_cast<unsigned char>(*piece);
}

// The flags as text: " O_RDONLY | " for the word 0 alone, then a piece per
// named flag that is set. The trailing " | " stays, as it always has, and a
// read-only word with other flags (O_CREAT, say) shows no " O_RDONLY | ".
void flagsText(uint32_t flags, QMChar (&text)[kFlagsChars]) {
  QMStrSize len = 0;
  if (flags == 0) appendPiece(text, len, " O_RDONLY | ");
  for (const auto &f : kFlagNames)
    if ((flags & f.bit) != 0) appendPiece(text, len, f.text);
}

// The locale the times are written in: the caller's, or the host's default,
// which is then left in the caller's parameters for later reports.
QMLocaleh reportLocale(const QMELMExtension *ext, QMELMJnlIOInfoParms *parms) {
  if (parms->locale == nullptr) {
    QMNLSh nls = ext->Common.hndl->qmnls;
    if (nls != nullptr) (void)nls->defaultLocale(nls, &parms->locale);
  }
  return parms->locale;
}

// A host datetime as the locale writes it; empty when it cannot.
void timeText(QMLocaleh locale, double t, QMChar (&text)[kTimeChars]) {
  QMStrSize len = 0;
  if (locale == nullptr ||
      locale->datetimeFormat(locale, t, QM_DATETIME_ISO8601, text, kTimeChars, &len) != 0)
    text[0] = 0;
}

// The six messages of one record; returns the status of the last.
QMStatus reportRecord(const QMELMExtension *ext, QMELMJnlIOInfoParms *parms, const QMELMIOInfo &r,
                      QMJnlh jnl) {
  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_FILE, r.Name);

  const uint32_t flags = peek(r.OpenFlags);
  QMChar flagText[kFlagsChars] = {};
  flagsText(flags, flagText);
  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_FLAGS, static_cast<unsigned>(flags),
                       flagText);

  const QMLocaleh locale = reportLocale(ext, parms);
  QMChar opened[kTimeChars] = {};
  QMChar closed[kTimeChars] = {};
  timeText(locale, peek(r.openTime), opened);
  if (const double closeTime = peek(r.closeTime); closeTime == -1.0)
    std::copy_n(kRemainsOpen.data(), kRemainsOpen.size(), closed);
  else
    timeText(locale, closeTime, closed);
  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_TIMES, opened, closed);

  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_READS,
                       static_cast<long long>(peek(r.numReads)),
                       static_cast<long long>(peek(r.numBytesRead)));
  (void)qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_WRITES,
                       static_cast<long long>(peek(r.numWrites)),
                       static_cast<long long>(peek(r.numBytesWritten)));
  return qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_SEEKS,
                        static_cast<long long>(peek(r.numSeeks)));
}

}  // namespace

// Reads the list and the records with no mutex, so that it runs even while
// other threads hold them; its reading section only keeps records from
// being freed under it.
int xvelmJnlIOInfo(QMELMExtensionp ext, QMELMJnlIOInfoParms *parms, QMJnlh jnl) noexcept {
  if (jnl == nullptr) return QMELM_E_NO_JOURNAL;
  if (ext == nullptr) return journaled(jnl, QMELM_E_NULL_EXTENSION);
  if (parms == nullptr) return journaled(jnl, QMELM_E_NULL_PARMS);
  ReadingSection reading;
  const QMMemSize count = peek(ext->numIOInfo);
  QMStatus rc = qmlStatusToJnl(jnl, QMSeverityNote, QMELM_M_IOINFO_HEADER,
                               static_cast<unsigned long long>(count));
  QMMemSize visited = 0;
  for (QMELMIOInfop r = count != 0 ? follow(ext->IOInfo) : nullptr; r != nullptr && visited < count;
       r = follow(r->next), ++visited)
    rc = reportRecord(ext, parms, *r, jnl);
  return rc;
}
