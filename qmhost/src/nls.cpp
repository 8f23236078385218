/*
 * nls.cpp - the NLS services: four encodings (ISO-8859-1, UTF-8, UTF-16 and
 * UTF-32 in machine order), transcoding pipelines, size queries, encoding
 * attributes, and the host's default locale. One conversion loop decodes a
 * character of the source and encodes it in the target, so every route fails
 * the same way: QM_E_INVALID_SEQUENCE for malformed input, QM_E_UNMAPPABLE for
 * a character the target cannot hold (never a substitute), and
 * QM_E_BUFFER_TOO_SMALL. Pipelines are tracked by the host; no locks here
 * beyond the registry's.
 */
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "format.h"
#include "host_internal.h"
#include "utf.h"

namespace qmhost {

namespace {

enum class Enc { Latin1, Utf8, Utf16, Ucs4 };

// Maps a code (QM_CEI_OS meaning the host's OS encoding) to an encoding.
bool encodingOf(const Host *host, NLScei cei, Enc *enc, NLScei *resolved) {
  if (cei == QM_CEI_OS) cei = host->osEncoding;
  switch (cei) {
    case QM_CEI_ISO8859_1:
      *enc = Enc::Latin1;
      break;
    case QM_CEI_UTF8:
      *enc = Enc::Utf8;
      break;
    case QM_CEI_UTF16:
      *enc = Enc::Utf16;
      break;
    case U_L_UCS4_CE:
      *enc = Enc::Ucs4;
      break;
    default:
      return false;
  }
  if (resolved != nullptr) *resolved = cei;
  return true;
}

// Decodes one character from in[0..n), n > 0: 0 and *len bytes, or
// QM_E_INVALID_SEQUENCE. UTF-32 input is taken as it is (the target decides
// whether a value can be encoded).
QMStatus decodeOne(Enc enc, const unsigned char *in, size_t n, uint32_t *cp, size_t *len) {
  switch (enc) {
    case Enc::Latin1:
      *cp = in[0];
      *len = 1;
      return 0;
    case Enc::Utf8: {
      const Utf8Char c = decodeUtf8(in, n);
      if (c.result != Utf8Result::Ok) return QM_E_INVALID_SEQUENCE;
      *cp = c.cp;
      *len = c.len;
      return 0;
    }
    case Enc::Utf16: {
      if (n < 2) return QM_E_INVALID_SEQUENCE;
      uint16_t u;
      std::memcpy(&u, in, 2);
      if (u >= 0xDC00 && u <= 0xDFFF) return QM_E_INVALID_SEQUENCE;  // lone low surrogate
      if (u < 0xD800 || u > 0xDBFF) {
        *cp = u;
        *len = 2;
        return 0;
      }
      uint16_t lo;
      if (n < 4) return QM_E_INVALID_SEQUENCE;
      std::memcpy(&lo, in + 2, 2);
      if (lo < 0xDC00 || lo > 0xDFFF) return QM_E_INVALID_SEQUENCE;
      *cp = 0x10000 + ((static_cast<uint32_t>(u) - 0xD800) << 10) + (lo - 0xDC00u);
      *len = 4;
      return 0;
    }
    case Enc::Ucs4:
      if (n < 4) return QM_E_INVALID_SEQUENCE;
      std::memcpy(cp, in, 4);
      *len = 4;
      return 0;
  }
  return QM_E_INVALID_SEQUENCE;
}

// Encodes cp into out[0..4): 0 and *len bytes, or QM_E_UNMAPPABLE.
QMStatus encodeOne(Enc enc, uint32_t cp, unsigned char out[4], size_t *len) {
  switch (enc) {
    case Enc::Latin1:
      if (cp > 0xFF) return QM_E_UNMAPPABLE;
      out[0] = static_cast<unsigned char>(cp);
      *len = 1;
      return 0;
    case Enc::Utf8:
      if (!isScalar(cp)) return QM_E_UNMAPPABLE;
      *len = encodeUtf8(cp, out);
      return 0;
    case Enc::Utf16: {
      if (!isScalar(cp)) return QM_E_UNMAPPABLE;
      if (cp < 0x10000) {
        const auto u = static_cast<uint16_t>(cp);
        std::memcpy(out, &u, 2);
        *len = 2;
        return 0;
      }
      const auto hi = static_cast<uint16_t>(0xD800 + ((cp - 0x10000) >> 10));
      const auto lo = static_cast<uint16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
      std::memcpy(out, &hi, 2);
      std::memcpy(out + 2, &lo, 2);
      *len = 4;
      return 0;
    }
    case Enc::Ucs4:
      std::memcpy(out, &cp, 4);
      *len = 4;
      return 0;
  }
  return QM_E_UNMAPPABLE;
}

// The conversion loop. With out null it only counts. On failure the cursors
// stay at the character that could not be converted.
struct Cursor {
  const unsigned char *in;
  size_t inLeft;
  unsigned char *out;  // null: count only
  size_t outLeft;
  size_t produced = 0;
};

QMStatus convert(Enc from, Enc to, Cursor &c) {
  // ASCII from QMChar text into a byte encoding that keeps it as it is
  // (UTF-8, Latin-1) is one byte per character: no decoding, no encoding.
  // Names of files are mostly ASCII, and every lock request converts one.
  const bool asciiAsIs = from == Enc::Ucs4 && (to == Enc::Utf8 || to == Enc::Latin1);
  while (c.inLeft > 0) {
    if (asciiAsIs) {
      // The run of ASCII characters from here, copied in one pass. Whole
      // blocks of 8 are tested with one OR of their units (which the compiler
      // does several units at a time), the rest one by one.
      const size_t units = c.inLeft / 4;
      size_t run = 0;
      for (; run + 8 <= units; run += 8) {
        uint32_t any = 0;
        for (size_t k = 0; k < 8; ++k) {
          uint32_t unit;
          std::memcpy(&unit, c.in + 4 * (run + k), 4);
          any |= unit;
        }
        if (any >= 0x80) break;
      }
      for (; run < units; ++run) {
        uint32_t unit;
        std::memcpy(&unit, c.in + 4 * run, 4);
        if (unit >= 0x80) break;
      }
      if (c.out != nullptr) {
        const size_t fits = run < c.outLeft ? run : c.outLeft;
        for (size_t i = 0; i < fits; ++i) {
          uint32_t unit;
          std::memcpy(&unit, c.in + 4 * i, 4);
          c.out[i] = static_cast<unsigned char>(unit);
        }
        c.out += fits;
        c.outLeft -= fits;
        if (fits < run) {
          c.in += 4 * fits;
          c.inLeft -= 4 * fits;
          c.produced += fits;
          return QM_E_BUFFER_TOO_SMALL;
        }
      }
      c.in += 4 * run;
      c.inLeft -= 4 * run;
      c.produced += run;
      if (c.inLeft == 0) break;
    }
    uint32_t cp;
    size_t inLen, outLen;
    unsigned char buf[4];
    if (QMStatus st = decodeOne(from, c.in, c.inLeft, &cp, &inLen); st != 0) return st;
    if (QMStatus st = encodeOne(to, cp, buf, &outLen); st != 0) return st;
    if (c.out != nullptr) {
      if (outLen > c.outLeft) return QM_E_BUFFER_TOO_SMALL;
      std::memcpy(c.out, buf, outLen);
      c.out += outLen;
      c.outLeft -= outLen;
    }
    c.in += inLen;
    c.inLeft -= inLen;
    c.produced += outLen;
  }
  return 0;
}

struct Attributes {
  qmnls_encoding_method_t method;
  uint32_t minWidth, maxWidth, nulWidth;
};

Attributes attributesOf(Enc enc) {
  switch (enc) {
    case Enc::Latin1:
      return {QM_SBCS, 1, 1, 1};
    case Enc::Utf8:
      return {QM_UTF8, 1, 4, 1};
    case Enc::Utf16:
      return {QM_WCS_2byte, 2, 4, 2};
    case Enc::Ucs4:
      return {QM_WCS_4byte, 4, 4, 4};
  }
  return {QM_SBCS, 1, 1, 1};
}

Pipeline *asPipeline(QMNLSPipelineh p) {
  return reinterpret_cast<Pipeline *>(p);
}
Host *hostOfNls(QMNLSh nls) {
  return reinterpret_cast<Nls *>(nls)->host;
}

// Both encodings of a pipeline were checked when it was made.
struct Route {
  Enc from = Enc::Ucs4;
  Enc to = Enc::Ucs4;
};
Route routeOf(QMNLSPipelineh ph) {
  const Pipeline *p = asPipeline(ph);
  Route r;
  (void)encodingOf(p->host, p->pub.incei, &r.from, nullptr);
  (void)encodingOf(p->host, p->pub.outcei, &r.to, nullptr);
  return r;
}

// ---- pipelines ----------------------------------------------------------------

QMStatus pipeTranscode(QMNLSPipelineh ph, const void *in, QMMemSize inbytes, void *out,
                       QMMemSize outcap, QMMemSize *outbytes) noexcept {
  if (outbytes != nullptr) *outbytes = 0;
  if (ph == nullptr || (in == nullptr && inbytes > 0) || (out == nullptr && outcap > 0))
    return QM_E_BAD_ARGUMENT;
  const auto [from, to] = routeOf(ph);
  unsigned char none;  // a non-null target for an empty buffer, so the loop writes
  Cursor c{static_cast<const unsigned char *>(in), inbytes,
           out != nullptr ? static_cast<unsigned char *>(out) : &none, outcap};
  const QMStatus st = convert(from, to, c);
  if (st == 0 && outbytes != nullptr) *outbytes = c.produced;
  return st;
}

QMStatus pipeTranscodeStream(QMNLSPipelineh ph, const void **in, QMMemSize *inleft, void **out,
                             QMMemSize *outleft) noexcept {
  if (ph == nullptr || in == nullptr || inleft == nullptr || out == nullptr || outleft == nullptr ||
      (*in == nullptr && *inleft > 0) || (*out == nullptr && *outleft > 0))
    return QM_E_BAD_ARGUMENT;
  const auto [from, to] = routeOf(ph);
  unsigned char none;
  Cursor c{static_cast<const unsigned char *>(*in), *inleft,
           *out != nullptr ? static_cast<unsigned char *>(*out) : &none, *outleft};
  const QMStatus st = convert(from, to, c);
  *in = c.in;
  *inleft = c.inLeft;
  if (*out != nullptr) *out = c.out;
  *outleft = c.outLeft;
  return st;
}

// The block holds the text and a terminator of the target's width, which
// *outbytes does not count.
QMStatus pipeTranscodeWithPool(QMNLSPipelineh ph, const void *in, QMMemSize inbytes, QMPoolh pool,
                               void **out, QMMemSize *outbytes) noexcept {
  if (out != nullptr) *out = nullptr;
  if (outbytes != nullptr) *outbytes = 0;
  if (ph == nullptr || pool == nullptr || out == nullptr || (in == nullptr && inbytes > 0))
    return QM_E_BAD_ARGUMENT;
  const auto [from, to] = routeOf(ph);
  Cursor count{static_cast<const unsigned char *>(in), inbytes, nullptr, 0};
  if (QMStatus st = convert(from, to, count); st != 0) return st;
  const uint32_t nul = attributesOf(to).nulWidth;
  auto *block = static_cast<unsigned char *>(pool->memAlloc(pool, count.produced + nul, 0));
  if (block == nullptr) return QM_E_NO_MEMORY;
  Cursor c{static_cast<const unsigned char *>(in), inbytes, block, count.produced};
  if (QMStatus st = convert(from, to, c); st != 0) {
    (void)pool->memFree(pool, block);
    return st;
  }
  std::memset(block + count.produced, 0, nul);
  *out = block;
  if (outbytes != nullptr) *outbytes = count.produced;
  return 0;
}

QMStatus pipeDestroy(void *object) noexcept {
  if (object == nullptr) return QM_E_BAD_ARGUMENT;
  Host *host = static_cast<Pipeline *>(object)->host;
  return host->pipelines.take(object) ? 0 : QM_E_BAD_ARGUMENT;
}

QMNLSPipelineh makePipeline(QMNLSh nls, NLScei from, NLScei to, QMJnlh jnl) noexcept {
  if (nls == nullptr) return nullptr;
  Host *host = hostOfNls(nls);
  if (host->fail.hit(QMHOST_FAIL_PIPELINE_CREATE)) {
    setLastStatus(host, QM_E_INJECTED_FAILURE);
    return nullptr;
  }
  Enc e = Enc::Ucs4;
  NLScei inCei, outCei;
  if (!encodingOf(host, from, &e, &inCei) || !encodingOf(host, to, &e, &outCei)) {
    setLastStatus(host, QM_E_UNKNOWN_ENCODING);
    journalStatus(jnl, QM_E_UNKNOWN_ENCODING);
    return nullptr;
  }
  try {
    auto p = std::make_unique<Pipeline>();
    p->host = host;
    p->pub.generic.oven = oven("pipe");
    static char kName[] = "qm pipeline";
    p->pub.generic.name = kName;
    p->pub.generic.destroy = pipeDestroy;
    p->pub.qmnls = nls;
    p->pub.Transcode = pipeTranscode;
    p->pub.TranscodeStream = pipeTranscodeStream;
    p->pub.incei = inCei;
    p->pub.outcei = outCei;
    p->pub.TranscodeWithPool = pipeTranscodeWithPool;
    if (Pipeline *raw = host->pipelines.add(std::move(p)); raw != nullptr) return &raw->pub;
  } catch (const std::bad_alloc &) {
  }
  setLastStatus(host, QM_E_NO_MEMORY);
  return nullptr;
}

// ---- the NLS table ----------------------------------------------------------------

NLScei nlsOsEncoding(QMNLSh nls) noexcept {
  return nls != nullptr ? hostOfNls(nls)->osEncoding : QM_CEI_UTF8;
}

QMNLSPipelineh nlsFromQMChar(QMNLSh nls, NLScei to, uint32_t /*flags*/, QMJnlh jnl) noexcept {
  return makePipeline(nls, U_L_UCS4_CE, to, jnl);
}

QMNLSPipelineh nlsToQMChar(QMNLSh nls, NLScei from, uint32_t /*flags*/, QMJnlh jnl) noexcept {
  return makePipeline(nls, from, U_L_UCS4_CE, jnl);
}

QMStatus nlsConvertedSize(QMNLSh nls, NLScei from, NLScei to, const void *in, QMMemSize inbytes,
                          QMMemSize *outbytes) noexcept {
  if (outbytes != nullptr) *outbytes = 0;
  if (nls == nullptr || outbytes == nullptr || (in == nullptr && inbytes > 0))
    return QM_E_BAD_ARGUMENT;
  const Host *host = hostOfNls(nls);
  Enc f = Enc::Ucs4, t = Enc::Ucs4;
  if (!encodingOf(host, from, &f, nullptr) || !encodingOf(host, to, &t, nullptr))
    return QM_E_UNKNOWN_ENCODING;
  Cursor c{static_cast<const unsigned char *>(in), inbytes, nullptr, 0};
  const QMStatus st = convert(f, t, c);
  if (st == 0) *outbytes = c.produced;
  return st;
}

QMStatus nlsEncodingAttributes(QMNLSh nls, NLScei enc, QMNLS_ENCODING_ATTRIB *attrib) noexcept {
  if (nls == nullptr || attrib == nullptr) return QM_E_BAD_ARGUMENT;
  Enc e = Enc::Ucs4;
  if (!encodingOf(hostOfNls(nls), enc, &e, nullptr)) return QM_E_UNKNOWN_ENCODING;
  const Attributes a = attributesOf(e);
  *attrib = QMNLS_ENCODING_ATTRIB{0, a.method, a.minWidth, a.maxWidth, a.nulWidth, 0};
  return 0;
}

QMStatus nlsDefaultLocale(QMNLSh nls, QMLocaleh *locale) noexcept {
  if (nls == nullptr || locale == nullptr) return QM_E_BAD_ARGUMENT;
  *locale = &hostOfNls(nls)->locale.pub;
  return 0;
}

// ---- the locale ----------------------------------------------------------------------

// ISO-8601 local time with milliseconds: 2026-11-21T09:17:03.250.
QMStatus localeDatetimeFormat(QMLocaleh loc, double datetime, int selector, QMChar *out,
                              QMStrSize cap, QMStrSize *outlen) noexcept {
  if (outlen != nullptr) *outlen = 0;
  if (loc == nullptr || selector != QM_DATETIME_ISO8601 || !std::isfinite(datetime) ||
      std::fabs(datetime) > 1e15)
    return QM_E_BAD_ARGUMENT;
  if (cap <= 0) return QM_E_BUFFER_TOO_SMALL;
  if (out == nullptr) return QM_E_BAD_ARGUMENT;
  const long long ms = std::llround(datetime * 1000.0);
  long long secs = ms / 1000, milli = ms % 1000;
  if (milli < 0) {
    milli += 1000;
    --secs;
  }
  const auto t = static_cast<time_t>(secs);
  struct tm tm {};
  if (localtime_r(&t, &tm) == nullptr) return QM_E_BAD_ARGUMENT;
  char text[128];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03lld", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, milli);
  TextSink sink(out, static_cast<size_t>(cap));
  sink.putAscii(text);
  sink.terminate();
  if (sink.overflowed()) return QM_E_BUFFER_TOO_SMALL;
  if (outlen != nullptr) *outlen = static_cast<QMStrSize>(sink.length());
  return 0;
}

}  // namespace

void initNls(Host *host) noexcept {
  QMNLS &n = host->nls.pub;
  host->nls.host = host;
  n.generic.oven = oven("nls ");
  static char kNlsName[] = "qm nls";
  n.generic.name = kNlsName;
  n.generic.destroy = nullptr;  // part of the host
  n.osEncoding = nlsOsEncoding;
  n.pipelineFromQMChar = nlsFromQMChar;
  n.pipelineToQMChar = nlsToQMChar;
  n.convertedSize = nlsConvertedSize;
  n.encodingAttributes = nlsEncodingAttributes;
  n.defaultLocale = nlsDefaultLocale;

  QMLocale &l = host->locale.pub;
  host->locale.host = host;
  l.generic.oven = oven("locl");
  static char kLocaleName[] = "qm locale";
  l.generic.name = kLocaleName;
  l.generic.destroy = nullptr;  // part of the host
  l.datetimeFormat = localeDatetimeFormat;
}

}  // namespace qmhost

