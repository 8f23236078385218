// probe.cpp - qmlock probe [--json] FILE...: every lock on each file, of
// every kind (flock(2), POSIX record, open-file-description), with each
// holder's PID, command and descriptor, its byte range and mode. It takes no
// lock: it reads /proc/locks and the holders' fdinfo, and on a file system
// whose server arbitrates locks asks the server (F_OFD_GETLK) for a holder
// this machine cannot see. Closing the probe's own descriptor drops nothing:
// it holds no lock.
// Exit 0 when every file is free, 1 when any is held, 2 on an error.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "locktable.h"
#include "qmlock.h"

namespace qmlock {

namespace {

// A holder the server names and this machine does not show: another
// machine's process, with the PID the server gives (its PID there; 0 or -1
// when the server gives none).
struct RemoteHolder {
  bool held = false;
  pid_t pid = 0;
  bool write = false;
  off_t start = 0, end = -1;
};

RemoteHolder remoteHolder(int fd, const std::vector<LockRow> &rows) {
  struct flock q {};
  q.l_type = F_WRLCK;
  q.l_whence = SEEK_SET;
  if (fcntl(fd, F_OFD_GETLK, &q) != 0 || q.l_type == F_UNLCK) return {};
  const off_t end = q.l_len == 0 ? -1 : q.l_start + q.l_len - 1;
  for (const LockRow &r : rows) {
    const bool samePid = q.l_pid == -1 ? r.kind == LockKind::ofd : r.pid == q.l_pid;
    if (r.kind != LockKind::flock && samePid && r.start == q.l_start && r.end == end) return {};
  }
  return {true, serverNamedPid(fd, F_WRLCK, 0, 0, q.l_pid), q.l_type == F_WRLCK, q.l_start, end};
}

std::string range(off_t start, off_t end) {
  return end < 0 ? std::to_string(start) + "-EOF"
                 : std::to_string(start) + "-" + std::to_string(end);
}

void printText(const std::string &path, const std::vector<LockRow> &rows,
               const RemoteHolder &remote, const std::string &fs) {
  if (rows.empty() && !remote.held) {
    std::printf("%s: free\n", path.c_str());
    return;
  }
  std::printf("%s: held\n", path.c_str());
  for (const LockRow &r : rows) {
    std::string who = r.pid > 0 ? processDescription(r.pid) : "no process found";
    if (r.fd >= 0) who += ", descriptor " + std::to_string(r.fd);
    std::printf("  %-5s %-5s %-12s %s\n", kindName(r.kind), r.write ? "write" : "read",
                range(r.start, r.end).c_str(), who.c_str());
  }
  if (remote.held)
    std::printf("  %-5s %-5s %-12s a process on another machine (PID %d there, over %s)\n", "POSIX",
                remote.write ? "write" : "read", range(remote.start, remote.end).c_str(),
                static_cast<int>(remote.pid), fs.c_str());
}

std::string jsonLock(const char *kind, bool write, off_t start, off_t end, pid_t pid,
                     const std::string &command, int fd, bool remote) {
  return std::string("{\"kind\": ") + jsonString(kind) + ", \"mode\": \"" +
         (write ? "write" : "read") + "\", \"start\": " + std::to_string(start) +
         ", \"end\": " + (end < 0 ? "null" : std::to_string(end)) +
         ", \"pid\": " + (pid > 0 ? std::to_string(pid) : "null") +
         ", \"command\": " + (command.empty() ? "null" : jsonString(command)) +
         ", \"fd\": " + (fd >= 0 ? std::to_string(fd) : "null") +
         ", \"remote\": " + (remote ? "true" : "false") + "}";
}

std::string jsonFile(const std::string &path, const std::vector<LockRow> &rows,
                     const RemoteHolder &remote, const std::string &fs) {
  std::string locks;
  for (const LockRow &r : rows)
    locks += (locks.empty() ? "" : ", ") +
             jsonLock(kindName(r.kind), r.write, r.start, r.end, r.pid, r.command, r.fd, false);
  if (remote.held)
    locks += (locks.empty() ? "" : ", ") +
             jsonLock("POSIX", remote.write, remote.start, remote.end, remote.pid, "", -1, true);
  return "{\"path\": " + jsonString(path) + ", \"held\": " + (locks.empty() ? "false" : "true") +
         ", \"remote_filesystem\": " + (fs.empty() ? "null" : jsonString(fs)) + ", \"locks\": [" +
         locks + "]}";
}

}  // namespace

int probeMain(int argc, char **argv) {
  bool json = false;
  int first = 1;
  if (argc > 1 && std::strcmp(argv[1], "--json") == 0) {
    json = true;
    first = 2;
  }
  if (argc <= first || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    const bool help = argc > first;
    std::fprintf(help ? stdout : stderr,
                 "usage: qmlock probe [--json] FILE...\n"
                 "Lists every lock on each FILE without taking any: flock(2) locks, POSIX\n"
                 "record locks and open-file-description (OFD) locks, each with its mode,\n"
                 "byte range and holders (PID, command, descriptor). On NFS, CIFS, Ceph,\n"
                 "GlusterFS and other file systems whose server arbitrates locks, a holder\n"
                 "this machine does not show is reported as a process on another machine,\n"
                 "with its PID there. --json prints one JSON array of the files.\n"
                 "Exit status: 0 all free, 1 some held, 2 an error.\n");
    return help ? 0 : 2;
  }
  bool held = false, failed = false;
  std::string jsonOut;
  for (int i = first; i < argc; ++i) {
    const std::string path = argv[i];
    const int fd = open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0) {
      std::fprintf(stderr, "qmlock: %s: %s\n", path.c_str(), std::strerror(errno));
      if (fd >= 0) close(fd);
      failed = true;
      continue;
    }
    LockQuery q;
    q.file = std::pair(st.st_dev, st.st_ino);
    const std::vector<LockRow> rows = kernelLocks(q);
    const std::string fs = remoteFileSystem(fd);
    const RemoteHolder remote = fs.empty() ? RemoteHolder{} : remoteHolder(fd, rows);
    close(fd);
    held = held || !rows.empty() || remote.held;
    if (json)
      jsonOut += (jsonOut.empty() ? "" : ",\n ") + jsonFile(path, rows, remote, fs);
    else
      printText(path, rows, remote, fs);
  }
  if (json) std::printf("[%s]\n", jsonOut.c_str());
  return failed ? 2 : held ? 1 : 0;
}

}  // namespace qmlock
