/*
 * qmhost.h - the substitute host kernel: an embeddable library that fills the
 * host tables of qmkernel.h, so that any C or C++ program can load extensions
 * such as the lock manager "qmelm" and call them.
 *
 *   QMHndlp h = qmhost_create(NULL);
 *   QMJnlh j = qmhost_journal_create(h, QM_JNL_MEMORY, NULL);
 *   QMExtensionh ext = qmhost_load_extension(h, "qmelm", j);
 *   ...  ((QMELMExtension *)ext)->Functions.SetLockOption(...)
 *   ext->generic.destroy(ext);
 *   qmhost_destroy(h);
 *
 * Everything the host creates is tracked: qmhost_destroy frees what callers
 * left behind (pools with their blocks, mutexes, journals, pipelines,
 * extensions), and qmhost_stats tells what is live, so tests can prove that an
 * operation left nothing behind. All functions are thread-safe unless noted.
 * This header is valid C.
 */
#ifndef QMHOST_H
#define QMHOST_H

#include <stddef.h>

#include "qmkernel.h"

QM_EXTERN_C_BEGIN

/* An extension linked into the program instead of loaded from a shared
   object; the loader finds it by name before it searches the path. */
typedef struct QMHOST_BUILTIN_EXTENSION_S {
  const char *name;       /* e.g. "qmelm" */
  QMExtEntryFn entry;     /* its qmextent */
  QMExtVerFn version;     /* its qmextver */
  QMExtFactoryFn factory; /* the factory named like the extension */
} QMHostBuiltinExtension;

typedef struct QMHOST_CONFIG_S {
  /* Directories searched for lib<name>.so, separated by ':'. Null: the
     environment variable QMHOST_EXTENSION_PATH, then the directory that holds
     libqmhost itself. */
  const char *extension_path;
  QMIOByteCountKind iobytecount;    /* the I/O counting setting; default 0 */
  QMJnlKind default_journal;        /* where qmjnl writes; default QM_JNL_STDERR (0 means memory) */
  const char *default_journal_path; /* QM_JNL_FILE: the file */
  NLScei os_encoding;               /* the OS encoding; 0: UTF-8 */
  const QMHostBuiltinExtension *builtins; /* may be null */
  size_t nbuiltins;
} QMHostConfig;

/* Fills *cfg with the defaults (stderr default journal, UTF-8, no builtins). */
QM_EXPORT void qmhost_config_init(QMHostConfig *cfg) QM_NOEXCEPT;
/* Creates a host; cfg null means the defaults. Returns null on failure. */
QM_EXPORT QMHndlp qmhost_create(const QMHostConfig *cfg) QM_NOEXCEPT;
/* Destroys the host and everything still live that it created. */
QM_EXPORT void qmhost_destroy(QMHndlp h) QM_NOEXCEPT;

/* Loads extension name (a narrow string) through h->loadExtension. */
QM_EXPORT QMExtensionh qmhost_load_extension(QMHndlp h, const char *name, QMJnlh jnl) QM_NOEXCEPT;

/* ---- journals --------------------------------------------------------- */

QM_EXPORT QMJnlh qmhost_journal_create(QMHndlp h, QMJnlKind kind, const char *path) QM_NOEXCEPT;

/* One journal entry as recorded: every kind of journal keeps its last 4096
   entries in memory. */
typedef struct QMHOST_JOURNAL_ENTRY_S {
  QMSeverity severity;
  const char *text;      /* UTF-8, owned by the journal: valid until the entry is
                            cleared or evicted (4096 newer entries) or the journal
                            destroyed; read entries while nobody writes to it */
  const QMStatus *codes; /* the statuses rendered into this entry, in order */
  size_t ncodes;
} QMHostJournalEntry;

QM_EXPORT size_t qmhost_journal_count(QMJnlh jnl) QM_NOEXCEPT;
/* Fills *out with entry i (0 = oldest kept); 0 or QM_E_BAD_ARGUMENT. */
QM_EXPORT QMStatus qmhost_journal_entry(QMJnlh jnl, size_t i, QMHostJournalEntry *out) QM_NOEXCEPT;
QM_EXPORT void qmhost_journal_clear(QMJnlh jnl) QM_NOEXCEPT;

/* ---- accounting ------------------------------------------------------- */

typedef struct QMHOST_STATS_S {
  size_t pools;       /* live pools */
  size_t pool_blocks; /* live blocks over all pools */
  size_t pool_bytes;  /* live bytes over all pools */
  size_t mutexes;     /* live mutexes */
  size_t journals;    /* live journals (qmjnl included) */
  size_t pipelines;   /* live NLS pipelines */
  size_t extensions;  /* loaded extensions */
  size_t bad_frees;   /* memFree calls refused (double or foreign frees) */
} QMHostStats;

QM_EXPORT void qmhost_stats(QMHndlp h, QMHostStats *out) QM_NOEXCEPT;
QM_EXPORT size_t qmhost_pool_live_blocks(QMPoolh pool) QM_NOEXCEPT;
QM_EXPORT size_t qmhost_pool_live_bytes(QMPoolh pool) QM_NOEXCEPT;

/* ---- failure injection (for tests) ------------------------------------ */

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

/* Makes the nth call of kind from now on fail (1 = the next one); 0 turns
   the injection off. The failing call returns null or QM_E_INJECTED_FAILURE. */
QM_EXPORT void qmhost_fail_nth(QMHndlp h, QMHostFailKind kind, long n) QM_NOEXCEPT;
/* Calls of kind made so far (failed ones included). */
QM_EXPORT long qmhost_call_count(QMHndlp h, QMHostFailKind kind) QM_NOEXCEPT;

/* ---- text ------------------------------------------------------------- */

/* UTF-8 to QMChar: writes at most cap characters (no terminator) and returns
   the number of characters the whole text takes. Malformed bytes become U+FFFD. */
QM_EXPORT size_t qmhost_from_utf8(const char *s, QMChar *out, size_t cap) QM_NOEXCEPT;
/* QMChar to UTF-8: writes at most cap-1 bytes and a NUL; returns the bytes
   the whole text takes without the NUL. */
QM_EXPORT size_t qmhost_to_utf8(const QMChar *s, size_t len, char *out, size_t cap) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMHOST_H */
