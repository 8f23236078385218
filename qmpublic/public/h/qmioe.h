/*
 * qmioe.h - the path-resolution extension "qmioe" as its callers see it.
 *
 * loadExtension("qmioe") returns a QMExtensionh that is really a
 * QMIOEExtension. getFullPath makes a path absolute against the current
 * directory and normalises ".", ".." and repeated slashes lexically (no
 * symbolic links are followed: the file need not exist); a trailing slash is
 * kept. The returned memory belongs to qmioe until freeFullPath. Both entries
 * are thread-safe.
 */
#ifndef QM_IOE_H
#define QM_IOE_H

#include "qmkernel.h"

QM_EXTERN_C_BEGIN

typedef struct QMIOE_PARMS_S {
  QMJnlh jnl;            /* journal for failures, or null */
  QMFlags flags;         /* 0 */
  uint32_t enc_pathname; /* encoding the path must be expressible in; 0: the OS's */
  uint64_t pad[2];       /* reserved, zero */
} QMIOEParms;

typedef struct QMIOE_FUNCTIONS_S {
  /* Resolves path (pathlen QMChars). The four reserved arguments are passed
     as null. Returns 0 and the full path, or QM_E_BAD_PATH (empty path, no
     current directory), QM_E_UNMAPPABLE (a character enc_pathname cannot
     hold), QM_E_UNKNOWN_ENCODING, QM_E_NO_MEMORY. */
  QMStatus (*getFullPath)(QMExtensionh qmioe, const QMChar *path, QMStrSize pathlen, QMMemPtr r1,
                          QMMemPtr r2, QMMemPtr r3, QMMemPtr r4, QMChar **fullpath,
                          QMStrSize *fullpathlen, QMIOEParms *parms);
  /* Gives back a full path; QM_E_BAD_FREE for one qmioe did not hand out. */
  QMStatus (*freeFullPath)(QMExtensionh qmioe, QMChar *fullpath, QMIOEParms *parms);
} QMIOEFunctions;

typedef struct QMIOE_EXTENSION_S {
  QMExtension Common;       /* header */
  QMIOEFunctions Functions; /* the entries */
} QMIOEExtension;

QM_EXTERN_C_END

#endif /* QM_IOE_H */
