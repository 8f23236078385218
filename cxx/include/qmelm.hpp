// qmelm.hpp - the lock manager for C++: a header-only layer over its C
// interface (qmelm.h) and the substitute host (qmhost/qmhost.h). C++20.
//
//   qm::elm::LockManager &lm = qm::elm::LockManager::process();
//   qm::elm::file_mutex m(lm, "/srv/data/orders.db");
//   {
//     std::unique_lock lock(m);              // waits: other threads, other processes
//     ...
//   }
//   auto [lock, r] = lm.lock("/srv/data/orders.db", qm::elm::LockType::write);
//   if (!r) std::cerr << r.text() << '\n';   // never waits: the holder is named
//
// Two things every user of record locks must know:
// - Arbitration between threads is by holder counts inside one LockManager.
//   Two LockManagers in one process do not exclude each other's threads
//   (their record lock is the process's, so neither sees the other). Use
//   LockManager::process(), the program's one manager, unless a separate one
//   is wanted.
// - The lock between processes is a POSIX record lock, owned by the process
//   and the file: closing any descriptor of the locked file anywhere in the
//   process (an std::ifstream of it, fopen+fclose, a library reading it)
//   drops the record lock, while the lock manager's counts still say it is
//   held. FileLock::held() tells whether the process still holds it.
//
// Lifetimes: Host, LockManager, FileLock and file_mutex share what they use,
// so none of them may outlive another in a harmful way: a FileLock that
// outlives its LockManager (and its Host) keeps the lock manager loaded until
// it is released. Host and LockManager are movable; a moved-from object is
// empty (false) and every call on it reports why.
// Threads: Host, LockManager and file_mutex may be used from any number of
// threads at once; one FileLock is used by one thread at a time, like any
// object.
// Failures come back as Result values (convertible to std::error_code),
// never as exceptions from the lock manager; file_mutex throws
// std::system_error for a failure that is not a conflict (Lockable has no
// other way to say it). std::bad_alloc from the strings and vectors here is
// the only other exception, and destructors throw nothing.
#ifndef QMELM_HPP
#define QMELM_HPP

#if !defined(__cplusplus) || __cplusplus < 202002L
#error \
    "qmelm.hpp needs C++20 (-std=c++20, or link the CMake target qmelm::cxx); C programs include qmelm.h and qmhost/qmhost.h"
#endif

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>  // std::shared_lock, for file_mutex
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "qmelm.h"
#include "qmhost/qmhost.h"

namespace qm::elm {

// ---- statuses ---------------------------------------------------------------

// Every status of the lock manager and of the host by its symbolic name, and
// ok for success: Status::QMELM_E_EXT_LOCKED_EXCLUSIVE. A Status converts to
// std::error_code (make_error_code below), as does every Result.
enum class Status : QMStatus {
  ok = 0,
#define QMELM_HPP_STATUS_ENUM(name, code, text) name = static_cast<QMStatus>(code),
  QMELM_STATUS_LIST(QMELM_HPP_STATUS_ENUM) QM_HOST_STATUS_LIST(QMELM_HPP_STATUS_ENUM)
#undef QMELM_HPP_STATUS_ENUM
};

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

// The statuses a caller may wait out: another holder has the lock. An
// external lock refused with EAGAIN or EACCES is one too (the holder went
// away between the refusal and the question who it was, or the file was
// replaced between its open and its lock).
inline bool is_conflict(QMStatus s, int error) noexcept {
  switch (s) {
    case QMELM_E_INT_LOCKED_EXCLUSIVE:
    case QMELM_E_INT_LOCKED_SHARED:
    case QMELM_E_INT_SHARE_CONFLICT:
    case QMELM_E_EXT_LOCKED_EXCLUSIVE:
    case QMELM_E_EXT_LOCKED_SHARED:
      return true;
    case QMELM_E_EXT_LOCK_FAILED:
      return error == EAGAIN || error == EACCES;
    default:
      return false;
  }
}

// The std::error_category of Status: messages from the catalogue, and the
// portable conditions (std::errc) that some statuses mean.
class Category final : public std::error_category {
 public:
  using std::error_category::equivalent;
  const char *name() const noexcept override { return "qmelm"; }
  std::string message(int code) const override { return std::string(status_text(code)); }
  bool equivalent(int code, const std::error_condition &cond) const noexcept override {
    if (cond.category() != std::generic_category()) return default_error_condition(code) == cond;
    switch (static_cast<std::errc>(cond.value())) {
      case std::errc::resource_unavailable_try_again:
        return code == QMELM_E_INT_LOCKED_EXCLUSIVE || code == QMELM_E_INT_LOCKED_SHARED ||
               code == QMELM_E_INT_SHARE_CONFLICT || code == QMELM_E_EXT_LOCKED_EXCLUSIVE ||
               code == QMELM_E_EXT_LOCKED_SHARED;
      case std::errc::not_enough_memory:
        return code == QMELM_E_NO_MEMORY || code == QMELM_E_OS_NO_MEMORY || code == QM_E_NO_MEMORY;
      case std::errc::no_such_file_or_directory:
        return code == QMELM_E_FILE_NOT_FOUND || code == QMELM_E_PATH_NOT_FOUND;
      case std::errc::permission_denied:
        return code == QMELM_E_ACCESS_DENIED;
      case std::errc::file_exists:
        return code == QMELM_E_FILE_EXISTS;
      case std::errc::too_many_files_open:
        return code == QMELM_E_TOO_MANY_FILES;
      case std::errc::invalid_argument:
        return code == QMELM_E_NAME_HAS_NUL || code == QM_E_INVALID_SEQUENCE ||
               code == QMELM_E_INVALID_LOCKTYPE;
      default:
        return false;
    }
  }
};

}  // namespace detail

