// Conversion between QMChar text and narrow text: the compiler's character
// set (the encoding of string literals, UTF-8 on this platform) and 7-bit
// ASCII, strict or with \u escapes. Decoding is strict: what is not valid
// UTF-8 is refused with a status, never replaced, so a name is never silently
// changed. Narrow output is written whole characters at a time, terminated,
// and its full length is counted so the caller can size a second attempt.
#include <cstring>

#include "xvzint.h"

using qmhostcm::badString;
using qmhostcm::isScalar;

static_assert(sizeof("\u00E9") == 3 && "\u00E9"[0] == '\xC3' && "\u00E9"[1] == '\xA9',
              "Compiler2QMChar and QMChar2Compiler assume UTF-8 narrow string literals");

namespace {

// Longest narrow form of one character: "\UXXXXXXXX" and its zero.
constexpr size_t kMaxNarrow = 11;

// Decodes the character at in[0..n), n > 0, into c; returns its length in
// bytes, or 0 when the bytes there do not begin a valid character.
size_t decodeUtf8(const unsigned char *in, size_t n, QMChar &c) noexcept {
  const unsigned char lead = in[0];
  size_t len;
  QMChar least;  // the smallest value of this length: shorter forms are overlong
  if (lead < 0x80) {
    c = lead;
    return 1;
  } else if ((lead & 0xE0u) == 0xC0u) {
    len = 2, least = 0x80, c = lead & 0x1Fu;
  } else if ((lead & 0xF0u) == 0xE0u) {
    len = 3, least = 0x800, c = lead & 0x0Fu;
  } else if ((lead & 0xF8u) == 0xF0u) {
    len = 4, least = 0x10000, c = lead & 0x07u;
  } else {
    return 0;
  }
  if (n < len) return 0;
  for (size_t k = 1; k < len; ++k) {
    if ((in[k] & 0xC0u) != 0x80u) return 0;
    c = (c << 6) | (in[k] & 0x3Fu);
  }
  return c >= least && isScalar(c) ? len : 0;
}

// Each encoder writes the narrow form of c into out (kMaxNarrow bytes) and
// returns its length, or 0 when c has none.
size_t encodeUtf8(QMChar c, char *out) noexcept {
  if (!isScalar(c)) return 0;
  if (c < 0x80) {
    out[0] = static_cast<char>(c);
    return 1;
  }
  const size_t len = c < 0x800 ? 2 : (c < 0x10000 ? 3 : 4);
  static constexpr unsigned char kLead[] = {0, 0, 0xC0, 0xE0, 0xF0};
  for (size_t k = len - 1; k > 0; --k, c >>= 6) out[k] = static_cast<char>(0x80u | (c & 0x3Fu));
  out[0] = static_cast<char>(kLead[len] | c);
  return len;
}

size_t encodeAsciiStrict(QMChar c, char *out) noexcept {
  if (c >= 0x80) return 0;
  out[0] = static_cast<char>(c);
  return 1;
}

size_t encodeAsciiEscaped(QMChar c, char *out) noexcept {
  if (c >= 0x20 && c <= 0x7E && c != '\\') return encodeAsciiStrict(c, out);
  return putUESC(c, out, kMaxNarrow);
}

// Writes the narrow forms of in with encode: whole characters while they and
// the terminating zero fit, then only counts.
QMStatus writeNarrow(const QMChar *in, QMStrSize len, char *out, QMMemSize cap, QMMemSize *outlen,
                     size_t (*encode)(QMChar, char *)) noexcept {
  if (outlen == nullptr || badString(in, len) || (out == nullptr && cap > 0))
    return QM_E_BAD_ARGUMENT;
  QMMemSize need = 0, written = 0;
  bool whole = true;  // every character so far was written
  QMStatus rc = 0;
  for (QMStrSize i = 0; i < len; ++i) {
    char form[kMaxNarrow];
    const size_t n = encode(in[i], form);
    if (n == 0) {
      rc = QM_E_UNMAPPABLE;
      break;
    }
    need += n;
    if (whole && cap > written && cap - written > n) {
      std::memcpy(out + written, form, n);
      written += n;
    } else {
      whole = false;
    }
  }
  if (cap > 0) out[written] = '\0';
  *outlen = need;
  if (rc != 0) return rc;
  return whole && written < cap ? 0 : QM_E_BUFFER_TOO_SMALL;
}

}  // namespace

QMStatus Compiler2QMChar(const char *in, QMMemSize inlen, QMChar *out, QMStrSize cap,
                         QMStrSize *outlen) noexcept {
  if (outlen == nullptr || (in == nullptr && inlen > 0) || badString(out, cap))
    return QM_E_BAD_ARGUMENT;
  const auto *bytes = reinterpret_cast<const unsigned char *>(in);
  QMStrSize count = 0;
  for (QMMemSize i = 0; i < inlen; ++count) {
    QMChar c = 0;
    const size_t n = decodeUtf8(bytes + i, inlen - i, c);
    if (n == 0) {
      *outlen = count;
      return QM_E_INVALID_SEQUENCE;
    }
    if (count < cap) out[count] = c;
    i += n;
  }
  *outlen = count;
  return count <= cap ? 0 : QM_E_BUFFER_TOO_SMALL;
}

QMStatus QMChar2Compiler(const QMChar *in, QMStrSize len, char *out, QMMemSize cap,
                         QMMemSize *outlen) noexcept {
  return writeNarrow(in, len, out, cap, outlen, encodeUtf8);
}

QMStatus QMChar2ASCII(const QMChar *in, QMStrSize len, char *out, QMMemSize cap, QMMemSize *outlen,
                      QMASCIIMode mode) noexcept {
  switch (mode) {
    case QM_ASCII_STRICT:
      return writeNarrow(in, len, out, cap, outlen, encodeAsciiStrict);
    case QM_ASCII_ESCAPE:
      return writeNarrow(in, len, out, cap, outlen, encodeAsciiEscaped);
  }
  return QM_E_BAD_ARGUMENT;
}
