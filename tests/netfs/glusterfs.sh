#!/usr/bin/env bash
# A one-brick GlusterFS volume on this machine, mounted so that it behaves as
# three machines sharing one file system:
#   m1, m2  two FUSE mounts in this mount namespace (the kernel sees two file
#           systems; only the brick arbitrates their locks);
#   m3      a third mount inside its own PID and mount namespaces, kept alive
#           by a helper process ("the other machine", with its own PIDs);
#           commands run there with `glusterfs.sh exec STATE CMD...`.
#
#   glusterfs.sh start STATE   set it all up; STATE is a new directory (under
#                              /tmp/qmnetfs-*) that holds everything of it
#   glusterfs.sh stop STATE    take it all down, leaving nothing behind
#   glusterfs.sh status STATE  exit 0 while it is up
#   glusterfs.sh exec STATE CMD [ARG...]   run CMD on the other machine
#   glusterfs.sh kill-brick STATE          SIGKILL the brick: the server is
#                              gone for every client (stop still cleans up)
#
# glusterd runs with its own volfile: its working directory, run directory,
# CLI socket, pid file and logs are in STATE, so /var/lib/glusterd is not
# touched for the volume. What the daemons write all the same under
# /var/log/glusterfs, /var/run/gluster and /var/lib/glusterd (the brick's log
# and socket, empty directories) is listed at start, and what was not there
# before is removed by stop.
#
# One instance per machine (glusterd's port): start waits for a flock(2) lock
# on /var/lib/glusterd that the namespace helper holds until stop; another
# glusterd on the port fails the start.
#
# start exits 77 (CTest's skip code) when this machine cannot mount FUSE file
# systems (no root or no /dev/fuse), and fails, saying why, on anything else.
set -euo pipefail

readonly SKIP=77
readonly HOST=127.0.0.2 # glusterd refuses localhost and 127.0.0.1 as brick host
readonly PORT=24007     # bricks reach glusterd on its default port only
# One glusterd per machine: a set-up holds a flock(2) lock on the machine's
# glusterd directory (created by the package, so nothing is left behind).
readonly MACHINE_LOCK=/var/lib/glusterd
# What glusterd and its bricks write outside STATE whatever their options say.
readonly OUTSIDE=(/var/log/glusterfs /var/run/gluster /var/lib/glusterd)

die() {
  echo "glusterfs.sh: $*" >&2
  exit 1
}

usage() {
  echo "usage: glusterfs.sh start|stop|status|kill-brick STATE | exec STATE CMD [ARG...]" >&2
  exit 2
}

