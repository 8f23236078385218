// qmelm.hpp - a small header-only C++ layer over the lock manager's C
// interface (qmelm.h) and the substitute host (qmhost/qmhost.h).
//
//   qm::elm::Host host;                   // a host (libqmhost.so)
//   qm::elm::LockManager lm(host);        // loads libqmelm.so by name
//   auto [lock, r] = lm.lock("/srv/data/orders.db", qm::elm::LockType::exclusive);
//   if (!r) std::cerr << r.to_string() << " (process " << r.locker_pid() << ")\n";
//   else write(lock.fd(), "x", 1);        // released when `lock` goes
//
// Ownership and lifetimes: a Host outlives the LockManagers made on it, and a
// LockManager outlives its FileLocks (destroying the extension frees the
// handles of unreleased locks, so a FileLock left behind must not be used).
// Threads: Host and LockManager may be used from any number of threads at
// once; one FileLock is used by one thread at a time, like any object.
// Failures come back as Result values, never as exceptions from the lock
// manager; std::bad_alloc from the strings and vectors here is the only
// exception these functions can throw, and destructors throw nothing.
#ifndef QMHOST_QMELM_HPP
#define QMHOST_QMELM_HPP

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qmelm.h"
#include "qmhost/qmhost.h"

namespace qm::elm {

// ---- statuses ---------------------------------------------------------------

struct StatusInfo {
  QMStatus code;
  const char *name;  // the symbolic name, e.g. "QMELM_E_EXT_LOCKED_EXCLUSIVE"
  const char *text;  // the catalogue's English text
};

// Every status of the lock manager and of the host, from the lists that also
// make their constants and the host's catalogue.
inline constexpr StatusInfo kStatuses[] = {
#define QMELM_HPP_STATUS_ROW(name, code, text) {static_cast<QMStatus>(code), #name, text},
    QMELM_STATUS_LIST(QMELM_HPP_STATUS_ROW) QM_HOST_STATUS_LIST(QMELM_HPP_STATUS_ROW)
#undef QMELM_HPP_STATUS_ROW
};

// The row of a status, or null for 0 and for codes no list knows.
inline const StatusInfo *find_status(QMStatus s) noexcept {
  for (const StatusInfo &i : kStatuses)
    if (i.code == s) return &i;
  return nullptr;
}
// "OK" for 0, "UNKNOWN" for a code no list knows.
inline std::string_view status_name(QMStatus s) noexcept {
  const StatusInfo *i = find_status(s);
  return i != nullptr ? i->name : s == 0 ? "OK" : "UNKNOWN";
}
inline std::string_view status_text(QMStatus s) noexcept {
  const StatusInfo *i = find_status(s);
  return i != nullptr ? i->text : s == 0 ? "Success." : "Unknown status.";
}
namespace detail {
// A number written in hexadecimal with 0x or in decimal, at most max.
inline std::optional<uint64_t> parse_number(std::string_view text, uint64_t max) noexcept {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (hex) text.remove_prefix(2);
  if (text.empty() || text.size() > 16) return std::nullopt;
  uint64_t v = 0;
  for (char c : text) {
    const int d = c >= '0' && c <= '9'          ? c - '0'
                  : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                  : hex && c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                : -1;
    if (d < 0 || v > (max - static_cast<uint64_t>(d)) / (hex ? 16 : 10)) return std::nullopt;
    v = v * (hex ? 16 : 10) + static_cast<uint64_t>(d);
  }
  return v;
}
}  // namespace detail

// The status named by text: a symbolic name, "OK", or a number (0x80ffe011).
inline std::optional<QMStatus> parse_status(std::string_view text) noexcept {
  for (const StatusInfo &i : kStatuses)
    if (text == i.name) return i.code;
  if (text == "OK") return 0;
  std::optional<uint64_t> v = detail::parse_number(text, UINT32_MAX);
  if (!v) return std::nullopt;
  return static_cast<QMStatus>(static_cast<uint32_t>(*v));
}

// The outcome of one call: the status, its symbolic name, the text the lock
// manager journaled for it (the catalogue's text when it journaled nothing),
// and for a refused external lock the holder's PID.
class [[nodiscard]] Result {
 public:
  Result() = default;  // success
  explicit Result(QMStatus status, std::string message = {}, int locker_pid = 0, int error = 0)
      : status_(status), locker_pid_(locker_pid), error_(error), message_(std::move(message)) {
    if (status_ != 0 && message_.empty()) message_ = status_text(status_);
  }

