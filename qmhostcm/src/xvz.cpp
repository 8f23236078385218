// Length of a zero-terminated QMChar string.
#include "qmhostcm.h"

QMStrSize xvStrTLen(const QMChar *s) noexcept {
  QMStrSize n = 0;
  while (s[n] != 0) ++n;
  return n;
}
