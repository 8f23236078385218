// shell.cpp - qmlock shell [SCRIPT]: every operation of the lock manager,
// one command a line, for exploring and for scripted tests. Each command
// prints one result line, "ok ..." or "error 0x80ffe011
// QMELM_E_EXT_LOCKED_EXCLUSIVE: <journal text>"; listings print their
// entries, indented, before it. "expect error CODE COMMAND" makes a failure
// with CODE the expected outcome. The exit status is 1 when any line failed
// unexpectedly, 2 when the script cannot be read.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lineedit.h"
#include "manager.h"

namespace qmlock {
namespace {

// Splits a line into words: blanks separate, '...' and "..." group (with \"
// and \\ inside double quotes), # begins a comment. Nothing for an unclosed quote.
std::optional<std::vector<std::string>> words(const std::string &line) {
  std::vector<std::string> out;
  size_t i = 0;
  for (;;) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
    if (i == line.size() || line[i] == '#') return out;
    std::string w;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t') {
      const char q = line[i];
      if (q != '\'' && q != '"') {
        w += line[i++];
        continue;
      }
      for (++i;; ++i) {
        if (i == line.size()) return std::nullopt;
        if (line[i] == q) break;
        if (q == '"' && line[i] == '\\' && i + 1 < line.size() &&
            (line[i + 1] == '"' || line[i + 1] == '\\'))
          ++i;
        w += line[i];
      }
      ++i;
    }
    out.push_back(std::move(w));
  }
}

constexpr struct {
  const char *name;
  uint32_t bits;
} kOpenFlags[] = {{"creat", O_CREAT}, {"excl", O_EXCL}, {"trunc", O_TRUNC}, {"append", O_APPEND}};

std::optional<uint32_t> parseOpenFlags(const std::string &text) {
  uint32_t out = 0;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(',', start);
    const std::string t = text.substr(start, end - start);
    if (t == "rdonly") {
      out |= O_RDONLY;
    } else if (t == "wronly") {
      out |= O_WRONLY;
    } else if (t == "rdwr") {
      out |= O_RDWR;
    } else {
      bool known = false;
      for (const auto &f : kOpenFlags)
        if (t == f.name) out |= f.bits, known = true;
      if (!known) return std::nullopt;
    }
    if (end == std::string::npos) return out;
    start = end + 1;
  }
}

std::string openFlagsText(uint32_t flags) {
  const uint32_t mode = flags & O_ACCMODE;
  std::string out = mode == O_WRONLY ? "wronly" : mode == O_RDWR ? "rdwr" : "rdonly";
  for (const auto &f : kOpenFlags)
    if ((flags & f.bits) != 0) out += std::string(",") + f.name;
  return out;
}

std::string countsText(const elm::IOCounts &c) {
  return "reads=" + std::to_string(c.reads) + " bytes-read=" + std::to_string(c.bytes_read) +
         " writes=" + std::to_string(c.writes) +
         " bytes-written=" + std::to_string(c.bytes_written) + " seeks=" + std::to_string(c.seeks);
}

// The usage of "expect", which line() handles before any command.
constexpr const char *kExpectUsage = "expect error CODE COMMAND...";

// A usage mistake in a command line.
struct Misuse {
  std::string text;
};

// What one command produced: its result line's text, or the failure.
struct Reply {
  Reply(elm::Result r = elm::Result(), std::string text = {})
      : result(std::move(r)), ok(std::move(text)) {}
  elm::Result result;
  std::string ok;  // the text after "ok" on success
};

class Shell {
 public:
  Shell() : host_(hostOptions()), lm_(host_) {}
  bool loaded() const { return static_cast<bool>(lm_); }
  const elm::Result &loadStatus() const { return lm_.status(); }