  QMStatus status() const noexcept { return status_; }
  bool ok() const noexcept { return status_ == 0; }
  explicit operator bool() const noexcept { return ok(); }
  std::string_view name() const noexcept { return status_name(status_); }
  // What the lock manager journaled for this call (several messages joined
  // by a space); empty on success.
  const std::string &message() const noexcept { return message_; }
  // LockerPID of a refused external lock: the holding process, or -1 when the
  // holder is an open-file-description lock (owned by no process); else 0.
  int locker_pid() const noexcept { return locker_pid_; }
  // errno of the system call that failed (Errno), or 0.
  int error() const noexcept { return error_; }

  // Refused because of another holder: a thread of this process (the
  // QMELM_E_INT_* conflicts) or another process (QMELM_E_EXT_LOCKED_*, or a
  // lock that could not be taken with EAGAIN or EACCES, which also covers a
  // file replaced between its open and its lock). Trying again later may
  // succeed; nothing else will change by itself.
  bool conflict() const noexcept {
    switch (status_) {
      case QMELM_E_INT_LOCKED_EXCLUSIVE:
      case QMELM_E_INT_LOCKED_SHARED:
      case QMELM_E_INT_SHARE_CONFLICT:
      case QMELM_E_EXT_LOCKED_EXCLUSIVE:
      case QMELM_E_EXT_LOCKED_SHARED:
        return true;
      case QMELM_E_EXT_LOCK_FAILED:
        return error_ == EAGAIN || error_ == EACCES;
      default:
        return false;
    }
  }
  // The holder is another thread of this process.
  bool internal_conflict() const noexcept {
    return status_ == QMELM_E_INT_LOCKED_EXCLUSIVE || status_ == QMELM_E_INT_LOCKED_SHARED ||
           status_ == QMELM_E_INT_SHARE_CONFLICT;
  }

  // "ok", or "error 0x80ffe011 QMELM_E_EXT_LOCKED_EXCLUSIVE: <message>".
  std::string to_string() const {
    if (ok()) return "ok";
    static constexpr char digits[] = "0123456789abcdef";
    std::string out = "error 0x";
    for (int shift = 28; shift >= 0; shift -= 4)
      out += digits[(static_cast<uint32_t>(status_) >> shift) & 0xf];
    out += ' ';
    out += name();
    out += ": ";
    out += message_;
    return out;
  }

 private:
  QMStatus status_ = 0;
  int locker_pid_ = 0;
  int error_ = 0;
  std::string message_;
};

// A value and the Result of the call that produced it (the value is empty or
// default when the call failed): `auto [value, result] = ...`.
template <class T>
struct [[nodiscard]] Outcome {
  T value{};
  Result result;
  explicit operator bool() const noexcept { return result.ok(); }
};

// ---- lock types -------------------------------------------------------------

// The bits of a lock type (QMELM_INT_EXCLUSIVE ...), with names for reading
// and writing them: "int-excl,ext-excl,shared".
class LockType {
 public:
  constexpr LockType() noexcept = default;
  constexpr explicit LockType(QMMemSize bits) noexcept : bits_(bits) {}

  static const LockType int_exclusive, int_nonexclusive, ext_exclusive, ext_nonexclusive,
      no_internal, no_external, shared, opt_none, opt_fail, opt_continue;
  // Whole-file locks between threads and processes alike: one writer, or
  // any number of readers.
  static const LockType exclusive, nonexclusive;

