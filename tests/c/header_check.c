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

/* Values callers store and compare: a few status codes from each range, the
   aliases, the lock-type bits and the option values. */
_Static_assert((QMStatus)QMELM_E_CREATE_FAILED == (QMStatus)0x803fc002u &&
                   (QMStatus)QMELM_W_OPTION_NOT_SET == (QMStatus)0x803fc004u,
               "frame status codes");
_Static_assert((QMStatus)QMELM_E_NO_MEMORY == (QMStatus)0x80ffe001u &&
                   (QMStatus)QMELM_E_INT_SHARE_CONFLICT == (QMStatus)0x80ffe016u &&
                   (QMStatus)QMELM_E_DEAD_NODE == (QMStatus)0x80ffe031u &&
                   (QMStatus)QMELM_M_IOINFO_HEADER == (QMStatus)0x80ffe039u,
               "lock manager status codes");
_Static_assert(QMELM_M_RESOURCE_END == QMELM_M_TRAILER &&
                   QMELM_M_INT_SHARE_CONFLICT == QMELM_M_PATH && QMELM_E_NOMEM == QMELM_E_NO_MEMORY,
               "aliases");
_Static_assert(QMELM_INT_EXCLUSIVE == 0x001 && QMELM_INT_NONEXCLUSIVE == 0x002 &&
                   QMELM_EXT_EXCLUSIVE == 0x004 && QMELM_EXT_NONEXCLUSIVE == 0x008 &&
                   QMELM_NOINTERNAL_LOCK == 0x010 && QMELM_NOEXTERNAL_LOCK == 0x020 &&
                   QMELM_SHARED == 0x040 && QMELM_OPT_NONE == 0x080 && QMELM_OPT_FAIL == 0x100 &&
                   QMELM_OPT_CONTINUE == 0x200,
               "lock-type bits");
_Static_assert(QMELM_Fail == 0 && QMELM_Unknown == 4, "option values");

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
