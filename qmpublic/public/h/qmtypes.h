/*
 * qmtypes.h - basic types of the qm host kernel.
 *
 * Every object the host hands out, and every object an extension hands back,
 * begins with QMGeneric. Statuses are 32-bit codes: 0 is success, codes with
 * the top bit set are errors. This header is valid C and C++.
 */
#ifndef QM_TYPES_H
#define QM_TYPES_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define QM_EXTERN_C_BEGIN extern "C" {
#define QM_EXTERN_C_END }
#define QM_NOEXCEPT noexcept
#else
#define QM_EXTERN_C_BEGIN
#define QM_EXTERN_C_END
#define QM_NOEXCEPT
#endif

#define QM_EXPORT __attribute__((visibility("default")))

QM_EXTERN_C_BEGIN

typedef int QMStatus;       /* 0 success; top bit set: error                */
typedef uint32_t QMChar;    /* the host's wide character: UTF-32, machine order */
typedef int64_t QMStrSize;  /* a length in QMChars (signed)                 */
typedef uint64_t QMMemSize; /* a count or size (unsigned)                   */
typedef void *QMMemPtr;     /* an untyped pointer                           */
typedef unsigned char QMBoolean;
typedef int64_t QMIOSize; /* a byte or operation count of file I/O        */
typedef uint32_t QMFlags;
typedef uint32_t NLScei; /* an encoding code of the NLS services         */

typedef enum QM_SEVERITY_E {
  QMSeverityNull = 0,
  QMSeverityNone = 1,
  QMSeverityNote = 2,
  QMSeverityWarning = 3,
  QMSeverityError = 4
} QMSeverity;

/* The header of every host object and of every object an extension makes. */
typedef struct QM_GENERIC_S {
  int32_t oven; /* eye-catcher; extensions store the bytes "nevo" */
  char *name;   /* readable name of the object                  */
  QMStatus (*destroy)(
      void *object); /* destroys the object; null where the owner destroys it otherwise */
} QMGeneric;

/* Handles to host objects. */
typedef struct QM_HNDL_S QMHndl, *QMHndlp;
typedef struct QM_POOL_S QMPool, *QMPoolh;
typedef struct QM_LOCK_S QMLock, *QMLockh;
typedef struct QM_JNL_S QMJnl, *QMJnlh;
typedef struct QM_EXT_S QMExtension, *QMExtensionh;
typedef struct QM_NLS_S QMNLS, *QMNLSh;
typedef struct QM_NLS_PIPELINE_S QMNLSPipeline, *QMNLSPipelineh;
typedef struct QM_LOCALE_S QMLocale, *QMLocaleh;

/*
 * The host's own status codes, with the English text of its message
 * catalogue. One list feeds both the constants and the catalogue.
 */
#define QM_HOST_STATUS_LIST(X)                                                                    \
  X(QM_E_NO_MEMORY, 0x80010001u, "The host could not allocate memory.")                           \
  X(QM_E_BAD_ARGUMENT, 0x80010002u, "An argument passed to the host is not valid.")               \
  X(QM_E_BAD_FREE, 0x80010003u,                                                                   \
    "The memory block was not allocated from this pool, or was already freed.")                   \
  X(QM_E_NOT_HELD, 0x80010004u, "The mutex is not held by the calling thread.")                   \
  X(QM_E_BUSY, 0x80010005u, "The mutex is held by another thread.")                               \
  X(QM_E_BUFFER_TOO_SMALL, 0x80010006u, "The output buffer is too small for the rendered text.")  \
  X(QM_E_BAD_FORMAT, 0x80010007u, "The message format is not valid.")                             \
  X(QM_E_UNKNOWN_ENCODING, 0x80010008u, "The encoding is not known to the host.")                 \
  X(QM_E_UNMAPPABLE, 0x80010009u, "A character cannot be represented in the target encoding.")    \
  X(QM_E_INVALID_SEQUENCE, 0x8001000au, "The text is not valid in its source encoding.")          \
  X(QM_E_EXT_NOT_FOUND, 0x8001000bu, "The extension could not be found on the search path.")      \
  X(QM_E_EXT_BAD, 0x8001000cu, "The extension does not provide the required entry points.")       \
  X(QM_E_EXT_VERSION, 0x8001000du, "The extension's interface version is not supported.")         \
  X(QM_E_EXT_INIT_FAILED, 0x8001000eu, "The extension's factory could not create the extension.") \
  X(QM_E_UNSUPPORTED_REQUEST, 0x8001000fu, "The host does not support this request.")             \
  X(QM_E_IO, 0x80010011u, "The journal could not be written.")                                    \
  X(QM_E_BAD_PATH, 0x80010012u, "The path cannot be resolved to a full path.")

enum QMHostStatusCodes {
#define QM_X_ENUM(name, code, text) name = (int)(code),
  QM_HOST_STATUS_LIST(QM_X_ENUM)
#undef QM_X_ENUM
      QM_HOST_STATUS_END_ = 0
};

QM_EXTERN_C_END

#endif /* QM_TYPES_H */