// The category of the lock manager's and the host's statuses ("qmelm").
inline const std::error_category &error_category() noexcept {
  static const detail::Category category;
  return category;
}
inline std::error_code make_error_code(Status s) noexcept {
  return {static_cast<int>(s), error_category()};
}

// The status named by text: a symbolic name, "OK", or a number (0x80ffe011).
inline std::optional<QMStatus> parse_status(std::string_view text) noexcept {
  for (const StatusInfo &i : kStatuses)
    if (text == i.name) return i.code;
  if (text == "OK") return 0;
  std::optional<uint64_t> v = detail::parse_number(text, UINT32_MAX);
  if (!v) return std::nullopt;
  return static_cast<QMStatus>(static_cast<uint32_t>(*v));
}

// "process 4242 (python3)"; for -1 an open file description's lock (owned by
// no process); "an unknown holder" for 0.
inline std::string process_description(int pid) {
  if (pid == -1) return "a lock owned by an open file description (no process ID)";
  if (pid <= 0) return "an unknown holder";
  std::string comm;
  std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
  std::getline(in, comm);
  return "process " + std::to_string(pid) + (comm.empty() ? "" : " (" + comm + ")");
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
  // The status as an std::error_code of error_category(); the Result
  // converts to one implicitly.
  std::error_code code() const noexcept { return make_error_code(static_cast<Status>(status_)); }
  operator std::error_code() const noexcept { return code(); }
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
  bool conflict() const noexcept { return detail::is_conflict(status_, error_); }
  // The holder is another thread of this process.
  bool internal_conflict() const noexcept {
    return status_ == QMELM_E_INT_LOCKED_EXCLUSIVE || status_ == QMELM_E_INT_LOCKED_SHARED ||
           status_ == QMELM_E_INT_SHARE_CONFLICT;
  }

  // Who holds what refused the call, as qmlock says it: "process 4242
  // (python3) holds a write lock", "another thread of this process holds it
  // exclusively"; empty when the call was not refused by a holder. The
  // command is read now from /proc, so a holder that has gone since shows
  // without it.
  std::string holder() const {
    switch (status_) {
      case QMELM_E_INT_LOCKED_EXCLUSIVE:
        return "another thread of this process holds it exclusively";
      case QMELM_E_INT_LOCKED_SHARED:
        return "another thread of this process holds it non-exclusively";
      case QMELM_E_INT_SHARE_CONFLICT:
        return "another thread of this process holds it (shared and non-shared holders cannot "
               "mix)";
      case QMELM_E_EXT_LOCKED_EXCLUSIVE:
        return process_description(locker_pid_) + " holds a write lock";
      case QMELM_E_EXT_LOCKED_SHARED:
        return process_description(locker_pid_) + " holds a read lock";
      default:
        if (locker_pid_ != 0) return process_description(locker_pid_) + " holds a lock";
        return conflict() ? "its holder went away or the file was replaced while it was being "
                            "locked"
                          : "";
    }
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
  // to_string() and, for a refusal, " Holder: " and holder(): the text an
  // exception or a log line carries.
  std::string text() const {
    std::string out = to_string();
    const std::string who = holder();
    if (!who.empty()) out += " Holder: " + who + ".";
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

  // Whole-file locks between threads and processes alike: write is one
  // holder (an exclusive internal lock and a write record lock), read any
  // number of holders (non-exclusive internal, read record lock).
  static const LockType write, read;
  // The same two under the lock manager's own names.
  static const LockType exclusive, nonexclusive;
  // The parts, for mixing: the internal part (between this process's
  // threads), the external part (the record lock, between processes), and
  // the option bits, which override the option table.
  static const LockType int_exclusive, int_nonexclusive, ext_exclusive, ext_nonexclusive,
      no_internal, no_external, opt_none, opt_fail, opt_continue;
  // Not a read lock: the QMELM_SHARED bit marks a co-operating holder. Shared
  // non-exclusive holders of a file may not mix with non-shared ones (those
  // are refused QMELM_E_INT_SHARE_CONFLICT); it adds nothing else. A read
  // lock is LockType::read.
  static const LockType shared;

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

inline constexpr LockType LockType::write{QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE};
inline constexpr LockType LockType::read{QMELM_INT_NONEXCLUSIVE | QMELM_EXT_NONEXCLUSIVE};
inline constexpr LockType LockType::exclusive{QMELM_INT_EXCLUSIVE | QMELM_EXT_EXCLUSIVE};
inline constexpr LockType LockType::nonexclusive{QMELM_INT_NONEXCLUSIVE | QMELM_EXT_NONEXCLUSIVE};
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

namespace detail {

// The QMChar text of a name in UTF-8, strictly: 0, QMELM_E_NAME_HAS_NUL for
// a name holding a NUL (the C interface would lock another file: the part
// before it), or QM_E_INVALID_SEQUENCE for bytes that are not UTF-8 (a
// stray or missing continuation byte, an overlong form, a surrogate, a code
// point above U+10FFFF). Nothing is replaced: a name is locked as given or
// not at all.
inline QMStatus from_utf8(std::string_view s, std::vector<QMChar> &out) {
  out.clear();
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    const auto b = static_cast<unsigned char>(s[i]);
    if (b == 0) return QMELM_E_NAME_HAS_NUL;
    const size_t n = b < 0x80             ? 1
                     : (b & 0xe0) == 0xc0 ? 2
                     : (b & 0xf0) == 0xe0 ? 3
                     : (b & 0xf8) == 0xf0 ? 4
                                          : 0;
    if (n == 0 || i + n > s.size()) return QM_E_INVALID_SEQUENCE;
    QMChar c = n == 1 ? b : n == 2 ? b & 0x1fu : n == 3 ? b & 0x0fu : b & 0x07u;
    for (size_t k = 1; k < n; ++k) {
      const auto cont = static_cast<unsigned char>(s[i + k]);
      if ((cont & 0xc0) != 0x80) return QM_E_INVALID_SEQUENCE;
      c = (c << 6) | (cont & 0x3fu);
    }
    static constexpr QMChar kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < kMin[n] || c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff)) return QM_E_INVALID_SEQUENCE;
    out.push_back(c);
    i += n;
  }
  return 0;
}

}  // namespace detail

