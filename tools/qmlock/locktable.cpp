// locktable.cpp - reads /proc/locks and the fdinfo of the processes whose
// descriptors name a locked file. Nothing here takes a lock or keeps a
// descriptor: each /proc file is read once and closed. A process that ends
// while it is being read simply is not listed.
#include "locktable.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>

#include "qmlock.h"

namespace qmlock {

namespace {

// The whole of a small /proc file, or empty.
std::string readSmallFile(const std::string &path) {
  std::string text;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buf[8192];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
  close(fd);
  return text;
}

// One line of /proc/locks, or of a "lock:" line of fdinfo, after its "N: ":
//   FLOCK  ADVISORY  WRITE 5063 fe:00:10953090 0 EOF
// Waiters ("-> FLOCK ...") and leases are not locks held, and give nothing.
std::optional<LockRow> parseLockLine(const std::string &line) {
  std::istringstream in(line);
  std::string id, kind, advisory, mode, pid, where, start, end;
  if (!(in >> id >> kind)) return std::nullopt;
  if (kind == "->") return std::nullopt;
  if (!(in >> advisory >> mode >> pid >> where >> start >> end)) return std::nullopt;
  LockRow r;
  if (kind == "FLOCK")
    r.kind = LockKind::flock;
  else if (kind == "POSIX")
    r.kind = LockKind::posix;
  else if (kind == "OFDLCK")
    r.kind = LockKind::ofd;
  else
    return std::nullopt;
  r.write = mode == "WRITE";
  r.pid = static_cast<pid_t>(std::strtol(pid.c_str(), nullptr, 10));
  // maj:min:inode, the device numbers in hexadecimal.
  const size_t c1 = where.find(':'), c2 = where.find(':', c1 + 1);
  if (c1 == std::string::npos || c2 == std::string::npos) return std::nullopt;
  r.dev = makedev(std::strtoul(where.substr(0, c1).c_str(), nullptr, 16),
                  std::strtoul(where.substr(c1 + 1, c2 - c1 - 1).c_str(), nullptr, 16));
  r.ino = static_cast<ino_t>(std::strtoull(where.c_str() + c2 + 1, nullptr, 10));
  r.start = static_cast<off_t>(std::strtoll(start.c_str(), nullptr, 10));
  r.end = end == "EOF" ? -1 : static_cast<off_t>(std::strtoll(end.c_str(), nullptr, 10));
  return r;
}

bool sameLock(const LockRow &a, const LockRow &b) {
  return a.kind == b.kind && a.write == b.write && a.dev == b.dev && a.ino == b.ino &&
         a.start == b.start && a.end == b.end;
}

std::string linkTarget(const std::string &link) {
  char target[4096];
  const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

// The locks each descriptor of process pid carries on the files in wanted,
// one row per lock and descriptor.
void descriptorLocks(pid_t pid, const std::set<std::pair<dev_t, ino_t>> &wanted,
                     std::vector<LockRow> &out) {
  const std::string base = "/proc/" + std::to_string(pid);
  DIR *fds = opendir((base + "/fd").c_str());
  if (fds == nullptr) return;
  std::string command;
  while (const dirent *e = readdir(fds)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    struct stat st {};
    if (fstatat(dirfd(fds), e->d_name, &st, 0) != 0) continue;
    if (wanted.count({st.st_dev, st.st_ino}) == 0) continue;
    const std::string info = readSmallFile(base + "/fdinfo/" + e->d_name);
    std::istringstream lines(info);
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("lock:", 0) != 0) continue;
      std::optional<LockRow> r = parseLockLine(line.substr(5));
      if (!r) continue;
      if (command.empty()) command = commandOf(pid);
      r->pid = pid;
      r->fd = std::atoi(e->d_name);
      r->command = command;
      r->path = linkTarget(base + "/fd/" + e->d_name);
      out.push_back(std::move(*r));
    }
  }
  closedir(fds);
}

}  // namespace

