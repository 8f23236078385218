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
 * The test instruments (call counts, failure injection) are declared in
 * qmhost/qmhost_testing.h. This header is valid C.
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

/* The host's settings. Always fill one with qmhost_config_init first: it sets
   size, which tells qmhost_create which fields the caller knows. Fields are
   only ever added at the end; a program built against an older, smaller
   layout still gets a host, with the defaults for the fields it lacks. */
typedef struct QMHOST_CONFIG_S {
  size_t size; /* sizeof(QMHostConfig) as the caller was compiled */
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

/* Fills *cfg with its size and the defaults (stderr default journal, UTF-8,
   no builtins). */
QM_EXPORT void qmhost_config_init(QMHostConfig *cfg) QM_NOEXCEPT;
/* Creates a host; cfg null means the defaults. Returns null on failure, and
   qmhost_create_status then tells why. */
QM_EXPORT QMHndlp qmhost_create(const QMHostConfig *cfg) QM_NOEXCEPT;
/* Why the calling thread's latest qmhost_create failed, 0 when it succeeded:
   QM_E_UNSUPPORTED_REQUEST for a cfg->size this host does not know (0, or a
   newer layout than its own), QM_E_BAD_ARGUMENT for builtins without a name
   or an unknown default journal kind, QM_E_IO when the default journal's file
   cannot be opened, QM_E_NO_MEMORY. A refused configuration leaves nothing
   behind (no file opened, nothing allocated). */
QM_EXPORT QMStatus qmhost_create_status(void) QM_NOEXCEPT;
/* Destroys the host and everything still live that it created. */
QM_EXPORT void qmhost_destroy(QMHndlp h) QM_NOEXCEPT;

/* Loads extension name (a narrow string) through h->loadExtension. */
QM_EXPORT QMExtensionh qmhost_load_extension(QMHndlp h, const char *name, QMJnlh jnl) QM_NOEXCEPT;

/* ---- journals --------------------------------------------------------- */

QM_EXPORT QMJnlh qmhost_journal_create(QMHndlp h, QMJnlKind kind, const char *path) QM_NOEXCEPT;

/* Entries kept: a memory journal keeps its newest QMHOST_JOURNAL_KEEP
   entries; a stderr or file journal writes its lines and keeps none, unless
   qmhost_journal_keep asks it to. Only a journal that keeps entries notes
   the statuses rendered for it (the codes of an entry), so rendering and
   journaling for one that keeps none do no bookkeeping at all. */
#define QMHOST_JOURNAL_KEEP 4096

/* Makes jnl keep its newest n entries from now on, dropping the oldest ones
   it keeps beyond n. n = 0 keeps none: allowed for stderr and file journals,
   QM_E_BAD_ARGUMENT for a memory journal (it would only lose what it is
   given). Entries and codes rendered before a journal kept any are not
   recovered. 0, or QM_E_BAD_ARGUMENT. */
QM_EXPORT QMStatus qmhost_journal_keep(QMJnlh jnl, size_t n) QM_NOEXCEPT;

/* One journal entry as kept. */
typedef struct QMHOST_JOURNAL_ENTRY_S {
  QMSeverity severity;
  const char *text;      /* UTF-8, owned by the journal: valid until the entry is
                            cleared or evicted (by newer entries beyond what the
                            journal keeps) or the journal destroyed; read entries
                            while nobody writes to the journal */
  const QMStatus *codes; /* the statuses rendered into this entry, in order */
  size_t ncodes;
} QMHostJournalEntry;

/* The number of entries kept: 0 for a journal that keeps none. */
QM_EXPORT size_t qmhost_journal_count(QMJnlh jnl) QM_NOEXCEPT;
/* Fills *out with entry i (0 = oldest kept): 0; QM_E_BAD_ARGUMENT for an i
   past the entries kept; QM_E_UNSUPPORTED_REQUEST when jnl keeps no entries
   (a stderr or file journal not asked to). */
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

/* ---- text ------------------------------------------------------------- */

/* UTF-8 to QMChar: writes at most cap characters (no terminator) and returns
   the number of characters the whole text takes. Malformed bytes become U+FFFD. */
QM_EXPORT size_t qmhost_from_utf8(const char *s, QMChar *out, size_t cap) QM_NOEXCEPT;
/* QMChar to UTF-8: writes at most cap-1 bytes and a NUL; returns the bytes
   the whole text takes without the NUL. */
QM_EXPORT size_t qmhost_to_utf8(const QMChar *s, size_t len, char *out, size_t cap) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMHOST_H */
