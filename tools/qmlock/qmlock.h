// qmlock.h - the faces of the qmlock tool that use the kernel's locks
// directly (run and the flock personality, probe, locks) and what every face
// shares: the exit codes of <sysexits.h>, the version stamp, how a process is
// named. Nothing here needs the lock manager: qmlock links neither the host
// library nor the C++ API (manager.h has the faces that do).
#ifndef QMLOCK_H
#define QMLOCK_H

#include <string>
#include <string_view>

namespace qmlock {

// Exit codes of <sysexits.h>, which flock(1) uses for everything but a
// conflict and the command's own status.
enum Exit : int {
  kExitOk = 0,
  kExitUsage = 64,        // EX_USAGE
  kExitDataErr = 65,      // EX_DATAERR: the lock call failed
  kExitNoInput = 66,      // EX_NOINPUT: the lock file cannot be opened
  kExitUnavailable = 69,  // EX_UNAVAILABLE: the command cannot be executed
  kExitSoftware = 70,     // EX_SOFTWARE
  kExitOsErr = 71,        // EX_OSERR: out of memory, descriptors or locks
  kExitCantCreat = 73,    // EX_CANTCREAT: the lock file cannot be created
  kExitConfig = 78,       // EX_CONFIG: the lock manager cannot be loaded (shell, demo)
};

// qmlock run FILE|DIR COMMAND..., qmlock run FD; with flockName set, the tool
// is util-linux flock(1) under that name (argv[0] of a symbolic link named
// flock): one lock of flock(1)'s kind instead of qmlock run's two.
int runMain(int argc, char **argv, const char *flockName);
int probeMain(int argc, char **argv);
// qmlock locks, and lslocks(8)'s options under that name; name prefixes messages.
int locksMain(int argc, char **argv, const char *name);

// "qmlock (QM Resource Lock Manager) 7.2.1" and the build's stamp.
int printVersion();
// "7.2.1" and the product's name, for flock --version.
std::string versionLine(std::string_view invokedAs);

// The command name of a process (/proc/PID/comm), or empty.
std::string commandOf(int pid);
// "process 4242 (python3)"; "a lock owned by an open file description (no
// process ID)" for -1; "an unknown holder" for 0.
std::string processDescription(int pid);

}  // namespace qmlock

#endif  // QMLOCK_H