// UTF-8 from QMChar text.
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

// What a Host owns, shared by the Host, the LockManagers made on it and
// their locks: the host kernel goes with the last of them.
struct HostCore {
  explicit HostCore(QMHndlp h) noexcept : host(h), journals(h) {}
  ~HostCore() {
    if (host != nullptr) qmhost_destroy(host);
  }
  HostCore(const HostCore &) = delete;
  HostCore &operator=(const HostCore &) = delete;

  QMHndlp host;          // null when it could not be made
  JournalPool journals;  // lent to the calls of every LockManager on it
};

// A loaded lock manager, shared by its LockManager, file_mutexes and
// FileLocks: the extension is destroyed (and the host with it, when nothing
// else holds that) only once the last of them is gone, so a lock handle is
// never used after its extension.
struct ExtensionCore {
  ExtensionCore(std::shared_ptr<HostCore> h, QMELMExtension *e) noexcept
      : host(std::move(h)), ext(e) {}
  ~ExtensionCore() { ext->Common.generic.destroy(&ext->Common); }
  ExtensionCore(const ExtensionCore &) = delete;
  ExtensionCore &operator=(const ExtensionCore &) = delete;

  std::shared_ptr<HostCore> host;
  QMELMExtension *ext;  // never null
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
// loaded into. Movable; the kernel is destroyed with the last of the Host and
// the LockManagers (and their locks) made on it.
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
  explicit Host(const Options &o) : core_(std::make_shared<detail::HostCore>(create(o))) {}

