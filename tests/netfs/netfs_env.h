// netfs_env.h - the GlusterFS set-up of tests/netfs/glusterfs.sh as the netfs
// suites see it: two mounts of one volume here (m1, m2), a third on "the
// other machine" (m3, in its own PID and mount namespaces), and programs
// started on either machine with pipes to talk to them.
#ifndef NETFS_ENV_H
#define NETFS_ENV_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace netfs {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// The set-up named by QMNETFS_STATE (the fixture's directory), read from its
// env file. Skips the test where this machine cannot mount FUSE file systems
// (the set-up skipped too, saying so); fails it where it could and did not.
class Volume {
 public:
  static const Volume *get() {
    static const Volume v;
    if (geteuid() != 0 || access("/dev/fuse", R_OK | W_OK) != 0) return nullptr;
    return &v;
  }
  std::string m1, m2, m3;  // m3 exists only on the other machine
  pid_t helper = 0;        // a process in the other machine's namespaces
  std::string state;       // glusterfs.sh's directory
  bool up() const { return helper > 0 && !m1.empty(); }

 private:
  Volume() {
    const char *s = std::getenv("QMNETFS_STATE");
    if (s == nullptr) return;
    state = s;
    std::ifstream in(state + "/env");
    std::map<std::string, std::string> kv;
    for (std::string line; std::getline(in, line);)
      if (auto eq = line.find('='); eq != std::string::npos)
        kv[line.substr(0, eq)] = line.substr(eq + 1);
    m1 = kv["M1"];
    m2 = kv["M2"];
    m3 = kv["M3"];
    helper = kv.count("HELPER") != 0 ? std::stoi(kv["HELPER"]) : 0;
  }
};

// In a test body: the volume, or a skip/failure saying why there is none.
#define NETFS_VOLUME(v)                                                                    \
  const ::netfs::Volume *v = ::netfs::Volume::get();                                       \
  if (v == nullptr) GTEST_SKIP() << "needs root and /dev/fuse to mount GlusterFS";         \
  ASSERT_TRUE(v->up()) << "the GlusterFS set-up (QMNETFS_STATE) is not up; run by CTest, " \
                          "whose fixture netfs.setup starts it"

enum class Machine { Here, Other };

// A program with a pipe to its standard input and one from its standard
// output (standard error goes to the test's); on the other machine it runs
// through nsenter in the helper's namespaces. Killed when the object goes.
class Program {
 public:
  Program(const Volume &v, Machine where, std::vector<std::string> argv) {
    if (where == Machine::Other) {
      argv.insert(argv.begin(), {"nsenter", "-t", std::to_string(v.helper), "-p", "-m", "--"});
    }
    std::vector<char *> args;
    for (std::string &a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    pid = fork();
    if (pid == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      signal(SIGPIPE, SIG_DFL);
      execvp(args[0], args.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    to_ = in[1];
    from_ = out[0];
  }
  ~Program() {
    if (to_ >= 0) close(to_);
    if (pid > 0) reap(3s);
    if (from_ >= 0) close(from_);
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  // One line to its standard input.
  void send(const std::string &line) {
    const std::string l = line + "\n";
    if (write(to_, l.data(), l.size()) != static_cast<ssize_t>(l.size()))
      ADD_FAILURE() << "cannot write to the program: " << line;
  }
  // The next line of its output; empty when none came within the limit.
  std::string readLine(std::chrono::milliseconds limit = 60s) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
      if (auto nl = buf_.find('\n'); nl != std::string::npos) {
        std::string line = buf_.substr(0, nl);
        buf_.erase(0, nl + 1);
        return line;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd p{from_, POLLIN, 0};
      if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) return {};
      char b[4096];
      const ssize_t n = read(from_, b, sizeof b);
      if (n <= 0) return {};
      buf_.append(b, static_cast<size_t>(n));
    }
  }
  std::string ask(const std::string &line) {
    send(line);
    return readLine();
  }
  // Closes its standard input and waits for its end: its exit status, or
  // 128+N after signal N. (Killing nsenter would not end its child on the
  // other machine: every program here ends at the end of its input.)
  int wait() {
    if (to_ >= 0) close(to_), to_ = -1;
    int st = 0;
    waitpid(pid, &st, 0);
    pid = -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }

  pid_t pid = -1;

 private:
  // Reaps it when it ends within the limit.
  void reap(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
      if (waitpid(pid, nullptr, WNOHANG) == pid) {
        pid = -1;
        return;
      }
      std::this_thread::sleep_for(10ms);
    }
  }

  int to_ = -1, from_ = -1;
  std::string buf_;
};

// Waits until pred() holds or the limit passes; whether it held.
template <typename Pred>
bool eventually(Pred pred, std::chrono::milliseconds limit = 10s) {
  const auto deadline = Clock::now() + limit;
  while (!pred()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

}  // namespace netfs

#endif  // NETFS_ENV_H
