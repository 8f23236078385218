/* Compiles the public headers as C and pins, at compile time, the layout
   that the lock manager's callers depend on. */
#include <stddef.h>

#include "qmelm.h"
#include "qmhost/qmhost.h"
#include "qmioe.h"

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

/* A C caller can name every entry. */
int qmtest_c_header_check(void) {
  QMELMFunctions f = {0};
  f.LockGet = qmelmlockget;
  f.Emergency = qmelmemergency;
  return f.ResourceRegister == NULL ? 0 : 1;
}
