/*
 * qmhost_testing.h - the host's test instruments: call counts and failure
 * injection. They are exported by libqmhost.so like the rest of its API, but
 * an embedder never needs them; tests include this header beside qmhost.h.
 *
 * Instruments are disarmed when a host is made. Disarmed, every instrumented
 * call (each memAlloc, each constructor, each rendering) costs one relaxed
 * load of a per-host flag and writes nothing shared: nothing is counted and
 * nothing fails. Armed, each such call is counted and may be made to fail.
 *
 *   qmhost_instruments_arm(h, 1);                   // count from here on
 *   long before = qmhost_call_count(h, QMHOST_FAIL_ALLOC);
 *   ...
 *   qmhost_fail_nth(h, QMHOST_FAIL_ALLOC, 3);       // arms too
 *
 * A test that reads call counts arms first: a count only grows while armed.
 * qmhost_fail_nth arms the instruments itself, so a test that only injects
 * failures needs no arming call. Arming and disarming are meant for the
 * thread that sets a scenario up, before the threads that run it start;
 * counting and failing work from any number of threads once armed.
 * This header is valid C.
 */
#ifndef QMHOST_TESTING_H
#define QMHOST_TESTING_H

#include "qmhost/qmhost.h"

QM_EXTERN_C_BEGIN

/* The status of a call that failed because a test asked it to. It is no part
   of the kernel's status list; the host's catalogue still renders its text. */
#define QMHOST_TESTING_STATUS_LIST(X) \
  X(QM_E_INJECTED_FAILURE, 0x80010010u, "The operation failed because a test asked it to.")

enum QMHostTestingStatusCodes {
#define QMHOST_X_ENUM(name, code, text) name = (int)(code),
  QMHOST_TESTING_STATUS_LIST(QMHOST_X_ENUM)
#undef QMHOST_X_ENUM
      QMHOST_TESTING_STATUS_END_ = 0
};

typedef enum QMHOST_FAIL_KIND_E {
  QMHOST_FAIL_ALLOC = 0, /* memAlloc of any pool */
  QMHOST_FAIL_POOL_CREATE = 1,
  QMHOST_FAIL_LOCK_CREATE = 2,
  QMHOST_FAIL_JNL_CREATE = 3,
  QMHOST_FAIL_PIPELINE_CREATE = 4,
  QMHOST_FAIL_LOAD_EXTENSION = 5,
  QMHOST_FAIL_RENDER = 6, /* messageToBuf and statusToBuf */
  QMHOST_FAIL_KINDS = 7
} QMHostFailKind;

/* on != 0 arms the instruments of h; 0 disarms them and cancels every
   failure still pending (a later arming does not revive it). Counts survive
   disarming: arming again continues them. */
QM_EXPORT void qmhost_instruments_arm(QMHndlp h, int on) QM_NOEXCEPT;
/* Whether the instruments of h are armed (0 or 1). */
QM_EXPORT int qmhost_instruments_armed(QMHndlp h) QM_NOEXCEPT;

/* Arms the instruments and makes the nth call of kind from now on fail
   (1 = the next one), once, whichever thread makes it; 0 cancels the failure
   pending for kind (the instruments stay armed). The failing call returns
   null or QM_E_INJECTED_FAILURE. */
QM_EXPORT void qmhost_fail_nth(QMHndlp h, QMHostFailKind kind, long n) QM_NOEXCEPT;
/* Calls of kind made while the instruments were armed (failed ones included). */
QM_EXPORT long qmhost_call_count(QMHndlp h, QMHostFailKind kind) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMHOST_TESTING_H */
