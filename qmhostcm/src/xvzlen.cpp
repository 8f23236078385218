// xvStrTLen: the length of a zero-terminated QMChar string. The lock manager
// compiles this unit into itself as well, so it uses nothing else of the
// library.
#include "qmhostcm.h"

QMStrSize xvStrTLen(const QMChar *s) noexcept {
  if (s == nullptr) return 0;
  QMStrSize n = 0;
  while (s[n] != 0) ++n;
  return n;
}