std::vector<LockRow> kernelLocks(const LockQuery &q) {
  // Every lock held on the machine (this mount namespace's view of it).
  std::vector<LockRow> entries;
  std::istringstream table(readSmallFile("/proc/locks"));
  for (std::string line; std::getline(table, line);) {
    std::optional<LockRow> r = parseLockLine(line);
    if (!r) continue;
    if (q.file && (r->dev != q.file->first || r->ino != q.file->second)) continue;
    entries.push_back(std::move(*r));
  }
  if (entries.empty()) return {};

  // Their holders, through the descriptors that carry them.
  std::set<std::pair<dev_t, ino_t>> wanted;
  for (const LockRow &e : entries) wanted.insert({e.dev, e.ino});
  std::vector<LockRow> held;
  if (q.pid > 0) {
    descriptorLocks(q.pid, wanted, held);
  } else if (DIR *proc = opendir("/proc")) {
    while (const dirent *e = readdir(proc)) {
      if (e->d_name[0] >= '1' && e->d_name[0] <= '9')
        descriptorLocks(static_cast<pid_t>(std::atoi(e->d_name)), wanted, held);
    }
    closedir(proc);
  }

  // Each entry claims its holders: first those /proc/locks names (any, for
  // an open-file-description lock, which it names none), then those that
  // inherited the descriptor of a flock(2) lock from the process that took it.
  std::vector<std::vector<size_t>> claimed(entries.size());
  std::vector<bool> taken(held.size(), false);
  for (int pass = 0; pass < 2; ++pass) {
    for (size_t i = 0; i < entries.size(); ++i) {
      const LockRow &e = entries[i];
      for (size_t j = 0; j < held.size(); ++j) {
        if (taken[j] || !sameLock(e, held[j])) continue;
        if (pass == 0 && e.kind != LockKind::ofd && held[j].pid != e.pid) continue;
        claimed[i].push_back(j);
        taken[j] = true;
      }
    }
  }
  std::vector<LockRow> out;
  for (size_t i = 0; i < entries.size(); ++i) {
    for (size_t j : claimed[i]) out.push_back(held[j]);
    const bool seen = std::any_of(held.begin(), held.end(),
                                  [&](const LockRow &h) { return sameLock(entries[i], h); });
    if (!claimed[i].empty() || seen) continue;
    // No descriptor found: keep what /proc/locks says.
    LockRow r = entries[i];
    if (r.pid < 0) r.pid = 0;
    if (q.pid > 0 && r.pid != q.pid) continue;
    r.command = commandOf(r.pid);
    out.push_back(std::move(r));
  }
  return out;
}

const char *kindName(LockKind k) {
  return k == LockKind::flock ? "flock" : k == LockKind::posix ? "POSIX" : "OFD";
}

const char *kernelKindName(LockKind k) {
  return k == LockKind::flock ? "FLOCK" : k == LockKind::posix ? "POSIX" : "OFDLCK";
}

bool rangesOverlap(off_t aStart, off_t aEnd, off_t bStart, off_t bEnd) {
  return (aEnd < 0 || bStart <= aEnd) && (bEnd < 0 || aStart <= bEnd);
}

std::string describeRow(const LockRow &r) {
  std::string who = r.pid > 0 ? processDescription(r.pid) : "a holder that no process shows";
  std::string what = std::string(r.kind == LockKind::ofd ? " holds an " : " holds a ") +
                     kindName(r.kind) + (r.write ? " write lock" : " read lock");
  if (r.start != 0 || r.end != -1)
    what += " on bytes " + std::to_string(r.start) + " to " +
            (r.end < 0 ? std::string("the end") : std::to_string(r.end));
  return who + what;
}

pid_t serverNamedPid(int fd, short type, off_t start, off_t len, pid_t ofdPid) {
  // F_OFD_GETLK names no process (-1) on some servers (GlusterFS) even for a
  // POSIX holder; F_GETLK reports the PID the server has for the holder. The
  // caller holds no record lock on the file here, so F_GETLK sees only others.
  struct flock q {};
  q.l_type = type;
  q.l_whence = SEEK_SET;
  q.l_start = start;
  q.l_len = len;
  if (fcntl(fd, F_GETLK, &q) == 0 && q.l_type != F_UNLCK) return q.l_pid;
  return ofdPid;
}

