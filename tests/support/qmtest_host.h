// qmtest_host.h - a host with the lock manager loaded, for tests and
// benchmarks: short helpers so that a scenario reads in a few lines.
#ifndef QMTEST_HOST_H
#define QMTEST_HOST_H

#include <fcntl.h>

#include <string>
#include <string_view>
#include <vector>

#include "qmelm.h"
#include "qmhost/qmhost.h"
#include "qmhost/qmhost_testing.h"

namespace qmtest {

// QMChar text from UTF-8, and back.
std::vector<QMChar> qm(std::string_view utf8);
std::string utf8(const QMChar *s, size_t len);

struct HostOptions {
  QMIOByteCountKind iobytecount = QMIO_ByteCount_Default;
  // true: the statically linked lock manager (white box: the system-call
  // table of this process is the one it uses); false: libqmelm.so by name.
  bool builtin = true;
  QMJnlKind defaultJournal = QM_JNL_MEMORY;  // where the host's qmjnl writes
  NLScei osEncoding = 0;                     // 0: UTF-8
  bool loadExtension = true;                 // false: only the host
};

// A file lock request that owns its name.
struct LockRequest {
  std::vector<QMChar> name;
  XVELMFileLockParms parms{};
  explicit LockRequest(const std::string &path, uint32_t openFlags = O_RDWR | O_CREAT,
                       uint32_t flags = 0, uint32_t mode = 0644);
  XVELMFileLockParms *get() { return &parms; }
};

// One journal entry as the tests read it.
struct Entry {
  QMSeverity severity;
  std::string text;
  std::vector<QMStatus> codes;
};

class TestHost {
 public:
  explicit TestHost(HostOptions o = {});
  ~TestHost();
  TestHost(const TestHost &) = delete;
  TestHost &operator=(const TestHost &) = delete;

  QMHndlp hndl = nullptr;
  QMJnlh jnl = nullptr;           // a memory journal for the tests' calls
  QMELMExtension *ext = nullptr;  // the loaded lock manager
  QMELMFunctions &fn() { return ext->Functions; }

  // Loads (another) lock manager the way the options say; null on failure.
  QMELMExtension *load(QMJnlh j);
  void unload();  // destroys ext (if any) through its generic destroy

  // Journal readers (jnl by default; pass hndl->qmjnl for the host's own).
  std::vector<Entry> entries(QMJnlh j = nullptr) const;
  std::vector<QMStatus> lastCodes(QMJnlh j = nullptr) const;  // codes of the newest entry
  size_t entryCount(QMJnlh j = nullptr) const;
  void clearJournal(QMJnlh j = nullptr);

  QMHostStats stats() const;
  size_t liveBlocks() const { return stats().pool_blocks; }
  // The host's test instruments start disarmed, as in a product (the
  // benchmarks measure that). failNth arms them; a test that reads call
  // counts without injecting a failure first arms them itself.
  void armInstruments(bool on = true) { qmhost_instruments_arm(hndl, on ? 1 : 0); }
  void failNth(QMHostFailKind kind, long n) { qmhost_fail_nth(hndl, kind, n); }
  long calls(QMHostFailKind kind) const { return qmhost_call_count(hndl, kind); }

  // Lock helpers through the function table.
  QMELMLHndlp lock(LockRequest &req, QMMemSize type, int *rc, QMJnlh j = nullptr);
  int release(QMELMLHndlp h, LockRequest *req = nullptr, QMJnlh j = nullptr);

  // Option helpers: empty path means a null path (the root).
  int setOption(const std::string &path, QMELMLockOption opt, QMJnlh j = nullptr);
  // The table as (fullpath, option) pairs, through a snapshot.
  std::vector<std::pair<std::string, QMELMLockOption>> options();
  // The option and matchpath for a path (status in *rc when given).
  QMELMLockOption match(const std::string &path, std::string *matchpath = nullptr,
                        int *rc = nullptr);

 private:
  HostOptions opts_;
};

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Open descriptors of this process that refer to path (from /proc/self/fd).
int openDescriptorsOf(const std::string &path);

}  // namespace qmtest

#endif  // QMTEST_HOST_H
