// qmzsCompare: exact equality of two counted QMChar strings. The lock manager
// compiles this unit into itself as well, so it uses nothing else of the
// library.
#include <cstring>

#include "xvzint.h"

QMBoolean qmzsCompare(const QMChar *str1, QMStrSize str1L, const QMChar *str2,
                      QMStrSize str2L) noexcept {
  if (qmhostcm::badString(str1, str1L) || qmhostcm::badString(str2, str2L)) return 0;
  if (str1L != str2L) return 0;
  if (str1L == 0) return 1;
  return std::memcmp(str1, str2, static_cast<size_t>(str1L) * sizeof(QMChar)) == 0 ? 1 : 0;
}
