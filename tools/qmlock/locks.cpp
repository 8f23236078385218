// locks.cpp - qmlock locks [options] [DIR...]: the machine's file locks, or
// those on files under DIR, or those of one process (--pid), one row per
// lock and holder, with lslocks(8)'s columns. Unlike lslocks it names the
// holders of open-file-description locks (through /proc/PID/fdinfo) and
// every process that shares a lock's open file description. Invoked under
// the name lslocks, it takes lslocks's options for the same columns.
#include <getopt.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "locktable.h"
#include "qmlock.h"

namespace qmlock {

namespace {

const char *const kColumns[] = {"COMMAND", "PID",   "TYPE", "SIZE", "MODE",
                                "M",       "START", "END",  "PATH"};

// The size of a file as lslocks shows it: 512, 4K, 1.5M.
std::string humanSize(off_t n) {
  const char *units = "BKMGTPE";
  double v = static_cast<double>(n);
  int u = 0;
  while (v >= 1024 && u < 6) {
    v /= 1024;
    ++u;
  }
  char buf[32];
  if (u == 0)
    std::snprintf(buf, sizeof buf, "%lldB", static_cast<long long>(n));
  else if (v < 10 && v != static_cast<long long>(v))
    std::snprintf(buf, sizeof buf, "%.1f%c", v, units[u]);
  else
    std::snprintf(buf, sizeof buf, "%.0f%c", v, units[u]);
  return buf;
}

std::string cell(const LockRow &r, const std::string &column) {
  if (column == "COMMAND") return r.command;
  if (column == "PID") return r.pid > 0 ? std::to_string(r.pid) : "-";
  if (column == "TYPE") return kernelKindName(r.kind);
  if (column == "MODE") return r.write ? "WRITE" : "READ";
  if (column == "M") return "0";
  if (column == "START") return std::to_string(r.start);
  if (column == "END") return std::to_string(r.end < 0 ? 0 : r.end);  // 0: to the end, as lslocks
  if (column == "PATH") return r.path;
  if (column == "SIZE") {
    struct stat st {};
    return !r.path.empty() && stat(r.path.c_str(), &st) == 0 ? humanSize(st.st_size) : "";
  }
  return {};
}

bool numeric(const std::string &column) {
  return column == "PID" || column == "SIZE" || column == "START" || column == "END";
}

bool under(const std::string &path, const std::vector<std::string> &dirs) {
  if (dirs.empty()) return true;
  for (const std::string &d : dirs)
    if (path == d || path.rfind(d == "/" ? d : d + "/", 0) == 0) return true;
  return false;
}

void usage(FILE *out, const char *name) {
  std::fprintf(out,
               "usage: %s [options] [DIR...]\n"
               "Lists file locks: all, those on files under each DIR, or those of one\n"
               "process; one row per lock and holder, open-file-description locks and\n"
               "every process that shares a lock's descriptor included.\n"
               "  -p, --pid PID        only the locks PID holds\n"
               "  -o, --output LIST    columns, comma-separated, from COMMAND, PID, TYPE,\n"
               "                       SIZE, MODE, M, START, END, PATH (all by default)\n"
               "  -n, --noheadings     no heading line\n"
               "  -r, --raw            columns separated by one space, not aligned\n"
               "  -J, --json           one JSON object with a \"locks\" array\n"
               "  -h, --help\n"
               "Exit status: 0, or 64 on a usage error.\n",
               name);
}

}  // namespace

int locksMain(int argc, char **argv, const char *name) {
  static const option longOptions[] = {
      {"pid", required_argument, nullptr, 'p'},  {"output", required_argument, nullptr, 'o'},
      {"noheadings", no_argument, nullptr, 'n'}, {"raw", no_argument, nullptr, 'r'},
      {"json", no_argument, nullptr, 'J'},       {"notruncate", no_argument, nullptr, 'u'},
      {"help", no_argument, nullptr, 'h'},       {nullptr, 0, nullptr, 0},
  };
  LockQuery q;
  std::vector<std::string> columns(std::begin(kColumns), std::end(kColumns));
  bool headings = true, raw = false, json = false;
  optind = 0;
  for (int opt; (opt = getopt_long(argc, argv, "p:o:nrJuh", longOptions, nullptr)) != -1;) {
    switch (opt) {
      case 'p': {
        char *end = nullptr;
        const long pid = std::strtol(optarg, &end, 10);
        if (end == optarg || *end != '\0' || pid <= 0 || pid > INT_MAX) {
          std::fprintf(stderr, "%s: invalid PID argument: '%s'\n", name, optarg);
          return kExitUsage;
        }
        q.pid = static_cast<pid_t>(pid);
        break;
      }
      case 'o': {
        columns.clear();
        std::string list = optarg;
        for (size_t at = 0; at <= list.size();) {
          const size_t comma = std::min(list.find(',', at), list.size());
          std::string c = list.substr(at, comma - at);
          for (char &ch : c) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
          if (std::find(std::begin(kColumns), std::end(kColumns), c) == std::end(kColumns)) {
            std::fprintf(stderr, "%s: unknown column: %s\n", name, c.c_str());
            return kExitUsage;
          }
          columns.push_back(c);
          at = comma + 1;
        }
        break;
      }
      case 'n':
        headings = false;
        break;
      case 'r':
        raw = true;
        break;
      case 'J':
        json = true;
        break;
      case 'u':
        break;  // nothing is truncated
      case 'h':
        usage(stdout, name);
        return kExitOk;
      default:
        usage(stderr, name);
        return kExitUsage;
    }
  }
  std::vector<std::string> dirs;
  for (int i = optind; i < argc; ++i) {
    char real[PATH_MAX];
    dirs.emplace_back(realpath(argv[i], real) != nullptr ? real : argv[i]);
  }

  std::vector<std::vector<std::string>> table;
  for (const LockRow &r : kernelLocks(q)) {
    if (!under(r.path, dirs)) continue;
    std::vector<std::string> row;
    for (const std::string &c : columns) row.push_back(cell(r, c));
    table.push_back(std::move(row));
  }
  if (json) {
    std::printf("{\n   \"locks\": [");
    for (size_t i = 0; i < table.size(); ++i) {
      std::printf("%s\n      {", i == 0 ? "" : ",");
      for (size_t c = 0; c < columns.size(); ++c) {
        std::string key = columns[c];
        for (char &ch : key) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        const bool number = numeric(columns[c]) && columns[c] != "SIZE" && !table[i][c].empty() &&
                            table[i][c] != "-";
        std::printf("%s\"%s\": %s", c == 0 ? "" : ", ", key.c_str(),
                    number ? table[i][c].c_str() : jsonString(table[i][c]).c_str());
      }
      std::printf("}");
    }
    std::printf("\n   ]\n}\n");
    return kExitOk;
  }
  if (headings) table.insert(table.begin(), columns);
  std::vector<size_t> width(columns.size(), 0);
  for (const auto &row : table)
    for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
  for (const auto &row : table) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      if (c > 0) line += ' ';
      if (raw) {
        line += row[c];
        continue;
      }
      const std::string pad(width[c] - row[c].size(), ' ');
      const bool last = c + 1 == row.size();
      line += numeric(columns[c]) ? pad + row[c] : last ? row[c] : row[c] + pad;
    }
    std::printf("%s\n", line.c_str());
  }
  return kExitOk;
}

}  // namespace qmlock