  // Runs one line; false when it failed unexpectedly. Sets done on quit.
  bool line(const std::string &text, int number, bool &done) {
    const std::optional<std::vector<std::string>> w = words(text);
    if (!w) return misuse("unclosed quote");
    if (w->empty()) return true;
    std::vector<std::string> args = *w;
    std::optional<QMStatus> expected;
    if (args[0] == "expect") {
      if (args.size() < 4 || args[1] != "error") return misuse(kExpectUsage);
      expected = elm::parse_status(args[2]);
      if (!expected || *expected == 0) return misuse("unknown status '" + args[2] + "'");
      args.erase(args.begin(), args.begin() + 3);
    }
    if (args[0] == "quit" || args[0] == "exit") {
      done = true;
      return true;
    }
    Reply reply;
    try {
      reply = run(args);
    } catch (const Misuse &m) {
      return misuse(m.text);
    }
    const elm::Result &r = reply.result;
    if (r.ok()) {
      std::printf("ok%s%s\n", reply.ok.empty() ? "" : " ", reply.ok.c_str());
    } else {
      remember(r.message());
      std::string line = r.to_string();
      if (r.conflict()) line += " Holder: " + holderDescription(r) + ".";
      std::printf("%s\n", line.c_str());
    }
    std::fflush(stdout);
    if (!expected) return r.ok();
    if (r.status() == *expected) return true;
    std::fprintf(stderr, "qmlock shell: line %d: expected error 0x%08x %s\n", number,
                 static_cast<unsigned>(*expected),
                 std::string(elm::status_name(*expected)).c_str());
    return false;
  }

 private:
  static elm::Host::Options hostOptions() {
    elm::Host::Options o;
    o.iobytecount = QMIO_ByteCount_External;  // keep I/O records
    return o;
  }

  bool misuse(const std::string &text) {
    std::printf("error usage: %s (try help)\n", text.c_str());
    std::fflush(stdout);
    return false;
  }
  void remember(const std::string &message) {
    journal_.push_back(message);
    if (journal_.size() > 1000) journal_.pop_front();
  }

