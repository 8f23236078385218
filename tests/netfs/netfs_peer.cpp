// netfs_peer - the lock manager in a process of its own, on whichever
// machine the netfs tests start it, driven one command a line on standard
// input, answering one line each on standard output:
//   pid                      its PID (on its own machine)
//   lock TYPE PATH           LockGet with TYPE (hexadecimal) and O_RDWR|O_CREAT
//                            -> "granted" | "refused STATUS LOCKERPID ERRNO TEXT"
//   change TYPE              LockChange of the newest handle -> "changed" | "refused ..."
//   release [delete]         LockRelease of the newest handle (delete: on close)
//                            -> "released STATUS"
// It ends at the end of its input.
#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "qmtest_host.h"

namespace {

std::string refusal(qmtest::TestHost &host, int rc, const XVELMFileLockParms &p) {
  const auto entries = host.entries();
  char head[96];
  std::snprintf(head, sizeof head, "refused %08x %d %d ", static_cast<unsigned>(rc),
                static_cast<int>(p.LockerPID), p.Errno);
  return head + (entries.empty() ? std::string("-") : entries.back().text);
}

}  // namespace

int main() {
  qmtest::TestHost host;
  std::vector<std::pair<std::unique_ptr<qmtest::LockRequest>, QMELMLHndlp>> held;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream in(line);
    std::string cmd, arg;
    in >> cmd;
    host.clearJournal();
    std::string answer;
    if (cmd == "pid") {
      answer = std::to_string(getpid());
    } else if (cmd == "lock") {
      std::string type, path;
      in >> type >> path;
      auto req = std::make_unique<qmtest::LockRequest>(path);
      int rc = 0;
      QMELMLHndlp h = host.lock(*req, std::stoul(type, nullptr, 16), &rc);
      answer = h != nullptr ? "granted" : refusal(host, rc, req->parms);
      if (h != nullptr) held.emplace_back(std::move(req), h);
    } else if (cmd == "change" && !held.empty()) {
      in >> arg;
      auto &[req, h] = held.back();
      const int rc = host.fn().LockChange(h, req->get(), std::stoul(arg, nullptr, 16), host.jnl);
      answer = rc == 0 ? "changed" : refusal(host, rc, req->parms);
    } else if (cmd == "release" && !held.empty()) {
      in >> arg;
      auto &[req, h] = held.back();
      req->parms.Flags = arg == "delete" ? QMELM_FLAG_DELETE_ON_CLOSE : 0;
      char text[32];
      std::snprintf(text, sizeof text, "released %08x",
                    static_cast<unsigned>(host.release(h, req.get())));
      answer = text;
      held.pop_back();
    } else {
      answer = "what? " + line;
    }
    std::cout << answer << std::endl;
  }
  for (auto it = held.rbegin(); it != held.rend(); ++it) host.release(it->second);
  return 0;
}