  constexpr QMMemSize bits() const noexcept { return bits_; }
  // Every bit of t is set (t not empty).
  constexpr bool has(LockType t) const noexcept {
    return t.bits_ != 0 && (bits_ & t.bits_) == t.bits_;
  }
  constexpr explicit operator bool() const noexcept { return bits_ != 0; }
  friend constexpr LockType operator|(LockType a, LockType b) noexcept {
    return LockType(a.bits_ | b.bits_);
  }
  friend constexpr LockType operator&(LockType a, LockType b) noexcept {
    return LockType(a.bits_ & b.bits_);
  }
  friend constexpr LockType operator~(LockType a) noexcept { return LockType(~a.bits_); }
  constexpr LockType &operator|=(LockType b) noexcept { return *this = *this | b; }
  constexpr LockType &operator&=(LockType b) noexcept { return *this = *this & b; }
  friend constexpr bool operator==(LockType a, LockType b) noexcept = default;

  // Names joined by commas in bit order, bits without a name in hexadecimal;
  // "none" for no bit.
  friend std::string to_string(LockType t);
  // Names or numbers (0x45, 69) joined by ',', '|' or '+'; "none" is 0.
  static std::optional<LockType> parse(std::string_view text) noexcept;

 private:
  QMMemSize bits_ = 0;
};

inline constexpr LockType LockType::int_exclusive{QMELM_INT_EXCLUSIVE};
inline constexpr LockType LockType::int_nonexclusive{QMELM_INT_NONEXCLUSIVE};
inline constexpr LockType LockType::ext_exclusive{QMELM_EXT_EXCLUSIVE};
inline constexpr LockType LockType::ext_nonexclusive{QMELM_EXT_NONEXCLUSIVE};
inline constexpr LockType LockType::no_internal{QMELM_NOINTERNAL_LOCK};
inline constexpr LockType LockType::no_external{QMELM_NOEXTERNAL_LOCK};
inline constexpr LockType LockType::shared{QMELM_SHARED};
inline constexpr LockType LockType::opt_none{QMELM_OPT_NONE};
inline constexpr LockType LockType::opt_fail{QMELM_OPT_FAIL};
inline constexpr LockType LockType::opt_continue{QMELM_OPT_CONTINUE};
inline constexpr LockType LockType::exclusive{QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE};
inline constexpr LockType LockType::nonexclusive{QMELM_INT_NONEXCLUSIVE | QMELM_EXT_NONEXCLUSIVE};

struct LockTypeName {
  QMMemSize bit;
  const char *name;
};
inline constexpr LockTypeName kLockTypeNames[] = {
    {QMELM_INT_EXCLUSIVE, "int-excl"}, {QMELM_INT_NONEXCLUSIVE, "int-nonexcl"},
    {QMELM_EXT_EXCLUSIVE, "ext-excl"}, {QMELM_EXT_NONEXCLUSIVE, "ext-nonexcl"},
    {QMELM_NOINTERNAL_LOCK, "no-int"}, {QMELM_NOEXTERNAL_LOCK, "no-ext"},
    {QMELM_SHARED, "shared"},          {QMELM_OPT_NONE, "opt-none"},
    {QMELM_OPT_FAIL, "opt-fail"},      {QMELM_OPT_CONTINUE, "opt-continue"},
};

inline std::string to_string(LockType t) {
  std::string out;
  QMMemSize rest = t.bits();
  for (const LockTypeName &n : kLockTypeNames) {
    if ((rest & n.bit) == 0) continue;
    if (!out.empty()) out += ',';
    out += n.name;
    rest &= ~n.bit;
  }
  if (rest != 0) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex;
    for (; rest != 0; rest >>= 4) hex.insert(hex.begin(), digits[rest & 0xf]);
    if (!out.empty()) out += ',';
    out += "0x" + hex;
  }
  return out.empty() ? "none" : out;
}

inline std::optional<LockType> LockType::parse(std::string_view text) noexcept {
  if (text.empty()) return std::nullopt;
  QMMemSize bits = 0;
  for (;;) {
    const size_t end = text.find_first_of(",|+");
    const std::string_view token = text.substr(0, end);
    std::optional<uint64_t> number;
    if (token == "none") {
      number = 0;
    } else {
      for (const LockTypeName &n : kLockTypeNames)
        if (token == n.name) number = n.bit;
      if (!number) number = detail::parse_number(token, UINT64_MAX);
    }
    if (!number) return std::nullopt;
    bits |= *number;
    if (end == std::string_view::npos) return LockType(bits);
    text.remove_prefix(end + 1);
  }
}

