// qmlock: file locks from the command line. One face per first argument
// (run, probe, locks, shell, demo); invoked under the name "flock" (a
// symbolic link) it is util-linux flock(1), under "lslocks" it lists locks
// with lslocks(8)'s options. run, probe and locks use the kernel's locks
// directly and live in this executable, which links neither the host
// library nor the C++ API, so that a `qmlock run` starts as fast as a C
// program. shell and demo drive the lock manager: they are the helper
// qmlock-manager, which qmlock execs, found beside qmlock (a build tree) or
// in the libexec directory it is installed to. This file dispatches and
// finds what qmlock loads or runs only on request.
#include "qmlock.h"

#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "qmversion.h"

// Where the helper and the libraries are, relative to the directory of the
// qmlock executable: in an installation (bin/ to libexec/qmelm, bin/ to
// lib/) and in the build tree (the helper beside qmlock, bin/ to lib/).
#ifndef QMLOCK_HELPER_FROM_BIN
#define QMLOCK_HELPER_FROM_BIN "../libexec/qmelm"
#endif
#ifndef QMLOCK_LIB_FROM_BIN
#define QMLOCK_LIB_FROM_BIN "../lib"
#endif
#ifndef QMLOCK_BUILD_LIB_FROM_BIN
#define QMLOCK_BUILD_LIB_FROM_BIN "../lib"
#endif

namespace qmlock {

namespace {

// The directory of the qmlock executable, with a trailing slash (empty when
// /proc/self/exe cannot be read). Symbolic links are resolved: invoked as
// libexec/qmelm/flock, it is bin/.
std::string ownDirectory() {
  char exe[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return {};
  const std::string path(exe, static_cast<size_t>(n));
  return path.substr(0, path.rfind('/') + 1);
}

// The build's version stamp. It lives in libqmhostcm.so, which qmlock loads
// only to print it, by its path: installed, the library directory is where
// the installation put it relative to bin/; in a build tree, where the build
// put the libraries.
bool versionStamp(QMVersionRecord &v) {
  const std::string dir = ownDirectory();
  void *lib = nullptr;
  for (const char *rel : {QMLOCK_LIB_FROM_BIN, QMLOCK_BUILD_LIB_FROM_BIN}) {
    lib = dlopen((dir + rel + "/libqmhostcm.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (lib != nullptr) break;
  }
  if (lib == nullptr) return false;
  auto *stamp = reinterpret_cast<QMStatus (*)(QMVersionRecord *)>(dlsym(lib, "qmzversion"));
  const bool ok = stamp != nullptr && stamp(&v) == 0;
  dlclose(lib);  // the record holds no pointer into the library
  return ok;
}

// shell and demo: replaces qmlock by the helper, with the same command line.
// The helper is looked for beside qmlock, then in the libexec directory.
int runHelper(char **argv) {
  const std::string dir = ownDirectory();
  std::string tried;
  int err = ENOENT;
  for (const std::string &where : {dir, dir + QMLOCK_HELPER_FROM_BIN + "/"}) {
    const std::string path = where + "qmlock-manager";
    execv(path.c_str(), argv);
    if (errno != ENOENT || tried.empty()) {
      err = errno;
      tried = path;
    }
  }
  std::fprintf(stderr, "qmlock: cannot run %s, which drives the lock manager: %s\n", tried.c_str(),
               std::strerror(err));
  return kExitConfig;
}

}  // namespace

std::string versionLine(std::string_view invokedAs) {
  QMVersionRecord v{};
  if (!versionStamp(v)) return std::string(invokedAs) + " from qmlock";
  return std::string(invokedAs) + " from " + v.product + " " + v.buildVersion;
}

int printVersion() {
  QMVersionRecord v{};
  if (!versionStamp(v)) {
    std::fprintf(stderr, "qmlock: cannot read the version stamp: %s\n", dlerror());
    return kExitSoftware;
  }
  std::printf("qmlock (%s) %s\n", v.product, v.buildVersion);
  std::printf("  lock manager interface %s, requires host interface %s\n", v.interfaceVersion,
              v.requiredInterface);
  std::printf("  source revision %s\n  compiler %s\n  build type %s\n  Unicode %s\n",
              v.sourceRevision, v.compiler, v.buildType, v.unicodeVersion);
  return kExitOk;
}

namespace {

void usage(FILE *out) {
  std::fprintf(out,
               "usage: qmlock run [options] FILE|DIR COMMAND [ARG...]\n"
               "       qmlock run [options] FILE|DIR -c COMMANDLINE\n"
               "       qmlock run [options] FD\n"
               "       qmlock probe [--json] FILE...\n"
               "       qmlock locks [--pid PID] [--json] [DIR...]\n"
               "       qmlock shell [SCRIPT]\n"
               "       qmlock demo\n"
               "       qmlock --version | --help\n"
               "\n"
               "  run    hold a lock on FILE while COMMAND runs, or lock descriptor FD\n"
               "         (flock(1)'s command line; 'qmlock run --help' lists the options\n"
               "         and which locks it takes)\n"
               "  probe  list every lock on each FILE and its holders, taking none\n"
               "  locks  list the locks under each DIR, or of a process\n"
               "  shell  drive every operation of the lock manager, one command a line\n"
               "  demo   show the lock manager at work in a temporary directory\n"
               "\n"
               "Installed or linked under the name 'flock', qmlock behaves as flock(1).\n");
}

}  // namespace

}  // namespace qmlock

int main(int argc, char **argv) {
  using namespace qmlock;
  const char *slash = argc > 0 ? std::strrchr(argv[0], '/') : nullptr;
  const char *invokedAs = argc == 0 ? "qmlock" : slash != nullptr ? slash + 1 : argv[0];
  if (std::strcmp(invokedAs, "flock") == 0) return runMain(argc, argv, invokedAs);
  if (std::strcmp(invokedAs, "lslocks") == 0) return locksMain(argc, argv, invokedAs);

  if (argc < 2) {
    usage(stderr);
    return kExitUsage;
  }
  const std::string_view face = argv[1];
  if (face == "--version" || face == "-V") return printVersion();
  if (face == "--help" || face == "-h") {
    usage(stdout);
    return kExitOk;
  }
  if (face == "run") return runMain(argc - 1, argv + 1, nullptr);
  if (face == "probe") return probeMain(argc - 1, argv + 1);
  if (face == "locks") return locksMain(argc - 1, argv + 1, "qmlock locks");
  if (face == "shell" || face == "demo") return runHelper(argv);
  std::fprintf(stderr, "qmlock: unknown command '%s'\n", argv[1]);
  usage(stderr);
  return kExitUsage;
}
