/*
 * qmkernel.h - the host kernel's tables as an extension sees them.
 *
 * An extension owns no memory, mutex, journal or transcoder of its own: it
 * obtains all of them through the function pointers of these tables. Any host
 * that fills them can load an extension. Every constructor returns null on
 * failure; the host's lastStatus member then tells the calling thread why.
 */
#ifndef QM_KERNEL_H
#define QM_KERNEL_H

#include "qmtypes.h"

QM_EXTERN_C_BEGIN

/* ---- pools ------------------------------------------------------------ */

#define QM_POOL_ZERO_FILL 0x80000000u /* memAlloc flag: zero-filled memory */

typedef struct QM_POOL_CREATE_PARMS_S {
  uint32_t version; /* structure version, 0 */
  uint32_t flags;   /* reserved, 0 */
  QMMemPtr pad1[2]; /* reserved, zero */
} QMPoolCreateParms;

struct QM_POOL_S {
  QMGeneric generic; /* destroy frees every block still allocated from the pool */
  /* Returns size bytes (zero-filled with QM_POOL_ZERO_FILL) or null. Thread-safe. */
  void *(*memAlloc)(QMPoolh pool, QMMemSize size, uint32_t flags);
  /* Gives a block back; QM_E_BAD_FREE for a pointer the pool does not own
     (never given out, or already freed). Thread-safe. */
  QMStatus (*memFree)(QMPoolh pool, void *block);
};

/* ---- mutexes ---------------------------------------------------------- */

typedef struct QM_LOCK_CREATE_PARMS_S {
  uint32_t version;    /* structure version, 0 */
  QMBoolean owned;     /* reserved: the host tracks owners itself */
  QMBoolean readWrite; /* reserved: every host mutex can be shared */
  uint16_t pad0;
  QMMemPtr pad1[2]; /* reserved, zero */
} QMLockCreateParms;

struct QM_LOCK_S {
  QMGeneric generic; /* destroy: the mutex must not be held */
  /* exclusive 1 takes the mutex alone and waits for every holder; exclusive 0
     shares it with other shared holders. wait 1 blocks; wait 0 returns
     QM_E_BUSY instead of blocking. Not recursive. */
  QMStatus (*get)(QMLockh lock, int exclusive, int wait);
  /* Releases the mode the calling thread holds; QM_E_NOT_HELD otherwise. */
  QMStatus (*release)(QMLockh lock);
};

/* ---- journals --------------------------------------------------------- */

typedef enum QM_JNL_KIND_E {
  QM_JNL_MEMORY = 0, /* entries kept in memory, readable by the embedding program */
  QM_JNL_STDERR = 1, /* one line per entry on standard error */
  QM_JNL_FILE = 2    /* one line per entry appended to a file */
} QMJnlKind;

typedef struct QM_JNL_CREATE_PARMS_S {
  uint32_t version; /* structure version, 0 */
  uint32_t kind;    /* a QMJnlKind */
  const char *path; /* QM_JNL_FILE: the file to append to */
  QMMemPtr pad1[2]; /* reserved, zero */
} QMJnlCreateParms;

/*
 * Rendering: messageToBuf formats fmt (fmtlen QMChars) with the arguments;
 * statusToBuf formats the catalogue text of a status with the arguments. Both
 * write at most cap QMChars including a terminating zero, set *outlen to the
 * characters written without it, and fail with QM_E_BUFFER_TOO_SMALL (writing
 * nothing useful) when the text does not fit. Formats know %s (zero-terminated
 * QMChar*), %.*s (int, QMChar*), %d %i %u %x %X with the l and ll sizes, a
 * width with 0 padding, and %%.
 */
struct QM_JNL_S {
  QMGeneric generic;
  QMStatus (*messageToBuf)(QMJnlh jnl, const QMChar *fmt, QMStrSize fmtlen, QMChar *out,
                           QMStrSize cap, QMStrSize *outlen, va_list args);
  QMStatus (*messageToJnl)(QMJnlh jnl, QMSeverity sev, const QMChar *fmt, QMStrSize fmtlen,
                           va_list args);
  QMStatus (*statusToBuf)(QMJnlh jnl, QMStatus status, QMChar *out, QMStrSize cap,
                          QMStrSize *outlen, va_list args);
  QMStatus (*statusToJnl)(QMJnlh jnl, QMSeverity sev, QMStatus status, va_list args);
  /* The first variable argument is a QMLocaleh* that receives the journal's locale. */
  QMStatus (*getLocale)(QMJnlh jnl, va_list args);
};

/* ---- NLS: encodings, pipelines, locale -------------------------------- */

#define QM_CEI_OS 0u        /* "the operating system's own encoding" where a field allows it */
#define QM_CEI_ISO8859_1 1u /* single byte */
#define QM_CEI_UTF8 2u
#define QM_CEI_UTF16 25u /* machine byte order */
#define U_L_UCS4_CE 27u  /* UTF-32, machine byte order: the encoding of QMChar */

typedef enum qmnls_encoding_method_e {
  QM_SBCS = 0,
  QM_UTF8 = 1,
  QM_WCS_2byte = 2,
  QM_WCS_4byte = 3,
  QM_MBCS_modal = 4,
  QM_MBCS_nonmodal = 5
} qmnls_encoding_method_t;

typedef struct QMNLS_ENCODING_ATTRIB_S {
  uint32_t version;               /* structure version, 0 */
  qmnls_encoding_method_t method; /* how characters are encoded */
  uint32_t minCharWidth;          /* bytes of the narrowest character */
  uint32_t maxCharWidth;          /* bytes of the widest character */
  uint32_t nulWidth;              /* bytes of the terminating NUL */
  uint32_t pad0;
} QMNLS_ENCODING_ATTRIB;

