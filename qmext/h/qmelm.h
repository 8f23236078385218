/*
 * qmelm.h - the QM Resource Lock Manager: the extension's public contract.
 *
 * A host loads the extension by name ("qmelm"), which calls the factory qmelm()
 * with the host kernel handle and a journal. From then on every operation goes
 * through ext->Functions; the extension is destroyed through
 * ext->Common.generic.destroy (set by the host's loader) or, by a host that
 * links it directly, ext->Common.realDestroy.
 *
 * Threads: every entry may be called from any thread at any time between the
 * factory and destroy; no call ever waits for another holder of a lock: a
 * conflict fails at once with a status.
 *
 * Journals: every jnl argument may be null (nothing is reported). With a
 * journal, a failure writes one message (severity 4, QMSeverityError, unless an
 * entry says otherwise). The environment variable QMELM_DEBUG_VERBOSE_ERRORS,
 * when set, makes lock get, change and release report to the host's own
 * journal when the caller passed none.
 *
 * Ownership: handles belong to the caller from LockGet until LockRelease frees
 * them. Snapshots and match results stay allocated in the extension's pool
 * until given back (ReleaseLockOptions, ReleaseMatch). Everything else the
 * extension allocates goes with its pool at destroy.
 *
 * This header is valid C.
 */
#ifndef QMELM_H
#define QMELM_H

#include "qmelmmsg.h"
#include "qmkernel.h"

QM_EXTERN_C_BEGIN

/* ---- status codes ----------------------------------------------------- */

enum QMELMStatusCodes {
#define QMELM_X_ENUM(name, code, text) name = (int)(code),
  QMELM_STATUS_LIST(QMELM_X_ENUM)
#undef QMELM_X_ENUM
  /* Other names under which the codes are known. */
  QMELM_M_RESOURCE_END = QMELM_M_TRAILER,
  QMELM_M_INT_SHARE_CONFLICT = QMELM_M_PATH,
  QMELM_E_NOMEM = QMELM_E_NO_MEMORY
};

/* ---- lock types ------------------------------------------------------- */

#define QMELM_INT_EXCLUSIVE 0x001u    /* internal (thread) lock, exclusive */
#define QMELM_INT_NONEXCLUSIVE 0x002u /* internal lock, non-exclusive */
#define QMELM_EXT_EXCLUSIVE 0x004u    /* external (process) lock, exclusive */
#define QMELM_EXT_NONEXCLUSIVE 0x008u /* external lock, non-exclusive */
#define QMELM_NOINTERNAL_LOCK 0x010u  /* no internal lock: the holder is only counted */
#define QMELM_NOEXTERNAL_LOCK 0x020u  /* no external lock */
#define QMELM_SHARED 0x040u           /* co-operating holder (see LockGet) */
#define QMELM_OPT_NONE 0x080u         /* lock option None applies */
#define QMELM_OPT_FAIL 0x100u         /* lock option Fail applies */
#define QMELM_OPT_CONTINUE 0x200u     /* lock option Continue applies */

#define QMELM_RESOURCE_FILE 1u          /* the only resource type */
#define QMELM_FLAG_DELETE_ON_CLOSE 0x1u /* XVELMFileLockParms.Flags */

/* ---- lock options ----------------------------------------------------- */

typedef enum QMELM_LOCK_OPTION_E {
  QMELM_Fail = 0, /* the default of the root entry "/" */
  QMELM_None = 1,
  QMELM_Continue = 2,
  QMELM_Reset = 3,  /* not stored: removes a path and everything below it */
  QMELM_Unknown = 4 /* not stored: what a failed or pending match reports */
} QMELMLockOption;

/* One entry of the option table (and of a snapshot). */
typedef struct QMELM_LOCK_OPTION_S {
  QMChar *path;          /* the path as the caller gave it (not terminated) */
  QMChar *fullpath;      /* the full path qmioe resolved: the table's key */
  QMStrSize pathlen;     /* QMChars of path */
  QMStrSize fullpathlen; /* QMChars of fullpath */
  QMELMLockOption option;
} QMELM_LOCK_OPTION_S, *QMELMLockOptions;

typedef struct QMELM_SET_OPTION_PARMS_S {
  QMChar *path;           /* the path; null means the root "/" */
  QMELMLockOption option; /* option to store, or QMELM_Reset to remove */
  QMStrSize pathlen;      /* QMChars of path */
  NLScei enc_pathname;    /* encoding of the path, passed on to qmioe */
  uint32_t version;       /* not read */
  uint32_t pad1;
  uint64_t pad2;
  QMMemPtr pad3;
} QMELMSetOptionParms;

