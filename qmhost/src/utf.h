/*
 * utf.h - the host's UTF-8 codec, shared by the NLS pipelines, the journals
 * (entry texts are UTF-8), the loader (extension names) and the text helpers.
 * Pure functions: no allocation, no locks. Decoding is strict (no overlong
 * forms, no encoded surrogates, nothing above U+10FFFF).
 */
#ifndef QMHOST_UTF_H
#define QMHOST_UTF_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace qmhost {

inline constexpr uint32_t kReplacementChar = 0xFFFD;

// A Unicode scalar value: what UTF-8 and UTF-16 can carry.
constexpr bool isScalar(uint32_t c) {
  return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

enum class Utf8Result { Ok, Invalid, Truncated };

struct Utf8Char {
  Utf8Result result;
  uint32_t cp;  // the character when result is Ok
  size_t len;   // bytes consumed (Ok), or the bytes of the maximal invalid
                // prefix to skip (Invalid, Truncated); never 0 when n > 0
};

// Decodes the character that starts s[0..n), n > 0.
inline Utf8Char decodeUtf8(const unsigned char *s, size_t n) {
  const unsigned char b0 = s[0];
  if (b0 < 0x80) return {Utf8Result::Ok, b0, 1};
  size_t need;
  unsigned char lo = 0x80, hi = 0xBF;  // range of the second byte
  uint32_t cp;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 1;
    cp = b0 & 0x1Fu;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    need = 2;
    cp = b0 & 0x0Fu;
    if (b0 == 0xE0) lo = 0xA0;  // no overlong forms
    if (b0 == 0xED) hi = 0x9F;  // no surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    need = 3;
    cp = b0 & 0x07u;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    return {Utf8Result::Invalid, 0, 1};
  }
  for (size_t i = 1; i <= need; ++i) {
    if (i >= n) return {Utf8Result::Truncated, 0, i};
    const unsigned char b = s[i];
    const unsigned char min = i == 1 ? lo : 0x80, max = i == 1 ? hi : 0xBF;
    if (b < min || b > max) return {Utf8Result::Invalid, 0, i};
    cp = (cp << 6) | (b & 0x3Fu);
  }
  return {Utf8Result::Ok, cp, need + 1};
}

// Encodes scalar value cp into out; returns the bytes written (1 to 4).
inline size_t encodeUtf8(uint32_t cp, unsigned char out[4]) {
  if (cp < 0x80) {
    out[0] = static_cast<unsigned char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<unsigned char>(0xC0 | (cp >> 6));
    out[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<unsigned char>(0xE0 | (cp >> 12));
    out[1] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
  out[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
  out[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
  out[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
  return 4;
}

// Appends c to s as UTF-8; a value that is not a scalar becomes U+FFFD, so
// journal texts are always valid UTF-8. May throw std::bad_alloc.
inline void appendUtf8(std::string &s, uint32_t c) {
  unsigned char b[4];
  const size_t n = encodeUtf8(isScalar(c) ? c : kReplacementChar, b);
  s.append(reinterpret_cast<const char *>(b), n);
}

}  // namespace qmhost

#endif  // QMHOST_UTF_H