// "Fail", "None", "Continue", "Reset", "Unknown".
inline std::string_view option_name(QMELMLockOption o) noexcept {
  switch (o) {
    case QMELM_Fail:
      return "Fail";
    case QMELM_None:
      return "None";
    case QMELM_Continue:
      return "Continue";
    case QMELM_Reset:
      return "Reset";
    default:
      return "Unknown";
  }
}
inline std::optional<QMELMLockOption> parse_option(std::string_view name) noexcept {
  for (QMELMLockOption o : {QMELM_Fail, QMELM_None, QMELM_Continue, QMELM_Reset})
    if (name == option_name(o)) return o;
  return std::nullopt;
}

// ---- text -------------------------------------------------------------------

// QMChar text from UTF-8 (malformed bytes become U+FFFD), and back.
inline std::vector<QMChar> to_qm(std::string_view utf8) {
  const std::string z(utf8);  // qmhost_from_utf8 reads up to a NUL
  std::vector<QMChar> out(qmhost_from_utf8(z.c_str(), nullptr, 0));
  qmhost_from_utf8(z.c_str(), out.data(), out.size());
  return out;
}
inline std::string to_utf8(const QMChar *s, size_t len) {
  if (s == nullptr || len == 0) return {};
  std::string out(qmhost_to_utf8(s, len, nullptr, 0), '\0');
  qmhost_to_utf8(s, len, out.data(), out.size() + 1);
  return out;
}

// ---- the host ---------------------------------------------------------------

namespace detail {

// Memory journals lent to one call at a time, so that the text a call
// journaled is its own even while other threads call too.
class JournalPool {
 public:
  explicit JournalPool(QMHndlp host) noexcept : host_(host) {}

  // A cleared journal, or null when none can be made (the call then runs
  // without one, and its Result carries the catalogue's text).
  QMJnlh take() noexcept {
    {
      std::lock_guard<std::mutex> g(m_);
      if (!free_.empty()) {
        QMJnlh j = free_.back();
        free_.pop_back();
        return j;
      }
    }
    return host_ != nullptr ? qmhost_journal_create(host_, QM_JNL_MEMORY, nullptr) : nullptr;
  }
  void give(QMJnlh j) noexcept {
    if (j == nullptr) return;
    qmhost_journal_clear(j);
    std::lock_guard<std::mutex> g(m_);
    try {
      free_.push_back(j);
    } catch (...) {
      j->generic.destroy(j);
    }
  }

 private:
  QMHndlp host_;
  std::mutex m_;
  std::vector<QMJnlh> free_;  // the host destroys them with itself
};

// One borrowed journal for the length of a call.
class Borrowed {
 public:
  explicit Borrowed(JournalPool &pool) noexcept : pool_(pool), j_(pool.take()) {}
  ~Borrowed() { pool_.give(j_); }
  Borrowed(const Borrowed &) = delete;
  Borrowed &operator=(const Borrowed &) = delete;
  QMJnlh get() const noexcept { return j_; }

  // The texts of the journal's entries, joined by a space.
  std::string text() const {
    std::string out;
    const size_t n = qmhost_journal_count(j_);
    for (size_t i = 0; i < n; ++i) {
      QMHostJournalEntry e{};
      if (qmhost_journal_entry(j_, i, &e) != 0 || e.text == nullptr) continue;
      if (!out.empty()) out += ' ';
      out += e.text;
    }
    return out;
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    const size_t n = qmhost_journal_count(j_);
    for (size_t i = 0; i < n; ++i) {
      QMHostJournalEntry e{};
      if (qmhost_journal_entry(j_, i, &e) == 0 && e.text != nullptr) out.emplace_back(e.text);
    }
    return out;
  }
  Result result(QMStatus s, int locker_pid = 0, int error = 0) const {
    return s == 0 ? Result() : Result(s, text(), locker_pid, error);
  }

 private:
  JournalPool &pool_;
  QMJnlh j_;
};

}  // namespace detail

