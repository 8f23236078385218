// The extension frame: the built object and its versions, destroy, the
// factory under every host failure, and what the shared object exports.
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>

#include "frame/xvelmHandles.h"
#include "qmtest_fixture.h"

extern "C" {
QMExtensionh qmelm(QMHndlp, QMJnlh) noexcept;
QMStatus qmextent(QMHndlp) noexcept;
}

using namespace qmtest;

namespace {
int resetCalls = 0;
int countingReset(QMELMExtensionp, QMELMResetIOInfoParms *, QMJnlh) noexcept {
  ++resetCalls;
  return 0;
}
}  // namespace

TEST(Frame, BuiltObjectAnswersAsDocumented) {
  TestHost host;
  QMELMExtension *ext = host.ext;
  EXPECT_EQ(0, std::memcmp(&ext->Common.generic.oven, "nevo", 4));
  EXPECT_STREQ(ext->Common.generic.name, "QM Resource Lock Manager");
  EXPECT_EQ(0, std::memcmp(ext->ExtensionName, "QM Resource Lock Manager", 24));
  EXPECT_EQ(ext->Common.hndl, host.hndl);
  int a = 0, b = 0, c = 0;
  EXPECT_EQ(0, ext->Common.getReqVersion(&ext->Common, &a, &b, &c));
  EXPECT_EQ(std::vector<int>({a, b, c}), std::vector<int>({7, 1, 1}));
  EXPECT_EQ(0, ext->Common.getVersion(&ext->Common, &a, &b, &c));
  EXPECT_EQ(std::vector<int>({a, b, c}), std::vector<int>({7, 2, 1}));
  EXPECT_EQ(0, ext->Functions.Emergency(ext));
  // The option table starts with the root entry alone, in a 16-slot array.
  EXPECT_EQ(ext->NumOptions, 1u);
  EXPECT_EQ(ext->NumSlots, 16u);
  EXPECT_EQ(ext->NumSlotsLeft, 15u);
  EXPECT_EQ(host.options(),
            (std::vector<std::pair<std::string, QMELMLockOption>>{{"/", QMELM_Fail}}));
  EXPECT_EQ(ext->LockList, nullptr);
  EXPECT_EQ(ext->IOInfo, nullptr);
  EXPECT_NE(ext->IOInfoMutex, nullptr);
  // Destroying an extension without records does not reset them.
  ext->Functions.ResetIOInfo = countingReset;
  host.unload();
  EXPECT_EQ(resetCalls, 0);
}

