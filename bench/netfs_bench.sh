#!/usr/bin/env bash
# Sets up the netfs suite's GlusterFS volume (tests/netfs/glusterfs.sh), runs
# bench_netfs on its first mount, and takes the volume down again, also when
# the benchmark fails or is interrupted.
#   bench/netfs_bench.sh [BENCH_NETFS [BENCHMARK ARGS...]]
# BENCH_NETFS defaults to build-bench/bin/bench_netfs. Needs root and /dev/fuse.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
bench="${1:-$here/../build-bench/bin/bench_netfs}"
[ $# -eq 0 ] || shift
[ -x "$bench" ] || { echo "netfs_bench.sh: no benchmark at $bench (make bench builds it)" >&2; exit 1; }
state="/tmp/qmnetfs-bench-$$"
rc=0
"$here/../tests/netfs/glusterfs.sh" start "$state" >/dev/null || rc=$?
if [ $rc -eq 77 ]; then
  echo "netfs_bench.sh: skipped: mounting GlusterFS needs root and /dev/fuse"
  exit 0
fi
[ $rc -eq 0 ] || exit $rc
trap '"$here/../tests/netfs/glusterfs.sh" stop "$state"' EXIT
mkdir -p "$state/m1/bench"
QMELM_NETFS_DIR="$state/m1/bench" "$bench" "$@"