typedef struct QMELM_GET_OPTIONS_PARMS_S {
  QMELMLockOptions *optionTable; /* out: NumOptions pointers to copied entries */
  QMMemSize NumOptions;          /* out: entries copied */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMGetOptionsParms;

typedef struct QMELM_MATCH_OPTION_PARMS_S {
  QMChar *path;           /* in: the path to match (required) */
  QMChar *fullpath;       /* out: pool copy of the resolved full path */
  QMChar *matchpath;      /* out: pool copy of the matching entry's full path */
  QMELMLockOption option; /* out: the matching entry's option */
  QMStrSize pathlen;      /* in: QMChars of path (non-zero) */
  QMStrSize fullpathlen;  /* never written */
  QMStrSize matchpathlen; /* out: QMChars of matchpath */
  uint32_t enc_pathname;  /* in: encoding of path, passed to qmioe */
  uint32_t version;       /* not read */
  uint32_t pad1;
  uint64_t pad2[2];
  QMMemPtr pad3[2];
} QMELMMatchOptionParms;

/* ---- I/O statistics --------------------------------------------------- */

typedef struct QMELM_IO_INFO_S QMELMIOInfo, *QMELMIOInfop;

/* One I/O record: made by every successful external acquisition while the
   host's iobytecount setting is above 1. Mutex rules: the extension's
   IOInfoMutex guards next, prev and the list; mutex guards the five counters
   and closeTime; the other fields never change after creation. */
struct QMELM_IO_INFO_S {
  uint32_t version;       /* 0 */
  QMELMIOInfop next;      /* next (older) record */
  QMELMIOInfop prev;      /* previous (newer) record; null for the head */
  QMLockh mutex;          /* guards the counters and closeTime */
  QMChar *Name;           /* the file name, zero-terminated */
  QMStrSize NameLen;      /* QMChars of Name without the zero */
  QMMemSize ResourceType; /* 1: file */
  QMIOSize numBytesWritten;
  QMIOSize numBytesRead;
  QMIOSize numReads;
  QMIOSize numWrites;
  QMIOSize numSeeks;
  uint32_t OpenFlags; /* open(2) flags of the descriptor */
  double openTime;    /* host datetime of the open; 0.0 for a reused descriptor */
  double closeTime;   /* host datetime of the close; -1.0 while open */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  QMMemPtr pad3[2];
};

typedef struct QMELM_IO_STATS_S {
  uint32_t version; /* not examined */
  QMIOSize bytesRead;
  QMIOSize bytesWritten;
  QMIOSize reads;
  QMIOSize writes;
  QMIOSize seeks;
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMIOStats;

typedef struct QMELM_CREATE_IO_INFO_PARMS_S {
  double openTime;
  QMMemSize ResourceType;
  uint32_t OpenFlags;
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMCreateIOInfoParms;

typedef struct QMELM_CLOSE_IO_INFO_PARMS_S {
  double closeTime;
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMCloseIOInfoParms;

typedef struct QMELM_RESET_IO_INFO_PARMS_S {
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMResetIOInfoParms;

/* Which I/O records a query selects (in). A path counts as given when its
   pointer is not null and its length is above 0. A file alone selects the
   records whose name equals its full path exactly (case-sensitive); a
   directory alone those whose name begins with its full path, as a plain
   prefix: "/a/b" also selects "/a/bc/f" (give "/a/b/" to stop at the
   separator). Both, or neither, select every record. Full paths are made by
   qmioe (absolute, ".", ".." and repeated slashes resolved, no symbolic
   links followed); record names are compared as the lock requests gave them,
   so a record made under a relative name is never selected by path. */
typedef struct QMELM_QUERY_IO_INFO_PARMS_S {
  uint32_t version;       /* not examined */
  QMBoolean lockRequest;  /* non-zero: read under the list's and each record's
                             mutex (a consistent answer); 0: read with no mutex
                             (never waits, values may be mid-update) */
  QMChar *matchFile;      /* the file to select, or null */
  QMStrSize matchFileLen; /* QMChars of matchFile */
  QMChar *matchDir;       /* the directory to select below, or null */
  QMStrSize matchDirLen;  /* QMChars of matchDir */
  NLScei enc_pathname;    /* encoding the path must be expressible in (qmioe); 0: the OS's */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMQueryIOInfoParms;

/* GetIOInfo's answer (in/out): added to, never reset, so the caller zeroes it
   first (a second query into the same block adds the same totals again). */
typedef struct QMELM_GET_IO_INFO_PARMS_S {
  uint32_t version;     /* untouched */
  QMMemSize numEntries; /* incremented per matching record */
  QMELMIOStats totals;  /* each matching record's five counters added (modulo 2^64) */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMGetIOInfoParms;

/* One entry of ListIOInfo's array: a copy of one record's values. */
typedef struct QMELM_BYFILE_IO_STATS_S {
  QMChar *filename;      /* not a copy: the record's own zero-terminated name, valid
                            while the record lives (a reset frees closed records of
                            files no longer locked) */
  QMStrSize filenameLen; /* QMChars of filename */
  double openTime;       /* host datetime of the open; 0.0 for a reused descriptor */
  double closeTime;      /* host datetime of the close; -1.0 while the file is open */
  uint32_t openFlags;    /* open(2) flags */
  QMELMIOStats totals;   /* the record's counters (its version untouched) */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMByFileIOStats;

/* ListIOInfo's answer (in/out); the caller zeroes numEntries and list first. */
typedef struct QMELM_LIST_IO_INFO_PARMS_S {
  uint32_t version;         /* untouched */
  QMMemSize numEntries;     /* incremented per matching record: entries 0 to the
                               number of matches - 1 of list are filled */
  QMELMByFileIOStats *list; /* out: a new array in the extension's pool, one entry
                               per record listed when the query ran (the rest
                               zeroed); the caller's until ListIOInfoFree */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMListIOInfoParms;

/* JnlIOInfo's parameters. */
typedef struct QMELM_JNL_INFO_PARMS_S {
  QMLocaleh locale; /* in/out: locale the times are written in; when null, the
                       host's default locale is stored here (the host owns it) */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMJnlIOInfoParms;

/* ---- resource nodes, handles, descriptors ------------------------------ */

typedef struct QMELM_EXTENSION_S QMELMExtension, *QMELMExtensionp;
typedef struct QMELM_RESOURCE_LOCK_S QMELMResLock, *QMELMResLockp;
typedef struct XVELM_FILE_DESCRIPTOR_S XVELMFileDescriptor, *XVELMFileDescriptorp;

/*
 * A resource node: one per resource name on the extension's LockList.
 * Mutex rules: the extension's ListMutex guards next and prev; NodeMutex
 * guards the counters, LockType, the descriptor lists, FileSize, DeleteOnClose
 * and FcntlLockSet; DeadNode is set under NodeMutex and read atomically by the
 * list walk; ID, ResourceType and the mutexes never change after creation.
 * NodeDeleteMutex is held shared by every acquisition in progress on the node
 * and exclusively by its destruction. Lock order: ListMutex, NodeDeleteMutex,
 * NodeMutex, IOInfoMutex, a record's mutex.
 */
struct QMELM_RESOURCE_LOCK_S {
  QMELMResLockp next; /* LockList links */
  QMELMResLockp prev;
  QMMemPtr ID;                         /* for a file: the node's own ID member */
  QMLockh NodeMutex;                   /* guards the node's state */
  QMLockh NodeDeleteMutex;             /* shared by acquirers, exclusive for destruction */
  QMMemSize int_nonexclusive;          /* internal non-exclusive holders */
  QMMemSize int_exclusive;             /* internal exclusive holders */
  QMMemSize nointernal_lock;           /* holders without an internal lock */
  QMMemSize ext_nonexclusive;          /* external non-exclusive holders */
  QMMemSize ext_exclusive;             /* external exclusive holders */
  QMMemSize noexternal_lock;           /* holders without an external lock */
  QMMemSize LockType;                  /* the node's current lock type */
  QMMemSize ResourceType;              /* 1: file */
  QMBoolean DeadNode;                  /* closed by its last holder; removed by the next walk */
  uint32_t int_nonshared_nonexclusive; /* non-exclusive holders without QMELM_SHARED */
  QMELMIOInfop Info;                   /* newest I/O record of the node (not owned) */
  uint32_t pad1[2];
  uint64_t pad2[2];
  QMMemPtr pad3[2];
};

typedef struct XVELM_FILELOCK_ID_S {
  QMChar *Filename;       /* the node's own zero-terminated copy of the name */
  char *NarrowFilename;   /* the name in the target encoding, NUL-padded */
  QMMemSize FilenameLen;  /* QMChars of Filename */
  unsigned long InodeNum; /* from stat; 0 when the file did not exist */
  unsigned long DeviceNum;
  char Volser[6];                /* not used on this platform */
  QMMemSize NFilenameLen;        /* bytes of NarrowFilename without the padding */
  QMMemSize NFilenameNullPadLen; /* 1, 2 or 4: the width of the terminating NUL */
} XVELMFileLockID;

/* The node allocated for a file. */
typedef struct XVELM_FILELOCK_S {
  QMELMResLock CommonLock;
  XVELMFileLockID ID;
  QMIOSize FileSize;
  XVELMFileDescriptorp OpenFileDescriptorList;   /* descriptors in use, one per handle */
  XVELMFileDescriptorp ClosedFileDescriptorList; /* parked descriptors, still open */
  QMBoolean DeleteOnClose;                       /* unlink when the last holder goes */
  QMBoolean FcntlLockSet;                        /* the process holds the record lock */
} XVELMFileLock, *XVELMFileLockp;

/* A descriptor of a node's file; on exactly one of the node's two lists. */
struct XVELM_FILE_DESCRIPTOR_S {
  XVELMFileDescriptorp next;
  XVELMFileDescriptorp prev;
  int fd;                   /* -1 until opened */
  uint32_t openflags;       /* the open(2) flags it was opened with */
  uint32_t permissionsmask; /* the creation mode it was opened with */
};

typedef struct QMELM_LPUBLIC_S {
  QMMemPtr ResourceHandle; /* for a file: the handle's XVELMFileHandle */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} QMELMLPublic;

typedef struct QMELM_LPRIVATE_S {
  char HandleName[23];     /* "QM Resource Lock Handle", no terminator inside */
  QMELMExtensionp ExtHndl; /* the extension */
  QMPoolh Pool;            /* the pool the handle came from */
  QMELMResLockp ResLock;   /* the resource node */
  QMMemSize LockType;      /* the bits this handle holds */
  QMMemSize ResourceType;  /* 1: file */
} QMELMLPrivate;

/* The lock handle returned to the caller. */
typedef struct QMELM_LOCK_HANDLE_S {
  QMGeneric generic; /* "nevo"; name points at Private.HandleName; destroy null */
  QMELMLPublic Public;
  QMELMLPrivate Private;
} QMELMLHndl, *QMELMLHndlp;

/* What LockGet really allocates for a file. */
typedef struct XVELM_LOCK_HANDLE_S {
  QMELMLHndl Common;
  QMELMExtensionp ExtensionHndl; /* the extension again */
  XVELMFileDescriptorp FDP;      /* the descriptor record this handle uses */
  uint32_t Flags;                /* copied from the request's Flags */
} XVELMLHndl, *XVELMLHndlp;

/* The caller's view of its descriptor: filled by LockGet. */
typedef struct XVELM_FILELOCK_FILEHANDLE_S {
  int FileDescriptor;
  QMIOSize FileSize;
} XVELMFileHandle;

/* The caller's parameters of a file lock (lockParms). */
typedef struct XVELM_FILELOCK_PARMS_S {
  QMChar *Filename;           /* in: the file name (not terminated) */
  QMMemSize FilenameLen;      /* in: QMChars of Filename */
  QMMemSize AcquiredLockType; /* out: the type granted; 0 after any failure */
  char *Volser;               /* not used on this platform */
  uint32_t PermissionsMask;   /* in: mode of a created file */
  uint32_t OpenFlags;         /* in: open(2) flags */
  uint32_t Flags;             /* in: QMELM_FLAG_DELETE_ON_CLOSE */
  int Errno;                  /* out: errno of a failed system call */
  int LockerPID;              /* out: the process holding a conflicting record lock */
  int SystemID;               /* out: its system; 0 on this platform */
  uint32_t enc_pathname;      /* in: encoding of the name for the OS; 0: the OS's own */
  QMMemPtr pad1[2];
  uint64_t pad2[2];
  uint32_t pad3[2];
} XVELMFileLockParms;

/* ---- the extension ---------------------------------------------------- */

typedef struct QMELM_FUNCTIONS_S {
  QMELMLHndlp (*LockGet)(QMELMExtensionp ext, QMMemPtr lockParms, QMMemSize resType,
                         QMMemSize lockType, QMJnlh jnl, int *qmrc);
  int (*LockRelease)(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl);
  int (*LockChange)(QMELMLHndlp lock, QMMemPtr lockParms, QMMemSize newLockType, QMJnlh jnl);
  int (*SetLockOption)(QMELMExtensionp ext, QMELMSetOptionParms *parms, QMJnlh jnl);
  int (*GetLockOptions)(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl);
  int (*ReleaseLockOptions)(QMELMExtensionp ext, QMELMGetOptionsParms *parms, QMJnlh jnl);
  int (*MatchOption)(QMELMExtensionp ext, QMELMMatchOptionParms *parms, QMJnlh jnl);
  int (*ReleaseMatch)(QMELMExtensionp ext, QMELMMatchOptionParms *parms, QMJnlh jnl);
  int (*UpdateIOInfo)(QMELMLHndlp lock, QMELMIOStats *parms, QMJnlh jnl);
  int (*ResetIOInfo)(QMELMExtensionp ext, QMELMResetIOInfoParms *parms, QMJnlh jnl);
  int (*GetIOInfo)(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMGetIOInfoParms *result,
                   QMJnlh jnl);
  int (*ListIOInfo)(QMELMExtensionp ext, QMELMQueryIOInfoParms *query, QMELMListIOInfoParms *result,
                    QMJnlh jnl);
  int (*ListIOInfoFree)(QMELMExtensionp ext, QMELMListIOInfoParms *toBeFreed, QMJnlh jnl);
  int (*JnlIOInfo)(QMELMExtensionp ext, QMELMJnlIOInfoParms *parms, QMJnlh jnl);
  int (*Emergency)(QMELMExtensionp ext);
  int (*ResourceRegister)(QMELMExtensionp ext, QMMemPtr parms, QMJnlh jnl); /* always null */
  int (*ResourceRelease)(QMELMExtensionp ext, QMMemPtr parms, QMJnlh jnl);  /* always null */
} QMELMFunctions;

/*
 * The extension object. Mutex rules: ListMutex guards LockList;
 * OptionMutex guards Options, NumOptions, NumSlots and NumSlotsLeft and is
 * taken alone; IOInfoMutex guards IOInfo, numIOInfo and the records' links.
 * Every other field is set by the factory and never changes.
 */
struct QMELM_EXTENSION_S {
  QMExtension Common;     /* header; generic.name points at ExtensionName */
  QMPoolh Pool;           /* "qmelm pool": every allocation of the extension */
  QMELMResLockp LockList; /* resource nodes, newest first */
  QMLockh ListMutex;      /* "QMELM Lock Mutex" */
  char ExtensionName[24]; /* "QM Resource Lock Manager", no terminator inside */
  QMMemPtr pad1[2];       /* zero: also ends ExtensionName as a string */
  uint64_t pad2[2];
  uint32_t pad3[2];
  QMELMFunctions Functions;  /* the entries */
  QMNLSPipelineh toOS;       /* QMChar text to the OS encoding */
  QMNLSPipelineh fromOS;     /* the OS encoding to QMChar text */
  QMExtensionh qmioeh;       /* the loaded "qmioe" extension */
  QMLockh OptionMutex;       /* "QMELM Option Mutex" */
  QMELMLockOptions *Options; /* slot array; the first NumOptions slots in use, sorted */
  QMMemSize NumOptions;
  QMMemSize NumSlots;
  QMMemSize NumSlotsLeft; /* NumSlots - NumOptions */
  QMLockh IOInfoMutex;    /* "QMELM IO Info Mutex" */
  QMELMIOInfop IOInfo;    /* I/O records, newest first */
  QMMemSize numIOInfo;
};

/* The file-resource view of the extension object. */
typedef struct XVELM_EXTENSION_S {
  QMELMExtension Common;
} XVELMExtension;

/* ---- entry points ----------------------------------------------------- */

/*
 * Every entry below is also a slot of ext->Functions (the factory, destroy
 * and the version answers are in ext->Common) and is documented once, here.
 * Conventions that hold for all of them unless an entry says otherwise:
 *
 * - Threads: any thread may call any entry at any time between the factory
 *   and destroy; no call waits for another holder of a lock. A handle made
 *   before fork() does nothing in the child (QMELM_E_FORKED_HANDLE).
 * - Journals: jnl may be null. A failure is journaled to it once, at
 *   severity 4 (QMSeverityError); without a journal nothing is allocated for
 *   messages. For LockGet, LockChange and LockRelease the environment
 *   variable QMELM_DEBUG_VERBOSE_ERRORS, when set, sends the messages to the
 *   host's own journal (hndl->qmjnl) when jnl is null.
 * - Memory: everything the extension hands out comes from its pool and stays
 *   valid until the entry named for giving it back, or until destroy.
 * - Statuses: 0 is success; the codes are those of qmelmmsg.h and, passed on
 *   unchanged, the host's (qmtypes.h: QM_E_*).
 */

/**
 * @brief The factory: builds the lock manager for a host.
 *
 * The host's loader calls it once it has checked qmextent and qmextver.
 * It makes the pool "qmelm pool" and the object in it, the mutexes, the
 * transcoding pipelines, loads "qmioe", and seeds the option table with
 * "/" -> QMELM_Fail.
 * @param[in] hndl The host kernel handle; it must outlive the extension.
 * @param[in] jnl  A journal for the factory's failures, or null.
 * @return The extension (a QMELMExtension), the caller's until destroy; or
 *         null: QMELM_E_CREATE_FAILED journaled when the pool or the object
 *         could not be made, otherwise the failing host call's status is in
 *         hndl->lastStatus() (a mutex, a pipeline, qmioe not loadable).
 *         Whatever was made before a failure is given back.
 * Threads: one call per extension object; several objects may live at once.
 */
QM_EXPORT QMExtensionh qmelm(QMHndlp hndl, QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief Destroys the extension and everything allocated in its pool.
 *
 * Resets the I/O records, closes the descriptors of every node still alive
 * (dropping their record locks), forgets the handles not released (a later
 * LockRelease or LockChange of one answers QMELM_E_DEAD_NODE without touching
 * freed memory, also after the host has dropped its last reference to the
 * library: libqmelm.so stays loaded in the process once it was loaded),
 * unloads qmioe, and destroys the pool. Snapshots, matches and I/O lists not
 * yet given back go with the pool. A null ext returns QMELM_E_NULL_EXTENSION.
 * @param[in] ext The extension; not to be used afterwards.
 * @return 0, or QMELM_E_NULL_EXTENSION.
 * Threads: no other call on ext may run or follow.
 */
QM_EXPORT QMStatus qmelmdestroy(QMExtensionh ext) QM_NOEXCEPT;

/**
 * @brief The interface versions: the host's that the lock manager requires
 *        (7.1.1), and its own (7.2.1).
 * @param[in]  ext   Not used (may be null).
 * @param[out] a,b,c The version's three numbers; none may be null.
 * @return 0. Any thread.
 */
QM_EXPORT QMStatus qmelmgetreqversion(QMExtensionh ext, int *a, int *b, int *c) QM_NOEXCEPT;
QM_EXPORT QMStatus qmelmgetversion(QMExtensionh ext, int *a, int *b, int *c) QM_NOEXCEPT;

/**
 * @brief The loader entries, called before the factory: both remember the
 *        host handle (for the clock); qmextver reports the loader interface
 *        7.1 in *major and *minor (neither may be null).
 * @return 0.
 */
QM_EXPORT QMStatus qmextent(QMHndlp hndl) QM_NOEXCEPT;
QM_EXPORT QMStatus qmextver(QMHndlp hndl, int *major, int *minor) QM_NOEXCEPT;

/**
 * @brief LockGet: locks a file for the caller, at once or not at all.
 *
 * The internal part of lockType is arbitrated between the holders of this
 * process by counts; the external part is the process's one fcntl record
 * lock on the whole file (F_SETLK, never F_SETLKW). A type without an option
 * bit and without QMELM_NOEXTERNAL_LOCK takes the option the table matches
 * for the file. Two names of one file are two resources here, but the
 * process's record lock on the file is shared by both, and the strongest any
 * of them needs is held.
 * @param[in]     ext       The extension.
 * @param[in,out] lockParms An XVELMFileLockParms. In: Filename (not
 *        terminated; copied, so it need not outlive the call), FilenameLen,
 *        OpenFlags and PermissionsMask (as for open(2); the descriptor is made
 *        close-on-exec), Flags, enc_pathname. Out: AcquiredLockType (the
 *        type granted, option bit included; 0 after any failure), Errno (the
 *        failed system call's errno), LockerPID and SystemID (the holder of a
 *        conflicting record lock: its PID, or -1 for an open-file-description
 *        lock). The out fields are cleared first.
 * @param[in]  resType  QMELM_RESOURCE_FILE (1).
 * @param[in]  lockType The lock type (QMELM_INT_*, QMELM_EXT_*, ...).
 * @param[in]  jnl      A journal, or null.
 * @param[out] qmrc     The status; must not be null (the call is refused,
 *                      and journaled, when it is).
 * @return The handle, the caller's until LockRelease frees it (also on a
 *         failed release); its Public.ResourceHandle is an XVELMFileHandle
 *         whose FileDescriptor is the lock's descriptor: the lock manager's,
 *         never to be closed by the caller (closing any descriptor of the file
 *         drops the process's record locks on it). Null on failure, with
 *         *qmrc one of:
 *   - QMELM_E_BAD_RESOURCE_TYPE, QMELM_E_NULL_PARMS (lockParms null),
 *     QMELM_E_INVALID_LOCKTYPE, QMELM_E_NAME_HAS_NUL (the name holds U+0000:
 *     nothing is opened), QMELM_E_NO_MEMORY, QMELM_E_LOCKGET_SETUP (no
 *     pipeline for enc_pathname), a host status (transcoding, mutexes);
 *   - held by another holder of this process: QMELM_E_INT_LOCKED_EXCLUSIVE,
 *     QMELM_E_INT_LOCKED_SHARED, QMELM_E_INT_SHARE_CONFLICT;
 *   - held by another process: QMELM_E_EXT_LOCKED_EXCLUSIVE (it holds a write
 *     lock), QMELM_E_EXT_LOCKED_SHARED (a read lock, and an exclusive lock
 *     was asked for), QMELM_E_EXT_LOCK_FAILED (the holder went away, or the
 *     file was replaced between its open and its lock: Errno EAGAIN; or the
 *     record lock failed otherwise: Errno says why);
 *   - the open failed: QMELM_E_FILE_NOT_FOUND, QMELM_E_PATH_NOT_FOUND,
 *     QMELM_E_ACCESS_DENIED, QMELM_E_FILE_EXISTS, QMELM_E_TOO_MANY_FILES,
 *     QMELM_E_OS_NO_MEMORY, QMELM_E_EXT_LOCK_FAILED (ETXTBSY),
 *     QMELM_E_OPEN_FAILED (any other errno), with Errno set.
 * A failed request leaves no handle and no lock taken (a resource node made
 * for it is removed by a later request).
 */
QM_EXPORT QMELMLHndlp qmelmlockget(QMELMExtensionp ext, QMMemPtr lockParms, QMMemSize resType,
                                   QMMemSize lockType, QMJnlh jnl, int *qmrc) QM_NOEXCEPT;

/**
 * @brief LockRelease: ends a handle and frees it.
 *
 * The last holder of a resource closes its descriptors (dropping the record
 * lock, unless another name of the file still needs it) and, when Flags of
 * this release asks for it, deletes the file. When the last exclusive
 * external holder leaves non-exclusive ones, the record lock becomes a read
 * lock. A handle is recognised by its address alone: once a later LockGet
 * has been given the same memory, a stale copy of the old handle is that
 * new handle, so a handle must not be used after its release.
 * @param[in]     lock      The handle; freed by this call, whatever the
 *                          status, except for QMELM_E_NULL_HANDLE,
 *                          QMELM_E_DEAD_NODE, QMELM_E_FORKED_HANDLE and a
 *                          status of the node's mutex (it stays the
 *                          caller's, unchanged).
 * @param[in,out] lockParms An XVELMFileLockParms or null. In: Flags
 *        (QMELM_FLAG_DELETE_ON_CLOSE: the last releaser's wish decides),
 *        Filename and FilenameLen for messages. Out, when the downgrade is
 *        refused: Errno, LockerPID, SystemID.
 * @param[in] jnl A journal, or null.
 * @return 0; QMELM_E_NULL_HANDLE; QMELM_E_DEAD_NODE (released already, or
 *         its extension destroyed); QMELM_E_FORKED_HANDLE (made before this
 *         process was forked); QMELM_E_EXT_LOCK_FAILED (the downgrade to a
 *         read lock was refused; 0 instead when the type has
 *         QMELM_OPT_CONTINUE); QMELM_E_CLOSE_FAILED; QMELM_E_UNLINK_FAILED;
 *         or a pool or mutex status.
 */
QM_EXPORT int qmelmlockrelease(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief LockChange: changes a held lock's type: exclusive to non-exclusive
 *        and back, shared or not, internally and externally.
 *
 * The counts are changed on copies and committed, with the record lock, only
 * when every step succeeded: a refused change leaves the handle, its node
 * and the record lock as they were. Only the internal and external parts can
 * change (not the option bits, QMELM_NOINTERNAL_LOCK or QMELM_NOEXTERNAL_LOCK,
 * nor a part the handle was granted as "no lock").
 * @param[in]     lock        A live handle of this process.
 * @param[in,out] lockParms   An XVELMFileLockParms, not null. In: OpenFlags
 *        (a descriptor of that access mode is taken when it differs from the
 *        handle's: a parked one with equal flags, or a new open with
 *        PermissionsMask); Filename and FilenameLen for messages. Out:
 *        AcquiredLockType (the new type; 0 after a failure), and on a refused
 *        record lock Errno, LockerPID, SystemID as for LockGet.
 * @param[in]     newLockType The type asked for.
 * @param[in]     jnl         A journal, or null.
 * @return 0; QMELM_E_NULL_HANDLE; QMELM_E_NULL_PARMS; QMELM_E_DEAD_NODE;
 *         QMELM_E_FORKED_HANDLE; QMELM_E_INVALID_LOCKTYPE;
 *         QMELM_E_CHANGE_NOT_ALLOWED; an internal conflict
 *         (QMELM_E_INT_LOCKED_EXCLUSIVE, _INT_LOCKED_SHARED,
 *         _INT_SHARE_CONFLICT); an open status of LockGet; QMELM_E_NO_MEMORY;
 *         a refused record lock (QMELM_E_EXT_LOCKED_EXCLUSIVE, _SHARED,
 *         _EXT_LOCK_FAILED; with QMELM_OPT_CONTINUE in the type an
 *         undetermined refusal commits instead); or a mutex status.
 * Threads: any, but one handle is changed or released by one thread at a time.
 */
QM_EXPORT int qmelmlockchange(QMELMLHndlp lock, QMMemPtr lockParms, QMMemSize newLockType,
                              QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief SetLockOption: stores parms->option for a path, or with QMELM_Reset
 *        removes the path's entry and every entry below it.
 *
 * The table's key is the full path qmioe resolves (absolute, ".", ".." and
 * repeated slashes resolved, no symbolic links followed). A second set of
 * one full path changes only its option. Resetting "/" (or a null path)
 * leaves exactly "/" -> QMELM_Fail; a partial reset never removes "/".
 * @param[in] ext   The extension.
 * @param[in] parms In: path (null: "/"; copied), pathlen, option,
 *                  enc_pathname. Not changed.
 * @param[in] jnl   A journal, or null.
 * @return 0; QMELM_E_NULL_PARMS; QMELM_E_INVALID_OPTION (not Fail, None,
 *         Continue or Reset); QMELM_E_OPTION_NOT_FOUND (a reset that matched
 *         nothing; journaled at severity 2); QMELM_E_NO_MEMORY; qmioe's status
 *         when the path cannot be resolved (QM_E_BAD_PATH, QM_E_UNMAPPABLE,
 *         ...); or a pool status.
 */
QM_EXPORT int qmelmsetlockoption(QMELMExtensionp ext, QMELMSetOptionParms *parms,
                                 QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief GetLockOptions: a deep copy of the option table, in table order,
 *        made under the table's mutex (one consistent state).
 * @param[in]  ext   The extension.
 * @param[out] parms optionTable (an array of NumOptions entries, each with
 *                   its own strings) and NumOptions; the caller's until
 *                   ReleaseLockOptions. Unchanged on failure.
 * @param[in]  jnl   A journal, or null.
 * @return 0; QMELM_E_NULL_PARMS; QMELM_E_NO_MEMORY (what was copied so far
 *         stays in the pool until destroy).
 */
QM_EXPORT int qmelmgetlockoptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms,
                                  QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief ReleaseLockOptions: frees a snapshot of GetLockOptions.
 * @param[in] parms The snapshot; its fields are not cleared, so it must not
 *                  be released twice.
 * @return 0; QMELM_E_NO_OPTIONS (null parms, null table or NumOptions 0:
 *         nothing is freed); or the status of the first free that failed
 *         (the rest is not freed).
 * Threads: any; takes no mutex (the snapshot is the caller's alone).
 */
QM_EXPORT int qmelmreleaselockoptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms,
                                      QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief MatchOption: the option that governs a path: that of the entry whose
 *        full path is the longest directory prefix of the path's full path
 *        ("/a" governs "/a/b", not "/ab"), or the root's.
 * @param[in,out] parms In: path (required), pathlen (non-zero),
 *        enc_pathname. Out: option (QMELM_Unknown until a match is made),
 *        fullpath (the resolved path) and matchpath/matchpathlen (the
 *        entry's full path), both pool copies, the caller's until
 *        ReleaseMatch. fullpathlen is never written.
 * @return 0; QMELM_E_NULL_PARMS; QMELM_E_NO_PATH; QMELM_E_NO_MEMORY;
 *         qmioe's status when the path cannot be resolved. After a failure
 *         the copies made so far are still in parms: give them back with
 *         ReleaseMatch too.
 */
QM_EXPORT int qmelmmatchoption(QMELMExtensionp ext, QMELMMatchOptionParms *parms,
                               QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief ReleaseMatch: gives back the copies MatchOption made (whichever are
 *        not null) and clears them, so a second call frees nothing.
 * @return 0; QMELM_E_NULL_PARMS; or the failing free's status (the second's
 *         when both fail). Takes no mutex.
 */
QM_EXPORT int qmelmreleasematch(QMELMExtensionp ext, QMELMMatchOptionParms *parms,
                                QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief UpdateIOInfo: adds an increment to the newest I/O record of the
 *        handle's file (nothing when the host keeps none: iobytecount 1 or
 *        less).
 * @param[in] lock  A live handle.
 * @param[in] parms The increment; its version is not read and negative
 *                  values are added as they are.
 * @param[in] jnl   A failure is journaled to it, or null.
 * @return 0; QMELM_E_NULL_HANDLE; QMELM_E_DEAD_NODE (a handle released
 *         already, never handed out, or of a destroyed extension: its memory
 *         is not read); QMELM_E_FORKED_HANDLE (made before this process was
 *         forked: nothing is added); QMELM_E_NULL_PARMS (parms null).
 * Threads: takes only the record's mutex, so updates of different files run
 * in parallel. The handle must not be released while the call runs.
 */
QM_EXPORT int qmelmupdateioinfo(QMELMLHndlp lock, QMELMIOStats *parms, QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief ResetIOInfo: zeroes the counters of the records of open files and
 *        forgets those of closed ones (List entries pointing at their names
 *        become invalid). A file is closed for all its records when its
 *        last holder releases it.
 * @param[in] parms Not read (may be null).
 * @param[in] jnl   A null ext is journaled to it, or null.
 * @return 0; QMELM_E_NULL_EXTENSION (ext null); or the status of the list's
 *         mutex.
 * Threads: the only I/O call that waits for others: once the closed records
 * are off the list, and holding no mutex, it waits until every JnlIOInfo and
 * unlocked query that was walking the list has ended (a report writing to a
 * journal that blocks keeps it waiting that long). Nothing else waits for it.
 */
QM_EXPORT int qmelmresetioinfo(QMELMExtensionp ext, QMELMResetIOInfoParms *parms,
                               QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief GetIOInfo: adds up the I/O records that query selects into result
 *        (see QMELMQueryIOInfoParms for the selection).
 * @param[in]     query  The selection; a file or directory path is resolved
 *                       through qmioe first.
 * @param[in,out] result numEntries and totals are added to, never reset: the
 *                       caller zeroes them first.
 * @return 0 (also, touching nothing, when there is no record at all);
 *         QMELM_E_NULL_EXTENSION (ext null); QMELM_E_NULL_PARMS (query or result null); qmioe's
 * status when the path cannot be resolved (QM_E_UNMAPPABLE for a character enc_pathname cannot
 * hold, QM_E_BAD_PATH, ...), with nothing added; or the status of giving the resolved path back,
 * after the totals were added. Failures are journaled when jnl is given. Threads: with
 * query->lockRequest the walk holds the list's mutex and each matching record's, and so waits for
 * updates, resets and acquisitions in progress; without it no mutex is taken and the totals may be
 * mid-update.
 */
QM_EXPORT int qmelmgetioinfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query,
                             QMELMGetIOInfoParms *result, QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief ListIOInfo: one entry per selected I/O record, newest first.
 * @param[in]     query  As for GetIOInfo.
 * @param[in,out] result list receives a new array (the previous pointer is
 *        overwritten, not freed) with room for every record listed when the
 *        walk began; the matches fill it from entry 0 and numEntries is
 *        incremented once per match. The array is the caller's until
 *        ListIOInfoFree; its entries' filename pointers are the records' own
 *        (valid until a reset forgets the record).
 * @return As GetIOInfo, with no array made when there is no record at all
 *         (list keeps its value); and QMELM_E_NO_MEMORY when the array cannot
 *         be allocated: then nothing is added and no message is journaled;
 *         the list's mutex and the resolved path are given back as on
 *         success.
 */
QM_EXPORT int qmelmlistioinfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query,
                              QMELMListIOInfoParms *result, QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief ListIOInfoFree: gives toBeFreed->list back to the extension's pool;
 *        list and numEntries keep their values. A null list is nothing to free.
 * @return 0; the pool's status (QM_E_BAD_FREE for an array given back
 *         twice); or QMELM_E_NULL_EXTENSION (null ext) or QMELM_E_NULL_PARMS
 *         (null toBeFreed), journaled.
 */
QM_EXPORT int qmelmlistioinfofree(QMELMExtensionp ext, QMELMListIOInfoParms *toBeFreed,
                                  QMJnlh jnl) QM_NOEXCEPT;

/**
 * @brief JnlIOInfo: writes every I/O record to jnl at severity 2
 *        (QMSeverityNote): QMELM_M_IOINFO_HEADER with the number of records,
 *        then per record, newest first, QMELM_M_IOINFO_FILE (name), _FLAGS
 *        (the open flags as a number and as text such as " O_RDWR |  O_CREAT
 *        | "), _TIMES (open and close time in parms->locale, "File remains
 *        open" for an open file), _READS, _WRITES and _SEEKS.
 * @param[in,out] parms locale: the locale the times are written in; when
 *                      null, the host's default locale is stored there (the
 *                      host owns it).
 * @param[in]     jnl   The journal to write to (required).
 * @return The status of the last journal call (0 when all went well);
 *         QMELM_E_NO_JOURNAL for a null jnl, or QMELM_E_NULL_EXTENSION (null
 *         ext) or QMELM_E_NULL_PARMS (null parms), journaled, with nothing
 *         written.
 * Threads: no mutex is taken: it runs while other threads hold the list or a
 * record, and may show a record mid-update; records are never freed under it.
 */
QM_EXPORT int qmelmjnlioinfo(QMELMExtensionp ext, QMELMJnlIOInfoParms *parms,
                             QMJnlh jnl) QM_NOEXCEPT;

/** @brief Emergency: the host's call in an emergency; nothing to do. @return 0. */
QM_EXPORT int qmelmemergency(QMELMExtensionp ext) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMELM_H */
