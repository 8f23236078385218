// probe.cpp - qmlock probe FILE...: who holds each file's record lock, asked
// with F_GETLK, which takes no lock. Closing the probe's descriptor drops
// this process's record locks on the file, of which it has none.
// Exit 0 when every file is free, 1 when any is held, 2 on an error.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "qmlock.h"

namespace qmlock {

int probeMain(int argc, char **argv) {
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    std::fprintf(argc < 2 ? stderr : stdout,
                 "usage: qmlock probe FILE...\n"
                 "Tells for each FILE whether it is free or held, with a read or a write\n"
                 "lock, by which process, without taking any lock. Exit status: 0 all\n"
                 "free, 1 some held, 2 an error.\n");
    return argc < 2 ? 2 : 0;
  }
  bool held = false, failed = false;
  for (int i = 1; i < argc; ++i) {
    const char *path = argv[i];
    const int fd = open(path, O_RDONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
      std::fprintf(stderr, "qmlock: %s: %s\n", path, std::strerror(errno));
      failed = true;
      continue;
    }
    // A write probe is refused by any lock, so the kernel names one holder of
    // either kind.
    struct flock q {};
    q.l_type = F_WRLCK;
    q.l_whence = SEEK_SET;
    const int rc = fcntl(fd, F_GETLK, &q);
    const int err = errno;
    close(fd);
    if (rc != 0) {
      std::fprintf(stderr, "qmlock: %s: %s\n", path, std::strerror(err));
      failed = true;
    } else if (q.l_type == F_UNLCK) {
      std::printf("%s: free\n", path);
    } else {
      std::printf("%s: held (%s) by %s\n", path, q.l_type == F_WRLCK ? "write" : "read",
                  processDescription(q.l_pid).c_str());
      held = true;
    }
  }
  return failed ? 2 : held ? 1 : 0;
}

}  // namespace qmlock
