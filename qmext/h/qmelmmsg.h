/*
 * qmelmmsg.h - the lock manager's status codes and message pieces.
 *
 * One list feeds the constants of qmelm.h and the host's message catalogue.
 * Codes 0x803fc0nn belong to the extension frame, 0x80ffe0nn to the lock
 * manager's operations. Codes named _M_ are pieces: they are only rendered
 * into composed messages, never returned. A composed message is the text of
 * the failure followed by pieces, so every text is written to read well when
 * the next piece follows it directly. Parameters are in printf style: %s is a
 * zero-terminated QMChar string, %d an int, %u an unsigned int, %llu and %lld
 * 64-bit numbers.
 */
#ifndef QMELM_MSG_H
#define QMELM_MSG_H

#define QMELM_STATUS_LIST(X)                                                                    \
  X(QMELM_E_CREATE_FAILED, 0x803fc002u,                                                         \
    "The lock manager could not create its memory pool or its extension object.")               \
  X(QMELM_W_OPTION_NOT_SET, 0x803fc004u, "The initial lock option was not set.")                \
  X(QMELM_E_NO_MEMORY, 0x80ffe001u, "The lock manager ran out of memory in its pool.")          \
  X(QMELM_E_NULL_HANDLE, 0x80ffe002u, "The lock handle passed is null.")                        \
  X(QMELM_E_INVALID_LOCKTYPE, 0x80ffe003u, "The lock type is not valid.")                       \
  X(QMELM_E_BAD_RESOURCE_TYPE, 0x80ffe004u,                                                     \
    "The resource type is not supported: only files (resource type 1) can be locked.")          \
  X(QMELM_E_FILE_NOT_FOUND, 0x80ffe006u, "The file does not exist.")                            \
  X(QMELM_E_PATH_NOT_FOUND, 0x80ffe007u,                                                        \
    "A directory of the file's path does not exist or is not a directory.")                     \
  X(QMELM_E_ACCESS_DENIED, 0x80ffe009u, "Access to the file is denied.")                        \
  X(QMELM_E_LOCKGET_SETUP, 0x80ffe00cu, "The file lock could not be set up.")                   \
  X(QMELM_E_UNLINK_FAILED, 0x80ffe00du, "The file could not be deleted when it was closed.")    \
  X(QMELM_E_OS_NO_MEMORY, 0x80ffe00eu,                                                          \
    "The operating system ran out of memory while opening the file.")                           \
  X(QMELM_E_EXT_LOCKED_SHARED, 0x80ffe00fu, "Another process holds a shared lock on the file.") \
  X(QMELM_E_INT_LOCKED_SHARED, 0x80ffe010u,                                                     \
    "An exclusive lock was refused because other holders in this process share the resource.")  \
  X(QMELM_E_EXT_LOCKED_EXCLUSIVE, 0x80ffe011u,                                                  \
    "Another process holds an exclusive lock on the file.")                                     \
  X(QMELM_E_INT_LOCKED_EXCLUSIVE, 0x80ffe012u,                                                  \
    "Another holder in this process has the resource locked exclusively.")                      \
  X(QMELM_E_EXT_LOCK_FAILED, 0x80ffe013u, "The file lock could not be obtained.")               \
  X(QMELM_E_CHANGE_NOT_ALLOWED, 0x80ffe014u, "The lock type cannot be changed this way.")       \
  X(QMELM_E_TOO_MANY_FILES, 0x80ffe015u, "Too many files are open.")                            \
  X(QMELM_E_INT_SHARE_CONFLICT, 0x80ffe016u,                                                    \
    "Shared and non-shared holders in this process cannot hold the resource together.")         \
  X(QMELM_E_OPEN_FAILED, 0x80ffe017u, "The file could not be opened.")                          \
  X(QMELM_E_CLOSE_FAILED, 0x80ffe018u, "A descriptor of the file could not be closed.")         \
  X(QMELM_E_OPTION_NOT_FOUND, 0x80ffe019u, "No lock option is set for the path to be reset.")   \
  X(QMELM_E_NO_PATH, 0x80ffe01au, "No path was given to match against the lock options.")       \
  X(QMELM_E_NO_OPTIONS, 0x80ffe01bu, "There is no lock option snapshot to release.")            \
  X(QMELM_E_INVALID_OPTION, 0x80ffe01du,                                                        \
    "The lock option is not valid: it must be Fail, None or Continue.")                         \
  X(QMELM_M_INT_LOCK_CONFLICT, 0x80ffe01fu, " Resource: '")                                     \
  X(QMELM_M_PATH, 0x80ffe020u, " Path: '")                                                      \
  X(QMELM_M_FULLPATH, 0x80ffe021u, "', full path: '")                                           \
  X(QMELM_M_ERRNO, 0x80ffe022u, " Operating-system error %d.")                                  \
  X(QMELM_M_LOCKTYPE_CHANGE, 0x80ffe023u, " Lock type held:%s; lock type requested:%s.")        \
  X(QMELM_M_LOCKTYPE_IS, 0x80ffe024u, " Lock type requested:%s.")                               \
  X(QMELM_M_INT_EXCLUSIVE, 0x80ffe026u, " [internal exclusive]")                                \
  X(QMELM_M_INT_NONEXCLUSIVE, 0x80ffe027u, " [internal non-exclusive]")                         \
  X(QMELM_M_EXT_EXCLUSIVE, 0x80ffe028u, " [external exclusive]")                                \
  X(QMELM_M_EXT_NONEXCLUSIVE, 0x80ffe029u, " [external non-exclusive]")                         \
  X(QMELM_M_SHARED, 0x80ffe02au, " [shared]")                                                   \
  X(QMELM_M_NOEXTERNAL_LOCK, 0x80ffe02bu, " [no external lock]")                                \
  X(QMELM_M_NOINTERNAL_LOCK, 0x80ffe02cu, " [no internal lock]")                                \
  X(QMELM_M_OPT_FAIL, 0x80ffe02du, " [option Fail]")                                            \
  X(QMELM_M_OPT_NONE, 0x80ffe02eu, " [option None]")                                            \
  X(QMELM_M_OPT_CONTINUE, 0x80ffe02fu, " [option Continue]")                                    \
  X(QMELM_M_TRAILER, 0x80ffe030u, "'.")                                                         \
  X(QMELM_E_DEAD_NODE, 0x80ffe031u,                                                             \
    "The lock handle is no longer live: its resource was released by its last holder.")         \
  X(QMELM_E_FILE_EXISTS, 0x80ffe032u, "The file already exists.")                               \
  X(QMELM_M_IOINFO_FILE, 0x80ffe033u, "I/O record of %s")                                       \
  X(QMELM_M_IOINFO_FLAGS, 0x80ffe034u, "  Open flags: %u =%s")                                  \
  X(QMELM_M_IOINFO_TIMES, 0x80ffe035u, "  Opened: %s. Closed: %s.")                             \
  X(QMELM_M_IOINFO_READS, 0x80ffe036u, "  Reads: %lld, bytes read: %lld.")                      \
  X(QMELM_M_IOINFO_WRITES, 0x80ffe037u, "  Writes: %lld, bytes written: %lld.")                 \
  X(QMELM_M_IOINFO_SEEKS, 0x80ffe038u, "  Seeks: %lld.")                                        \
  X(QMELM_M_IOINFO_HEADER, 0x80ffe039u, "I/O statistics report: %llu record(s).")               \
  X(QMELM_E_NO_JOURNAL, 0x80ffe044u,                                                            \
    "No journal was given to write the I/O statistics report to.")                              \
  X(QMELM_E_NOT_AVAILABLE, 0x80ffe040u,                                                         \
    "This operation of the lock manager is not available in this build.")                       \
  X(QMELM_E_NAME_HAS_NUL, 0x80ffe041u,                                                          \
    "The name contains the character U+0000, or a zero byte in the encoding it is given to "    \
    "the operating system in, which the operating system would take as its end; nothing was "   \
    "opened, created, deleted or set.")                                                         \
  X(QMELM_E_FORKED_HANDLE, 0x80ffe042u,                                                         \
    "The lock handle was made before this process was forked; the process holds no lock "       \
    "through it and nothing was changed.")                                                      \
  X(QMELM_E_NULL_PARMS, 0x80ffe043u, "A required parameter block or status pointer is null.")   \
  X(QMELM_E_NULL_EXTENSION, 0x80ffe045u,                                                        \
    "No lock manager object (or no host, to the factory) was passed; nothing was done.")

#endif /* QMELM_MSG_H */
