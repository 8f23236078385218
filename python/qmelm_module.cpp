// qmelm_module.cpp - the Python module qmelm: file locks of the program's
// one lock manager (LockManager::process()), a lock object that is a context
// manager, the exceptions a refusal raises, and probe() over the tool's lock
// table (tools/qmlock/locktable.cpp, compiled in).
//
// The GIL is given back around every call into the lock manager and around
// every pause of a wait, so other Python threads run meanwhile; it is taken
// again between attempts to let a signal (Ctrl-C) end a wait.
// Each Lock object has a mutex of its own, taken without the GIL, so that
// two threads using one object take turns instead of racing on its FileLock.
#include <fcntl.h>
#include <pthread.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <fstream>
#include <list>
#include <mutex>
#include <optional>
#include <string>

#include "locktable.h"
#include "qmelm.hpp"

namespace py = pybind11;
namespace elm = qm::elm;

// locktable.cpp names its holders through these two, which the tool defines
// beside its main(); the module gives them the same meaning.
namespace qmlock {
std::string commandOf(int pid) {
  if (pid <= 0) return {};
  std::string comm;
  std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
  std::getline(in, comm);
  return comm;
}
std::string processDescription(int pid) {
  return elm::process_description(pid);
}
}  // namespace qmlock

namespace {

using Clock = std::chrono::steady_clock;

// The exception types made at import: LockHeld (a BlockingIOError).
PyObject *lockHeldType = nullptr;

// A holder as LockHeld carries it: "local" when this machine's /proc shows
// it or the file is on a local file system, "remote" when the file lives on
// a file system whose server arbitrates locks and no local process holds it
// (the PID is the other machine's), as qmlock probe tells them.
struct Holder {
  std::optional<int> pid;
  std::string command;
  const char *machine = "local";
  std::string text;  // "process 4242 (python3) holds a write lock"
};

// Who refused r on path, wanting a write lock or a read lock. fd is the
// descriptor of the caller's own lock on the file, or -1: the file is never
// opened for reading here, since closing such a descriptor would drop this
// process's record locks on it.
Holder holderOf(const elm::Result &r, const std::string &path, int fd, bool wantWrite) {
  Holder h;
  h.text = r.holder();
  if (r.internal_conflict()) {
    h.pid = getpid();
    h.command = qmlock::commandOf(getpid());
    return h;
  }
  if (r.locker_pid() == -1) return h;  // an open file description's lock: no process
  // An O_PATH descriptor when the caller has none: its close drops no
  // record lock.
  const int probe = fd >= 0 ? fd : open(path.c_str(), O_PATH | O_CLOEXEC);
  struct stat st {};
  if (probe < 0 || fstat(probe, &st) != 0) {
    if (probe >= 0 && fd < 0) close(probe);
    return h;
  }
  qmlock::LockQuery q;
  q.file = std::pair(st.st_dev, st.st_ino);
  const std::vector<qmlock::LockRow> rows = qmlock::kernelLocks(q);
  int pid = r.locker_pid();
  // A refusal that names no holder (it went away before the question, or
  // the call reports none): the first record lock of another process that
  // keeps the wanted one from being granted.
  for (size_t i = 0; pid == 0 && i < rows.size(); ++i) {
    const qmlock::LockRow &row = rows[i];
    if (row.pid > 0 && row.pid != getpid() && row.kind != qmlock::LockKind::flock &&
        (wantWrite || row.write)) {
      pid = row.pid;
      h.text = qmlock::describeRow(row);
    }
  }
  if (pid > 0) {
    h.pid = pid;
    h.command = qmlock::commandOf(pid);
    const bool seen = std::any_of(rows.begin(), rows.end(),
                                  [&](const qmlock::LockRow &row) { return row.pid == pid; });
    // Not on this machine: a remote holder only where a server arbitrates.
    if (!seen && !qmlock::remoteFileSystem(probe).empty()) {
      h.machine = "remote";
      h.command.clear();
    }
  }
  if (fd < 0) close(probe);
  return h;
}

// A file name as Python's str of it (os.fsdecode).
py::object pyPath(const std::string &path) {
  return py::module_::import("os").attr("fsdecode")(py::bytes(path));
}

// errno for a status that carries none, so that OSError picks its subclass
// (FileNotFoundError, PermissionError, ...).
int errnoOf(const elm::Result &r) {
  if (r.error() != 0) return r.error();
  const std::error_code c = r.code();
  for (const std::errc e :
       {std::errc::no_such_file_or_directory, std::errc::permission_denied, std::errc::file_exists,
        std::errc::too_many_files_open, std::errc::not_enough_memory, std::errc::invalid_argument})
    if (c == e) return static_cast<int>(e);
  return 0;
}

// What a call that wanted a lock of one kind on a file was refused with.
struct Request {
  std::string path;
  bool write;  // a write lock was wanted
  int fd;      // the caller's own descriptor of the file, or -1
};

// The exception for a refused or failed call (the GIL held): LockHeld for a
// conflict, OSError with the status's name and the journal's text
// otherwise. Both carry .status (the name) and .journal (the text).
py::object errorFor(const elm::Result &r, const Request &q) {
  py::object exc;
  if (r.conflict()) {
    const Holder h = holderOf(r, q.path, q.fd, q.write);
    const std::string text = r.to_string() + (h.text.empty() ? "" : " Holder: " + h.text + ".");
    exc = py::reinterpret_borrow<py::object>(lockHeldType)(EAGAIN, text, pyPath(q.path));
    exc.attr("pid") = h.pid ? py::object(py::int_(*h.pid)) : py::object(py::none());
    exc.attr("command") = h.command.empty() ? py::object(py::none()) : py::str(h.command);
    exc.attr("machine") = py::str(h.machine);
  } else {
    exc = py::reinterpret_borrow<py::object>(PyExc_OSError)(errnoOf(r), r.to_string(),
                                                            pyPath(q.path));
  }
  exc.attr("status") = py::str(std::string(r.name()));
  exc.attr("journal") = py::str(r.message());
  return exc;
}

[[noreturn]] void raise(const py::object &exc) {
  PyErr_SetObject(reinterpret_cast<PyObject *>(Py_TYPE(exc.ptr())), exc.ptr());
  throw py::error_already_set();
}

// A timeout given in seconds: none (one attempt), a time, or forever (inf).
struct Deadline {
  std::optional<Clock::time_point> at;  // empty: one attempt only
  bool forever = false;