// A substitute host (libqmhost.so): the kernel handle that extensions are
// loaded into. Destroying it destroys everything it made.
class Host {
 public:
  struct Options {
    // I/O records are kept only above QMIO_ByteCount_None.
    QMIOByteCountKind iobytecount = QMIO_ByteCount_Default;
    // Directories searched for lib<name>.so, ':'-separated; empty: the
    // environment's QMHOST_EXTENSION_PATH, then libqmhost.so's directory.
    std::string extension_path;
    // Where the host's own journal (qmjnl) writes.
    QMJnlKind default_journal = QM_JNL_STDERR;
  };

  Host() : Host(Options{}) {}
  explicit Host(const Options &o) : h_(create(o)), journals_(h_) {}
  ~Host() {
    if (h_ != nullptr) qmhost_destroy(h_);
  }
  Host(const Host &) = delete;
  Host &operator=(const Host &) = delete;

  // False when the host could not be made (out of memory).
  explicit operator bool() const noexcept { return h_ != nullptr; }
  QMHndlp get() const noexcept { return h_; }
  detail::JournalPool &journals() noexcept { return journals_; }

 private:
  static QMHndlp create(const Options &o) noexcept {
    QMHostConfig cfg;
    qmhost_config_init(&cfg);
    cfg.iobytecount = o.iobytecount;
    cfg.default_journal = o.default_journal;
    if (!o.extension_path.empty()) cfg.extension_path = o.extension_path.c_str();
    return qmhost_create(&cfg);
  }

  QMHndlp h_;
  detail::JournalPool journals_;
};

// ---- locks ------------------------------------------------------------------

class LockManager;

// How LockManager::lock opens the file.
struct LockOptions {
  uint32_t open_flags = O_RDWR | O_CREAT;  // open(2) flags
  uint32_t mode = 0644;                    // of a created file (less the umask)
  bool delete_on_close = false;            // unlink when the file's last holder goes
};

// I/O counts of a record, or an increment reported with FileLock::update_io.
struct IOCounts {
  QMIOSize bytes_read = 0, bytes_written = 0, reads = 0, writes = 0, seeks = 0;
};

// A granted lock on a file: move-only, released by its destructor (or by
// release(), which says how it went).
class FileLock {
 public:
  FileLock() noexcept = default;
  FileLock(FileLock &&o) noexcept { take(o); }
  FileLock &operator=(FileLock &&o) noexcept {
    if (this != &o) {
      release_quietly();
      take(o);
    }
    return *this;
  }
  ~FileLock() { release_quietly(); }
  FileLock(const FileLock &) = delete;
  FileLock &operator=(const FileLock &) = delete;

  explicit operator bool() const noexcept { return handle_ != nullptr; }
  // The descriptor the lock manager opened for this lock (it stays the lock
  // manager's: never close it), or -1.
  int fd() const noexcept {
    return handle_ != nullptr ? static_cast<const XVELMFileHandle *>(handle_->Public.ResourceHandle)
                                    ->FileDescriptor
                              : -1;
  }
  // The type granted (with the option bit the option table added).
  LockType type() const noexcept {
    return handle_ != nullptr ? LockType(handle_->Private.LockType) : LockType();
  }
  const std::string &path() const noexcept { return path_; }
  QMELMLHndlp handle() const noexcept { return handle_; }
  void set_delete_on_close(bool on) noexcept {
    parms_.Flags =
        on ? parms_.Flags | QMELM_FLAG_DELETE_ON_CLOSE : parms_.Flags & ~QMELM_FLAG_DELETE_ON_CLOSE;
  }

  // Changes the lock to type (upgrade, downgrade, shared or not), with a
  // descriptor opened with open_flags when their access mode differs from
  // the current one. A refusal changes nothing.
  Result change(LockType type, std::optional<uint32_t> open_flags = std::nullopt);
  // Gives the lock back (deleting the file when it was the last holder and
  // delete on close is set); the FileLock is empty afterwards, whatever the
  // status.
  Result release();
  // Adds an increment to the I/O record of the lock's file (kept when the
  // host's iobytecount is above QMIO_ByteCount_None).
  Result update_io(const IOCounts &increment);

 private:
  friend class LockManager;

