/*
 * format.h - the host's one text formatter and its message catalogue.
 *
 * Every rendering of the host (journal messages, catalogue texts, datetimes)
 * writes through a TextSink: bounded over a caller's QMChar buffer (never a
 * character past cap, one place kept for the terminator) or growable over a
 * vector. No locks; a growable sink may throw std::bad_alloc.
 */
#ifndef QMHOST_FORMAT_H
#define QMHOST_FORMAT_H

#include <cstdarg>
#include <cstddef>
#include <vector>

#include "qmtypes.h"

namespace qmhost {

class TextSink {
 public:
  // Bounded: at most cap - 1 characters reach out.
  TextSink(QMChar *out, size_t cap) : out_(out), cap_(cap) {}
  // Growable: characters are appended to *grow.
  explicit TextSink(std::vector<QMChar> *grow) : grow_(grow) {}

  void put(QMChar c) {
    if (grow_ != nullptr) {
      grow_->push_back(c);
    } else if (len_ + 1 < cap_) {
      out_[len_] = c;
    } else {
      overflow_ = true;
    }
    ++len_;
  }
  void putAscii(const char *s) {
    while (*s != '\0') put(static_cast<unsigned char>(*s++));
  }
  // Bounded sink: terminates the text, or empties it after an overflow.
  void terminate() {
    if (grow_ == nullptr && cap_ > 0) out_[overflow_ ? 0 : len_] = 0;
  }
  bool overflowed() const { return overflow_; }
  size_t length() const { return len_; }

 private:
  QMChar *out_ = nullptr;
  size_t cap_ = 0;
  std::vector<QMChar> *grow_ = nullptr;
  size_t len_ = 0;
  bool overflow_ = false;
};

// A QMChar string argument that a format consumed through %s or %.*s.
struct StringArg {
  const QMChar *text;
  size_t len;  // the length given to %.*s, or the length up to the terminator
};

// Renders fmt (fmtlen QMChars, or up to a 0 when fmtlen < 0) with the
// arguments of *ap into sink. Each QMChar string consumed is appended to
// strings when it is not null. 0 or QM_E_BAD_FORMAT.
QMStatus formatText(const QMChar *fmt, QMStrSize fmtlen, va_list *ap, TextSink &sink,
                    std::vector<StringArg> *strings);

// Renders the catalogue text of status with the arguments of *ap, or
// "Status 0x%08x." for a code the catalogue does not know.
QMStatus formatStatus(QMStatus status, va_list *ap, TextSink &sink,
                      std::vector<StringArg> *strings);

// The English text of status, or null when the catalogue does not know it.
const char *catalogueText(QMStatus status) noexcept;

}  // namespace qmhost

#endif  // QMHOST_FORMAT_H
