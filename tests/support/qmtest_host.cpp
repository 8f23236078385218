// A host with the lock manager loaded, for tests and benchmarks. Kept free of
// GoogleTest so that the benchmarks can use it too.
#include "qmtest_host.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace qmtest {

std::vector<QMChar> qm(std::string_view s) {
  std::string z(s);
  size_t n = qmhost_from_utf8(z.c_str(), nullptr, 0);
  std::vector<QMChar> out(n);
  qmhost_from_utf8(z.c_str(), out.data(), n);
  return out;
}

std::string utf8(const QMChar *s, size_t len) {
  if (s == nullptr) return {};
  size_t n = qmhost_to_utf8(s, len, nullptr, 0);
  std::string out(n + 1, '\0');
  qmhost_to_utf8(s, len, out.data(), out.size());
  out.resize(n);
  return out;
}

LockRequest::LockRequest(const std::string &path, uint32_t openFlags, uint32_t flags, uint32_t mode)
    : name(qm(path)) {
  parms.Filename = name.data();
  parms.FilenameLen = name.size();
  parms.OpenFlags = openFlags;
  parms.Flags = flags;
  parms.PermissionsMask = mode;
}

extern "C" {
QMExtensionh qmelm(QMHndlp, QMJnlh) noexcept;
QMStatus qmextent(QMHndlp) noexcept;
QMStatus qmextver(QMHndlp, int *, int *) noexcept;
}

namespace {
const QMHostBuiltinExtension kBuiltin{"qmelm", qmextent, qmextver, qmelm};
}

TestHost::TestHost(HostOptions o) : opts_(o) {
  QMHostConfig cfg;
  qmhost_config_init(&cfg);
  cfg.extension_path = QMTEST_LIBDIR;
  cfg.iobytecount = o.iobytecount;
  cfg.default_journal = o.defaultJournal;
  cfg.os_encoding = o.osEncoding;
  if (o.builtin) {
    cfg.builtins = &kBuiltin;
    cfg.nbuiltins = 1;
  }
  hndl = qmhost_create(&cfg);
  if (hndl == nullptr) throw std::runtime_error("qmhost_create failed");
  jnl = qmhost_journal_create(hndl, QM_JNL_MEMORY, nullptr);
  if (o.loadExtension) {
    ext = load(jnl);
    if (ext == nullptr) throw std::runtime_error("loading qmelm failed");
    clearJournal();
  }
}

TestHost::~TestHost() {
  unload();
  if (jnl != nullptr) jnl->generic.destroy(jnl);
  qmhost_destroy(hndl);
}

QMELMExtension *TestHost::load(QMJnlh j) {
  return reinterpret_cast<QMELMExtension *>(qmhost_load_extension(hndl, "qmelm", j));
}

void TestHost::unload() {
  if (ext != nullptr) ext->Common.generic.destroy(&ext->Common);
  ext = nullptr;
}

std::vector<Entry> TestHost::entries(QMJnlh j) const {
  if (j == nullptr) j = jnl;
  std::vector<Entry> out;
  for (size_t i = 0, n = qmhost_journal_count(j); i < n; ++i) {
    QMHostJournalEntry e{};
    if (qmhost_journal_entry(j, i, &e) != 0) continue;
    out.push_back({e.severity, e.text, std::vector<QMStatus>(e.codes, e.codes + e.ncodes)});
  }
  return out;
}

std::vector<QMStatus> TestHost::lastCodes(QMJnlh j) const {
  auto all = entries(j);
  return all.empty() ? std::vector<QMStatus>{} : all.back().codes;
}

size_t TestHost::entryCount(QMJnlh j) const {
  return qmhost_journal_count(j ? j : jnl);
}
void TestHost::clearJournal(QMJnlh j) {
  qmhost_journal_clear(j ? j : jnl);
}

QMHostStats TestHost::stats() const {
  QMHostStats s{};
  qmhost_stats(hndl, &s);
  return s;
}

QMELMLHndlp TestHost::lock(LockRequest &req, QMMemSize type, int *rc, QMJnlh j) {
  int local = 0;
  return fn().LockGet(ext, req.get(), QMELM_RESOURCE_FILE, type, j ? j : jnl, rc ? rc : &local);
}

int TestHost::release(QMELMLHndlp h, LockRequest *req, QMJnlh j) {
  return fn().LockRelease(h, req ? req->get() : nullptr, j ? j : jnl);
}

int TestHost::setOption(const std::string &path, QMELMLockOption opt, QMJnlh j) {
  std::vector<QMChar> p = qm(path);
  QMELMSetOptionParms parms{};
  parms.path = path.empty() ? nullptr : p.data();
  parms.pathlen = static_cast<QMStrSize>(p.size());
  parms.option = opt;
  return fn().SetLockOption(ext, &parms, j ? j : jnl);
}

std::vector<std::pair<std::string, QMELMLockOption>> TestHost::options() {
  QMELMGetOptionsParms parms{};
  std::vector<std::pair<std::string, QMELMLockOption>> out;
  if (fn().GetLockOptions(ext, &parms, jnl) != 0) return out;
  for (QMMemSize i = 0; i < parms.NumOptions; ++i) {
    QMELMLockOptions e = parms.optionTable[i];
    out.emplace_back(utf8(e->fullpath, static_cast<size_t>(e->fullpathlen)), e->option);
  }
  if (parms.NumOptions != 0) (void)fn().ReleaseLockOptions(ext, &parms, jnl);
  return out;
}

QMELMLockOption TestHost::match(const std::string &path, std::string *matchpath, int *rc) {
  std::vector<QMChar> p = qm(path);
  QMELMMatchOptionParms parms{};
  parms.path = p.data();
  parms.pathlen = static_cast<QMStrSize>(p.size());
  int r = fn().MatchOption(ext, &parms, jnl);
  if (rc != nullptr) *rc = r;
  QMELMLockOption opt = parms.option;
  if (matchpath != nullptr)
    *matchpath = utf8(parms.matchpath, static_cast<size_t>(parms.matchpathlen));
  (void)fn().ReleaseMatch(ext, &parms, jnl);
  return opt;
}

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "qmtest.XXXXXX").string();
  if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(path_, ec);
}

int openDescriptorsOf(const std::string &path) {
  std::error_code ec;
  std::string want = std::filesystem::weakly_canonical(path, ec).string();
  int n = 0;
  for (const auto &e : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    std::error_code ec2;
    auto target = std::filesystem::read_symlink(e.path(), ec2);
    if (ec2) continue;
    std::string t = target.string();
    if (t == want || t == path || t == want + " (deleted)" || t == path + " (deleted)") ++n;
  }
  return n;
}

}  // namespace qmtest