  // False when the host could not be made (out of memory), or moved from.
  explicit operator bool() const noexcept { return get() != nullptr; }
  QMHndlp get() const noexcept { return core_ != nullptr ? core_->host : nullptr; }

 private:
  friend class LockManager;

  static QMHndlp create(const Options &o) noexcept {
    QMHostConfig cfg;
    qmhost_config_init(&cfg);
    cfg.iobytecount = o.iobytecount;
    cfg.default_journal = o.default_journal;
    if (!o.extension_path.empty()) cfg.extension_path = o.extension_path.c_str();
    return qmhost_create(&cfg);
  }

  std::shared_ptr<detail::HostCore> core_;
};

// ---- locks ------------------------------------------------------------------

class LockManager;
class file_mutex;

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
// release(), which says how it went). It keeps its lock manager loaded, so it
// may outlive the LockManager and the Host it came from.
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
  // The descriptor the lock manager opened for this lock, or -1. It stays
  // the lock manager's: never close it (closing any descriptor of the file
  // drops the process's record lock on it).
  int fd() const noexcept {
    return handle_ != nullptr ? static_cast<const XVELMFileHandle *>(handle_->Public.ResourceHandle)
                                    ->FileDescriptor
                              : -1;
  }
  // The type granted (with the option bit the option table added). This is
  // the lock manager's count: see held() for the record lock itself.
  LockType type() const noexcept {
    return handle_ != nullptr ? LockType(handle_->Private.LockType) : LockType();
  }
  const std::string &path() const noexcept { return path_; }
  QMELMLHndlp handle() const noexcept { return handle_; }
  void set_delete_on_close(bool on) noexcept {
    parms_.Flags =
        on ? parms_.Flags | QMELM_FLAG_DELETE_ON_CLOSE : parms_.Flags & ~QMELM_FLAG_DELETE_ON_CLOSE;
  }

  // Whether this process holds the record lock on the lock's file now, as
  // strong as type() says (a write lock for an external exclusive type): read
  // from /proc/locks for this process and the file's device and inode. False
  // for an empty FileLock, a type without an external part, and when
  // /proc/locks cannot be read. A close of any descriptor of the file in
  // this process (an std::ifstream of it included) makes it false, while
  // type() still shows the lock.
  bool held() const;

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
    core_ = std::move(o.core_);
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

  std::shared_ptr<detail::ExtensionCore> core_;  // set while handle_ is
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

// The lock manager loaded into a host by name. Movable; its extension stays
// loaded while any of its FileLocks or file_mutexes lives.
//
// The threads of a process are arbitrated by one LockManager's holder
// counts: two LockManagers do not exclude each other's threads (the record
// lock belongs to the process, so neither sees the other's holders). Share
// one: LockManager::process().
class LockManager {
 public:
  explicit LockManager(const Host &host, const char *name = "qmelm") {
    if (host.get() == nullptr) {
      status_ = Result(QM_E_NO_MEMORY, "The host could not be made, or was moved from.");
      return;
    }
    detail::Borrowed j(host.core_->journals);
    QMExtensionh loaded = qmhost_load_extension(host.get(), name, j.get());
    if (loaded == nullptr) {
      status_ = j.result(host.get()->lastStatus(host.get()));
      if (status_.ok()) status_ = Result(QM_E_EXT_NOT_FOUND, j.text());
      return;
    }
    // The extension is destroyed when make_shared cannot allocate.
    auto *ext = reinterpret_cast<QMELMExtension *>(loaded);
    try {
      core_ = std::make_shared<detail::ExtensionCore>(host.core_, ext);
    } catch (...) {
      ext->Common.generic.destroy(&ext->Common);
      throw;
    }
  }

  // The program's lock manager, on a host with the default options, made on
  // first use (by any thread) and never destroyed: every part of a program
  // that locks through it arbitrates against the same holder counts, so its
  // threads exclude each other. Check it like any other: when libqmelm.so
  // could not be loaded, it is false and status() says why.
  static LockManager &process() {
    static LockManager *const manager = new LockManager(Host());
    return *manager;
  }

  // False when the lock manager could not be loaded, or was moved from.
  explicit operator bool() const noexcept { return core_ != nullptr; }
  // Why loading failed (QM_E_EXT_NOT_FOUND, QM_E_EXT_VERSION, ...).
  const Result &status() const noexcept { return status_; }
  QMELMExtension *ext() const noexcept { return core_ != nullptr ? core_->ext : nullptr; }
  // The host kernel it was loaded into, or null.
  QMHndlp host() const noexcept { return core_ != nullptr ? core_->host->host : nullptr; }