  void take(FileLock &o) noexcept {
    lm_ = std::exchange(o.lm_, nullptr);
    handle_ = std::exchange(o.handle_, nullptr);
    path_ = std::move(o.path_);
    name_ = std::move(o.name_);
    parms_ = o.parms_;
  }
  // The request block for the next call, its out fields cleared.
  XVELMFileLockParms *parms() noexcept {
    parms_.Filename = name_.data();
    parms_.FilenameLen = name_.size();
    parms_.Errno = parms_.LockerPID = parms_.SystemID = 0;
    return &parms_;
  }
  // For the destructor: no journal, so nothing is allocated.
  void release_quietly() noexcept;

  LockManager *lm_ = nullptr;
  QMELMLHndlp handle_ = nullptr;
  std::string path_;
  std::vector<QMChar> name_;
  XVELMFileLockParms parms_{};
};

// One entry of the option table.
struct OptionEntry {
  std::string path;      // as the caller gave it
  std::string fullpath;  // the table's key
  QMELMLockOption option = QMELM_Unknown;
};

// The entry that governs a path.
struct OptionMatch {
  QMELMLockOption option = QMELM_Unknown;
  std::string matchpath;  // the entry's full path
};

// Which I/O records a query selects: a file alone, a directory alone (a
// plain prefix of the names), or every record when both or neither are given.
struct IOSelection {
  std::string file;
  std::string dir;
  bool consistent = true;  // read under the records' mutexes
};

struct IOTotals {
  QMMemSize records = 0;
  IOCounts counts;
};

struct IORecord {
  std::string file;
  double open_time = 0.0;    // host datetime; 0.0 for a reused descriptor
  double close_time = -1.0;  // -1.0 while the file is open
  uint32_t open_flags = 0;
  IOCounts counts;
  bool is_open() const noexcept { return close_time == -1.0; }
};

// The lock manager loaded into a host by name.
class LockManager {
 public:
  explicit LockManager(Host &host, const char *name = "qmelm") : host_(host) {
    detail::Borrowed j(host.journals());
    if (host.get() == nullptr) {
      status_ = Result(QM_E_NO_MEMORY);
      return;
    }
    QMExtensionh loaded = qmhost_load_extension(host.get(), name, j.get());
    if (loaded == nullptr) {
      status_ = j.result(host.get()->lastStatus(host.get()));
      if (status_.ok()) status_ = Result(QM_E_EXT_NOT_FOUND, j.text());
      return;
    }
    ext_ = reinterpret_cast<QMELMExtension *>(loaded);
  }
  ~LockManager() {
    if (ext_ != nullptr) ext_->Common.generic.destroy(&ext_->Common);
  }
  LockManager(const LockManager &) = delete;
  LockManager &operator=(const LockManager &) = delete;

  explicit operator bool() const noexcept { return ext_ != nullptr; }
  // Why loading failed (QM_E_EXT_NOT_FOUND, QM_E_EXT_VERSION, ...).
  const Result &status() const noexcept { return status_; }
  QMELMExtension *ext() const noexcept { return ext_; }
  Host &host() const noexcept { return host_; }

  // Locks path with type; never waits: a conflict comes back at once with
  // result.conflict() true and, for another process, its locker_pid().
  Outcome<FileLock> lock(std::string_view path, LockType type, const LockOptions &o = {}) {
    if (ext_ == nullptr) return {FileLock(), not_loaded()};
    Outcome<FileLock> out;
    FileLock &fl = out.value;
    fl.path_ = std::string(path);
    fl.name_ = to_qm(path);
    fl.parms_.OpenFlags = o.open_flags;
    fl.parms_.PermissionsMask = o.mode;
    fl.set_delete_on_close(o.delete_on_close);
    detail::Borrowed j(journals());
    int rc = 0;
    QMELMLHndlp h =
        ext_->Functions.LockGet(ext_, fl.parms(), QMELM_RESOURCE_FILE, type.bits(), j.get(), &rc);
    if (h == nullptr) {
      out.result =
          j.result(rc != 0 ? rc : QMELM_E_EXT_LOCK_FAILED, fl.parms_.LockerPID, fl.parms_.Errno);
      return out;
    }
    fl.lm_ = this;
    fl.handle_ = h;
    return out;
  }

