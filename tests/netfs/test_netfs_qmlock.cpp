// qmlock between machines that share a GlusterFS volume, run as users run
// it: `qmlock run` on one machine against `qmlock run`, util-linux flock(1)
// and Python's fcntl.lockf on the other, both ways, and what `qmlock probe`
// and `qmlock run`'s conflict line say about a holder on the other machine.
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "netfs_env.h"

using namespace netfs;

namespace {

const std::string kQmlock = QMLOCK_BIN;

// Holders print "ready" once locked and keep the lock until their input ends.
const std::string kHoldLine = "echo ready; exec cat >/dev/null";
const char *kPyHolder =
    "import fcntl,sys; f=open(sys.argv[1],'r+'); fcntl.lockf(f, fcntl.LOCK_EX); "
    "print('ready',flush=True); sys.stdin.read()";
const char *kPyTry =
    "import fcntl,sys\n"
    "f=open(sys.argv[1],'r+')\n"
    "try: fcntl.lockf(f, fcntl.LOCK_EX|fcntl.LOCK_NB)\n"
    "except BlockingIOError: sys.exit(1)\n";

enum class Tool { Qmlock, Flock, Lockf };
const char *toolName(Tool t) {
  return t == Tool::Qmlock ? "qmlock run" : t == Tool::Flock ? "flock(1)" : "python lockf";
}

std::vector<std::string> holderArgv(Tool t, const std::string &path) {
  switch (t) {
    case Tool::Qmlock:
      return {kQmlock, "run", path, "sh", "-c", kHoldLine};
    case Tool::Flock:
      return {"flock", path, "sh", "-c", kHoldLine};
    case Tool::Lockf:
      return {"python3", "-c", kPyHolder, path};
  }
  return {};
}

// A non-blocking attempt: 0 when locked (and let go), 1 when held.
std::vector<std::string> tryArgv(Tool t, const std::string &path) {
  switch (t) {
    case Tool::Qmlock:
      return {kQmlock, "run", "-n", path, "true"};
    case Tool::Flock:
      return {"flock", "-n", path, "true"};
    case Tool::Lockf:
      return {"python3", "-c", kPyTry, path};
  }
  return {};
}

const char *machineName(Machine m) {
  return m == Machine::Here ? "here" : "other machine";
}

std::string mountOf(const Volume &v, Machine m) {
  return m == Machine::Here ? v.m1 : v.m3;
}

int attempt(const Volume &v, Machine where, Tool t, const std::string &name) {
  Program p(v, where, tryArgv(t, mountOf(v, where) + "/" + name));
  return p.wait();
}

// The PID this machine's kernel reports for the holder of path (F_GETLK),
// -2 when none.
int serverNamedPid(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct flock q {};
  q.l_type = F_WRLCK;
  q.l_whence = SEEK_SET;
  const bool asked = fd >= 0 && fcntl(fd, F_GETLK, &q) == 0;
  if (fd >= 0) close(fd);
  return asked && q.l_type != F_UNLCK ? q.l_pid : -2;
}

}  // namespace

TEST(NetfsQmlock, RunExcludesQmlockFlockAndLockfOnTheOtherMachineBothWays) {
  NETFS_VOLUME(v);
  for (Machine runSide : {Machine::Here, Machine::Other}) {
    const Machine otherSide = runSide == Machine::Here ? Machine::Other : Machine::Here;
    const std::string name = std::string("run-") + machineName(runSide)[0];
    close(open((v->m1 + "/" + name).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644));
    // qmlock run holds on one side: every kind of locker on the other side
    // is kept out; after it, each gets in.
    {
      SCOPED_TRACE(std::string("qmlock run holding, ") + machineName(runSide));
      Program holder(*v, runSide, holderArgv(Tool::Qmlock, mountOf(*v, runSide) + "/" + name));
      ASSERT_EQ(holder.readLine(), "ready");
      for (Tool t : {Tool::Qmlock, Tool::Flock, Tool::Lockf})
        EXPECT_EQ(attempt(*v, otherSide, t, name), 1) << toolName(t) << " got in";
      EXPECT_EQ(holder.wait(), 0);
      for (Tool t : {Tool::Qmlock, Tool::Flock, Tool::Lockf})
        EXPECT_EQ(attempt(*v, otherSide, t, name), 0) << toolName(t) << " kept out after";
    }
    // Every kind of locker holds on the other side: qmlock run is kept out.
    for (Tool t : {Tool::Qmlock, Tool::Flock, Tool::Lockf}) {
      SCOPED_TRACE(std::string(toolName(t)) + " holding, " + machineName(otherSide));
      Program holder(*v, otherSide, holderArgv(t, mountOf(*v, otherSide) + "/" + name));
      ASSERT_EQ(holder.readLine(), "ready");
      EXPECT_EQ(attempt(*v, runSide, Tool::Qmlock, name), 1);
      EXPECT_EQ(holder.wait(), 0);
      EXPECT_EQ(attempt(*v, runSide, Tool::Qmlock, name), 0);
    }
  }
}

TEST(NetfsQmlock, ProbeAndConflictLineNameTheHolderAsAProcessOnAnotherMachine) {
  NETFS_VOLUME(v);
  const std::string path = v->m1 + "/probed";
  close(open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0644));
  {
    Program probe(*v, Machine::Here, {kQmlock, "probe", path});
    EXPECT_EQ(probe.readLine(), path + ": free");
    EXPECT_EQ(probe.wait(), 0);
  }
  for (Tool t : {Tool::Qmlock, Tool::Flock, Tool::Lockf}) {
    SCOPED_TRACE(std::string(toolName(t)) + " holding on the other machine");
    Program holder(*v, Machine::Other, holderArgv(t, v->m3 + "/probed"));
    ASSERT_EQ(holder.readLine(), "ready");
    const int pid = serverNamedPid(path);
    ASSERT_NE(pid, -2) << "the kernel shows no holder";
    const std::string remote =
        "a process on another machine (PID " + std::to_string(pid) + " there, over GlusterFS)";

    Program probe(*v, Machine::Here, {kQmlock, "probe", path});
    std::string out;
    for (std::string line; !(line = probe.readLine(10s)).empty();) out += line + "\n";
    EXPECT_EQ(probe.wait(), 1);
    EXPECT_EQ(out.rfind(path + ": held\n", 0), 0u) << out;
    EXPECT_NE(out.find(remote), std::string::npos) << out;
    EXPECT_EQ(out.find("process " + std::to_string(pid) + " ("), std::string::npos) << out;

    Program run(*v, Machine::Here,
                {"sh", "-c", "exec 2>&1; exec \"$0\" run -n \"$1\" true", kQmlock, path});
    const std::string line = run.readLine(10s);
    EXPECT_EQ(run.wait(), 1);
    EXPECT_EQ(line,
              "qmlock: cannot lock " + path + " exclusively: " + remote + " holds a write lock");
    EXPECT_EQ(holder.wait(), 0);
  }
}
