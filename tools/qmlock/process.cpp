// process.cpp - how every face of qmlock names a process: its command from
// /proc/PID/comm. Compiled into qmlock and into qmlock-manager.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "qmlock.h"

namespace qmlock {

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

}  // namespace qmlock
