// qmlock: file locks from the command line. One face per first argument
// (run, probe, locks, shell, demo); invoked under the name "flock" (a
// symbolic link) it is util-linux flock(1), under "lslocks" it lists locks
// with lslocks(8)'s options. run, probe and locks use the kernel's locks
// directly; shell and demo drive the lock manager. This file dispatches and
// holds what the faces share.
#include "qmlock.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "qmversion.h"

namespace qmlock {

namespace {

// Where a library built and installed beside libqmhost.so is: its full
// path there, as the host finds the extensions, or else its name alone.
// (A sanitizer's dlopen interceptor searches without qmlock's run path.)
std::string besideTheHost(const char *name) {
  std::string path = name;
  // The program's own scope: libqmhost.so is loaded under its SONAME
  // (libqmhost.so.N), so looking it up by "libqmhost.so" would not find it.
  if (void *host = dlopen(nullptr, RTLD_LAZY)) {
    Dl_info info{};
    void *entry = dlsym(host, "qmhost_create");
    if (entry != nullptr && dladdr(entry, &info) != 0 && info.dli_fname != nullptr) {
      const std::string lib = info.dli_fname;
      const size_t slash = lib.rfind('/');
      if (slash != std::string::npos) path = lib.substr(0, slash + 1) + name;
    }
    dlclose(host);
  }
  return path;
}

// The build's version stamp. It lives in libqmhostcm.so, which qmlock loads
// only to print it: linked, it would be loaded by every `qmlock run`, which
// never calls it, at a cost of a few percent of a run.
bool versionStamp(QMVersionRecord &v) {
  void *lib = dlopen(besideTheHost("libqmhostcm.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) return false;
  auto *stamp = reinterpret_cast<QMStatus (*)(QMVersionRecord *)>(dlsym(lib, "qmzversion"));
  const bool ok = stamp != nullptr && stamp(&v) == 0;
  dlclose(lib);  // the record holds no pointer into the library
  return ok;
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

std::string commandOf(int pid) {
  if (pid <= 0) return {};
  const std::string path = "/proc/" + std::to_string(pid) + "/comm";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  char buf[64];
  const ssize_t n = read(fd, buf, sizeof buf);
  close(fd);
  std::string comm(buf, n > 0 ? static_cast<size_t>(n) : 0);
  while (!comm.empty() && comm.back() == '\n') comm.pop_back();
  return comm;
}

std::string processDescription(int pid) {
  if (pid == -1) return "a lock owned by an open file description (no process ID)";
  if (pid <= 0) return "an unknown holder";
  const std::string comm = commandOf(pid);
  return "process " + std::to_string(pid) + (comm.empty() ? "" : " (" + comm + ")");
}

std::string holderDescription(const elm::Result &r) {
  switch (r.status()) {
    case QMELM_E_INT_LOCKED_EXCLUSIVE:
      return "another thread of this process holds it exclusively";
    case QMELM_E_INT_LOCKED_SHARED:
      return "another thread of this process holds it non-exclusively";
    case QMELM_E_INT_SHARE_CONFLICT:
      return "another thread of this process holds it (shared and non-shared holders cannot mix)";
    case QMELM_E_EXT_LOCKED_EXCLUSIVE:
      return processDescription(r.locker_pid()) + " holds a write lock";
    case QMELM_E_EXT_LOCKED_SHARED:
      return processDescription(r.locker_pid()) + " holds a read lock";
    default:
      if (r.locker_pid() != 0) return processDescription(r.locker_pid()) + " holds a lock";
      return "its holder went away or the file was replaced while it was being locked";
  }
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
  if (face == "shell") return shellMain(argc - 1, argv + 1);
  if (face == "demo") return demoMain(argc - 1, argv + 1);
  std::fprintf(stderr, "qmlock: unknown command '%s'\n", argv[1]);
  usage(stderr);
  return kExitUsage;
}