struct QM_NLS_PIPELINE_S {
  QMGeneric generic; /* destroy releases the pipeline */
  QMNLSh qmnls;      /* the NLS services that made it */
  /* Converts inbytes bytes into out (outcap bytes); *outbytes receives the
     bytes written. QM_E_UNMAPPABLE when a character has no form in the
     target, QM_E_INVALID_SEQUENCE for malformed input, QM_E_BUFFER_TOO_SMALL. */
  QMStatus (*Transcode)(QMNLSPipelineh p, const void *in, QMMemSize inbytes, void *out,
                        QMMemSize outcap, QMMemSize *outbytes);
  /* Converts as much as fits, advancing the four cursors. */
  QMStatus (*TranscodeStream)(QMNLSPipelineh p, const void **in, QMMemSize *inbytesleft, void **out,
                              QMMemSize *outbytesleft);
  NLScei incei;  /* source encoding */
  NLScei outcei; /* target encoding */
  /* Converts into a new block of pool (freed by the caller with memFree). */
  QMStatus (*TranscodeWithPool)(QMNLSPipelineh p, const void *in, QMMemSize inbytes, QMPoolh pool,
                                void **out, QMMemSize *outbytes);
};

#define QM_DATETIME_ISO8601 1 /* datetimeFormat selector: ISO-8601 local time */

struct QM_LOCALE_S {
  QMGeneric generic;
  /* Formats a host datetime (seconds since the Unix epoch) into out. */
  QMStatus (*datetimeFormat)(QMLocaleh loc, double datetime, int selector, QMChar *out,
                             QMStrSize cap, QMStrSize *outlen);
};

struct QM_NLS_S {
  QMGeneric generic;
  /* The operating system's encoding (never QM_CEI_OS). */
  NLScei (*osEncoding)(QMNLSh nls);
  /* A pipeline from QMChar text to encoding to, or null. flags: 0. */
  QMNLSPipelineh (*pipelineFromQMChar)(QMNLSh nls, NLScei to, uint32_t flags, QMJnlh jnl);
  /* A pipeline from encoding from to QMChar text, or null. flags: 0. */
  QMNLSPipelineh (*pipelineToQMChar)(QMNLSh nls, NLScei from, uint32_t flags, QMJnlh jnl);
  /* Bytes that inbytes bytes of text in encoding from take in encoding to,
     without a terminator; fails as Transcode would. */
  QMStatus (*convertedSize)(QMNLSh nls, NLScei from, NLScei to, const void *in, QMMemSize inbytes,
                            QMMemSize *outbytes);
  QMStatus (*encodingAttributes)(QMNLSh nls, NLScei enc, QMNLS_ENCODING_ATTRIB *attrib);
  /* The host's default locale; owned by the host, never destroyed by callers. */
  QMStatus (*defaultLocale)(QMNLSh nls, QMLocaleh *locale);
};

/* ---- extensions ------------------------------------------------------- */

struct QM_EXT_S {
  QMGeneric generic; /* the loader sets destroy: realDestroy, then unload */
  QMStatus (*getReqVersion)(QMExtensionh ext, int *a, int *b, int *c);
  QMStatus (*getVersion)(QMExtensionh ext, int *a, int *b, int *c);
  QMHndlp hndl;                              /* the host kernel handle */
  QMStatus (*realDestroy)(QMExtensionh ext); /* the extension's own destroy */
  void *(*findFunction)(QMExtensionh ext, const char *name);
  void *handle; /* the loader's handle of the shared object */
};

typedef QMStatus (*QMExtEntryFn)(QMHndlp hndl);
typedef QMStatus (*QMExtVerFn)(QMHndlp hndl, int *major, int *minor);
typedef QMExtensionh (*QMExtFactoryFn)(QMHndlp hndl, QMJnlh jnl);

/* ---- the kernel handle ------------------------------------------------ */

typedef enum QM_IO_BYTE_COUNT_KIND_E {
  QMIO_ByteCount_Default = 0,
  QMIO_ByteCount_None = 1,
  QMIO_ByteCount_External = 2,
  QMIO_ByteCount_Host = 3,
  QMIO_ByteCount_ALL = 4
} QMIOByteCountKind;

#define QM_CONFIG_DATETIME 16 /* ConfigureSystem request: the clock */
#define QM_CONFIG_DATETIME_FLAGS 0x10800000u

struct QM_HNDL_S {
  QMGeneric generic;
  QMLockh (*lockCreate)(QMHndlp h, const QMLockCreateParms *parms, QMJnlh jnl, const char *name);
  QMJnlh (*jnlCreate)(QMHndlp h, const QMJnlCreateParms *parms, void *reserved1, void *reserved2);
  QMPoolh (*poolCreate)(QMHndlp h, const QMPoolCreateParms *parms, QMJnlh jnl, const char *name);
  QMExtensionh (*loadExtension)(QMHndlp h, const QMChar *name, QMStrSize namelen, QMJnlh jnl);
  QMJnlh qmjnl; /* the host's default journal */
  QMNLSh qmnls; /* the NLS services */
  /* QM_CONFIG_DATETIME with a double[2] and QM_CONFIG_DATETIME_FLAGS writes
     the time of day (seconds since the Unix epoch) and an offset of 0.0. */
  QMStatus (*ConfigureSystem)(QMHndlp h, int request, void *buffer, uint32_t flags);
  QMIOByteCountKind iobytecount; /* I/O counting setting */
  /* The status of the calling thread's last failed constructor call. */
  QMStatus (*lastStatus)(QMHndlp h);
};

QM_EXTERN_C_END

#endif /* QM_KERNEL_H */
