#!/usr/bin/env bash
# qmlock run against util-linux flock(1), side by side:
#  1. the cost of `qmlock run -x FILE true` and of `flock -x FILE true`, run
#     alternately (so that drift in the machine's load hits both alike), as
#     medians of the wall time per run and their ratio;
#  2. how soon a `qmlock run --wait` waiter gets the lock after its holder
#     (another process's fcntl record lock) lets it go: the holder releases,
#     then watches with F_GETLK until the waiter's lock appears.
# Usage: bench/run_vs_flock.sh [QMLOCK] [RUNS] [TRIALS]
#        (defaults: build/bin/qmlock, 300 runs each, 40 waiter trials)
set -euo pipefail
qmlock=$(realpath "${1:-build/bin/qmlock}")
runs=${2:-300}
trials=${3:-40}
command -v flock >/dev/null || { echo "flock(1) is missing: run .ci/deps" >&2; exit 1; }
[ -x "$qmlock" ] || { echo "no qmlock at $qmlock" >&2; exit 1; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
file=$dir/bench.lock

# Microseconds since the epoch, without running a program.
now() { local t=${EPOCHREALTIME/[.,]/}; echo "$t"; }
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

"$qmlock" run -x "$file" true
flock -x "$file" true
: >"$dir/flock.us"
: >"$dir/qmlock.us"
for ((i = 0; i < runs; i++)); do
  a=$(now); flock -x "$file" true; b=$(now)
  "$qmlock" run -x "$file" true; c=$(now)
  echo $((b - a)) >>"$dir/flock.us"
  echo $((c - b)) >>"$dir/qmlock.us"
done
f=$(median <"$dir/flock.us")
q=$(median <"$dir/qmlock.us")
awk -v f="$f" -v q="$q" -v n="$runs" 'BEGIN {
  print "cost per run, median of " n " alternating runs:"
  printf "  flock -x FILE true        %7.3f ms\n", f / 1000
  printf "  qmlock run -x FILE true   %7.3f ms\n", q / 1000
  printf "  ratio qmlock/flock        %7.3f\n", q / f
}'

python3 - "$qmlock" "$file" "$trials" <<'EOF'
import fcntl, os, random, statistics, struct, subprocess, sys, time

qmlock, path, trials = sys.argv[1], sys.argv[2], int(sys.argv[3])
FMT = "hhqqih"  # struct flock on Linux x86-64: type, whence, start, len, pid

def holder_pid(fd):
    """The PID of the process holding a lock that conflicts with a write lock, or 0."""
    got = fcntl.fcntl(fd, fcntl.F_GETLK, struct.pack(FMT, fcntl.F_WRLCK, 0, 0, 0, 0, 0))
    kind, _, _, _, pid, _ = struct.unpack(FMT, got)
    return 0 if kind == fcntl.F_UNLCK else pid

fd = os.open(path, os.O_RDWR | os.O_CREAT, 0o644)
latencies = []
for _ in range(trials):
    fcntl.lockf(fd, fcntl.LOCK_EX)
    waiter = subprocess.Popen([qmlock, "run", "-w", "10", path, "sleep", "0.2"])
    time.sleep(random.uniform(0.05, 0.25))  # the waiter is retrying by now
    fcntl.lockf(fd, fcntl.LOCK_UN)
    released = time.perf_counter()
    while holder_pid(fd) != waiter.pid:  # yielding, so the waiter can run here too
        os.sched_yield()
        if time.perf_counter() - released > 5:
            sys.exit("the waiter never got the lock")
    latencies.append((time.perf_counter() - released) * 1000)
    if waiter.wait() != 0:
        sys.exit("the waiter failed")
latencies.sort()
print(f"--wait waiter, lock seen held by it after the release, {trials} trials:")
print(f"  median {statistics.median(latencies):.3f} ms, "
      f"90th percentile {latencies[int(0.9 * (len(latencies) - 1))]:.3f} ms, "
      f"max {latencies[-1]:.3f} ms")
EOF