  // Sets the option of path (empty: the root "/").
  Result set_option(std::string_view path, QMELMLockOption option) {
    if (ext_ == nullptr) return not_loaded();
    std::vector<QMChar> p = to_qm(path);
    QMELMSetOptionParms parms{};
    parms.path = path.empty() ? nullptr : p.data();
    parms.pathlen = static_cast<QMStrSize>(p.size());
    parms.option = option;
    detail::Borrowed j(journals());
    return j.result(ext_->Functions.SetLockOption(ext_, &parms, j.get()));
  }
  // Removes path and every entry below it ("/" or empty: back to "/" Fail).
  Result reset_option(std::string_view path) { return set_option(path, QMELM_Reset); }

  // A snapshot of the option table, in its order.
  Outcome<std::vector<OptionEntry>> options() {
    if (ext_ == nullptr) return {{}, not_loaded()};
    Outcome<std::vector<OptionEntry>> out;
    QMELMGetOptionsParms snap{};
    detail::Borrowed j(journals());
    out.result = j.result(ext_->Functions.GetLockOptions(ext_, &snap, j.get()));
    if (!out.result) return out;
    for (QMMemSize i = 0; i < snap.NumOptions; ++i) {
      const QMELM_LOCK_OPTION_S &e = *snap.optionTable[i];
      out.value.push_back({to_utf8(e.path, static_cast<size_t>(e.pathlen)),
                           to_utf8(e.fullpath, static_cast<size_t>(e.fullpathlen)), e.option});
    }
    if (snap.NumOptions > 0)
      out.result = j.result(ext_->Functions.ReleaseLockOptions(ext_, &snap, j.get()));
    return out;
  }

  // The option table's entry that governs path.
  Outcome<OptionMatch> match(std::string_view path) {
    if (ext_ == nullptr) return {{}, not_loaded()};
    Outcome<OptionMatch> out;
    std::vector<QMChar> p = to_qm(path);
    QMELMMatchOptionParms m{};
    m.path = path.empty() ? nullptr : p.data();
    m.pathlen = static_cast<QMStrSize>(p.size());
    detail::Borrowed j(journals());
    out.result = j.result(ext_->Functions.MatchOption(ext_, &m, j.get()));
    if (out.result) {
      out.value.option = m.option;
      out.value.matchpath = to_utf8(m.matchpath, static_cast<size_t>(m.matchpathlen));
    }
    if (m.fullpath != nullptr || m.matchpath != nullptr) {
      Result r = j.result(ext_->Functions.ReleaseMatch(ext_, &m, j.get()));
      if (out.result) out.result = std::move(r);
    }
    return out;
  }

  // The sum of the selected I/O records.
  Outcome<IOTotals> io_totals(const IOSelection &s = {}) {
    if (ext_ == nullptr) return {{}, not_loaded()};
    Outcome<IOTotals> out;
    Query q(s);
    QMELMGetIOInfoParms r{};
    detail::Borrowed j(journals());
    out.result = j.result(ext_->Functions.GetIOInfo(ext_, &q.parms, &r, j.get()));
    out.value.records = r.numEntries;
    out.value.counts = counts(r.totals);
    return out;
  }

  // The selected I/O records, newest first.
  Outcome<std::vector<IORecord>> io_records(const IOSelection &s = {}) {
    if (ext_ == nullptr) return {{}, not_loaded()};
    Outcome<std::vector<IORecord>> out;
    Query q(s);
    QMELMListIOInfoParms r{};
    detail::Borrowed j(journals());
    out.result = j.result(ext_->Functions.ListIOInfo(ext_, &q.parms, &r, j.get()));
    if (r.list == nullptr) return out;
    for (QMMemSize i = 0; i < r.numEntries; ++i) {
      const QMELMByFileIOStats &e = r.list[i];
      out.value.push_back({to_utf8(e.filename, static_cast<size_t>(e.filenameLen)), e.openTime,
                           e.closeTime, e.openFlags, counts(e.totals)});
    }
    Result freed = j.result(ext_->Functions.ListIOInfoFree(ext_, &r, j.get()));
    if (out.result) out.result = std::move(freed);
    return out;
  }