  static void need(bool ok, const char *usage) {
    if (!ok) throw Misuse{usage};
  }
  static elm::LockType lockType(const std::string &text) {
    std::optional<elm::LockType> t = elm::LockType::parse(text);
    if (!t) throw Misuse{"unknown lock type '" + text + "'"};
    return *t;
  }
  static uint32_t openFlags(const std::string &text) {
    std::optional<uint32_t> f = parseOpenFlags(text);
    if (!f) throw Misuse{"unknown open flags '" + text + "'"};
    return *f;
  }
  static long long number(const std::string &text) {
    char *end = nullptr;
    errno = 0;
    const long long n = std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || errno != 0 || *end != '\0' || n < 0)
      throw Misuse{"not a number: '" + text + "'"};
    return n;
  }
  elm::FileLock &handle(const std::string &name) {
    auto it = handles_.find(name);
    if (it == handles_.end()) throw Misuse{"no handle named '" + name + "'"};
    return it->second;
  }
  static std::string describe(const std::string &name, const elm::FileLock &l) {
    return name + " fd=" + std::to_string(l.fd()) + " type=" + to_string(l.type());
  }
  // key=value words after the first `from`.
  static std::map<std::string, std::string> keywords(const std::vector<std::string> &a, size_t from,
                                                     std::vector<std::string> flags = {}) {
    std::map<std::string, std::string> out;
    for (size_t i = from; i < a.size(); ++i) {
      const size_t eq = a[i].find('=');
      if (eq == std::string::npos) {
        bool known = false;
        for (const std::string &f : flags) known = known || f == a[i];
        if (!known) throw Misuse{"unexpected '" + a[i] + "'"};
        out[a[i]] = "";
      } else {
        out[a[i].substr(0, eq)] = a[i].substr(eq + 1);
      }
    }
    return out;
  }

  // One command of the shell: its words, its usage (the help line and the
  // misuse message), its help text, and the member that runs it.
  using Handler = Reply (Shell::*)(const std::vector<std::string> &a, const char *usage);
  struct Command {
    const char *word;     // the first word
    const char *sub;      // the second word ('|' between alternatives), or null
    const char *usage;    // the command line as help shows it
    const char *summary;  // help: after the usage on its line, or null
    const char *details;  // help: lines indented below the usage, or null
    Handler handler;      // null: handled by line() itself
  };
  static const Command kCommands[];

  // Runs the command a names, or throws Misuse.
  Reply run(const std::vector<std::string> &a);

  // Whether word is one of the '|'-separated alternatives.
  static bool hasAlternative(std::string_view alternatives, std::string_view word) {
    for (;;) {
      const size_t bar = alternatives.find('|');
      if (alternatives.substr(0, bar) == word) return true;
      if (bar == std::string_view::npos) return false;
      alternatives.remove_prefix(bar + 1);
    }
  }

  // Lists every command: its usage, then its summary from column 33 (at
  // least four blanks after the usage), or its details indented below.
  Reply help(const std::vector<std::string> &, const char *);

  Reply change(const std::vector<std::string> &a, const char *usage) {
    need(a.size() >= 3, usage);
    elm::FileLock &l = handle(a[1]);
    std::optional<uint32_t> flags;
    for (const auto &[k, v] : keywords(a, 3)) {
      need(k == "open", usage);
      flags = openFlags(v);
    }
    Reply r{l.change(lockType(a[2]), flags)};
    r.ok = describe(a[1], l);
    return r;
  }

  Reply release(const std::vector<std::string> &a, const char *usage) {
    need(a.size() == 2 || (a.size() == 3 && a[2] == "delete"), usage);
    elm::FileLock &l = handle(a[1]);
    if (a.size() == 3) l.set_delete_on_close(true);
    Reply r{l.release()};
    handles_.erase(a[1]);
    r.ok = a[1] + " released";
    return r;
  }

  Reply listHandles(const std::vector<std::string> &, const char *) {
    for (const auto &[name, l] : handles_)
      std::printf("  %s %s\n", describe(name, l).c_str(), l.path().c_str());
    return {elm::Result(), std::to_string(handles_.size()) + " handles"};
  }

  Reply journal(const std::vector<std::string> &a, const char *usage) {
    need(a.size() <= 2, usage);
    const size_t n = a.size() == 2 ? static_cast<size_t>(number(a[1])) : 10;
    const size_t from = journal_.size() > n ? journal_.size() - n : 0;
    for (size_t i = from; i < journal_.size(); ++i) std::printf("  %s\n", journal_[i].c_str());
    return {elm::Result(), std::to_string(journal_.size() - from) + " messages"};
  }

  Reply sleep(const std::vector<std::string> &a, const char *usage) {
    need(a.size() == 2, usage);
    char *end = nullptr;
    const double s = std::strtod(a[1].c_str(), &end);
    need(end != a[1].c_str() && *end == '\0' && s >= 0 && s < 1e6, usage);
    std::this_thread::sleep_for(std::chrono::duration<double>(s));
    return {};
  }

  Reply get(const std::vector<std::string> &a, const char *usage) {
    need(a.size() >= 3, usage);
    need(handles_.count(a[1]) == 0, "the handle name is in use; release it first");
    size_t next = 3;
    elm::LockType type = elm::LockType::exclusive;
    if (a.size() > 3 && a[3].find('=') == std::string::npos && a[3] != "delete")
      type = lockType(a[next++]);
    elm::LockOptions o;
    for (const auto &[k, v] : keywords(a, next, {"delete"})) {
      if (k == "open") {
        o.open_flags = openFlags(v);
      } else if (k == "mode") {
        char *end = nullptr;
        o.mode = static_cast<uint32_t>(std::strtoul(v.c_str(), &end, 8));
        need(!v.empty() && *end == '\0', usage);
      } else if (k == "delete") {
        o.delete_on_close = true;
      } else {
        throw Misuse{usage};
      }
    }
    auto [lock, result] = lm_.lock(a[2], type, o);
    Reply r{std::move(result)};
    if (lock) {
      r.ok = describe(a[1], lock);
      handles_.emplace(a[1], std::move(lock));
    }
    return r;
  }

  Reply optionSet(const std::vector<std::string> &a, const char *usage) {
    need(a.size() == 4, usage);
    std::optional<QMELMLockOption> o = elm::parse_option(a[3]);
    need(o && *o != QMELM_Reset, usage);
    return {lm_.set_option(a[2], *o)};
  }

  Reply optionReset(const std::vector<std::string> &a, const char *usage) {
    need(a.size() == 3, usage);
    return {lm_.reset_option(a[2])};
  }

  Reply optionList(const std::vector<std::string> &a, const char *usage) {
    need(a.size() == 2, usage);
    auto [entries, result] = lm_.options();
    for (const elm::OptionEntry &e : entries)
      std::printf("  %s %s\n", e.fullpath.c_str(), std::string(elm::option_name(e.option)).c_str());
    return {std::move(result), std::to_string(entries.size()) + " options"};
  }

  Reply optionMatch(const std::vector<std::string> &a, const char *usage) {
    need(a.size() == 3, usage);
    auto [m, result] = lm_.match(a[2]);
    return {std::move(result), std::string(elm::option_name(m.option)) + " " + m.matchpath};
  }

  Reply ioUpdate(const std::vector<std::string> &a, const char *usage) {
    need(a.size() >= 3, usage);
    elm::FileLock &l = handle(a[2]);
    elm::IOCounts c;
    for (const auto &[k, v] : keywords(a, 3)) {
      QMIOSize *field = k == "reads"           ? &c.reads
                        : k == "writes"        ? &c.writes
                        : k == "seeks"         ? &c.seeks
                        : k == "bytes-read"    ? &c.bytes_read
                        : k == "bytes-written" ? &c.bytes_written
                                               : nullptr;
      need(field != nullptr, usage);
      *field = number(v);
    }
    return {l.update_io(c)};
  }

  Reply ioSelect(const std::vector<std::string> &a, const char *usage) {
    elm::IOSelection s;
    for (const auto &[k, v] : keywords(a, 2, {"nolock"})) {
      if (k == "file") {
        s.file = v;
      } else if (k == "dir") {
        s.dir = v;
      } else if (k == "nolock") {
        s.consistent = false;
      } else {
        throw Misuse{usage};
      }
    }
    if (a[1] == "get") {
      auto [t, result] = lm_.io_totals(s);
      return {std::move(result), std::to_string(t.records) + " records " + countsText(t.counts)};
    }
    auto [records, result] = lm_.io_records(s);
    for (const elm::IORecord &rec : records)
      std::printf("  %s %s open=%s %s\n", rec.file.c_str(), rec.is_open() ? "open" : "closed",
                  openFlagsText(rec.open_flags).c_str(), countsText(rec.counts).c_str());
    return {std::move(result), std::to_string(records.size()) + " records"};
  }

  Reply ioReport(const std::vector<std::string> &a, const char *usage) {
    need(a.size() == 2, usage);
    auto [lines, result] = lm_.io_report();
    for (const std::string &l : lines) std::printf("  %s\n", l.c_str());
    return {std::move(result), std::to_string(lines.size()) + " lines"};
  }

  Reply ioReset(const std::vector<std::string> &a, const char *usage) {
    need(a.size() == 2, usage);
    return {lm_.io_reset()};
  }

  elm::Host host_;
  elm::LockManager lm_;
  std::map<std::string, elm::FileLock> handles_;  // released before lm_ goes
  std::deque<std::string> journal_;               // messages of failed commands
};