  // Locks path with type; never waits: a conflict comes back at once with
  // result.conflict() true and, for another process, its locker_pid(). A
  // path holding a NUL is refused QMELM_E_NAME_HAS_NUL, one that is not
  // UTF-8 QM_E_INVALID_SEQUENCE, before anything is opened.
  Outcome<FileLock> lock(std::string_view path, LockType type, const LockOptions &o = {}) {
    return acquire(core_, status_, path, type, o);
  }
  Outcome<FileLock> lock(const std::string &path, LockType type, const LockOptions &o = {}) {
    return lock(std::string_view(path), type, o);
  }
  Outcome<FileLock> lock(const char *path, LockType type, const LockOptions &o = {}) {
    return lock(std::string_view(path), type, o);
  }
  Outcome<FileLock> lock(const std::filesystem::path &path, LockType type,
                         const LockOptions &o = {}) {
    return lock(std::string_view(path.native()), type, o);
  }

  // Sets the option of path (empty: the root "/").
  Result set_option(std::string_view path, QMELMLockOption option) {
    if (core_ == nullptr) return not_loaded(status_);
    std::vector<QMChar> p;
    if (QMStatus s = detail::from_utf8(path, p); s != 0) return Result(s);
    QMELMSetOptionParms parms{};
    parms.path = path.empty() ? nullptr : p.data();
    parms.pathlen = static_cast<QMStrSize>(p.size());
    parms.option = option;
    detail::Borrowed j(journals());
    return j.result(ext()->Functions.SetLockOption(ext(), &parms, j.get()));
  }
  // Removes path and every entry below it ("/" or empty: back to "/" Fail).
  Result reset_option(std::string_view path) { return set_option(path, QMELM_Reset); }

  // A snapshot of the option table, in its order.
  Outcome<std::vector<OptionEntry>> options() {
    if (core_ == nullptr) return {{}, not_loaded(status_)};
    Outcome<std::vector<OptionEntry>> out;
    QMELMGetOptionsParms snap{};
    detail::Borrowed j(journals());
    out.result = j.result(ext()->Functions.GetLockOptions(ext(), &snap, j.get()));
    if (!out.result) return out;
    for (QMMemSize i = 0; i < snap.NumOptions; ++i) {
      const QMELM_LOCK_OPTION_S &e = *snap.optionTable[i];
      out.value.push_back({to_utf8(e.path, static_cast<size_t>(e.pathlen)),
                           to_utf8(e.fullpath, static_cast<size_t>(e.fullpathlen)), e.option});
    }
    if (snap.NumOptions > 0)
      out.result = j.result(ext()->Functions.ReleaseLockOptions(ext(), &snap, j.get()));
    return out;
  }

  // The option table's entry that governs path.
  Outcome<OptionMatch> match(std::string_view path) {
    if (core_ == nullptr) return {{}, not_loaded(status_)};
    Outcome<OptionMatch> out;
    std::vector<QMChar> p;
    if (QMStatus s = detail::from_utf8(path, p); s != 0) return {{}, Result(s)};
    QMELMMatchOptionParms m{};
    m.path = path.empty() ? nullptr : p.data();
    m.pathlen = static_cast<QMStrSize>(p.size());
    detail::Borrowed j(journals());
    out.result = j.result(ext()->Functions.MatchOption(ext(), &m, j.get()));
    if (out.result) {
      out.value.option = m.option;
      out.value.matchpath = to_utf8(m.matchpath, static_cast<size_t>(m.matchpathlen));
    }
    if (m.fullpath != nullptr || m.matchpath != nullptr) {
      Result r = j.result(ext()->Functions.ReleaseMatch(ext(), &m, j.get()));
      if (out.result) out.result = std::move(r);
    }
    return out;
  }

  // The sum of the selected I/O records.
  Outcome<IOTotals> io_totals(const IOSelection &s = {}) {
    if (core_ == nullptr) return {{}, not_loaded(status_)};
    Outcome<IOTotals> out;
    Query q;
    if (QMStatus st = q.set(s); st != 0) return {{}, Result(st)};
    QMELMGetIOInfoParms r{};
    detail::Borrowed j(journals());
    out.result = j.result(ext()->Functions.GetIOInfo(ext(), &q.parms, &r, j.get()));
    out.value.records = r.numEntries;
    out.value.counts = counts(r.totals);
    return out;
  }