  // The I/O report as the journal's lines: a header, then six lines per
  // record, newest first.
  Outcome<std::vector<std::string>> io_report() {
    if (ext_ == nullptr) return {{}, not_loaded()};
    Outcome<std::vector<std::string>> out;
    QMELMJnlIOInfoParms parms{};
    detail::Borrowed j(journals());
    if (j.get() == nullptr) {
      out.result = Result(QMELM_E_NO_JOURNAL);
      return out;
    }
    const QMStatus s = ext_->Functions.JnlIOInfo(ext_, &parms, j.get());
    out.value = j.lines();
    if (s != 0) out.result = Result(s);
    return out;
  }

  // Zeroes the records of open files and forgets those of closed ones.
  Result io_reset() {
    if (ext_ == nullptr) return not_loaded();
    QMELMResetIOInfoParms parms{};
    detail::Borrowed j(journals());
    return j.result(ext_->Functions.ResetIOInfo(ext_, &parms, j.get()));
  }

  detail::JournalPool &journals() noexcept { return host_.journals(); }

 private:
  // A query block that owns its paths.
  struct Query {
    std::vector<QMChar> file, dir;
    QMELMQueryIOInfoParms parms{};
    explicit Query(const IOSelection &s) : file(to_qm(s.file)), dir(to_qm(s.dir)) {
      parms.lockRequest = s.consistent ? 1 : 0;
      parms.matchFile = s.file.empty() ? nullptr : file.data();
      parms.matchFileLen = static_cast<QMStrSize>(file.size());
      parms.matchDir = s.dir.empty() ? nullptr : dir.data();
      parms.matchDirLen = static_cast<QMStrSize>(dir.size());
    }
  };
  // What every call answers when the extension was not loaded.
  Result not_loaded() const { return status_.ok() ? Result(QM_E_EXT_NOT_FOUND) : status_; }
  static IOCounts counts(const QMELMIOStats &t) noexcept {
    return {t.bytesRead, t.bytesWritten, t.reads, t.writes, t.seeks};
  }

  Host &host_;
  QMELMExtension *ext_ = nullptr;
  Result status_;
};

inline Result FileLock::change(LockType type, std::optional<uint32_t> open_flags) {
  if (handle_ == nullptr) return Result(QMELM_E_NULL_HANDLE);
  XVELMFileLockParms *p = parms();
  const uint32_t previous = p->OpenFlags;
  if (open_flags) p->OpenFlags = *open_flags;
  detail::Borrowed j(lm_->journals());
  Result r = j.result(lm_->ext()->Functions.LockChange(handle_, p, type.bits(), j.get()),
                      p->LockerPID, p->Errno);
  if (!r) p->OpenFlags = previous;
  return r;
}

inline Result FileLock::release() {
  if (handle_ == nullptr) return Result(QMELM_E_NULL_HANDLE);
  detail::Borrowed j(lm_->journals());
  XVELMFileLockParms *p = parms();
  Result r =
      j.result(lm_->ext()->Functions.LockRelease(std::exchange(handle_, nullptr), p, j.get()),
               p->LockerPID, p->Errno);
  lm_ = nullptr;
  return r;
}

inline void FileLock::release_quietly() noexcept {
  if (handle_ == nullptr) return;
  (void)lm_->ext()->Functions.LockRelease(std::exchange(handle_, nullptr), parms(), nullptr);
  lm_ = nullptr;
}

inline Result FileLock::update_io(const IOCounts &c) {
  if (handle_ == nullptr) return Result(QMELM_E_NULL_HANDLE);
  QMELMIOStats s{};
  s.bytesRead = c.bytes_read;
  s.bytesWritten = c.bytes_written;
  s.reads = c.reads;
  s.writes = c.writes;
  s.seeks = c.seeks;
  detail::Borrowed j(lm_->journals());
  return j.result(lm_->ext()->Functions.UpdateIOInfo(handle_, &s, j.get()));
}

}  // namespace qm::elm

#endif  // QMHOST_QMELM_HPP
