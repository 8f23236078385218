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
 * when set, makes lock get and release report to the host's own journal when
 * the caller passed none.
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

/* The factory: builds the extension for a host, or returns null (journaling
   QMELM_E_CREATE_FAILED to jnl when the pool or the object could not be made). */
QM_EXPORT QMExtensionh qmelm(QMHndlp hndl, QMJnlh jnl) QM_NOEXCEPT;
/* Destroys the extension and everything allocated in its pool; returns 0. */
QM_EXPORT QMStatus qmelmdestroy(QMExtensionh ext) QM_NOEXCEPT;
/* Interface versions: required 7.1.1, own 7.2.1. */
QM_EXPORT QMStatus qmelmgetreqversion(QMExtensionh ext, int *a, int *b, int *c) QM_NOEXCEPT;
QM_EXPORT QMStatus qmelmgetversion(QMExtensionh ext, int *a, int *b, int *c) QM_NOEXCEPT;
/* Loader entries: remember the host handle; qmextver reports 7.1. */
QM_EXPORT QMStatus qmextent(QMHndlp hndl) QM_NOEXCEPT;
QM_EXPORT QMStatus qmextver(QMHndlp hndl, int *major, int *minor) QM_NOEXCEPT;

/*
 * LockGet: locks the file lockParms (an XVELMFileLockParms) names with
 * lockType for the calling host component. resType must be 1. Returns the
 * handle and *qmrc 0, or null with the status in *qmrc and AcquiredLockType 0.
 * Refusals are immediate: QMELM_E_INT_* for holders in this process,
 * QMELM_E_EXT_* (with LockerPID) for other processes.
 */
QM_EXPORT QMELMLHndlp qmelmlockget(QMELMExtensionp ext, QMMemPtr lockParms, QMMemSize resType,
                                   QMMemSize lockType, QMJnlh jnl, int *qmrc) QM_NOEXCEPT;
/* LockRelease: ends a handle (freed here); lockParms may be null. The last
   holder's release closes the file and deletes it when Flags asks for it.
   QMELM_E_NULL_HANDLE, QMELM_E_DEAD_NODE for a handle no longer live. */
QM_EXPORT int qmelmlockrelease(QMELMLHndlp lock, QMMemPtr lockParms, QMJnlh jnl) QM_NOEXCEPT;
QM_EXPORT int qmelmlockchange(QMELMLHndlp lock, QMMemPtr lockParms, QMMemSize newLockType,
                              QMJnlh jnl) QM_NOEXCEPT;
/* SetLockOption: stores parms->option for parms->path (null: "/"), or with
   QMELM_Reset removes the path and every entry below it. */
QM_EXPORT int qmelmsetlockoption(QMELMExtensionp ext, QMELMSetOptionParms *parms,
                                 QMJnlh jnl) QM_NOEXCEPT;
/* GetLockOptions: a deep copy of the table, the caller's until ReleaseLockOptions. */
QM_EXPORT int qmelmgetlockoptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms,
                                  QMJnlh jnl) QM_NOEXCEPT;
QM_EXPORT int qmelmreleaselockoptions(QMELMExtensionp ext, QMELMGetOptionsParms *parms,
                                      QMJnlh jnl) QM_NOEXCEPT;
/* MatchOption: the option of the longest directory prefix of the path's full
   path that has an entry (the root's otherwise); copies until ReleaseMatch. */
QM_EXPORT int qmelmmatchoption(QMELMExtensionp ext, QMELMMatchOptionParms *parms,
                               QMJnlh jnl) QM_NOEXCEPT;
QM_EXPORT int qmelmreleasematch(QMELMExtensionp ext, QMELMMatchOptionParms *parms,
                                QMJnlh jnl) QM_NOEXCEPT;
/* UpdateIOInfo: adds the increments to the newest I/O record of the handle's
   file (nothing when there is none); always 0. */