// Every host constructor, allocation and rendering call of the factory fails
// in turn: each time the factory returns null, leaves nothing behind, and
// journals only when the pool or the object could not be made.
TEST(Frame, FactoryUnwindsEveryFailure) {
  HostOptions o;
  o.loadExtension = false;
  TestHost host(o);
  ASSERT_EQ(0, qmextent(host.hndl));
  const QMHostStats before = host.stats();

  const QMHostFailKind kinds[] = {QMHOST_FAIL_POOL_CREATE,    QMHOST_FAIL_ALLOC,
                                  QMHOST_FAIL_LOCK_CREATE,    QMHOST_FAIL_PIPELINE_CREATE,
                                  QMHOST_FAIL_LOAD_EXTENSION, QMHOST_FAIL_JNL_CREATE,
                                  QMHOST_FAIL_RENDER};
  host.armInstruments();
  for (QMHostFailKind kind : kinds) {
    long start = host.calls(kind);
    QMExtensionh ok = qmelm(host.hndl, host.jnl);
    ASSERT_NE(ok, nullptr);
    long used = host.calls(kind) - start;
    EXPECT_GT(used, 0) << "kind " << kind;
    ok->realDestroy(ok);
    host.clearJournal();
    const QMHostStats base = host.stats();

    for (long n = 1; n <= used; ++n) {
      SCOPED_TRACE("kind " + std::to_string(kind) + " call " + std::to_string(n));
      host.failNth(kind, n);
      EXPECT_EQ(qmelm(host.hndl, host.jnl), nullptr);
      host.failNth(kind, 0);
      QMHostStats after = host.stats();
      EXPECT_EQ(after.pools, base.pools);
      EXPECT_EQ(after.pool_blocks, base.pool_blocks);
      EXPECT_EQ(after.mutexes, base.mutexes);
      EXPECT_EQ(after.pipelines, base.pipelines);
      EXPECT_EQ(after.extensions, base.extensions);
      EXPECT_EQ(after.journals, base.journals);
      // Only a missing pool or object is journaled by the factory itself.
      bool poolOrObject =
          (kind == QMHOST_FAIL_POOL_CREATE && n == 1) || (kind == QMHOST_FAIL_ALLOC && n == 1);
      int created = 0;
      for (const Entry &e : host.entries())
        for (QMStatus c : e.codes) created += c == QMELM_E_CREATE_FAILED;
      EXPECT_EQ(created, poolOrObject ? 1 : 0);
      host.clearJournal();
    }
  }
  // The one mutex a destroyed extension leaves to its host is IOInfoMutex.
  EXPECT_EQ(host.stats().mutexes, before.mutexes + std::size(kinds));
  // Without a journal the factory's failure is silent: nothing goes to the host's own.
  host.failNth(QMHOST_FAIL_POOL_CREATE, 1);
  EXPECT_EQ(qmelm(host.hndl, nullptr), nullptr);
  EXPECT_EQ(host.entryCount(host.hndl->qmjnl), 0u);
}

TEST(Frame, SharedObjectExportsOnlyTheEntryPoints) {
  std::string cmd = std::string("nm -D --defined-only ") + QMTEST_LIBDIR + "/libqmelm.so";
  FILE *p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::set<std::string> exported;
  char line[512];
  while (std::fgets(line, sizeof line, p) != nullptr) {
    char type = 0;
    char name[400] = {};
    if (std::sscanf(line, "%*s %c %399s", &type, name) == 2 &&
        (type == 'T' || type == 'W' || type == 'D' || type == 'B'))
      exported.insert(name);
  }
  ASSERT_EQ(0, pclose(p));
  std::set<std::string> allowed;
  std::istringstream names(
      "qmelm qmelmdestroy qmelmgetreqversion qmelmgetversion qmextent qmextver qmelmlockget "
      "qmelmlockrelease qmelmlockchange qmelmsetlockoption qmelmgetlockoptions "
      "qmelmreleaselockoptions qmelmmatchoption qmelmreleasematch qmelmupdateioinfo "
      "qmelmresetioinfo qmelmgetioinfo qmelmlistioinfo qmelmlistioinfofree qmelmjnlioinfo "
      "qmelmemergency");
  for (std::string n; names >> n;) allowed.insert(n);
  for (const std::string &s : exported) {
    if (s.rfind("__", 0) == 0 || s == "_init" || s == "_fini" || s == "_edata" || s == "_end")
      continue;
    EXPECT_TRUE(allowed.count(s)) << "unexpected export " << s;
  }
  for (const std::string &s : allowed) EXPECT_TRUE(exported.count(s)) << "missing export " << s;
}

// Handles still held when their extension goes are freed with its pool; the
// process-wide set of live handles must forget them, or the next handles that
// land in the same buckets would be chained to freed memory.
TEST(Frame, DestroyForgetsHandlesNobodyReleased) {
  TempDir dir;
  std::vector<const void *> abandoned;
  {
    TestHost host;
    for (int i = 0; i < 64; ++i) {
      LockRequest req(dir.file("held" + std::to_string(i)));
      int rc = 0;
      abandoned.push_back(host.lock(req, QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE, &rc));
      ASSERT_NE(abandoned.back(), nullptr) << hex(rc);
    }
  }
  for (const void *h : abandoned) EXPECT_FALSE(xvelm::detail::unregisterHandle(h));
}
