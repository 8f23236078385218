// qmlock: the lock manager from the command line. For now it runs one
// demonstration: it makes a host, loads the lock manager by name, sets a few
// lock options, prints the table and some matches, locks a scratch file,
// shows how refused requests are journaled, and takes everything down again.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qmelm.h"
#include "qmhost/qmhost.h"
#include "qmversion.h"

namespace {

std::vector<QMChar> wide(const char *s) {
  std::vector<QMChar> out(qmhost_from_utf8(s, nullptr, 0));
  qmhost_from_utf8(s, out.data(), out.size());
  return out;
}

std::string narrow(const QMChar *s, QMStrSize len) {
  std::string out(qmhost_to_utf8(s, static_cast<size_t>(len), nullptr, 0) + 1, '\0');
  qmhost_to_utf8(s, static_cast<size_t>(len), out.data(), out.size());
  out.pop_back();
  return out;
}

const char *optionName(QMELMLockOption o) {
  switch (o) {
    case QMELM_Fail:
      return "Fail";
    case QMELM_None:
      return "None";
    case QMELM_Continue:
      return "Continue";
    case QMELM_Reset:
      return "Reset";
    default:
      return "Unknown";
  }
}

int setOption(QMELMExtension *ext, const char *path, QMELMLockOption option, QMJnlh jnl) {
  std::vector<QMChar> p = wide(path);
  QMELMSetOptionParms parms{};
  parms.path = p.data();
  parms.pathlen = static_cast<QMStrSize>(p.size());
  parms.option = option;
  return ext->Functions.SetLockOption(ext, &parms, jnl);
}

void printOptions(QMELMExtension *ext, QMJnlh jnl) {
  QMELMGetOptionsParms snap{};
  if (ext->Functions.GetLockOptions(ext, &snap, jnl) != 0) return;
  std::printf("lock options (%llu):\n", static_cast<unsigned long long>(snap.NumOptions));
  for (QMMemSize i = 0; i < snap.NumOptions; ++i) {
    QMELMLockOptions e = snap.optionTable[i];
    std::printf("  %-24s %s\n", narrow(e->fullpath, e->fullpathlen).c_str(), optionName(e->option));
  }
  (void)ext->Functions.ReleaseLockOptions(ext, &snap, jnl);
}

void printMatch(QMELMExtension *ext, const char *path, QMJnlh jnl) {
  std::vector<QMChar> p = wide(path);
  QMELMMatchOptionParms m{};
  m.path = p.data();
  m.pathlen = static_cast<QMStrSize>(p.size());
  int rc = ext->Functions.MatchOption(ext, &m, jnl);
  if (rc == 0)
    std::printf("  %-24s -> %-8s (entry %s)\n", path, optionName(m.option),
                narrow(m.matchpath, m.matchpathlen).c_str());
  else
    std::printf("  %-24s -> status 0x%08x\n", path, static_cast<unsigned>(rc));
  (void)ext->Functions.ReleaseMatch(ext, &m, jnl);
}

// Locks a scratch file, shows a second holder in this process refused at
// once (and journaled), and releases the lock, deleting the file on close.
void lockDemo(QMELMExtension *ext, QMJnlh jnl) {
  char path[] = "/tmp/qmlock-demo.XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) return;
  close(fd);
  std::vector<QMChar> name = wide(path);
  XVELMFileLockParms parms{};
  parms.Filename = name.data();
  parms.FilenameLen = name.size();
  parms.OpenFlags = O_RDWR;
  int rc = 0;
  QMELMLHndlp first = ext->Functions.LockGet(ext, &parms, QMELM_RESOURCE_FILE,
                                             QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE, jnl, &rc);
  if (first == nullptr) {
    std::printf("  lock of %s refused: status 0x%08x\n", path, static_cast<unsigned>(rc));
    unlink(path);
    return;
  }
  auto *fh = static_cast<XVELMFileHandle *>(first->Public.ResourceHandle);
  std::printf("  %s locked exclusively: descriptor %d, granted type 0x%03llx\n", path,
              fh->FileDescriptor, static_cast<unsigned long long>(parms.AcquiredLockType));
  std::printf("  a second exclusive holder in this process is refused at once:\n");
  std::fflush(stdout);
  XVELMFileLockParms second = parms;
  QMELMLHndlp refused = ext->Functions.LockGet(ext, &second, QMELM_RESOURCE_FILE,
                                               QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE, jnl, &rc);
  std::printf("  status 0x%08x, handle %s\n", static_cast<unsigned>(rc),
              refused ? "given" : "none");
  parms.Flags = QMELM_FLAG_DELETE_ON_CLOSE;
  rc = ext->Functions.LockRelease(first, &parms, jnl);
  std::printf("  released (status %d); the file %s\n", rc,
              access(path, F_OK) == 0 ? "is still there" : "was deleted on close");
  if (refused != nullptr) (void)ext->Functions.LockRelease(refused, nullptr, jnl);
}

int demo() {
  QMHndlp host = qmhost_create(nullptr);
  if (host == nullptr) {
    std::fprintf(stderr, "qmlock: cannot create the host\n");
    return 1;
  }
  QMJnlh jnl = qmhost_journal_create(host, QM_JNL_STDERR, nullptr);
  QMExtensionh loaded = qmhost_load_extension(host, "qmelm", jnl);
  if (loaded == nullptr) {
    std::fprintf(stderr, "qmlock: cannot load the lock manager (status 0x%08x)\n",
                 static_cast<unsigned>(host->lastStatus(host)));
    qmhost_destroy(host);
    return 1;
  }
  auto *ext = reinterpret_cast<QMELMExtension *>(loaded);
  int a = 0, b = 0, c = 0;
  ext->Common.getVersion(loaded, &a, &b, &c);
  std::printf("loaded \"%s\", interface %d.%d.%d\n", ext->Common.generic.name, a, b, c);

  setOption(ext, "/srv/data", QMELM_Continue, jnl);
  setOption(ext, "/srv/data/scratch", QMELM_None, jnl);
  setOption(ext, "/home", QMELM_None, jnl);
  setOption(ext, "/srv/archive", QMELM_Continue, jnl);
  printOptions(ext, jnl);

  std::printf("matches:\n");
  for (const char *p : {"/srv/data/db/orders.dat", "/srv/data/scratch/tmp1", "/srv/database",
                        "/home/ann/notes.txt", "/etc/passwd"})
    printMatch(ext, p, jnl);

  std::printf("resetting an option that was never set (the journal explains):\n");
  std::fflush(stdout);
  int rc = setOption(ext, "/srv/nothing-here", QMELM_Reset, jnl);
  std::printf("  status 0x%08x\n", static_cast<unsigned>(rc));

  setOption(ext, "/srv", QMELM_Reset, jnl);
  std::printf("after resetting /srv:\n");
  printOptions(ext, jnl);

  std::printf("locking:\n");
  lockDemo(ext, jnl);

  loaded->generic.destroy(loaded);
  jnl->generic.destroy(jnl);
  qmhost_destroy(host);
  return 0;
}

// Prints the build's version stamp (qmlock --version).
int printVersion() {
  QMVersionRecord v;
  if (qmzversion(&v) != 0) return 1;
  std::printf("qmlock (%s) %s\n", v.product, v.buildVersion);
  std::printf("  lock manager interface %s, requires host interface %s\n", v.interfaceVersion,
              v.requiredInterface);
  std::printf("  source revision %s\n  compiler %s\n  build type %s\n  Unicode %s\n",
              v.sourceRevision, v.compiler, v.buildType, v.unicodeVersion);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc > 1 && (std::strcmp(argv[1], "--version") == 0 || std::strcmp(argv[1], "-V") == 0))
    return printVersion();
  if (argc > 1 && std::strcmp(argv[1], "demo") != 0) {
    std::fprintf(stderr, "usage: qmlock [demo | --version | -V]\n");
    return 2;
  }
  return demo();
}
