/* Compiles the public headers as C and pins, at compile time, the layout
   that the lock manager's callers depend on. */
#include <stddef.h>

#include "qmelm.h"
#include "qmhost/qmhost.h"
#include "qmhost/qmhost_testing.h"
#include "qmhostcm.h"
#include "qmioe.h"
#include "qmversion.h"

#define SLOT(name, i) _Static_assert(offsetof(QMELMFunctions, name) == (i) * sizeof(void *), #name)
SLOT(LockGet, 0);
SLOT(LockRelease, 1);
SLOT(LockChange, 2);
SLOT(SetLockOption, 3);
SLOT(GetLockOptions, 4);
SLOT(ReleaseLockOptions, 5);
SLOT(MatchOption, 6);
SLOT(ReleaseMatch, 7);
SLOT(UpdateIOInfo, 8);
SLOT(ResetIOInfo, 9);
SLOT(GetIOInfo, 10);
SLOT(ListIOInfo, 11);
SLOT(ListIOInfoFree, 12);
SLOT(JnlIOInfo, 13);
SLOT(Emergency, 14);
SLOT(ResourceRegister, 15);
SLOT(ResourceRelease, 16);
_Static_assert(sizeof(QMELMFunctions) == 17 * sizeof(void *), "17 slots");
_Static_assert(sizeof(((QMELMExtension *)0)->ExtensionName) == 24, "ExtensionName");
_Static_assert(sizeof(((QMELMLPrivate *)0)->HandleName) == 23, "HandleName");
_Static_assert(offsetof(XVELMLHndl, Common) == 0, "XVELMLHndl begins with QMELMLHndl");
_Static_assert(offsetof(XVELMFileLock, CommonLock) == 0, "XVELMFileLock begins with QMELMResLock");
_Static_assert(offsetof(QMELMExtension, Common) == 0, "header first");
_Static_assert(sizeof(QMChar) == 4, "QMChar is UTF-32");
_Static_assert(sizeof(QMStatus) == 4, "32-bit status");
_Static_assert(offsetof(QMVersionRecord, product) == 8, "version record: texts after the header");
_Static_assert(sizeof(((QMVersionRecord *)0)->compiler) == 64, "version record: compiler text");

/* A C caller can name every entry. */
int qmtest_c_header_check(void) {
  QMELMFunctions f = {0};
  f.LockGet = qmelmlockget;
  f.Emergency = qmelmemergency;
  return f.ResourceRegister == NULL ? 0 : 1;
}

/* A C caller can name the character utilities and the version stamp. */
int qmtest_c_hostcm_check(void) {
  QMVersionRecord v;
  QMChar name[8];
  QMStrSize n = 0;
  if (qmzversion(&v) != 0) return 1;
  if (Compiler2QMChar("qm", 2, name, 8, &n) != 0) return 1;
  return qmzsCompareNorm(name, n, name, n) && qmnlsisalpha(name[0]) ? 0 : 1;
}
