// xvzint.h - the rules every unit of the character utilities applies to its
// arguments (which counted strings are refused, which code points are Unicode
// scalar values) and the lookups of one character in the generated tables.
// Header only, no state.
#ifndef XVZINT_H
#define XVZINT_H

#include "qmhostcm.h"
#include "xvztbl.h"

namespace qmhostcm {

// A counted string no function reads: a negative length, or characters
// claimed behind a null pointer.
inline bool badString(const void *s, QMStrSize len) noexcept {
  return len < 0 || (s == nullptr && len != 0);
}

// What UTF-8 can carry: not a surrogate, not above U+10FFFF.
constexpr bool isScalar(QMChar c) noexcept {
  return c < 0xD800u || (c > 0xDFFFu && c <= 0x10FFFFu);
}

// Class and simple mappings of one character. An invalid code point has
// record 0: no class, all deltas 0.
inline bool hasClass(QMChar c, unsigned mask) noexcept {
  return (tbl::record(c).flags & mask) != 0;
}
inline QMChar shifted(QMChar c, int32_t delta) noexcept {
  return static_cast<QMChar>(static_cast<int64_t>(c) + delta);
}
inline QMChar toLower(QMChar c) noexcept {
  return shifted(c, tbl::record(c).lower);
}
inline QMChar toUpper(QMChar c) noexcept {
  return shifted(c, tbl::record(c).upper);
}
inline QMChar toFold(QMChar c) noexcept {
  return shifted(c, tbl::record(c).fold);
}

}  // namespace qmhostcm

#endif  // XVZINT_H
