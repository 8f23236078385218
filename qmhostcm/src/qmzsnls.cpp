// Comparison and case mapping of counted QMChar strings, beyond the exact
// equality of qmzscmp.cpp: normalised equality, blank stripping, in-place
// case mapping, bounded ordering and the extreme code points of a string.
// No allocation; an invalid string is answered as each function documents.
#include <algorithm>

#include "xvzint.h"

using qmhostcm::badString;

namespace {

// str without its leading and trailing blanks; len >= 0, str valid.
const QMChar *stripBlanks(const QMChar *str, QMStrSize &len) noexcept {
  QMStrSize first = 0, end = len;
  while (first < end && qmhostcm::hasClass(str[first], qmhostcm::tbl::kSpace)) ++first;
  while (end > first && qmhostcm::hasClass(str[end - 1], qmhostcm::tbl::kSpace)) --end;
  len = end - first;
  return str == nullptr ? nullptr : str + first;
}

template <QMChar (*Map)(QMChar)>
QMStatus mapInPlace(QMChar *str, QMStrSize len) noexcept {
  if (badString(str, len)) return QM_E_BAD_ARGUMENT;
  for (QMStrSize i = 0; i < len; ++i) str[i] = Map(str[i]);
  return 0;
}

// The first n characters of str, or none when str is invalid.
QMStrSize cut(const QMChar *str, QMStrSize len, QMStrSize n) noexcept {
  if (badString(str, len) || n <= 0) return 0;
  return std::min(len, n);
}

template <typename Better>
QMChar extreme(const QMChar *str, QMStrSize len, Better better) noexcept {
  if (badString(str, len) || len == 0) return 0;
  QMChar best = str[0];
  for (QMStrSize i = 1; i < len; ++i)
    if (better(str[i], best)) best = str[i];
  return best;
}

}  // namespace

QMBoolean qmzsCompareNorm(const QMChar *str1, QMStrSize str1L, const QMChar *str2,
                          QMStrSize str2L) noexcept {
  if (badString(str1, str1L) || badString(str2, str2L)) return 0;
  const QMChar *a = stripBlanks(str1, str1L);
  const QMChar *b = stripBlanks(str2, str2L);
  if (str1L != str2L) return 0;
  for (QMStrSize i = 0; i < str1L; ++i)
    if (qmhostcm::toFold(a[i]) != qmhostcm::toFold(b[i])) return 0;
  return 1;
}

const QMChar *qmzsStripBlanks(const QMChar *str, QMStrSize len, QMStrSize *outlen) noexcept {
  if (outlen == nullptr) return nullptr;
  *outlen = 0;
  if (badString(str, len)) return nullptr;
  const QMChar *first = stripBlanks(str, len);
  *outlen = len;
  return first;
}

QMStatus qmzstlo(QMChar *str, QMStrSize len) noexcept {
  return mapInPlace<qmhostcm::toLower>(str, len);
}

QMStatus qmzstup(QMChar *str, QMStrSize len) noexcept {
  return mapInPlace<qmhostcm::toUpper>(str, len);
}

int qmzsncmp(const QMChar *str1, QMStrSize str1L, const QMChar *str2, QMStrSize str2L,
             QMStrSize n) noexcept {
  const QMStrSize l1 = cut(str1, str1L, n), l2 = cut(str2, str2L, n);
  for (QMStrSize i = 0; i < std::min(l1, l2); ++i)
    if (str1[i] != str2[i]) return str1[i] < str2[i] ? -1 : 1;
  return l1 == l2 ? 0 : (l1 < l2 ? -1 : 1);
}

QMBoolean qmzseqn(const QMChar *str1, QMStrSize str1L, const QMChar *str2, QMStrSize str2L,
                  QMStrSize n) noexcept {
  if (badString(str1, str1L) || badString(str2, str2L)) return 0;
  return qmzsncmp(str1, str1L, str2, str2L, n) == 0 ? 1 : 0;
}

QMChar qmzstmin(const QMChar *str, QMStrSize len) noexcept {
  return extreme(str, len, [](QMChar a, QMChar b) { return a < b; });
}

QMChar qmzstmax(const QMChar *str, QMStrSize len) noexcept {
  return extreme(str, len, [](QMChar a, QMChar b) { return a > b; });
}
