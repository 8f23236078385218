#!/usr/bin/env bash
# qmlock run against util-linux flock(1), side by side:
#  1. the cost of `qmlock run -x FILE true`, of qmlock under the name flock,
#     and of util-linux `flock -x FILE true`, run in turn (so that drift in
#     the machine's load hits all alike): medians of the wall time per run and
#     the ratios to util-linux flock(1);
#  2. how soon a waiting `qmlock run` has the lock after its holder lets it
#     go, for a holder of each kind it waits for (a POSIX record lock taken
#     with lockf, and a flock(2) lock): the holder releases, then watches
#     /proc/locks until the waiter holds both its locks; median, 99th
#     percentile and maximum; and, for comparison in the same run, how soon
#     util-linux flock(1) waiting for the flock(2) holder has its one lock
#     (which shows what the machine's scheduling adds). Between two reads of /proc/locks the holder
#     sleeps 0.1 ms: spinning, it would take the CPU that the woken waiter
#     needs, and on a busy machine measure mostly itself. Each figure is then
#     late by at most about that interval, never early.
# Usage: bench/run_vs_flock.sh [QMLOCK] [RUNS] [TRIALS]
#        (defaults: build/bin/qmlock, 300 runs each, 100 waiter trials a kind)
set -euo pipefail
qmlock=$(realpath "${1:-build/bin/qmlock}")
runs=${2:-300}
trials=${3:-100}
command -v flock >/dev/null || { echo "flock(1) is missing: run .ci/deps" >&2; exit 1; }
[ -x "$qmlock" ] || { echo "no qmlock at $qmlock" >&2; exit 1; }
util=$(command -v flock)
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
file=$dir/bench.lock
ln -s "$qmlock" "$dir/flock"

# Microseconds since the epoch, without running a program.
now() { local t=${EPOCHREALTIME/[.,]/}; echo "$t"; }
median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

"$qmlock" run -x "$file" true
"$util" -x "$file" true
: >"$dir/util.us"
: >"$dir/run.us"
: >"$dir/personality.us"
for ((i = 0; i < runs; i++)); do
  a=$(now); "$util" -x "$file" true
  b=$(now); "$qmlock" run -x "$file" true
  c=$(now); "$dir/flock" -x "$file" true
  d=$(now)
  echo $((b - a)) >>"$dir/util.us"
  echo $((c - b)) >>"$dir/run.us"
  echo $((d - c)) >>"$dir/personality.us"
done
u=$(median <"$dir/util.us")
r=$(median <"$dir/run.us")
p=$(median <"$dir/personality.us")
awk -v u="$u" -v r="$r" -v p="$p" -v n="$runs" 'BEGIN {
  print "cost per run, median of " n " runs each, in turn:"
  printf "  util-linux flock -x FILE true   %7.3f ms\n", u / 1000
  printf "  qmlock run -x FILE true         %7.3f ms   ratio to flock(1) %6.3f\n", r / 1000, r / u
  printf "  qmlock as flock -x FILE true    %7.3f ms   ratio to flock(1) %6.3f\n", p / 1000, p / u
}'

python3 - "$qmlock" "$util" "$file" "$trials" <<'EOF'
import fcntl, os, random, statistics, subprocess, sys, time

qmlock, util, path, trials = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
inode = ":%d " % os.stat(path).st_ino

def waiter_holds(pid, ofd_too):
    """Whether /proc/locks shows pid's flock(2) lock and (ofd_too) an OFD lock on the file,
    granted."""
    flock = ofd = False
    with open("/proc/locks") as table:
        for line in table:
            if inode not in line or "->" in line:
                continue
            fields = line.split()
            flock |= fields[1] == "FLOCK" and fields[4] == str(pid)
            ofd |= fields[1] == "OFDLCK"
    return flock and (ofd or not ofd_too)

def someone_waits():
    with open("/proc/locks") as table:
        return any("->" in line and inode in line for line in table)

fd = os.open(path, os.O_RDWR | os.O_CREAT, 0o644)
lockf_holder = (lambda: fcntl.lockf(fd, fcntl.LOCK_EX), lambda: fcntl.lockf(fd, fcntl.LOCK_UN))
flock_holder = (lambda: fcntl.flock(fd, fcntl.LOCK_EX), lambda: fcntl.flock(fd, fcntl.LOCK_UN))
for name, waiter_argv, both, kind, (take, give) in (
        ("qmlock run", [qmlock, "run"], True, "lockf (POSIX record lock)", lockf_holder),
        ("qmlock run", [qmlock, "run"], True, "flock(2), as util-linux flock(1)", flock_holder),
        ("util-linux flock(1) for comparison (one lock)", [util], False, "flock(2)",
         flock_holder)):
    latencies = []
    for _ in range(trials):
        take()
        waiter = subprocess.Popen(waiter_argv + ["-w", "10", path, "sleep", "0.1"])
        while not someone_waits():
            time.sleep(0.001)
        time.sleep(random.uniform(0.005, 0.02))  # asleep in the kernel by now
        give()
        released = time.perf_counter()
        while not waiter_holds(waiter.pid, both):
            if waiter.poll() is not None:
                sys.exit("the waiter ended before it was seen holding the lock")
            if time.perf_counter() - released > 5:
                sys.exit("the waiter never got the lock")
            time.sleep(0.0001)  # leave the CPU to the waiter
        latencies.append((time.perf_counter() - released) * 1000)
        if waiter.wait() != 0:
            sys.exit("the waiter failed")
    latencies.sort()
    p99 = latencies[min(len(latencies) - 1, int(0.99 * len(latencies)))]
    print(f"waiting {name}, holder {kind}, lock held by the waiter after the release, "
          f"{trials} trials:")
    print(f"  median {statistics.median(latencies):.3f} ms, 99th percentile {p99:.3f} ms, "
          f"max {latencies[-1]:.3f} ms")
EOF