  // The selected I/O records, newest first.
  Outcome<std::vector<IORecord>> io_records(const IOSelection &s = {}) {
    if (core_ == nullptr) return {{}, not_loaded(status_)};
    Outcome<std::vector<IORecord>> out;
    Query q;
    if (QMStatus st = q.set(s); st != 0) return {{}, Result(st)};
    QMELMListIOInfoParms r{};
    detail::Borrowed j(journals());
    out.result = j.result(ext()->Functions.ListIOInfo(ext(), &q.parms, &r, j.get()));
    if (r.list == nullptr) return out;
    for (QMMemSize i = 0; i < r.numEntries; ++i) {
      const QMELMByFileIOStats &e = r.list[i];
      out.value.push_back({to_utf8(e.filename, static_cast<size_t>(e.filenameLen)), e.openTime,
                           e.closeTime, e.openFlags, counts(e.totals)});
    }
    Result freed = j.result(ext()->Functions.ListIOInfoFree(ext(), &r, j.get()));
    if (out.result) out.result = std::move(freed);
    return out;
  }

  // The I/O report as the journal's lines: a header, then six lines per
  // record, newest first.
  Outcome<std::vector<std::string>> io_report() {
    if (core_ == nullptr) return {{}, not_loaded(status_)};
    Outcome<std::vector<std::string>> out;
    QMELMJnlIOInfoParms parms{};
    detail::Borrowed j(journals());
    if (j.get() == nullptr) {
      out.result = Result(QMELM_E_NO_JOURNAL);
      return out;
    }
    const QMStatus s = ext()->Functions.JnlIOInfo(ext(), &parms, j.get());
    out.value = j.lines();
    if (s != 0) out.result = Result(s);
    return out;
  }

  // Zeroes the records of open files and forgets those of closed ones.
  Result io_reset() {
    if (core_ == nullptr) return not_loaded(status_);
    QMELMResetIOInfoParms parms{};
    detail::Borrowed j(journals());
    return j.result(ext()->Functions.ResetIOInfo(ext(), &parms, j.get()));
  }

 private:
  friend class file_mutex;

  // A query block that owns its paths.
  struct Query {
    std::vector<QMChar> file, dir;
    QMELMQueryIOInfoParms parms{};
    QMStatus set(const IOSelection &s) {
      if (QMStatus st = detail::from_utf8(s.file, file); st != 0) return st;
      if (QMStatus st = detail::from_utf8(s.dir, dir); st != 0) return st;
      parms.lockRequest = s.consistent ? 1 : 0;
      parms.matchFile = s.file.empty() ? nullptr : file.data();
      parms.matchFileLen = static_cast<QMStrSize>(file.size());
      parms.matchDir = s.dir.empty() ? nullptr : dir.data();
      parms.matchDirLen = static_cast<QMStrSize>(dir.size());
      return 0;
    }
  };
  // What every call answers when the extension was not loaded.
  static Result not_loaded(const Result &status) {
    return status.ok() ? Result(QM_E_EXT_NOT_FOUND) : status;
  }
  static IOCounts counts(const QMELMIOStats &t) noexcept {
    return {t.bytesRead, t.bytesWritten, t.reads, t.writes, t.seeks};
  }
  detail::JournalPool &journals() const noexcept { return core_->host->journals; }

  // One request for a lock, made on core (null: not loaded, status says why).
  static Outcome<FileLock> acquire(const std::shared_ptr<detail::ExtensionCore> &core,
                                   const Result &status, std::string_view path, LockType type,
                                   const LockOptions &o) {
    if (core == nullptr) return {FileLock(), not_loaded(status)};
    Outcome<FileLock> out;
    FileLock &fl = out.value;
    if (QMStatus s = detail::from_utf8(path, fl.name_); s != 0) {
      out.result = Result(s);
      fl.name_.clear();
      return out;
    }
    fl.path_ = std::string(path);
    fl.parms_.OpenFlags = o.open_flags;
    fl.parms_.PermissionsMask = o.mode;
    fl.set_delete_on_close(o.delete_on_close);
    detail::Borrowed j(core->host->journals);
    int rc = 0;
    QMELMLHndlp h = core->ext->Functions.LockGet(core->ext, fl.parms(), QMELM_RESOURCE_FILE,
                                                 type.bits(), j.get(), &rc);
    if (h == nullptr) {
      out.result =
          j.result(rc != 0 ? rc : QMELM_E_EXT_LOCK_FAILED, fl.parms_.LockerPID, fl.parms_.Errno);
      return out;
    }
    fl.core_ = core;
    fl.handle_ = h;
    return out;
  }