[ $# -ge 2 ] || usage
action=$1
state=$2
shift 2
case "$state" in
  /*) ;;
  *) state="$PWD/$state" ;;
esac

cli() { gluster --mode=script --glusterd-sock="$state/glusterd.socket" --log-file="$state/log/cli.log" "$@"; }

# The value of KEY in STATE/env (written by start).
get() { sed -n "s/^$1=//p" "$state/env" 2>/dev/null; }

helper_alive() {
  local pid
  pid=$(get HELPER)
  [ -n "$pid" ] && [ -e "/proc/$pid/ns/mnt" ] && [ -e "$state/helper.ready" ]
}

in_ns() {
  local pid
  pid=$(get HELPER)
  nsenter -t "$pid" -p -m -- "$@"
}

wait_for() { # SECONDS DESCRIPTION COMMAND...: COMMAND succeeds within SECONDS
  local limit=$1 what=$2
  shift 2
  local end=$((SECONDS + limit))
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $end ] || die "$what: not within $limit s (logs in $state/log)"
    sleep 0.1
  done
}

brick_online() {
  cli volume status "$(get VOL)" --xml 2>/dev/null | grep -q '<status>1</status>'
}

is_mounted() { findmnt -n -M "$1" -t fuse.glusterfs >/dev/null; }

mount_client() { # MOUNTPOINT LOGNAME
  glusterfs --volfile-server="$HOST" --volfile-server-port="$PORT" \
    --volfile-id="/$(get VOL)" --log-file="$state/log/$2.log" "$1" 9>&-
}

start() {
  if [ "$(id -u)" -ne 0 ]; then
    echo "glusterfs.sh: SKIPPED: mounting GlusterFS through FUSE needs root" >&2
    exit $SKIP
  fi
  if [ ! -c /dev/fuse ]; then
    echo "glusterfs.sh: SKIPPED: no /dev/fuse on this machine" >&2
    exit $SKIP
  fi
  for tool in glusterd gluster glusterfs nsenter unshare findmnt; do
    command -v "$tool" >/dev/null || die "$tool is missing (.ci/deps installs glusterfs-server and glusterfs-client)"
  done
  if [ -f "$state/env" ]; then
    echo "glusterfs.sh: taking down the set-up an interrupted run left in $state" >&2
    stop
  fi
  [ ! -e "$state" ] || die "$state exists and is no set-up; give a new directory"
  mkdir -p "$state"/{glusterd,run,log,m1,m2,m3}
  local vol
  vol="qmnetfs$$x$RANDOM"
  {
    echo "VOL=$vol"
    echo "BRICK=$state/brick"
    echo "M1=$state/m1"
    echo "M2=$state/m2"
    echo "M3=$state/m3"
  } >"$state/env"

  # One instance per machine: fd 9 stays open in the helper until stop.
  exec 9<"$MACHINE_LOCK"
  flock -w 600 9 || die "another netfs set-up held $MACHINE_LOCK for 10 minutes"
  find "${OUTSIDE[@]}" 2>/dev/null | sort >"$state/outside.before" || true
  trap failed EXIT

  if ss -ltn "sport = :$PORT" | grep -q LISTEN; then
    die "port $PORT is in use (a set-up left behind? try: glusterfs.sh stop on its STATE)"
  fi
  cat >"$state/glusterd.vol" <<EOF
volume management
    type mgmt/glusterd
    option working-directory $state/glusterd
    option run-directory $state/run
    option glusterd-sockfile $state/glusterd.socket
    option transport-type socket
    option transport.socket.listen-port $PORT
    option transport.socket.read-fail-log off
    option ping-timeout 0
    option event-threads 1
end-volume
EOF
  glusterd -f "$state/glusterd.vol" -p "$state/glusterd.pid" -l "$state/log/glusterd.log" 9>&- ||
    die "glusterd did not start (see $state/log/glusterd.log)"
  wait_for 30 "glusterd answering" cli volume list
  echo "GLUSTERD=$(cat "$state/glusterd.pid")" >>"$state/env"

  cli volume create "$vol" "$HOST:$state/brick" force >"$state/log/create.out" 2>&1 ||
    die "volume create: $(cat "$state/log/create.out")"
  cli volume start "$vol" >"$state/log/start.out" 2>&1 ||
    die "volume start: $(cat "$state/log/start.out")"
  wait_for 60 "brick of $vol online" brick_online

  mount_client "$state/m1" m1 || die "mount m1"
  mount_client "$state/m2" m2 || die "mount m2"
  wait_for 30 "m1 mounted" is_mounted "$state/m1"
  wait_for 30 "m2 mounted" is_mounted "$state/m2"

  # The other machine: its own PID and mount namespaces, its own FUSE client.
  # The helper mounts, says ready, and sleeps until stop kills it; its PID
  # namespace ends with it, taking the client along.
  local env_file="$state/env"
  unshare --pid --fork --mount --propagation private --mount-proc \
    bash -c '
      set -e
      state=$1 host=$2 port=$3 vol=$4
      glusterfs --volfile-server="$host" --volfile-server-port="$port" \
        --volfile-id="/$vol" --log-file="$state/log/m3.log" "$state/m3"
      for _ in $(seq 300); do
        findmnt -n -M "$state/m3" -t fuse.glusterfs >/dev/null && break
        sleep 0.1
      done
      findmnt -n -M "$state/m3" -t fuse.glusterfs >/dev/null
      touch "$state/helper.ready"
      exec sleep infinity
    ' qmnetfs-helper "$state" "$HOST" "$PORT" "$vol" </dev/null >"$state/log/helper.log" 2>&1 &
  echo "UNSHARE=$!" >>"$env_file"
  exec 9>&-
  local end=$((SECONDS + 30)) pid=""
  until [ -e "$state/helper.ready" ]; do
    kill -0 "$(get UNSHARE)" 2>/dev/null || die "the other machine's mount failed: $(cat "$state/log/helper.log")"
    [ $SECONDS -lt $end ] || die "the other machine's mount: not within 30 s"
    sleep 0.1
  done
  # The helper is the sleep that unshare's child became (PID 1 inside).
  pid=$(pgrep -P "$(get UNSHARE)" -x sleep || true)
  [ -n "$pid" ] || die "cannot find the namespace helper"
  echo "HELPER=$pid" >>"$env_file"
  [ "$(in_ns sh -c 'echo $$')" != "" ] || die "cannot enter the helper's namespaces"
  # Each mount sees the other's files.
  echo probe >"$state/m1/.qmnetfs-probe"
  wait_for 10 "m2 sees m1's file" test -s "$state/m2/.qmnetfs-probe"
  wait_for 10 "m3 sees m1's file" in_ns test -s "$state/m3/.qmnetfs-probe"
  rm -f "$state/m1/.qmnetfs-probe"
  trap - EXIT
  echo "glusterfs.sh: volume $vol up: $state/m1 $state/m2, other machine $state/m3 (helper $pid)"
}

# A start that failed: say what the logs say, then take down what was set up.
failed() {
  local log
  for log in "$state"/log/*.log /var/log/glusterfs/bricks/*"$(echo "${state#/}" | tr / -)"*.log; do
    [ -s "$log" ] || continue
    echo "--- last lines of $log" >&2
    tail -n 15 "$log" >&2
  done
  stop
}

stop() {
  [ -f "$state/env" ] || die "$state holds no set-up"
  local vol pid
  vol=$(get VOL)
  pid=$(get UNSHARE)
  if [ -n "$pid" ]; then
    if helper_alive; then in_ns umount "$state/m3" 2>/dev/null || true; fi
    # The helper first: it is the PID namespace's init, and everything in
    # the namespace (the client of m3) ends with it.
    [ -z "$(get HELPER)" ] || kill -KILL "$(get HELPER)" 2>/dev/null || true
    pkill -KILL -P "$pid" 2>/dev/null || true
    kill -KILL "$pid" 2>/dev/null || true
  fi
  for m in m1 m2; do
    if is_mounted "$state/$m"; then
      umount "$state/$m" 2>/dev/null || umount -l "$state/$m"
    fi
  done
  pid=$(get GLUSTERD)
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
    cli volume stop "$vol" force >/dev/null 2>&1 || true
    cli volume delete "$vol" >/dev/null 2>&1 || true
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$pid" 2>/dev/null || true
  fi
  # Any process of ours left (a brick glusterd could not stop, a client
  # whose mount went): everything whose command line names STATE.
  local left
  left=$(pgrep -f -- "$state/" || true)
  if [ -n "$left" ]; then
    kill -KILL $left 2>/dev/null || true
  fi
  for m in m1 m2 m3; do
    if is_mounted "$state/$m"; then umount -l "$state/$m" || true; fi
  done
  # Whatever the daemons made outside STATE since start, deepest first.
  if [ -f "$state/outside.before" ]; then
    find "${OUTSIDE[@]}" 2>/dev/null | sort | comm -13 "$state/outside.before" - |
      sort -r | while read -r path; do rm -rf -- "$path"; done
  fi
  rm -rf "$state"
}

status() {
  [ -f "$state/env" ] || { echo "not set up"; return 1; }
  local ok=0
  kill -0 "$(get GLUSTERD)" 2>/dev/null || { echo "glusterd down"; ok=1; }
  for m in m1 m2; do is_mounted "$state/$m" || { echo "$m not mounted"; ok=1; }; done
  helper_alive || { echo "other machine gone"; ok=1; }
  [ $ok -ne 0 ] || echo "up: volume $(get VOL)"
  return $ok
}

case "$action" in
  start) start ;;
  stop) stop ;;
  status) status ;;
  kill-brick)
    brick=$(pgrep -f -- "glusterfsd.*--brick-name $state/brick( |$)" || true)
    [ -n "$brick" ] || die "no brick process of $state"
    kill -KILL $brick
    ;;
  exec)
    [ $# -ge 1 ] || usage
    helper_alive || die "the other machine is not up"
    in_ns "$@"
    ;;
  *) usage ;;
esac