QM_EXPORT int qmelmupdateioinfo(QMELMLHndlp lock, QMELMIOStats *parms, QMJnlh jnl) QM_NOEXCEPT;
/* ResetIOInfo: zeroes the records of open files and forgets closed ones; 0. */
QM_EXPORT int qmelmresetioinfo(QMELMExtensionp ext, QMELMResetIOInfoParms *parms,
                               QMJnlh jnl) QM_NOEXCEPT;
/*
 * GetIOInfo: adds up the I/O records that query selects into result (see
 * QMELMQueryIOInfoParms for the selection). With no record at all it returns
 * 0 at once and touches nothing. A file or directory path is resolved through
 * qmioe first. With query->lockRequest the walk holds the list's mutex and
 * each matching record's, and so waits for updates, resets and acquisitions
 * in progress; without it no mutex is taken and the totals may be mid-update.
 * Any thread may call it. Returns 0; QMELM_E_NULL_PARMS (query or result
 * null); qmioe's status when the path cannot be resolved (QM_E_UNMAPPABLE
 * for a character enc_pathname cannot hold, QM_E_BAD_PATH, ...), with nothing
 * added; or the status of giving the resolved path back, after the totals
 * were added. Failures are journaled to jnl (severity 4) when given.
 */
QM_EXPORT int qmelmgetioinfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query,
                             QMELMGetIOInfoParms *result, QMJnlh jnl) QM_NOEXCEPT;
/*
 * ListIOInfo: one entry per selected I/O record, newest first, in a new
 * array stored in result->list (the previous pointer is overwritten, not
 * freed). The array has room for every record listed when the walk began and
 * the matches fill it from entry 0; result->numEntries is incremented once
 * per match. With no record at all it returns 0 and allocates nothing (list
 * keeps its value). Selection, locking, threads and the statuses of path
 * resolution are those of GetIOInfo; in addition QMELM_E_NO_MEMORY when the
 * array cannot be allocated. That failure returns at once, without a message
 * and without undoing anything: with lockRequest the list's mutex stays held
 * by the calling thread (which must release ext->IOInfoMutex itself before
 * any further I/O statistics call), and the resolved path stays with qmioe
 * until the extension goes.
 */
QM_EXPORT int qmelmlistioinfo(QMELMExtensionp ext, QMELMQueryIOInfoParms *query,
                              QMELMListIOInfoParms *result, QMJnlh jnl) QM_NOEXCEPT;
/* ListIOInfoFree: gives toBeFreed->list back to the extension's pool; list
   and numEntries keep their values. A null list is nothing to free: 0.
   Returns 0, the pool's status (QM_E_BAD_FREE for an array given back
   twice), or QMELM_E_NULL_PARMS (journaled) for a null toBeFreed. */
QM_EXPORT int qmelmlistioinfofree(QMELMExtensionp ext, QMELMListIOInfoParms *toBeFreed,
                                  QMJnlh jnl) QM_NOEXCEPT;
/*
 * JnlIOInfo: writes every I/O record to jnl at severity 2 (QMSeverityNote):
 * QMELM_M_IOINFO_HEADER with the number of records, then per record, newest
 * first, QMELM_M_IOINFO_FILE (name), _FLAGS (the open flags as a number and
 * as text such as " O_RDWR | O_CREAT | "), _TIMES (open and close time in
 * parms->locale, "File remains open" for an open file), _READS, _WRITES and
 * _SEEKS. No mutex is taken: it runs while other threads hold the list or a
 * record, and may show a record mid-update; records are never freed under
 * it. Any thread may call it. Returns the status of the last journal call
 * (0 when all went well); QMELM_E_NO_JOURNAL for a null jnl, or
 * QMELM_E_NULL_PARMS (journaled) for null parms, with nothing written.
 */
QM_EXPORT int qmelmjnlioinfo(QMELMExtensionp ext, QMELMJnlIOInfoParms *parms,
                             QMJnlh jnl) QM_NOEXCEPT;
/* Emergency: nothing to do; 0. */
QM_EXPORT int qmelmemergency(QMELMExtensionp ext) QM_NOEXCEPT;

QM_EXTERN_C_END

#endif /* QMELM_H */