  static Deadline of(std::optional<double> seconds) {
    Deadline d;
    if (!seconds) return d;
    if (std::isnan(*seconds) || *seconds < 0) throw py::value_error("timeout must be None or >= 0");
    // Past some thirty years: forever, where a time point would overflow.
    if (*seconds > 1e9) {
      d.forever = true;
      return d;
    }
    d.at = Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*seconds));
    return d;
  }
};

// Runs attempt (without the GIL) until it is granted, fails for another
// reason, or the deadline passes: a conflict past the deadline raises
// TimeoutError (its cause the LockHeld of the last refusal), or LockHeld
// when no timeout was given. Between attempts it sleeps the back-off of
// file_mutex (1 ms doubling to 50 ms) without the GIL, and takes the GIL to
// let signal handlers run. fd() gives the caller's own descriptor of the
// file, or -1.
template <class Attempt, class Fd>
void waitFor(const Deadline &d, const std::string &path, bool write, Attempt attempt, Fd fd) {
  elm::detail::Backoff backoff;
  for (;;) {
    elm::Result r;
    bool past = false;
    {
      py::gil_scoped_release unlocked;
      r = attempt();
      if (r.conflict() && (d.at || d.forever)) {
        const auto now = Clock::now();
        past = !d.forever && now >= *d.at;
        if (!past)
          backoff.sleep(d.forever ? std::chrono::nanoseconds::max()
                                  : std::chrono::ceil<std::chrono::nanoseconds>(*d.at - now));
      }
    }
    if (r.ok()) return;
    if (!r.conflict() || (!d.at && !d.forever)) raise(errorFor(r, {path, write, fd()}));
    if (past) {
      const py::object held = errorFor(r, {path, write, fd()});
      const py::object timeout = py::reinterpret_borrow<py::object>(PyExc_TimeoutError)(
          "timed out waiting for the lock on " + path + ": " +
          py::str(held.attr("strerror")).cast<std::string>());
      PyException_SetCause(timeout.ptr(), held.inc_ref().ptr());
      raise(timeout);
    }
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
}

enum class Mode { read, write };

Mode modeOf(const std::string &name) {
  if (name == "write") return Mode::write;
  if (name == "read") return Mode::read;
  throw py::value_error("mode must be \"write\" or \"read\", not \"" + name + "\"");
}
elm::LockType typeOf(Mode m) {
  return m == Mode::write ? elm::LockType::write : elm::LockType::read;
}
// The access a lock of mode m opens its file with: a write record lock needs
// a descriptor open for writing.
uint32_t openFlagsOf(Mode m) {
  return m == Mode::write ? O_RDWR | O_CREAT : O_RDONLY | O_CREAT;
}

// The manager every lock of the process comes from; raises when libqmelm.so
// could not be loaded.
elm::LockManager &manager() {
  elm::LockManager &lm = elm::LockManager::process();
  if (!lm) raise(errorFor(lm.status(), {"libqmelm.so", true, -1}));
  return lm;
}

// The path of an os.PathLike, str or bytes as the bytes of the file name
// (os.fsencode), which the lock manager takes as UTF-8.
std::string pathOf(const py::object &path) {
  py::bytes b = py::module_::import("os").attr("fsencode")(path);
  return std::string(b);
}

// The locks of this module that are live, so that probe() asks about a file
// through a lock's own descriptor instead of opening (and closing) another,
// and so that a fork finds every Lock's mutex free (forkPrepare).
class Lock;
std::mutex liveMutex;
std::list<Lock *> live;  // guarded by liveMutex

// qmelm.lock(...): one lock on one file, held from its creation until
// release() or the end of a with block. The lock is this process's: after
// os.fork() the child's copy holds nothing (held is False there, and
// release() there gives nothing back).
class Lock {
 public:
  Lock(std::string path, Mode mode, bool deleteOnClose) : path_(std::move(path)), mode_(mode) {
    options_.open_flags = openFlagsOf(mode);
    options_.delete_on_close = deleteOnClose;
    std::lock_guard<std::mutex> g(liveMutex);
    me_ = live.insert(live.end(), this);
  }
  // The FileLock releases itself quietly. No other thread is inside a
  // method: each holds a reference to the object while it is.
  ~Lock() {
    std::lock_guard<std::mutex> g(liveMutex);
    live.erase(me_);
  }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

  void acquire(const Deadline &d) {
    elm::LockManager &lm = manager();
    waitFor(
        d, path_, mode_ == Mode::write,
        [&] {
          std::lock_guard<std::mutex> g(m_);
          auto [lock, r] = lm.lock(path_, typeOf(mode_), options_);
          if (r) lock_ = std::move(lock);
          return std::move(r);
        },
        [] { return -1; });
  }

  void change(Mode to, const Deadline &d) {
    if (!active()) throw py::value_error("the lock on " + path_ + " is released");
    waitFor(
        d, path_, to == Mode::write,
        [&] {
          std::lock_guard<std::mutex> g(m_);
          if (!lock_) return elm::Result(QMELM_E_NULL_HANDLE);
          // A downgrade keeps the descriptor; an upgrade of a read lock
          // needs one open for writing.
          elm::Result r = to == Mode::write && mode_ == Mode::read
                              ? lock_.change(typeOf(to), openFlagsOf(to) & ~uint32_t(O_CREAT))
                              : lock_.change(typeOf(to));
          if (r) mode_ = to;
          return r;
        },
        [&] {
          std::lock_guard<std::mutex> g(m_);
          return lock_.fd();
        });
  }

  // Gives the lock back; nothing when it is already released, or when it
  // was inherited through os.fork() (the parent still holds it).
  void release() {
    elm::Result r;
    {
      py::gil_scoped_release unlocked;
      std::lock_guard<std::mutex> g(m_);
      if (!lock_) return;
      r = lock_.release();
    }
    if (!r && r.status() != QMELM_E_FORKED_HANDLE) raise(errorFor(r, {path_, false, -1}));
  }

  bool held() {
    py::gil_scoped_release unlocked;
    std::lock_guard<std::mutex> g(m_);
    return lock_.held();
  }
  int fileno() {
    std::lock_guard<std::mutex> g(m_);
    if (!lock_) throw py::value_error("the lock on " + path_ + " is released");
    return lock_.fd();
  }
  // The descriptor when this lock is live and on file (dev, ino), else -1.
  int fdFor(dev_t dev, ino_t ino) {
    std::lock_guard<std::mutex> g(m_);
    struct stat st {};
    if (!lock_ || fstat(lock_.fd(), &st) != 0) return -1;
    return st.st_dev == dev && st.st_ino == ino ? lock_.fd() : -1;
  }
  const char *mode() {
    std::lock_guard<std::mutex> g(m_);
    return mode_ == Mode::write ? "write" : "read";
  }
  const std::string &path() const { return path_; }
  bool active() {
    std::lock_guard<std::mutex> g(m_);
    return static_cast<bool>(lock_);
  }

 private:
  friend void forkPrepare() noexcept;
  friend void forkRelease() noexcept;

  std::string path_;
  Mode mode_;  // guarded by m_
  elm::LockOptions options_;
  std::mutex m_;        // guards lock_ and mode_
  elm::FileLock lock_;  // empty once released
  std::list<Lock *>::iterator me_;
};

// os.fork() from one thread while others work with locks: the child's copy
// of a mutex another thread held would stay locked forever. Before the
// fork, the forking thread takes liveMutex and then every live Lock's mutex
// (the order everything else takes them in; none is held for long, and no
// holder waits for the GIL, which the forking thread holds); after it, the
// parent and the child give them back.
void forkPrepare() noexcept {
  liveMutex.lock();
  for (Lock *l : live) l->m_.lock();
}
void forkRelease() noexcept {
  for (Lock *l : live) l->m_.unlock();
  liveMutex.unlock();
}

// One lock of the table as qmlock probe --json writes it.
py::dict lockRow(const char *kind, bool write, off_t start, off_t end, pid_t pid,
                 const std::string &command, int fd, bool remote) {
  py::dict d;
  d["kind"] = kind;
  d["mode"] = write ? "write" : "read";
  d["start"] = start;
  d["end"] = end < 0 ? py::object(py::none()) : py::object(py::int_(end));
  d["pid"] = pid > 0 ? py::object(py::int_(pid)) : py::object(py::none());
  d["command"] = command.empty() ? py::object(py::none()) : py::object(py::str(command));
  d["fd"] = fd >= 0 ? py::object(py::int_(fd)) : py::object(py::none());
  d["remote"] = remote;
  return d;
}

// The holder a lock server names for path and this machine does not show,
// asked through fd: with F_OFD_GETLK on a descriptor of our own (as the
// tool does), with F_GETLK on one of this module's locks, which skips this
// process's own locks.
std::optional<struct flock> remoteHolder(int fd, bool ownLock,
                                         const std::vector<qmlock::LockRow> &rows) {
  struct flock q {};
  q.l_type = F_WRLCK;
  q.l_whence = SEEK_SET;
  if (fcntl(fd, ownLock ? F_GETLK : F_OFD_GETLK, &q) != 0 || q.l_type == F_UNLCK) return {};
  const off_t end = q.l_len == 0 ? -1 : q.l_start + q.l_len - 1;
  for (const qmlock::LockRow &r : rows) {
    if (r.kind == qmlock::LockKind::flock || r.start != q.l_start || r.end != end) continue;
    if (q.l_pid == -1 ? r.kind == qmlock::LockKind::ofd : r.pid == q.l_pid) return {};
  }
  return q;
}

// qmelm.probe(path): the file's locks of every kind and their holders.
py::dict probe(const py::object &pathObject) {
  const std::string path = pathOf(pathObject);
  std::vector<qmlock::LockRow> rows;
  std::string fs;
  std::optional<struct flock> remote;
  {
    py::gil_scoped_release unlocked;
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
      py::gil_scoped_acquire locked;
      PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
      throw py::error_already_set();
    }
    qmlock::LockQuery q;
    q.file = std::pair(st.st_dev, st.st_ino);
    rows = qmlock::kernelLocks(q);
    // The file system's kind through an O_PATH descriptor, whose close
    // drops no record lock of this process.
    if (const int p = open(path.c_str(), O_PATH | O_CLOEXEC); p >= 0) {
      fs = qmlock::remoteFileSystem(p);
      close(p);
    }
    if (!fs.empty()) {
      // Asking the server needs a descriptor open for reading: one of this
      // module's locks on the file when there is one, else a new one (its
      // close drops any record lock this process took on the file by other
      // means, as any open and close of the file in the process does).
      int own = -1;
      {
        std::lock_guard<std::mutex> g(liveMutex);
        for (Lock *l : live)
          if ((own = l->fdFor(st.st_dev, st.st_ino)) >= 0) break;
      }
      if (own >= 0) {
        remote = remoteHolder(own, true, rows);
      } else if (const int fd = open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
                 fd >= 0) {
        remote = remoteHolder(fd, false, rows);
        close(fd);
      }
    }
  }
  py::list locks;
  for (const qmlock::LockRow &r : rows)
    locks.append(
        lockRow(qmlock::kindName(r.kind), r.write, r.start, r.end, r.pid, r.command, r.fd, false));
  if (remote) {
    const off_t end = remote->l_len == 0 ? -1 : remote->l_start + remote->l_len - 1;
    locks.append(lockRow("POSIX", remote->l_type == F_WRLCK, remote->l_start, end, remote->l_pid,
                         "", -1, true));
  }
  py::dict out;
  out["path"] = pyPath(path);
  out["held"] = py::len(locks) > 0;
  out["remote_filesystem"] = fs.empty() ? py::object(py::none()) : py::object(py::str(fs));
  out["locks"] = locks;
  return out;
}

}  // namespace