extern "C" {

QM_EXPORT size_t qmhost_from_utf8(const char *s, QMChar *out, size_t cap) noexcept {
  if (s == nullptr) return 0;
  const auto *p = reinterpret_cast<const unsigned char *>(s);
  const size_t n = std::strlen(s);
  size_t chars = 0;
  for (size_t i = 0; i < n; ++chars) {
    const qmhost::Utf8Char c = qmhost::decodeUtf8(p + i, n - i);
    if (out != nullptr && chars < cap)
      out[chars] = c.result == qmhost::Utf8Result::Ok ? c.cp : qmhost::kReplacementChar;
    i += c.len;
  }
  return chars;
}

QM_EXPORT size_t qmhost_to_utf8(const QMChar *s, size_t len, char *out, size_t cap) noexcept {
  if (s == nullptr) len = 0;
  size_t total = 0, written = 0;
  bool full = false;
  for (size_t i = 0; i < len; ++i) {
    unsigned char b[4];
    const size_t n =
        qmhost::encodeUtf8(qmhost::isScalar(s[i]) ? s[i] : qmhost::kReplacementChar, b);
    // Only whole characters are written, and one byte is kept for the NUL.
    if (!full && total + n < cap) {
      if (out != nullptr) std::memcpy(out + total, b, n);
      written = total + n;
    } else {
      full = true;
    }
    total += n;
  }
  if (out != nullptr && cap > 0) out[written] = '\0';
  return total;
}

}  // extern "C"
