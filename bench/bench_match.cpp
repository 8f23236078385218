// bench_match.cpp - option matching (MatchOption + ReleaseMatch) of an absolute
// path of eight components against option tables of 1, 16 and 1,000 entries,
// beside one stat() of the same path timed in the same run. Every lock request
// that carries no option pays for one match, so it is set against the one
// system call that every acquisition makes anyway on the same name.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "bench_util.h"
#include "qmtest_host.h"

namespace {

constexpr int kComponents = 8;

size_t componentsOf(const std::string &path) {
  return static_cast<size_t>(std::count(path.begin(), path.end(), '/'));
}

// A directory tree under a temp dir: the matched path (a file eight
// components deep), the directories on its way, and sibling directories that
// fill the larger tables, spread over every level of the path.
struct Tree {
  qmtest::TempDir dir;
  std::string leaf;
  std::vector<std::string> chain;    // the leaf's ancestors below and including dir
  std::string governing;             // the ancestor that carries an entry
  std::vector<std::string> fillers;  // existing directories beside the path
  bool ok = true;

  Tree() {
    chain.push_back(dir.path());
    std::string p = dir.path();
    for (int i = 0; componentsOf(p) + 1 < static_cast<size_t>(kComponents); ++i) {
      p += "/b" + std::to_string(i);
      ok = ok && ::mkdir(p.c_str(), 0755) == 0;
      chain.push_back(p);
    }
    leaf = p + "/data.qm";
    int fd = ::open(leaf.c_str(), O_RDWR | O_CREAT, 0644);
    ok = ok && fd >= 0;
    if (fd >= 0) ::close(fd);
    // The entry that governs the leaf sits halfway down, so the search has to
    // shorten the path a few times before it finds it.
    governing = chain[chain.size() / 2];
    for (int j = 0; j < 1000; ++j) {
      char name[16];
      std::snprintf(name, sizeof name, "/s%03d", j);
      std::string f = chain[static_cast<size_t>(j) % chain.size()] + name;
      ok = ok && ::mkdir(f.c_str(), 0755) == 0;
      fillers.push_back(f);
    }
  }
};

std::unique_ptr<Tree> g_tree;

std::string statusText(const char *what, int rc) {
  char buf[96];
  std::snprintf(buf, sizeof buf, "%s: status 0x%08x", what, static_cast<unsigned>(rc));
  return buf;
}

void benchMatch(benchmark::State &st, size_t entries) {
  if (!g_tree || !g_tree->ok) {
    st.SkipWithError("could not build the directory tree");
    return;
  }
  std::unique_ptr<qmtest::TestHost> hostp = qmbench::makeHost();
  if (!hostp) {
    st.SkipWithError("lock manager not loaded");
    return;
  }
  qmtest::TestHost &host = *hostp;
  // The factory puts the root entry in; the rest of the table is the entry of
  // the governing directory and fillers beside the path.
  QMELMLockOption expected = QMELM_Fail;
  size_t have = 1;
  if (entries > 1) {
    if (int rc = host.setOption(g_tree->governing, QMELM_Continue); rc != 0) {
      st.SkipWithError(statusText("SetLockOption", rc).c_str());
      return;
    }
    expected = QMELM_Continue;
    ++have;
  }
  static const QMELMLockOption kFill[] = {QMELM_None, QMELM_Fail, QMELM_Continue};
  for (size_t j = 0; have < entries && j < g_tree->fillers.size(); ++j, ++have) {
    if (int rc = host.setOption(g_tree->fillers[j], kFill[j % 3]); rc != 0) {
      st.SkipWithError(statusText("SetLockOption", rc).c_str());
      return;
    }
  }
  const size_t tableSize = host.options().size();

  QMELMExtension *ext = host.ext;
  const std::vector<QMChar> path = qmtest::qm(g_tree->leaf);
  QMELMMatchOptionParms mp{};
  mp.path = const_cast<QMChar *>(path.data());
  mp.pathlen = path.size();
  if (int rc = ext->Functions.MatchOption(ext, &mp, nullptr); rc != 0) {
    (void)ext->Functions.ReleaseMatch(ext, &mp, nullptr);
    st.SkipWithError(statusText("MatchOption", rc).c_str());
    return;
  }
  const QMELMLockOption got = mp.option;
  (void)ext->Functions.ReleaseMatch(ext, &mp, nullptr);
  if (got != expected) {
    st.SkipWithError("the match did not find the governing entry");
    return;
  }

  for (auto _ : st) {
    mp.path = const_cast<QMChar *>(path.data());
    mp.pathlen = path.size();
    const int rc = ext->Functions.MatchOption(ext, &mp, nullptr);
    benchmark::DoNotOptimize(mp.option);
    const int rrc = ext->Functions.ReleaseMatch(ext, &mp, nullptr);
    if (rc != 0 || rrc != 0) {
      st.SkipWithError(
          statusText(rc != 0 ? "MatchOption" : "ReleaseMatch", rc != 0 ? rc : rrc).c_str());
      break;
    }
  }
  st.SetLabel("table holds " + std::to_string(tableSize));
}

void benchStat(benchmark::State &st) {
  if (!g_tree || !g_tree->ok) {
    st.SkipWithError("could not build the directory tree");
    return;
  }
  const char *p = g_tree->leaf.c_str();
  struct stat sb {};
  for (auto _ : st) {
    int rc = ::stat(p, &sb);
    benchmark::DoNotOptimize(rc);
    benchmark::DoNotOptimize(sb);
  }
}

}  // namespace

int main(int argc, char **argv) {
  try {
    g_tree = std::make_unique<Tree>();
  } catch (const std::exception &e) {
    std::fprintf(stderr, "bench_match: %s\n", e.what());
    return 1;
  }
  std::printf("matched path: %s (%zu components, %s)\n", g_tree->leaf.c_str(),
              componentsOf(g_tree->leaf), qmbench::fileSystemOf(g_tree->dir.path()).c_str());

  for (size_t n : {size_t{1}, size_t{16}, size_t{1000}}) {
    const std::string name = "match/entries:" + std::to_string(n);
    benchmark::RegisterBenchmark(name.c_str(), benchMatch, n)->Unit(benchmark::kNanosecond);
  }
  benchmark::RegisterBenchmark("bare/stat", benchStat)->Unit(benchmark::kNanosecond);

  using qmbench::Goal;
  using qmbench::Row;
  std::vector<Row> rows;
  Row r;
  r.bare = "bare/stat";
  r.label = "MatchOption+ReleaseMatch, table of 1 (root only)";
  r.bench = "match/entries:1";
  rows.push_back(r);
  r.label = "MatchOption+ReleaseMatch, table of 16";
  r.bench = "match/entries:16";
  r.goal = Goal::RatioBelow;
  r.target = 0.5;
  rows.push_back(r);
  r.label = "MatchOption+ReleaseMatch, table of 1000";
  r.bench = "match/entries:1000";
  r.goal = Goal::Info;
  rows.push_back(r);

  const int rc = qmbench::runAndSummarise(argc, argv, rows);
  g_tree.reset();
  return rc;
}