PYBIND11_MODULE(qmelm, m) {
  m.doc() =
      "File locks of the QM Resource Lock Manager: between the threads of this process (one "
      "lock manager for the process) and between processes (POSIX record locks).";

  py::dict defaults;
  defaults["pid"] = py::none();
  defaults["command"] = py::none();
  defaults["machine"] = py::none();
  defaults["status"] = py::none();
  defaults["journal"] = py::none();
  lockHeldType = PyErr_NewExceptionWithDoc(
      "qmelm.LockHeld",
      "The lock is held by another holder: another thread of this process or another process "
      "(.pid, .command, .machine: \"local\" or \"remote\").",
      PyExc_BlockingIOError, defaults.ptr());
  if (lockHeldType == nullptr) throw py::error_already_set();
  m.attr("LockHeld") = py::reinterpret_borrow<py::object>(lockHeldType);
  // The lock manager is loaded now, so that its fork handlers are in place
  // before these: handlers registered later prepare first, and these must
  // wait for a thread inside the lock manager before the lock manager's
  // own take its mutexes. A failure to load is raised by the first lock().
  (void)elm::LockManager::process();
  if (pthread_atfork(forkPrepare, forkRelease, forkRelease) != 0)
    throw py::import_error("qmelm: pthread_atfork failed");

  py::class_<Lock>(m, "Lock", "A lock on one file, from qmelm.lock().")
      .def(
          "upgrade",
          [](Lock &l, std::optional<double> timeout) {
            l.change(Mode::write, Deadline::of(timeout));
          },
          py::arg("timeout") = py::none())
      .def("downgrade", [](Lock &l) { l.change(Mode::read, Deadline::of(std::nullopt)); })
      .def("release", &Lock::release)
      .def_property_readonly("held", &Lock::held)
      .def("fileno", &Lock::fileno)
      .def_property_readonly("mode", &Lock::mode)
      .def_property_readonly("path", [](const Lock &l) { return pyPath(l.path()); })
      .def(
          "__enter__", [](Lock &l) -> Lock & { return l; }, py::return_value_policy::reference)
      .def("__exit__", [](Lock &l, const py::args &) { l.release(); })
      .def("__repr__", [](Lock &l) {
        return "<qmelm.Lock " + std::string(l.mode()) + " " + l.path() +
               (l.active() ? "" : " released") + ">";
      });

  m.def(
      "lock",
      [](const py::object &path, const std::string &mode, std::optional<double> timeout,
         bool deleteOnClose) {
        const Mode md = modeOf(mode);
        const Deadline d = Deadline::of(timeout);
        auto l = std::make_unique<Lock>(pathOf(path), md, deleteOnClose);
        l->acquire(d);
        return l;
      },
      py::arg("path"), py::arg("mode") = "write", py::arg("timeout") = py::none(),
      py::arg("delete_on_close") = false,
      "Locks path (created when absent) for writing or reading.");
  m.def("probe", &probe, py::arg("path"));
}
