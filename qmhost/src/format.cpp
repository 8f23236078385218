/*
 * format.cpp - the printf-style formatter over QMChar and the message
 * catalogue. One formatter renders both callers' QMChar formats and the
 * catalogue's narrow texts (a template over the format's character type).
 * No locks, no allocation except what a growable sink does.
 */
#include "format.h"

#include <cstdint>
#include <type_traits>

#include "qmelmmsg.h"
#include "qmhost/qmhost_testing.h"

namespace qmhost {

namespace {

// Catalogue texts are used directly as formats, one char per QMChar.
constexpr bool isAscii(const char *s) {
  for (; *s != '\0'; ++s)
    if (static_cast<unsigned char>(*s) > 0x7F) return false;
  return true;
}
#define QM_X_ASCII(name, code, text) \
  static_assert(isAscii(text), "catalogue text of " #name " is not ASCII");
QM_HOST_STATUS_LIST(QM_X_ASCII)
QMHOST_TESTING_STATUS_LIST(QM_X_ASCII)
QMELM_STATUS_LIST(QM_X_ASCII)
#undef QM_X_ASCII

// A width beyond this is a broken format, not a wish for megabytes of padding.
constexpr unsigned kMaxWidth = 4096;

struct Layout {
  bool leftAlign = false;
  bool zeroPad = false;
  unsigned width = 0;
};

void pad(TextSink &sink, unsigned n, QMChar c) {
  for (; n > 0; --n) sink.put(c);
}

// Writes an integer: magnitude in base 10 or 16, with sign and padding.
void putNumber(TextSink &sink, const Layout &layout, bool negative, unsigned long long mag,
               unsigned base, bool upper) {
  char digits[24];
  unsigned n = 0;
  const char *set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  do {
    digits[n++] = set[mag % base];
    mag /= base;
  } while (mag != 0);
  const unsigned len = n + (negative ? 1u : 0u);
  const unsigned fill = layout.width > len ? layout.width - len : 0;
  if (!layout.leftAlign && !layout.zeroPad) pad(sink, fill, ' ');
  if (negative) sink.put('-');
  if (!layout.leftAlign && layout.zeroPad) pad(sink, fill, '0');
  while (n > 0) sink.put(static_cast<unsigned char>(digits[--n]));
  if (layout.leftAlign) pad(sink, fill, ' ');
}

void putString(TextSink &sink, const Layout &layout, const QMChar *s, size_t len) {
  const unsigned fill = layout.width > len ? static_cast<unsigned>(layout.width - len) : 0;
  if (!layout.leftAlign) pad(sink, fill, ' ');
  for (size_t i = 0; i < len; ++i) sink.put(s[i]);
  if (layout.leftAlign) pad(sink, fill, ' ');
}

size_t lengthUpTo(const QMChar *s, size_t max) {
  size_t n = 0;
  while (n < max && s[n] != 0) ++n;
  return n;
}

// The formatter. Ch is char (catalogue texts) or QMChar (callers' formats).
// A 0 character ends the format even before fmtlen.
template <class Ch>
QMStatus render(const Ch *fmt, size_t fmtlen, va_list *ap, TextSink &sink,
                std::vector<StringArg> *strings) {
  auto at = [&](size_t i) -> QMChar {
    return i < fmtlen ? static_cast<QMChar>(static_cast<std::make_unsigned_t<Ch>>(fmt[i])) : 0;
  };
  for (size_t i = 0; i < fmtlen && at(i) != 0; ++i) {
    const QMChar c = at(i);
    if (c != '%') {
      sink.put(c);
      continue;
    }
    ++i;
    Layout layout;
    for (;; ++i) {
      if (at(i) == '-')
        layout.leftAlign = true;
      else if (at(i) == '0')
        layout.zeroPad = true;
      else
        break;
    }
    for (; at(i) >= '0' && at(i) <= '9'; ++i) {
      layout.width = layout.width * 10 + (at(i) - '0');
      if (layout.width > kMaxWidth) return QM_E_BAD_FORMAT;
    }
    bool hasPrecision = false;
    long precision = -1;
    if (at(i) == '.') {
      ++i;
      hasPrecision = true;
      if (at(i) == '*') {
        precision = va_arg(*ap, int);
        ++i;
      } else {
        precision = 0;
        for (; at(i) >= '0' && at(i) <= '9'; ++i) {
          precision = precision * 10 + static_cast<long>(at(i) - '0');
          if (precision > (1L << 30)) return QM_E_BAD_FORMAT;
        }
      }
    }
    int longs = 0;
    for (; at(i) == 'l' && longs < 2; ++i) ++longs;
    const QMChar conv = at(i);
    if (hasPrecision && conv != 's') return QM_E_BAD_FORMAT;
    switch (conv) {
      case '%':
        if (longs != 0) return QM_E_BAD_FORMAT;
        sink.put('%');
        break;
      case 'c': {
        if (longs != 0) return QM_E_BAD_FORMAT;
        const QMChar ch = static_cast<QMChar>(va_arg(*ap, int));
        putString(sink, layout, &ch, 1);
        break;
      }
      case 's': {
        if (longs != 0) return QM_E_BAD_FORMAT;
        const QMChar *s = va_arg(*ap, const QMChar *);
        if (s == nullptr) {
          static const QMChar kNull[] = {'(', 'n', 'u', 'l', 'l', ')'};
          putString(sink, layout, kNull, 6);
          break;
        }
        // A negative precision counts as none, as in C.
        const size_t limit = precision >= 0 ? static_cast<size_t>(precision) : SIZE_MAX;
        const size_t len = lengthUpTo(s, limit);
        if (strings != nullptr) strings->push_back({s, precision >= 0 ? limit : len});
        putString(sink, layout, s, len);
        break;
      }
      case 'd':
      case 'i': {
        long long v = longs == 0   ? va_arg(*ap, int)
                      : longs == 1 ? va_arg(*ap, long)
                                   : va_arg(*ap, long long);
        const unsigned long long mag =
            v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
        putNumber(sink, layout, v < 0, mag, 10, false);
        break;
      }
      case 'u':
      case 'x':
      case 'X': {
        unsigned long long v = longs == 0   ? va_arg(*ap, unsigned)
                               : longs == 1 ? va_arg(*ap, unsigned long)
                                            : va_arg(*ap, unsigned long long);
        putNumber(sink, layout, false, v, conv == 'u' ? 10 : 16, conv == 'X');
        break;
      }
      default:
        return QM_E_BAD_FORMAT;  // unknown conversion, or a '%' at the end
    }
  }
  return 0;
}

}  // namespace

QMStatus formatText(const QMChar *fmt, QMStrSize fmtlen, va_list *ap, TextSink &sink,
                    std::vector<StringArg> *strings) {
  const size_t n = fmtlen < 0 ? SIZE_MAX : static_cast<size_t>(fmtlen);
  return render(fmt, n, ap, sink, strings);
}

QMStatus formatStatus(QMStatus status, va_list *ap, TextSink &sink,
                      std::vector<StringArg> *strings) {
  const char *text = catalogueText(status);
  if (text != nullptr) return render(text, SIZE_MAX, ap, sink, strings);
  sink.putAscii("Status 0x");
  putNumber(sink, Layout{false, true, 8}, false, static_cast<uint32_t>(status), 16, false);
  sink.put('.');
  return 0;
}

const char *catalogueText(QMStatus status) noexcept {
  // A switch rather than a table: two lists giving one code twice do not
  // compile. The test instruments' status is the host's own too: its text
  // is rendered like any other.
  switch (static_cast<uint32_t>(status)) {
#define QM_X_CASE(name, code, text) \
  case code:                        \
    return text;
    QM_HOST_STATUS_LIST(QM_X_CASE)
    QMHOST_TESTING_STATUS_LIST(QM_X_CASE)
    QMELM_STATUS_LIST(QM_X_CASE)
#undef QM_X_CASE
    default:
      return nullptr;
  }
}

}  // namespace qmhost
