// bench_netfs.cpp - the lock manager on a network file system (the directory
// QMELM_NETFS_DIR names, a GlusterFS mount under bench/netfs_bench.sh), each
// figure set beside the bare system calls made through the same mount in the
// same run: the first holder of a file against the calls it makes (stat,
// open, fstat, F_SETLK, stat, close), and two threads on two files against
// one (every call is a round trip to the server, so two threads overlap
// their waits). Wall-clock figures: the time goes to the server, not the CPU.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bench_util.h"
#include "qmtest_host.h"

namespace {

constexpr QMMemSize kExclusive = QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE;  // 0x005

std::string gDir;
std::unique_ptr<qmtest::TestHost> gHost;

std::string fileFor(int thread) {
  return gDir + "/netfs-bench-" + std::to_string(thread);
}

// The first (and only) holder of an existing file gets and releases it, so
// every iteration opens, record-locks, checks and closes through the mount.
void benchFirstHolder(benchmark::State &st) {
  QMELMExtension *ext = gHost->ext;
  qmtest::LockRequest req(fileFor(st.thread_index()), O_RDWR);
  for (auto _ : st) {
    int rc = 0;
    QMELMLHndlp h =
        ext->Functions.LockGet(ext, req.get(), QMELM_RESOURCE_FILE, kExclusive, nullptr, &rc);
    if (h == nullptr) {
      st.SkipWithError(qmbench::statusText("LockGet", rc).c_str());
      break;
    }
    if ((rc = ext->Functions.LockRelease(h, req.get(), nullptr)) != 0) {
      st.SkipWithError(qmbench::statusText("LockRelease", rc).c_str());
      break;
    }
  }
  st.SetItemsProcessed(st.iterations());
}

// The calls a first exclusive holder makes, in its order (strace shows them):
// stat the name, open, fstat the descriptor, record-lock it, stat the name
// again (it must still lead to the file locked), close.
void benchBareFirstHolder(benchmark::State &st) {
  const std::string p = fileFor(st.thread_index());
  const char *path = p.c_str();
  struct stat a {};
  struct stat b {};
  struct stat c {};
  for (auto _ : st) {
    benchmark::DoNotOptimize(::stat(path, &a));
    const int fd = ::open(path, O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
      st.SkipWithError("open failed");
      break;
    }
    benchmark::DoNotOptimize(::fstat(fd, &b));
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    if (::fcntl(fd, F_SETLK, &fl) != 0) {
      st.SkipWithError("F_SETLK refused");
      ::close(fd);
      break;
    }
    benchmark::DoNotOptimize(::stat(path, &c));
    ::close(fd);
  }
  st.SetItemsProcessed(st.iterations());
}

}  // namespace

int main(int argc, char **argv) {
  const char *dir = std::getenv("QMELM_NETFS_DIR");
  if (dir == nullptr || *dir == '\0') {
    std::printf(
        "bench_netfs: skipped: QMELM_NETFS_DIR names no directory on a network file system "
        "(bench/netfs_bench.sh sets up a GlusterFS volume and runs it)\n");
    return 0;
  }
  gDir = dir;
  struct stat st {};
  if (::stat(dir, &st) != 0 || !S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "bench_netfs: QMELM_NETFS_DIR=%s is no directory\n", dir);
    return 1;
  }
  gHost = qmbench::makeHost();
  if (gHost == nullptr) {
    std::fprintf(stderr, "bench_netfs: could not load the lock manager\n");
    return 1;
  }
  for (int t = 0; t < 2; ++t) {
    const int fd = ::open(fileFor(t).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
      std::fprintf(stderr, "bench_netfs: cannot create %s\n", fileFor(t).c_str());
      return 1;
    }
    ::close(fd);
  }
  std::printf("files under %s (%s)\n", dir, qmbench::fileSystemOf(dir).c_str());

  const std::string first = "netfs/first_holder/0x005", bare = "netfs/bare/first_holder_calls";
  for (const std::string *name : {&first, &bare}) {
    qmbench::onOneAndTwoThreads(
        benchmark::RegisterBenchmark(name->c_str(),
                                     name == &first ? benchFirstHolder : benchBareFirstHolder),
        benchmark::kMicrosecond);
  }

  using qmbench::Clock;
  using qmbench::Goal;
  using qmbench::Row;
  const Row vsBare = qmbench::versusRow("first holder 0x005 vs bare calls, through the mount",
                                        first, 1, bare, 1, Clock::Real, Goal::RatioAtMost, 1.10);
  const Row gain =
      qmbench::gainRow("get+release 0x005, 2 threads on 2 files vs 1 (throughput gain)", first,
                       Goal::RatioAtLeast, 1.8);
  const Row bareGain = qmbench::gainRow("bare calls, 2 threads on 2 files vs 1 (throughput gain)",
                                        bare, Goal::Info, 0);
  // The gain the machine gives the bare calls (two FUSE requests in flight
  // need idle cores for the client and the brick too) is the ceiling: how
  // much of it the lock manager keeps.
  const Row kept =
      qmbench::keptGainRow("get+release 0x005 gain vs bare calls' gain, 2 threads on 2 files",
                           first, bare, Goal::Info, 0);

  const int rc = qmbench::runAndSummarise(argc, argv, {vsBare, gain, bareGain, kept});
  for (int t = 0; t < 2; ++t) ::unlink(fileFor(t).c_str());
  gHost.reset();
  return rc;
}