  std::shared_ptr<detail::ExtensionCore> core_;  // null: not loaded
  Result status_;
};

inline Result FileLock::change(LockType type, std::optional<uint32_t> open_flags) {
  if (handle_ == nullptr) return Result(QMELM_E_NULL_HANDLE);
  XVELMFileLockParms *p = parms();
  const uint32_t previous = p->OpenFlags;
  if (open_flags) p->OpenFlags = *open_flags;
  detail::Borrowed j(core_->host->journals);
  // The call first, then its out fields: as arguments of one call they
  // could be read before the change writes them.
  const int rc = core_->ext->Functions.LockChange(handle_, p, type.bits(), j.get());
  Result r = j.result(rc, p->LockerPID, p->Errno);
  if (!r) p->OpenFlags = previous;
  return r;
}

inline Result FileLock::release() {
  if (handle_ == nullptr) return Result(QMELM_E_NULL_HANDLE);
  const std::shared_ptr<detail::ExtensionCore> core = std::move(core_);
  detail::Borrowed j(core->host->journals);
  XVELMFileLockParms *p = parms();
  const int rc = core->ext->Functions.LockRelease(std::exchange(handle_, nullptr), p, j.get());
  return j.result(rc, p->LockerPID, p->Errno);
}

inline void FileLock::release_quietly() noexcept {
  if (handle_ == nullptr) return;
  (void)core_->ext->Functions.LockRelease(std::exchange(handle_, nullptr), parms(), nullptr);
  core_.reset();
}

inline Result FileLock::update_io(const IOCounts &c) {
  if (handle_ == nullptr) return Result(QMELM_E_NULL_HANDLE);
  QMELMIOStats s{};
  s.bytesRead = c.bytes_read;
  s.bytesWritten = c.bytes_written;
  s.reads = c.reads;
  s.writes = c.writes;
  s.seeks = c.seeks;
  detail::Borrowed j(core_->host->journals);
  return j.result(core_->ext->Functions.UpdateIOInfo(handle_, &s, j.get()));
}

inline bool FileLock::held() const {
  const LockType t = type();
  if (!t.has(LockType::ext_exclusive) && !t.has(LockType::ext_nonexclusive)) return false;
  struct stat st {};
  if (fstat(fd(), &st) != 0) return false;
  // "1: POSIX  ADVISORY  WRITE 4242 08:01:1312 0 EOF"; waiters' lines carry
  // "->" after the number and are skipped, as are flock(2) and OFD locks.
  const std::string file = [&] {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%llu", major(st.st_dev), minor(st.st_dev),
                  static_cast<unsigned long long>(st.st_ino));
    return std::string(buf);
  }();
  const std::string pid = std::to_string(getpid());
  const bool write = t.has(LockType::ext_exclusive);
  std::ifstream locks("/proc/locks");
  for (std::string id, kind, advisory, mode, owner, where, rest;
       locks >> id >> kind >> advisory >> mode >> owner >> where && std::getline(locks, rest);) {
    if (kind == "POSIX" && owner == pid && where == file && (!write || mode == "WRITE"))
      return true;
  }
  return false;
}

// ---- file_mutex -------------------------------------------------------------

namespace detail {

// The pauses between attempts of a waiting file_mutex: 1 ms, then doubling
// to 50 ms. The lock manager never waits (a refusal is immediate), so a
// waiter polls; the back-off keeps a long wait to some twenty requests a
// second, and a release is seen within 50 ms.
class Backoff {
 public:
  // Sleeps the next pause, or less when limit is shorter.
  void sleep(std::chrono::nanoseconds limit) {
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(next_, limit));
    next_ = std::min<std::chrono::nanoseconds>(next_ * 2, kMax);
  }

 private:
  static constexpr std::chrono::nanoseconds kMax = std::chrono::milliseconds(50);
  std::chrono::nanoseconds next_ = std::chrono::milliseconds(1);
};

}  // namespace detail