// Every command, in the order help lists them.
const Shell::Command Shell::kCommands[] = {
    {"get", nullptr, "get NAME PATH [TYPE] [open=FLAGS] [mode=OCTAL] [delete]", nullptr,
     "lock PATH as handle NAME; TYPE: names joined by ',' (int-excl int-nonexcl\n"
     "ext-excl ext-nonexcl no-int no-ext shared opt-none opt-fail opt-continue)\n"
     "or a number, default int-excl,ext-excl; FLAGS: rdonly|wronly|rdwr with\n"
     "creat excl trunc append, default rdwr,creat; delete: delete on close",
     &Shell::get},
    {"change", nullptr, "change NAME TYPE [open=FLAGS]", "change the lock's type (and descriptor)",
     nullptr, &Shell::change},
    {"release", nullptr, "release NAME [delete]", "release the lock (delete the file on close)",
     nullptr, &Shell::release},
    {"handles", nullptr, "handles", "list the handles held", nullptr, &Shell::listHandles},
    {"option", "set", "option set PATH Fail|None|Continue", nullptr,
     "what a refused record lock means for locks under PATH whose TYPE names\n"
     "no option (\"/\" is Fail until set): Fail: the lock fails; None: no record\n"
     "lock is taken, only this process's threads are arbitrated; Continue: a\n"
     "refusal whose holder cannot be determined is committed as if granted",
     &Shell::optionSet},
    {"option", "reset", "option reset PATH", "remove PATH's option and those below it", nullptr,
     &Shell::optionReset},
    {"option", "list", "option list", "the option table", nullptr, &Shell::optionList},
    {"option", "match", "option match PATH", "the option that governs PATH", nullptr,
     &Shell::optionMatch},
    {"io", "update",
     "io update NAME [reads=N] [writes=N] [seeks=N] [bytes-read=N] [bytes-written=N]", nullptr,
     nullptr, &Shell::ioUpdate},
    {"io", "get|list", "io get|list [file=PATH] [dir=PATH] [nolock]", "I/O totals, or the records",
     nullptr, &Shell::ioSelect},
    {"io", "report", "io report", "the I/O report as journaled", nullptr, &Shell::ioReport},
    {"io", "reset", "io reset", "zero open files' records, forget closed ones", nullptr,
     &Shell::ioReset},
    {"journal", nullptr, "journal [N]", "the last N messages journaled (default 10)", nullptr,
     &Shell::journal},
    {"sleep", nullptr, "sleep SECONDS", nullptr, nullptr, &Shell::sleep},
    {"expect", nullptr, kExpectUsage, "COMMAND must fail with CODE (name or 0x...)", nullptr,
     nullptr},
    {"help", nullptr, "help, quit", nullptr, nullptr, &Shell::help},
};

