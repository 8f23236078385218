/*
 * qmversion.h - the version stamp: the identification strings of the build,
 * for "--version" output, bug reports and journals. Exported by
 * libqmhostcm.so; link with -lqmhostcm. This header is valid C and C++.
 */
#ifndef QMVERSION_H
#define QMVERSION_H

#include "qmtypes.h"

QM_EXTERN_C_BEGIN

/* The host's version record. Every text is zero-terminated and fits its
   array; the caller owns the record (no pointer in it refers to the
   library, so it stays valid after the library is unloaded). */
typedef struct QM_VERSION_RECORD_S {
  uint32_t version;           /* structure version: 0 */
  uint32_t pad0;              /* reserved, zero */
  char product[48];           /* the product's name */
  char requiredInterface[16]; /* host interface version the lock manager requires: "7.1.1" */
  char interfaceVersion[16];  /* interface version the lock manager provides: "7.2.1" */
  char buildVersion[32];      /* version of this build, "major.minor.patch" */
  char sourceRevision[48];    /* source revision the build was configured from, or "unknown" */
  char compiler[64];          /* compiler identification and version, e.g. "GNU 12.2.0" */
  char buildType[32];         /* build type, e.g. "Release", "Debug", "RelWithDebInfo" */
  char unicodeVersion[16];    /* Unicode version of the character tables of qmhostcm.h */
  QMMemPtr pad1[2];           /* reserved, zero */
} QMVersionRecord;

/* Fills *rec (every field, the reserved ones with zeros) with the strings of
   this build. 0, or QM_E_BAD_ARGUMENT for a null rec. Thread-safe. */
QM_EXPORT QMStatus qmzversion(QMVersionRecord *rec) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMVERSION_H */