// A file as a mutex: meets the standard's Lockable, TimedLockable,
// SharedLockable and SharedTimedLockable requirements, so std::unique_lock,
// std::scoped_lock, std::lock, std::shared_lock and std::condition_variable_any
// work with it. The exclusive lock is LockType::write (other threads of the
// process arbitrated by the manager, other processes by a write record lock);
// the shared lock is LockType::read. A file that does not exist is created
// (mode 0644 less the umask); the exclusive lock opens it read-write, the
// shared one read-only.
//
// Waiting (lock, lock_shared and the timed forms) retries with a back-off
// from 1 ms to 50 ms, since the lock manager never waits. A timed attempt
// tries at least once and gives up once the time is past. try_lock returns
// false only for a conflict (another holder); every other failure (the file
// cannot be opened or created, the lock manager is not loaded, a NUL in the
// name) throws std::system_error with the Result's code() and text(), from
// every one of these functions. unlock and unlock_shared throw nothing.
//
// Locks are per thread as with std::shared_mutex: the thread that locks
// unlocks, and locking twice from one thread without unlocking waits
// forever. The file_mutex shares its manager's lock manager, so it may
// outlive the LockManager; locks still held when it is destroyed are
// released.
class file_mutex {
 public:
  file_mutex(LockManager &lm, std::filesystem::path path)
      : core_(lm.core_), status_(lm.status_), path_(std::move(path)) {}
  file_mutex(const file_mutex &) = delete;
  file_mutex &operator=(const file_mutex &) = delete;

  const std::filesystem::path &path() const noexcept { return path_; }

  void lock() { wait(LockType::write, exclusive_); }
  bool try_lock() { return attempt(LockType::write, exclusive_); }
  template <class Rep, class Period>
  bool try_lock_for(const std::chrono::duration<Rep, Period> &d) {
    return try_lock_until(std::chrono::steady_clock::now() + d);
  }
  template <class Clock, class Duration>
  bool try_lock_until(const std::chrono::time_point<Clock, Duration> &t) {
    return wait_until(LockType::write, exclusive_, t);
  }
  void unlock() noexcept { give_back(exclusive_); }

  void lock_shared() { wait(LockType::read, shared_); }
  bool try_lock_shared() { return attempt(LockType::read, shared_); }
  template <class Rep, class Period>
  bool try_lock_shared_for(const std::chrono::duration<Rep, Period> &d) {
    return try_lock_shared_until(std::chrono::steady_clock::now() + d);
  }
  template <class Clock, class Duration>
  bool try_lock_shared_until(const std::chrono::time_point<Clock, Duration> &t) {
    return wait_until(LockType::read, shared_, t);
  }
  void unlock_shared() noexcept { give_back(shared_); }

 private:
  // One request: true when granted (the lock joins held), false on a
  // conflict; throws on any other failure.
  bool attempt(LockType type, std::vector<FileLock> &held) {
    LockOptions o;
    o.open_flags = type == LockType::write ? O_RDWR | O_CREAT : O_RDONLY | O_CREAT;
    auto [lock, r] = LockManager::acquire(core_, status_, path_.native(), type, o);
    if (!r) {
      if (r.conflict()) return false;
      throw std::system_error(r.code(), r.text());
    }
    std::lock_guard<std::mutex> g(m_);
    held.push_back(std::move(lock));  // on bad_alloc the lock is released
    return true;
  }
  void wait(LockType type, std::vector<FileLock> &held) {
    for (detail::Backoff b; !attempt(type, held);) b.sleep(std::chrono::nanoseconds::max());
  }
  template <class Clock, class Duration>
  bool wait_until(LockType type, std::vector<FileLock> &held,
                  const std::chrono::time_point<Clock, Duration> &deadline) {
    for (detail::Backoff b;;) {
      if (attempt(type, held)) return true;
      const auto now = Clock::now();
      if (now >= deadline) return false;
      b.sleep(std::chrono::ceil<std::chrono::nanoseconds>(deadline - now));
    }
  }
  // Releases one of held (outside m_: a release may close a descriptor).
  void give_back(std::vector<FileLock> &held) noexcept {
    FileLock lock;
    {
      std::lock_guard<std::mutex> g(m_);
      if (held.empty()) return;
      lock = std::move(held.back());
      held.pop_back();
    }
  }

  std::shared_ptr<detail::ExtensionCore> core_;  // the manager's; null: not loaded
  Result status_;                                // why it is not loaded
  std::filesystem::path path_;
  std::mutex m_;                     // guards exclusive_ and shared_
  std::vector<FileLock> exclusive_;  // the holder's lock: at most one
  std::vector<FileLock> shared_;     // one per shared holder
};

}  // namespace qm::elm

namespace std {
template <>
struct is_error_code_enum<qm::elm::Status> : true_type {};
}  // namespace std

#endif  // QMELM_HPP