Reply Shell::run(const std::vector<std::string> &a) {
  const Command *first = nullptr;
  std::string subs;  // the alternatives of the second word, for a misuse
  for (const Command &c : kCommands) {
    if (c.word != a[0] || c.handler == nullptr) continue;
    if (first == nullptr) first = &c;
    if (c.sub == nullptr) return (this->*c.handler)(a, c.usage);
    if (a.size() > 1 && hasAlternative(c.sub, a[1])) return (this->*c.handler)(a, c.usage);
    subs += (subs.empty() ? "" : "|") + std::string(c.sub);
  }
  if (first == nullptr) throw Misuse{"unknown command '" + a[0] + "'"};
  throw Misuse{a[0] + " " + subs + " ..."};
}

Reply Shell::help(const std::vector<std::string> &, const char *) {
  for (const Command &c : kCommands) {
    std::string line = c.usage;
    if (c.summary != nullptr)
      line += std::string(line.size() + 4 > 33 ? 4 : 33 - line.size(), ' ') + c.summary;
    std::printf("  %s\n", line.c_str());
    for (const char *d = c.details; d != nullptr && *d != '\0';) {
      const char *end = std::strchr(d, '\n');
      const size_t len = end != nullptr ? static_cast<size_t>(end - d) : std::strlen(d);
      std::printf("      %.*s\n", static_cast<int>(len), d);
      d = end != nullptr ? end + 1 : d + len;
    }
  }
  return {};
}

}  // namespace

int shellMain(int argc, char **argv) {
  if (argc > 2 ||
      (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0))) {
    std::fprintf(argc > 2 ? stderr : stdout,
                 "usage: qmlock shell [SCRIPT]\n"
                 "Reads commands from SCRIPT or standard input; 'help' lists them.\n");
    return argc > 2 ? 2 : 0;
  }
  FILE *in = stdin;
  if (argc == 2 && std::strcmp(argv[1], "-") != 0) {
    in = std::fopen(argv[1], "re");
    if (in == nullptr) {
      std::fprintf(stderr, "qmlock shell: %s: %s\n", argv[1], std::strerror(errno));
      return 2;
    }
  }
  Shell shell;
  if (!shell.loaded()) {
    std::fprintf(stderr, "qmlock: cannot load the lock manager: %s\n",
                 shell.loadStatus().to_string().c_str());
    if (in != stdin) std::fclose(in);
    return kExitConfig;
  }
  LineReader reader(in, "qmlock> ");
  int failures = 0, number = 0;
  bool done = false;
  while (!done) {
    std::optional<std::string> line = reader.next();
    if (!line) break;
    ++number;
    if (!shell.line(*line, number, done)) ++failures;
  }
  if (in != stdin) std::fclose(in);
  return failures > 0 && !reader.interactive() ? 1 : 0;
}

}  // namespace qmlock