std::string conflictingHolders(int fd, const WantedLock &want) {
  struct stat st {};
  if (fstat(fd, &st) != 0) return "its holder could not be found";
  LockQuery q;
  q.file = std::pair(st.st_dev, st.st_ino);
  const pid_t self = getpid();
  // Each holder once, with every conflicting lock it holds.
  std::vector<std::pair<pid_t, std::string>> holders;
  for (const LockRow &r : kernelLocks(q)) {
    if (r.pid == self && r.fd == fd) continue;
    if (!(r.kind == LockKind::flock ? want.flock : want.record)) continue;
    if (!want.write && !r.write) continue;
    if (r.kind != LockKind::flock && !rangesOverlap(want.start, want.end, r.start, r.end)) continue;
    const std::string text = describeRow(r);
    auto h = std::find_if(holders.begin(), holders.end(),
                          [&](const auto &x) { return x.first == r.pid && r.pid > 0; });
    if (h == holders.end())
      holders.emplace_back(r.pid, text);
    else
      h->second += " and" + text.substr(text.find(" holds ") + 6);
  }
  std::string out;
  for (const auto &h : holders) out += (out.empty() ? "" : "; ") + h.second;
  if (!out.empty()) return out;
  // Nothing on this machine: on a file system whose server arbitrates
  // locks, the server names the holder, with the PID it has on its own
  // machine, which is nobody's here.
  const std::string remote = remoteFileSystem(fd);
  struct flock fl {};
  fl.l_type = want.write ? F_WRLCK : F_RDLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = want.start;
  fl.l_len = want.end < 0 ? 0 : want.end - want.start + 1;
  if (want.record && !remote.empty() && fcntl(fd, F_OFD_GETLK, &fl) == 0 && fl.l_type != F_UNLCK) {
    const pid_t pid = serverNamedPid(fd, want.write ? F_WRLCK : F_RDLCK, want.start,
                                     want.end < 0 ? 0 : want.end - want.start + 1, fl.l_pid);
    return "a process on another machine (PID " + std::to_string(pid) + " there, over " + remote +
           ") holds a " + (fl.l_type == F_WRLCK ? "write" : "read") + " lock";
  }
  return "its holder went away while it was being locked";
}

std::string jsonString(const std::string &s) {
  std::string out = "\"";
  for (const char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string remoteFileSystem(int fd) {
  struct statfs fs {};
  if (fstatfs(fd, &fs) != 0) return {};
  switch (static_cast<unsigned long>(fs.f_type)) {
    case 0x6969:
      return "NFS";
    case 0x517B:
      return "SMB";
    case 0xFF534D42:
      return "CIFS";
    case 0xFE534D42:
      return "SMB2";
    case 0x00C36400:
      return "Ceph";
    case 0x5346414F:
      return "AFS";
    case 0x01021997:
      return "9P";
    case 0x01161970:
      return "GFS2";
    case 0x7461636F:
      return "OCFS2";
    case 0x0BD00BD0:
      return "Lustre";
    case 0x65735546:
      break;  // FUSE: the daemon behind the mount tells
    default:
      return {};
  }
  // A FUSE mount: its type, from this process's mount table through the
  // mount ID of the descriptor.
  std::string mountId;
  std::istringstream info(readSmallFile("/proc/self/fdinfo/" + std::to_string(fd)));
  for (std::string line; std::getline(info, line);)
    if (line.rfind("mnt_id:", 0) == 0) mountId = line.substr(line.find_first_not_of(" \t", 7));
  std::istringstream mounts(readSmallFile("/proc/self/mountinfo"));
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string id;
    fields >> id;
    if (id != mountId) continue;
    const size_t dash = line.find(" - ");
    if (dash == std::string::npos) break;
    std::istringstream rest(line.substr(dash + 3));
    std::string type;
    rest >> type;
    if (type == "fuse.glusterfs") return "GlusterFS";
    if (type == "fuse.ceph-fuse" || type == "fuse.ceph") return "Ceph";
    break;
  }
  return {};
}

}  // namespace qmlock
