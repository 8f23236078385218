// Classification and case mapping of one character, the same classes over a
// whole string, and the \u escape of a character that cannot be shown. Every
// answer comes from the generated tables (xvztbl.h); an invalid code point has
// no class and maps to itself. No allocation, no state.
#include "xvzint.h"

using namespace qmhostcm;

namespace {

constexpr unsigned kAlnum = tbl::kAlpha | tbl::kDigit;

QMBoolean is(QMChar c, unsigned mask) noexcept {
  return hasClass(c, mask) ? 1 : 0;
}

// 1 when str is not empty and every character has one of the mask's classes.
QMBoolean all(const QMChar *str, QMStrSize len, unsigned mask) noexcept {
  if (badString(str, len) || len == 0) return 0;
  for (QMStrSize i = 0; i < len; ++i)
    if (!hasClass(str[i], mask)) return 0;
  return 1;
}

}  // namespace

QMBoolean qmnlsisalpha(QMChar c) noexcept {
  return is(c, tbl::kAlpha);
}
QMBoolean qmnlsisdigit(QMChar c) noexcept {
  return is(c, tbl::kDigit);
}
QMBoolean qmnlsisalnum(QMChar c) noexcept {
  return is(c, kAlnum);
}
QMBoolean qmnlsisspace(QMChar c) noexcept {
  return is(c, tbl::kSpace);
}
QMBoolean qmnlsisupper(QMChar c) noexcept {
  return is(c, tbl::kUpper);
}
QMBoolean qmnlsislower(QMChar c) noexcept {
  return is(c, tbl::kLower);
}
QMBoolean qmnlsisprint(QMChar c) noexcept {
  return is(c, tbl::kPrint);
}
QMBoolean qmnlsiscntrl(QMChar c) noexcept {
  return is(c, tbl::kCntrl);
}
QMBoolean qmnlsispunct(QMChar c) noexcept {
  return is(c, tbl::kPunct);
}
QMBoolean qmnlsisvalid(QMChar c) noexcept {
  return isScalar(c) ? 1 : 0;
}

QMChar qmnlstolower(QMChar c) noexcept {
  return toLower(c);
}
QMChar qmnlstoupper(QMChar c) noexcept {
  return toUpper(c);
}
QMChar qmnlstofold(QMChar c) noexcept {
  return toFold(c);
}

QMBoolean NLSIsAlpha(const QMChar *str, QMStrSize len) noexcept {
  return all(str, len, tbl::kAlpha);
}
QMBoolean NLSIsDigit(const QMChar *str, QMStrSize len) noexcept {
  return all(str, len, tbl::kDigit);
}
QMBoolean NLSIsAlnum(const QMChar *str, QMStrSize len) noexcept {
  return all(str, len, kAlnum);
}
QMBoolean NLSIsSpace(const QMChar *str, QMStrSize len) noexcept {
  return all(str, len, tbl::kSpace);
}
QMBoolean NLSIsUpper(const QMChar *str, QMStrSize len) noexcept {
  return all(str, len, tbl::kUpper);
}
QMBoolean NLSIsLower(const QMChar *str, QMStrSize len) noexcept {
  return all(str, len, tbl::kLower);
}
QMBoolean NLSIsPrint(const QMChar *str, QMStrSize len) noexcept {
  return all(str, len, tbl::kPrint);
}

QMBoolean NLSIsValid(const QMChar *str, QMStrSize len) noexcept {
  if (badString(str, len)) return 0;
  for (QMStrSize i = 0; i < len; ++i)
    if (!isScalar(str[i])) return 0;
  return 1;
}

QMMemSize putUESC(QMChar c, char *out, QMMemSize cap) noexcept {
  const bool wide = c > 0xFFFFu;
  const unsigned digits = wide ? 8 : 4;
  if (out == nullptr) return 0;
  if (cap < digits + 3) {
    if (cap > 0) out[0] = '\0';
    return 0;
  }
  static constexpr char kHex[] = "0123456789ABCDEF";
  out[0] = '\\';
  out[1] = wide ? 'U' : 'u';
  for (unsigned i = 0; i < digits; ++i) out[2 + i] = kHex[(c >> (4 * (digits - 1 - i))) & 0xFu];
  out[digits + 2] = '\0';
  return digits + 2;
}
