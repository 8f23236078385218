/*
 * xvelmLockOrder - the machine check of the lock order (see Rank in
 * xvelmMutex.h), compiled in debug and sanitizer builds. Each thread keeps
 * the ranks of the mutexes it holds, in the order it took them; an
 * inversion, a release of a mutex not held, or a missing hold aborts the
 * process with a line on stderr naming the mutexes. No mutex is taken and
 * nothing is allocated.
 */
#include "host/xvelmMutex.h"

#if QMELM_CHECK_LOCK_ORDER

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace xvelm::detail {
namespace {

constexpr int kMaxHeld = 16;
thread_local Rank tHeld[kMaxHeld];
thread_local int tDepth = 0;

constexpr const char *kNames[] = {"?",
                                  "the registry",
                                  "ListMutex",
                                  "NodeDeleteMutex",
                                  "NodeMutex",
                                  "a file's turn",
                                  "a file-table stripe",
                                  "IOInfoMutex",
                                  "an I/O record's mutex",
                                  "OptionMutex",
                                  "the handle set"};

const char *nameOf(Rank r) {
  const auto i = static_cast<std::size_t>(r);
  return i < sizeof kNames / sizeof kNames[0] ? kNames[i] : "?";
}

[[noreturn]] void violation(const char *what, Rank a, Rank b) {
  // Written with write(2): the process is about to abort, and stdio may be
  // what another thread holds.
  const char *parts[] = {
      "qmelm lock order violated: ", what, " ", nameOf(a), " / ", nameOf(b), "\n"};
  for (const char *p : parts) (void)!::write(STDERR_FILENO, p, std::strlen(p));
  std::abort();
}

}  // namespace

void lockOrderTake(Rank r) noexcept {
  for (int i = 0; i < tDepth; ++i)
    if (tHeld[i] >= r) violation("taking, while holding,", r, tHeld[i]);
  if (r == Rank::Option && tDepth > 0) violation("taken alone, but held with", r, tHeld[0]);
  if (tDepth == kMaxHeld) violation("too many held: taking", r, tHeld[tDepth - 1]);
}

void lockOrderTaken(Rank r) noexcept {
  tHeld[tDepth++] = r;
}

void lockOrderGive(Rank r) noexcept {
  for (int i = tDepth - 1; i >= 0; --i) {
    if (tHeld[i] != r) continue;
    std::memmove(&tHeld[i], &tHeld[i + 1], sizeof(Rank) * static_cast<std::size_t>(tDepth - i - 1));
    --tDepth;
    return;
  }
  violation("giving back, not held:", r, r);
}

void lockOrderRequire(Rank r) noexcept {
  for (int i = 0; i < tDepth; ++i)
    if (tHeld[i] == r) return;
  violation("required, not held:", r, r);
}

}  // namespace xvelm::detail

#endif
