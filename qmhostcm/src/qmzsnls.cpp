// Wide-string comparison of the host-common helpers.
#include <cstring>

#include "qmhostcm.h"

QMBoolean qmzsCompare(const QMChar *str1, QMStrSize str1L, const QMChar *str2,
                      QMStrSize str2L) noexcept {
  if (str1L != str2L) return 0;
  if (str1L <= 0) return 1;
  return std::memcmp(str1, str2, static_cast<size_t>(str1L) * sizeof(QMChar)) == 0 ? 1 : 0;
}
